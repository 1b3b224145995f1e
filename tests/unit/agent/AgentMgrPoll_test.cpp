// The poll driver, with times given by the test.
#include "agent/ManagerFixture.h"

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class AgentMgrPoll : public CManagerTest {
 protected:
  static constexpr uint32_t kNow = 1700000000;
  static constexpr uint32_t kPass = 5;  // seconds between two passes

  // A configured channel; iType 2 is short-only mode.
  void Configure(int iType, int iPollerCycle = 60) {
    StoreTermConnect(iType, iPollerCycle);
    Load();
    ASSERT_EQ(m_mgr.InitZxcloud(0), 0u);
    ASSERT_TRUE(m_mgr.ZxcloudTconf("Scan,One,7"));
    m_log.Clear();
  }
  size_t Polls() const { return m_cloud.Count(ECloudCall::SendPollmsg); }
  // Passes every five seconds from dwFrom on until dwTo; the times at which a poll went out.
  std::vector<uint32_t> Run(uint32_t dwFrom, uint32_t dwTo) {
    std::vector<uint32_t> times;
    for (uint32_t dwNow = dwFrom; dwNow <= dwTo; dwNow += kPass) {
      const size_t uBefore = Polls();
      m_mgr.PollOnce(m_state, dwNow);
      if (Polls() != uBefore)
        times.push_back(dwNow);
    }
    return times;
  }
  size_t Lines(const char* pszPart) const { return m_log.Capture().Count(pszPart); }

  _PollState m_state;
};

TEST_F(AgentMgrPoll, Polls_AtOnce_AndThenOncePerCycle) {
  Configure(2);
  const std::vector<uint32_t> times = Run(kNow, kNow + 200);
  EXPECT_EQ(times, (std::vector<uint32_t>{kNow, kNow + 60, kNow + 120, kNow + 180}));
  EXPECT_EQ(m_state.u64Count, 4u);
  EXPECT_EQ(m_state.u64CountError, 0u);
}

TEST_F(AgentMgrPoll, Polls_AtMostOnePassLate_WhenTheCycleIsNoMultiple) {
  Configure(2, 62);
  const std::vector<uint32_t> times = Run(kNow, kNow + 600);
  ASSERT_GT(times.size(), 5u);
  for (size_t i = 1; i < times.size(); ++i) {
    EXPECT_GE(times[i] - times[i - 1], 62u);
    EXPECT_LE(times[i] - times[i - 1], 62u + kPass);
  }
}

TEST_F(AgentMgrPoll, Polls_AfterACycle_WhenTheConfigurationArrivesWithLongConnections) {
  StoreTermConnect(0, 60);
  Load();
  EXPECT_THAT(Run(kNow, kNow + 100), IsEmpty());  // no configuration yet
  ASSERT_TRUE(m_mgr.ZxcloudTconf("Scan,One,7"));
  EXPECT_EQ(Run(kNow + 105, kNow + 170), (std::vector<uint32_t>{kNow + 160}));
}

TEST_F(AgentMgrPoll, Polls_AtOnce_WhenTheConfigurationArrivesInShortOnlyMode) {
  StoreTermConnect(2, 60);
  Load();
  EXPECT_THAT(Run(kNow, kNow + 100), IsEmpty());
  ASSERT_TRUE(m_mgr.ZxcloudTconf("Scan,One,7"));
  EXPECT_EQ(Run(kNow + 105, kNow + 110), (std::vector<uint32_t>{kNow + 105}));
}

TEST_F(AgentMgrPoll, LongConnection_PausesPolling_AndItsEndStartsACycle) {
  Configure(0);
  ASSERT_TRUE(m_mgr.ZxcloudConnect("10.0.0.1", 443, 0));
  EXPECT_THAT(Run(kNow, kNow + 300), IsEmpty());
  EXPECT_GE(Lines("zxagent CAgentMgr::PollMsgThread long connect i["), 5u);
  ASSERT_TRUE(m_mgr.ZxcloudDisconnect());
  EXPECT_EQ(Run(kNow + 305, kNow + 370), (std::vector<uint32_t>{kNow + 360}));
}

TEST_F(AgentMgrPoll, LongConnection_DoesNotPauseShortOnlyMode) {
  Configure(2);
  ASSERT_TRUE(m_mgr.ZxcloudConnect("10.0.0.1", 443, 0));
  EXPECT_THAT(Run(kNow, kNow + 60), SizeIs(2));
}

TEST_F(AgentMgrPoll, ClockThatGoesBack_CostsOneCycle) {
  Configure(2);
  EXPECT_THAT(Run(kNow, kNow), SizeIs(1));
  EXPECT_THAT(Run(kNow - 5000, kNow - 5000), IsEmpty());
  EXPECT_EQ(Lines("zxagent CAgentMgr::PollMsgThread time error dwTimeNow["), 1u);
  EXPECT_EQ(Run(kNow - 4995, kNow - 4930), (std::vector<uint32_t>{kNow - 4940}));
}

