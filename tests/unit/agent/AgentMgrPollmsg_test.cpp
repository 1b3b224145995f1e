#include "agent/CommandFixture.h"
#include "agent/PollEnvelope.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using ::testing::StartsWith;

class AgentMgrPollmsg : public CCommandTest {
 protected:
  int Poll(const std::string& strXml) { return m_mgr.ZxcloudPollmsg(3, strXml.c_str()); }
  std::string LastLine() const { return m_log.Lines("zxagent").back(); }
};

TEST_F(AgentMgrPollmsg, Pollmsg_AnswersZero_WhenTheTextIsNull) {
  EXPECT_EQ(m_mgr.ZxcloudPollmsg(3, nullptr), 0);
  EXPECT_THAT(m_log.Lines("zxagent"),
              ElementsAre("*zxagent CAgentMgr::ZxcloudPollmsg Error lpszMsg is NULL iFlag[3]"));
}

TEST_F(AgentMgrPollmsg, Pollmsg_AnswersZero_WhenTheTextIsNotXml) {
  std::string strDeep;
  for (int i = 0; i < 5000; ++i)
    strDeep += "<a>";
  for (const std::string& strXml :
       {std::string(), std::string("{}"), std::string("<message>"), strDeep,
        std::string("<!DOCTYPE message [<!ENTITY e \"x\">]><message>&e;</message>")}) {
    EXPECT_EQ(Poll(strXml), 0) << strXml.substr(0, 60);
    EXPECT_THAT(LastLine(),
                StartsWith("*zxagent CAgentMgr::ZxcloudPollmsg Error LoadBuffer iFlag[3] pszMsg[0x"));
  }
}

TEST_F(AgentMgrPollmsg, Pollmsg_AnswersZero_WhenALevelIsMissing) {
  EXPECT_EQ(Poll("<Message/>"), 0);
  EXPECT_THAT(LastLine(), StartsWith("*zxagent CAgentMgr::ZxcloudPollmsg Error GetNode message iFlag[3] "));
  EXPECT_EQ(Poll("<message><error_code>E5</error_code></message>"), 0);
  EXPECT_THAT(
      LastLine(),
      StartsWith(
          "*zxagent CAgentMgr::ZxcloudPollmsg Error GetNode push_msg_result strErrorCode[E5] iFlag[3] "));
  EXPECT_EQ(Poll("<message><push_msg_result><push_timestamp>9</push_timestamp>"
                 "<poll_period_sec>60</poll_period_sec></push_msg_result></message>"),
            0);
  EXPECT_THAT(LastLine(),
              StartsWith("*zxagent CAgentMgr::ZxcloudPollmsg Error GetNode push_msg_set strErrorCode[] "
                         "strPushTimestamp[9] strPollPeriodSec[60] iFlag[3] "));
  EXPECT_THAT(HandOffs(), SizeIs(0));
  EXPECT_THAT(m_cloud.Calls(), SizeIs(0));
}

TEST_F(AgentMgrPollmsg, Pollmsg_TakesOnlyElementsFromTheirParents) {
  const std::string strItem = Item(kPcidScan, R"({"ID":"1"})");
  EXPECT_EQ(Poll("<message>" + strItem + "<push_msg_result>" + strItem +
                 "<push_msg_set/></push_msg_result></message>"),
            1);
  EXPECT_EQ(Poll("<x><message><push_msg_result><push_msg_set>" + strItem +
                 "</push_msg_set></push_msg_result></message></x>"),
            0);
  EXPECT_THAT(HandOffs(), SizeIs(0));
}

TEST_F(AgentMgrPollmsg, Pollmsg_AnswersOne_WhenTheSetIsEmpty) {
  EXPECT_EQ(Poll(Envelope("")), 1);
  EXPECT_THAT(LastLine(), StartsWith("zxagent CAgentMgr::ZxcloudPollmsg no message strErrorCode[0] "
                                     "strPushTimestamp[77] strPollPeriodSec[60] iFlag[3] "));
  EXPECT_EQ(m_log.Levels("zxagent").back(), 2);
}

TEST_F(AgentMgrPollmsg, Pollmsg_HandsOnEachCommand_InDocumentOrder) {
  EXPECT_EQ(Poll(Envelope(Item(kPcidScan, R"({"ID":"1"})") + Item(kPcidNobody, R"({"ID":"2"})") +
                          Item(kPcidScan, "not json") + Item(kPcidScan, R"({"ID":"3"})"))),
            1);
  EXPECT_THAT(HandOffTexts(), ElementsAre(HandOff(kGuidA, "Scan", "One", "", R"({"ID":"1"})"),
                                          HandOff(kGuidA, "Scan", "One", "", R"({"ID":"3"})")));
  EXPECT_EQ(LastLine(), "zxagent CAgentMgr::ZxcloudPollmsg End OK iFlag[3] Success[2] Fail[2] All[4]\n");
  EXPECT_THAT(Acks(), ElementsAre(R"({"ID":"2","msg_type":"4"})"));
}

