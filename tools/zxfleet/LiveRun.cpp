#include "LiveRun.h"

#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include "FleetCert.h"
#include "FleetLinks.h"
#include "FleetServer.h"
#include "Report.h"

namespace zxfleet {

namespace {

using EDoor = CFleetServer::EDoor;

constexpr uint32_t kStartSec = 120;    // the fleet is up within this, or never
constexpr uint32_t kPatienceSec = 60;  // for the return on a machine that is short of time
constexpr uint64_t kBinMs = 100;

struct _Usage {
  double dCpuSec = 0;
  uint64_t u64RssKb = 0;
};

_Usage UsageOf(pid_t iPid) {
  _Usage usage;
  std::ifstream stat("/proc/" + std::to_string(iPid) + "/stat");
  std::string strText((std::istreambuf_iterator<char>(stat)), {});
  // Behind the name, which may hold anything but ends at the last bracket: state is field 3.
  const size_t uName = strText.rfind(')');
  if (uName == std::string::npos)
    return usage;
  uint64_t u64User = 0;
  uint64_t u64System = 0;
  int64_t i64Pages = 0;
  if (std::sscanf(&strText[uName + 2],
                  "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %" SCNu64 " %" SCNu64
                  " %*d %*d %*d %*d %*d %*d %*u %*u %" SCNd64,
                  &u64User, &u64System, &i64Pages) == 3) {
    usage.dCpuSec = static_cast<double>(u64User + u64System) / static_cast<double>(sysconf(_SC_CLK_TCK));
    usage.u64RssKb = static_cast<uint64_t>(i64Pages) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
  }
  return usage;
}

// Steps of 5 ms until fnDone or the deadline.
bool WaitFor(uint64_t u64Ms, const std::function<bool()>& fnDone) {
  zxcloud::CSystemClock clock;
  const uint64_t u64End = clock.NowMs() + u64Ms;
  const timespec step{0, 5000000};
  while (!fnDone()) {
    if (clock.NowMs() >= u64End)
      return false;
    nanosleep(&step, nullptr);
  }
  return true;
}

void Sleep(uint64_t u64Ms) {
  WaitFor(u64Ms, [] { return false; });
}

// As many descriptors as the system lets us have.
void RaiseLimits() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

class CLiveRun {
 public:
  explicit CLiveRun(const _LiveSettings& settings) : m_settings(settings) {}
  ~CLiveRun() {
    if (m_settings.strDir.empty() && !m_strDir.empty()) {
      std::error_code error;
      std::filesystem::remove_all(m_strDir, error);
    }
  }
  CLiveRun(const CLiveRun&) = delete;
  CLiveRun& operator=(const CLiveRun&) = delete;

  bool Run() {
    std::string strError;
    RaiseLimits();
    const bool bOk = Prepare(strError) && ComeUp(strError);
    if (!bOk) {
      std::fprintf(stderr, "zxfleet: %s\n", strError.c_str());
      return false;
    }
    const bool bGood = m_settings.strLong.empty() ? Outage() : Hold();
    m_pLinks->Stop();
    return bGood;
  }

 private:
  bool Prepare(std::string& strError) {
    char szDir[] = "/tmp/zxfleet.XXXXXX";
    if (m_settings.strDir.empty() && mkdtemp(szDir) == nullptr) {
      strError = "no temporary directory";
      return false;
    }
    m_strDir = (m_settings.strDir.empty() ? std::string(szDir) : m_settings.strDir) + "/";
    std::error_code error;
    std::filesystem::create_directories(m_strDir, error);
    _FleetCert cert;
    if (!MakeFleetCert(m_strDir, cert, strError) || !m_server.Start(cert, strError))
      return false;
    const std::string strOwn = "127.0.0.1:" + std::to_string(m_server.Port(EDoor::Long));
    m_server.SetTconf("{\"v\":1,\"pcid\":\"\",\"short\":\"\",\"long\":\"" +
                      (m_settings.strLong.empty() ? strOwn : m_settings.strLong) +
                      "\",\"spread_sec\":" + std::to_string(m_settings.uSpreadSec / m_settings.uScale) + "}");
    _FleetLinkSettings links;
    links.uLinks = m_settings.uLinks;
    links.strDir = m_strDir;
    links.strTconf = "127.0.0.1:" + std::to_string(m_server.Port(EDoor::Short));
    links.strCaFile = cert.strCert;
    links.times.dwBackoffBase /= m_settings.uScale;
    links.times.dwBackoffCap /= m_settings.uScale;
    links.times.dwStable = 0;  // the fleet has been up for long, as it were
    m_pLinks = std::make_unique<CFleetLinks>(links);
    return true;
  }

  bool AllUp() const { return CFleetLinks::Connected() >= m_settings.uLinks; }

  bool ComeUp(std::string& strError) {
    const uint64_t u64Start = m_clock.NowMs();
    const _Usage before = UsageOf(getpid());
    m_watchBefore = UsageOf(m_settings.iWatch);
    if (!m_pLinks->Start(m_settings.dwStartOverMs, strError))
      return false;
    if (!WaitFor(kStartSec * 1000, [this] { return AllUp(); })) {
      strError = "only " + std::to_string(CFleetLinks::Connected()) + " links came up";
      return false;
    }
    const double dSec = static_cast<double>(m_clock.NowMs() - u64Start) / 1000;
    const _Usage after = UsageOf(getpid());
    std::printf(
        "links %u up in %.1f s (%.0f/s); this process: CPU %.2f ms and %.1f KB per link, server included\n",
        m_settings.uLinks, dSec, m_settings.uLinks / dSec,
        (after.dCpuSec - before.dCpuSec) * 1000 / m_settings.uLinks,
        static_cast<double>(after.u64RssKb - before.u64RssKb) / m_settings.uLinks);
    PrintWatched("connecting");
    return true;
  }

