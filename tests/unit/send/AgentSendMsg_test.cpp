#include <atomic>
#include <thread>

#include "send/SendFixture.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;

namespace {

constexpr char kHeadFields[] =
    "<mid=mid-1><m2=mid-2><v=2><product=prod><combo=comb><ipartner=partner><pa=linux><pid=chan>"
    "<sysver=Debian 12><version=10.0.1>";

}  // namespace

using AgentSendMsg = CSendTest;

TEST_F(AgentSendMsg, SendMsg_WrapsBodyUnderServerKey_WhenTypeIsServerData) {
  EXPECT_EQ(Send(1, 2, 0), 0u);
  EXPECT_THAT(
      m_cloud.Texts(ECloudCall::Send),
      ElementsAre(std::string(kHeadFields) + "<PCServerJasonData={\"k\":1}><PCPluginVersion=1.0.0.2005>"));
}

TEST_F(AgentSendMsg, SendMsg_WrapsBodyUnderPluginKey_WhenTypeIsPluginData) {
  EXPECT_EQ(Send(2, 2, 0), 0u);
  EXPECT_THAT(
      m_cloud.Texts(ECloudCall::Send),
      ElementsAre(std::string(kHeadFields) + "<PCPluginJasonData={\"k\":1}><PCPluginVersion=1.0.0.2005>"));
}

TEST_F(AgentSendMsg, SendMsg_LeavesBodyUnescaped_WhenItHoldsBracketsQuotesAndPercents) {
  EXPECT_EQ(Send(2, 0, 0, "<a=b>\"%s%n\"</x>\n"), 0u);
  EXPECT_THAT(m_cloud.Texts(ECloudCall::Send),
              ElementsAre(std::string(kHeadFields) +
                          "<PCPluginJasonData=<a=b>\"%s%n\"</x>\n><PCPluginVersion=1.0.0.2005>"));
}

TEST_F(AgentSendMsg, SendMsg_KeepsFieldsEmpty_WhenChannelAndPartnerAreEmpty) {
  m_send.SetChannelId("", "");
  EXPECT_EQ(Send(1, 0, 0), 0u);
  ASSERT_EQ(m_cloud.Count(ECloudCall::Send), 1u);
  const std::string strText = m_cloud.Texts(ECloudCall::Send)[0];
  EXPECT_THAT(strText, HasSubstr("<ipartner=><pa=linux><pid=><sysver="));
}

TEST_F(AgentSendMsg, SendMsg_FramesEveryFieldEmpty_WhenNothingWasSet) {
  CAgentSendMsg fresh;
  EXPECT_EQ(fresh.ZxcloudSendMsg("", "", 0, 1, 1, "", 0, 0), 0u);
  EXPECT_THAT(m_cloud.Texts(ECloudCall::Send),
              ElementsAre("<mid=><m2=><v=2><product=><combo=><ipartner=><pa=linux><pid=><sysver=><version=>"
                          "<PCServerJasonData=><PCPluginVersion=1.0.0.2005>"));
}

TEST_F(AgentSendMsg, SendMsg_EndsBodyAtItsFirstNul_WhenTheBodyHoldsOne) {
  const CPString strMsg("{\"k\":1}\0tail", 12);
  EXPECT_EQ(m_send.ZxcloudSendMsg("prod", "comb", 0, 2, 1, strMsg, 0, 0), 0u);
  EXPECT_THAT(m_cloud.Texts(ECloudCall::Send)[0],
              HasSubstr("<PCPluginJasonData={\"k\":1}><PCPluginVersion=1.0.0.2005>"));
}

TEST_F(AgentSendMsg, SendMsg_PassesWholeBody_WhenItIsLarge) {
  const std::string strBody(5u << 20, 'x');
  EXPECT_EQ(Send(2, 0, 1, strBody.c_str()), 0u);
  ASSERT_EQ(m_cloud.Count(ECloudCall::SendSync), 1u);
  const _CloudCall call = m_cloud.Calls(ECloudCall::SendSync)[0];
  EXPECT_EQ(call.strText.size(), static_cast<size_t>(call.iLength));
  EXPECT_EQ(call.strText.find(strBody),
            std::string(kHeadFields).size() + std::string("<PCPluginJasonData=").size());
}

TEST_F(AgentSendMsg, SendMsg_BlocksUpToHundredSeconds_WhenSync) {
  EXPECT_EQ(Send(1, 3, 1), 0u);
  ASSERT_THAT(m_cloud.Calls(), SizeIs(1));
  const _CloudCall call = m_cloud.Calls()[0];
  EXPECT_EQ(call.eCall, ECloudCall::SendSync);
  EXPECT_EQ(call.iPriority, 3);
  EXPECT_EQ(call.iTimeoutMs, 100000);
}

