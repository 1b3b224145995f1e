#include "agent/CommandFixture.h"
#include "send/AgentCallback.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

class AgentMgrRouting : public CCommandTest {
 protected:
  uint32_t HandOver(const char* pszMsg = "body") {
    return m_mgr.SendPushmsgToTaskMgr(0x2a, "id-1", kGuidA, "Scan", "One", "Do", pszMsg);
  }
  std::string LastLine(const char* pszChannel = "zxagent") const { return m_log.Lines(pszChannel).back(); }
};

// --- Commands handed over, and their results.

TEST_F(AgentMgrRouting, SendPushmsg_SendsTheHandOffText_ToTheTaskManager) {
  EXPECT_EQ(HandOver("<a=b>\"%s\"</x>"), 0u);
  ASSERT_THAT(HandOffs(), SizeIs(1));
  const _BusCall call = HandOffs()[0];
  EXPECT_EQ(
      call.strData,
      "<version=1><guid=11111111-1111-1111-1111-111111111111><product=Scan><combo=One><command=Do><msg=<a=b>\"%s\"</x>>");
  EXPECT_EQ(call.guid, GUID("FAB922A8-736E-4CB5-A666-4FD849A3049A"));
  EXPECT_EQ(call.uiTimeoutMs, 60000u);
  EXPECT_EQ(call.pCallback, &CAgentAsynCallback::m_AgentAsynCallback);
  const auto* pSendData = static_cast<const _SendTaskMgrData*>(call.pContext);
  EXPECT_EQ(pSendData->iResult, -1);
  EXPECT_EQ(pSendData->ui64ACT, 0u);
  EXPECT_EQ(pSendData->u64DataId, 0x2au);
  EXPECT_EQ(pSendData->strProduct, "Scan");
  EXPECT_EQ(pSendData->strCombo, "One");
  EXPECT_EQ(pSendData->strID, "id-1");
  EXPECT_EQ(pSendData->strCommand, "Do");
}

TEST_F(AgentMgrRouting, SendPushmsg_LogsBeginAndEnd) {
  EXPECT_EQ(HandOver(), 0u);
  EXPECT_THAT(
      m_log.Lines("zxagent"),
      ElementsAre(
          "zxagent pushmsg send taskmgr Begin u64DataId[2a] strID[id-1] strProduct[Scan] strCombo[One] strCommand[Do] strGuid[11111111-1111-1111-1111-111111111111] strSendMsg[<version=1><guid=11111111-1111-1111-1111-111111111111><product=Scan><combo=One><command=Do><msg=body>]",
          "zxagent pushmsg send taskmgr End OK u64DataId[2a] ui64ACT[1] strID[id-1] strProduct[Scan] strCombo[One] strCommand[Do] strGuid[11111111-1111-1111-1111-111111111111]"));
}

TEST_F(AgentMgrRouting, SendPushmsg_Refuses_WithoutBusContext) {
  m_mgr.SetCtx(nullptr);
  EXPECT_EQ(HandOver(), 0xB0010011u);
  EXPECT_EQ(
      LastLine(),
      "**zxagent pushmsg Error m_pCompCtx is NULL u64DataId[2a] strID[id-1] strProduct[Scan] strCombo[One] strGuid[11111111-1111-1111-1111-111111111111] strMsg[body]");
  EXPECT_EQ(m_log.Levels("zxagent").back(), 4);
  EXPECT_THAT(m_bus.Calls(EBusCall::AsynSendEx), IsEmpty());
}

TEST_F(AgentMgrRouting, SendPushmsg_PassesTheBusErrorOn_WithoutAcknowledgement) {
  m_bus.SetResult(EBusCall::AsynSendEx, kBusErrNoTarget);
  EXPECT_EQ(HandOver(), static_cast<uint32_t>(kBusErrNoTarget));
  SettleAll();
  EXPECT_EQ(
      LastLine(),
      "**zxagent pushmsg Error AsynSendEx u64DataId[2a] iRet[b0020002] strID[id-1] strProduct[Scan] strCombo[One] strCommand[Do] strGuid[11111111-1111-1111-1111-111111111111]");
  EXPECT_THAT(m_cloud.Calls(), IsEmpty());
}

