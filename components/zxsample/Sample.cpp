// Sample component: answers the command "disk_usage" and leaves what it found where a person can see it,
// data/zxsample/disk_usage.json; takes its part of an asset-collection policy, data/zxsample/assets.json, and
// what the agent broadcasts when the client is ready, data/zxsample/client_ready.json. Commands come from the
// task manager only.
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <filesystem>

#include "kit/ComponentMain.h"
#include "kit/HandOff.h"
#include "platform/doc/PJsonParse.h"
#include "platform/os/ZxFile.h"
#include "platform/os/ZxTime.h"

using zxtools::CPJsonParse;
using zxtools::HJsonNode;

namespace {

constexpr uint32_t kCommandType = 20001;
constexpr uint32_t kClientReadyType = 1006;
constexpr char kAgentGuid[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";
constexpr char kTaskMgrGuid[] = "FAB922A8-736E-4CB5-A666-4FD849A3049A";
constexpr size_t kMaxPathBytes = 4096;

struct _DiskUsage {
  double dTotalBytes = 0;
  double dUsedBytes = 0;
  double dFreeBytes = 0;  // for unprivileged users
  int iUsedPercent = 0;   // as df shows it: used of used and free, rounded up
};

bool Measure(const CPString& strPath, _DiskUsage& usage) {
  struct statvfs fs {};
  if (statvfs(strPath.c_str(), &fs) != 0)
    return false;
  const double dBlock = static_cast<double>(fs.f_frsize);
  usage.dTotalBytes = static_cast<double>(fs.f_blocks) * dBlock;
  usage.dUsedBytes = static_cast<double>(fs.f_blocks - fs.f_bfree) * dBlock;
  usage.dFreeBytes = static_cast<double>(fs.f_bavail) * dBlock;
  const double dBoth = usage.dUsedBytes + usage.dFreeBytes;
  usage.iUsedPercent = dBoth > 0 ? static_cast<int>(std::ceil(100.0 * usage.dUsedBytes / dBoth)) : 0;
  return true;
}

CPString AnswerOf(const CPString& strId, const CPString& strPath, const _DiskUsage& usage) {
  char szTime[32] = {};
  ZxGetCurrentFmtTime(szTime, sizeof(szTime));
  CPJsonParse json;
  CPString strJson;
  json.CreateJson();
  json.AddNode(nullptr, "ID", strId);
  json.AddNode(nullptr, "path", strPath);
  json.AddNode(nullptr, "total_bytes", usage.dTotalBytes);
  json.AddNode(nullptr, "used_bytes", usage.dUsedBytes);
  json.AddNode(nullptr, "free_bytes", usage.dFreeBytes);
  json.AddNode(nullptr, "used_percent", usage.iUsedPercent);
  json.AddNode(nullptr, "time", szTime);
  json.GetJsonStr(strJson);
  return strJson;
}

}  // namespace

class CSample final : public CComponent {
 public:
  static constexpr char kGuid[] = "5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D";

  CSample()
      : CComponent(kGuid, "zxsample", {kCommandType, kClientReadyType}),
        m_guidTaskMgr(kTaskMgrGuid),
        m_guidAgent(kAgentGuid) {}

 private:
  void OnMessage(const GUID& sender, uint32_t uiType, std::string_view data, const CBaton& baton) override {
    if (uiType == kClientReadyType) {
      ClientReady(sender, CPString(data));
      return;
    }
    CPString strAnswer;
    const uint32_t uiStatus = sender == m_guidTaskMgr ? RunCommand(data, strAnswer) : Refuse(sender, uiType);
    const uint32_t uiRet = baton.Reply(uiStatus, strAnswer.View());
    if (uiRet != 0)
      LogWarnTo(Log(), "*zxsample answer not taken iRet[%x] strAnswer[%s]", uiRet, strAnswer);
  }

