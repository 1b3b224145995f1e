// Connections that are spoilt on their way: frozen, cut, moved; and the two of a machine apart from each
// other.
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "CloudFixture.h"
#include "support/TcpProxy.h"
#include "support/Waiter.h"

namespace {

using Messages = std::vector<CTestSubscriber::_Message>;

constexpr int kPatientMs = 60000;
// In the order in which they come.
constexpr size_t kCommands = 0;
constexpr size_t kUploads = 1;

class CFaults : public CCloudFixture {
 protected:
  CFaults()
      : m_broker(m_home.Path("broker/").Str(), m_cert, true), m_proxy(m_broker.TlsPort()), m_https(&m_cert) {
    m_https.Answer("/v1/upload", [](const _TestRequest&) { return _TestReply{503, "", {}}; });
  }
  ~CFaults() override { JoinAll(); }

  void Connect(const std::string& strLong) {
    ServeTconf(m_https, "", strLong);
    WriteConfig(m_https.Address());
    ASSERT_EQ(Init(), 0u);
    ASSERT_TRUE(m_events.Wait("connect")) << ::testing::PrintToString(m_events.Events());
    ASSERT_TRUE(EventuallyTrue([this] { return Option("bulk") == "up"; }));
  }
  static uint32_t SendSync(const std::string& strText, int iPriority, int iMs = kPatientMs) {
    return zxcloud_send_sync(strText.data(), static_cast<int>(strText.size()), iPriority, iMs);
  }
  void SendAside(int iCount, size_t uBytes, int iPriority) {
    for (int i = 0; i < iCount; ++i) {
      m_threads.emplace_back([this, uBytes, iPriority] {
        m_uFailed += SendSync(std::string(uBytes, 'u'), iPriority) != 0;
        ++m_uEnded;
      });
    }
  }
  void JoinAll() {
    for (std::thread& thread : m_threads)
      thread.join();
    m_threads.clear();
  }
  void TearDown() override {
    zxcloud_uninit();  // releases who still waits
    JoinAll();
    CCloudFixture::TearDown();
  }

