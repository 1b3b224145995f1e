// The long connection against a real broker over TLS.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "CloudFixture.h"
#include "support/Waiter.h"

namespace {

using Messages = std::vector<CTestSubscriber::_Message>;

class CLongConnection : public CCloudFixture {
 protected:
  CLongConnection() : m_broker(m_home.Path("broker/").Str(), m_cert), m_https(&m_cert) {}

  void Connect(const std::string& strLong) {
    ServeTconf(m_https, "", strLong);
    WriteConfig(m_https.Address());
    ASSERT_EQ(Init(), 0u);
    ASSERT_TRUE(m_events.Wait("connect")) << ::testing::PrintToString(m_events.Events());
  }
  void Connect() { Connect(Local(m_broker.TlsPort())); }

  static uint32_t SendSync(const std::string& strText, int iPriority, int iMs) {
    return zxcloud_send_sync(strText.data(), static_cast<int>(strText.size()), iPriority, iMs);
  }

  CTestBroker m_broker;
  CTestHttps m_https;
};

TEST_F(CLongConnection, Init_ReportsAddressesTconfAndConnect_InThatOrder) {
  Connect("localhost:" + std::to_string(m_broker.TlsPort()));
  std::vector<std::string> list;
  for (const std::string& strEvent : m_events.Events()) {
    if (strEvent.compare(0, 3, "log") != 0 && strEvent.compare(0, 6, "data 1") != 0)
      list.push_back(strEvent);
  }
  const std::string strPort = std::to_string(m_broker.TlsPort());
  ASSERT_EQ(list.size(), 4u);
  EXPECT_EQ(list[0], "data 3 " + m_https.Address());
  EXPECT_EQ(list[1], "tconf 2 veltcwpp,zxpmaint,7");
  EXPECT_THAT(list[2], ::testing::MatchesRegex("data 2 127\\.0\\.0\\.1:[0-9]+;127\\.0\\.0\\.1:" + strPort));
  EXPECT_EQ(list[3], "connect 127.0.0.1 " + strPort);
  ASSERT_TRUE(m_events.Wait("data 1"));
  EXPECT_THAT(m_events.Events("data 1")[0],
              ::testing::MatchesRegex("data 1 127\\.0\\.0\\.1:[0-9]+;" + m_https.Address()));

  const _TestRequest request = m_https.Requests("/v1/tconf").at(0);
  EXPECT_EQ(request.query.at("v"), "1");
  EXPECT_EQ(request.query.at("mid"), "m-1");
  EXPECT_EQ(request.query.at("m2"), "second");
  EXPECT_EQ(request.query.at("pid"), "channel 9");
  EXPECT_EQ(request.query.at("platid"), "3");
  EXPECT_EQ(request.query.at("localip"), "fe80::1");
  EXPECT_EQ(request.headers.at("x-zx-mid"), "m-1");
  EXPECT_EQ(Option("link"), "up");
}

TEST_F(CLongConnection, Push_ReachesTheCallback_WithItsNumberAndBytes) {
  Connect();
  CTestSubscriber cloud(m_broker.PlainPort(), "none");
  cloud.Publish("zx/v1/m-1/push/7", "{\"ID\":\"1\"}");
  ASSERT_TRUE(m_events.Wait("push"));
  EXPECT_EQ(m_events.Events("push")[0], "push 7 {\"ID\":\"1\"}");
}

TEST_F(CLongConnection, Push_IsRefused_WhenNumberOrBytesAreNotACommand) {
  Connect();
  CTestSubscriber cloud(m_broker.PlainPort(), "none");
  cloud.Publish("zx/v1/m-1/push/1234567890", "too many digits");
  cloud.Publish("zx/v1/m-1/push/x", "no number");
  cloud.Publish("zx/v1/m-1/push/8", std::string("a\0b", 3));
  cloud.Publish("zx/v1/m-1/push/8", std::string((1u << 20) + 1, 'x'));
  cloud.Publish("zx/v1/m-1/push/9", "good");
  ASSERT_TRUE(m_events.Wait("push"));
  EXPECT_EQ(m_events.Events("push"), std::vector<std::string>{"push 9 good"});
  EXPECT_EQ(m_events.Events("log 2 *zxcloud push refused").size(), 4u);
}

TEST_F(CLongConnection, Send_ReachesTheCloud_WithTopicIdAndBytes) {
  Connect();
  CTestSubscriber cloud(m_broker.PlainPort(), "zx/v1/+/up/+");
  EXPECT_EQ(zxcloud_send("non-blocking", 12, 12), 0u);
  EXPECT_EQ(SendSync(std::string("blo\0cking", 9), 0, 5000), 0u);
  ASSERT_TRUE(cloud.Wait([](const Messages& list) { return list.size() >= 2; }));
  cloud.Wait([](const Messages& list) {
    std::map<std::string, std::string> mapSeen;
    for (const auto& message : list) {
      EXPECT_THAT(message.strPayload.substr(0, 23), ::testing::MatchesRegex("zx1 [0-9a-f]{16}-[0-9a-f]\n"));
      mapSeen[message.strTopic] = message.strPayload.substr(23);
    }
    EXPECT_EQ(mapSeen["zx/v1/m-1/up/12"], "non-blocking");
    EXPECT_EQ(mapSeen["zx/v1/m-1/up/0"], std::string("blo\0cking", 9));
    return true;
  });
}

TEST_F(CLongConnection, Status_IsRetainedOnlineAndTurnsOffline_WhenTheLibraryStops) {
  Connect();
  CTestSubscriber cloud(m_broker.PlainPort(), "zx/v1/m-1/status");
  ASSERT_TRUE(cloud.Wait([](const Messages& list) { return !list.empty() && list[0].bRetained; }));
  EXPECT_EQ(zxcloud_uninit(), 0u);
  ASSERT_TRUE(cloud.Wait([](const Messages& list) { return list.size() >= 2; }));
  cloud.Wait([](const Messages& list) {
    EXPECT_EQ(list[0].strPayload, "{\"online\":1}");
    EXPECT_EQ(list[1].strPayload, "{\"online\":0}");
    return true;
  });
  EXPECT_TRUE(m_events.Events("disconnect").empty());
}

TEST_F(CLongConnection, SendSync_32AtATimeAllAcknowledged) {
  Connect();
  CTestSubscriber cloud(m_broker.PlainPort(), "zx/v1/+/up/+");
  std::atomic<uint32_t> uFailed{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 32; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 20; ++j)
        uFailed += SendSync(std::string(1000, 'x'), j % 4, 10000) != 0;
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(uFailed.load(), 0u);
  EXPECT_TRUE(cloud.Wait([](const Messages& list) { return list.size() == 640; }));
  EXPECT_EQ(Option("waiting"), "0");
}

TEST_F(CLongConnection, Send_FarMoreThanTheWindow_AllArrive) {
  Connect();
  CTestSubscriber cloud(m_broker.PlainPort(), "zx/v1/+/up/+");
  for (int i = 0; i < 300; ++i)
    ASSERT_EQ(zxcloud_send(std::string(50000, 'y').c_str(), 50000, 3), 0u);
  EXPECT_TRUE(cloud.Wait([](const Messages& list) { return list.size() == 300; }));
}

TEST_F(CLongConnection, Unacknowledged_IsSentAgain_WhenTheBrokerDiesAndReturns) {
  Connect();
  m_https.Answer("/v1/upload", [](const _TestRequest&) { return _TestReply{503, "", {}}; });
  m_broker.Freeze();
  std::atomic<uint32_t> uAcked{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] { uAcked += SendSync("kept", 1, 20000) == 0; });
  EXPECT_EQ(zxcloud_send("kept too", 8, 2), 0u);
  m_broker.Kill();
  ASSERT_TRUE(m_events.Wait("disconnect"));
  EXPECT_EQ(Option("link"), "down");
  m_broker.Start();
  ASSERT_TRUE(m_events.Wait("connect", 2, 20000));
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(uAcked.load(), 4u);
  EXPECT_TRUE(EventuallyTrue([&] { return Option("waiting") == "0"; }));
}

