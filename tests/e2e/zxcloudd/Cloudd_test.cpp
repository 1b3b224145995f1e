// The real zxcloudd with a real broker: long connection, polling, uploads, kills.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <memory>

#include "CloudRig.h"
#include "TestAgent.h"
#include "gmock/gmock.h"
#include "platform/os/ZxTime.h"
#include "support/Waiter.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const std::string kMid = "0123456789abcdef0123456789abcdef";

class CCloudd : public CCloudRig {
 protected:
  std::unique_ptr<CTestAgent> MakeAgent(const std::string& strMid = kMid) {
    return std::make_unique<CTestAgent>(strMid, m_iBrokerPort, Path("cert/ca.pem"));
  }
  static std::string Ack(const std::string& strID, int iMsgType) {
    return UploadText(kMid, "{\"ID\":\"" + strID + "\",\"msg_type\":\"" + std::to_string(iMsgType) + "\"}");
  }
};

TEST_F(CCloudd, Push_ReachesTheAgent_AndItsAcknowledgementIsRecognised) {
  StartCloud();
  const auto pAgent = MakeAgent();
  ASSERT_TRUE(pAgent->Connect());
  ASSERT_TRUE(Eventually([&] { return StatusNumber("agents", "online") == 1; }));
  const std::string strText = PushCommand(kMid, "demo-1");
  EXPECT_EQ(pAgent->WaitPush(strText), "zx/v1/" + kMid + "/push/1001");
  EXPECT_TRUE(Eventually([&] { return State("demo-1") == "pushed"; }));
  ASSERT_TRUE(pAgent->Upload("u-1", Ack("demo-1", 3)));
  EXPECT_TRUE(Eventually([&] { return State("demo-1") == "acked"; }));
  const std::string strTrace = Op("/op/v1/trace/demo-1").strBody;
  for (const char* psz : {"created", "published", "pushed", "acked", "\"msg_type\":3"})
    EXPECT_THAT(strTrace, HasSubstr(psz));
}

TEST_F(CCloudd, Push_WaitsForTheMachine_WhenItIsOffline) {
  StartCloud();
  {
    const auto pAgent = MakeAgent();
    ASSERT_TRUE(pAgent->Connect());
    ASSERT_TRUE(Eventually([&] { return StatusNumber("agents", "online") == 1; }));
    pAgent->Disconnect(true);
  }
  ASSERT_TRUE(Eventually([&] { return StatusNumber("agents", "online") == 0; }));
  const std::string strText = PushCommand(kMid, "later", "push");
  EXPECT_EQ(State("later"), "queued");
  const auto pAgent = MakeAgent();
  ASSERT_TRUE(pAgent->Connect());
  EXPECT_NE(pAgent->WaitPush(strText), "");
  EXPECT_TRUE(Eventually([&] { return State("later") == "pushed"; }));
  EXPECT_EQ(pAgent->Pushes(strText), 1u);
}

TEST_F(CCloudd, Push_ManyCommands_ArriveOnceInOrderOfTheWindow) {
  StartCloud();
  const auto pAgent = MakeAgent();
  ASSERT_TRUE(pAgent->Connect());
  ASSERT_TRUE(Eventually([&] { return StatusNumber("agents", "online") == 1; }));
  std::vector<std::string> listTexts;
  for (int i = 0; i < 200; ++i)
    listTexts.push_back(PushCommand(kMid, "n" + std::to_string(i)));
  for (const std::string& strText : listTexts)
    ASSERT_NE(pAgent->WaitPush(strText), "") << strText;
  EXPECT_TRUE(Eventually([&] { return StatusNumber("commands", "pushed") == 200; }));
  for (const std::string& strText : listTexts)
    EXPECT_EQ(pAgent->Pushes(strText), 1u);
}

TEST_F(CCloudd, Will_MarksTheMachineOffline_WhenItDies) {
  StartCloud();
  const auto pAgent = MakeAgent();
  ASSERT_TRUE(pAgent->Connect());
  ASSERT_TRUE(Eventually([&] { return StatusNumber("agents", "online") == 1; }));
  ASSERT_TRUE(pAgent->Publish("status", "{\"online\":0}", true));
  EXPECT_TRUE(Eventually([&] { return StatusNumber("agents", "online") == 0; }));
}

TEST_F(CCloudd, Upload_SameIdTwice_IsStoredOnce_OnBothWays) {
  StartCloud();
  const auto pAgent = MakeAgent();
  ASSERT_TRUE(pAgent->Connect());
  EXPECT_EQ(Upload(kMid, "u-1", UploadText(kMid, "x")).iStatus, 200);
  EXPECT_EQ(Upload(kMid, "u-1", UploadText(kMid, "x")).iStatus, 200);
  ASSERT_TRUE(pAgent->Upload("u-1", UploadText(kMid, "x")));
  ASSERT_TRUE(pAgent->Upload("u-2", UploadText(kMid, "y")));
  EXPECT_TRUE(Eventually([&] { return StatusNumber("uploads", "received") == 2; }));
  EXPECT_EQ(StatusNumber("uploads", "repeats"), 2);
}

