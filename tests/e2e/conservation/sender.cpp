// Sends through libzxcloud and notes, in a file of its own, what was accepted. The file is written with one
// append per line, so that a kill -9 right after keeps it; what was accepted but not noted is no loss of
// anybody's.
//
//   zxsender --config FILE --mid MID --log FILE [--blocking N] [--spooled N] [--per-second N] [--bytes N]
//
// A line: "<id> <b|s> <begin> <end>": blocking or spooled; when the call began and ended, milliseconds of the
// monotonic clock. Every id is used for one call only. SIGTERM ends the making of new work; SIGKILL
// everything.
#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "platform/cloud/zxcloud.h"

namespace {

struct _Options {
  std::string strConfig, strMid, strLog;
  int iBlocking = 4, iSpooled = 0, iPerSecond = 20, iBytes = 700;
  int iTimeoutMs = 20000;
};

std::atomic<bool> g_bStop{false};

uint64_t NowMs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

void Pause(uint64_t u64Ms) {
  const timespec ts{static_cast<time_t>(u64Ms / 1000), static_cast<long>(u64Ms % 1000) * 1000000};
  nanosleep(&ts, nullptr);
}

std::string Upload(const _Options& options, const std::string& strId) {
  const std::string strFill(static_cast<size_t>(options.iBytes), 'x');
  return "<mid=" + options.strMid +
         "><m2=second><v=2><product=veltcwpp><combo=zxsample><ipartner=test><pa=linux><pid=test><sysver=test>"
         "<version=1.0><PCPluginJasonData={\"oracle\":\"" +
         strId + "\",\"fill\":\"" + strFill + "\"}><PCPluginVersion=1.0.0.2005>";
}

void Work(const _Options& options, int iLog, int iThread, bool bBlocking) {
  const std::string strPrefix =
      std::to_string(getpid()) + "-" + std::to_string(NowMs()) + "-" + std::to_string(iThread) + "-";
  const int iPriorities[] = {0, 1, 2, 3, 10, 11, 12, 13};
  for (int i = 0; !g_bStop; ++i) {
    const std::string strId = strPrefix + std::to_string(i);
    const std::string strUpload = Upload(options, strId);
    const auto iLength = static_cast<int>(strUpload.size());
    const int iPriority = iPriorities[i % 8];
    const uint64_t u64Begin = NowMs();
    const uint32_t uiResult =
        bBlocking ? zxcloud_send_sync(strUpload.c_str(), iLength, iPriority, options.iTimeoutMs)
                  : zxcloud_send(strUpload.c_str(), iLength, iPriority);
    const uint64_t u64End = NowMs();
    if (uiResult == 0) {
      const std::string strLine = strId + (bBlocking ? " b " : " s ") + std::to_string(u64Begin) + " " +
                                  std::to_string(u64End) + "\n";
      if (write(iLog, strLine.data(), strLine.size()) != static_cast<ssize_t>(strLine.size()))
        std::perror("accepted log");
    } else {
      std::printf("%llu refused %s %08x\n", static_cast<unsigned long long>(u64End), strId.c_str(), uiResult);
    }
    const uint64_t u64Turn = 1000 / static_cast<uint64_t>(options.iPerSecond);
    if (const uint64_t u64Spent = NowMs() - u64Begin; u64Spent < u64Turn)
      Pause(u64Turn - u64Spent);
  }
}

void Log(int, int, const char* pszText) {
  std::printf("%llu %s\n", static_cast<unsigned long long>(NowMs()), pszText);
  std::fflush(stdout);
}

int Run(const _Options& options) {
  const int iLog = open(options.strLog.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
  zxcloud_setopt(("mid=" + options.strMid + ":m2=second:platid=1").c_str());
  zxcloud_record record{};
  record.config_path = options.strConfig.c_str();
  record.channel_id = "test";
  record.log = Log;
  if (const uint32_t uiResult = zxcloud_init(&record); iLog < 0 || uiResult != 0) {
    std::printf("cannot start %08x\n", uiResult);
    return 1;
  }
  std::vector<std::thread> listThreads;
  for (int i = 0; i < options.iBlocking + options.iSpooled; ++i)
    listThreads.emplace_back(Work, std::cref(options), iLog, i, i < options.iBlocking);
  sigset_t setStop;
  sigemptyset(&setStop);
  sigaddset(&setStop, SIGTERM);
  int iSignal = 0;
  sigwait(&setStop, &iSignal);
  g_bStop = true;
  for (std::thread& thread : listThreads)
    thread.join();
  std::printf("%llu quiet\n", static_cast<unsigned long long>(NowMs()));
  std::fflush(stdout);
  sigwait(&setStop, &iSignal);  // what is spooled still goes out
  return static_cast<int>(zxcloud_uninit());
}

}  // namespace

int main(int iArgc, char** ppszArgv) {
  _Options options;
  CLI::App app("sends and notes what was accepted");
  app.add_option("--config", options.strConfig)->required();
  app.add_option("--mid", options.strMid)->required();
  app.add_option("--log", options.strLog)->required();
  app.add_option("--blocking", options.iBlocking);
  app.add_option("--spooled", options.iSpooled);
  app.add_option("--per-second", options.iPerSecond, "of each thread")->check(CLI::Range(1, 1000));
  app.add_option("--bytes", options.iBytes)->check(CLI::Range(0, 1 << 20));
  CLI11_PARSE(app, iArgc, ppszArgv);
  sigset_t setStop;
  sigemptyset(&setStop);
  sigaddset(&setStop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &setStop, nullptr);
  return Run(options);
}
