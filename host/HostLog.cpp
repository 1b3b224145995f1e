#include "HostLog.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

HLog g_hHostLog = nullptr;

namespace {

constexpr unsigned kFlushSeconds = 2;

class CEcho final : public ILogSink {
 public:
  void OnLine(const char* pszChannel, int, const char* pszText) override {
    if (std::strcmp(pszChannel, "zxhost") == 0)
      std::fprintf(stderr, "%s\n", pszText);
  }
};
CEcho g_echo;

}  // namespace

void OpenHostLog(const CPString& strHome, bool bEcho) {
  LogSetHome(strHome);
  g_hHostLog = LogInit("zxhost");
  CLogDebug::Instance().SetChannel(g_hHostLog);
  if (bEcho)
    LogSetSink(&g_echo);
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