TEST_F(AgentMgrPollmsg, Pollmsg_LogsTheDecodedCommand) {
  EXPECT_EQ(Poll(Envelope(Item(kPcidScan, R"({"ID":"1"})", "msg-7"))), 1);
  EXPECT_THAT(
      m_log.Lines("zxagent"),
      Contains(::testing::AllOf(
          StartsWith("zxagent CAgentMgr::ZxcloudPollmsg recv message strMsgId[msg-7] iPcid[1001] pszMsg[0x"),
          HasSubstr("][{\"ID\":\"1\"}]"))));
}

TEST_F(AgentMgrPollmsg, Pollmsg_PassesOverBadItems_CountedInAllOnly) {
  const std::string strGood = Item(kPcidScan, R"({"ID":"1"})");
  EXPECT_EQ(Poll(Envelope(RawItem("1001", "%%%") + RawItem("1001", "") +
                          "<msg_info><business_id>1001</business_id></msg_info>"
                          "<msg_info><content>" +
                          Encoded(R"({"ID":"1"})") + "</content></msg_info><msg_info/><other/>" + strGood)),
            1);
  EXPECT_EQ(LastLine(), "zxagent CAgentMgr::ZxcloudPollmsg End OK iFlag[3] Success[1] Fail[0] All[6]\n");
  EXPECT_THAT(HandOffs(), SizeIs(1));
}

TEST_F(AgentMgrPollmsg, Pollmsg_ReadsBusinessNumbers_AsBaseTen) {
  struct _Case {
    const char* pszText;
    const char* pszPcid;
  };
  for (const _Case& testCase :
       {_Case{"abc", "0"}, _Case{"", "0"}, _Case{" 1001 ", "1001"}, _Case{"1001x", "1001"}, _Case{"-7", "-7"},
        _Case{"0x3e9", "0"},
        // 2^32 + 1001 must not land on business 1001.
        _Case{"4294968297", "2147483647"}, _Case{"99999999999999999999", "2147483647"},
        _Case{"-99999999999999999999", "-2147483648"}}) {
    m_log.Clear();
    EXPECT_EQ(Poll(Envelope(RawItem(testCase.pszText, Encoded(R"({"ID":"1"})")))), 1);
    EXPECT_THAT(m_log.Lines("zxagent"),
                Contains(HasSubstr(std::string("strMsgId[m] iPcid[") + testCase.pszPcid + "] pszMsg[")))
        << testCase.pszText;
  }
  EXPECT_THAT(HandOffs(), SizeIs(2)) << "\" 1001 \" and \"1001x\"";
}

TEST_F(AgentMgrPollmsg, Pollmsg_AcceptsWrappedContent) {
  const std::string strBase64 = Encoded(R"({"ID":"1","Command":"limited"})");
  EXPECT_EQ(
      Poll(Envelope(RawItem("1001", "\n  " + strBase64.substr(0, 8) + "\r\n\t" + strBase64.substr(8) + "\n") +
                    RawItem("1001", "<![CDATA[" + strBase64 + "]]>"))),
      1);
  EXPECT_THAT(HandOffs(), SizeIs(2));
}

TEST_F(AgentMgrPollmsg, Pollmsg_HandlesHugeContent) {
  const std::string strMsg = R"({"ID":"1","x":")" + std::string(4u << 20, 'y') + "\"}";
  EXPECT_EQ(Poll(Envelope(Item(kPcidScan, strMsg))), 1);
  EXPECT_THAT(HandOffTexts(), ElementsAre(HandOff(kGuidA, "Scan", "One", "", strMsg)));
}

TEST_F(AgentMgrPollmsg, Pollmsg_HandlesManyItems) {
  std::string strItems;
  for (int i = 0; i < 2000; ++i)
    strItems += Item(kPcidScan, "{\"ID\":\"" + std::to_string(i) + "\"}");
  EXPECT_EQ(Poll(Envelope(strItems)), 1);
  EXPECT_EQ(LastLine(),
            "zxagent CAgentMgr::ZxcloudPollmsg End OK iFlag[3] Success[2000] Fail[0] All[2000]\n");
  ASSERT_THAT(HandOffs(), SizeIs(2000));
  EXPECT_THAT(HandOffs().back().strData, HasSubstr("\"1999\""));
}
