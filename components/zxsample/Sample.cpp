// Sample component: answers the command "disk_usage" and leaves what it found where a person can see it.
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "kit/Component.h"
#include "kit/HandOff.h"
#include "platform/doc/PJsonParse.h"
#include "platform/os/ZxFile.h"

using zxtools::CPJsonParse;

namespace {

constexpr uint32_t kCommandType = 20001;

// Status of the answer: 0 = done.
enum : uint32_t { kDone = 0, kBadCommand = 1, kUnknownCommand = 2, kNoSuchPath = 3 };

}  // namespace

class CSample final : public CComponent {
 public:
  static constexpr char kGuid[] = "5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D";

  CSample() : CComponent(kGuid, "zxsample", {kCommandType}) {}

 private:
  void OnMessage(const GUID&, uint32_t, std::string_view data, const CBaton& baton) override {
    CHandOff handOff;
    CPJsonParse json;
    CPString strId;
    if (!ParseHandOff(data, handOff) || json.LoadBuffer(handOff.strMsg.data(), handOff.strMsg.size()) == 0 ||
        json.GetNode("ID") == nullptr) {
      LogWarnTo(Log(), "*sample refused a command of %llu bytes", data.size());
      return baton.Reply(kBadCommand, R"({"error":"not a command"})");
    }
    CPJsonParse::GetValue(json.GetNode("ID"), strId);
    if (handOff.strCommand != "disk_usage") {
      LogWarnTo(Log(), "*sample ID[%s] unknown command[%s]", strId, handOff.strCommand);
      return baton.Reply(kUnknownCommand, R"({"error":"unknown command"})");
    }
    CPString strPath("/");
    const zxtools::HJsonNode hParam = json.GetNode("Param");
    if (hParam != nullptr && json.GetNode(hParam, "path") != nullptr)
      CPJsonParse::GetValue(json.GetNode(hParam, "path"), strPath);
    DiskUsage(strId, strPath, baton);
  }

  void DiskUsage(const CPString& strId, const CPString& strPath, const CBaton& baton) {
    struct statvfs fs {};
    if (statvfs(strPath.c_str(), &fs) != 0) {
      LogWarnTo(Log(), "*sample ID[%s] disk_usage strPath[%s] Error[%d]", strId, strPath, errno);
      return baton.Reply(kNoSuchPath, R"({"error":"no such path"})");
    }
    const double dTotal = static_cast<double>(fs.f_blocks) * static_cast<double>(fs.f_frsize);
    const double dFree = static_cast<double>(fs.f_bavail) * static_cast<double>(fs.f_frsize);
    CPJsonParse answer;
    CPString strAnswer;
    answer.CreateJson();
    answer.AddNode(nullptr, "ID", strId);
    answer.AddNode(nullptr, "path", strPath);
    answer.AddNode(nullptr, "total_bytes", dTotal);
    answer.AddNode(nullptr, "free_bytes", dFree);
    answer.AddNode(nullptr, "used_percent",
                   dTotal > 0 ? static_cast<int>(100.0 - 100.0 * dFree / dTotal) : 0);
    answer.GetJsonStr(strAnswer);
    std::error_code error;
    const std::string strDir = Home() + "data/zxsample";
    std::filesystem::create_directories(strDir, error);
    if (!ZxSaveFileData(CPString(strDir + "/disk_usage.json"), strAnswer))
      LogWarnTo(Log(), "*sample ID[%s] cannot write %s/disk_usage.json Error[%d]", strId, strDir, errno);
    LogInfoTo(Log(), "sample ID[%s] disk_usage %s", strId, strAnswer);
    baton.Reply(kDone, strAnswer.View());
  }
};

ZX_COMPONENT_PLUGIN(CSample)