TEST_F(AgentMgrPoll, TimesNearTheEndOf32Bits_DoNotWrap) {
  Configure(2);
  const uint32_t dwLate = 0xFFFFFFF0u;
  m_mgr.PollOnce(m_state, dwLate);
  EXPECT_EQ(Polls(), 1u);
  m_mgr.PollOnce(m_state, dwLate + 5);
  EXPECT_EQ(Polls(), 1u);
}

TEST_F(AgentMgrPoll, FivePollsThatFail_RebuildAShortOnlyChannel) {
  Configure(2);
  m_cloud.SetResult(ECloudCall::SendPollmsg, 0xC0010004);
  EXPECT_THAT(Run(kNow, kNow + 239), SizeIs(4));
  EXPECT_EQ(m_cloud.Count(ECloudCall::Uninit), 0u);
  EXPECT_THAT(Run(kNow + 240, kNow + 240), SizeIs(1));
  EXPECT_EQ(m_cloud.Count(ECloudCall::Uninit), 1u);
  EXPECT_EQ(m_cloud.Count(ECloudCall::Init), 2u);
  EXPECT_THAT(Broadcasts(1001), SizeIs(1));
  EXPECT_EQ(m_state.u64CountError, 5u);
  EXPECT_EQ(m_state.u64Count, 5u);
  // Nothing more until the new channel is configured, and then at once.
  m_cloud.SetResult(ECloudCall::SendPollmsg, 0);
  EXPECT_THAT(Run(kNow + 245, kNow + 600), IsEmpty());
  ASSERT_TRUE(m_mgr.ZxcloudTconf("Scan,One,7"));
  EXPECT_THAT(Run(kNow + 605, kNow + 605), SizeIs(1));
}

TEST_F(AgentMgrPoll, FivePollsThatFail_KeepAChannelWithLongConnections) {
  Configure(0);
  m_cloud.SetResult(ECloudCall::SendPollmsg, 1);
  EXPECT_THAT(Run(kNow, kNow + 600), SizeIs(11));
  EXPECT_EQ(m_cloud.Count(ECloudCall::Uninit), 0u);
  EXPECT_EQ(m_state.dwCycleError, 11u);
}

TEST_F(AgentMgrPoll, PollThatWorks_ForgetsTheFailures) {
  Configure(2);
  for (int i = 0; i < 3; ++i) {
    m_cloud.QueueResults(ECloudCall::SendPollmsg, {1, 1, 1, 1, 0});
  }
  EXPECT_THAT(Run(kNow, kNow + 14 * 60), SizeIs(15));
  EXPECT_EQ(m_state.u64CountError, 12u);
  EXPECT_EQ(m_cloud.Count(ECloudCall::Uninit), 0u);
}

TEST_F(AgentMgrPoll, Query_CarriesTheBusinessNumbers) {
  Configure(2);
  m_mgr.PollOnce(m_state, kNow);
  ASSERT_EQ(Polls(), 1u);
  EXPECT_THAT(m_cloud.Texts(ECloudCall::SendPollmsg)[0], HasSubstr("<mid>fake-mid</mid>"));
}

TEST_F(AgentMgrPoll, VerbosePoll_ComesFirst_AndThenOnceAnHour) {
  Configure(2);
  const char* pszVerbose = "zxagent CAgentMgr::PollMsgThread u64Count[";
  Run(kNow, kNow + 3595);
  EXPECT_EQ(Lines(pszVerbose), 1u);
  Run(kNow + 3600, kNow + 3660);
  EXPECT_EQ(Lines(pszVerbose), 2u);
}

TEST_F(AgentMgrPoll, VerbosePoll_IsNotLost_WhenTheClockGoesBack) {
  Configure(2);
  Run(kNow, kNow);
  const size_t uBefore = Lines("bPrint[1]");
  Run(kNow - 100000, kNow - 100000 + 3660);
  EXPECT_EQ(Lines("bPrint[1]"), uBefore + 1);
}

TEST_F(AgentMgrPoll, IdleLines_ComeEveryTwelfthPass) {
  Load();
  Run(kNow, kNow + 24 * kPass);
  EXPECT_EQ(Lines("zxagent CAgentMgr::PollMsgThread not recv tconf m_bIsOnlyShort[0] i["), 3u);
  EXPECT_EQ(m_state.i, 25u);
}

TEST_F(AgentMgrPoll, Thread_PollsInRealTime) {
  StoreTermConnect(2, 60);
  Prepare();
  m_cloud.SetHook(ECloudCall::Getopt, [this](const _CloudCall&) {
    m_mgr.ZxcloudTconf("Scan,One,7");  // the configuration is there before the thread is
    return 0u;
  });
  ASSERT_TRUE(m_mgr.Start());
  EXPECT_TRUE(m_cloud.WaitCount(ECloudCall::SendPollmsg, 1));
}
