// Addresses set and tested from outside, and the check of a pending message-server setting.
#include "agent/ManagerFixture.h"

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class AgentMgrAddr : public CManagerTest {
 protected:
  AgentMgrAddr() : CManagerTest(true) {}
  unsigned int EngineStatus(CPString& strAddr) {
    unsigned int dwStatus = 0;
    m_mgr.Data().ReadEngineAddrStatus(dwStatus, strAddr);
    return dwStatus;
  }
  // A message-server setting that came by command and is still to be verified.
  void LoadPending() {
    StoreMsgSrvAddrSet("engine:1", "engine:2");
    StoreEngineStatus(1, "");
    Load();
    m_mgr.SetWork(1);
  }
};

// --- SetCloudAddr.

TEST_F(AgentMgrAddr, SetCloudAddr_StoresTheAddress_AndRebuildsTheChannel) {
  m_home.WriteFile("etc/zxagent/zxagent.json", R"({"tconf":{"tconf_url":"old:1"}})");
  Load();
  ASSERT_EQ(m_mgr.InitZxcloud(0), 0u);
  EXPECT_EQ(m_mgr.SetCloudAddr("new:2"), 0u);
  EXPECT_THAT(m_home.ReadFile("etc/zxagent/inner/customcloud.json").Str(), HasSubstr("new:2"));
  EXPECT_THAT(m_home.ReadFile("etc/zxagent/inner/zxagent.json").Str(), HasSubstr("new:2"));
  EXPECT_EQ(m_cloud.Count(ECloudCall::Uninit), 1u);
  EXPECT_EQ(m_cloud.Count(ECloudCall::Init), 2u);
  EXPECT_THAT(m_cloud.Texts(ECloudCall::SetOtherConnAddr), ElementsAre("new:2"));
  CPString strAddr;
  EXPECT_EQ(EngineStatus(strAddr), 3u);
  EXPECT_EQ(strAddr, "new:2");
  EXPECT_TRUE(Logged("ZxMsgQueueInsert OK iLength[0] dwMessage[8]"));
}

TEST_F(AgentMgrAddr, SetCloudAddr_RefusesAnEmptyAddress) {
  Load();
  EXPECT_EQ(m_mgr.SetCloudAddr(""), 0xB001003Au);
  EXPECT_EQ(m_cloud.Count(ECloudCall::Uninit), 0u);
  CPString strAddr;
  EXPECT_EQ(EngineStatus(strAddr), 0u);
}

TEST_F(AgentMgrAddr, SetCloudAddr_ReportsAConfigurationThatCannotBeChanged) {
  Load();  // no working copy
  EXPECT_EQ(m_mgr.SetCloudAddr("new:2"), 0xB001003Du);
  EXPECT_EQ(m_cloud.Count(ECloudCall::Init), 0u);
}

TEST_F(AgentMgrAddr, SetCloudAddr_ReportsAChannelThatDoesNotComeBack) {
  m_home.WriteFile("etc/zxagent/zxagent.json", R"({"tconf":{"tconf_url":"old:1"}})");
  Load();
  m_cloud.SetResult(ECloudCall::Uninit, 1);
  EXPECT_EQ(m_mgr.SetCloudAddr("new:2"), 0xB0010022u);
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::SetCloudAddr Warn InitZxcloud iRet[b0010022] strAddr[new:2]"));
}

// --- Tests of addresses.

TEST_F(AgentMgrAddr, TestCloudAddr_AsksTheLibrary) {
  EXPECT_EQ(m_mgr.TestCloudAddr("a:1"), 0u);
  m_cloud.SetResult(ECloudCall::TconfCheck, 7);
  EXPECT_EQ(m_mgr.TestCloudAddr("b:2"), 0xB0010027u);
  EXPECT_THAT(m_cloud.Texts(ECloudCall::TconfCheck), ElementsAre("a:1", "b:2"));
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::TestCloudAddr Warn iRet[7] strAddr[b:2]"));
}

TEST_F(AgentMgrAddr, TestLbCloudAddr_IsNotSupported) {
  EXPECT_EQ(m_mgr.TestLbCloudAddr("a:1"), static_cast<uint32_t>(-1));
  EXPECT_EQ(m_mgr.TestLbCloudAddr(""), static_cast<uint32_t>(-1));
  EXPECT_THAT(m_cloud.Calls(), IsEmpty());
}

// --- The list of a message-server setting.

TEST_F(AgentMgrAddr, Check_TakesTheFirstAddressThatAnswers) {
  m_mgr.SetWork(1);
  m_cloud.QueueResults(ECloudCall::TconfCheck, {1, 1, 1, 1, 0});
  EXPECT_EQ(m_mgr.CheckMsgSrvAddrSet("a:1, b:2 ,,c:3"), 1);
  EXPECT_THAT(m_cloud.Texts(ECloudCall::TconfCheck), ElementsAre("a:1", "a:1", "a:1", "b:2", "b:2"));
  EXPECT_THAT(m_pauses.All(), SizeIs(15));  // five seconds after each try but the last of an address
  EXPECT_THAT(m_pauses.All(), Each(1000u));
}

