// The cloud library's callbacks: what they queue, drop and log, with and without a manager.
#include "agent/ManagerFixture.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class AgentMgrCallbacks : public CManagerTest {
 protected:
  void SetUp() override {
    Load();
    ASSERT_EQ(m_mgr.InitZxcloud(0), 0u);
    m_log.Clear();
  }
  size_t Queued() const { return m_log.Capture().Count("AddZxcloudCallbackData ZxMsgQueueInsert OK"); }
  // Handles what the callbacks queued, on this thread.
  bool WasQueued(uint32_t dwMessage, int iFlag, int iLength) const {
    return Logged("ZxMsgQueueInsert OK iLength[" + std::to_string(iLength) + "] dwMessage[" +
                  std::to_string(dwMessage) + "] dwFlag[" + std::to_string(iFlag) + "]");
  }
};

TEST_F(AgentMgrCallbacks, Record_CarriesThePathTheChannelAndSevenCallbacks) {
  EXPECT_EQ(m_cloud.ConfigPath(), m_home.Path("etc/zxagent/inner/zxagent.json").Str());
  EXPECT_EQ(m_cloud.ChannelId(), "h_home");
  const zxcloud_record record = m_cloud.Record();
  EXPECT_EQ(record.push, &CAgentMgr::ZxcloudPushmsgCallback);
  EXPECT_EQ(record.tconf, &CAgentMgr::ZxcloudTconfCallback);
  EXPECT_EQ(record.connect, &CAgentMgr::ZxcloudConnectCallback);
  EXPECT_EQ(record.disconnect, &CAgentMgr::ZxcloudDisconnectCallback);
  EXPECT_EQ(record.log, &CAgentMgr::ZxcloudLogCallback);
  EXPECT_EQ(record.poll, &CAgentMgr::ZxcloudPollmsgCallback);
  EXPECT_EQ(record.data, &CAgentMgr::ZxcloudDataCallback);
}

TEST_F(AgentMgrCallbacks, Push_QueuesTheText_UnderItsBusinessNumber) {
  EXPECT_EQ(m_cloud.FirePush(1001, "{\"ID\":\"1\"}"), 0);
  EXPECT_TRUE(WasQueued(kWorkPushmsg, 1001, 10));
  EXPECT_THAT(MainLines()[0], HasSubstr("zxagent ZxcloudPushmsgCallback recv iPcid[1001] pszMsg[0x"));
  EXPECT_THAT(MainLines()[0], EndsWith("[{\"ID\":\"1\"}]"));
}

TEST_F(AgentMgrCallbacks, Push_OfNull_IsQueuedAndNamedNull) {
  EXPECT_EQ(m_cloud.FirePush(1001, nullptr), 0);
  EXPECT_EQ(Queued(), 1u);
  EXPECT_THAT(MainLines()[0], EndsWith("[null]"));
}

TEST_F(AgentMgrCallbacks, Tconf_QueuesFlagTwoOnly) {
  EXPECT_EQ(m_cloud.FireTconf(1, "Scan,One,7"), 0);
  EXPECT_EQ(m_cloud.FireTconf(3, "Scan,One,7"), 0);
  EXPECT_EQ(m_cloud.FireTconf(0, nullptr), 0);
  EXPECT_EQ(Queued(), 0u);
  EXPECT_TRUE(Logged("zxagent ZxcloudTconfCallback not pcid iFlag[1] pszTconfArg[Scan,One,7]"));
  EXPECT_TRUE(Logged("zxagent ZxcloudTconfCallback not pcid iFlag[0] pszTconfArg[null]"));
  EXPECT_EQ(m_cloud.FireTconf(2, "Scan,One,7"), 0);
  EXPECT_TRUE(WasQueued(kWorkTconf, 0, 10));
}

