// The agent's own commands, one by one.
#include <cstdlib>

#include "agent/OwnCommandFixture.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

class AgentMgrHandlers : public COwnCommandTest {
 protected:
  uint32_t Report(const char* pszJson, const char* pszID = "id") {
    zxtools::CPJsonParse json;
    EXPECT_EQ(json.LoadBuffer(pszJson), 1);
    return m_mgr.DisposePubMsgReport(0x2a, pszID, json);
  }
  uint32_t Connect(int iType, int iCycle) {
    return m_mgr.DisposeTermConnect(
        0x2a, "id", CPString::Make(R"({"Param":{"type":%d,"poller_cycle":%d}})", iType, iCycle).c_str());
  }
  std::vector<std::string> MidOptions() const {
    std::vector<std::string> options;
    for (const std::string& strOption : m_cloud.Texts(ECloudCall::Setopt))
      if (strOption.compare(0, 4, "mid=") == 0)
        options.push_back(strOption.substr(strOption.rfind(':') + 1));
    return options;
  }
};

TEST_F(AgentMgrHandlers, RefuseMissingTexts) {
  const std::string strHead = "**zxagent CAgentMgr::";
  EXPECT_EQ(Report("{\"Param\":1}", ""), 0xB0010002u);
  EXPECT_EQ(m_mgr.DisposeTermConnect(0x2a, "", nullptr), 0xB0010002u);
  EXPECT_EQ(m_mgr.DisposeTermConnect(0x2a, "id", nullptr), 0xB0010002u);
  EXPECT_EQ(m_mgr.DisposeClientReady(0x2a, "", nullptr), 0xB0010002u);
  EXPECT_EQ(m_mgr.DisposeClientReady(0x2b, "id", nullptr), 0xB0010002u);
  EXPECT_EQ(m_mgr.DisposeAssetCollection(0x2a, "", nullptr), 0xB0010002u);
  EXPECT_EQ(m_mgr.DisposeAssetCollection(0x2b, "id", nullptr), 0xB0010002u);
  EXPECT_EQ(m_mgr.DisposeMsgSrvAddrSet(0x2a, "", nullptr), 0xB0010002u);
  EXPECT_EQ(m_mgr.DisposeMsgSrvAddrSet(0x2a, "id", nullptr), 0xB0010002u);
  EXPECT_THAT(MainLines(),
              ElementsAre(strHead + "DisposePubMsgReport Error strID is empty u64DataId[2a]",
                          strHead + "DisposeTermConnect Error strID is empty u64DataId[2a]",
                          strHead + "DisposeTermConnect Error lpszMsg is NULL u64DataId[2a] strID[id]",
                          strHead + "DisposeClientReady Error strID is empty u64DataId[2a]",
                          strHead + "DisposeClientReady Error lpszMsg is NULL u64DataId[2b]",
                          strHead + "DisposeAssetCollection Error strID is empty u64DataId[2a]",
                          strHead + "DisposeAssetCollection Error lpszMsg is NULL u64DataId[2b]",
                          strHead + "DisposeMsgSrvAddrSet Error strID is empty u64DataId[2a]",
                          strHead + "DisposeMsgSrvAddrSet Error lpszMsg is NULL u64DataId[2a] strID[id]"));
  for (const std::string& strLine : MainLines())
    EXPECT_EQ(LevelOf(strLine), 4) << strLine;
}

// --- PubMsgReport.

TEST_F(AgentMgrHandlers, PubMsgReport_MapsSavesAndSets) {
  struct _Case {
    int iParam;
    int iType;
  };
  for (const _Case& testCase : {_Case{0, 0}, _Case{1, 3}, _Case{2, 5}, _Case{3, 9}}) {
    m_log.Clear();
    EXPECT_EQ(Report(CPString::Make("{\"Param\":%d}", testCase.iParam).c_str()), 0u) << testCase.iParam;
    EXPECT_EQ(Member("etc/zxagent/inner/pubmsgreport.json", "pubmsgreport"), std::to_string(testCase.iType));
    EXPECT_TRUE(Logged(
        CPString::Make("zxagent CAgentSendMsg::SetPubmsgReportType iPubmsgReportType[%d]", testCase.iType)
            .Str()));
    EXPECT_EQ(LevelOf(CPString::Make("zxagent CAgentMgr::DisposePubMsgReport OK u64DataId[2a] "
                                     "iPubmsgReportType[%d] iReportType[%d] strID[id]",
                                     testCase.iType, testCase.iParam)
                          .Str()),
              2);
  }
}