  void PrintWatched(const char* pszWhat) {
    if (m_settings.iWatch == 0)
      return;
    const _Usage now = UsageOf(m_settings.iWatch);
    const double dEach = m_settings.uLinks;
    std::printf("watched process, %s: CPU %.2f s (%.3f ms per link), memory %" PRIu64
                " KB (%+.1f KB per link)\n",
                pszWhat, now.dCpuSec - m_watchBefore.dCpuSec,
                (now.dCpuSec - m_watchBefore.dCpuSec) * 1000 / dEach, now.u64RssKb,
                (static_cast<double>(now.u64RssKb) - static_cast<double>(m_watchBefore.u64RssKb)) / dEach);
    m_watchBefore.dCpuSec = now.dCpuSec;
  }

  bool Hold() {
    const _Usage before = UsageOf(getpid());
    Sleep(uint64_t{m_settings.uHoldSec} * 1000);
    const double dCpu = UsageOf(getpid()).dCpuSec - before.dCpuSec;
    std::printf("idle for %u s: this process CPU %.2f s (%.1f us per link and s)\n", m_settings.uHoldSec,
                dCpu, m_settings.uHoldSec == 0 ? 0 : dCpu * 1e6 / m_settings.uLinks / m_settings.uHoldSec);
    PrintWatched("idle");
    return AllUp();
  }

  bool Outage() {
    const auto u64AwayMs = static_cast<uint64_t>(m_settings.dAwaySec * 1000) / m_settings.uScale;
    const auto u64AfterMs = static_cast<uint64_t>(m_settings.dAfterSec * 1000) / m_settings.uScale;
    const uint64_t u64WarningsBefore = CFleetLinks::WarningLines();
    const uint64_t u64Lost = m_clock.NowMs();
    m_server.SetAway(true);
    uint64_t u64Queued = 0;
    for (uint32_t i = 0; i < m_settings.uQueued; ++i)
      u64Queued += m_pLinks->SendEach(1024);
    const uint64_t u64Gone = m_clock.NowMs() - u64Lost;
    Sleep(u64AwayMs > u64Gone ? u64AwayMs - u64Gone : 0);
    const uint64_t u64UploadsBefore = m_server.Uploads();
    m_server.SetAway(false);
    const uint64_t u64Return = m_clock.NowMs();
    const uint64_t u64PatienceMs = std::max<uint64_t>(u64AfterMs, kPatienceSec * 1000);
    const bool bBack = WaitFor(u64PatienceMs, [&] { return AllUp(); });
    const double dBack = static_cast<double>(m_clock.NowMs() - u64Return) / 1000;
    const bool bDrained =
        WaitFor(u64PatienceMs, [&] { return m_server.Uploads() - u64UploadsBefore >= u64Queued; });
    const double dDrained = static_cast<double>(m_clock.NowMs() - u64Return) / 1000;
    const uint64_t u64Spent = m_clock.NowMs() - u64Return;
    Sleep(u64AfterMs > u64Spent ? u64AfterMs - u64Spent : 0);
    std::printf("away %.1f s, times divided by %u, spread %u s\n", static_cast<double>(u64AwayMs) / 1000,
                m_settings.uScale, m_settings.uSpreadSec);
    const bool bEven = Print(EDoor::Long, "long connection", u64Lost, u64Return);
    Print(EDoor::Short, "HTTPS", u64Lost, u64Return);
    std::printf("up again %u of %u", CFleetLinks::Connected(), m_settings.uLinks);
    if (bBack)
      std::printf(", all after %.1f s", dBack);
    std::printf("; uploads %" PRIu64 " of %" PRIu64 "", m_server.Uploads() - u64UploadsBefore, u64Queued);
    if (u64Queued != 0 && bDrained)
      std::printf(", the last after %.1f s", dDrained);
    std::printf("; log lines of warnings per link %.2f\n",
                static_cast<double>(CFleetLinks::WarningLines() - u64WarningsBefore) / m_settings.uLinks);
    return bBack && bDrained && bEven;
  }

  bool Print(EDoor eDoor, const char* pszWhat, uint64_t u64Lost, uint64_t u64Return) {
    CAttemptBins bins(std::max<uint64_t>(kBinMs / m_settings.uScale, 1));
    for (const uint64_t u64At : m_server.Knocks(eDoor)) {
      if (u64At >= u64Lost)
        bins.Add(u64At - u64Lost);
    }
    std::printf("%s:\n", pszWhat);
    const auto u64AfterMs = static_cast<uint64_t>(m_settings.dAfterSec * 1000) / m_settings.uScale;
    return PrintAttempts(bins,
                         {u64Return - u64Lost, 60000 / m_settings.uScale, u64Return - u64Lost + u64AfterMs});
  }

  const _LiveSettings& m_settings;
  zxcloud::CSystemClock m_clock;
  std::string m_strDir;
  CFleetServer m_server;
  std::unique_ptr<CFleetLinks> m_pLinks;
  _Usage m_watchBefore;
};

}  // namespace

bool RunLive(const _LiveSettings& settings) {
  return CLiveRun(settings).Run();
}

}  // namespace zxfleet