TEST_F(CLongConnection, Reconnects_WhenAForkedChildHoldsTheOldSocket) {
  Connect();
  const pid_t iChild = fork();
  if (iChild == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    while (true)
      pause();
  }
  for (size_t i = 2; i <= 3; ++i) {
    m_broker.Kill();
    m_broker.Start();
    EXPECT_TRUE(m_events.Wait("connect", i)) << i;
  }
  kill(iChild, SIGKILL);
  waitpid(iChild, nullptr, 0);
}

TEST_F(CLongConnection, SendSync_TimesOut_WhenNobodyAcknowledges) {
  Connect();
  m_broker.Freeze();
  EXPECT_EQ(SendSync("lost", 0, 200), kZxcloudErrTimeout);
}

TEST_F(CLongConnection, NextAddressIsTried_WhenTheFirstSendsNoConnack) {
  const CTestDumbServer dumb;
  const auto start = std::chrono::steady_clock::now();
  Connect(Local(dumb.Port()) + "," + Local(m_broker.TlsPort()));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(1900));
  EXPECT_LT(took, std::chrono::milliseconds(4500));
  EXPECT_EQ(m_events.Events("connect")[0], "connect 127.0.0.1 " + std::to_string(m_broker.TlsPort()));
}

TEST_F(CLongConnection, Connects_WhenTheBrokerStartsLater) {
  m_broker.Kill();
  ServeTconf(m_https, "", Local(m_broker.TlsPort()));
  WriteConfig(m_https.Address());
  ASSERT_EQ(Init(), 0u);
  ASSERT_TRUE(m_events.WaitLog("Connection refused"));
  m_broker.Start();
  EXPECT_TRUE(m_events.Wait("connect", 1, 20000));
}

