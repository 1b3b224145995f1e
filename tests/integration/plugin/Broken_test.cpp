// Bad input from the cloud: each gets its line and result, nothing is lost, and the next good command is
// carried out.
#include "AgentFixture.h"

namespace {

struct CBadPush {
  const char* pszName;
  int iPcid;
  std::string strText;
  const char* pszLine;
};

const CBadPush kBadPushes[] = {
    {"Empty", kPcidSample, "", "*zxagent pushmsg Error Parse JSON u64DataId[1]"},
    {"NotJson", kPcidSample, "hello", "*zxagent pushmsg Error Parse JSON u64DataId[1]"},
    {"HalfJson", kPcidSample, R"({"ID":"x","Command":)", "*zxagent pushmsg Error Parse JSON u64DataId[1]"},
    {"TooDeep", kPcidSample,
     R"({"ID":"x","Command":"disk_usage","Param":)" + std::string(5000, '[') + std::string(5000, ']') + "}",
     "*zxagent pushmsg Error Parse JSON u64DataId[1]"},
    {"NoId", kPcidSample, R"({"Command":"disk_usage"})", "*zxagent pushmsg Error Get JSON ID u64DataId[1]"},
    {"EmptyId", kPcidSample, R"({"ID":"","Command":"disk_usage"})",
     "*zxagent pushmsg Error JSON ID u64DataId[1]"},
    {"LongId", kPcidSample, R"({"ID":")" + std::string(201, 'i') + R"(","Command":"disk_usage"})",
     "*zxagent pushmsg Error JSON ID u64DataId[1]"},
    {"UnknownNumber", 31337, R"({"ID":"x","Command":"disk_usage"})",
     "*zxagent pushmsg Error GetProductComboByID not find pcid u64DataId[1] err[b0010051] iPcid[31337]"},
};

class CBadPushTest : public CAgentFixture, public testing::WithParamInterface<CBadPush> {};

TEST_P(CBadPushTest, IsDroppedWithItsLineAndWithoutAnAnswer) {
  StartAgent();
  Push(GetParam().iPcid, GetParam().strText);
  EXPECT_TRUE(m_log.Contains(GetParam().pszLine));
  EXPECT_TRUE(HandOffs().empty());
  EXPECT_TRUE(Sent().empty());
  ExpectNextCommandWorks();
}

INSTANTIATE_TEST_SUITE_P(Push, CBadPushTest, testing::ValuesIn(kBadPushes),
                         [](const auto& param) { return param.param.pszName; });

struct CBadPoll {
  const char* pszName;
  std::string strEnvelope;
  const char* pszLine;
};

const CBadPoll kBadPolls[] = {
    {"Empty", "", "*zxagent CAgentMgr::ZxcloudPollmsg Error LoadBuffer iFlag[0]"},
    {"NotXml", "no xml at all", "*zxagent CAgentMgr::ZxcloudPollmsg Error"},
    {"Truncated", "<message><push_msg_result><push_msg_set>",
     "*zxagent CAgentMgr::ZxcloudPollmsg Error LoadBuffer iFlag[0]"},
    {"Doctype", "<!DOCTYPE message [<!ENTITY a \"b\">]><message>&a;</message>",
     "*zxagent CAgentMgr::ZxcloudPollmsg Error LoadBuffer iFlag[0]"},
    {"OtherRoot", "<other/>", "*zxagent CAgentMgr::ZxcloudPollmsg Error GetNode message iFlag[0]"},
    {"NoResult", "<message><error_code>7</error_code></message>",
     "*zxagent CAgentMgr::ZxcloudPollmsg Error GetNode push_msg_result strErrorCode[7] iFlag[0]"},
    {"NoSet", "<message><push_msg_result><push_timestamp>5</push_timestamp></push_msg_result></message>",
     "*zxagent CAgentMgr::ZxcloudPollmsg Error GetNode push_msg_set strErrorCode[] strPushTimestamp[5] strPollPeriodSec[]"},
    {"NoItem", Envelope(""), "zxagent CAgentMgr::ZxcloudPollmsg no message strErrorCode[0]"},
    {"NoNumber", Envelope("<msg_info><content>e30=</content></msg_info>"),
     "zxagent CAgentMgr::ZxcloudPollmsg End OK iFlag[0] Success[0] Fail[0] All[1]"},
    {"NoContent", Envelope("<msg_info><business_id>1001</business_id></msg_info>"),
     "zxagent CAgentMgr::ZxcloudPollmsg End OK iFlag[0] Success[0] Fail[0] All[1]"},
    {"NotBase64", Envelope("<msg_info><business_id>1001</business_id><content>!!!</content></msg_info>"),
     "zxagent CAgentMgr::ZxcloudPollmsg End OK iFlag[0] Success[0] Fail[0] All[1]"},
    {"NumberIsText", Envelope("<msg_info><business_id>abc</business_id><content>e30=</content></msg_info>"),
     "*zxagent pushmsg Error GetProductComboByID not find pcid u64DataId[1] err[b0010051] iPcid[0]"},
};

class CBadPollTest : public CAgentFixture, public testing::WithParamInterface<CBadPoll> {};

TEST_P(CBadPollTest, IsDroppedWithItsLine) {
  StartAgent();
  Poll(GetParam().strEnvelope);
  EXPECT_TRUE(m_log.Contains(GetParam().pszLine));
  EXPECT_TRUE(HandOffs().empty());
  EXPECT_TRUE(Sent().empty());
  ExpectNextCommandWorks();
}

TEST_F(CBadPollTest, OneBadItemDoesNotStopTheOthers) {
  StartAgent();
  Poll(Envelope(EnvelopeItem(kPcidSample, "m1", "not json") +
                EnvelopeItem(kPcidSample, "m2", PushText("good", "disk_usage"))));
  EXPECT_EQ(HandOffs().size(), 1u);
  EXPECT_TRUE(m_log.Contains("zxagent CAgentMgr::ZxcloudPollmsg End OK iFlag[0] Success[1] Fail[1] All[2]"));
}

INSTANTIATE_TEST_SUITE_P(Poll, CBadPollTest, testing::ValuesIn(kBadPolls),
                         [](const auto& param) { return param.param.pszName; });

}  // namespace

