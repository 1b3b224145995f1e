// The connection for bulk data beside that of the commands, with a broker that the test plays.
#include "platform/cloud/BulkLink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CloudFakes.h"
#include "LongLinkFixture.h"

using namespace zxcloud;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

constexpr size_t kLarge = 100u << 10;

class CBulkLinkTest : public CLongLinkFixture {
 protected:
  void Up() {
    Configure("127.0.0.1:1883");
    ComeUp();
    ASSERT_TRUE(m_link.Status().bBulkUp);
  }
  void LoseBulk(EMqttFailure eKind = EMqttFailure::Network, const std::string& strReason = "gone") {
    m_pBulk->bOpen = false;
    m_pBulk->events.OnClosed(eKind, strReason);
    Turn();
  }
};

}  // namespace

TEST_F(CBulkLinkTest, Follows_ToTheSameAddress_WithAnIdOfItsOwnAndNoSession) {
  Configure("127.0.0.1:1883");
  EXPECT_TRUE(m_pBulk->opened.empty());
  ComeUp();
  ASSERT_EQ(m_pBulk->opened.size(), 1u);
  const _MqttOpen& open = m_pBulk->opened[0];
  EXPECT_EQ(open.strIp, "127.0.0.1");
  EXPECT_EQ(open.wPort, 1883);
  EXPECT_EQ(open.strClientId, "m-1-up");
  EXPECT_EQ(open.strSubscribe, "");
  EXPECT_EQ(open.strStatusTopic, "");
  EXPECT_EQ(open.iKeepAliveSec, 30);
  EXPECT_TRUE(m_link.Status().bBulkUp);
}

TEST_F(CBulkLinkTest, Size_DecidesTheConnection_WhateverThePriority) {
  Up();
  for (const int iPriority : {0, 3, 10}) {
    Add(iPriority, kCommandBytes);
    Add(iPriority, kCommandBytes + 1);
  }
  Turn(5);
  EXPECT_THAT(Topics(*m_pTransport), ElementsAre("zx/v1/m-1/up/0", "zx/v1/m-1/up/3", "zx/v1/m-1/up/10"));
  EXPECT_THAT(Topics(*m_pBulk), ElementsAre("zx/v1/m-1/up/0", "zx/v1/m-1/up/3", "zx/v1/m-1/up/10"));
}

TEST_F(CBulkLinkTest, Acknowledgement_NeverWaits_BehindBulkOfAnyPriority) {
  Up();
  for (int i = 0; i < 100; ++i)
    Add(0, kLarge);
  m_pBulk->bFull = true;
  Turn(5);
  Add(2, 60);
  Turn();
  EXPECT_THAT(Topics(*m_pTransport), ElementsAre("zx/v1/m-1/up/2"));
}

TEST_F(CBulkLinkTest, Pump_LetsTheCommandsHaveTheirTurn_BetweenBulkMessages) {
  Up();
  for (int i = 0; i < 32; ++i)
    Add(3, kLarge);
  Turn();
  EXPECT_EQ(m_pBulk->published.size(), 1u);
  Add(2);
  Turn();
  EXPECT_EQ(m_pBulk->published.size(), 2u);
  EXPECT_EQ(m_pTransport->published.size(), 1u);
  Turn(40);
  EXPECT_EQ(m_pBulk->published.size(), 32u);
}

TEST_F(CBulkLinkTest, LostAlone_LeavesTheLinkUp_AndWaitsForAMoment) {
  Up();
  Add(1, kLarge);
  Turn(2);
  CCallbackLog::Events().clear();
  LoseBulk();
  EXPECT_TRUE(m_link.IsUp());
  EXPECT_FALSE(m_link.Status().bBulkUp);
  EXPECT_EQ(m_outbox.Waiting(), 1u);
  EXPECT_EQ(CCallbackLog::Count("disconnect") + CCallbackLog::Count("log 2"), 0u);
  // Comes back, and what was under way goes again with its id.
  Advance(m_times.dwBackoffBase);
  ASSERT_EQ(m_pBulk->opened.size(), 2u);
  ComeUp(*m_pBulk);
  Turn();
  ASSERT_EQ(m_pBulk->published.size(), 2u);
  EXPECT_EQ(m_pBulk->published[0].strPayload, m_pBulk->published[1].strPayload);
  EXPECT_TRUE(m_pTransport->published.empty());
  EXPECT_EQ(CCallbackLog::Count("log 2"), 0u);
}

TEST_F(CBulkLinkTest, Missed_SendsUploadsWithTheCommands_UntilItIsBack) {
  Up();
  LoseBulk();
  Add(1, kLarge);
  Turn();
  EXPECT_TRUE(m_pTransport->published.empty());
  for (uint32_t dw = 0; dw < m_times.dwUploadGrace; dw += 500) {
    Advance(500);
    if (m_pBulk->bOpen)
      LoseBulk();
  }
  Turn();
  EXPECT_EQ(m_pTransport->published.size(), 1u);
  EXPECT_EQ(CCallbackLog::Count("log 2 *zxcloud upload connection not up, uploads go with the commands"), 1u);
  Advance(20000);
  ASSERT_TRUE(m_pBulk->bOpen);
  ComeUp(*m_pBulk);
  Turn();
  EXPECT_EQ(CCallbackLog::Count("log 1 zxcloud upload connection up again"), 1u);
  Add(1, kLarge);
  Turn(2);
  EXPECT_EQ(m_pTransport->published.size(), 1u);
  EXPECT_EQ(m_pBulk->published.size(), 1u);
  // What went with the commands is still acknowledged there.
  m_pTransport->events.OnAck(m_pTransport->published[0].u64Token);
  EXPECT_EQ(m_outbox.State().u64Entries, 1u);
}

