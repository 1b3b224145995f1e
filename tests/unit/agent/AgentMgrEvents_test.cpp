// What connect, disconnect, configuration and address events change.
#include "agent/ManagerFixture.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class AgentMgrEvents : public CManagerTest {
 protected:
  void SetUp() override {
    Load();
    m_log.Clear();
  }
  _ZxCloudData Stored() { return m_mgr.Data().GetZxCloudData(); }
};

// Without a bus context.
class AgentMgrEventsNoBus : public CManagerTest {
 protected:
  void SetUp() override {
    m_mgr.Init(m_home.Root());
    ASSERT_EQ(m_mgr.Data().Init(m_home.Root()), 1);
    m_log.Clear();
  }
};

// --- Connect and disconnect.

TEST_F(AgentMgrEvents, Connect_IsBroadcast_AndKept) {
  EXPECT_TRUE(m_mgr.ZxcloudConnect("10.0.0.1", 443, 0));
  EXPECT_THAT(Broadcasts(1000), ElementsAre(R"({"onlineflag":"1","ip":"10.0.0.1","port":"443"})"));
  EXPECT_EQ(m_mgr.GetConnectData(), R"({"onlineflag":"1","ip":"10.0.0.1","port":"443"})");
  EXPECT_EQ(m_mgr.IsConnect(), 1);
  EXPECT_EQ(Stored().bConnectStatus, 1);
}

TEST_F(AgentMgrEvents, Connect_ByPoll_IsNoLongConnection) {
  EXPECT_TRUE(m_mgr.ZxcloudConnect("10.0.0.1", 443, 1));
  EXPECT_THAT(Broadcasts(1000), SizeIs(1));
  EXPECT_EQ(m_mgr.IsConnect(), 0);
}

TEST_F(AgentMgrEvents, Connect_WithoutAnAddress_HasAnEmptyOne) {
  EXPECT_TRUE(m_mgr.ZxcloudConnect(nullptr, 0, 0));
  EXPECT_THAT(Broadcasts(1000), ElementsAre(R"({"onlineflag":"1","ip":"","port":"0"})"));
}