TEST_F(CCloudd, Poll_OffersAgainUntilAcknowledged) {
  StartCloud();
  bool bOk = false;
  EXPECT_TRUE(Poll(kMid, bOk).empty());
  ASSERT_TRUE(bOk);
  const std::string strText = PushCommand(kMid, "p-1", "poll");
  EXPECT_THAT(Poll(kMid, bOk), ElementsAre(strText));
  EXPECT_TRUE(Poll(kMid, bOk).empty()) << "not again before the interval is over";
  EXPECT_TRUE(Eventually([&] { return Poll(kMid, bOk).size() == 1; }));
  EXPECT_EQ(Upload(kMid, "u-1", Ack("p-1", 4)).iStatus, 200);
  EXPECT_EQ(State("p-1"), "refused");
}

TEST_F(CCloudd, Kill_LosesNoUploadThatWasAcknowledged) {
  StartCloud();
  const auto pAgent = MakeAgent();
  ASSERT_TRUE(pAgent->Connect());
  ASSERT_TRUE(Eventually([&] { return StatusNumber("agents", "online") == 1; }));
  // Over the broker: whatever it acknowledged must arrive, however often the cloud dies.
  int iSent = 0;
  for (int iRound = 0; iRound < 3; ++iRound) {
    for (int i = 0; i < 40; ++i, ++iSent) {
      ASSERT_TRUE(pAgent->Upload("m-" + std::to_string(iSent), UploadText(kMid, "x")));
      if (i == 15)
        m_cloud.Stop(SIGKILL);
    }
    StartCloud();
  }
  EXPECT_TRUE(Eventually([&] { return StatusNumber("uploads", "received") == iSent; }))
      << StatusNumber("uploads", "received") << " of " << iSent;
  // Over HTTPS: a 200 means that it is on disk.
  for (int i = 0; i < 20; ++i)
    ASSERT_EQ(Upload(kMid, "h-" + std::to_string(i), UploadText(kMid, "x")).iStatus, 200);
  m_cloud.Stop(SIGKILL);
  StartCloud();
  EXPECT_EQ(StatusNumber("uploads", "received"), iSent + 20);
}

TEST_F(CCloudd, Kill_CommandsThatTheBrokerDidNotAcknowledge_GoOutAgain) {
  StartCloud();
  {
    const auto pAgent = MakeAgent();
    ASSERT_TRUE(pAgent->Connect());
    ASSERT_TRUE(Eventually([&] { return StatusNumber("agents", "online") == 1; }));
    pAgent->Disconnect(true);
    ASSERT_TRUE(Eventually([&] { return StatusNumber("agents", "online") == 0; }));
  }
  const std::string strText = PushCommand(kMid, "k-1");
  m_cloud.Stop(SIGKILL);
  StartCloud();
  const auto pAgent = MakeAgent();
  ASSERT_TRUE(pAgent->Connect());
  EXPECT_NE(pAgent->WaitPush(strText), "");
}

TEST_F(CCloudd, FullDisk_LeavesUploadsUnacknowledged_UntilThereIsRoom) {
  StartCloud(1 << 30);  // with the signal of a passed limit ignored, so that writing fails
  const auto pAgent = MakeAgent();
  ASSERT_TRUE(pAgent->Connect());
  ASSERT_TRUE(Eventually([&] { return StatusNumber("agents", "online") == 1; }));
  const auto limitFiles = [&](rlim_t uBytes) {
    const rlimit limit{uBytes, RLIM_INFINITY};
    return prlimit(m_cloud.Pid(), RLIMIT_FSIZE, &limit, nullptr) == 0;
  };
  ASSERT_TRUE(limitFiles(4096));
  for (int i = 0; i < 20; ++i)
    ASSERT_TRUE(pAgent->Upload("m-" + std::to_string(i), UploadText(kMid, "x")));
  EXPECT_EQ(Upload(kMid, "h-1", UploadText(kMid, "x")).iStatus, 503);
  EXPECT_EQ(Https({"/v1/health", nullptr, {}, "", "", ""}).iStatus, 503);
  EXPECT_EQ(StatusNumber("uploads", "received"), 0);
  ASSERT_TRUE(limitFiles(RLIM_INFINITY));
  EXPECT_TRUE(Eventually([&] { return StatusNumber("uploads", "received") == 20; }))
      << StatusNumber("uploads", "received") << " of 20";
  EXPECT_EQ(Upload(kMid, "h-1", UploadText(kMid, "x")).iStatus, 200);
  EXPECT_EQ(Https({"/v1/health", nullptr, {}, "", "", ""}).iStatus, 200);
}