TEST_F(AgentMgrHandlers, PubMsgReport_KeepsTheTypeInForce_WhenTheCommandIsBad) {
  ASSERT_EQ(Report("{\"Param\":2}"), 0u);
  m_log.Clear();
  EXPECT_EQ(Report("{}"), 0xB0010088u);
  EXPECT_EQ(Report("[]"), 0xB0010088u);
  EXPECT_EQ(Report("{\"x\":{\"Param\":1}}"), 0xB0010088u);
  EXPECT_EQ(
      LevelOf("**zxagent CAgentMgr::DisposePubMsgReport Error wrap_cJSON_GetObjectItem Param u64DataId[2a] "
              "strID[id]"),
      4);
  for (const int iParam : {4, -1, 2147483647}) {
    EXPECT_EQ(Report(CPString::Make("{\"Param\":%d}", iParam).c_str()), 0xB0010089u) << iParam;
    EXPECT_EQ(LevelOf(CPString::Make("**zxagent CAgentMgr::DisposePubMsgReport Error u64DataId[2a] "
                                     "iReportType[%d] strID[id]",
                                     iParam)
                          .Str()),
              4);
  }
  EXPECT_EQ(Member("etc/zxagent/inner/pubmsgreport.json", "pubmsgreport"), "5");
  EXPECT_FALSE(Logged("SetPubmsgReportType"));
}

TEST_F(AgentMgrHandlers, PubMsgReport_KeepsTheTypeInForce_WhenItCannotBeSaved) {
  BlockSave("etc/zxagent/inner/pubmsgreport.json");
  EXPECT_EQ(Report("{\"Param\":1}"), 0xB0010042u);
  EXPECT_EQ(LevelOf("**zxagent CAgentMgr::DisposePubMsgReport Error SavePubmsgReportData u64DataId[2a] "
                    "iPubmsgReportType[3] iReportType[1] strID[id]"),
            4);
  EXPECT_FALSE(Logged("SetPubmsgReportType"));
}

// --- term_connect_type.

TEST_F(AgentMgrHandlers, TermConnect_ReinitialisesTheChannel_WhenTheModeChanges) {
  EXPECT_EQ(Connect(2, 120), 0u);
  EXPECT_EQ(m_cloud.Count(ECloudCall::Uninit), 1u);
  EXPECT_EQ(m_cloud.Count(ECloudCall::Init), 2u) << "the fixture's was the first";
  EXPECT_THAT(MidOptions(), ElementsAre("cloudtcp_disable=0", "cloudtcp_disable=1"));
  const std::string strBody = R"({"Param":{"type":2,"poller_cycle":120}})";
  EXPECT_EQ(m_home.ReadFile("etc/zxagent/inner/termconnect.json"), strBody) << "as received";
  EXPECT_EQ(LevelOf("zxagent CAgentMgr::DisposeTermConnect OK change u64DataId[2a] iRet[0] m_bIsOnlyShort[1] "
                    "m_iPollerCycle[120] lpszMsg[" +
                    strBody + "]"),
            2);
  EXPECT_EQ(Connect(1, 120), 0u);
  EXPECT_THAT(MidOptions(), ElementsAre("cloudtcp_disable=0", "cloudtcp_disable=1", "cloudtcp_disable=0"));
}

TEST_F(AgentMgrHandlers, TermConnect_ReinitialisesOnce_WhenTheSameModeComesTwice) {
  EXPECT_EQ(Connect(2, 120), 0u);
  EXPECT_EQ(Connect(2, 120), 0u);
  EXPECT_EQ(m_cloud.Count(ECloudCall::Init), 2u);
  EXPECT_TRUE(
      Logged("zxagent CAgentMgr::DisposeTermConnect OK not change u64DataId[2a] m_bIsOnlyShort[1] "
             "m_iPollerCycle[120] lpszMsg["));
}

