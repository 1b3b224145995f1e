// Initialisation and release of the cloud channel.
#include "agent/ManagerFixture.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class AgentMgrChannel : public CManagerTest {
 protected:
  std::vector<ECloudCall> Order() const {
    std::vector<ECloudCall> order;
    for (const _CloudCall& call : m_cloud.Calls())
      order.push_back(call.eCall);
    return order;
  }
};

TEST_F(AgentMgrChannel, Init_Fails_BeforeTheStoreKnowsItsHome) {
  EXPECT_EQ(m_mgr.InitZxcloud(0), 0xB0010031u);
  EXPECT_THAT(m_cloud.Calls(), IsEmpty());
}

TEST_F(AgentMgrChannel, Init_SetsBothOptionsFirst_AndReadsThemBack) {
  m_home.WriteFile("etc/zxagent/zxagent.json",
                   R"({"zxagent":{"channel":"ch-7","pin":"p"},"tconf":{"tconf_url":"t:1"}})");
  Load();
  EXPECT_EQ(m_mgr.InitZxcloud(0), 0u);
  EXPECT_THAT(Order(),
              ElementsAre(ECloudCall::Setopt, ECloudCall::Setopt, ECloudCall::Init, ECloudCall::Getopt));
  EXPECT_THAT(m_cloud.Texts(ECloudCall::Setopt),
              ElementsAre("mid=fake-mid:m2=fake-mid2:cloudtcp_disable=0",
                          HasSubstr("platid=2:localip=127.0.0.1:disable_hb=1")));
  EXPECT_EQ(m_cloud.Calls(ECloudCall::Getopt)[0].iLength, 511);
  EXPECT_EQ(m_cloud.ChannelId(), "ch-7");
}

TEST_F(AgentMgrChannel, Init_DisablesTheLongConnection_InShortOnlyMode) {
  StoreTermConnect(2, 60);
  Load();
  EXPECT_EQ(m_mgr.InitZxcloud(0), 0u);
  EXPECT_EQ(m_cloud.Texts(ECloudCall::Setopt)[0], "mid=fake-mid:m2=fake-mid2:cloudtcp_disable=1");
}

TEST_F(AgentMgrChannel, Init_TakesThePortOffTheLocalAddress) {
  Load();
  ASSERT_TRUE(m_mgr.Data().SetZxCloudShortAddr("10.0.0.5:4711", "cloud:443"));
  EXPECT_EQ(m_mgr.InitZxcloud(0), 0u);
  EXPECT_EQ(m_cloud.Texts(ECloudCall::Setopt)[1], "platid=2:localip=10.0.0.5:disable_hb=1");
}

TEST_F(AgentMgrChannel, Init_PassesTheEngineAddress_AndIgnoresItsRefusal) {
  StoreEngineStatus(3, "engine:9");
  Load();
  m_cloud.SetResult(ECloudCall::SetOtherConnAddr, 5);
  EXPECT_EQ(m_mgr.InitZxcloud(0), 0u);
  EXPECT_THAT(m_cloud.Texts(ECloudCall::SetOtherConnAddr), ElementsAre("engine:9"));
  EXPECT_THAT(Order(), ElementsAre(ECloudCall::Setopt, ECloudCall::Setopt, ECloudCall::SetOtherConnAddr,
                                   ECloudCall::Init, ECloudCall::Getopt));
}

TEST_F(AgentMgrChannel, Reinit_ReleasesTheLibraryFirst) {
  Load();
  ASSERT_EQ(m_mgr.InitZxcloud(0), 0u);
  EXPECT_EQ(m_mgr.InitZxcloud(1), 0u);
  EXPECT_EQ(Order()[4], ECloudCall::Uninit);
  EXPECT_EQ(m_cloud.Count(ECloudCall::Init), 2u);
}

TEST_F(AgentMgrChannel, Reinit_ForgetsTheTerminalConfiguration) {
  StoreTermConnect(2, 60);
  Load();
  ASSERT_TRUE(m_mgr.ZxcloudTconf("Scan,One,7"));
  ASSERT_EQ(m_mgr.InitZxcloud(1), 0u);
  _PollState state;
  m_mgr.PollOnce(state, 1000000);
  EXPECT_EQ(m_cloud.Count(ECloudCall::SendPollmsg), 0u);
}