TEST_F(AgentSendMsg, SendMsg_UsesPlainSend_WhenNotSync) {
  EXPECT_EQ(Send(2, 1, 0), 0u);
  ASSERT_THAT(m_cloud.Calls(), SizeIs(1));
  EXPECT_EQ(m_cloud.Calls()[0].eCall, ECloudCall::Send);
  EXPECT_EQ(m_cloud.Calls()[0].iPriority, 1);
}

TEST_F(AgentSendMsg, SendMsg_AnswersSyncCode_WhenBlockingSendFails) {
  m_cloud.SetResult(ECloudCall::SendSync, kZxcloudErrTimeout);
  m_send.SetPubmsgReportType(15);
  EXPECT_EQ(Send(1, 0, 1), 0xb0010026u);
  EXPECT_THAT(m_cloud.Calls(), SizeIs(1)) << "neither repeated nor sent a second time";
}

TEST_F(AgentSendMsg, SendMsg_AnswersPlainCode_WhenNonBlockingSendFails) {
  m_cloud.SetResult(ECloudCall::Send, kZxcloudErrFull);
  m_send.SetPubmsgReportType(15);
  EXPECT_EQ(Send(2, 0, 0), 0xb0010025u);
  EXPECT_THAT(m_cloud.Calls(), SizeIs(1));
}

TEST_F(AgentSendMsg, SendMsg_SendsNothing_WhenTypeIsUnknown) {
  m_send.SetPubmsgReportType(15);
  for (const int iMsgType : {4, 0, -1, 2147483647})
    EXPECT_EQ(Send(iMsgType, 0, 1), 0xb0010063u) << iMsgType;
  EXPECT_THAT(m_cloud.Calls(), SizeIs(0));
}

TEST_F(AgentSendMsg, SendMsg_WritesAgentForm_WhenNotLogCache) {
  Send(2, 1, 0, "the body");
  EXPECT_THAT(
      m_log.Lines("zxagent"),
      ElementsAre(testing::AllOf(
          testing::MatchesRegex(
              "zxagent ZxcloudSendMsg OK zxcloud_send ExecNumber\\[1\\] SendTime\\[[0-9]+\\].*"),
          HasSubstr(
              " iPubmsgReportType[0] bSync[0] u64DataId[1f] iPriv[1] iMsgType[2] strProduct[prod] strCombo[comb] strSendMsg[<mid="),
          HasSubstr("<PCPluginJasonData=the body>"))));
  EXPECT_THAT(m_log.Lines("zxlogcache"), SizeIs(0));
}

TEST_F(AgentSendMsg, SendMsg_SplitsLineAndBody_WhenLogCache) {
  Send(2, 1, 1, "the body", 1);
  const auto lines = m_log.Lines("zxlogcache");
  ASSERT_THAT(lines, SizeIs(2));
  EXPECT_THAT(lines[0],
              testing::StartsWith("zxagent stepB ZxcloudSendMsg OK zxcloud_send_sync ExecNumber[1] "));
  EXPECT_THAT(lines[0], Not(HasSubstr("the body")));
  EXPECT_THAT(lines[1],
              testing::StartsWith("zxagent ZxcloudSendMsg zxcloud_send_sync u64DataId[1f] strSendMsg[<mid="));
  EXPECT_THAT(m_log.Levels("zxlogcache"), ElementsAre(2, 1));
  EXPECT_THAT(m_log.Lines("zxagent"), SizeIs(0));
}

TEST_F(AgentSendMsg, SendMsg_WritesErrorInBothForms_WhenMainSendFails) {
  m_cloud.SetResult(ECloudCall::SendSync, 7);
  Send(1, 2, 1, "the body", 0);
  Send(1, 2, 1, "the body", 1);
  EXPECT_THAT(m_log.Lines("zxagent"),
              ElementsAre(testing::AllOf(
                  testing::StartsWith(
                      "*zxagent ZxcloudSendMsg Error zxcloud_send_sync iStatus[7] ExecNumber[1] SendTime["),
                  HasSubstr("strSendMsg[<mid="))));
  EXPECT_THAT(m_log.Levels("zxagent"), ElementsAre(3));
  EXPECT_THAT(
      m_log.Lines("zxlogcache"),
      ElementsAre(
          testing::AllOf(
              testing::StartsWith("*zxagent stepB ZxcloudSendMsg Error zxcloud_send_sync iStatus[7] "),
              Not(HasSubstr("the body"))),
          testing::StartsWith("zxagent ZxcloudSendMsg Error zxcloud_send_sync u64DataId[1f] strSendMsg[")));
  EXPECT_THAT(m_log.Levels("zxlogcache"), ElementsAre(3, 1));
}