TEST_F(CBulkLinkTest, Missed_LogsAChangedReason_Once) {
  Up();
  m_random.uPercent = 0;  // attempts as close together as they may get
  LoseBulk();
  Advance(m_times.dwUploadGrace);
  constexpr const char* kMissed = "log 2 *zxcloud upload connection not up";
  EXPECT_EQ(CCallbackLog::Count(kMissed), 1u);
  for (const char* pszReason : {"refused", "refused", "gone", "refused"}) {
    Advance(10);
    ASSERT_TRUE(m_pBulk->bOpen);
    LoseBulk(EMqttFailure::Network, pszReason);
    Turn();
    EXPECT_EQ(CCallbackLog::Count(kMissed), 2u) << pszReason;
  }
}

TEST_F(CBulkLinkTest, Refused_IsTriedSeldom_AndMissed) {
  Configure("127.0.0.1:1883");
  ComeUp(*m_pTransport);
  Turn();
  LoseBulk(EMqttFailure::Refused);
  Add(1, kLarge);
  m_random.uPercent = 100;
  Advance(m_times.dwUploadGrace);
  ASSERT_EQ(m_pTransport->published.size(), 1u);
  m_pTransport->events.OnAck(m_pTransport->published[0].u64Token);
  for (int i = 0; i < 14; ++i)
    Advance(10000);
  EXPECT_EQ(m_pBulk->opened.size(), 1u);
  for (int i = 0; i < 2; ++i)
    Advance(10000);
  EXPECT_EQ(m_pBulk->opened.size(), 2u);
}

TEST_F(CBulkLinkTest, NoAnswer_TimesOut_AndIsMissed) {
  Configure("127.0.0.1:1883");
  ComeUp(*m_pTransport);
  Turn();
  m_pBulk->events.OnTcpUp();
  Advance(m_times.dwConnack);
  EXPECT_FALSE(m_pBulk->bOpen);
  Turn();
  EXPECT_EQ(CCallbackLog::Count("log 2 *zxcloud upload connection not up"), 1u);
}

TEST_F(CBulkLinkTest, LostWithTheCommands_BringsBackBoth_AndMovesBoth) {
  Configure("127.0.0.1:1883,127.0.0.2:1884");
  ComeUp();
  Add(1, kLarge);
  Add(1);
  Turn(2);
  EXPECT_EQ(m_outbox.Waiting(), 0u);
  m_pTransport->events.OnClosed(EMqttFailure::Network, "gone");
  Turn();
  EXPECT_FALSE(m_pBulk->bOpen);
  EXPECT_FALSE(m_link.Status().bBulkUp);
  EXPECT_EQ(m_outbox.Waiting(), 2u);
  EXPECT_EQ(CCallbackLog::Count("log 2"), 1u);  // one line for one change
  Advance(m_times.dwBackoffBase);
  ComeUp();
  Turn(2);
  EXPECT_EQ(m_pTransport->opened.back().strIp, "127.0.0.2");
  EXPECT_EQ(m_pBulk->opened.back().strIp, "127.0.0.2");
  EXPECT_EQ(m_pBulk->opened.back().wPort, 1884);
  EXPECT_EQ(m_pBulk->published.size(), 2u);
  EXPECT_EQ(m_pTransport->published.size(), 2u);
  EXPECT_EQ(m_link.Status().u64Reconnects, 1u);
}

TEST_F(CBulkLinkTest, OneConnection_WhenTheCloudWantsIt) {
  Configure("127.0.0.1:1883", 0, false);
  ComeUp();
  Add(1, kLarge);
  Add(2);
  Turn(2);
  EXPECT_TRUE(m_pBulk->opened.empty());
  EXPECT_THAT(Topics(*m_pTransport), ElementsAre("zx/v1/m-1/up/1", "zx/v1/m-1/up/2"));
  EXPECT_EQ(CCallbackLog::Count("log 2"), 0u);
}

TEST_F(CBulkLinkTest, Backlog_GoesSlowlyAfterAReturn_AndBlockingSendersPassIt) {
  Configure("127.0.0.1:1883", 10);
  for (int i = 0; i < 100; ++i)
    Add(0);
  for (int i = 0; i < 10; ++i)
    Add(0, kLarge);
  ComeUp();
  Turn(5);
  EXPECT_EQ(m_pTransport->published.size(), 10u);
  Add(3, 10, true);
  Add(3, kLarge, true);
  Turn(2);
  EXPECT_EQ(m_pTransport->published.size(), 11u);
  EXPECT_EQ(m_pTransport->published.back().strTopic, "zx/v1/m-1/up/3");
  EXPECT_EQ(m_pBulk->published.size(), 1u);
  for (int i = 0; i < 10; ++i)
    Advance(100);
  EXPECT_NEAR(static_cast<double>(m_pTransport->published.size() + m_pBulk->published.size()), 22, 2);
}

TEST_F(CBulkLinkTest, Backlog_IsOver_OnceEverythingHasGone) {
  Configure("127.0.0.1:1883", 10);
  Add(1);
  ComeUp();
  Turn();
  ASSERT_EQ(m_pTransport->published.size(), 1u);
  for (int i = 0; i < 40; ++i)
    Add(1);
  Turn(2);
  EXPECT_EQ(m_pTransport->published.size(), 41u);
}

TEST_F(CBulkLinkTest, Backlog_IsNone_WhenNothingWaitedAtTheReturn) {
  Configure("127.0.0.1:1883", 10);
  ComeUp(*m_pTransport);
  for (int i = 0; i < 40; ++i)
    Add(1);  // before the first turn
  Turn(2);
  EXPECT_EQ(m_pTransport->published.size(), 40u);
}
