// The long connection with a broker that the test plays: no sockets, no time of its own.
#include "platform/cloud/LongLink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CloudFakes.h"
#include "LongLinkFixture.h"
#include "support/Waiter.h"

using namespace zxcloud;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

class CLongLinkTest : public CLongLinkFixture {};

}  // namespace

TEST_F(CLongLinkTest, PushNumber_TakesOneToNineDigitsBehindThePrefix) {
  EXPECT_EQ(PushNumber("p/0", "p/"), 0);
  EXPECT_EQ(PushNumber("p/999999999", "p/"), 999999999);
  for (const char* psz : {"p/", "p/1234567890", "p/1a", "p/-1", "p/ 1", "q/1", "p", "", "p/1/2"})
    EXPECT_EQ(PushNumber(psz, "p/"), -1) << psz;
}

TEST_F(CLongLinkTest, Configure_OpensWithTheProtocolsNames) {
  Configure("127.0.0.1:1883");
  ASSERT_EQ(m_pTransport->opened.size(), 1u);
  const _MqttOpen& open = m_pTransport->opened[0];
  EXPECT_EQ(open.strClientId, "m-1");
  EXPECT_EQ(open.strSubscribe, "zx/v1/m-1/push/+");
  EXPECT_EQ(open.strStatusTopic, "zx/v1/m-1/status");
  EXPECT_EQ(open.iKeepAliveSec, 30);
  EXPECT_FALSE(open.bPlain);
  EXPECT_GT(m_link.DownSince(), 0u);
  ComeUp();
  EXPECT_TRUE(m_link.IsUp());
  EXPECT_EQ(m_link.Status().strUpAddress, "127.0.0.1:1883");
  EXPECT_THAT(
      CCallbackLog::Events(),
      ElementsAre(HasSubstr("log 1 zxcloud long connection up"), "data 2 10.0.0.1:4000;127.0.0.1:1883",
                  "connect 127.0.0.1 1883", HasSubstr("log 0 zxcloud upload connection up")));
}

TEST_F(CLongLinkTest, Names_AreResolvedAside_AndEachAddressIsTried) {
  Configure("two.example:1");
  ASSERT_TRUE(EventuallyTrue([&] {
    Turn();
    return !m_pTransport->opened.empty();
  }));
  EXPECT_EQ(m_pTransport->opened[0].strIp, "10.0.0.1");
  EXPECT_EQ(m_pTransport->opened[0].strHost, "two.example");
  m_pTransport->events.OnClosed(EMqttFailure::Network, "unreachable");
  Turn();
  ASSERT_EQ(m_pTransport->opened.size(), 2u);
  EXPECT_EQ(m_pTransport->opened[1].strIp, "10.0.0.2");
  m_pTransport->events.OnTcpUp();
  m_pTransport->events.OnClosed(EMqttFailure::Tls, "expired");
  Turn();
  EXPECT_EQ(m_pTransport->opened.size(), 2u);
  EXPECT_THAT(CCallbackLog::Events(), Contains(HasSubstr("reasons[two.example:1: expired]")));
}

TEST_F(CLongLinkTest, Names_ThatDoNotResolve_AreAFailure) {
  Configure("unknown.example:1");
  ASSERT_TRUE(EventuallyTrue([&] {
    Turn();
    return CCallbackLog::Count("log 2") == 1;
  }));
  EXPECT_THAT(CCallbackLog::Events().back(), HasSubstr("unknown.example:1: name not resolved: no such name"));
}

TEST_F(CLongLinkTest, OpenFailure_IsReportedLikeAnyOther) {
  Configure("");
  m_pTransport->strOpenError = "ca_file is missing";
  m_pTransport->eOpenFailure = EMqttFailure::Tls;
  Configure("127.0.0.1:1");
  Turn();
  EXPECT_THAT(CCallbackLog::Events(), Contains(HasSubstr("reasons[127.0.0.1:1: ca_file is missing")));
}

TEST_F(CLongLinkTest, Push_GoesStraightToTheCallback) {
  Configure("127.0.0.1:1");
  ComeUp();
  CCallbackLog::Events().clear();
  m_pTransport->events.OnPush("zx/v1/m-1/push/12", "{}");
  m_pTransport->events.OnPush("zx/v1/m-1/push/12", "");
  m_pTransport->events.OnPush("zx/v1/m-2/push/12", "another machine's");
  m_pTransport->events.OnPush("zx/v1/m-1/push/12", std::string_view("a\0b", 3));
  m_pTransport->events.OnPush("zx/v1/m-1/push/12", std::string(kMaxPushBytes + 1, 'x'));
  EXPECT_EQ(CCallbackLog::Count("push"), 2u);
  EXPECT_EQ(CCallbackLog::Events()[0], "push 12 {}");
  EXPECT_EQ(CCallbackLog::Events()[1], "push 12 ");
  EXPECT_EQ(CCallbackLog::Count("log 2 *zxcloud push refused"), 3u);
}

