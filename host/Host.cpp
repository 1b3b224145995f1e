#include "Host.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "HostLog.h"
#include "ServiceNotify.h"
#include "platform/os/ZxTime.h"

namespace {

// The loop ends a stop that takes too long, with a reason in the log. Should a full log on a dead disk hold
// the loop itself, the alarm does it this much later, without one.
constexpr uint32_t kAlarmGraceSec = 2;

sigset_t HostSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int iSignal : {SIGTERM, SIGINT, SIGHUP})
    sigaddset(&set, iSignal);
  return set;
}

}  // namespace

void BlockHostSignals() {
  const sigset_t set = HostSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

CHost::CHost(const _HostConfig& config, const CPString& strHome)
    : m_config(config),
      m_bus(config, strHome),
      m_driver(config, strHome),
      m_methods(m_bus, m_driver, strHome) {}

CHost::~CHost() {
  if (m_iSignalFd >= 0)
    close(m_iSignalFd);
}

int CHost::Run() {
  const sigset_t set = HostSignals();
  m_iSignalFd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (m_iSignalFd < 0 || !m_driver.Start()) {
    LogErrorTo(g_hHostLog, "**zxhost cannot start error[%d]", errno);
    return kExitNoPlugin;
  }
  ZxBusServeHost(&CHostMethods::Serve, &m_methods);
  if (!m_bus.Start())
    LogErrorTo(g_hHostLog, "**zxhost bus cannot start, components run in this process only error[%d]", errno);
  m_uiAliveMs = AliveIntervalMs();
  pollfd fds[2] = {{m_iSignalFd, POLLIN, 0}, {m_driver.EventFd(), POLLIN, 0}};
  while (m_ePhase != CPluginDriver::EPhase::Stopped) {
    const int iReady = poll(fds, 2, PollTimeoutMs());
    if (iReady > 0 && (fds[0].revents & POLLIN) != 0)
      OnSignals();
    if (iReady > 0 && (fds[1].revents & POLLIN) != 0)
      OnDriver();
    OnTimer();
  }
  ZxBusServeHost(nullptr, nullptr);
  m_bus.Stop();
  if (m_driver.Started() != 0)
    return kExitOk;
  if (m_bStopping)
    return kExitOk;  // told to stop before the first plug-in was up
  LogErrorTo(g_hHostLog, "**zxhost no plug-in could be started plugins[%u]",
             static_cast<uint32_t>(m_config.plugins.size()));
  return kExitNoPlugin;
}

int CHost::PollTimeoutMs() const {
  uint64_t u64NextMs = UINT64_MAX;
  if (m_bStopping)
    u64NextMs = m_u64StopDeadlineMs;
  if (m_uiAliveMs != 0 && m_ePhase == CPluginDriver::EPhase::Running)
    u64NextMs = std::min(u64NextMs, m_u64NextAliveMs);
  if (u64NextMs == UINT64_MAX)
    return -1;
  const uint64_t u64NowMs = ZxGetTickCount();
  return u64NextMs <= u64NowMs ? 0 : static_cast<int>(std::min<uint64_t>(u64NextMs - u64NowMs, INT32_MAX));
}

void CHost::BeginStop(const char* pszWhy) {
  if (m_bStopping)
    return;
  m_bStopping = true;
  m_u64StopDeadlineMs = ZxGetTickCount() + uint64_t{m_config.uiStopTimeoutSec} * 1000;
  ArmAlarm(m_config.uiStopTimeoutSec + kAlarmGraceSec);
  LogInfoTo(g_hHostLog, "zxhost stopping why[%s] stop_timeout_sec[%u]", pszWhy, m_config.uiStopTimeoutSec);
  NotifyStopping();
  m_driver.RequestStop();
}

void CHost::OnSignals() {
  signalfd_siginfo info{};
  while (read(m_iSignalFd, &info, sizeof(info)) == sizeof(info)) {
    switch (info.ssi_signo) {
      case SIGHUP:
        // The log library looks at its settings by itself; the line is the proof that the signal came
        // through.
        LogInfoTo(g_hHostLog, "zxhost SIGHUP: etc/zxlog.json is read again within seconds");
        break;
      case SIGINT:
        if (++m_iInterrupts > 1) {
          LogWarnTo(g_hHostLog, "*zxhost second SIGINT, exit at once step[%s]", m_driver.Step());
          ExitNow(kExitInterrupted);
        }
        BeginStop("SIGINT");
        break;
      default:
        BeginStop("SIGTERM");
        break;
    }
  }
}

void CHost::OnDriver() {
  m_driver.TakeEvents();
  const CPluginDriver::EPhase ePhase = m_driver.Phase();
  if (!m_bStopping && ePhase == CPluginDriver::EPhase::Running &&
      m_ePhase == CPluginDriver::EPhase::Starting) {
    LogInfoTo(g_hHostLog, "zxhost running plugins[%u]", static_cast<uint32_t>(m_driver.Started()));
    NotifyReady(m_driver.Started());
    m_u64NextAliveMs = ZxGetTickCount();
  }
  m_ePhase = ePhase;
  const uint32_t uiAnswered = m_driver.Answered();
  if (uiAnswered != m_uiAnswered)
    NotifyAlive();
  m_uiAnswered = uiAnswered;
}

void CHost::OnTimer() {
  const uint64_t u64NowMs = ZxGetTickCount();
  if (m_bStopping && m_ePhase != CPluginDriver::EPhase::Stopped && u64NowMs >= m_u64StopDeadlineMs) {
    LogErrorTo(g_hHostLog, "**zxhost not stopped in time, exit now step[%s] stop_timeout_sec[%u]",
               m_driver.Step(), m_config.uiStopTimeoutSec);
    ExitNow(kExitStopTimeout);
  }
  if (m_uiAliveMs == 0 || m_ePhase != CPluginDriver::EPhase::Running || u64NowMs < m_u64NextAliveMs)
    return;
  m_u64NextAliveMs = u64NowMs + m_uiAliveMs;
  if (m_bStopping)
    NotifyAlive();  // the deadline above guards this time
  else
    m_driver.RequestTick();  // a sign of life is what the plug-ins' thread answers
}
