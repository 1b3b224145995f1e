#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "zxctl/Answers.h"
#include "zxctl/Commands.h"
#include "zxctl/LogTrace.h"
#include "zxctl/Table.h"
#include "zxctl/local/BusMonitor.h"
#include "zxctl/local/BusView.h"
#include "zxctl/local/Home.h"
#include "zxctl/local/LogFollower.h"

namespace zxctl {

namespace {

constexpr size_t kLineMax = 200;

void PrintLine(int64_t i64AtMs, const std::string& strWhere, const std::string& strWhat, bool bJson) {
  if (bJson) {
    CPJsonParse json;
    CPString strText;
    json.CreateJson();
    json.AddNode(nullptr, "at_ms", static_cast<double>(i64AtMs));
    json.AddNode(nullptr, "where", strWhere.c_str());
    json.AddNode(nullptr, "what", strWhat.c_str());
    json.GetJsonStr(strText);
    Print(strText.Str() + "\n");
  } else {
    std::string strLine = ClockText(i64AtMs) + "  " + strWhere + "  " + Shorten(strWhat, kLineMax);
    std::replace(strLine.begin(), strLine.end(), '\n', ' ');
    PrintForeign(strLine + "\n");
  }
  std::fflush(stdout);
}

void PrintSteps(CLogFollower& logs, bool bJson) {
  for (const _LogRecord& record : logs.Read()) {
    _Hop hop;
    if (HopOf(record, hop))
      PrintLine(hop.i64AtMs, hop.strWhere, hop.strWhat, bJson);
  }
}

// SIGINT and SIGTERM as a descriptor.
int SignalDescriptor() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

// The sources that could be opened; false with the reason printed when none could.
bool OpenSources(const std::string& strHome, const _WatchOptions& options, CLogFollower& logs,
                 CBusMonitor& bus, pollfd (&polls)[3]) {
  polls[0] = {SignalDescriptor(), POLLIN, 0};
  polls[1] = {-1, POLLIN, 0};
  polls[2] = {-1, POLLIN, 0};
  if (options.bLogs) {
    if (logs.Open())
      polls[1].fd = logs.Descriptor();
    else
      std::fprintf(stderr, "zxctl: %slog: %s\n", strHome.c_str(), ErrnoText(errno).c_str());
  }
  std::string strError;
  if (options.bBus) {
    if (bus.Open(BusAddressOf(strHome), strError) == 0)
      polls[2].fd = bus.Descriptor();
    else
      std::fprintf(stderr, "zxctl: %s cannot be listened to: %s\n", BusAddressOf(strHome).c_str(),
                   strError.c_str());
  }
  return polls[1].fd >= 0 || polls[2].fd >= 0;
}

}  // namespace

int Watch(const std::string& strHome, const _WatchOptions& options, bool bJson) {
  CLogFollower logs(strHome);
  CBusMonitor bus;
  pollfd polls[3];
  if (!OpenSources(strHome, options, logs, bus, polls))
    return kExitUnreachable;
  const auto printBus = [bJson](const _BusEvent& event) {
    PrintLine(NowMs(), "bus", event.strFrom + " -> " + event.strTo + "  " + event.strWhat, bJson);
  };
  const int64_t i64End = options.iForSec > 0 ? NowMs() + int64_t{options.iForSec} * 1000 : 0;
  while (polls[1].fd >= 0 || polls[2].fd >= 0) {
    if (polls[2].fd >= 0 && bus.Read(printBus) < 0) {
      std::fprintf(stderr, "zxctl: the bus is gone\n");
      polls[2].fd = -1;
      continue;
    }
    const int64_t i64Left = i64End != 0 ? i64End - NowMs() : -1;
    if (i64End != 0 && i64Left <= 0)
      break;
    const int iReady = poll(polls, 3, static_cast<int>(i64Left));
    if ((iReady < 0 && errno != EINTR) || (polls[0].revents & POLLIN) != 0)
      break;
    if (polls[1].fd >= 0)
      PrintSteps(logs, bJson);
  }
  if (polls[0].fd >= 0)
    close(polls[0].fd);
  return kExitOk;
}

}  // namespace zxctl
