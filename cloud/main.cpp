// zxcloudd: reference management cloud for development, tests and small fleets. See docs/zxcloudd.md.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>

#include <CLI/CLI.hpp>
#include <cstdio>

#include "CloudLog.h"
#include "Daemon.h"

using namespace zxcloudd;

namespace {

// Waits for SIGTERM or SIGINT; they are blocked in every thread.
int WaitForStop(const sigset_t& setStop) {
  int iSignal = 0;
  while (sigwait(&setStop, &iSignal) != 0) {
  }
  return iSignal;
}

// Each waiting connection takes a descriptor; the usual soft limit is there for select(), which nothing here
// uses.
void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
    return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

int Run(const std::string& strConfigFile, bool bCheckOnly) {
  _CloudConfig config;
  std::string strError;
  if (!LoadCloudConfig(strConfigFile, config, strError)) {
    std::fprintf(stderr, "zxcloudd: %s: %s\n", strConfigFile.c_str(), strError.c_str());
    return 2;
  }
  if (bCheckOnly) {
    std::printf("%s: ok\n", strConfigFile.c_str());
    return 0;
  }
  umask(077);
  RaiseDescriptorLimit();
  sigset_t setStop;
  sigemptyset(&setStop);
  sigaddset(&setStop, SIGTERM);
  sigaddset(&setStop, SIGINT);
  pthread_sigmask(SIG_BLOCK, &setStop, nullptr);
  signal(SIGPIPE, SIG_IGN);

  if (!config.strLogHome.empty())
    LogSetHome(CPString(config.strLogHome));
  HLog hLog = LogInit("zxcloudd");
  SetCloudLog(hLog);
  CDaemon daemon(config);
  int iExit = 1;
  if (daemon.Start(strError)) {
    LogInfoTo(hLog, "zxcloudd ready agent[%s] operator[%s]", daemon.AgentUrl(), daemon.OperatorUrl());
    std::printf("zxcloudd ready agent=%s operator=%s\n", daemon.AgentUrl().c_str(),
                daemon.OperatorUrl().c_str());
    std::fflush(stdout);
    sd_notify(0, "READY=1");
    const int iSignal = WaitForStop(setStop);
    sd_notify(0, "STOPPING=1");
    LogInfoTo(hLog, "zxcloudd stops signal[%d]", iSignal);
    iExit = 0;
  } else {
    std::fprintf(stderr, "zxcloudd: %s\n", strError.c_str());
    LogErrorTo(hLog, "**zxcloudd cannot start error[%s]", strError);
  }
  daemon.Stop();
  SetCloudLog(nullptr);
  LogUninit(hLog);
  return iExit;
}

}  // namespace

int main(int iArgc, char** ppszArgv) {
  CLI::App app("zxcloudd: reference management cloud");
  std::string strConfigFile;
  bool bCheckOnly = false;
  app.add_option("--config", strConfigFile, "configuration file (docs/zxcloudd.md)")->required();
  app.add_flag("--check", bCheckOnly, "read the configuration, say what is wrong with it, and end");
  try {
    app.parse(iArgc, ppszArgv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  try {
    return Run(strConfigFile, bCheckOnly);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zxcloudd: %s\n", e.what());
    return 1;
  }
}
