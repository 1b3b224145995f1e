#include <atomic>
#include <thread>

#include "agent/CommandFixture.h"
#include "send/AgentCallback.h"

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr char kGuidList[] =
    R"({"command":{)"
    R"("fanout":[{"guid":"22222222-2222-2222-2222-222222222222","productcombo":"/"},)"
    R"({"guid":"33333333-3333-3333-3333-333333333333","productcombo":"/"}],)"
    R"("limited":[{"guid":"33333333-3333-3333-3333-333333333333","productcombo":"Scan/One"}],)"
    R"("push":[{"guid":"11111111-1111-1111-1111-111111111111","productcombo":"veltExtHost/MessagePush"}]},)"
    R"("productcombo":{"scan/one":"11111111-1111-1111-1111-111111111111",)"
    R"("veltexthost/pluginmgr":"44444444-4444-4444-4444-444444444444"}})";

}  // namespace

class AgentMgrGuidList : public CCommandTest {
 protected:
  std::string LastLine() const { return m_log.Lines("zxagent").back(); }

  // Length of the work queue as the manager reports it.
  bool QueueHas(int iCount) {
    m_log.Clear();
    m_mgr.ZxcloudPollmsg(0, "");
    return m_log.Capture().Contains("ZxcloudPollmsg Begin recvnew iFlag[0]") &&
           m_log.Capture().Contains("queueCount[" + std::to_string(iCount) + "]");
  }
};

TEST_F(AgentMgrGuidList, GetList_ShowsRoutesAndUnambiguousCombos) {
  CPString strJson;
  EXPECT_EQ(m_mgr.GetTaskmgrGuidList(strJson), 1);
  EXPECT_EQ(strJson, kGuidList);
  EXPECT_THAT(m_log.Lines("zxagent"),
              Contains("*zxagent CAgentMgr::GetTaskmgrGuidList Warn p/c[scan/two] GuidList[2]"));
}

TEST_F(AgentMgrGuidList, GetList_OverwritesTheFileOfTheAgentDirectory) {
  const char* pszFile = "data/zxagent/maint/zxpagentpcguid.json";
  m_home.WriteFile(pszFile, std::string(10000, 'x'));
  CPString strJson;
  EXPECT_EQ(m_mgr.GetTaskmgrGuidList(strJson), 1);
  EXPECT_EQ(m_home.ReadFile(pszFile), kGuidList);
}

TEST_F(AgentMgrGuidList, GetList_StillAnswers_WhenTheFileCannotBeWritten) {
  m_home.MakeDir("data/zxagent/maint/zxpagentpcguid.json");
  CPString strJson;
  EXPECT_EQ(m_mgr.GetTaskmgrGuidList(strJson), 1);
  EXPECT_EQ(strJson, kGuidList);
  EXPECT_THAT(LastLine(), HasSubstr("GetTaskmgrGuidList Warn ZxSaveFileData Error["));
}

TEST_F(AgentMgrGuidList, GetList_Refuses_WithoutBusContext) {
  m_mgr.SetCtx(nullptr);
  CPString strJson;
  EXPECT_EQ(m_mgr.GetTaskmgrGuidList(strJson), 0);
  EXPECT_EQ(LastLine(), "**zxagent CAgentMgr::GetTaskmgrGuidList Error m_pCompCtx is NULL");
  EXPECT_EQ(m_mgr.SendGuidList2Taskmgr(), 0);
  EXPECT_EQ(LastLine(), "*zxagent CAgentMgr::SendGuidList2Taskmgr Warn GetTaskmgrGuidList");
  EXPECT_TRUE(QueueHas(0));
}

TEST_F(AgentMgrGuidList, SendList_QueuesTheText) {
  EXPECT_EQ(m_mgr.SendGuidList2Taskmgr(), 1);
  EXPECT_EQ(LastLine(),
            std::string("zxagent CAgentMgr::SendGuidList2Taskmgr End OK strJson[") + kGuidList + "]");
  EXPECT_EQ(m_bus.Count(EBusCall::AsynSendEx), 0u) << "the work thread sends it";
  EXPECT_TRUE(QueueHas(1));
}

