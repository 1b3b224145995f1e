#include "asset/AgentAsset.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include "data/AgentHub.h"
#include "data/AgentLog.h"
#include "data/AgentTools.h"
#include "platform/os/ZxFile.h"

namespace {

constexpr int kDirMode = 0755;
constexpr char kScanCommand[] = "inner_asset_scan_cycle";
constexpr char kPushCommand[] = "assetCollection";
constexpr char kScannerProduct[] = "veltcwpp";
constexpr char kWebCombo[] = "zxpwebassets";
constexpr char kDockerCombo[] = "zxpdockersd";

}  // namespace

// One entry of the policy's list; task is borrowed from the policy document.
struct CAgentAsset::_Entry {
  int iOpen = 0;  // already 0 when the master switch is off
  int iInterval = 0;
  CPString strCombo;  // product, "/", combo
  zxtools::HJsonNode hTask = nullptr;

  // The members of one command, in their order.
  int Fill(zxtools::CPJsonParse& json, zxtools::HJsonNode hParent, const CPString& strID) const {
    return json.AddNode(hParent, "ID", strID) & json.AddNode(hParent, "Command", kScanCommand) &
           json.AddNode(hParent, "combo", strCombo) & json.AddNode(hParent, "open", iOpen) &
           json.AddNode(hParent, "interval", iInterval) & json.AddCopyNode(hParent, "task", hTask);
  }
};

// The one command of a scanner that takes all its entries together.
struct CAgentAsset::_Combined {
  zxtools::CPJsonParse json;
  zxtools::HJsonNode hArray = nullptr;
  CPString strCombo;
  int iCount = 0;
  bool bWhole = true;  // no entry was lost to lack of memory

  int Create(const char* pszCombo, const CPString& strID) {
    strCombo = CPString(kScannerProduct) + "/" + pszCombo;
    return json.CreateJson() & json.AddNode(nullptr, "ID", strID) & json.AddNode(nullptr, "combo", strCombo) &
           json.AddNode(nullptr, "Command", kScanCommand);
  }
  int AddArray() {
    hArray = json.AddNodeArray(nullptr, "data");
    return hArray != nullptr ? 1 : 0;
  }
  void Append(const _Entry& entry, const CPString& strID) {
    ++iCount;
    const zxtools::HJsonNode hItem = json.InsertObjectToArray(hArray);
    bWhole = hItem != nullptr && entry.Fill(json, hItem, strID) != 0 && bWhole;
  }
  // Empty when it is not whole: half a command is not sent.
  CPString Text() const {
    CPString strJson;
    if (!bWhole || json.GetJsonStr(strJson) == 0)
      strJson.Empty();
    return strJson;
  }
};

int CAgentAsset::Init(CPString strHomePath) {
  if (strHomePath.IsEmpty())
    return LogWarn("*zxagent CAgentAsset::Init Error strHomePath is empty");
  m_strPath = strHomePath;
  LogInfo("zxagent CAgentAsset::Init m_strPath[%s]", m_strPath);
  return 1;
}

