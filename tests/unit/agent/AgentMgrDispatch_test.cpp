#include <cstdlib>

#include "agent/CommandFixture.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

class AgentMgrDispatch : public CCommandTest {
 protected:
  uint32_t Dispose(const char* lpszMsg) { return m_mgr.DisposePushmsg(0x2a, "Scan", "One", lpszMsg); }
  std::string LastLine() const { return m_log.Lines("zxagent").back(); }

  // The data id in the first line of the latest pushed command.
  unsigned long long LastDataId() const {
    const std::string strMark = "zxagent pushmsg Begin recvnew u64DataId[";
    unsigned long long u64DataId = 0;
    for (const std::string& strLine : m_log.Lines("zxagent"))
      if (strLine.compare(0, strMark.size(), strMark) == 0)
        u64DataId = std::strtoull(strLine.c_str() + strMark.size(), nullptr, 16);
    return u64DataId;
  }
};

TEST_F(AgentMgrDispatch, Pushmsg_HandsTheCommandOn_AndAnswersOne) {
  EXPECT_EQ(m_mgr.ZxcloudPushmsg(kPcidScan, R"({"ID":"id-1","Command":"Do","x":[1]})"), 1);
  EXPECT_THAT(HandOffTexts(),
              ElementsAre(HandOff(kGuidA, "Scan", "One", "Do", R"({"ID":"id-1","Command":"Do","x":[1]})")));
  EXPECT_THAT(LastLine(), StartsWith("zxagent pushmsg End OK u64DataId["));
  EXPECT_THAT(LastLine(), HasSubstr("] iPcid[1001] strProduct[Scan] strCombo[One] queueCount[0]\n"));
  EXPECT_THAT(m_cloud.Calls(), IsEmpty()) << "the component acknowledges";
}

TEST_F(AgentMgrDispatch, Pushmsg_NumbersEveryCommand_ButNotANullText) {
  m_mgr.ZxcloudPushmsg(kPcidScan, R"({"ID":"1"})");
  const unsigned long long u64First = LastDataId();
  EXPECT_EQ(m_mgr.ZxcloudPushmsg(kPcidScan, nullptr), 0);
  EXPECT_EQ(LastLine(), "*zxagent CAgentMgr::ZxcloudPushmsg Error lpszMsg is NULL iPcid[1001]");
  m_mgr.ZxcloudPushmsg(kPcidScan, "not json");
  EXPECT_EQ(LastDataId(), u64First + 1);
  m_mgr.ZxcloudPushmsg(4711, R"({"ID":"1"})");
  EXPECT_EQ(LastDataId(), u64First + 2);
}

