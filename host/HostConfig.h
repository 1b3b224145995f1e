// etc/zxhost.json: which plug-ins the host loads, in which order, and its own limits. See docs/zxhost.md.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/text/PString.h"

inline constexpr uint32_t kMaxStopTimeoutSec = 65;  // the agent's own stop takes up to 60
inline constexpr size_t kMaxPlugins = 64;

struct _PluginEntry {
  CPString strName;            // for the log
  CPString strPath;            // absolute
  CPString strGuid;            // as CreateObject wants it
  uint32_t uiDispatchers = 0;  // 0: the bus's default
};

// The bus that spans processes.
struct _BusConfig {
  bool bEnabled = true;
  CPString strAddress;  // not empty: this D-Bus address is used and no daemon started
  CPString strRunDir;   // absolute, ends in "/": the socket "bus" and the policy "bus.conf"
  CPString strDaemon = "/usr/bin/dbus-daemon";  // absolute
  CPString strUser = "zxbus";  // a host that is root runs the daemon as this user when it exists
};

struct _HostConfig {
  std::vector<_PluginEntry> plugins;  // enabled ones, in order
  uint32_t uiStopTimeoutSec = kMaxStopTimeoutSec;
  int iLogLevel = 0;  // 0: not set
  _BusConfig bus;
  std::vector<CPString> warnings;  // entries that were left out, and why
};

// Reads the file. strHome ends in "/"; relative plug-in paths stand below it and may not leave it. False with
// strError set when there is no usable document; an unusable entry is left out with a warning. Does not log.
bool LoadHostConfig(const CPString& strFile, const CPString& strHome, _HostConfig& config,
                    CPString& strError);