TEST_F(AgentMgrCallbacks, Connect_RefusesNull) {
  EXPECT_EQ(m_cloud.FireConnect(nullptr, 443), -1);
  EXPECT_EQ(Queued(), 0u);
  EXPECT_TRUE(Logged("**zxagent ZxcloudConnectCallback Error pszIp is NULL wPort[443]"));
  EXPECT_EQ(m_cloud.FireConnect("10.0.0.1", 65535), 0);
  EXPECT_TRUE(WasQueued(kWorkConnect, 65535, 8));
}

TEST_F(AgentMgrCallbacks, Disconnect_IsQueuedWithoutData) {
  EXPECT_EQ(m_cloud.FireDisconnect(), 0);
  EXPECT_TRUE(WasQueued(kWorkDisconnect, 0, 0));
}

TEST_F(AgentMgrCallbacks, Poll_ReadsNotPastItsLength) {
  const std::unique_ptr<char[]> pText(new char[3]{'<', 'm', '>'});  // no end
  EXPECT_EQ(m_cloud.FirePoll(4, pText.get(), 3), 0);
  EXPECT_TRUE(WasQueued(kWorkPollmsg, 4, 3));
  EXPECT_THAT(MainLines()[0], EndsWith("[<m>]"));
}

TEST_F(AgentMgrCallbacks, Data_ReadsNotPastItsLength) {
  const std::unique_ptr<char[]> pText(new char[3]{'a', ';', 'b'});
  EXPECT_EQ(m_cloud.FireData(1, 9, pText.get(), 3), 0);
  EXPECT_TRUE(WasQueued(kWorkData, 1, 3));
  EXPECT_THAT(MainLines()[0], HasSubstr("zxagent ZxcloudDataCallback recv iFlag[1] iType[9] iLength[3]"));
}

TEST_F(AgentMgrCallbacks, PollAndData_TakeTheWholeText_WhenLengthIsZero) {
  EXPECT_EQ(m_cloud.FirePoll(0, "whole", 0), 0);
  EXPECT_EQ(m_cloud.FireData(1, 0, "text", 0), 0);
  EXPECT_TRUE(WasQueued(kWorkPollmsg, 0, 5));
  EXPECT_TRUE(WasQueued(kWorkData, 1, 4));
}

TEST_F(AgentMgrCallbacks, PollAndData_DropTheEvent_WhenLengthIsNegative) {
  EXPECT_EQ(m_cloud.FirePoll(0, "text", -3), -1);
  EXPECT_EQ(m_cloud.FireData(1, 0, "text", -3), -1);
  EXPECT_EQ(Queued(), 0u);
}

TEST_F(AgentMgrCallbacks, PollAndData_SurviveNull) {
  EXPECT_EQ(m_cloud.FirePoll(0, nullptr, 10), 0);
  EXPECT_EQ(m_cloud.FireData(1, 0, nullptr, 10), 0);
  EXPECT_EQ(Queued(), 2u);
}

TEST_F(AgentMgrCallbacks, Everything_IsDropped_WithoutAManager) {
  CAgentMgr* pMgr = CAgentMgr::SetCurrent(nullptr);
  EXPECT_EQ(m_cloud.FirePush(1, "x"), -1);
  EXPECT_EQ(m_cloud.FireTconf(2, "x"), -1);
  EXPECT_EQ(m_cloud.FireConnect("10.0.0.1", 443), -1);
  EXPECT_EQ(m_cloud.FireDisconnect(), -1);
  EXPECT_EQ(m_cloud.FirePoll(0, "x", 1), -1);
  EXPECT_EQ(m_cloud.FireData(1, 0, "x", 1), -1);
  EXPECT_EQ(CAgentMgr::Current(), nullptr) << "a callback made a manager";
  CAgentMgr::SetCurrent(pMgr);
  EXPECT_EQ(Queued(), 0u);
  EXPECT_EQ(m_log.Capture().Count("Warn pAgentMgr is NULL"), 6u);
  EXPECT_THAT(MainLines(),
              Contains("*zxagent ZxcloudConnectCallback Warn pAgentMgr is NULL pszIp[10.0.0.1] wPort[443]"));
}

// --- The library's own log lines.

