// The host's main loop: signals, the driver's progress, signs of life, and the deadline for stopping. Runs on
// the main thread and never calls a plug-in, so it can always end the process.
#pragma once

#include <cstdint>

#include "BusService.h"
#include "HostConfig.h"
#include "HostMethods.h"
#include "PluginDriver.h"

// Exit codes of zxhost.
enum : int {
  kExitOk = 0,
  kExitNoPlugin = 1,      // none could be started
  kExitUsage = 2,         // command line or configuration
  kExitTaken = 3,         // another host runs on this home
  kExitStopTimeout = 75,  // a plug-in did not stop in time
  kExitInterrupted = 130  // second SIGINT
};

// The signals that the loop takes; block them before the first thread starts.
void BlockHostSignals();

class CHost {
 public:
  CHost(const _HostConfig& config, const CPString& strHome);
  ~CHost();
  CHost(const CHost&) = delete;
  CHost& operator=(const CHost&) = delete;

  // Until everything has stopped; the exit code. Ends the process itself when that takes too long.
  int Run();

 private:
  void OnSignals();
  void OnDriver();
  void OnTimer();
  void BeginStop(const char* pszWhy);
  int PollTimeoutMs() const;

  const _HostConfig m_config;
  CBusService m_bus;  // outlives the plug-ins
  CPluginDriver m_driver;
  CHostMethods m_methods;
  int m_iSignalFd = -1;
  CPluginDriver::EPhase m_ePhase = CPluginDriver::EPhase::Starting;
  bool m_bStopping = false;
  int m_iInterrupts = 0;
  uint64_t m_u64StopDeadlineMs = 0;
  uint32_t m_uiAliveMs = 0;  // 0: no signs of life wanted
  uint64_t m_u64NextAliveMs = 0;
  uint32_t m_uiAnswered = 0;  // ticks that the driver has answered
};