TEST_F(CAgentFixture, Push_IdOf200BytesIsAccepted) {
  StartAgent();
  const std::string strId(200, 'i');
  Push(kPcidSample, PushText(strId, "disk_usage"));
  ASSERT_EQ(HandOffs().size(), 1u);
  Complete(HandOffs()[0], 0);
  EXPECT_TRUE(Acknowledged(strId, 3));
}

TEST_F(CAgentFixture, Push_NullTextConsumesNoNumber) {
  StartAgent();
  CFakeCloud::Get().FirePush(kPcidSample, nullptr);
  Settle();
  EXPECT_TRUE(m_log.Contains("*zxagent CAgentMgr::ZxcloudPushmsg Error lpszMsg is NULL iPcid[1001]"));
  Push(kPcidSample, PushText("cmd-1", "disk_usage"));
  EXPECT_TRUE(m_log.Contains("zxagent pushmsg Begin recvnew u64DataId[1] iPcid[1001]"));
}

TEST_F(CAgentFixture, Callbacks_NullTextsAndOtherFlagsAreSurvived) {
  StartAgent();
  CFakeCloud& cloud = CFakeCloud::Get();
  EXPECT_EQ(cloud.FireConnect(nullptr, 1), -1);
  cloud.FireTconf(1, "x,y,3");
  cloud.FireTconf(2, nullptr);
  cloud.FirePoll(0, nullptr, 0);
  cloud.FireData(1, 0, nullptr, 0);
  cloud.FireData(1, 0, "no semicolon", 12);
  cloud.FireLog(3, 1, nullptr);
  Settle();
  EXPECT_TRUE(m_log.Contains("zxagent ZxcloudTconfCallback not pcid iFlag[1] pszTconfArg[x,y,3]"));
  EXPECT_TRUE(
      m_log.Contains("*zxagent CAgentMgr::ZxcloudData Error not find iFlag[1] lpszMsg[no semicolon]"));
  ExpectNextCommandWorks();
}