TEST_F(CLongLinkTest, Pump_FillsTheWindowInMessages_AndKeepsRoomForUrgentOnes) {
  Configure("127.0.0.1:1");
  ComeUp();
  for (int i = 0; i < 100; ++i)
    Add(3);
  Turn();
  EXPECT_EQ(m_pTransport->published.size(), kCommandWindow.uMessages - kCommandWindow.uReserveMessages);
  for (int i = 0; i < 20; ++i)
    Add(0);
  Turn();
  EXPECT_EQ(m_pTransport->published.size(), kCommandWindow.uMessages);
  EXPECT_EQ(m_pTransport->published.back().strTopic, "zx/v1/m-1/up/0");
  const uint64_t u64Token = m_pTransport->published[0].u64Token;
  m_pTransport->events.OnAck(u64Token);
  m_pTransport->events.OnAck(u64Token);  // a second one changes nothing
  Turn();
  EXPECT_EQ(m_pTransport->published.size(), kCommandWindow.uMessages + 1);
  EXPECT_EQ(m_pTransport->published.back().strTopic, "zx/v1/m-1/up/0");
}

TEST_F(CLongLinkTest, Pump_BoundsTheWindowInBytes_ButLetsOneLargeMessageGo) {
  Configure("127.0.0.1:1");
  ComeUp();
  for (int i = 0; i < 3; ++i)
    Add(2, 6u << 20);
  Turn(3);
  ASSERT_EQ(m_pBulk->published.size(), 1u);
  m_pBulk->events.OnAck(m_pBulk->published[0].u64Token);
  Turn(3);
  EXPECT_EQ(m_pBulk->published.size(), 2u);
}

TEST_F(CLongLinkTest, Pump_BoundsTheCommandsWindowInBytes) {
  Configure("127.0.0.1:1");
  ComeUp();
  for (int i = 0; i < 70; ++i)
    Add(1, kCommandBytes);
  for (int i = 0; i < 20; ++i)
    Add(10, kCommandBytes);
  Turn(10);
  size_t uBytes = 0;
  for (const auto& one : m_pTransport->published)
    uBytes += one.strPayload.size();
  EXPECT_LE(uBytes, kCommandWindow.uBytes);
  EXPECT_GT(uBytes, kCommandWindow.uBytes - 2 * kCommandBytes);
  EXPECT_EQ(m_pTransport->published.back().strTopic, "zx/v1/m-1/up/10");
}

TEST_F(CLongLinkTest, Pump_KeepsTheOrderOfPriorities_WhateverTheFlood) {
  Configure("127.0.0.1:1");
  ComeUp();
  for (int i = 0; i < 500; ++i)
    Add(3);
  Turn(3);
  for (const int iPriority : {2, 1, 0})
    Add(iPriority);
  const size_t uBefore = m_pTransport->published.size();
  for (size_t i = 0; i < 12; ++i)
    m_pTransport->events.OnAck(m_pTransport->published[i].u64Token);
  Turn(3);
  std::vector<std::string> list = Topics(*m_pTransport);
  list.erase(list.begin(), list.begin() + static_cast<long>(uBefore));
  ASSERT_GE(list.size(), 4u);
  list.resize(4);
  EXPECT_THAT(list, ElementsAre("zx/v1/m-1/up/0", "zx/v1/m-1/up/1", "zx/v1/m-1/up/2", "zx/v1/m-1/up/3"));
}

TEST_F(CLongLinkTest, Pump_HandsNothingOver_WhileTheSocketIsFull) {
  Configure("127.0.0.1:1");
  ComeUp();
  m_pTransport->bFull = true;
  Add(3);
  Turn(3);
  EXPECT_TRUE(m_pTransport->published.empty());
  Add(0);  // more urgent than what has not gone yet
  m_pTransport->bFull = false;
  Turn(3);
  EXPECT_THAT(Topics(*m_pTransport), ElementsAre("zx/v1/m-1/up/0", "zx/v1/m-1/up/3"));
}