TEST_F(AgentMgrGuidList, GuidData_SendsTheTextToTheTaskManager) {
  EXPECT_EQ(m_mgr.ZxagentGuidData("{\"x\":1}"), 1);
  ASSERT_EQ(m_bus.Count(EBusCall::AsynSendEx), 1u);
  const _BusCall call = m_bus.Calls(EBusCall::AsynSendEx)[0];
  EXPECT_EQ(call.uiType, 20104u);
  EXPECT_EQ(call.guid, GUID("FAB922A8-736E-4CB5-A666-4FD849A3049A"));
  EXPECT_EQ(call.strData, "{\"x\":1}");
  EXPECT_EQ(call.pCallback, &CAgentAsynCallback::m_AgentAsynCallback);
  EXPECT_EQ(call.pContext, nullptr);
  EXPECT_EQ(call.uiTimeoutMs, 60000u);
  EXPECT_EQ(LastLine(), "zxagent CAgentMgr::ZxagentGuidData End AsynSendEx ui64ACT[1] lpszData[{\"x\":1}]\n");
}

TEST_F(AgentMgrGuidList, GuidData_AnswersZero_WhenItCannotSend) {
  EXPECT_EQ(m_mgr.ZxagentGuidData(nullptr), 0);
  EXPECT_EQ(m_mgr.ZxagentGuidData(""), 0);
  EXPECT_THAT(m_bus.Calls(), IsEmpty());
  EXPECT_THAT(m_log.Lines("zxagent"), IsEmpty());
  m_bus.SetResult(EBusCall::AsynSendEx, kBusErrNoTarget);
  EXPECT_EQ(m_mgr.ZxagentGuidData("x"), 0);
  EXPECT_EQ(LastLine(), "*zxagent CAgentMgr::ZxagentGuidData Error iRet[b0020002] lpszData[x]\n");
  m_mgr.SetCtx(nullptr);
  EXPECT_EQ(m_mgr.ZxagentGuidData("x"), 0);
  EXPECT_EQ(LastLine(), "*zxagent CAgentMgr::ZxagentGuidData Error m_pCompCtx is NULL lpszData[x]\n");
}

TEST_F(AgentMgrGuidList, AuthChange_RebuildsTheRoutesAndPublishes) {
  m_proxy.SetText("{\"list\":[" + CFakeConfigProxy::Plugin(kGuidB, "New", "Plug") + "]}");
  EXPECT_EQ(m_mgr.NotifyAuthChange(), 0u);
  EXPECT_EQ(LastLine(), "zxagent CAgentMgr::NotifyAuthChange End OK");
  EXPECT_TRUE(QueueHas(1));
  CPString strJson;
  EXPECT_EQ(m_mgr.GetTaskmgrGuidList(strJson), 1);
  EXPECT_THAT(strJson.Str(),
              HasSubstr(R"("productcombo":{"new/plug":"22222222-2222-2222-2222-222222222222"})"));
  EXPECT_EQ(m_mgr.DisposePushmsg(1, "new", "PLUG", R"({"ID":"1"})"), 0u);
  EXPECT_THAT(HandOffs(), SizeIs(1));
}

TEST_F(AgentMgrGuidList, AuthChange_KeepsTheRoutesAndPublishesNothing_WhenNoPlugInIsFound) {
  m_proxy.SetText("{\"list\":[]}");
  EXPECT_EQ(m_mgr.NotifyAuthChange(), 0xB0010001u);
  EXPECT_EQ(LastLine(), "*zxagent CAgentMgr::NotifyAuthChange Warn LoadCommandGuid");
  EXPECT_TRUE(QueueHas(0));
  CPString strJson;
  EXPECT_EQ(m_mgr.GetTaskmgrGuidList(strJson), 1);
  EXPECT_EQ(strJson, kGuidList);
}

// Rebuilds come on bus threads while the work thread routes and bus threads complete.
TEST_F(AgentMgrGuidList, AuthChange_MayComeWhileCommandsAreRouted) {
  constexpr int kCommands = 100;
  m_bus.CompleteAtOnce(0, "");
  std::atomic<bool> bStop{false};
  std::thread rebuilder([&] {
    while (!bStop.load())
      EXPECT_EQ(m_mgr.NotifyAuthChange(), 0u);
  });
  for (int i = 0; i < kCommands; ++i)
    EXPECT_EQ(m_mgr.ZxcloudPushmsg(kPcidScan, R"({"ID":"1","Command":"fanout"})"), 1);
  bStop = true;
  rebuilder.join();
  SettleAll();
  EXPECT_THAT(HandOffs(), SizeIs(2 * kCommands));
  EXPECT_THAT(Acks(), SizeIs(2 * kCommands));
}