TEST_F(AgentMgrHandlers, TermConnect_TakesANewPeriod_WithoutReinitialising) {
  EXPECT_EQ(Connect(1, 240), 0u);
  EXPECT_EQ(Connect(3, 59), 0u) << "any type but 2 allows long connections";
  EXPECT_EQ(m_cloud.Count(ECloudCall::Uninit), 0u);
  EXPECT_TRUE(Logged("OK not change u64DataId[2a] m_bIsOnlyShort[0] m_iPollerCycle[240]"));
  EXPECT_TRUE(Logged("OK not change u64DataId[2a] m_bIsOnlyShort[0] m_iPollerCycle[60]"));
}

TEST_F(AgentMgrHandlers, TermConnect_PollsInTheNewPeriod) {
  ASSERT_TRUE(m_mgr.ZxcloudTconf("Scan,One,1001"));
  EXPECT_EQ(Connect(1, 240), 0u);
  _PollState state;
  m_mgr.PollOnce(state, 10000);
  m_mgr.PollOnce(state, 10239);
  EXPECT_EQ(m_cloud.Count(ECloudCall::SendPollmsg), 1u);
  m_mgr.PollOnce(state, 10240);
  EXPECT_EQ(m_cloud.Count(ECloudCall::SendPollmsg), 2u);
}

TEST_F(AgentMgrHandlers, TermConnect_AnswersZero_WhenReinitialisingFails) {
  m_cloud.SetResult(ECloudCall::Init, 7);
  EXPECT_EQ(Connect(2, 120), 0u);
  EXPECT_TRUE(Logged("zxagent CAgentMgr::DisposeTermConnect OK change u64DataId[2a] iRet["));
}

TEST_F(AgentMgrHandlers, TermConnect_KeepsTheSettings_WhenTheBodyIsBad) {
  ASSERT_EQ(Connect(2, 120), 0u);
  for (const char* pszMsg : {"", "not json", "{}", R"({"Param":{}})", R"({"Param":{"poller_cycle":300}})"}) {
    EXPECT_EQ(m_mgr.DisposeTermConnect(0x2a, "id", pszMsg), 0xB001008Eu) << pszMsg;
    EXPECT_EQ(LevelOf(std::string("**zxagent CAgentMgr::DisposeTermConnect Error ParseTermConnectData "
                                  "u64DataId[2a] strID[id] lpszMsg[") +
                      pszMsg + "]"),
              4)
        << pszMsg;
  }
  BlockSave("etc/zxagent/inner/termconnect.json");
  EXPECT_EQ(Connect(1, 300), 0xB0010043u);
  EXPECT_EQ(
      LevelOf("**zxagent CAgentMgr::DisposeTermConnect Error SaveTermConnectData u64DataId[2a] strID[id] "
              R"(lpszMsg[{"Param":{"type":1,"poller_cycle":300}}])"),
      4);
  m_home.Remove("etc/zxagent/inner/termconnect.json.tmp");
  EXPECT_EQ(m_cloud.Count(ECloudCall::Init), 2u);
  m_log.Clear();
  EXPECT_EQ(Connect(2, 180), 0u);
  EXPECT_TRUE(Logged("OK not change")) << "short connections were still in force";
}

// --- ClientReady.

TEST_F(AgentMgrHandlers, ClientReady_StoresAndBroadcasts) {
  EXPECT_EQ(m_mgr.GetClientReady(), "");
  EXPECT_EQ(m_mgr.DisposeClientReady(0x2a, "id", "{\"ready\":1}"), 0u);
  EXPECT_EQ(m_mgr.GetClientReady(), "{\"ready\":1}");
  EXPECT_THAT(Broadcasts(1006), ElementsAre("{\"ready\":1}"));
  EXPECT_THAT(
      MainLines(),
      ElementsAre("zxagent CAgentMgr::DisposeClientReady Begin BroadcastSend strClientReady[{\"ready\":1}]",
                  "zxagent CAgentMgr::DisposeClientReady End BroadcastSend strClientReady[{\"ready\":1}]"));
}