TEST_F(AgentMgrEvents, Connect_CountsAlsoWhenTheBroadcastFails) {
  m_bus.SetResult(EBusCall::BroadcastSend, 0xB0020001);
  EXPECT_FALSE(m_mgr.ZxcloudConnect("10.0.0.1", 443, 0));
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::ZxcloudConnect Error iRet[b0020001] bPollMsg[0] strMsg["));
  EXPECT_EQ(m_mgr.IsConnect(), 1);
}

TEST_F(AgentMgrEvents, Disconnect_IsBroadcast_AndKept) {
  ASSERT_TRUE(m_mgr.ZxcloudConnect("10.0.0.1", 443, 0));
  EXPECT_TRUE(m_mgr.ZxcloudDisconnect());
  EXPECT_THAT(Broadcasts(1001), ElementsAre(R"({"onlineflag":"0","ip":"","port":"0"})"));
  EXPECT_EQ(m_mgr.GetConnectData(), R"({"onlineflag":"0","ip":"","port":"0"})");
  EXPECT_EQ(m_mgr.IsConnect(), 0);
  EXPECT_EQ(Stored().bConnectStatus, 0);
}

TEST_F(AgentMgrEvents, Disconnect_ReportsABusThatFails) {
  m_bus.SetResult(EBusCall::BroadcastSend, 3);
  EXPECT_FALSE(m_mgr.ZxcloudDisconnect());
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::ZxcloudDisconnect Error iRet[3]\n"));
}

TEST_F(AgentMgrEventsNoBus, ConnectAndDisconnect_ChangeNothing) {
  EXPECT_FALSE(m_mgr.ZxcloudConnect("10.0.0.1", 443, 0));
  EXPECT_FALSE(m_mgr.ZxcloudConnect(nullptr, 443, 0));
  EXPECT_FALSE(m_mgr.ZxcloudDisconnect());
  EXPECT_EQ(m_mgr.GetConnectData(), "");
  EXPECT_EQ(m_mgr.IsConnect(), 0);
  EXPECT_EQ(m_mgr.Data().GetZxCloudData().bConnectStatus, 0);
  EXPECT_THAT(
      MainLines(),
      ElementsAre(
          "*zxagent CAgentMgr::ZxcloudConnect Error m_pCompCtx is NULL bPollMsg[0] lpszIp[10.0.0.1] wPort[443]",
          "*zxagent CAgentMgr::ZxcloudConnect Error m_pCompCtx is NULL bPollMsg[0] lpszIp[null] wPort[443]",
          "*zxagent CAgentMgr::ZxcloudDisconnect Error m_pCompCtx is NULL"));
}

TEST_F(AgentMgrEvents, Reconnect_DoesNothing_WithLongConnections) {
  ASSERT_TRUE(m_mgr.ZxcloudConnect("10.0.0.1", 443, 0));
  EXPECT_EQ(m_mgr.ReconnectZxcloud(), 0);
  EXPECT_THAT(Broadcasts(1001), IsEmpty());
  EXPECT_EQ(m_mgr.IsConnect(), 1);
}

TEST_F(AgentMgrEvents, Reconnect_Disconnects_InShortOnlyMode) {
  StoreTermConnect(2, 60);
  ASSERT_TRUE(m_mgr.GetConfig());
  EXPECT_EQ(m_mgr.ReconnectZxcloud(), 0);
  EXPECT_THAT(Broadcasts(1001), SizeIs(1));
}

// --- Terminal configuration.

TEST_F(AgentMgrEvents, Tconf_StoresTheBusinessNumbers) {
  EXPECT_TRUE(m_mgr.ZxcloudTconf("Scan,One,7"));
  CPString strProduct;
  CPString strCombo;
  EXPECT_EQ(m_mgr.Data().GetProductComboByID(7, strProduct, strCombo), 1);
  EXPECT_EQ(m_home.ReadFile("etc/zxagent/inner/pcid.dat"), "Scan,One,7");
}

TEST_F(AgentMgrEvents, Tconf_ThatCannotBeStored_DoesNotStartPolling) {
  m_home.Remove("etc/zxagent/inner");
  m_home.WriteFile("etc/zxagent/inner", "in the way");
  EXPECT_FALSE(m_mgr.ZxcloudTconf("Scan,One,7"));
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::ZxcloudTconf Error iRet[b0010038]\n"));
  _PollState state;
  m_mgr.PollOnce(state, 1000000);
  m_mgr.PollOnce(state, 2000000);
  EXPECT_EQ(m_cloud.Count(ECloudCall::SendPollmsg), 0u);
}

TEST_F(AgentMgrEvents, Tconf_RefusesNull) {
  EXPECT_FALSE(m_mgr.ZxcloudTconf(nullptr));
}

// --- Addresses.

struct _PollConnect {
  const char* pszCase;
  const char* pszMsg;
  const char* pszExpect;
};

class AgentMgrPollConnect : public AgentMgrEvents, public ::testing::WithParamInterface<_PollConnect> {};

TEST_P(AgentMgrPollConnect, Data_ConnectsByPoll) {
  EXPECT_FALSE(m_mgr.ZxcloudData(5, GetParam().pszMsg));
  EXPECT_THAT(Broadcasts(1000), ElementsAre(GetParam().pszExpect));
  EXPECT_EQ(m_mgr.IsConnect(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, AgentMgrPollConnect,
    ::testing::Values(
        _PollConnect{"BareAddress", "10.1.2.3", R"({"onlineflag":"1","ip":"10.1.2.3","port":"8080"})"},
        _PollConnect{"WithPort", "10.1.2.3:443", R"({"onlineflag":"1","ip":"10.1.2.3","port":"443"})"},
        _PollConnect{"LastColonCounts", "[fe80::1]:99", R"({"onlineflag":"1","ip":"[fe80::1]","port":"99"})"},
        _PollConnect{"PortIsCutTo16Bits", "h:65537", R"({"onlineflag":"1","ip":"h","port":"1"})"},
        _PollConnect{"PortIsNoNumber", "h:x", R"({"onlineflag":"1","ip":"h","port":"0"})"},
        _PollConnect{"HugePort", "h:99999999999999999999999",
                     R"({"onlineflag":"1","ip":"h","port":"65535"})"},
        _PollConnect{"Empty", "", R"({"onlineflag":"1","ip":"","port":"8080"})"}),
    [](const ::testing::TestParamInfo<_PollConnect>& param) { return std::string(param.param.pszCase); });

TEST_F(AgentMgrEvents, Data_PollConnect_MakesTheShortAddressTheLongOne) {
  ASSERT_TRUE(m_mgr.ZxcloudData(1, "10.0.0.5:1;cloud:443"));
  EXPECT_FALSE(m_mgr.ZxcloudData(5, "10.1.2.3"));
  EXPECT_EQ(Stored().strLongAddrLocal, "10.0.0.5:1");
  EXPECT_EQ(Stored().strLongAddrRemote, "cloud:443");
}

TEST_F(AgentMgrEvents, Data_Short_StoresBothEnds_AndTellsTheLocalIp) {
  EXPECT_TRUE(m_mgr.ZxcloudData(1, "10.0.0.5:1;cloud:443;rest"));
  EXPECT_EQ(Stored().strShortAddrLocal, "10.0.0.5:1");
  EXPECT_EQ(Stored().strShortAddrRemote, "cloud:443;rest");
  EXPECT_EQ(Stored().strLongAddrLocal, "");
  EXPECT_THAT(m_cloud.Texts(ECloudCall::Setopt), ElementsAre("localip=10.0.0.5"));
}

TEST_F(AgentMgrEvents, Data_Short_IsTheLongAddressToo_InShortOnlyMode) {
  StoreTermConnect(2, 60);
  ASSERT_TRUE(m_mgr.GetConfig());
  EXPECT_TRUE(m_mgr.ZxcloudData(1, "10.0.0.5:1;cloud:443"));
  EXPECT_EQ(Stored().strLongAddrRemote, "cloud:443");
}

TEST_F(AgentMgrEvents, Data_WithoutSemicolon_IsRefusedAndChangesNothing) {
  for (const int iFlag : {1, 2}) {
    EXPECT_FALSE(m_mgr.ZxcloudData(iFlag, "10.0.0.5:1,cloud:443"));
    EXPECT_TRUE(Logged("*zxagent CAgentMgr::ZxcloudData Error not find iFlag[" + std::to_string(iFlag) +
                       "] lpszMsg[10.0.0.5:1,cloud:443]\n"));
  }
  EXPECT_EQ(Stored().strShortAddrLocal, "");
  EXPECT_EQ(Stored().strLongAddrLocal, "");
  EXPECT_EQ(m_cloud.Count(ECloudCall::Setopt), 0u);
}

TEST_F(AgentMgrEvents, Data_Long_StoresBothEnds) {
  EXPECT_TRUE(m_mgr.ZxcloudData(2, "10.0.0.5:1;cloud:8883"));
  EXPECT_EQ(Stored().strLongAddrRemote, "cloud:8883");
  EXPECT_EQ(m_cloud.Count(ECloudCall::Setopt), 0u);
}

TEST_F(AgentMgrEvents, Data_Tconf_StoresTheAddress) {
  EXPECT_TRUE(m_mgr.ZxcloudData(3, "tconf.example:443"));
  EXPECT_EQ(Stored().strTconfAddr, "tconf.example:443");
}

TEST_F(AgentMgrEvents, Data_RefusesNullAndUnknownFlags) {
  EXPECT_FALSE(m_mgr.ZxcloudData(1, nullptr));
  for (const int iFlag : {0, 4, 6, -1})
    EXPECT_FALSE(m_mgr.ZxcloudData(iFlag, "a;b"));
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::ZxcloudData Error iFlag[4] lpszMsg[a;b]\n"));
}

TEST_F(AgentMgrEvents, Data_ReportsAddresses_ThatCannotBeSaved) {
  m_home.Remove("etc/zxagent");
  m_home.WriteFile("etc/zxagent", "in the way");
  EXPECT_FALSE(m_mgr.ZxcloudData(1, "l:1;r:1"));
  EXPECT_FALSE(m_mgr.ZxcloudData(2, "l:2;r:2"));
  EXPECT_FALSE(m_mgr.ZxcloudData(3, "t:3"));
  EXPECT_TRUE(
      Logged("*zxagent CAgentMgr::ZxcloudData Error SetZxCloudShortAddr LocalAddr[l:1] RemoteAddr[r:1]\n"));
  EXPECT_TRUE(
      Logged("*zxagent CAgentMgr::ZxcloudData Error SetZxCloudLongAddr LocalAddr[l:2] RemoteAddr[r:2]\n"));
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::ZxcloudData Error SetZxCloudTconfAddr strTconfAddr[t:3]\n"));
}

// --- Local address.

TEST_F(AgentMgrEvents, LocalIp_IsToldOnce) {
  m_mgr.SetLocalIp("10.0.0.5:1");
  m_mgr.SetLocalIp("10.0.0.5:2");  // another port is the same address
  EXPECT_THAT(m_cloud.Texts(ECloudCall::Setopt), ElementsAre("localip=10.0.0.5"));
  m_mgr.SetLocalIp("10.0.0.6:1");
  EXPECT_EQ(m_cloud.Count(ECloudCall::Setopt), 2u);
}

TEST_F(AgentMgrEvents, LocalIp_IsTheWholeText_WithoutAPort) {
  m_mgr.SetLocalIp("10.0.0.5");
  EXPECT_THAT(m_cloud.Texts(ECloudCall::Setopt), ElementsAre("localip=10.0.0.5"));
}

TEST_F(AgentMgrEvents, LocalIp_StaysStored_WhenTheLibraryRefusesIt) {
  m_cloud.SetResult(ECloudCall::Setopt, 4);
  m_mgr.SetLocalIp("10.0.0.5:1");
  EXPECT_TRUE(Logged(
      "**zxagent CAgentMgr::SetLocalIp Error zxcloud_setopt iRet[4] strLocalIpNew[10.0.0.5] strKValue[localip=10.0.0.5]"));
  m_mgr.SetLocalIp("10.0.0.5:1");
  EXPECT_EQ(m_cloud.Count(ECloudCall::Setopt), 1u);
}

TEST_F(AgentMgrEvents, LocalIp_OfAPersonalEdition_NeverChanges) {
  StorePersonalEdition();
  ASSERT_TRUE(m_mgr.Data().GetVersionXml());
  m_mgr.SetLocalIp("10.0.0.5:1");
  EXPECT_EQ(m_cloud.Count(ECloudCall::Setopt), 0u);
  EXPECT_TRUE(Logged("zxagent CAgentMgr::SetLocalIp is PersonalEditionstrLocalIp[10.0.0.5:1]"));
}

// --- Load-balancer data.

TEST_F(AgentMgrEvents, LbData_IsSavedKeptAndBroadcast) {
  EXPECT_TRUE(m_mgr.ZxcloudLbData("lb-data"));
  EXPECT_EQ(m_mgr.GetLbData(), "lb-data");
  EXPECT_EQ(m_home.ReadFile("etc/zxagent/lbdata.json"), "lb-data");
  EXPECT_THAT(Broadcasts(1007), ElementsAre("lb-data"));
}

TEST_F(AgentMgrEvents, LbData_RefusesEmpty_AndReportsTheBus) {
  EXPECT_FALSE(m_mgr.ZxcloudLbData(""));
  m_bus.SetResult(EBusCall::BroadcastSend, 5);
  EXPECT_FALSE(m_mgr.ZxcloudLbData("lb"));
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::ZxcloudLbData Error iRet[5] strLbData[lb]\n"));
}

TEST_F(AgentMgrEvents, LbData_IsBroadcast_AlsoWhenItCannotBeSaved) {
  m_home.Remove("etc/zxagent");
  m_home.WriteFile("etc/zxagent", "in the way");
  EXPECT_TRUE(m_mgr.ZxcloudLbData("lb"));
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::ZxcloudLbData Error SaveLbData strLbData[lb]\n"));
}

TEST_F(AgentMgrEventsNoBus, LbData_IsKept) {
  EXPECT_FALSE(m_mgr.ZxcloudLbData("lb"));
  EXPECT_EQ(m_mgr.GetLbData(), "lb");
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::ZxcloudLbData Error m_pCompCtx is NULL strLbData[lb]\n"));
}

TEST_F(AgentMgrEvents, ClientReady_IsEmptyAtFirst) {
  EXPECT_EQ(m_mgr.GetClientReady(), "");
}
