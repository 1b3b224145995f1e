// The server is away for a while and its machine goes on sending, well past its bounds.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include "CloudFixture.h"
#include "support/TcpProxy.h"
#include "support/Waiter.h"

namespace {

constexpr uint32_t kDeadlineMs = 40000;
constexpr uint64_t kSpoolBytes = 1u << 20;
constexpr uint64_t kMostDiskBytes = 2 * kSpoolBytes + (8u << 20);
// Far below what is offered.
constexpr uint64_t kMostGrowthBytes = 16u << 20;
constexpr uint64_t kOfferedBytes = 32u << 20;
constexpr int kPriorities[] = {3, 0, 11, 1, 13, 2, 10, 12};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kRssSaysSomething = false;  // what is freed is kept to find its use
#else
constexpr bool kRssSaysSomething = true;
#endif

uint64_t RssBytes() {
  std::ifstream file("/proc/self/status");
  for (std::string strLine; std::getline(file, strLine);) {
    if (strLine.rfind("VmRSS:", 0) == 0)
      return std::stoull(strLine.substr(6)) * 1024;
  }
  ADD_FAILURE() << "no VmRSS";
  return 0;
}

struct _Accepted {
  int iPriority;
  bool bLarge;
};

class COutage : public CCloudFixture {
 protected:
  COutage()
      : m_pHttps(std::make_unique<CTestHttps>(&m_cert)),
        m_broker(m_home.Path("broker/").Str(), m_cert),
        m_proxy(m_broker.TlsPort()) {}

  void Start() {
    m_pHttps->Answer("/v1/tconf", [strLong = Local(m_proxy.Port())](const _TestRequest&) {
      return _TestReply{200, R"({"v":1,"spread_sec":0,"drain_per_sec":0,"long":")" + strLong + "\"}", {}};
    });
    WriteConfig(m_pHttps->Address(),
                ",\"max_queue_bytes\":65536,\"spool_bytes\":" + std::to_string(kSpoolBytes));
    ASSERT_EQ(Init(), 0u);
    ASSERT_TRUE(m_events.Wait("connect", 1, kDeadlineMs));
    ASSERT_EQ(zxcloud_send_sync("before", 6, 0, kDeadlineMs), 0u);
  }
  void ServerGoes() {
    m_pHttps.reset();
    m_proxy.Refuse(true);  // until somebody listens for what arrives
    m_broker.Kill();
    ASSERT_TRUE(m_events.Wait("disconnect", 1, kDeadlineMs));
  }
  std::unique_ptr<CTestSubscriber> ServerReturns() {
    m_broker.Start();
    auto pSubscriber = std::make_unique<CTestSubscriber>(m_broker.PlainPort(), "zx/v1/m-1/up/#");
    m_proxy.Refuse(false);
    return pSubscriber;
  }
  uint64_t DiskBytes() {
    uint64_t u64Bytes = 0;
    for (const char* pszFile : {"zxcloud.db", "zxcloud.db-wal"}) {
      struct stat info {};
      if (stat(m_home.Path(std::string("etc/zxagent/") + pszFile).c_str(), &info) == 0)
        u64Bytes +=
            std::max(static_cast<uint64_t>(info.st_size), static_cast<uint64_t>(info.st_blocks) * 512);
    }
    return u64Bytes;
  }
  // One message of the steady input.
  void Offer() {
    const int iPriority = kPriorities[m_uOffered % std::size(kPriorities)];
    const size_t uFill = m_uOffered * 37 % 6000;
    const std::string strBody = "n " + std::to_string(m_uOffered) + " " + std::string(uFill, 'x');
    const uint32_t uiResult = zxcloud_send(strBody.data(), static_cast<int>(strBody.size()), iPriority);
    m_u64OfferedBytes += strBody.size();
    if (uiResult == 0)
      m_accepted[m_uOffered] = {iPriority, strBody.size() > 4096};
    else
      ++m_results[uiResult];
    ++m_uOffered;
  }
  // Until the link has tried in vain and far more was offered than there is room for.
  void SendWhileAway() {
    const size_t uAttempts = m_proxy.Attempts();
    const uint64_t u64Rss = RssBytes();
    uint64_t u64Peak = 0;
    while (m_proxy.Attempts() == uAttempts || m_u64OfferedBytes < kOfferedBytes) {
      for (int i = 0; i < 1000; ++i)
        Offer();
      // Somebody who waits gives the others their time.
      EXPECT_EQ(zxcloud_send_sync("impatient", 9, 1, 20), kZxcloudErrTimeout);
      ASSERT_LE(DiskBytes(), kMostDiskBytes);
      u64Peak = std::max(u64Peak, RssBytes());
    }
    RecordProperty("grown_kb", std::to_string((u64Peak - std::min(u64Rss, u64Peak)) >> 10));
    if (kRssSaysSomething) {
      EXPECT_LE(u64Peak, u64Rss + kMostGrowthBytes) << "after " << m_u64OfferedBytes << " bytes";
    }
  }
  // More callers who wait than the memory's bound has room for: all of them are told.
  void WaitersBeyondTheBound() {
    const std::string strBody = "waited " + std::string(20000, 'w');
    std::atomic<int> iFull{0};
    std::atomic<int> iOther{0};
    // Each keeps its place until all have asked.
    std::vector<std::thread> listThreads;
    for (int i = 0; i < 8; ++i)
      listThreads.emplace_back([&] {
        uint32_t uiResult = kZxcloudErrTimeout;
        while (uiResult == kZxcloudErrTimeout && iFull.load() == 0)
          uiResult = zxcloud_send_sync(strBody.data(), static_cast<int>(strBody.size()), 3, 100);
        iFull += uiResult == kZxcloudErrFull;
        iOther += uiResult != kZxcloudErrFull && uiResult != kZxcloudErrTimeout;
      });
    for (std::thread& thread : listThreads)
      thread.join();
    EXPECT_GE(iFull.load(), 1);
    EXPECT_EQ(iOther.load(), 0);
  }

