#include "HostLog.h"

#include <signal.h>
#include <unistd.h>

HLog g_hHostLog = nullptr;

namespace {

constexpr unsigned kFlushSeconds = 2;

}  // namespace

void OpenHostLog(const CPString& strHome, bool bEcho) {
  LogSetHome(strHome);
  g_hHostLog = LogInit("zxhost");
  CLogDebug::Instance().SetChannel(g_hHostLog);
  RecentLines().SetEcho(bEcho);
  LogSetSink(&RecentLines());
}

CRecentLines& RecentLines() {
  static auto* s_pLines = new CRecentLines;  // never deleted: threads may log until the process is gone
  return *s_pLines;
}

void ArmAlarm(unsigned uSeconds) {
  signal(SIGALRM, SIG_DFL);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  alarm(uSeconds);
}

void ExitNow(int iCode) {
  ArmAlarm(kFlushSeconds);  // should the disk hang, the process ends in the middle of the flush
  CLogDebug::Instance().SetChannel(nullptr);
  LogUninit(g_hHostLog);
  _exit(iCode);
}