TEST_F(CLongLinkTest, Acknowledgement_CompletesTheBlockingSender) {
  Configure("127.0.0.1:1");
  ComeUp();
  CWaiters::CWaiter waiter(m_waiters, 1);
  Add(1);
  Turn();
  EXPECT_EQ(waiter.Wait(0, 99), 99u);
  m_pTransport->events.OnAck(1);
  EXPECT_EQ(waiter.Wait(0, 99), 0u);
  EXPECT_EQ(m_outbox.Bytes(), 0u);
}

TEST_F(CLongLinkTest, Lost_BringsUnacknowledgedBack_AndSendsThemAgainWithTheirIds) {
  Configure("127.0.0.1:1");
  ComeUp();
  for (int i = 0; i < 3; ++i)
    Add(1);
  Turn();
  const auto first = m_pTransport->published;
  m_pTransport->events.OnAck(first[1].u64Token);
  m_pTransport->events.OnClosed(EMqttFailure::Network, "closed");
  Turn();
  EXPECT_FALSE(m_link.IsUp());
  EXPECT_EQ(m_outbox.Waiting(), 2u);
  EXPECT_GE(m_uDown, 1u);
  EXPECT_EQ(CCallbackLog::Count("disconnect"), 1u);
  EXPECT_EQ(CCallbackLog::Count("log 2"), 1u);  // one line for one change
  Advance(m_times.dwBackoffBase);
  ComeUp();
  Turn();
  ASSERT_EQ(m_pTransport->published.size(), 5u);
  EXPECT_EQ(m_pTransport->published[3].strPayload, first[0].strPayload);
  EXPECT_EQ(m_pTransport->published[4].strPayload, first[2].strPayload);
}

TEST_F(CLongLinkTest, PublishFailure_EndsTheConnection_AndKeepsTheMessage) {
  Configure("127.0.0.1:1");
  ComeUp();
  m_pTransport->bPublishFails = true;
  Add(1);
  Turn();
  EXPECT_FALSE(m_link.IsUp());
  EXPECT_EQ(m_outbox.Waiting(), 1u);
}

TEST_F(CLongLinkTest, AcknowledgementAge_EndsAConnectionThatAnswersNothing) {
  Configure("127.0.0.1:1");
  ComeUp();
  Add(1);
  Turn();
  Advance(m_times.dwAckAge - 1);
  EXPECT_TRUE(m_link.IsUp());
  Advance(2);
  EXPECT_FALSE(m_link.IsUp());
  EXPECT_EQ(m_outbox.Waiting(), 1u);
  EXPECT_EQ(
      CCallbackLog::Count("log 2 *zxcloud long connection lost addr[127.0.0.1:1] reason[sent messages stay"),
      1u);
}

TEST_F(CLongLinkTest, AcknowledgementAge_BearsWithASlowLine) {
  Configure("127.0.0.1:1");
  ComeUp();
  for (int i = 0; i < 3; ++i)
    Add(1, 1u << 20);
  Turn(5);
  ASSERT_EQ(m_pBulk->published.size(), 3u);
  for (const uint64_t u64Seq : {1, 2}) {
    Advance(40000);
    Advance(40000);  // a megabyte at 13 KB a second, taken piece by piece
    ASSERT_TRUE(m_link.Status().bBulkUp);
    m_pBulk->events.OnAck(u64Seq);
  }
  Advance(m_times.dwAckAge + (1u << 20) / 16 + 100);
  EXPECT_FALSE(m_link.Status().bBulkUp);
  EXPECT_TRUE(m_link.IsUp());
}

TEST_F(CLongLinkTest, Silence_EndsAConnection_WithinAMinute) {
  Configure("127.0.0.1:1");
  ComeUp();
  Advance(37000);
  Silence(52000);
  EXPECT_TRUE(m_link.IsUp());
  Silence(1000);
  EXPECT_FALSE(m_link.IsUp());
  EXPECT_EQ(
      CCallbackLog::Count("log 2 *zxcloud long connection lost addr[127.0.0.1:1] reason[no sign of life"),
      1u);
  EXPECT_EQ(m_errors.Last(), "127.0.0.1:1: no sign of life from the far side");
}

TEST_F(CLongLinkTest, Silence_CountsForTheUploadConnectionToo) {
  Configure("127.0.0.1:1");
  ComeUp();
  m_clock.Advance(53000);
  m_pTransport->events.OnAlive();
  Turn(2);
  EXPECT_TRUE(m_link.IsUp());
  EXPECT_FALSE(m_link.Status().bBulkUp);
}