  std::unique_ptr<CTestHttps> m_pHttps;
  CTestBroker m_broker;
  CTcpProxy m_proxy;
  size_t m_uOffered = 0;
  uint64_t m_u64OfferedBytes = 0;
  std::map<size_t, _Accepted> m_accepted;  // by number
  std::map<uint32_t, size_t> m_results;    // of the others
};

// What arrived, each id once, by its first arrival.
class CArrivals {
 public:
  explicit CArrivals(const std::vector<CTestSubscriber::_Message>& listMessages) {
    std::set<std::string> setIds;
    for (const auto& message : listMessages) {
      const size_t uLine = message.strPayload.find('\n');
      if (setIds.insert(message.strPayload.substr(0, uLine)).second)
        m_listBodies.push_back(message.strPayload.substr(uLine + 1));
    }
  }
  size_t Count(const std::string& strBody) const {
    return static_cast<size_t>(std::count(m_listBodies.begin(), m_listBodies.end(), strBody));
  }
  std::vector<size_t> Numbers() const {
    std::vector<size_t> list;
    for (const std::string& strBody : m_listBodies) {
      if (strBody.rfind("n ", 0) == 0)
        list.push_back(std::stoul(strBody.substr(2)));
      else if (strBody != "patient")
        ADD_FAILURE() << "nobody waits for " << strBody.substr(0, 40);
    }
    return list;
  }

 private:
  std::vector<std::string> m_listBodies;
};

TEST_F(COutage, SteadyInput_StaysWithinItsBounds_AndEverythingAcceptedArrivesInOrder) {
  Start();
  ServerGoes();
  uint32_t uiPatient = kZxcloudErrTimeout;
  std::jthread patient([&] { uiPatient = zxcloud_send_sync("patient", 7, 0, 100000); });
  SendWhileAway();
  WaitersBeyondTheBound();

  // The callers were told what the link says it did.
  const size_t uRefused = m_results[kZxcloudErrFull];
  EXPECT_EQ(m_accepted.size() + uRefused, m_uOffered) << ::testing::PrintToString(m_results);
  EXPECT_GT(uRefused, m_accepted.size());
  EXPECT_EQ(Option("spoolrefused"), std::to_string(uRefused));
  EXPECT_EQ(Option("spooldepth"), std::to_string(m_accepted.size()));
  EXPECT_LE(std::stoull(Option("spoolbytes")), kSpoolBytes);
  EXPECT_GT(std::stoull(Option("spoolbytes")), kSpoolBytes / 2);
  EXPECT_EQ(Option("link"), "down");

  const auto pSubscriber = ServerReturns();
  std::vector<CTestSubscriber::_Message> listMessages;
  EXPECT_TRUE(pSubscriber->Wait(
      [&](const auto& list) {
        if (list.size() <= m_accepted.size())
          return false;
        listMessages = list;
        return CArrivals(list).Count("patient") + CArrivals(list).Numbers().size() > m_accepted.size();
      },
      kDeadlineMs));
  patient.join();
  EXPECT_EQ(uiPatient, 0u);
  const CArrivals arrivals(listMessages);
  const std::vector<size_t> listNumbers = arrivals.Numbers();
  const std::set<size_t> setNumbers(listNumbers.begin(), listNumbers.end());
  EXPECT_EQ(setNumbers.size(), listNumbers.size()) << "with two ids";
  EXPECT_EQ(setNumbers.size(), m_accepted.size());
  // Large and small ones have connections of their own; large ones change theirs when it does not come up in
  // time.
  const bool bOneWay = !m_events.WaitLog("uploads go with the commands", 0);
  std::map<std::pair<int, bool>, size_t> mapLast;
  for (const size_t uNumber : listNumbers) {
    const auto it = m_accepted.find(uNumber);
    ASSERT_NE(it, m_accepted.end()) << uNumber << " was refused";
    size_t& uLast = mapLast[{it->second.iPriority, it->second.bLarge}];
    if (bOneWay || !it->second.bLarge) {
      EXPECT_GE(uNumber, uLast) << "priority " << it->second.iPriority;
    }
    uLast = uNumber;
  }
  EXPECT_TRUE(EventuallyTrue([&] { return Option("spoolbytes") == "0"; }, kDeadlineMs));
  EXPECT_EQ(zxcloud_send("fresh", 5, 3), 0u);
  EXPECT_EQ(zxcloud_send_sync("fresh", 5, 3, kDeadlineMs), 0u);
}

}  // namespace