// In a process of its own, since the counter lives as long as the library is loaded.
TEST_F(AgentMgrDispatch, Pushmsg_StartsAtOne_AfterLoad) {
  ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_EXIT(
      {
        m_mgr.ZxcloudPushmsg(kPcidScan, nullptr);
        m_mgr.ZxcloudPushmsg(kPcidNobody, R"({"ID":"1"})");
        std::_Exit(LastDataId() == 1 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(AgentMgrDispatch, Pushmsg_AnswersZeroWithoutAcknowledgement_WhenTheBusinessIsUnknown) {
  EXPECT_EQ(m_mgr.ZxcloudPushmsg(4711, R"({"ID":"1"})"), 0);
  EXPECT_THAT(LastLine(), StartsWith("*zxagent pushmsg Error GetProductComboByID not find pcid u64DataId["));
  EXPECT_THAT(LastLine(), HasSubstr("] err[b0010051] iPcid[4711] lpszMsg[{\"ID\":\"1\"}]"));
  EXPECT_THAT(m_cloud.Calls(), IsEmpty());
  EXPECT_THAT(HandOffs(), IsEmpty());
}

TEST_F(AgentMgrDispatch, Pushmsg_LogsTheCode_WhenDispatchFails) {
  EXPECT_EQ(m_mgr.ZxcloudPushmsg(kPcidScan, "not json"), 0);
  EXPECT_THAT(LastLine(), StartsWith("*zxagent pushmsg Error DisposePushmsg u64DataId["));
  EXPECT_THAT(LastLine(), HasSubstr("] iRet[b0010081] iPcid[1001] strProduct[Scan] strCombo[One]"));
}

TEST_F(AgentMgrDispatch, Dispose_RefusesBadTexts_WithoutAcknowledgement) {
  struct _Case {
    const char* pszName;
    std::string strMsg;
    uint32_t uiExpect;
    const char* pszLine;
  };
  const std::string strIdHead = "*zxagent pushmsg Error JSON ID u64DataId[2a] strID[";
  const _Case cases[] = {
      {"empty", "", 0xB0010081,
       "*zxagent pushmsg Error Parse JSON u64DataId[2a] strProduct[Scan] strCombo[One] lpszMsg[]"},
      {"garbage", "{]", 0xB0010081,
       "*zxagent pushmsg Error Parse JSON u64DataId[2a] strProduct[Scan] strCombo[One] lpszMsg[{]]"},
      {"trailing", R"({"ID":"1"} x)", 0xB0010081, "*zxagent pushmsg Error Parse JSON "},
      {"deep", "{\"ID\":" + std::string(100000, '[') + std::string(100000, ']') + "}", 0xB0010081,
       "*zxagent pushmsg Error Parse JSON "},
      {"noId", R"({"id":"1"})", 0xB0010084,
       "*zxagent pushmsg Error Get JSON ID u64DataId[2a] strProduct[Scan] strCombo[One] lpszMsg[{\"id\":\"1\"}]"},
      {"nested", R"({"x":{"ID":"1"}})", 0xB0010084, "*zxagent pushmsg Error Get JSON ID "},
      {"array", R"([{"ID":"1"}])", 0xB0010084, "*zxagent pushmsg Error Get JSON ID "},
      {"text", R"("ID")", 0xB0010084, "*zxagent pushmsg Error Get JSON ID "},
      {"emptyId", R"({"ID":""})", 0xB0010085, "*zxagent pushmsg Error JSON ID u64DataId[2a] strID[] "},
      {"nullId", R"({"ID":null})", 0xB0010085, "*zxagent pushmsg Error JSON ID u64DataId[2a] strID[] "},
      {"longId", "{\"ID\":\"" + std::string(201, 'i') + "\"}", 0xB0010085,
       "*zxagent pushmsg Error JSON ID u64DataId[2a] strID[iiii"},
      {"hugeId", "{\"ID\":\"" + std::string(1u << 20, 'i') + "\"}", 0xB0010085,
       "*zxagent pushmsg Error JSON ID u64DataId[2a] strID[("},
  };
  for (const _Case& testCase : cases) {
    EXPECT_EQ(Dispose(testCase.strMsg.c_str()), testCase.uiExpect) << testCase.pszName;
    EXPECT_THAT(LastLine(), StartsWith(testCase.pszLine)) << testCase.pszName;
    EXPECT_LT(LastLine().size(), 10000u) << testCase.pszName << ": a refused text is not logged in megabytes";
  }
  EXPECT_EQ(Dispose(nullptr), 0xB0010002u);
  EXPECT_EQ(LastLine(),
            "*zxagent pushmsg Error lpszMsg is NULL u64DataId[2a] strProduct[Scan] strCombo[One]");
  EXPECT_THAT(m_cloud.Calls(), IsEmpty());
  EXPECT_THAT(HandOffs(), IsEmpty());
  EXPECT_THAT(m_log.Lines("zxagentflow"), IsEmpty());
}

TEST_F(AgentMgrDispatch, Dispose_AcceptsIds_OfOneToTwoHundredBytesAndOfOtherTypes) {
  for (const std::string& strValue :
       {"\"" + std::string(200, 'i') + "\"", std::string("\"x\""), std::string("12345"), std::string("1.5"),
        std::string("true"), std::string("{\"a\":1}")}) {
    const std::string strMsg = "{\"ID\":" + strValue + "}";
    EXPECT_EQ(Dispose(strMsg.c_str()), 0u) << strValue;
  }
  EXPECT_THAT(HandOffs(), SizeIs(6));
}

TEST_F(AgentMgrDispatch, Dispose_AcknowledgesNumbersAsText) {
  EXPECT_EQ(m_mgr.DisposePushmsg(1, "Scan", "None", R"({"ID":12345})"), 0xB0010055u);
  EXPECT_THAT(Acks(), ElementsAre(R"({"ID":"12345","msg_type":"4"})"));
}

TEST_F(AgentMgrDispatch, Dispose_LeavesQuotesOfTheIdUnescaped_InTheAcknowledgement) {
  EXPECT_EQ(m_mgr.DisposePushmsg(1, "Scan", "None", R"({"ID":"a\"b%s"})"), 0xB0010055u);
  EXPECT_THAT(Acks(), ElementsAre(R"({"ID":"a"b%s","msg_type":"4"})"));
}

TEST_F(AgentMgrDispatch, Dispose_ReadsTheCommandName) {
  struct _Case {
    const char* pszMsg;
    const char* pszCommand;
  };
  for (const _Case& testCase :
       {_Case{R"({"ID":"1","Command":"Upper","command":"lower"})", "Upper"},
        _Case{R"({"ID":"1","command":"lower","Command":"Upper"})", "Upper"},
        _Case{R"({"ID":"1","command":"lower"})", "lower"},
        _Case{R"({"ID":"1","Command":"","command":"lower"})", ""}, _Case{R"({"ID":"1"})", ""},
        _Case{R"({"ID":"1","COMMAND":"x"})", ""}, _Case{R"({"ID":"1","Command":7})", "7"},
        _Case{R"({"ID":"1","Command":null,"command":"lower"})", ""}}) {
    EXPECT_EQ(Dispose(testCase.pszMsg), 0u);
    EXPECT_EQ(HandOffs().back().strData,
              HandOff(kGuidA, "Scan", "One", testCase.pszCommand, testCase.pszMsg));
  }
}

TEST_F(AgentMgrDispatch, Dispose_WritesOneNotification_ToTheFlowLogOnly) {
  const char* pszMsg = R"({"ID":"id-1","Command":"Do"})";
  EXPECT_EQ(Dispose(pszMsg), 0u);
  EXPECT_THAT(
      m_log.Lines("zxagentflow"),
      ElementsAre(std::string("agent\xE6\x94\xB6\xE5\x88\xB0\xE6\xB6\x88\xE6\x81\xAF\nid:id-1\ncommand:Do\n"
                              "product:Scan\ncombo:One\nlpszMsg:") +
                  pszMsg + "\n"));
  EXPECT_THAT(m_log.Levels("zxagentflow"), ElementsAre(2));
  EXPECT_THAT(m_log.Lines("zxagent"), ::testing::Not(Contains(StartsWith("agent"))));
}

TEST_F(AgentMgrDispatch, Dispose_HandsTheCommandToBothComponents_InTableOrder) {
  const char* pszMsg = R"({"ID":"1","Command":"fanOut"})";
  EXPECT_EQ(Dispose(pszMsg), 0u);
  EXPECT_THAT(HandOffTexts(), ElementsAre(HandOff(kGuidB, "Scan", "One", "fanOut", pszMsg),
                                          HandOff(kGuidC, "Scan", "One", "fanOut", pszMsg)));
}

TEST_F(AgentMgrDispatch, Dispose_AnswersZero_WhenAHandOffFails) {
  m_bus.SetResult(EBusCall::AsynSendEx, kBusErrBusy);
  // The answer to a call is taken before its hook runs: the first is refused, the second accepted.
  m_bus.SetHook([&](const _BusCall& call) {
    if (call.strData.find(kGuidB) != std::string::npos)
      m_bus.SetResult(EBusCall::AsynSendEx, 0);
  });
  EXPECT_EQ(Dispose(R"({"ID":"1","Command":"fanout"})"), 0u);
  ASSERT_THAT(HandOffs(), SizeIs(2));
  Answer(HandOffs()[1], kBusErrGone);
  SettleAll();
  EXPECT_THAT(Acks(), IsEmpty());
}

TEST_F(AgentMgrDispatch, Dispose_AnswersNoRouteAndAcknowledges_WhenNobodyTakesTheCommand) {
  EXPECT_EQ(m_mgr.DisposePushmsg(0x2a, "Scan", "None", R"({"ID":"id-9","Command":"Nope"})"), 0xB0010055u);
  EXPECT_THAT(Acks(), ElementsAre(R"({"ID":"id-9","msg_type":"4"})"));
  const _CloudCall call = m_cloud.Calls()[0];
  EXPECT_EQ(call.eCall, ECloudCall::Send) << "never blocks the work thread";
  EXPECT_EQ(call.iPriority, 2);
  EXPECT_THAT(call.strText, HasSubstr("<product=Scan><combo=None>"));
  EXPECT_THAT(
      m_log.Lines("zxagent"),
      Contains(
          R"(*zxagent CAgentMgr::SendPushMsgData Error GetCommandGuid u64DataId[2a] strGuidList[0] strID[id-9] strCommand[Nope] strProduct[Scan] strCombo[None] strMsg[{"ID":"id-9","Command":"Nope"}])"));
}

TEST_F(AgentMgrDispatch, Dispose_AnswersNoRoute_WhenSeveralComponentsShareTheCombo) {
  EXPECT_EQ(m_mgr.DisposePushmsg(1, "Scan", "Two", R"({"ID":"1"})"), 0xB0010055u);
  EXPECT_THAT(
      m_log.Lines("zxagent"),
      Contains(HasSubstr("CAgentMgr::SendPushMsgData Error GetCommandGuid u64DataId[1] strGuidList[2]")));
  EXPECT_THAT(Acks(), SizeIs(1));
}

TEST_F(AgentMgrDispatch, Dispose_AnswersNoRoute_WhenTheAcknowledgementFailsToo) {
  m_cloud.SetResult(ECloudCall::Send, kZxcloudErrFull);
  EXPECT_EQ(m_mgr.DisposePushmsg(1, "Scan", "None", R"({"ID":"1"})"), 0xB0010055u);
  EXPECT_EQ(
      LastLine(),
      R"(*zxagent CAgentMgr::SendResponseMsg Warn u64DataId[1] iRet[b0010025] strProduct[Scan] strCombo[None] strResponseMsg[{"ID":"1","msg_type":"4"}])");
}

TEST_F(AgentMgrDispatch, Dispose_RoutesPluginManagerMessages_WhenTheCommandIsEmpty) {
  const char* pszMsg = R"({"ID":"1"})";
  EXPECT_EQ(m_mgr.ZxcloudPushmsg(kPcidPlugMgr, pszMsg), 1);
  EXPECT_THAT(HandOffTexts(), ElementsAre(HandOff(kGuidD, "veltExtHost", "PluginMgr", "", pszMsg)));
}

TEST_F(AgentMgrDispatch, Dispose_RoutesUnknownPluginManagerCommands) {
  const char* pszMsg = R"({"ID":"1","Command":"NotOfTheAgent"})";
  EXPECT_EQ(m_mgr.ZxcloudPushmsg(kPcidPlugMgr, pszMsg), 1);
  EXPECT_THAT(HandOffTexts(),
              ElementsAre(HandOff(kGuidD, "veltExtHost", "PluginMgr", "NotOfTheAgent", pszMsg)));
  EXPECT_THAT(Acks(), IsEmpty());
}

TEST_F(AgentMgrDispatch, Dispose_KnowsBusinessOne_WithoutATable) {
  EXPECT_EQ(m_mgr.Data().SetPcidData("", 0), 0u);
  EXPECT_EQ(m_mgr.ZxcloudPushmsg(1, R"({"ID":"1"})"), 0);
  EXPECT_THAT(Acks(), SizeIs(1));
  EXPECT_THAT(m_cloud.Calls()[0].strText, HasSubstr("<product=veltExtHost><combo=PCInfo>"));
}

TEST_F(AgentMgrDispatch, Dispose_LeavesPushMessagesAsTheyAre) {
  const char* pszMsg = R"({"ID":"1","Command":"push"})";
  EXPECT_EQ(m_mgr.ZxcloudPushmsg(kPcidMsgPush, pszMsg), 1);
  EXPECT_THAT(HandOffTexts(), ElementsAre(HandOff(kGuidA, "veltExtHost", "MessagePush", "push", pszMsg)));
  EXPECT_THAT(m_log.Lines("zxagent"), ::testing::Not(Contains(HasSubstr("TransMsg"))));
}

TEST_F(AgentMgrDispatch, TransMsg_TranslatesNothing) {
  CAgentTrans trans;
  zxtools::CPJsonParse json;
  ASSERT_EQ(json.LoadBuffer(R"({"ID":"1"})"), 1);
  CPString strCommand("old command");
  CPString strMsg("old message");
  for (const char* pszProduct : {"veltExtHost", "VELTEXTHOST", "Scan", ""})
    for (const char* pszCombo : {"MessagePush", "messagepush", "PluginMgr", ""})
      EXPECT_EQ(trans.TransMsg(1, pszProduct, pszCombo, "1", json, strCommand, strMsg), 0);
  EXPECT_EQ(strCommand, "old command");
  EXPECT_EQ(strMsg, "old message");
}

TEST_F(AgentMgrDispatch, SendResponseMsg_EndsItsLineWithALineFeed_OnlyWhenAsked) {
  EXPECT_EQ(m_mgr.SendResponseMsg(7, "P", "C", "id", 1, 1), 0u);
  EXPECT_EQ(
      LastLine(),
      "zxagent CAgentMgr::SendResponseMsg OK u64DataId[7] strProduct[P] strCombo[C] strResponseMsg[{\"ID\":\"id\",\"msg_type\":\"1\"}]\n");
  EXPECT_EQ(m_mgr.SendResponseMsg(7, "P", "C", "id", 1, 0), 0u);
  EXPECT_EQ(
      LastLine(),
      "zxagent CAgentMgr::SendResponseMsg OK u64DataId[7] strProduct[P] strCombo[C] strResponseMsg[{\"ID\":\"id\",\"msg_type\":\"1\"}]");
  m_cloud.SetResult(ECloudCall::Send, 1);
  EXPECT_EQ(m_mgr.SendResponseMsg(7, "P", "C", "id", 1, 1), 0xb0010025u);
  EXPECT_EQ(
      LastLine(),
      "*zxagent CAgentMgr::SendResponseMsg Warn u64DataId[7] iRet[b0010025] strProduct[P] strCombo[C] strResponseMsg[{\"ID\":\"id\",\"msg_type\":\"1\"}]\n");
}
