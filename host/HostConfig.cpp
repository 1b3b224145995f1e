#include "HostConfig.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/doc/PJsonParse.h"

using zxtools::CPJsonParse;
using zxtools::HJsonNode;

namespace {

constexpr int kMaxStopSec = 65;

std::string Text(const CPJsonParse& json, HJsonNode hParent, const char* pszName) {
  CPString strValue;
  if (const HJsonNode hNode = json.GetNode(hParent, pszName); hNode != nullptr)
    CPJsonParse::GetValue(hNode, strValue);
  return strValue.Str();
}

std::string BaseName(const std::string& strPath) {
  return strPath.substr(strPath.rfind('/') + 1);
}

}  // namespace

bool ReadHostConfig(const std::string& strFile, const std::string& strHome, CHostConfig& config,
                    std::string& strError) {
  CPJsonParse json;
  errno = 0;
  if (json.LoadFile(CPString(strFile)) == 0) {
    char szBuffer[128] = {};
    strError = errno != 0 ? strerror_r(errno, szBuffer, sizeof(szBuffer)) : "no JSON";
    return false;
  }
  std::vector<HJsonNode> children;
  const HJsonNode hPlugins = json.GetNode("plugins");
  if (hPlugins == nullptr || json.GetAllNode(hPlugins, children) == 0) {
    strError = "no array \"plugins\"";
    return false;
  }
  for (const HJsonNode hChild : children) {
    CPluginConfig plugin;
    plugin.strPath = Text(json, hChild, "path");
    plugin.strGuid = Text(json, hChild, "guid");
    plugin.strName = Text(json, hChild, "name");
    if (plugin.strPath.empty() || plugin.strGuid.empty()) {
      strError = "plug-in " + std::to_string(config.plugins.size()) + " has no \"path\" or no \"guid\"";
      return false;
    }
    if (plugin.strPath[0] != '/')
      plugin.strPath.insert(0, strHome);
    if (plugin.strName.empty())
      plugin.strName = BaseName(plugin.strPath);
    int iEnabled = 1;
    if (const HJsonNode hNode = json.GetNode(hChild, "enabled"); hNode != nullptr)
      CPJsonParse::GetIntValue(hNode, iEnabled);
    plugin.bEnabled = iEnabled != 0;
    config.plugins.push_back(std::move(plugin));
  }
  int iStopSec = kMaxStopSec;
  if (const HJsonNode hNode = json.GetNode("stop_timeout_sec"); hNode != nullptr)
    CPJsonParse::GetIntValue(hNode, iStopSec);
  config.uStopTimeoutMs = static_cast<uint32_t>(std::clamp(iStopSec, 1, kMaxStopSec)) * 1000;
  return true;
}