TEST_F(AgentMgrHandlers, ClientReady_AnswersTheBussError) {
  m_bus.SetResult(EBusCall::BroadcastSend, 1006, 0x77);
  EXPECT_EQ(m_mgr.DisposeClientReady(0x2a, "id", "text"), 0x77u);
  EXPECT_EQ(m_mgr.GetClientReady(), "text") << "stored before";
  EXPECT_EQ(LevelOf("*zxagent CAgentMgr::DisposeClientReady Error iRet[77] strClientReady[text]"), 3);
  EXPECT_FALSE(Logged("DisposeClientReady End"));
}

TEST_F(AgentMgrHandlers, ClientReady_Fails_WithoutABus) {
  m_mgr.SetCtx(nullptr);
  EXPECT_EQ(m_mgr.DisposeClientReady(0x2a, "id", "text"), 0xB0010011u);
  m_mgr.SetCtx(static_cast<IBusContext*>(&m_bus));
}

// --- assetCollection.

TEST_F(AgentMgrHandlers, AssetCollection_PushesToTheComponents) {
  EXPECT_EQ(m_mgr.DisposeAssetCollection(
                0x2a, "id-1",
                R"({"Param":{"open":1,"list":[{"open":1,"interval":9,"combo":"Scan/One","task":{"a":1}},)"
                R"({"open":1,"interval":9,"combo":"veltcwpp/zxpwebassets","task":{}},)"
                R"({"open":1,"interval":9,"combo":"veltcwpp/zxpdockersd","task":{}}]}})"),
            0u)
      << "although nobody takes the last one";
  EXPECT_THAT(
      HandOffs(),
      ElementsAre(
          HandOff(kGuidScan, "assetCollection",
                  R"({"ID":"id-1","Command":"inner_asset_scan_cycle","combo":"Scan/One","open":1,)"
                  R"("interval":9,"task":{"a":1}})"),
          HandOff(kGuidWeb, "assetCollection",
                  R"({"ID":"id-1","combo":"veltcwpp/zxpwebassets","Command":"inner_asset_scan_cycle",)"
                  R"("data":[{"ID":"id-1","Command":"inner_asset_scan_cycle",)"
                  R"("combo":"veltcwpp/zxpwebassets","open":1,"interval":9,"task":{}}]})")));
  EXPECT_THAT(FilesBelow(Path("data/policy/assetcollection")),
              ElementsAre("One", "zxpdockersd", "zxpwebassets"));
}

TEST_F(AgentMgrHandlers, AssetCollection_AnswersGeneralFailure_WhenThePolicyIsRefused) {
  for (const char* pszMsg : {"", "not json", "{}", R"({"Param":{"open":1}})"})
    EXPECT_EQ(m_mgr.DisposeAssetCollection(0x2a, "id-1", pszMsg), 0xB0010001u) << pszMsg;
  EXPECT_THAT(HandOffs(), IsEmpty());
}

// --- msgsrvaddr.

namespace {
constexpr char kAddrBody[] = R"({"Param":[{"addr":"a:1","type":"1"},{"addr":"b:2","type":"2"}]})";
constexpr char kEngineFile[] = "etc/zxagent/inner/engineaddr.json";
}  // namespace

TEST_F(AgentMgrHandlers, MsgSrvAddr_StaysPending_UntilAnAddressAnswers) {
  m_cloud.SetResult(ECloudCall::TconfCheck, 1);
  EXPECT_EQ(m_mgr.DisposeMsgSrvAddrSet(0x2a, "id", kAddrBody), 0u);
  EXPECT_EQ(m_home.ReadFile("etc/zxagent/inner/msgsrvaddrset.json"), kAddrBody);
  EXPECT_EQ(Member(kEngineFile, "enginestatus"), "1");
  EXPECT_EQ(Member(kEngineFile, "engineaddr"), "") << "no engine address was in use";
  ASSERT_TRUE(m_log.Capture().WaitFor(
      "*zxagent CAgentMgr::ReMsgSrvAddrSet Error CheckMsgSrvAddrSet strMsgSrvAddrSet[a:1,b:2]"));
  EXPECT_THAT(m_cloud.Texts(ECloudCall::TconfCheck), ElementsAre("a:1", "a:1", "a:1", "b:2", "b:2", "b:2"));
  EXPECT_EQ(Member(kEngineFile, "enginestatus"), "1");
  EXPECT_EQ(m_cloud.Count(ECloudCall::Uninit), 0u);
}