int CAgentAsset::ParseAssetPolicy(unsigned long long u64DataId, const CPString& strID, const char* lpszJson) {
  using zxtools::CPJsonParse;
  if (strID.IsEmpty())
    return LogWarn("*zxagent CAgentAsset::ParseAssetPolicy Error strID is empty u64DataId[%llx]", u64DataId);
  if (lpszJson == nullptr || lpszJson[0] == 0)
    return LogWarn("*zxagent CAgentAsset::ParseAssetPolicy Error lpszJson is NULL u64DataId[%llx]",
                   u64DataId);
  CPJsonParse json;
  if (json.LoadBuffer(lpszJson) == 0)
    return LogWarn(
        "*zxagent CAgentAsset::ParseAssetPolicy Error LoadBuffer Fail u64DataId[%llx] lpszJson[%s]",
        u64DataId, CAgentTools::RefusedText(lpszJson));
  const zxtools::HJsonNode hParam = json.GetNode("Param");
  if (hParam == nullptr)
    return LogWarn("*zxagent CAgentAsset::ParseAssetPolicy GetNode Param Fail u64DataId[%llx] lpszJson[%s]",
                   u64DataId, CAgentTools::RefusedText(lpszJson));
  int iMasterOpen = 0;
  if (CPJsonParse::GetIntValue(json.GetNode(hParam, "open"), iMasterOpen) == 0)
    return LogWarn("*zxagent CAgentAsset::ParseAssetPolicy GetNode open Fail u64DataId[%llx] lpszJson[%s]",
                   u64DataId, CAgentTools::RefusedText(lpszJson));
  const zxtools::HJsonNode hList = json.GetNode(hParam, "list");
  if (hList == nullptr)
    return LogWarn("*zxagent CAgentAsset::ParseAssetPolicy GetNode list Fail u64DataId[%llx] lpszJson[%s]",
                   u64DataId, CAgentTools::RefusedText(lpszJson));
  std::vector<zxtools::HJsonNode> children;
  if (json.GetAllNode(hList, children) == 0)
    return LogWarn("*zxagent CAgentAsset::ParseAssetPolicy GetAllNode Fail u64DataId[%llx] lpszJson[%s]",
                   u64DataId, CAgentTools::RefusedText(lpszJson));

  _Combined web;
  _Combined docker;
  if (web.Create(kWebCombo, strID) == 0 || docker.Create(kDockerCombo, strID) == 0)
    return LogWarn("*zxagent CAgentAsset::ParseAssetPolicy CreateJson Fail u64DataId[%llx]", u64DataId);
  if (web.AddArray() == 0)
    return LogWarn("*zxagent CAgentAsset::ParseAssetPolicy AddNodeArray hWebArray data Fail u64DataId[%llx]",
                   u64DataId);
  if (docker.AddArray() == 0)
    return LogWarn(
        "*zxagent CAgentAsset::ParseAssetPolicy AddNodeArray hDockerArray data Fail u64DataId[%llx]",
        u64DataId);

  for (const zxtools::HJsonNode hChild : children) {
    _Entry entry;
    if (CPJsonParse::GetIntValue(json.GetNode(hChild, "open"), entry.iOpen) == 0) {
      LogWarn("*zxagent CAgentAsset::ParseAssetPolicy hArrayList GetNode open Fail u64DataId[%llx]",
              u64DataId);
      continue;
    }
    if (CPJsonParse::GetIntValue(json.GetNode(hChild, "interval"), entry.iInterval) == 0) {
      LogWarn("*zxagent CAgentAsset::ParseAssetPolicy hArrayList GetNode interval Fail u64DataId[%llx]",
              u64DataId);
      continue;
    }
    if (CPJsonParse::GetValue(json.GetNode(hChild, "combo"), entry.strCombo) == 0) {
      LogWarn("*zxagent CAgentAsset::ParseAssetPolicy hArrayList GetNode combo Fail u64DataId[%llx]",
              u64DataId);
      continue;
    }
    entry.hTask = json.GetNode(hChild, "task");
    if (entry.hTask == nullptr) {
      LogWarn("*zxagent CAgentAsset::ParseAssetPolicy hArrayList task combo Fail u64DataId[%llx]", u64DataId);
      continue;
    }
    if (iMasterOpen == 0)
      entry.iOpen = 0;
    if (entry.strCombo.CompareNoCase(web.strCombo) == 0)
      web.Append(entry, strID);
    else if (entry.strCombo.CompareNoCase(docker.strCombo) == 0)
      docker.Append(entry, strID);
    else
      DisposeEntry(u64DataId, strID, entry);
  }
  SendCombined(u64DataId, strID, web, docker);
  return 1;
}