TEST_F(AgentMgrRouting, SendPushmsg_SurvivesACompletion_ThatComesBeforeTheSendReturns) {
  m_bus.CompleteAtOnce(0, "");
  EXPECT_EQ(HandOver(), 0u);
  SettleAll();
  EXPECT_THAT(Acks(), ElementsAre(R"({"ID":"id-1","msg_type":"3"})"));
  EXPECT_THAT(LastLine(),
              StartsWith("zxagent pushmsg send taskmgr End OK u64DataId[2a] ui64ACT[1] strID[id-1] "));
}

TEST_F(AgentMgrRouting, Completion_AcknowledgesEachResult_WhenACommandWentToTwoComponents) {
  EXPECT_EQ(m_mgr.ZxcloudPushmsg(kPcidScan, R"({"ID":"id-1","Command":"fanout"})"), 1);
  ASSERT_THAT(HandOffs(), SizeIs(2));
  EXPECT_NE(HandOffs()[0].pContext, HandOffs()[1].pContext);
  Answer(HandOffs()[1], 0);
  Answer(HandOffs()[0], 0);
  EXPECT_THAT(Acks(), ElementsAre(R"({"ID":"id-1","msg_type":"3"})", R"({"ID":"id-1","msg_type":"3"})"));
  EXPECT_THAT(LastLine(), StartsWith("zxagent pushmsg callback OK u64DataId["));
  EXPECT_THAT(LastLine(), HasSubstr("] ui64ACT[1] strID[id-1] strProduct[Scan] strCombo[One]\n"));
}

TEST_F(AgentMgrRouting, Completion_LeavesTheCommandOpen_WhenTheComponentFailed) {
  EXPECT_EQ(HandOver(), 0u);
  Answer(HandOffs()[0], kBusErrTimeout);
  EXPECT_THAT(m_cloud.Calls(), IsEmpty());
  EXPECT_EQ(
      LastLine(),
      "*zxagent pushmsg callback Error RecvMsgResultsFromTaskMgr u64DataId[2a] iResult[b0020004] ui64ACT[1] strID[id-1] strProduct[Scan] strCombo[One]");
}

TEST_F(AgentMgrRouting, RecvResults_AnswersItsCodes) {
  EXPECT_EQ(m_mgr.RecvMsgResultsFromTaskMgr(nullptr), 0xB0010001u);
  EXPECT_EQ(LastLine(), "*zxagent pushmsg callback Error RecvMsgResultsFromTaskMgr pSendData is NULL");
  _SendTaskMgrData sendData;
  sendData.strID = "id-1";
  EXPECT_EQ(m_mgr.RecvMsgResultsFromTaskMgr(&sendData), 0xFFFFFFFFu) << "no result yet is no success";
  EXPECT_THAT(m_cloud.Calls(), IsEmpty());
  sendData.iResult = 0;
  EXPECT_EQ(m_mgr.RecvMsgResultsFromTaskMgr(&sendData), 0u);
  m_cloud.SetResult(ECloudCall::Send, kZxcloudErrFull);
  EXPECT_EQ(m_mgr.RecvMsgResultsFromTaskMgr(&sendData), 0xB0010025u);
  EXPECT_EQ(
      LastLine(),
      "zxagent pushmsg callback Error SendResponseMsg u64DataId[0] iRet[b0010025] ui64ACT[0] strID[id-1] strProduct[] strCombo[]\n");
  EXPECT_THAT(m_cloud.Calls(), SizeIs(2));
}

// --- Outcomes of uploads.