TEST_F(AgentMgrHandlers, MsgSrvAddr_IsVerifiedAndUsed) {
  m_cloud.QueueResults(ECloudCall::TconfCheck, {1, 1, 1, 0});
  EXPECT_EQ(m_mgr.DisposeMsgSrvAddrSet(0x2a, "id", kAddrBody), 0u);
  ASSERT_TRUE(m_cloud.WaitCount(ECloudCall::SetOtherConnAddr, 1));
  EXPECT_THAT(m_cloud.Texts(ECloudCall::SetOtherConnAddr), ElementsAre("a:1,b:2"));
  EXPECT_EQ(Member(kEngineFile, "enginestatus"), "2");
  EXPECT_EQ(Member(kEngineFile, "engineaddr"), "a:1,b:2");
  ASSERT_TRUE(m_cloud.WaitCount(ECloudCall::Getopt, 2)) << "the channel was built again";

  // The next set is checked anew; meanwhile the record names the address in use.
  m_cloud.SetResult(ECloudCall::TconfCheck, 1);
  m_log.Clear();
  EXPECT_EQ(m_mgr.DisposeMsgSrvAddrSet(0x2b, "id", R"({"Param":[{"addr":"c:3","type":"1"}]})"), 0u);
  EXPECT_EQ(Member(kEngineFile, "enginestatus"), "1");
  EXPECT_EQ(Member(kEngineFile, "engineaddr"), "a:1,b:2");
  ASSERT_TRUE(m_log.Capture().WaitFor("ReMsgSrvAddrSet Error CheckMsgSrvAddrSet strMsgSrvAddrSet[c:3]"));
}

TEST_F(AgentMgrHandlers, MsgSrvAddr_TellsTheComponents) {
  m_cloud.SetResult(ECloudCall::TconfCheck, 1);
  RunWorkThread();
  EXPECT_EQ(m_mgr.DisposeMsgSrvAddrSet(0x2a, "id", kAddrBody), 0u);
  ASSERT_TRUE(m_bus.WaitCount(EBusCall::BroadcastSend, 1));
  EXPECT_THAT(Broadcasts(1008), ElementsAre(HasSubstr(R"("a:1","b:2")")));
}

TEST_F(AgentMgrHandlers, MsgSrvAddr_KeepsTheSet_WhenTheBodyIsBad) {
  for (const char* pszMsg : {"", "not json", "{}", R"({"Param":7})"}) {
    EXPECT_EQ(m_mgr.DisposeMsgSrvAddrSet(0x2a, "id", pszMsg), 0xB001008Eu) << pszMsg;
    EXPECT_EQ(LevelOf(std::string("**zxagent CAgentMgr::DisposeMsgSrvAddrSet Error ParseMsgSrvAddrSetData "
                                  "u64DataId[2a] strID[id] lpszMsg[") +
                      pszMsg + "]"),
              4)
        << pszMsg;
  }
  BlockSave("etc/zxagent/inner/msgsrvaddrset.json");
  EXPECT_EQ(m_mgr.DisposeMsgSrvAddrSet(0x2a, "id", kAddrBody), 0xB0010043u);
  EXPECT_EQ(LevelOf(std::string("**zxagent CAgentMgr::DisposeMsgSrvAddrSet Error SaveMsgSrvAddrSetData "
                                "u64DataId[2a] strID[id] lpszMsg[") +
                    kAddrBody + "]"),
            4);
  EXPECT_FALSE(m_home.Exists(kEngineFile));
  EXPECT_EQ(AgentThreads().Running(), m_uThreads) << "nothing to check";
}

// --- Policies that the task manager passes back.

