#include "platform/log/LogConfig.h"

#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "platform/doc/PJsonParse.h"

namespace zxlog {

namespace {

constexpr const char* kConfigFile = "etc/zxlog.json";

bool IsLevel(int iLevel) {
  return iLevel >= kLogMinLevel && iLevel <= kLogMaxLevel;
}

std::string WithSlash(std::string strDir) {
  if (!strDir.empty() && strDir.back() != '/')
    strDir += '/';
  return strDir;
}

bool ReadLevel(zxtools::HJsonNode hNode, int& iLevel) {
  int iValue = 0;
  if (zxtools::CPJsonParse::GetIntValue(hNode, iValue) == 0 || !IsLevel(iValue))
    return false;
  iLevel = iValue;
  return true;
}

void ReadSizes(const zxtools::CPJsonParse& json, CLogSettings& settings) {
  double dBytes = 0;
  if (zxtools::CPJsonParse::GetDoubleValue(json.GetNode("max_bytes"), dBytes) != 0 &&
      dBytes >= static_cast<double>(kLogMinFileBytes) && dBytes <= static_cast<double>(kLogMaxFileBytes))
    settings.u64MaxBytes = static_cast<uint64_t>(dBytes);
  int iFiles = 0;
  if (zxtools::CPJsonParse::GetIntValue(json.GetNode("max_files"), iFiles) != 0 && iFiles >= 1 &&
      iFiles <= kLogMaxFiles)
    settings.iMaxFiles = iFiles;
}

void ReadChannels(const zxtools::CPJsonParse& json, CLogSettings& settings) {
  std::vector<zxtools::HJsonNode> list;
  const zxtools::HJsonNode hChannels = json.GetNode("channels");
  if (hChannels == nullptr || json.GetAllNode(hChannels, list) == 0)
    return;
  for (const zxtools::HJsonNode hChannel : list) {
    CPString strName;
    int iLevel = 0;
    if (zxtools::CPJsonParse::GetName(hChannel, strName) != 0 &&
        ReadLevel(json.GetNode(hChannel, "level"), iLevel))
      settings.levels[strName.Str()] = iLevel;
  }
}

bool ReadConfigFile(const std::string& strHome, CLogSettings& settings) {
  zxtools::CPJsonParse json;
  if (json.LoadFile(strHome + kConfigFile) == 0)
    return errno == ENOENT;
  ReadLevel(json.GetNode("level"), settings.iLevel);
  CPString strDir;
  if (zxtools::CPJsonParse::GetValue(json.GetNode("dir"), strDir) != 0 && !strDir.IsEmpty())
    settings.strDir = strDir.Left(1) == "/" ? strDir.Str() : strHome + strDir.Str();
  ReadSizes(json, settings);
  ReadChannels(json, settings);
  return true;
}

// The environment stands above the file, so that one process can be watched without touching its settings.
void ReadEnvironment(CLogSettings& settings) {
  const char* pszDir = secure_getenv("ZX_LOG_DIR");
  if (pszDir != nullptr && *pszDir != 0)
    settings.strDir = pszDir;
  const char* pszLevel = secure_getenv("ZX_LOG_LEVEL");
  if (pszLevel == nullptr)
    return;
  const auto iLevel = static_cast<int>(std::strtol(pszLevel, nullptr, 10));
  if (IsLevel(iLevel)) {
    settings.iLevel = iLevel;
    settings.bForcedLevel = true;
  }
}

}  // namespace

int CLogSettings::ThresholdOf(const std::string& strChannel) const {
  const auto it = levels.find(strChannel);
  return bForcedLevel || it == levels.end() ? iLevel : it->second;
}

CLogConfigStamp StatLogConfig(const std::string& strHome) {
  struct stat st {};
  if (strHome.empty() || stat((strHome + kConfigFile).c_str(), &st) != 0)
    return {};
  return {st.st_ino, st.st_size, st.st_mtim.tv_sec, st.st_mtim.tv_nsec};
}

bool LoadLogSettings(const std::string& strHome, CLogSettings& settings) {
  settings = CLogSettings();
  bool bOk = true;
  if (!strHome.empty()) {
    settings.strDir = strHome + "log/";
    bOk = ReadConfigFile(strHome, settings);
  }
  ReadEnvironment(settings);
  settings.strDir = WithSlash(settings.strDir);
  return bOk;
}

}  // namespace zxlog