struct _InitFailure {
  const char* pszCase;
  ECloudCall eCall;
  std::vector<uint32_t> results;
  uint32_t uiExpect;
  const char* pszLine;
  bool bInitialised;
};

class AgentMgrChannelFailure : public AgentMgrChannel, public ::testing::WithParamInterface<_InitFailure> {};

TEST_P(AgentMgrChannelFailure, Reinit_StopsAtTheStepThatFails) {
  Load();
  ASSERT_EQ(m_mgr.InitZxcloud(0), 0u);
  m_cloud.QueueResults(GetParam().eCall, GetParam().results);
  EXPECT_EQ(m_mgr.InitZxcloud(1), GetParam().uiExpect);
  EXPECT_TRUE(Logged(GetParam().pszLine));
  EXPECT_EQ(m_cloud.IsInitialised(), GetParam().bInitialised);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, AgentMgrChannelFailure,
    ::testing::Values(
        _InitFailure{"Uninit",
                     ECloudCall::Uninit,
                     {9},
                     0xB0010022,
                     "**zxagent CAgentMgr::InitInnerZxcloud Error zxcloud_uninit iRet[9]",
                     true},
        _InitFailure{
            "FirstOption",
            ECloudCall::Setopt,
            {9},
            0xB0010023,
            "**zxagent CAgentMgr::InitInnerZxcloud Error zxcloud_setopt iRet[9] bIsOnlyShort[0] bReInit[1] strKValue[mid=",
            false},
        _InitFailure{
            "SecondOption",
            ECloudCall::Setopt,
            {0, 9},
            0xB0010023,
            "**zxagent CAgentMgr::InitInnerZxcloud Error zxcloud_setopt hb iRet[9] bIsOnlyShort[0] bReInit[1] strKValue[platid=",
            false},
        _InitFailure{
            "Init",
            ECloudCall::Init,
            {9},
            0xB0010021,
            "**zxagent CAgentMgr::InitInnerZxcloud Error zxcloud_init iRet[9] bIsOnlyShort[0] bReInit[1] strConfigInnerPath[",
            false},
        _InitFailure{
            "Getopt",
            ECloudCall::Getopt,
            {9},
            0xB0010024,
            "*zxagent CAgentMgr::InitInnerZxcloud Error zxcloud_getopt iRet[9] bIsOnlyShort[0] bReInit[1]",
            true}),
    [](const ::testing::TestParamInfo<_InitFailure>& param) { return std::string(param.param.pszCase); });

TEST_F(AgentMgrChannel, Init_LogsWhatTheLibrarySays_CutToItsBuffer) {
  Load();
  m_cloud.SetGetoptText(std::string(600, 'o'));
  EXPECT_EQ(m_mgr.InitZxcloud(0), 0u);
  EXPECT_TRUE(Logged("szData[" + std::string(511, 'o') + "]"));
}

TEST_F(AgentMgrChannel, Init_StartsTheCheckThread_OnlyForAPendingSetting) {
  StoreMsgSrvAddrSet("engine:1", "engine:2");
  StoreEngineStatus(2, "engine:1,engine:2");  // verified before
  Load();
  m_mgr.SetWork(1);
  EXPECT_EQ(m_mgr.InitZxcloud(0), 0u);
  EXPECT_EQ(AgentThreads().Running(), 0u);
  StoreEngineStatus(1, "");
  ASSERT_TRUE(m_mgr.GetConfig());
  EXPECT_EQ(m_mgr.InitZxcloud(0), 0u);
  EXPECT_TRUE(m_cloud.WaitCount(ECloudCall::TconfCheck, 1));
}

TEST_F(AgentMgrChannel, Uninit_ReportsARefusal) {
  m_cloud.SetResult(ECloudCall::Uninit, 12);
  EXPECT_FALSE(m_mgr.UninitZxcloud());
  EXPECT_TRUE(Logged("**zxagent CAgentMgr::UninitZxcloud Error zxcloud_uninit iRet[12]"));
  m_cloud.SetResult(ECloudCall::Uninit, 0);
  EXPECT_TRUE(m_mgr.UninitZxcloud());
}
