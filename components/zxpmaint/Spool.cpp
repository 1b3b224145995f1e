#include "zxpmaint/Spool.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>

#include "platform/doc/PJsonParse.h"
#include "platform/os/ZxFile.h"

using zxtools::CPJsonParse;
using zxtools::HJsonNode;

namespace {

constexpr int kDefaultTimeoutSec = 60;
constexpr int kMaxTimeoutSec = 3600;
constexpr int kDefaultOutputBytes = 65536;
constexpr int kMaxOutputBytes = 1 << 20;
constexpr mode_t kPrivateDirMode = 0700;
constexpr const char* kKinds[] = {"policyprocess/", "policyfile/"};

bool IsName(const std::string& strName) {
  return strName.size() > 5 && strName.size() <= 255 &&
         strName.compare(strName.size() - 5, 5, ".json") == 0 && strName.find('/') == std::string::npos &&
         strName.find('\0') == std::string::npos;
}

// Length of the UTF-8 sequence at p, or 0 when the bytes are none. NUL counts as none: it would end the text.
size_t Utf8Length(const unsigned char* p, size_t uLeft) {
  if (*p < 0x80)
    return *p == 0 ? 0 : 1;
  const size_t u = *p >= 0xF0 && *p <= 0xF4 ? 4 : *p >= 0xE0 ? 3 : *p >= 0xC2 ? 2 : 0;
  if (u == 0 || *p > 0xF4 || u > uLeft)
    return 0;
  for (size_t i = 1; i < u; ++i) {
    if ((p[i] & 0xC0) != 0x80)
      return 0;
  }
  const bool bOverlong = (p[0] == 0xE0 && p[1] < 0xA0) || (p[0] == 0xF0 && p[1] < 0x90);
  const bool bOutside = (p[0] == 0xED && p[1] >= 0xA0) || (p[0] == 0xF4 && p[1] >= 0x90);
  return bOverlong || bOutside ? 0 : u;
}

CPString Utf8Text(const std::string& str) {
  std::string strClean;
  const auto* p = reinterpret_cast<const unsigned char*>(str.data());
  for (size_t i = 0; i < str.size();) {
    const size_t u = Utf8Length(p + i, str.size() - i);
    if (u == 0)
      strClean += "\xEF\xBF\xBD";
    else
      strClean.append(str, i, u);
    i += u == 0 ? 1 : u;
  }
  return CPString(strClean);
}

// A member from 1 to iMax, or its default when it is not there. False: anything else.
bool Number(const CPJsonParse& json, HJsonNode hParam, const char* pszName, int iMax, int& iValue) {
  const HJsonNode hNode = json.GetNode(hParam, pszName);
  return hNode == nullptr || (CPJsonParse::GetIntValue(hNode, iValue) != 0 && iValue >= 1 && iValue <= iMax);
}

// A text or a number; objects and arrays are none.
bool Text(const CPJsonParse& json, HJsonNode hNode, std::string& strText) {
  std::vector<HJsonNode> children;
  CPString strValue;
  if (hNode == nullptr || json.GetAllNode(hNode, children) != 0 ||
      CPJsonParse::GetValue(hNode, strValue) == 0)
    return false;
  strText = strValue.Str();
  return true;
}

bool Args(const CPJsonParse& json, HJsonNode hArgs, std::vector<std::string>& args) {
  std::vector<HJsonNode> list;
  if (hArgs == nullptr)
    return true;
  if (json.GetAllNode(hArgs, list) == 0)
    return false;
  for (const HJsonNode hArg : list) {
    if (!Text(json, hArg, args.emplace_back()))
      return false;
  }
  return true;
}

void Complain(const char* pszWhat, const std::string& strFile) {
  std::fprintf(stderr, "zxpmaint: %s %s: %s\n", pszWhat, strFile.c_str(),
               std::strerror(errno));  // NOLINT(concurrency-mt-unsafe)
}

}  // namespace

bool ParseCommand(const std::string& strText, CMaintCommand& command, std::string& strError) {
  CPJsonParse json;
  strError = "the command is no JSON object with the texts ID and Param.script";
  std::string strId;
  if (json.LoadBuffer(strText.data(), strText.size()) == 0 || !Text(json, json.GetNode("ID"), strId) ||
      strId.empty())
    return false;
  command.strId = strId;
  const HJsonNode hParam = json.GetNode("Param");
  CScript script;
  if (hParam == nullptr || !Text(json, json.GetNode(hParam, "script"), script.strText) ||
      script.strText.empty())
    return false;
  strError = "Param.interpreter is no absolute path";
  const HJsonNode hInterpreter = json.GetNode(hParam, "interpreter");
  if ((hInterpreter != nullptr && !Text(json, hInterpreter, script.strInterpreter)) ||
      script.strInterpreter.empty() || script.strInterpreter[0] != '/')
    return false;
  strError = "Param.args is no list of texts";
  if (!Args(json, json.GetNode(hParam, "args"), script.args))
    return false;
  strError = "Param.timeout_sec is no number from 1 to 3600";
  int iTimeoutSec = kDefaultTimeoutSec;
  if (!Number(json, hParam, "timeout_sec", kMaxTimeoutSec, iTimeoutSec))
    return false;
  strError = "Param.max_output_bytes is no number from 1 to 1048576";
  int iMaxOutputBytes = kDefaultOutputBytes;
  if (!Number(json, hParam, "max_output_bytes", kMaxOutputBytes, iMaxOutputBytes))
    return false;
  script.uTimeoutMs = static_cast<uint32_t>(iTimeoutSec) * 1000;
  script.uMaxOutputBytes = static_cast<size_t>(iMaxOutputBytes);
  command.script = std::move(script);
  strError.clear();
  return true;
}

