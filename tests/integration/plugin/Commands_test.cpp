// Pushed and polled commands from the cloud library's callback to the bus and back to the cloud.
#include "AgentFixture.h"

using testing::HasSubstr;

TEST_F(CAgentFixture, Push_ReachesTheTaskManagerWithTheHandOffText) {
  StartAgent();
  const std::string strText = PushText("cmd-1", "disk_usage");
  Push(kPcidSample, strText);
  const auto calls = HandOffs();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].guid, GUID(kTaskMgrId));
  EXPECT_EQ(calls[0].uiTimeoutMs, 60000u);
  EXPECT_EQ(calls[0].strData, std::string("<version=1><guid=") + kSampleId +
                                  "><product=veltcwpp><combo=zxsample><command=disk_usage><msg=" + strText +
                                  ">");
  EXPECT_FALSE(Acknowledged("cmd-1", 3)) << "acknowledged before the component answered";
}

TEST_F(CAgentFixture, Push_IsAcknowledgedOnceTheComponentAnswered) {
  StartAgent();
  Push(kPcidSample, PushText("cmd-1", "disk_usage"));
  Complete(HandOffs().at(0), 0, "{}");
  ASSERT_EQ(Sent().size(), 1u);
  EXPECT_EQ(Sent()[0],
            "<mid=fake-mid><m2=fake-mid2><v=2><product=veltcwpp><combo=zxsample><ipartner=test-pin><pa=linux>"
            "<pid=test-channel><sysver=><version=><PCPluginJasonData={\"ID\":\"cmd-1\",\"msg_type\":\"3\"}>"
            "<PCPluginVersion=1.0.0.2005>");
  EXPECT_EQ(CFakeCloud::Get().Calls(ECloudCall::Send)[0].iPriority, 2);
}

TEST_F(CAgentFixture, Push_ComponentFailureIsNotAcknowledged) {
  StartAgent();
  Push(kPcidSample, PushText("cmd-1", "disk_usage"));
  Complete(HandOffs().at(0), 5);
  EXPECT_TRUE(Sent().empty());
  EXPECT_TRUE(m_log.Contains(
      "*zxagent pushmsg callback Error RecvMsgResultsFromTaskMgr u64DataId[1] iResult[5] ui64ACT["));
  ExpectNextCommandWorks();
}

TEST_F(CAgentFixture, Push_BusRefusalIsNotAcknowledged) {
  StartAgent();
  m_bus.SetResult(EBusCall::AsynSendEx, 20001, kBusErrNoTarget);
  Push(kPcidSample, PushText("cmd-1", "disk_usage"));
  m_completed.insert(HandOffs().at(0).ui64ACT);  // refused: there is no completion
  EXPECT_TRUE(Sent().empty());
  EXPECT_TRUE(m_log.Contains("**zxagent pushmsg Error AsynSendEx u64DataId[1] iRet[b0020002]"));
  m_bus.SetResult(EBusCall::AsynSendEx, 20001, 0);
  ExpectNextCommandWorks();
}

TEST_F(CAgentFixture, Push_WithoutRouteIsAnsweredNotDone) {
  StartAgent();
  Push(kPcidNobody, PushText("cmd-1", "unheard_of"));
  EXPECT_TRUE(Acknowledged("cmd-1", 4));
  EXPECT_TRUE(HandOffs().empty());
}

TEST_F(CAgentFixture, Push_UnknownCommandOfAKnownComponentFallsBackToProductAndCombo) {
  StartAgent();
  Push(kPcidSample, PushText("cmd-1", "not_in_the_route_file"));
  ASSERT_EQ(HandOffs().size(), 1u);
  EXPECT_THAT(HandOffs()[0].strData, HasSubstr("<command=not_in_the_route_file>"));
}

TEST_F(CAgentFixture, Push_NotificationGoesToTheFlowChannelOnly) {
  StartAgent();
  const std::string strText = PushText("cmd-1", "disk_usage");
  Push(kPcidSample, strText);
  size_t uFlow = 0;
  for (const CLogCapture::CEntry& entry : m_log.Entries()) {
    if (entry.strText ==
        "agent收到消息\nid:cmd-1\ncommand:disk_usage\nproduct:veltcwpp\ncombo:zxsample\nlpszMsg:" + strText +
            "\n") {
      EXPECT_EQ(entry.strChannel, "zxagentflow");
      EXPECT_EQ(entry.iLevel, 2);
      ++uFlow;
    }
  }
  EXPECT_EQ(uFlow, 1u);
}