TEST_F(CCloudd, Broker_GoesAndComesBack) {
  StartCloud();
  bool bOk = false;
  EXPECT_TRUE(Poll(kMid, bOk).empty());
  m_broker.Stop(SIGKILL);
  ASSERT_TRUE(Eventually(
      [&] { return Op("/op/v1/status").strBody.find("\"broker_connected\":false") != std::string::npos; }));
  const std::string strText = PushCommand(kMid, "b-1");
  StartBroker();
  const auto pAgent = MakeAgent();
  ASSERT_TRUE(pAgent->Connect());
  EXPECT_NE(pAgent->WaitPush(strText), "");
}

TEST_F(CCloudd, Broker_MayBeAwayAtStart) {
  m_broker.Stop(SIGTERM);
  StartCloud();
  EXPECT_EQ(Upload(kMid, "u-1", UploadText(kMid, "x")).iStatus, 200);
  StartBroker();
  EXPECT_TRUE(Eventually(
      [&] { return Op("/op/v1/status").strBody.find("\"broker_connected\":true") != std::string::npos; }));
}

TEST_F(CCloudd, Confirm_TellsTheMachineWhatIsOnDisk) {
  m_strTconfExtra = ",\"confirm\":true";
  WriteConfig();
  StartCloud();
  const auto pAgent = MakeAgent();
  ASSERT_TRUE(pAgent->Connect());
  ASSERT_TRUE(pAgent->Upload("u-1", UploadText(kMid, "x")));
  EXPECT_EQ(pAgent->WaitPush("zx1\n+u-1\n"), "zx/v1/" + kMid + "/ack");
  EXPECT_EQ(StatusNumber("uploads", "received"), 1);
  ASSERT_TRUE(pAgent->Upload("u-2", "rubbish"));
  EXPECT_NE(pAgent->WaitPush("zx1\n-u-2\n"), "");
  ASSERT_TRUE(pAgent->Upload("u-1", UploadText(kMid, "x")));
  EXPECT_TRUE(Eventually([&] { return pAgent->Pushes("zx1\n+u-1\n") == 2; }))
      << "a repeat is confirmed again";
}

TEST_F(CCloudd, BrokerByName_EveryAddressOfItIsTried_AndTheNameIsChecked) {
  m_strBrokerHost = "localhost";  // often ::1 first, where nobody listens
  WriteConfig();
  StartCloud();
  m_cloud.Stop(SIGTERM);
  m_broker.Stop(SIGTERM);
  MakeCert("server", "other", "IP:127.0.0.1,DNS:other");
  StartBroker();
  m_home.Remove("cloud.log");
  m_home.Remove("state/zxcloudd.json");
  ASSERT_TRUE(m_cloud.Start({ZXCLOUDD_BINARY, "--config", Path("cloud.json")}, Path("cloud.log")));
  EXPECT_TRUE(Eventually([&] {
    return m_home.Exists("cloud.log") &&
           m_home.ReadFile("cloud.log").Str().find("certificate refused: hostname mismatch") !=
               std::string::npos;
  }));
  EXPECT_EQ(m_home.ReadFile("cloud.log").Str().find("broker connected"), std::string::npos);
}

// The broker's address takes connections up to its backlog and then none, as a firewall that drops them.
TEST_F(CCloudd, Term_EndsAtOnce_WhileTheBrokerDoesNotAnswer) {
  m_broker.Stop(SIGTERM);
  CSilentPort silent;
  const int iOwn = PortAttempts(silent.Port());
  m_iBrokerPort = silent.Port();
  WriteConfig();
  StartCloud();
  ASSERT_TRUE(Eventually([&] { return PortAttempts(silent.Port()) > iOwn; }));
  const uint64_t u64Start = ZxGetTickCount();
  const int iStatus = m_cloud.Stop(SIGTERM);
  EXPECT_TRUE(WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == 0);
  EXPECT_LT(ZxGetTickCount() - u64Start, kE2eDeadlineMs / 2);
}

TEST_F(CCloudd, Term_EndsCleanly) {
  StartCloud();
  EXPECT_EQ(m_home.Mode("state/operator.token"), 0600u);
  const std::string strToken = m_strToken;
  const int iStatus = m_cloud.Stop(SIGTERM);
  EXPECT_TRUE(WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == 0);
  EXPECT_FALSE(m_home.Exists("state/zxcloudd.json"));
  StartCloud();
  EXPECT_EQ(m_strToken, strToken);
}

}  // namespace