TEST_F(AgentMgrRouting, LogCacheResult_SendsThirtyTwoBytes) {
  EXPECT_EQ(m_mgr.SendLogCacheResult(static_cast<int>(0xB0010026), 0x1122334455667788ull, 1, 2, "P", "C"),
            0u);
  ASSERT_EQ(m_bus.Count(EBusCall::AsynSendEx), 1u);
  const _BusCall call = m_bus.Calls(EBusCall::AsynSendEx)[0];
  EXPECT_EQ(call.uiType, 20003u);
  EXPECT_EQ(call.guid, GUID("9946467F-0102-46E8-ACAC-B9EFE3CD68FD"));
  EXPECT_EQ(call.pCallback, &CLogCacheResultAsynCallback::m_LogCacheResultAsynCallback);
  EXPECT_EQ(call.pContext, nullptr);
  EXPECT_EQ(call.uiTimeoutMs, 60000u);
  EXPECT_EQ(call.strData, std::string("\0\0\0\0\x26\x00\x01\xB0\x88\x77\x66\x55\x44\x33\x22\x11", 16) +
                              std::string(16, '\0'));
  EXPECT_EQ(
      LastLine("zxlogcache"),
      "zxagent stepC OK send result iResult[b0010026] u64DataId[1122334455667788] iPriv[1] iMsgType[2] strProduct[P] strCombo[C]");
  EXPECT_EQ(m_log.Levels("zxlogcache").back(), 2);
}

TEST_F(AgentMgrRouting, TaskMgrResult_SendsFortyEightBytes) {
  EXPECT_EQ(m_mgr.SendTaskMgrResult(-2, 3, 1, 2, "P", "C"), 0u);
  ASSERT_EQ(m_bus.Count(EBusCall::AsynSendEx), 1u);
  const _BusCall call = m_bus.Calls(EBusCall::AsynSendEx)[0];
  EXPECT_EQ(call.uiType, 20105u);
  EXPECT_EQ(call.guid, GUID("FAB922A8-736E-4CB5-A666-4FD849A3049A"));
  EXPECT_EQ(call.pCallback, &CLogCacheResultAsynCallback::m_LogCacheResultAsynCallback);
  EXPECT_EQ(call.pContext, nullptr);
  EXPECT_EQ(call.strData,
            std::string("\0\0\0\0\xFE\xFF\xFF\xFF\x03\0\0\0\0\0\0\0", 16) + std::string(32, '\0'));
  EXPECT_EQ(
      LastLine("zxlogcache"),
      "zxagent stepC OK SendTaskMgrResult send result iResult[fffffffe] u64DataId[3] iPriv[1] iMsgType[2] strProduct[P] strCombo[C]\n");
}

TEST_F(AgentMgrRouting, UploadResults_PassTheBusErrorOn) {
  m_bus.SetResult(EBusCall::AsynSendEx, kBusErrGone);
  EXPECT_EQ(m_mgr.SendLogCacheResult(1, 3, 1, 2, "P", "C"), static_cast<uint32_t>(kBusErrGone));
  EXPECT_EQ(
      LastLine("zxlogcache"),
      "*zxagent stepC Error AsynSendEx iRet[b0020005] iResult[1] u64DataId[3] iPriv[1] iMsgType[2] strProduct[P] strCombo[C]");
  EXPECT_EQ(m_mgr.SendTaskMgrResult(1, 3, 1, 2, "P", "C"), static_cast<uint32_t>(kBusErrGone));
  EXPECT_EQ(
      LastLine("zxlogcache"),
      "*zxagent stepC Error SendTaskMgrResult AsynSendEx iRet[b0020005] iResult[1] u64DataId[3] iPriv[1] iMsgType[2] strProduct[P] strCombo[C]\n");
  EXPECT_THAT(m_log.Levels("zxlogcache"), ElementsAre(3, 3));
}

TEST_F(AgentMgrRouting, UploadResults_Refuse_WithoutBusContext) {
  m_mgr.SetCtx(nullptr);
  EXPECT_EQ(m_mgr.SendLogCacheResult(1, 3, 1, 2, "P", "C"), 0xB0010011u);
  EXPECT_EQ(m_mgr.SendTaskMgrResult(1, 3, 1, 2, "P", "C"), 0xB0010011u);
  EXPECT_THAT(m_log.Lines("zxlogcache"), SizeIs(2));
}

// --- Direct sends.

