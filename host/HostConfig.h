// What zxhost is told to run: etc/zxhost.json under the home.
//   {"stop_timeout_sec": 65, "plugins": [{"name", "path", "guid", "enabled"}]}
// Relative paths are relative to the home. Plain values; nothing here logs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct CPluginConfig {
  std::string strName;  // in log lines
  std::string strPath;  // absolute
  std::string strGuid;  // the name that the plug-in's CreateObject is asked for
  bool bEnabled = true;
};

struct CHostConfig {
  std::vector<CPluginConfig> plugins;  // started in this order, stopped in reverse
  uint32_t uStopTimeoutMs = 65000;     // 1 to 65 s; then the process ends whatever a plug-in does
};

// False with a reason in strError: unreadable, no JSON, or a plug-in without path or guid.
bool ReadHostConfig(const std::string& strFile, const std::string& strHome, CHostConfig& config,
                    std::string& strError);