  // A broadcast: nobody waits for an answer.
  void ClientReady(const GUID& sender, const CPString& strText) {
    if (sender != m_guidAgent)
      Refuse(sender, kClientReadyType);
    else if (!Save("client_ready.json", strText))
      LogWarnTo(Log(), "*zxsample client ready cannot be saved Error[%d]", errno);
    else
      LogInfoTo(Log(), "zxsample client ready strText[%s]", strText);
  }

  uint32_t Refuse(const GUID& sender, uint32_t uiType) {
    LogWarnTo(Log(), "*zxsample refused: wrong sender uiType[%u] from[%s]", uiType, sender.ToUpper());
    return kComponentErrSender;
  }

  uint32_t RunCommand(std::string_view data, CPString& strAnswer) {
    CHandOff handOff;
    CPJsonParse json;
    if (!ParseHandOff(data, handOff) || json.LoadBuffer(handOff.strMsg.data(), handOff.strMsg.size()) == 0) {
      LogWarnTo(Log(), "*zxsample refused: no command bytes[%llu]", data.size());
      return kComponentErrText;
    }
    CPString strId;
    if (const HJsonNode hId = json.GetNode("ID"); hId != nullptr)
      CPJsonParse::GetValue(hId, strId);
    if (CPString(handOff.strCommand).CompareNoCase("assetCollection") == 0)
      return TakeAssetPolicy(strId, CPString(handOff.strMsg));
    if (CPString(handOff.strCommand).CompareNoCase("disk_usage") != 0) {
      LogWarnTo(Log(), "*zxsample unknown command strID[%s] strCommand[%s]", strId, handOff.strCommand);
      return kComponentErrCommand;
    }
    CPString strPath("/");
    const HJsonNode hParam = json.GetNode("Param");
    if (const HJsonNode hPath = hParam != nullptr ? json.GetNode(hParam, "path") : nullptr; hPath != nullptr)
      CPJsonParse::GetValue(hPath, strPath);
    return DiskUsage(strId, strPath, strAnswer);
  }

  uint32_t DiskUsage(const CPString& strId, const CPString& strPath, CPString& strAnswer) {
    if (!strPath.View().starts_with('/') || strPath.GetLength() > kMaxPathBytes) {
      LogWarnTo(Log(), "*zxsample disk_usage strID[%s] path is not absolute or too long bytes[%llu]", strId,
                strPath.GetLength());
      return kComponentErrText;
    }
    _DiskUsage usage;
    if (!Measure(strPath, usage)) {
      LogWarnTo(Log(), "*zxsample disk_usage strID[%s] strPath[%s] Error[%d]", strId, strPath, errno);
      return kComponentErrFailed;
    }
    strAnswer = AnswerOf(strId, strPath, usage);
    if (!Save("disk_usage.json", strAnswer))
      LogWarnTo(Log(), "*zxsample disk_usage strID[%s] cannot be saved Error[%d]", strId, errno);
    LogInfoTo(Log(), "zxsample disk_usage strID[%s] used[%d%%] strAnswer[%s]", strId, usage.iUsedPercent,
              strAnswer);
    return 0;
  }

  uint32_t TakeAssetPolicy(const CPString& strId, const CPString& strPolicy) {
    if (!Save("assets.json", strPolicy)) {
      LogWarnTo(Log(), "*zxsample asset policy strID[%s] cannot be saved Error[%d]", strId, errno);
      return kComponentErrFailed;
    }
    LogInfoTo(Log(), "zxsample asset policy strID[%s] strPolicy[%s]", strId, strPolicy);
    return 0;
  }

  bool Save(const char* pszName, const CPString& strAnswer) {
    const std::string strDir = DataDir("zxsample");
    std::error_code error;
    std::filesystem::create_directories(strDir, error);
    const CPString strFile(strDir + pszName);
    return ZxSaveFileData(strFile + ".tmp", strAnswer) && ZxSyncedRename(strFile + ".tmp", strFile);
  }

  const GUID m_guidTaskMgr;
  const GUID m_guidAgent;
};

ZX_COMPONENT(CSample)
