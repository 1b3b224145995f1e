#include "HostConfig.h"

#include <cerrno>
#include <cstring>

#include "ComponentManifest.h"
#include "platform/doc/PJsonParse.h"
#include "platform/text/PStrList.h"

namespace {

using zxtools::CPJsonParse;
using zxtools::HJsonNode;

constexpr int kMaxLogLevel = 9;
constexpr int kMaxDispatchers = 64;

CPString TextOf(const CPJsonParse& json, HJsonNode hParent, const char* pszName) {
  CPString str;
  const HJsonNode hNode = json.GetNode(hParent, pszName);
  if (hNode != nullptr)
    CPJsonParse::GetValue(hNode, str);
  return str;
}

int IntOf(const CPJsonParse& json, HJsonNode hParent, const char* pszName, int iDefault) {
  int iValue = 0;
  const HJsonNode hNode = json.GetNode(hParent, pszName);
  return hNode != nullptr && CPJsonParse::GetIntValue(hNode, iValue) != 0 ? iValue : iDefault;
}

bool LeavesHome(const CPString& strPath) {
  CPStrList parts;
  strPath.Split("/", parts, true, false);
  return parts.FindData("..", 0) >= 0;
}

// Empty when the entry is usable.
CPString ReadEntry(const CPJsonParse& json, HJsonNode hEntry, const CPString& strHome, _PluginEntry& entry) {
  entry.strPath = TextOf(json, hEntry, "path");
  entry.strGuid = TextOf(json, hEntry, "guid");
  entry.strName = TextOf(json, hEntry, "name");
  if (entry.strName.IsEmpty())
    entry.strName = entry.strPath;
  const int iDispatchers = IntOf(json, hEntry, "dispatchers", 0);
  if (entry.strPath.IsEmpty())
    return "no path";
  if (entry.strGuid.IsEmpty())
    return "no guid";
  if (iDispatchers < 0 || iDispatchers > kMaxDispatchers)
    return "dispatchers out of range";
  entry.uiDispatchers = static_cast<uint32_t>(iDispatchers);
  if (entry.strPath.c_str()[0] == '/')
    return "";
  if (LeavesHome(entry.strPath))
    return "relative path leaves the home";
  entry.strPath = strHome + entry.strPath;
  return "";
}

// An absolute path, or one below the home.
CPString PlaceOf(const CPString& strPath, const CPString& strHome) {
  return strPath.c_str()[0] == '/' ? strPath : strHome + strPath;
}

bool IsPlainText(const CPString& str) {
  for (const char ch : str.Str()) {
    if (ch < ' ' || ch > '~')
      return false;
  }
  return true;
}

void ReadBus(const CPJsonParse& json, const CPString& strHome, _HostConfig& config) {
  _BusConfig& bus = config.bus;
  bus.strRunDir = strHome + "run/";
  const HJsonNode hBus = json.GetNode("bus");
  if (hBus == nullptr)
    return;
  bus.bEnabled = IntOf(json, hBus, "enabled", 1) != 0;
  const auto text = [&](const char* pszName, auto&& usable) {
    const CPString strValue = TextOf(json, hBus, pszName);
    const bool bUsable = IsPlainText(strValue) && usable(strValue);
    if (!strValue.IsEmpty() && !bUsable)
      config.warnings.push_back(CPString::Make("bus.%s is not usable, default taken", pszName));
    return bUsable ? strValue : CPString();
  };
  const auto isPath = [](const CPString& str) { return str.c_str()[0] == '/' || !LeavesHome(str); };
  bus.strAddress = text("address", [](const CPString& str) { return str.Find("unix:") == 0; });
  const CPString strRunDir = text("run_dir", isPath);
  if (!strRunDir.IsEmpty())
    bus.strRunDir = PlaceOf(strRunDir, strHome);
  if (bus.strRunDir.Right(1) != "/")
    bus.strRunDir += '/';
  const CPString strDaemon = text("daemon", [](const CPString& str) { return str.c_str()[0] == '/'; });
  if (!strDaemon.IsEmpty())
    bus.strDaemon = strDaemon;
  if (json.GetNode(hBus, "user") != nullptr)
    bus.strUser = text("user", [](const CPString& str) { return IsUserName(str.View()); });
}

}  // namespace

bool LoadHostConfig(const CPString& strFile, const CPString& strHome, _HostConfig& config,
                    CPString& strError) {
  CPJsonParse json;
  if (json.LoadFile(strFile) == 0) {
    strError = errno != 0 ? std::strerror(errno) : "not a JSON document";  // NOLINT(concurrency-mt-unsafe)
    return false;
  }
  std::vector<HJsonNode> entries;
  const HJsonNode hPlugins = json.GetNode("plugins");
  if (hPlugins == nullptr || json.GetAllNode(hPlugins, entries) == 0) {
    strError = "no list \"plugins\"";
    return false;
  }
  const int iTimeout = IntOf(json, nullptr, "stop_timeout_sec", static_cast<int>(config.uiStopTimeoutSec));
  if (iTimeout < 1 || iTimeout > static_cast<int>(kMaxStopTimeoutSec))
    config.warnings.push_back("stop_timeout_sec out of range, default taken");
  else
    config.uiStopTimeoutSec = static_cast<uint32_t>(iTimeout);
  const int iLevel = IntOf(json, nullptr, "log_level", 0);
  if (iLevel < 0 || iLevel > kMaxLogLevel)
    config.warnings.push_back("log_level out of range, ignored");
  else
    config.iLogLevel = iLevel;

  ReadBus(json, strHome, config);
  for (const HJsonNode hEntry : entries) {
    if (IntOf(json, hEntry, "enabled", 1) == 0)
      continue;
    _PluginEntry entry;
    CPString strWhy = ReadEntry(json, hEntry, strHome, entry);
    if (strWhy.IsEmpty() && config.plugins.size() >= kMaxPlugins)
      strWhy = "too many plug-ins";
    if (strWhy.IsEmpty())
      config.plugins.push_back(std::move(entry));
    else
      config.warnings.push_back("plug-in \"" + entry.strName + "\" left out: " + strWhy);
  }
  return true;
}
