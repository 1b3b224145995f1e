#include "send/SendFixture.h"

using ::testing::ElementsAre;
using ::testing::StartsWith;

using AgentPollMessage = CSendTest;

TEST_F(AgentPollMessage, PollMessage_SendsTheQuery_WithIdsAndBusinessList) {
  EXPECT_EQ(m_send.ZxcloudPollMessage(0, "<id>1</id>\n\t\t\t<id>1001</id>"), 0u);
  EXPECT_THAT(m_cloud.Texts(ECloudCall::SendPollmsg),
              ElementsAre("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                          "<message>\n"
                          "\t<product>veltsafe</product>\n"
                          "\t<combo>Unknown</combo>\n"
                          "\t<uv>1</uv>\n"
                          "\t<client_ver>1.0.0.2631</client_ver>\n"
                          "\t<mid>mid-1</mid>\n"
                          "\t<m2>mid-2</m2>\n"
                          "\t<pid>Ent_veltEPP145433958</pid>\n"
                          "\t<push_msg_query>\n"
                          "\t\t<pre_push_timestamp>0</pre_push_timestamp>\n"
                          "\t\t<business_id>\n"
                          "\t\t\t<id>1</id>\n"
                          "\t\t\t<id>1001</id>\n"
                          "\t\t</business_id>\n"
                          "\t\t<recv_id_set>2023022114220864213579</recv_id_set>\n"
                          "\t</push_msg_query>\n"
                          "</message>"));
  const _CloudCall call = m_cloud.Calls()[0];
  EXPECT_EQ(static_cast<size_t>(call.iLength), call.strText.size());
}

TEST_F(AgentPollMessage, PollMessage_AnswersItsOwnCode_WhateverTheLibrarySaid) {
  m_cloud.SetResult(ECloudCall::SendPollmsg, kZxcloudErrNetwork);
  EXPECT_EQ(m_send.ZxcloudPollMessage(1, ""), 0xb0010025u);
  EXPECT_THAT(
      m_log.Lines("zxagent").back(),
      StartsWith(
          "*zxagent pollmsg Error ZxcloudPollMessage zxcloud_send_pollmsg iStatus[b0010025] strPollMsg[<?xml "));
  EXPECT_EQ(m_log.Levels("zxagent").back(), 3);
}

TEST_F(AgentPollMessage, PollMessage_LogsAtInfo_OnlyWhenVerbose) {
  EXPECT_EQ(m_send.ZxcloudPollMessage(0, ""), 0u);
  EXPECT_EQ(m_log.Levels("zxagent").back(), 1);
  EXPECT_EQ(m_send.ZxcloudPollMessage(1, ""), 0u);
  EXPECT_EQ(m_log.Levels("zxagent").back(), 2);
  EXPECT_THAT(m_log.Lines("zxagent").back(),
              StartsWith("zxagent pollmsg OK ZxcloudPollMessage zxcloud_send_pollmsg strPollMsg[<?xml "));
}