TEST_F(CLongLinkTest, Tick_ComesAtAQuarterOfTheKeepAlive) {
  Configure("127.0.0.1:1");
  ComeUp();
  Advance(7499);
  EXPECT_EQ(m_pTransport->uTicks, 0u);
  Advance(1);
  EXPECT_EQ(m_pTransport->uTicks, 1u);
  EXPECT_EQ(m_pBulk->uTicks, 1u);  // in the same wake-up
  Advance(7500);
  EXPECT_EQ(m_pTransport->uTicks, 2u);
  EXPECT_EQ(m_pBulk->uTicks, 2u);
}

TEST_F(CLongLinkTest, Offline_LogsOncePerMinute) {
  Configure("127.0.0.1:1");
  for (int i = 0; i < 100; ++i) {
    m_pTransport->events.OnClosed(EMqttFailure::Network, "refused");
    Turn();
    m_clock.Advance(600);
    m_random.uPercent = 0;  // attempts as close together as they may get
    Turn(2);
  }
  EXPECT_GT(m_pTransport->opened.size(), 50u);
  EXPECT_LE(CCallbackLog::Count("log 2"), 2u);
  EXPECT_GE(CCallbackLog::Count("log 2"), 1u);
}

TEST_F(CLongLinkTest, Offline_LogsAChangedReasonAtOnce_ButNotOneAfterAnother) {
  Configure("127.0.0.1:1");
  ComeUp();
  m_pTransport->events.OnClosed(EMqttFailure::Network, "reset");
  Turn();
  EXPECT_EQ(CCallbackLog::Count("log 2 *zxcloud long connection lost"), 1u);
  const auto Fail = [this](const std::string& strReason) {
    m_clock.Advance(5000);
    Turn(2);
    ASSERT_TRUE(m_pTransport->bOpen);
    m_pTransport->events.OnClosed(EMqttFailure::Network, strReason);
    m_random.uPercent = 0;
    Turn();
  };
  constexpr const char* kNotUp = "log 2 *zxcloud long connection not up";
  Fail("reset");
  EXPECT_EQ(CCallbackLog::Count(kNotUp), 0u) << "the loss was told with this reason";
  Fail("refused");
  Fail("refused");
  EXPECT_EQ(CCallbackLog::Count(kNotUp), 1u);
  Fail("certificate expired");
  EXPECT_EQ(CCallbackLog::Count(kNotUp), 2u);
  for (int i = 0; i < 100; ++i)
    Fail("reason " + std::to_string(i));
  EXPECT_LE(CCallbackLog::Count(kNotUp), kReasonsMax + 100 * 5000 / m_times.dwQuietLog);
  EXPECT_GE(CCallbackLog::Count(kNotUp), kReasonsMax - 1);
}

TEST_F(CLongLinkTest, RetryMax_BringsBothConnectionsBackInTime) {
  Configure("127.0.0.1:1", 0, true, 6);
  for (int i = 0; i < 8; ++i) {
    m_pTransport->events.OnClosed(EMqttFailure::Network, "refused");
    Turn();
    Advance(6000);
    ASSERT_EQ(m_pTransport->opened.size(), static_cast<size_t>(i) + 2);
  }
  ComeUp();
  for (int i = 0; i < 8; ++i) {
    m_pBulk->events.OnClosed(EMqttFailure::Network, "refused");
    Turn();
    Advance(6000);
    ASSERT_EQ(m_pBulk->opened.size(), static_cast<size_t>(i) + 2);
  }
}

TEST_F(CLongLinkTest, TimeOut_HangsUp_AndTheNextAddressFollows) {
  Configure("127.0.0.1:1,127.0.0.2:2");
  m_pTransport->events.OnTcpUp();
  Advance(m_times.dwConnack);
  ASSERT_EQ(m_pTransport->opened.size(), 2u);
  EXPECT_EQ(m_pTransport->opened[1].strIp, "127.0.0.2");
}

TEST_F(CLongLinkTest, EmptyAddresses_EndTheLink_AndNoneIsExpected) {
  Configure("127.0.0.1:1");
  ComeUp();
  Configure("");
  EXPECT_FALSE(m_link.IsUp());
  EXPECT_EQ(m_link.DownSince(), 0u);
  EXPECT_EQ(CCallbackLog::Count("disconnect"), 1u);
}

TEST_F(CLongLinkTest, Stop_MarksTheMachineOfflineWithoutACallback) {
  Configure("127.0.0.1:1");
  ComeUp();
  m_link.Stop();
  m_link.Run();
  EXPECT_TRUE(m_pTransport->bClosedPolitely);
  EXPECT_FALSE(m_pBulk->bOpen);
  EXPECT_FALSE(m_link.IsUp());
  EXPECT_EQ(CCallbackLog::Count("disconnect"), 0u);
}