void CAgentAsset::DisposeEntry(unsigned long long u64DataId, const CPString& strID, const _Entry& entry) {
  zxtools::CPJsonParse json;
  CPString strJsonCombo;
  if (json.CreateJson() == 0 || entry.Fill(json, nullptr, strID) == 0 || json.GetJsonStr(strJsonCombo) == 0)
    strJsonCombo.Empty();
  // Without "/" there is no product part.
  const size_t uSlash = entry.strCombo.ReverseFind('/');
  const CPString strProduct = uSlash == CPString::npos ? CPString() : entry.strCombo.Left(uSlash);
  const CPString strCombo = uSlash == CPString::npos ? entry.strCombo : entry.strCombo.Mid(uSlash + 1);
  if (strJsonCombo.IsEmpty() ||
      SendPolicyMsgData(u64DataId, strProduct, strCombo, strID, kPushCommand, strJsonCombo) == 0)
    LogWarn(
        "*zxagent CAgentAsset::ParseAssetPolicy SendPolicyMsgrData Fail u64DataId[%llx] strProduct[%s] strCombo[%s] strJsonCombo[%s]",
        u64DataId, strProduct, strCombo, strJsonCombo);
}

void CAgentAsset::SendCombined(unsigned long long u64DataId, const CPString& strID, _Combined& web,
                               _Combined& docker) {
  if (web.iCount > 0) {
    const CPString strWebJson = web.Text();
    if (strWebJson.IsEmpty() ||
        SendPolicyMsgData(u64DataId, kScannerProduct, kWebCombo, strID, kPushCommand, strWebJson) == 0)
      LogWarn(
          "*zxagent CAgentAsset::ParseAssetPolicy SendPolicyMsgrData Fail veltcwpp/zxpwebassets u64DataId[%llx] strWebJson[%s]",
          u64DataId, strWebJson);
  }
  if (docker.iCount > 0) {
    const CPString strDockerJson = docker.Text();
    if (strDockerJson.IsEmpty() ||
        SendPolicyMsgData(u64DataId, kScannerProduct, kDockerCombo, strID, kPushCommand, strDockerJson) == 0)
      LogWarn(
          "*zxagent CAgentAsset::ParseAssetPolicy SendPolicyMsgrData Fail veltcwpp/zxpdockersd u64DataId[%llx] strDockerJson[%s]",
          u64DataId, strDockerJson);
  }
}

int CAgentAsset::SendPolicyMsgData(unsigned long long u64DataId, const CPString& strProduct,
                                   const CPString& strCombo, const CPString& strID,
                                   const CPString& strCommand, const CPString& strMsg) {
  IAgentHub* pHub = AgentHub();
  if (pHub == nullptr)
    return LogWarn("*zxagent CAgentAsset::SendPolicyMsgrData pAgentMgr is NULL");
  const CPString strDir = m_strPath + "data/policy/assetcollection/";
  if (CAgentTools::CreateDirectory(strDir, kDirMode) == 0)
    LogWarn("*zxagent CAgentAsset::SendPolicyMsgData Error CreateDirectory strPath[%s] Error[%d]", strDir,
            errno);
  const CPString strPath = strDir + strCombo;
  errno = EINVAL;  // a combo that may not become a file name
  if (!CAgentTools::IsFileName(strCombo) || !ZxSaveFileData(strPath, strMsg)) {
    const int iError = errno;
    char szBuffer[128] = {};
    return LogWarn(
        "*zxagent CAgentAsset::SendPolicyMsgrData ZxSaveFileData Error[%d][%s] strPath[%s] strMsg[%s]",
        iError, strerror_r(iError, szBuffer, sizeof(szBuffer)), strPath, strMsg);
  }
  if (pHub->SendPushMsgData(u64DataId, strProduct, strCombo, strID, strCommand, strMsg) == 0)
    return LogWarn(
        "*zxagent CAgentAsset::SendPolicyMsgrData SendPushMsgData Fail u64DataId[%llx] strProduct[%s] strCombo[%s] strMsg[%s]",
        u64DataId, strProduct, strCombo, strMsg);
  return 1;
}