class AgentMgrLogCallback : public AgentMgrCallbacks {
 protected:
  void SetUp() override {
    AgentMgrCallbacks::SetUp();
    SetDetail(true);  // and the library told so, whatever an earlier test left behind
    m_cloud.FireLog(3, 1, "settle");
    m_log.Clear();
    m_uOptions = m_cloud.Count(ECloudCall::Setopt);
  }
  void SetDetail(bool bDetail) { m_hLogZxcloud->iThreshold = bDetail ? kLogDetail : kLogInfo; }
  std::vector<std::string> NewOptions() const {
    std::vector<std::string> texts = m_cloud.Texts(ECloudCall::Setopt);
    texts.erase(texts.begin(), texts.begin() + static_cast<long>(m_uOptions));
    return texts;
  }
  size_t m_uOptions = 0;
};

TEST_F(AgentMgrLogCallback, Line_GoesToTheCloudsChannel_OneLevelUp) {
  m_cloud.FireLog(3, 2, "100%s done");
  EXPECT_THAT(m_log.Lines("zxcloud"), ElementsAre("100%s done"));
  EXPECT_THAT(m_log.Levels("zxcloud"), ElementsAre(3));
}

TEST_F(AgentMgrLogCallback, Line_OfAnotherModule_GoesToTheMainChannel) {
  m_cloud.FireLog(1, 1, "from the id library");
  EXPECT_THAT(MainLines(), ElementsAre("from the id library"));
  EXPECT_THAT(m_log.Levels("zxagent"), ElementsAre(2));
  EXPECT_THAT(NewOptions(), IsEmpty());
}

TEST_F(AgentMgrLogCallback, Null_IsIgnored) {
  m_cloud.FireLog(3, 1, nullptr);
  EXPECT_THAT(m_log.Capture().Lines(), IsEmpty());
}

TEST_F(AgentMgrLogCallback, Change_OfTheChannelsLevel_IsToldToTheLibraryOnce) {
  SetDetail(false);
  m_cloud.FireLog(3, 1, "one");
  m_cloud.FireLog(3, 1, "two");
  EXPECT_THAT(NewOptions(), ElementsAre("allowdebug=0"));
  SetDetail(true);
  m_cloud.FireLog(3, 1, "three");
  EXPECT_THAT(NewOptions(), ElementsAre("allowdebug=0", "allowdebug=1"));
}

TEST_F(AgentMgrLogCallback, Change_IsOnlyLogged_WithoutAManager) {
  SetDetail(false);
  CAgentMgr* pMgr = CAgentMgr::SetCurrent(nullptr);
  m_cloud.FireLog(3, 1, "one");
  CAgentMgr::SetCurrent(pMgr);
  EXPECT_THAT(NewOptions(), IsEmpty());
  EXPECT_THAT(MainLines(), ElementsAre("*zxagent ZxcloudLogCallback Warn pAgentMgr is NULL"));
  EXPECT_THAT(m_log.Lines("zxcloud"), ElementsAre("one"));
}

TEST_F(AgentMgrLogCallback, Line_IsDropped_WhileTheChannelIsClosed) {
  const HLog hLog = g_hLogZxcloud.exchange(nullptr);
  m_cloud.FireLog(3, 3, "lost");
  m_cloud.FireLog(1, 3, "lost too");
  g_hLogZxcloud = hLog;
  EXPECT_THAT(m_log.Capture().Lines(), IsEmpty());
}

TEST_F(AgentMgrLogCallback, SetAllowDebug_ReturnsZero_AlsoWhenRefused) {
  m_cloud.SetResult(ECloudCall::Setopt, 5);
  EXPECT_EQ(m_mgr.SetZxcloudAllowDebug(7), 0);
  EXPECT_THAT(NewOptions(), ElementsAre("allowdebug=1"));
  EXPECT_TRUE(Logged(
      "*zxagent CAgentMgr::SetZxcloudAllowDebug Error zxcloud_setopt iRet[5] bAllowDebug[7] strKValue[allowdebug=1]"));
}