TEST_F(AgentMgrHandlers, TaskmgrPolicy_RefusesBadTexts) {
  struct _Case {
    std::string strMsg;
    uint32_t uiExpect;
  };
  const _Case cases[] = {
      {"", 0xB0010081},
      {"not json", 0xB0010081},
      {R"({"Command":"assetCollection"})", 0xB0010084},
      {R"({"ID":"","Command":"assetCollection"})", 0xB0010085},
      {"{\"ID\":\"" + std::string(201, 'i') + R"(","Command":"assetCollection"})", 0xB0010085},
      {R"({"ID":"1"})", 0xB0010001},
      {R"({"ID":"1","Command":""})", 0xB0010001},
      {R"({"ID":"1","Command":"","command":"assetCollection"})", 0xB0010001},
      {R"({"ID":"1","Command":"assetcollection"})", 0xB0010001},
      {R"({"ID":"1","Command":"ClientReady"})", 0xB0010001},
      {R"({"ID":"1","Command":"assetCollection"})", 0xB0010001},
  };
  EXPECT_EQ(m_mgr.DisposeTaskmgrPolicy(nullptr), 0xB0010002u);
  for (const _Case& testCase : cases) {
    EXPECT_EQ(m_mgr.DisposeTaskmgrPolicy(testCase.strMsg.c_str()), testCase.uiExpect) << testCase.strMsg;
    EXPECT_EQ(LevelOf("zxagent CAgentMgr::DisposeTaskmgrPolicy lpszMsg[" + testCase.strMsg + "]"), 2);
  }
  EXPECT_THAT(Acks(), IsEmpty());
  EXPECT_THAT(HandOffs(), IsEmpty());
}

TEST_F(AgentMgrHandlers, TaskmgrPolicy_IsAppliedLikeOneOfTheCloud_WithoutAcknowledgement) {
  SetComponentResult(kBusErrGone);  // an answer of the component would be acknowledged
  const std::string strList =
      R"("Param":{"open":1,"list":[{"open":1,"interval":9,"combo":"Scan/One","task":{}}]}})";
  const std::string strID(200, 'i');
  EXPECT_EQ(m_mgr.DisposeTaskmgrPolicy(
                ("{\"ID\":\"" + strID + R"(","command":"assetCollection",)" + strList).c_str()),
            0u);
  EXPECT_THAT(HandOffs(),
              ElementsAre(StartsWith(std::string(kGuidScan) + "|assetCollection|{\"ID\":\"" + strID)));
  EXPECT_THAT(Acks(), IsEmpty());
  EXPECT_FALSE(m_home.Exists("data/policy/agentcache"));
}

TEST_F(AgentMgrHandlers, TaskmgrPolicy_TravelsThroughTheWorkQueue) {
  RunWorkThread();
  EXPECT_TRUE(m_mgr.DisposePolicy("{\"ID\":\"\"}"));
  EXPECT_TRUE(m_mgr.DisposePolicy(
      R"({"ID":"1","Command":"assetCollection","Param":{"open":1,"list":[{"open":1,"interval":9,"combo":"Scan/One","task":{}}]}})"));
  ASSERT_TRUE(m_bus.WaitCount(EBusCall::AsynSendEx, 1));
  EXPECT_THAT(HandOffs(), ElementsAre(StartsWith(kGuidScan)));
  EXPECT_TRUE(Logged("zxagent CAgentMgr::DisposeTaskmgrPolicy lpszMsg[{\"ID\":\"\"}]")) << "in order";
}

// In a process of its own, since the counters live as long as the library is loaded.
TEST_F(AgentMgrHandlers, TaskmgrPolicy_HasNumbersOfItsOwn_FromOne) {
  ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_EXIT(
      {
        const char* pszPolicy = R"({"ID":"1","Command":"assetCollection"})";
        Push(kPcidScan, Command("1", "any"));
        Push(kPcidScan, Command("1", "any"));
        m_mgr.DisposeTaskmgrPolicy(R"({"ID":"1","Command":""})");
        m_mgr.DisposeTaskmgrPolicy(pszPolicy);
        m_log.Clear();
        m_mgr.DisposeTaskmgrPolicy(pszPolicy);
        Push(kPcidScan, Command("1", "any"));
        std::_Exit(Logged("*zxagent CAgentAsset::ParseAssetPolicy GetNode Param Fail u64DataId[2] ") &&
                           Logged("zxagent pushmsg Begin recvnew u64DataId[3] ")
                       ? 0
                       : 1);
      },
      ::testing::ExitedWithCode(0), "");
}
