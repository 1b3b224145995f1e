// The whole forwarder on the real bus; the test is the agent.
#include "zxlogcache/LogCache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <csignal>
#include <fstream>
#include <map>
#include <mutex>
#include <set>

#include "support/LogCapture.h"
#include "support/TempHome.h"
#include "support/Waiter.h"

using testing::HasSubstr;
using zxlogcache::CLogCache;

namespace {

constexpr char kAgent[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";
constexpr char kOther[] = "11111111-2222-4333-8444-555555555555";

// Takes log caches as the agent does; what becomes of them is up to the test.
class CAgent : public IMRReceiveComplete {
 public:
  explicit CAgent(const char* pszGuid = kAgent) : m_pBus(ZxBusCreateContext()) {
    const GUID guid(pszGuid);
    EXPECT_EQ(m_pBus->Initialize(&guid), 0u);
    EXPECT_EQ(m_pBus->Receive(20002, this), 0u);
  }
  ~CAgent() override {
    m_pBus->Uninitialize();
    ZxBusDestroyContext(m_pBus);
  }
  CAgent(const CAgent&) = delete;
  CAgent& operator=(const CAgent&) = delete;

  void Answer(uint32_t uiStatus) {
    const std::lock_guard lock(m_mutex);
    m_uiStatus = uiStatus;
  }
  void Results(bool bSend, int32_t iResult = 0) {
    const std::lock_guard lock(m_mutex);
    m_bResults = bSend;
    m_iResult = iResult;
  }
  void SendResult(uint64_t u64DataId, int32_t iResult) {
    char record[32] = {};
    std::memcpy(record + 4, &iResult, sizeof(iResult));
    std::memcpy(record + 8, &u64DataId, sizeof(u64DataId));
    const GUID guid(CLogCache::kGuid);
    EXPECT_EQ(m_pBus->AsynSendEx(&guid, 20003, record, sizeof(record), nullptr, nullptr, nullptr, 20000), 0u);
  }
  bool WaitCount(size_t uCount) {
    std::unique_lock lock(m_mutex);
    return m_cond.wait_for(lock, std::chrono::seconds(20), [&] { return m_texts.size() >= uCount; });
  }
  std::vector<std::string> Texts() {
    const std::lock_guard lock(m_mutex);
    return m_texts;
  }
  // Records of all log caches, without repeats.
  std::set<std::string> Lines() {
    std::set<std::string> lines;
    for (const std::string& strText : Texts()) {
      const size_t uBody = strText.find("<end=1><msg=") + 12;
      std::string_view body = std::string_view(strText).substr(uBody, strText.size() - uBody - 1);
      while (!body.empty()) {
        lines.emplace(body.substr(0, body.find('\n')));
        body.remove_prefix(std::min(body.size(), body.find('\n') + 1));
      }
    }
    return lines;
  }
  bool WaitLines(size_t uCount) {
    return EventuallyTrue([&] { return Lines().size() >= uCount; }, 30000);
  }
  static uint64_t DataId(const std::string& strText) {
    return std::stoull(strText.substr(strText.find("<dataid=") + 8), nullptr, 16);
  }

 private:
  void ReceiveCallback(const GUID&, long i64MsgType, const unsigned char* pData, unsigned int uiLength,
                       void* pBaton, void* pContext) override {
    const std::string strText(reinterpret_cast<const char*>(pData), uiLength);
    uint32_t uiStatus = 0;
    bool bResult = false;
    int32_t iResult = 0;
    {
      const std::lock_guard lock(m_mutex);
      m_texts.push_back(strText);
      uiStatus = m_uiStatus;
      bResult = m_bResults;
      iResult = m_iResult;
    }
    static_cast<IBusContext*>(pContext)->Reply(uiStatus, i64MsgType, "agent_reply_okok", 16, pBaton);
    if (uiStatus == 0 && bResult)
      SendResult(DataId(strText), iResult);
    m_cond.notify_all();
  }

  IBusContext* m_pBus;
  std::mutex m_mutex;
  std::condition_variable m_cond;
  std::vector<std::string> m_texts;
  uint32_t m_uiStatus = 0;
  bool m_bResults = true;
  int32_t m_iResult = 0;
};

class LogCache : public testing::Test {
 protected:
  LogCache() : m_pBus(ZxBusCreateContext()) { Configure(""); }
  ~LogCache() override {
    Stop();
    ZxBusDestroyContext(m_pBus);
  }

  void Configure(const std::string& strMore, const std::string& strStore = R"({"max_bytes":4194304})") {
    m_home.WriteFile("etc/zxlogcache.json",
                     CPString(R"({"sources":[{"name":"app","product":"p","combo":"c","body":"lines",
      "sockets":[{"path":"in.sock","ack":true},{"type":"datagram","path":"dg.sock"}],
      "files":[{"path":"app.log"}]}],"batch":{"linger_ms":20,"max_bytes":4096},"retry_min_ms":20,"retry_max_ms":100,)" +
                              strMore + R"("store":)" + strStore + "}"));
  }
  bool Start() {
    m_pForwarder = std::make_unique<CLogCache>();
    m_pForwarder->Initialize(m_home.Root().Str());
    m_pForwarder->SetBus(m_pBus);
    return m_pForwarder->Start() == 0;
  }
  void Stop() {
    if (m_pForwarder != nullptr)
      m_pForwarder->Stop();
    m_pForwarder.reset();
  }
  int Connect() {
    int hFd = -1;
    EXPECT_TRUE(EventuallyTrue([&] {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      m_home.Path("data/zxlogcache/in.sock").Str().copy(address.sun_path, sizeof(address.sun_path) - 1);
      hFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      if (connect(hFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0)
        return true;
      close(hFd);
      return false;
    }));
    return hFd;
  }
  // Sends lines and waits until they are stored.
  void Feed(int iFirst, int iCount) {
    const int hFd = Connect();
    std::string strText;
    for (int i = iFirst; i < iFirst + iCount; ++i)
      strText += "line-" + std::to_string(i) + "\n";
    ASSERT_EQ(send(hFd, strText.data(), strText.size(), MSG_NOSIGNAL), static_cast<ssize_t>(strText.size()));
    shutdown(hFd, SHUT_WR);
    std::string strAnswer;
    char buffer[256];
    ssize_t iBytes = 0;
    while ((iBytes = recv(hFd, buffer, sizeof(buffer), 0)) > 0)
      strAnswer.append(buffer, static_cast<size_t>(iBytes));
    close(hFd);
    EXPECT_THAT(strAnswer, HasSubstr("ok " + std::to_string(iCount) + "\n"));
  }
  bool WaitStatus(const std::string& strPart) {
    return EventuallyTrue(
        [&] {
          std::ifstream file(m_home.Path("data/zxlogcache/status.json").Str());
          const std::string strAll((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
          return strAll.find(strPart) != std::string::npos;
        },
        30000);
  }

  CTempHome m_home;
  CLogCapture m_log;
  IBusContext* m_pBus;
  std::unique_ptr<CLogCache> m_pForwarder;
};

TEST_F(LogCache, Lines_BecomeLogCaches_AndGoOnceTheCloudHasThem) {
  CAgent agent;
  m_home.WriteFile("data/zxlogcache/app.log", "from a file\n");
  ASSERT_TRUE(Start());
  Feed(0, 100);
  EXPECT_TRUE(agent.WaitLines(101));
  EXPECT_EQ(agent.Lines().count("from a file"), 1u);
  EXPECT_THAT(agent.Texts()[0], HasSubstr("<product=p><combo=c><version=1><msgtype=2><priv=1><dataid="));
  EXPECT_LT(agent.Texts().size(), 20u) << "lines travel together";
  EXPECT_TRUE(WaitStatus("\"held_records\":\t0"));
  EXPECT_TRUE(WaitStatus("\"forwarded_records\":\t101"));
}

TEST_F(LogCache, WithoutAnAgent_EverythingWaits) {
  ASSERT_TRUE(Start());
  Feed(0, 50);
  EXPECT_TRUE(WaitStatus("\"held_records\":\t50"));
  Stop();
  ASSERT_TRUE(Start());
  CAgent agent;
  EXPECT_TRUE(agent.WaitLines(50));
  EXPECT_TRUE(WaitStatus("\"held_records\":\t0"));
}

TEST_F(LogCache, RefusedAndFailed_AreRepeatedUntilTheyAreThere) {
  CAgent agent;
  agent.Answer(0xB0010003);
  ASSERT_TRUE(Start());
  Feed(0, 10);
  ASSERT_TRUE(agent.WaitCount(2));
  EXPECT_TRUE(WaitStatus("\"held_records\":\t10"));
  agent.Answer(0);
  agent.Results(true, 5);
  const size_t uBefore = agent.Texts().size();
  ASSERT_TRUE(agent.WaitCount(uBefore + 3));
  EXPECT_TRUE(WaitStatus("\"held_records\":\t10"));
  agent.Results(true, 0);
  EXPECT_TRUE(WaitStatus("\"held_records\":\t0"));
  EXPECT_EQ(agent.Lines().size(), 10u);
  for (const std::string& strText : agent.Texts())
    EXPECT_EQ(CAgent::DataId(strText), CAgent::DataId(agent.Texts()[0])) << "a repeat has the same id";
}

TEST_F(LogCache, AgentThatRestarts_GetsWhatItHadAccepted) {
  m_log.Open("zxlogforward");
  ASSERT_TRUE(Start());
  {
    CAgent agent;
    agent.Results(false);
    Feed(0, 10);
    ASSERT_TRUE(agent.WaitLines(10));
  }
  Feed(10, 1);  // finds nobody, and so learns that the agent is gone
  ASSERT_TRUE(m_log.WaitFor("*zxrelay refused source[app]"));
  CAgent agent;
  EXPECT_TRUE(agent.WaitLines(11));
  EXPECT_TRUE(WaitStatus("\"held_records\":\t0"));
}

TEST_F(LogCache, StrangersResults_CountForNothing) {
  m_log.Open("zxlogforward");
  CAgent agent;
  agent.Results(false);
  ASSERT_TRUE(Start());
  Feed(0, 1);
  ASSERT_TRUE(agent.WaitCount(1));
  CAgent stranger(kOther);
  stranger.SendResult(CAgent::DataId(agent.Texts()[0]), 0);
  agent.SendResult(CAgent::DataId(agent.Texts()[0]) + 1000, 0);
  EXPECT_TRUE(WaitStatus("\"log_caches_under_way\":\t1"));
  EXPECT_TRUE(m_log.WaitFor("*zxlogforward refused: no upload result"));
  Stop();
  EXPECT_TRUE(Start());
  EXPECT_TRUE(agent.WaitCount(2)) << "it is still there";
}

TEST_F(LogCache, FullStore_DropsTheOldest_AndCounts) {
  m_home.MakeDir("data/zxlogcache");
  Configure(R"("max_record_bytes":65536,)", R"({"max_bytes":1048576})");
  ASSERT_TRUE(Start());
  const std::string strTail(10000, 'x');
  {
    std::ofstream file(m_home.Path("data/zxlogcache/app.log").Str());
    for (int i = 0; i < 300; ++i)
      file << "line-" << i << " " << strTail << "\n";
  }
  ASSERT_TRUE(EventuallyTrue([&] {
    std::ifstream file(m_home.Path("data/zxlogcache/status.json").Str());
    const std::string strAll((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return strAll.find("\"taken_records\":\t300") != std::string::npos &&
           strAll.find("\"dropped_records\":\t0,") == std::string::npos;
  }));
  CAgent agent;
  EXPECT_TRUE(EventuallyTrue([&] { return agent.Lines().count("line-299 " + strTail) == 1; }, 30000));
  EXPECT_TRUE(WaitStatus("\"held_records\":\t0"));
  EXPECT_LT(agent.Lines().size(), 150u);
}

TEST_F(LogCache, FullStore_ThatRefuses_LosesNothing) {
  m_home.MakeDir("data/zxlogcache");
  Configure(R"("max_record_bytes":65536,)", R"({"max_bytes":1048576,"when_full":"refuse"})");
  ASSERT_TRUE(Start());
  const std::string strTail(10000, 'x');
  {
    std::ofstream file(m_home.Path("data/zxlogcache/app.log").Str());
    for (int i = 0; i < 300; ++i)
      file << "line-" << i << " " << strTail << "\n";
  }
  EXPECT_TRUE(WaitStatus("\"takes_input\":\tfalse"));
  CAgent agent;
  EXPECT_TRUE(agent.WaitLines(300));
  EXPECT_TRUE(WaitStatus("\"takes_input\":\ttrue"));
  EXPECT_TRUE(WaitStatus("\"dropped_records\":\t0"));
  EXPECT_EQ(agent.Lines().size(), 300u);
}

TEST_F(LogCache, BadConfiguration_IsNamed_AndNothingStarts) {
  m_log.Open("zxlogforward");
  m_home.WriteFile("etc/zxlogcache.json", "{\"window\":0}");
  EXPECT_FALSE(Start());
  EXPECT_TRUE(m_log.Contains("error[window is no whole number in its range]"));
  m_home.Remove("etc/zxlogcache.json");
  EXPECT_FALSE(Start());
  EXPECT_TRUE(m_log.Contains("*zxlogforward cannot read its configuration"));
}

TEST_F(LogCache, StoreThatCannotBeMade_IsTriedAgain) {
  m_log.Open("zxlogforward");
  m_home.WriteFile("data", "in the way");
  ASSERT_TRUE(Start());
  ASSERT_TRUE(m_log.WaitFor("**zxlogforward cannot open its store"));
  m_home.Remove("data");
  CAgent agent;
  Feed(0, 3);
  EXPECT_TRUE(agent.WaitLines(3));
}

TEST_F(LogCache, ManyCycles_LeaveNothingBehind) {
  CAgent agent;
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(Start());
    Feed(i, 1);
    Stop();
  }
  ASSERT_TRUE(Start());
  EXPECT_TRUE(agent.WaitLines(20));
}

}  // namespace