TEST_F(AgentMgrRouting, ZxcloudSendMsg_SendsBlocking) {
  EXPECT_EQ(m_mgr.ZxcloudSendMsg(9, "P", "C", 1, 1, "body"), 0u);
  ASSERT_THAT(m_cloud.Calls(), SizeIs(1));
  EXPECT_EQ(m_cloud.Calls()[0].eCall, ECloudCall::SendSync);
  EXPECT_EQ(m_cloud.Calls()[0].iPriority, 1);
  EXPECT_THAT(m_cloud.Calls()[0].strText, HasSubstr("<PCServerJasonData=body>"));
  EXPECT_EQ(LastLine(),
            "zxagent CAgentMgr::ZxcloudSendMsg OK u64DataId[9] strProduct[P] strCombo[C] strMsg[body]\n");
  m_cloud.SetResult(ECloudCall::SendSync, 1);
  EXPECT_EQ(m_mgr.ZxcloudSendMsg(9, "P", "C", 1, 1, "body"), 0xB0010026u);
  EXPECT_EQ(
      LastLine(),
      "*zxagent CAgentMgr::ZxcloudSendMsg Warn u64DataId[9] iRet[b0010026] strProduct[P] strCombo[C] strMsg[body]\n");
}

// --- Engine addresses.

TEST_F(AgentMgrRouting, EngineAddr_BroadcastsOnEveryCall) {
  ASSERT_EQ(m_mgr.Data().SaveCustomCloudAddr("10.0.0.1:443"), 1);
  EXPECT_EQ(m_mgr.SendEngineAddr(), 1);
  EXPECT_EQ(m_mgr.SendEngineAddr(), 1);
  const auto calls = m_bus.Calls(EBusCall::BroadcastSend);
  ASSERT_THAT(calls, SizeIs(2));
  EXPECT_EQ(calls[0].uiType, 1008u);
  EXPECT_EQ(calls[0].strData, R"({"allengineaddr":["10.0.0.1:443"]})");
  EXPECT_EQ(calls[1].strData, calls[0].strData);
  EXPECT_EQ(LastLine(),
            R"(zxagent CAgentMgr::SendEngineAddr OK strJsonStr[{"allengineaddr":["10.0.0.1:443"]}])");
  EXPECT_TRUE(m_home.Exists("etc/zxagent/allengineaddr.json"));
}

TEST_F(AgentMgrRouting, EngineAddr_SendsNothing_WithoutAddresses) {
  EXPECT_EQ(m_mgr.SendEngineAddr(), 0);
  EXPECT_EQ(LastLine(),
            "*zxagent CAgentMgr::SendEngineAddr Error ReadAllEngineAddr strEngineAddrSet is NULL");
  EXPECT_EQ(m_bus.Count(EBusCall::BroadcastSend), 0u);
}

TEST_F(AgentMgrRouting, EngineAddr_SendsNothing_WhenTheSetCannotBeSaved) {
  ASSERT_EQ(m_mgr.Data().SaveCustomCloudAddr("10.0.0.1:443"), 1);
  m_home.MakeDir("etc/zxagent/allengineaddr.json.tmp");
  EXPECT_EQ(m_mgr.SendEngineAddr(), 0);
  EXPECT_THAT(
      LastLine(),
      StartsWith(
          "*zxagent CAgentMgr::SendEngineAddr Error SaveAllEngineAddr strEngineAddrSet[1] strJsonStr["));
  EXPECT_EQ(m_bus.Count(EBusCall::BroadcastSend), 0u);
}

TEST_F(AgentMgrRouting, EngineAddr_AnswersZero_WhenTheBusIsMissingOrRefuses) {
  ASSERT_EQ(m_mgr.Data().SaveCustomCloudAddr("10.0.0.1:443"), 1);
  m_bus.SetResult(EBusCall::BroadcastSend, kBusErrGone);
  EXPECT_EQ(m_mgr.SendEngineAddr(), 0);
  EXPECT_EQ(
      LastLine(),
      R"(*zxagent CAgentMgr::SendEngineAddr Error iRet[b0020005] strJsonStr[{"allengineaddr":["10.0.0.1:443"]}])");
  m_mgr.SetCtx(nullptr);
  EXPECT_EQ(m_mgr.SendEngineAddr(), 0);
  EXPECT_EQ(LastLine(), "*zxagent CAgentMgr::SendEngineAddr Error m_pCompCtx is NULL");
}
