// The host object: served, called, refused; and the figures.
#include <unistd.h>

#include "DbusFixture.h"

namespace {

uint32_t Serve(const ZxBusHostCall* pCall, void* pContext) {
  ++*static_cast<std::atomic<int>*>(pContext);
  const std::string strMethod = pCall->pszMethod;
  if (strMethod == "echo") {
    ZxBusHostAnswer(pCall, pCall->pszJson);
    return 0;
  }
  if (strMethod == "who") {
    ZxBusHostAnswer(pCall, (std::to_string(pCall->uiUid) + " " + std::to_string(pCall->uiPid)).c_str());
    return 0;
  }
  if (strMethod == "fail") {
    ZxBusHostAnswer(pCall, "the disk is full");
    return 0xE0010001;
  }
  return kBusErrNoReceiver;
}

class DbusHostTest : public DbusTest {
 protected:
  ~DbusHostTest() override { ZxBusServeHost(nullptr, nullptr); }

  uint32_t Call(const char* pszMethod, const char* pszJson) {
    char* pszAnswer = nullptr;
    const uint32_t uiResult =
        ZxBusCallHost(m_daemon.Address().c_str(), pszMethod, pszJson, &pszAnswer, 20000);
    m_strAnswer = pszAnswer != nullptr ? pszAnswer : "";
    ZxBusFree(pszAnswer);
    return uiResult;
  }

  std::atomic<int> m_iCalls{0};
  std::string m_strAnswer;
};

TEST_F(DbusHostTest, AnswersWithWhatTheHostSays) {
  ASSERT_EQ(ZxBusServeHost(&Serve, &m_iCalls), 0u);
  Begin();
  ASSERT_EQ(Call("echo", "{\"a\":1}"), 0u);
  EXPECT_EQ(m_strAnswer, "{\"a\":1}");
  ASSERT_EQ(Call("who", "{}"), 0u);
  EXPECT_EQ(m_strAnswer, std::to_string(getuid()) + " " + std::to_string(getpid()));
}

TEST_F(DbusHostTest, ServesOnceConnectedToo) {
  Begin();
  EXPECT_EQ(Call("echo", "{}"), uint32_t{kBusErrNoTarget});
  ASSERT_EQ(ZxBusServeHost(&Serve, &m_iCalls), 0u);
  EXPECT_TRUE(EventuallyTrue([&] { return Call("echo", "{}") == 0; }));
  ASSERT_EQ(ZxBusServeHost(nullptr, nullptr), 0u);
  EXPECT_TRUE(EventuallyTrue([&] { return Call("echo", "{}") == kBusErrNoTarget; }));
}

TEST_F(DbusHostTest, AFailureHasItsReason) {
  ASSERT_EQ(ZxBusServeHost(&Serve, &m_iCalls), 0u);
  Begin();
  EXPECT_EQ(Call("fail", "{}"), uint32_t{kBusErrNoReply});
  EXPECT_EQ(m_strAnswer, "the disk is full");
  EXPECT_EQ(Call("nothing", "{}"), uint32_t{kBusErrNoReceiver});
}

TEST_F(DbusHostTest, AnotherUserIsRefused) {
  if (getuid() != 0)
    GTEST_SKIP() << "needs root to become another user";
  ASSERT_EQ(ZxBusServeHost(&Serve, &m_iCalls), 0u);
  Begin();
  constexpr uid_t kDaemonUid = 1;
  CChild caller({"busctl", "--address=" + m_daemon.Address(), "call", "com.zxagent.bus1.host",
                 "/com/zxagent/bus1/host", "com.zxagent.bus1.Host", "Call", "ss", "echo", "{}"},
                kDaemonUid);
  EXPECT_NE(caller.Wait(), 0);
  EXPECT_EQ(m_iCalls, 0);
}

TEST_F(DbusHostTest, NobodyThere) {
  char* pszAnswer = nullptr;
  EXPECT_EQ(ZxBusCallHost("unix:path=/nonexistent/bus", "echo", "{}", &pszAnswer, 1000),
            uint32_t{kBusErrGone});
  EXPECT_NE(pszAnswer, nullptr);
  ZxBusFree(pszAnswer);
}

TEST_F(DbusHostTest, FiguresNameComponentsAndPeers) {
  Begin();
  CComponent own;
  const GUID guidPeer = NewGuid();
  const auto peer = MakePeer(guidPeer);
  EXPECT_TRUE(EventuallyTrue([&] {
    return Stats().find("\"pid\":" + std::to_string(peer->Pid())) != std::string::npos;
  })) << Stats();
  EXPECT_NE(Stats().find("{\"guid\":\"" + TextOf(own.Guid()) + "\",\"queued\":0"), std::string::npos)
      << Stats();
  EXPECT_NE(Stats().find("{\"guid\":\"" + TextOf(guidPeer) + "\",\"unique_name\":\":1."), std::string::npos);
}

}  // namespace