TEST_F(CLongConnection, CloudtcpDisable_EndsTheConnection_WhileRunning) {
  Connect();
  EXPECT_EQ(zxcloud_setopt("localip=10.0.0.7"), 0u);
  EXPECT_EQ(Option("link"), "up");
  EXPECT_EQ(zxcloud_setopt("cloudtcp_disable=1"), 0u);
  EXPECT_TRUE(m_events.Wait("disconnect"));
  EXPECT_EQ(zxcloud_setopt("cloudtcp_disable=0"), 0u);
  EXPECT_TRUE(m_events.Wait("connect", 2));
}

TEST_F(CLongConnection, Mid_CountsFromTheNextConnection) {
  Connect();
  CTestSubscriber cloud(m_broker.PlainPort(), "none");
  EXPECT_EQ(zxcloud_setopt("mid=m-2"), 0u);
  cloud.Publish("zx/v1/m-1/push/1", "old");
  ASSERT_TRUE(m_events.Wait("push 1 old"));
  m_broker.Kill();
  m_broker.Start();
  ASSERT_TRUE(m_events.Wait("connect", 2));
  CTestSubscriber again(m_broker.PlainPort(), "none");
  again.Publish("zx/v1/m-2/push/1", "new");
  EXPECT_TRUE(m_events.Wait("push 1 new"));
}

TEST_F(CLongConnection, SendSync_LeavesNothingBehind_WhenItsThreadIsCancelled) {
  Connect();
  m_broker.Freeze();
  pthread_t hThread{};
  ASSERT_EQ(pthread_create(
                &hThread, nullptr,
                [](void*) -> void* {
                  SendSync("cancelled", 0, 60000);
                  return nullptr;
                },
                nullptr),
            0);
  m_https.Answer("/v1/upload", [](const _TestRequest&) { return _TestReply{503, "", {}}; });
  // Under way: it counts, but does not wait for its turn any more.
  ASSERT_TRUE(EventuallyTrue([this] { return Option("bytes") != "0" && Option("waiting") == "0"; }));
  ASSERT_EQ(zxcloud_send("marker", 6, 3), 0u);
  ASSERT_EQ(pthread_cancel(hThread), 0);
  void* pResult = nullptr;
  ASSERT_EQ(pthread_join(hThread, &pResult), 0);
  EXPECT_EQ(pResult, PTHREAD_CANCELED);
  m_broker.Kill();
  ASSERT_TRUE(m_events.Wait("disconnect"));
  EXPECT_TRUE(EventuallyTrue([this] { return Option("waiting") == "1"; }));  // the marker alone
}

TEST_F(CLongConnection, PlainText_IsUsedOnlyToLoopbackAndOnlyWhenAskedFor) {
  ServeTconf(m_https, "", "mqtt://" + Local(m_broker.PlainPort()));
  WriteConfig(m_https.Address());
  ASSERT_EQ(Init(), 0u);
  ASSERT_TRUE(m_events.WaitLog("no usable address in member long"));
  ASSERT_EQ(zxcloud_uninit(), 0u);
  EXPECT_TRUE(m_events.Events("connect").empty());
  WriteConfig(m_https.Address(), ",\"plaintext_loopback\":true");
  ASSERT_EQ(Init(), 0u);
  EXPECT_TRUE(m_events.Wait("connect"));
}

}  // namespace
