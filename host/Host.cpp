#include "Host.h"

#include <signal.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

sigset_t HandledSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int iSignal : {SIGTERM, SIGINT, SIGHUP})
    sigaddset(&set, iSignal);
  return set;
}

// Half of what the service manager allows between two signs of life; 0 when it wants none.
uint64_t WatchdogIntervalUs() {
  uint64_t u64Us = 0;
  return sd_watchdog_enabled(0, &u64Us) > 0 ? u64Us / 2 : 0;
}

int WaitSignal(const sigset_t& set, uint64_t u64IntervalUs) {
  if (u64IntervalUs == 0) {
    int iSignal = 0;
    return sigwait(&set, &iSignal) == 0 ? iSignal : 0;
  }
  const timespec ts{static_cast<time_t>(u64IntervalUs / 1000000),
                    static_cast<long>(u64IntervalUs % 1000000) * 1000};
  const int iSignal = sigtimedwait(&set, nullptr, &ts);
  return iSignal > 0 ? iSignal : 0;
}

}  // namespace

CHost::CHost(std::string strHome, CHostConfig config, HLog hLog)
    : m_strHome(std::move(strHome)), m_config(std::move(config)), m_hLog(hLog) {
  m_param.pszHome = m_strHome.c_str();
  m_param.pszVersion = kHostVersion;
}

CHost::~CHost() = default;

void CHost::BlockSignals() {
  const sigset_t set = HandledSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);  // a peer that closes its socket is an error code, not the end
}

int CHost::Run() {
  LogInfoTo(m_hLog, "zxhost %s starts home[%s] plug-ins[%llu]", kHostVersion, m_strHome,
            m_config.plugins.size());
  const size_t uStarted = StartPlugins();
  if (uStarted == 0) {
    LogErrorTo(m_hLog, "**zxhost no plug-in could be started");
    sd_notify(0, "STATUS=no plug-in could be started");
    StopPlugins();
    return kExitNoPlugin;
  }
  sd_notifyf(0, "READY=1\nSTATUS=%zu of %zu plug-ins started", uStarted, m_config.plugins.size());
  LogInfoTo(m_hLog, "zxhost ready started[%llu]", uStarted);
  WaitForStop();
  sd_notify(0, "STOPPING=1");
  if (!m_guard.Arm(m_config.uStopTimeoutMs))
    LogErrorTo(m_hLog, "**zxhost stop is not bounded: no thread for its deadline");
  StopPlugins();
  LogInfoTo(m_hLog, "zxhost ended");
  return kExitOk;
}

// A plug-in that fails is logged and left out; the others run.
size_t CHost::StartPlugins() {
  for (const CPluginConfig& config : m_config.plugins) {
    if (!config.bEnabled)
      continue;
    auto pPlugin = std::make_unique<CPlugin>(config, m_hLog);
    if (pPlugin->Load(&m_param))
      m_plugins.push_back(std::move(pPlugin));
  }
  size_t uStarted = 0;
  for (const auto& pPlugin : m_plugins)
    uStarted += pPlugin->Start() ? 1 : 0;
  return uStarted;
}

void CHost::WaitForStop() {
  const sigset_t set = HandledSignals();
  const uint64_t u64IntervalUs = WatchdogIntervalUs();
  for (;;) {
    if (u64IntervalUs != 0)
      sd_notify(0, "WATCHDOG=1");
    const int iSignal = WaitSignal(set, u64IntervalUs);
    if (iSignal == SIGHUP) {
      // The log library notices a changed zxlog.json by itself; the line tells that the host lives.
      LogInfoTo(m_hLog, "zxhost SIGHUP: log settings are read again when they changed");
      continue;
    }
    if (iSignal == SIGTERM || iSignal == SIGINT) {
      LogInfoTo(m_hLog, "zxhost stops signal[%d]", iSignal);
      // A second Ctrl-C ends the process at once.
      sigset_t interrupt;
      sigemptyset(&interrupt);
      sigaddset(&interrupt, SIGINT);
      signal(SIGINT, [](int) { _exit(128 + SIGINT); });
      pthread_sigmask(SIG_UNBLOCK, &interrupt, nullptr);
      return;
    }
  }
}

void CHost::StopPlugins() {
  for (auto it = m_plugins.rbegin(); it != m_plugins.rend(); ++it)
    (*it)->Stop();
  while (!m_plugins.empty()) {
    m_plugins.back()->Unload();
    m_plugins.pop_back();
  }
}
