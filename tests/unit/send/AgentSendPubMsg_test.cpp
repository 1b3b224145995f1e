#include "send/SendFixture.h"

using ::testing::ElementsAre;
using ::testing::SizeIs;

namespace {

struct _Case {
  const char* pszName;
  int iMsgType;
  int iReportType;
  int iPriv;
  std::vector<int> priorities;  // in the order of the sends
};

void PrintTo(const _Case& testCase, std::ostream* pStream) {
  *pStream << testCase.pszName;
}

constexpr char kTags[] = "{\"CloudTags\":{\"a\":\"1\"}}";

}  // namespace

class AgentSendPubMsg : public CSendTest, public ::testing::WithParamInterface<_Case> {};

TEST_P(AgentSendPubMsg, SendMsg_SendsAtThesePriorities) {
  const _Case& testCase = GetParam();
  m_send.SetPubmsgReportType(testCase.iReportType);
  EXPECT_EQ(Send(testCase.iMsgType, testCase.iPriv, 1, testCase.iMsgType == 3 ? kTags : "body"), 0u);
  EXPECT_EQ(Priorities(), testCase.priorities);
  for (size_t i = 0; i < m_cloud.Calls().size(); ++i) {
    const bool bMain = i == 0 && testCase.iMsgType != 3;
    EXPECT_EQ(m_cloud.Calls()[i].eCall, bMain ? ECloudCall::SendSync : ECloudCall::Send)
        << "the second send never blocks";
    EXPECT_EQ(m_cloud.Calls()[i].strText, m_cloud.Calls()[0].strText) << "the same text";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, AgentSendPubMsg,
    ::testing::Values(_Case{"OffByDefault", 1, 0, 0, {0}}, _Case{"BitsWithoutEnable", 1, 14, 1, {1}},
                      _Case{"EnableOnly", 1, 1, 1, {1}}, _Case{"ServerOn", 1, 3, 0, {0, 10}},
                      _Case{"ServerBitPluginType", 2, 3, 0, {0}}, _Case{"PluginOn", 2, 5, 1, {1, 11}},
                      _Case{"PluginBitServerType", 1, 5, 1, {1}}, _Case{"BothServer", 1, 9, 2, {2, 12}},
                      _Case{"BothPlugin", 2, 9, 3, {3, 13}}, _Case{"ServerBitHidesPluginBit", 2, 7, 0, {0}},
                      _Case{"ServerBitHidesBothBit", 2, 11, 0, {0}},
                      _Case{"PluginBitHidesBothBit", 1, 13, 0, {0}}, _Case{"PrivOutOfRange", 2, 5, 5, {5}},
                      _Case{"PrivNegative", 2, 5, -1, {-1}}, _Case{"TagsAlways", 3, 0, 0, {10}},
                      _Case{"TagsPriv3", 3, 15, 3, {13}}, _Case{"TagsPrivOutOfRange", 3, 0, 4, {0}},
                      _Case{"TagsPrivNegative", 3, 0, -7, {0}}),
    CaseName<_Case>);

using AgentSendPubMsgResult = CSendTest;

TEST_F(AgentSendPubMsgResult, SendMsg_AnswersMainResult_WhenSecondSendFails) {
  m_cloud.SetResult(ECloudCall::Send, kZxcloudErrFull);
  m_send.SetPubmsgReportType(3);
  EXPECT_EQ(Send(1, 0, 1), 0u);
  EXPECT_EQ(Priorities(), (std::vector<int>{0, 10}));
}

TEST_F(AgentSendPubMsgResult, SendMsg_AnswersZero_WhenTagSendFails) {
  m_cloud.SetResult(ECloudCall::Send, kZxcloudErrFull);
  EXPECT_EQ(Send(3, 1, 1, kTags), 0u);
  EXPECT_EQ(Priorities(), (std::vector<int>{11}));
}

TEST_F(AgentSendPubMsgResult, SendMsg_FramesTagsBehindTheHeader_WhenTypeIsTags) {
  EXPECT_EQ(Send(3, 0, 0, kTags), 0u);
  EXPECT_THAT(m_cloud.Texts(ECloudCall::Send),
              ElementsAre("<mid=mid-1><m2=mid-2><v=2><product=prod><combo=comb><ipartner=partner><pa=linux>"
                          "<pid=chan><sysver=Debian 12><version=10.0.1><PCPluginVersion=1.0.0.2005><a=1>"));
}

TEST_F(AgentSendPubMsgResult, SendMsg_WarnsAtDetailLevel_WhenPriorityHasNoSecondOne) {
  m_send.SetPubmsgReportType(1);
  Send(2, 5, 0);
  ASSERT_THAT(m_log.Lines("zxagent"), SizeIs(3)) << "trace of the setter, main send, warning";
  EXPECT_EQ(
      m_log.Lines("zxagent").back(),
      "*zxagent ZxcloudSendMsg SendPubMsg Warn bSync[0] u64DataId[1f] iPriv[5] iMsgType[2] strProduct[prod] strCombo[comb]");
  EXPECT_EQ(m_log.Levels("zxagent").back(), 1);
}

namespace {

struct _LineCase {
  const char* pszName;
  int iMsgType;
  int iReportType;
  const char* pszOk;
  const char* pszWarn;
};

void PrintTo(const _LineCase& testCase, std::ostream* pStream) {
  *pStream << testCase.pszName;
}

}  // namespace

class AgentSendPubMsgLine : public CSendTest, public ::testing::WithParamInterface<_LineCase> {};

TEST_P(AgentSendPubMsgLine, SendMsg_LogsOutcomeAtDetailLevelInBothForms) {
  const _LineCase& testCase = GetParam();
  const char* pszMsg = testCase.iMsgType == 3 ? kTags : "body";
  m_send.SetPubmsgReportType(testCase.iReportType);
  const std::string strTail = testCase.iMsgType == 3 ? " strSendMsg[<mid=" : "";
  const std::string strFields = " bSync[1] u64DataId[1f] iPriv[0] iMsgType[" +
                                std::to_string(testCase.iMsgType) + "] strProduct[prod] strCombo[comb]";
  for (const int iRet : {0, 9}) {
    m_cloud.SetResult(ECloudCall::Send, static_cast<uint32_t>(iRet));
    const std::string strText =
        iRet == 0 ? std::string(testCase.pszOk) : testCase.pszWarn + std::string(" iRet[9]");
    const std::string strMark = iRet == 0 ? "zxagent " : "*zxagent ";
    m_log.Clear();
    Send(testCase.iMsgType, 0, 1, pszMsg, 0);
    EXPECT_THAT(m_log.Lines("zxagent").back(),
                ::testing::StartsWith(strMark + strText + strFields + strTail));
    EXPECT_EQ(m_log.Levels("zxagent").back(), 1);
    EXPECT_THAT(m_log.Lines("zxlogcache"), SizeIs(0));
    m_log.Clear();
    Send(testCase.iMsgType, 0, 1, pszMsg, 1);
    const auto lines = m_log.Lines("zxlogcache");
    EXPECT_THAT(lines, ::testing::Contains(strMark + "stepB " + strText + strFields));
    EXPECT_EQ(m_log.Levels("zxlogcache").back(), 1);
    EXPECT_THAT(m_log.Lines("zxagent"), SizeIs(0));
    if (testCase.iMsgType == 3) {
      EXPECT_THAT(
          lines.back(),
          ::testing::StartsWith(
              iRet == 0 ? "zxagent ZxcloudSendMsg zxcloud_send u64DataId[1f] strSendMsg[<mid="
                        : "zxagent ZxcloudSendMsg Error zxcloud_send u64DataId[1f] strSendMsg[<mid="));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, AgentSendPubMsgLine,
    ::testing::Values(_LineCase{"ServerData", 1, 3, "ZxcloudSendMsg SendPubMsg OK ServerData zxcloud_send",
                                "ZxcloudSendMsg SendPubMsg Warn ServerData zxcloud_send"},
                      _LineCase{"PluginData", 2, 5, "ZxcloudSendMsg SendPubMsg OK PluginData zxcloud_send",
                                "ZxcloudSendMsg SendPubMsg Warn PluginData zxcloud_send"},
                      _LineCase{"Both", 1, 9, "CAgentSendMsg::ZxcloudSendMsg SendPubMsg OK Both zxcloud_send",
                                "CAgentSendMsg::ZxcloudSendMsg SendPubMsg Warn Both zxcloud_send"},
                      _LineCase{"CloudTag", 3, 0,
                                "CAgentSendMsg::ZxcloudSendMsg SendPubMsg OK CloudTag zxcloud_send",
                                "CAgentSendMsg::ZxcloudSendMsg SendPubMsg Warn CloudTag zxcloud_send"}),
    CaseName<_LineCase>);