std::string FormatResult(const std::string& strId, const CScriptResult& result, const std::string& strError) {
  static constexpr const char* kStates[] = {"done", "timeout", "failed"};
  CPJsonParse json;
  json.CreateJson();
  json.AddNode(nullptr, "ID", Utf8Text(strId));
  json.AddNode(nullptr, "state", kStates[static_cast<int>(result.eState)]);
  json.AddNode(nullptr, "exit_code", result.iExitCode);
  json.AddNode(nullptr, "signal", result.iSignal);
  json.AddNode(nullptr, "duration_ms", static_cast<double>(result.u64DurationMs));
  json.AddNodeBool(nullptr, "truncated", result.bTruncated ? 1 : 0);
  json.AddNode(nullptr, "stdout", Utf8Text(result.strStdout));
  json.AddNode(nullptr, "stderr", Utf8Text(result.strStderr));
  json.AddNode(nullptr, "error", Utf8Text(strError));
  CPString strJson;
  json.GetJsonStr(strJson);
  return strJson.Str();
}

CSpool::CSpool(std::string strHome) : m_strBase(std::move(strHome) + "data/zxpmaint/") {}

std::vector<std::string> CSpool::Waiting() const {
  std::vector<std::pair<std::filesystem::file_time_type, std::string>> found;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(m_strBase + "policyfile", error)) {
    if (entry.is_regular_file(error) && !entry.is_symlink(error) && IsName(entry.path().filename().string()))
      found.emplace_back(entry.last_write_time(error), entry.path().filename().string());
  }
  std::sort(found.begin(), found.end());
  std::vector<std::string> names;
  for (auto& item : found)
    names.push_back(std::move(item.second));
  return names;
}

// A rename is the claim: of two tools that want the same command, one gets it.
bool CSpool::Claim(const std::string& strName, const std::string& strClaimed) const {
  for (const char* pszKind : kKinds) {
    if (rename((m_strBase + pszKind + strName).c_str(), strClaimed.c_str()) == 0)
      return true;
  }
  return false;
}

// Written in the private directory first: the agent sees it whole or not at all.
bool CSpool::WriteResult(const std::string& strDir, const std::string& strName,
                         const std::string& strResult) const {
  const std::string strTemp = strDir + "/result.json";
  const std::string strFinal = m_strBase + "result/" + strName;
  std::error_code error;
  std::filesystem::create_directories(m_strBase + "result", error);
  return ZxSaveFileData(strTemp, CPString(strResult), true) && ZxSyncedRename(strTemp, strFinal);
}

bool CSpool::Run(const std::string& strName) const {
  errno = EINVAL;
  if (!IsName(strName)) {
    Complain("refused the name", strName);
    return false;
  }
  const std::string strWork = m_strBase + "running";
  std::string strDir = strWork + "/run.XXXXXX";
  if ((mkdir(strWork.c_str(), kPrivateDirMode) != 0 && errno != EEXIST) ||
      chmod(strWork.c_str(), kPrivateDirMode) != 0 || mkdtemp(strDir.data()) == nullptr) {
    Complain("cannot make", strDir);
    return false;
  }
  const std::string strClaimed = strDir + "/command.json";
  std::error_code error;
  if (!Claim(strName, strClaimed)) {
    Complain("no command", strName);
    std::filesystem::remove_all(strDir, error);
    return false;
  }
  CMaintCommand command;
  command.strId = strName.substr(0, strName.size() - 5);
  CScriptResult result;
  std::string strError;
  CPString strText;
  if (!ZxReadFileText(strClaimed, strText))
    strError = "the command file cannot be read";
  else if (ParseCommand(strText.Str(), command, strError))
    result = RunScript(command.script, strDir);
  if (result.iError != 0)
    strError = std::string("the script could not be started: ") +
               std::strerror(result.iError);  // NOLINT(concurrency-mt-unsafe)
  const bool bWritten = WriteResult(strDir, strName, FormatResult(command.strId, result, strError));
  if (!bWritten)
    Complain("cannot write the result of", strName);
  std::filesystem::remove_all(strDir, error);
  return bWritten;
}