TEST_F(AgentMgrAddr, Check_Fails_WhenNobodyAnswers) {
  m_mgr.SetWork(1);
  m_cloud.SetResult(ECloudCall::TconfCheck, 1);
  EXPECT_EQ(m_mgr.CheckMsgSrvAddrSet("a:1,b:2"), 0);
  EXPECT_EQ(m_cloud.Count(ECloudCall::TconfCheck), 6u);
  EXPECT_THAT(m_pauses.All(), SizeIs(20));
}

TEST_F(AgentMgrAddr, Check_Fails_WithoutAnyAddress) {
  EXPECT_EQ(m_mgr.CheckMsgSrvAddrSet(""), 0);
  EXPECT_EQ(m_mgr.CheckMsgSrvAddrSet(" , ,"), 0);
  EXPECT_EQ(m_cloud.Count(ECloudCall::TconfCheck), 0u);
}

TEST_F(AgentMgrAddr, Check_GivesUpAtOnce_WhenTheAgentStops) {
  m_mgr.SetWork(1);
  m_cloud.SetResult(ECloudCall::TconfCheck, 1);
  m_pauses.m_fnOnPause = [this](uint32_t) {
    if (m_pauses.All().size() == 2)
      m_mgr.SetWork(0);
  };
  EXPECT_EQ(m_mgr.CheckMsgSrvAddrSet("a:1,b:2"), 0);
  EXPECT_THAT(m_pauses.All(), SizeIs(2));
  EXPECT_EQ(m_cloud.Count(ECloudCall::TconfCheck), 1u);
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::CheckMsgSrvAddrSet IsWorking is FALSE iterList[a:1]"));
}

TEST_F(AgentMgrAddr, ReCheck_RecordsAVerifiedSetting_Once) {
  LoadPending();
  EXPECT_EQ(m_mgr.ReMsgSrvAddrSet(), 1);
  CPString strAddr;
  EXPECT_EQ(EngineStatus(strAddr), 2u);
  EXPECT_EQ(strAddr, "engine:1,engine:2");
  EXPECT_EQ(m_mgr.ReMsgSrvAddrSet(), 0);
  EXPECT_TRUE(Logged("zxagent CAgentMgr::ReMsgSrvAddrSet dwEngineStatus[2]"));
  // The next initialisation uses it.
  ASSERT_EQ(m_mgr.InitZxcloud(0), 0u);
  EXPECT_THAT(m_cloud.Texts(ECloudCall::SetOtherConnAddr), ElementsAre("engine:1,engine:2"));
}

TEST_F(AgentMgrAddr, ReCheck_LeavesTheSettingPending_WhenNobodyAnswers) {
  LoadPending();
  m_cloud.SetResult(ECloudCall::TconfCheck, 1);
  EXPECT_EQ(m_mgr.ReMsgSrvAddrSet(), 0);
  CPString strAddr;
  EXPECT_EQ(EngineStatus(strAddr), 1u);
  EXPECT_TRUE(Logged(
      "*zxagent CAgentMgr::ReMsgSrvAddrSet Error CheckMsgSrvAddrSet strMsgSrvAddrSet[engine:1,engine:2]"));
}

// --- The check thread.

TEST_F(AgentMgrAddr, CheckThread_RebuildsTheChannel_OnceVerified) {
  LoadPending();
  ASSERT_EQ(m_mgr.InitZxcloud(0), 0u);  // starts it
  ASSERT_TRUE(m_cloud.WaitCount(ECloudCall::SetOtherConnAddr, 1));
  ASSERT_TRUE(m_cloud.WaitCount(ECloudCall::Getopt, 2));
  EXPECT_EQ(m_cloud.Count(ECloudCall::Uninit), 1u);
  EXPECT_EQ(AgentThreads().Running(), 1u);
  m_mgr.Stop();
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
}

TEST_F(AgentMgrAddr, CheckThread_ChecksAgain_WhenKicked) {
  LoadPending();
  m_cloud.SetResult(ECloudCall::TconfCheck, 1);
  ASSERT_TRUE(m_mgr.StartCheckThread());
  ASSERT_TRUE(m_cloud.WaitCount(ECloudCall::TconfCheck, 6));
  ASSERT_TRUE(m_mgr.StartCheckThread());
  EXPECT_TRUE(m_cloud.WaitCount(ECloudCall::TconfCheck, 12));
  EXPECT_EQ(AgentThreads().Running(), 1u);
}

TEST_F(AgentMgrAddr, CheckThread_EndsAtOnce_WhenTheAgentDoesNotWork) {
  Load();
  ASSERT_TRUE(m_mgr.StartCheckThread());
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  EXPECT_EQ(m_cloud.Count(ECloudCall::TconfCheck), 0u);
}