  CTestBroker m_broker;
  CTcpProxy m_proxy;
  CTestHttps m_https;
  std::vector<std::thread> m_threads;
  std::atomic<uint32_t> m_uFailed{0};
  std::atomic<uint32_t> m_uEnded{0};
};

TEST_F(CFaults, Commands_AreAnswered_WhileUploadsAreStuck) {
  Connect(Local(m_proxy.Port()));
  CTestSubscriber cloud(m_broker.PlainPort(), "zx/v1/m-1/up/2");
  m_proxy.Freeze(kUploads);
  SendAside(32, 100000, 0);  // more urgent than the reply, and stuck all the same
  ASSERT_TRUE(EventuallyTrue([this] { return Option("entries") == "32"; }));
  m_events.SetHook([](const std::string& strEvent) {
    if (strEvent == "push 7 question")
      zxcloud_send("answer", 6, 2);
  });
  for (size_t i = 1; i <= 5; ++i) {
    cloud.Publish("zx/v1/m-1/push/7", "question");
    EXPECT_TRUE(cloud.Wait([&](const Messages& list) { return list.size() == i; })) << i;
  }
  EXPECT_EQ(SendSync("small", 3), 0u);
  EXPECT_EQ(m_uEnded.load(), 0u);  // every upload is still under way
  m_proxy.Thaw();
  JoinAll();
  EXPECT_EQ(m_uFailed.load(), 0u);
}

TEST_F(CFaults, UploadConnection_LostAlone_ComesBackUnnoticed) {
  Connect(Local(m_proxy.Port()));
  CTestSubscriber cloud(m_broker.PlainPort(), "zx/v1/m-1/up/1");
  m_proxy.Freeze(kUploads);
  SendAside(8, 50000, 1);
  ASSERT_TRUE(EventuallyTrue([this] { return Option("entries") == "8"; }));
  m_proxy.Cut(kUploads);
  JoinAll();
  EXPECT_EQ(m_uFailed.load(), 0u);
  EXPECT_TRUE(m_events.Events("disconnect").empty());
  EXPECT_EQ(m_events.Events("connect").size(), 1u);
  EXPECT_EQ(Option("reconnects"), "0");
  // Each at least once, with as many ids as there were messages.
  std::set<std::string> setIds;
  EXPECT_TRUE(cloud.Wait([&setIds](const Messages& list) {
    for (const auto& message : list)
      setIds.insert(message.strPayload.substr(0, message.strPayload.find('\n')));
    return setIds.size() >= 8;
  }));
  EXPECT_EQ(setIds.size(), 8u);
}

TEST_F(CFaults, UploadConnection_ThatCannotBeMade_IsDoneWithout) {
  Connect(Local(m_proxy.Port()));
  m_proxy.Refuse(true);
  m_proxy.Cut(kUploads);
  EXPECT_EQ(SendSync(std::string(100000, 'u'), 1), 0u);
  EXPECT_EQ(Option("bulk"), "down");
  EXPECT_TRUE(m_events.WaitLog("uploads go with the commands"));
  EXPECT_EQ(Option("link"), "up");
  m_proxy.Refuse(false);
  EXPECT_TRUE(m_events.WaitLog("upload connection up again", kPatientMs));
  EXPECT_EQ(SendSync(std::string(100000, 'u'), 1), 0u);
  EXPECT_TRUE(m_events.Events("disconnect").empty());
}

TEST_F(CFaults, HalfOpen_IsNoticedWithinAMinute_AndCallersGetTheirAnswer) {
  Connect(Local(m_proxy.Port()) + "," + Local(m_broker.TlsPort()));
  m_proxy.FreezeAll();
  SendAside(4, 100, 1);
  SendAside(4, 100000, 1);
  EXPECT_EQ(SendSync("impatient", 1, 500), kZxcloudErrTimeout);
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(m_events.Wait("disconnect", 1, kPatientMs));
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  std::printf("a frozen link was noticed after %.1f s\n", took.count());
  JoinAll();
  EXPECT_EQ(m_uFailed.load(), 0u);
  EXPECT_EQ(Option("longaddr"), "127.0.0.1");  // up to the port
  EXPECT_EQ(m_events.Events("connect").back(), "connect 127.0.0.1 " + std::to_string(m_broker.TlsPort()));
}

TEST_F(CFaults, SlowLine_IsNotTakenForDead) {
  Connect(Local(m_proxy.Port()));
  m_proxy.Delay(300);
  SendAside(4, 300000, 1);
  SendAside(4, 100, 1);
  JoinAll();
  EXPECT_EQ(m_uFailed.load(), 0u);
  EXPECT_TRUE(m_events.Events("disconnect").empty());
}

TEST_F(CFaults, Failover_MovesBothConnections_ToTheOtherBroker) {
  CTestBroker other(m_home.Path("other/").Str(), m_cert);
  CTcpProxy otherProxy(other.TlsPort());
  Connect(Local(m_proxy.Port()) + "," + Local(otherProxy.Port()));
  m_broker.Freeze();
  SendAside(4, 100, 1);
  SendAside(4, 100000, 1);
  ASSERT_TRUE(EventuallyTrue([this] { return Option("entries") == "8"; }));
  m_broker.Kill();
  JoinAll();
  EXPECT_EQ(m_uFailed.load(), 0u);
  EXPECT_TRUE(EventuallyTrue([this] { return Option("bulk") == "up"; }));
  EXPECT_EQ(otherProxy.Open(), 2u);
  EXPECT_EQ(m_proxy.Open(), 0u);
  EXPECT_EQ(Option("reconnects"), "1");
  EXPECT_NE(Option("lasterror"), "(none)");
}

TEST_F(CFaults, Session_OutlivesTheBrokersRestart) {
  Connect(Local(m_proxy.Port()));
  m_proxy.Refuse(true);
  m_proxy.CutAll();
  ASSERT_TRUE(m_events.Wait("disconnect"));
  {
    CTestSubscriber cloud(m_broker.PlainPort(), "zx/v1/m-1/push/+");
    cloud.Publish("zx/v1/m-1/push/7", "while away");
    ASSERT_TRUE(cloud.Wait([](const Messages& list) { return list.size() == 1; }));
  }
  m_broker.Stop();
  m_broker.Start();
  m_proxy.Refuse(false);
  EXPECT_TRUE(m_events.Wait("push 7 while away", 1, kPatientMs));
}

TEST_F(CFaults, SilentServer_IsGivenUp_AndTakenAgainWhenItAnswers) {
  Connect(Local(m_proxy.Port()));
  m_proxy.FreezeAll();  // accepts from now on and never answers
  m_proxy.CutAll();
  ASSERT_TRUE(m_events.Wait("disconnect"));
  const size_t uBefore = m_proxy.Attempts();
  EXPECT_TRUE(m_events.WaitLog("connection given up", kPatientMs));
  EXPECT_TRUE(EventuallyTrue([&] { return m_proxy.Attempts() >= uBefore + 2; }, kPatientMs));
  EXPECT_THAT(Option("lasterror"), ::testing::HasSubstr("127.0.0.1"));
  m_proxy.Thaw();
  EXPECT_TRUE(m_events.Wait("connect", 2, kPatientMs));
  EXPECT_EQ(SendSync("after", 1), 0u);
}

}  // namespace
