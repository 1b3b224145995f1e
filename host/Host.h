// The host's life: load, start, wait for signals, stop. Main thread only. All signals that it handles are
// blocked in every thread and taken here one after another.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "HostConfig.h"
#include "Plugin.h"
#include "StopGuard.h"

inline constexpr char kHostVersion[] = "0.1.0";

enum : int {
  kExitOk = 0,
  kExitNoPlugin = 1,  // none of the configured plug-ins could be started
  kExitUsage = 2,     // configuration or command line
  kExitRunning = 3,   // another host serves this home
};

class CHost {
 public:
  CHost(std::string strHome, CHostConfig config, HLog hLog);
  ~CHost();
  CHost(const CHost&) = delete;
  CHost& operator=(const CHost&) = delete;

  // Blocks SIGTERM, SIGINT and SIGHUP for the calling thread and all it starts. Before any other thread
  // exists.
  static void BlockSignals();
  int Run();  // an exit code

 private:
  size_t StartPlugins();
  void WaitForStop();
  void StopPlugins();

  const std::string m_strHome;
  const CHostConfig m_config;
  const HLog m_hLog;
  CHostInitParam m_param;
  std::vector<std::unique_ptr<CPlugin>> m_plugins;
  CStopGuard m_guard;
};