TEST_F(CAgentFixture, Push_AngleBracketsInTheBodyTravelUnchanged) {
  StartAgent();
  const std::string strText = R"({"ID":"cmd-1","Command":"disk_usage","Param":"<guid=x><msg=y>"})";
  Push(kPcidSample, strText);
  ASSERT_EQ(HandOffs().size(), 1u);
  EXPECT_THAT(HandOffs()[0].strData, HasSubstr("<msg=" + strText + ">"));
}

TEST_F(CAgentFixture, Push_RunsInArrivalOrder) {
  StartAgent();
  for (int i = 0; i < 50; ++i)
    CFakeCloud::Get().FirePush(kPcidSample, PushText("cmd-" + std::to_string(i), "disk_usage").c_str());
  Settle();
  const auto calls = HandOffs();
  ASSERT_EQ(calls.size(), 50u);
  for (int i = 0; i < 50; ++i)
    EXPECT_THAT(calls[static_cast<size_t>(i)].strData, HasSubstr("\"cmd-" + std::to_string(i) + "\""));
}

TEST_F(CAgentFixture, Poll_ItemsAreTreatedLikePushes) {
  StartAgent();
  Poll(Envelope(EnvelopeItem(kPcidSample, "m1", PushText("poll-1", "disk_usage")) +
                EnvelopeItem(kPcidNobody, "m2", PushText("poll-2", "unheard_of")) +
                EnvelopeItem(kPcidSample, "m3", PushText("poll-3", "disk_usage"))));
  ASSERT_EQ(HandOffs().size(), 2u);
  EXPECT_TRUE(Acknowledged("poll-2", 4));
  EXPECT_TRUE(m_log.Contains("zxagent CAgentMgr::ZxcloudPollmsg End OK iFlag[0] Success[2] Fail[1] All[3]"));
}

TEST_F(CAgentFixture, Connect_IsBroadcastAndLeavesItsTrace) {
  StartAgent();
  CFakeCloud::Get().FireConnect("192.0.2.7", 8883);
  Settle();
  CFakeCloud::Get().FireDisconnect();
  Settle();
  std::vector<std::string> texts;
  for (const _BusCall& call : m_bus.Calls(EBusCall::BroadcastSend)) {
    if (call.uiType == 1000 || call.uiType == 1001)
      texts.push_back(std::to_string(call.uiType) + " " + call.strData);
  }
  EXPECT_THAT(texts, testing::ElementsAre(R"(1000 {"onlineflag":"1","ip":"192.0.2.7","port":"8883"})",
                                          R"(1001 {"onlineflag":"0","ip":"","port":"0"})"));
  EXPECT_THAT(m_home.ReadFile("data/zxagent/maint/connect").Str(), testing::EndsWith(",192.0.2.7:8883"));
  EXPECT_FALSE(m_home.ReadFile("data/zxagent/maint/disconnect").IsEmpty());
  EXPECT_THAT(m_home.ReadFile("data/zxagent/maint/tconf").Str(),
              testing::EndsWith(std::string(",") + kPcidTable));
}

TEST_F(CAgentFixture, Data_AddressesAreKept) {
  StartAgent();
  const std::string strShort = "192.0.2.1:40000;198.51.100.1:443";
  CFakeCloud::Get().FireData(1, 0, strShort.c_str(), static_cast<int>(strShort.size()));
  const std::string strLong = "192.0.2.1:40001;198.51.100.2:8883";
  CFakeCloud::Get().FireData(2, 0, strLong.c_str(), static_cast<int>(strLong.size()));
  Settle();
  const std::string strFile = m_home.ReadFile("etc/zxagent/zxcloud.json").Str();
  for (const char* pszAddr : {"192.0.2.1:40000", "198.51.100.1:443", "192.0.2.1:40001", "198.51.100.2:8883"})
    EXPECT_THAT(strFile, HasSubstr(pszAddr));
  EXPECT_THAT(CFakeCloud::Get().Texts(ECloudCall::Setopt), testing::Contains("localip=192.0.2.1"));
}