TEST_F(AgentSendMsg, SendMsg_WritesRefusalInBothForms_WhenTypeOrTagsAreBad) {
  Send(4, 2, 1, "the body", 0);
  Send(3, 2, 0, "the body", 0);
  Send(4, 2, 1, "the body", 1);
  Send(3, 2, 0, "the body", 1);
  EXPECT_THAT(
      m_log.Lines("zxagent"),
      ElementsAre(
          "*zxagent ZxcloudSendMsg Error iMsgType Error bSync[1] u64DataId[1f] iPriv[2] iMsgType[4] strProduct[prod] strCombo[comb] strMsg[the body]",
          "*zxagent ZxcloudSendMsg Error GetCloudTag Error bSync[0] u64DataId[1f] iPriv[2] iMsgType[3] strProduct[prod] strCombo[comb] strMsg[the body]"));
  EXPECT_THAT(
      m_log.Lines("zxlogcache"),
      ElementsAre(
          "*zxagent stepB ZxcloudSendMsg Error iMsgType Error bSync[1] u64DataId[1f] iPriv[2] iMsgType[4] strProduct[prod] strCombo[comb]",
          "zxagent ZxcloudSendMsg Type u64DataId[1f] strSendMsg[the body]",
          "*zxagent stepB ZxcloudSendMsg Error GetCloudTag Error bSync[0] u64DataId[1f] iPriv[2] iMsgType[3] strProduct[prod] strCombo[comb]",
          "zxagent ZxcloudSendMsg Type u64DataId[1f] strSendMsg[the body]"));
  EXPECT_THAT(m_log.Levels("zxlogcache"), ElementsAre(3, 1, 3, 1));
}

TEST_F(AgentSendMsg, Getters_AnswerWhatWasSet) {
  CPString strA;
  CPString strB;
  m_send.GetMid(strA, strB);
  EXPECT_EQ(strA, "mid-1");
  EXPECT_EQ(strB, "mid-2");
  m_send.GetChannelId(strA, strB);
  EXPECT_EQ(strA, "chan");
  EXPECT_EQ(strB, "partner");
  EXPECT_EQ(m_send.Init(), 1);
  EXPECT_EQ(m_send.Uninit(), 1);
}

TEST_F(AgentSendMsg, Setters_WriteTraceLines) {
  m_log.Clear();
  m_send.SetMid("a", "b");
  m_send.SetChannelId("c", "p");
  m_send.SetVersion("s", "v");
  m_send.SetPubmsgReportType(9);
  EXPECT_THAT(m_log.Lines("zxagent"),
              ElementsAre("zxagent CAgentSendMsg::SetMid strMid1[a] strMid2[b]",
                          "zxagent CAgentSendMsg::SetChannelId strChannelId[c] strIpartner[p]",
                          "zxagent CAgentSendMsg::SetVersion strSysVer[s] strVersion[v]",
                          "zxagent CAgentSendMsg::SetPubmsgReportType iPubmsgReportType[9]"));
  EXPECT_THAT(m_log.Levels("zxagent"), ElementsAre(6, 6, 6, 6));
}

// Senders must never see one half of a pair of ids with the other half of another.
TEST_F(AgentSendMsg, SendMsg_FramesWholePairs_WhileSettersRun) {
  constexpr int kSends = 300;
  m_send.SetMid("one", "one");
  m_send.SetChannelId("one", "one");
  m_send.SetVersion("one", "one");
  std::atomic<bool> bStop{false};
  std::thread setter([&] {
    for (int i = 0; !bStop.load(); ++i) {
      const char* psz = i % 2 == 0 ? "two" : "one";
      m_send.SetMid(psz, psz);
      m_send.SetChannelId(psz, psz);
      m_send.SetVersion(psz, psz);
      m_send.SetPubmsgReportType(i % 2 == 0 ? 3 : 0);
    }
  });
  std::vector<std::thread> senders;
  for (int iSender = 0; iSender < 4; ++iSender)
    senders.emplace_back([&] {
      for (int i = 0; i < kSends; ++i)
        EXPECT_EQ(Send(1, 0, i % 2), 0u);
    });
  for (std::thread& sender : senders)
    sender.join();
  bStop = true;
  setter.join();
  size_t uMain = 0;
  for (const _CloudCall& call : m_cloud.Calls()) {
    uMain += call.iPriority == 0 ? 1u : 0u;
    const bool bOne = call.strText.find("<mid=one><m2=one>") != std::string::npos;
    const bool bTwo = call.strText.find("<mid=two><m2=two>") != std::string::npos;
    EXPECT_TRUE(bOne || bTwo) << call.strText;
  }
  EXPECT_EQ(uMain, 4u * kSends);
}
