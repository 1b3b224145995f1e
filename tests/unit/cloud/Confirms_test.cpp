// Uploads that a broker has and the cloud has not confirmed: the table, and the link around it.
#include "platform/cloud/Confirms.h"

#include <gmock/gmock.h>

#include "LongLinkFixture.h"
#include "platform/cloud/zxcloud.h"

using namespace zxcloud;
using ::testing::ElementsAre;

namespace {

class CConfirmsTest : public CLongLinkFixture {
 protected:
  void Up(bool bBulkLink = true) {
    Configure(bBulkLink, true);
    ComeUp();
  }
  void Configure(bool bBulkLink, bool bConfirm) {
    m_link.Configure(
        {ParseAddressList("127.0.0.1:1883", kMqttsPort, false), "m-1", 30, 0, 0, bBulkLink, bConfirm});
    Turn();
  }
  void BrokerHasAll(CFakeTransport& transport) {
    for (const auto& one : transport.published)
      transport.events.OnAck(one.u64Token);
    Turn();
  }
  void Confirm(const std::string& strLines) {
    m_pTransport->events.OnPush("zx/v1/m-1/ack", "zx1\n" + strLines);
    Turn();
  }
  std::vector<uint64_t> Tokens(const CFakeTransport& transport) {
    std::vector<uint64_t> list;
    for (const auto& one : transport.published)
      list.push_back(one.u64Token);
    return list;
  }
};

}  // namespace

TEST_F(CConfirmsTest, Done_WithTheCloudsWord_NotWithTheBrokers) {
  Up();
  EXPECT_EQ(m_pTransport->opened[0].strAlsoSubscribe, "zx/v1/m-1/ack");
  Add(0);
  Add(0);
  Turn();
  BrokerHasAll(*m_pTransport);
  EXPECT_EQ(m_outbox.State().u64Entries, 2u);
  Confirm("+id1\n");
  EXPECT_EQ(m_outbox.State().u64Entries, 1u);
  Confirm("+unknown\n+id2\n+id2\n");
  EXPECT_EQ(m_outbox.State().u64Entries, 0u);
}

TEST_F(CConfirmsTest, WithoutConfirmation_TheBrokersWordCounts) {
  Configure(true, false);
  ComeUp();
  EXPECT_EQ(m_pTransport->opened[0].strAlsoSubscribe, "");
  Add(0);
  Turn();
  BrokerHasAll(*m_pTransport);
  EXPECT_EQ(m_outbox.State().u64Entries, 0u);
}

TEST_F(CConfirmsTest, Caller_HearsOfARefusal) {
  Up();
  Add(0, 10, true);
  CWaiters::CWaiter waiter(m_waiters, 1);
  Turn();
  Confirm("-id1\n");
  EXPECT_EQ(waiter.Wait(0, kZxcloudErrTimeout), kZxcloudErrRefused);
  EXPECT_EQ(m_outbox.State().u64Entries, 0u);
}

TEST_F(CConfirmsTest, CloudMayBeFasterThanTheBroker) {
  Up();
  Add(0);
  Turn();
  Confirm("+id1\n");
  EXPECT_EQ(m_outbox.State().u64Entries, 0u);
  BrokerHasAll(*m_pTransport);
  Add(0);
  Turn();
  EXPECT_THAT(Tokens(*m_pTransport), ElementsAre(1, 2));
}

TEST_F(CConfirmsTest, LostConnection_SendsAgainWhatTheBrokerHadAcknowledged) {
  Up();
  Add(0);
  Add(3);
  Turn();
  BrokerHasAll(*m_pTransport);
  Confirm("+id2\n");
  m_pTransport->bOpen = false;
  m_pTransport->events.OnClosed(EMqttFailure::Network, "gone");
  Turn();
  EXPECT_EQ(m_outbox.Waiting(), 1u);
  Advance(60000);
  ComeUp();
  Turn();
  EXPECT_THAT(Tokens(*m_pTransport), ElementsAre(1, 2, 1));
  Confirm("+id1\n");
  EXPECT_EQ(m_outbox.State().u64Entries, 0u);
}

TEST_F(CConfirmsTest, BulkData_IsConfirmedOnTheCommandsConnection) {
  Up();
  Add(0, 100 << 10);
  Turn(2);
  ASSERT_EQ(m_pBulk->published.size(), 1u);
  BrokerHasAll(*m_pBulk);
  EXPECT_EQ(m_outbox.State().u64Entries, 1u);
  Confirm("+id1\n");
  EXPECT_EQ(m_outbox.State().u64Entries, 0u);
}

TEST_F(CConfirmsTest, MissingConfirmation_SendsAgain_AtGrowingDistances_AlsoWhileOthersAreConfirmed) {
  Up(false);
  for (int i = 0; i < 4; ++i)
    Add(0);
  Turn();
  BrokerHasAll(*m_pTransport);
  for (int i = 2; i <= 4; ++i) {  // a steady stream does not hide the one that is missing
    Advance(9000);
    Confirm("+id" + std::to_string(i) + "\n");
  }
  EXPECT_THAT(Tokens(*m_pTransport), ElementsAre(1, 2, 3, 4));
  Advance(3001);
  EXPECT_THAT(Tokens(*m_pTransport), ElementsAre(1, 2, 3, 4, 1));
  BrokerHasAll(*m_pTransport);
  Advance(kConfirmMs + 1);
  EXPECT_EQ(m_pTransport->published.size(), 6u);
  BrokerHasAll(*m_pTransport);
  Advance(kConfirmMs + 1);
  EXPECT_EQ(m_pTransport->published.size(), 6u) << "nothing was confirmed: twice as long from here on";
  Advance(kConfirmMs);
  EXPECT_EQ(m_pTransport->published.size(), 7u);
}

TEST_F(CConfirmsTest, Overtaken_IsSentAgainSoon_AndNotWhatLeftAtTheSameTime) {
  Up();
  Add(0);
  Turn();
  Advance(kOvertakenMs - 1);
  Add(0);
  Turn();
  Advance(1);
  Add(0);
  Turn();
  BrokerHasAll(*m_pTransport);
  Confirm("+id2\n");  // left one moment too early to say anything about the first
  EXPECT_THAT(Tokens(*m_pTransport), ElementsAre(1, 2, 3));
  Advance(kOvertakenLookMs);
  EXPECT_THAT(Tokens(*m_pTransport), ElementsAre(1, 2, 3));
  Confirm("+id3\n");
  Advance(kOvertakenLookMs);
  EXPECT_THAT(Tokens(*m_pTransport), ElementsAre(1, 2, 3, 1));
  Confirm("+id1\n");
  EXPECT_EQ(m_outbox.State().u64Entries, 0u);
}

TEST_F(CConfirmsTest, Overtaken_AgainAndAgain_IsNotSentAllTheTime) {
  Up();
  Add(0);
  Turn();
  // The cloud confirms everything but the first for half a minute.
  for (int i = 2; i < 32; ++i) {
    Advance(1000);
    Add(0);
    Turn();
    BrokerHasAll(*m_pTransport);
    Confirm("+id" + std::to_string(i) + "\n");
  }
  const auto tokens = Tokens(*m_pTransport);
  EXPECT_EQ(std::count(tokens.begin(), tokens.end(), 1u), 4) << "about every ten seconds";
}

TEST_F(CConfirmsTest, Overtaken_SaysNothingAboutTheOtherConnection) {
  Up();
  Add(1, 100000);  // on the bulk connection, on its way for long
  Turn();
  for (uint64_t u64Seq = 2; u64Seq < 8; ++u64Seq) {
    Advance(1000);
    Add(0);
    Turn();
    Confirm("+id" + std::to_string(u64Seq) + "\n");
  }
  EXPECT_THAT(Tokens(*m_pBulk), ElementsAre(1));
}

TEST_F(CConfirmsTest, Unconfirmed_AreBounded) {
  Up(false);
  for (uint32_t i = 0; i < kUnconfirmedMessages + 50; ++i)
    Add(0);
  for (int i = 0; i < 20; ++i) {
    Turn();
    BrokerHasAll(*m_pTransport);
  }
  EXPECT_EQ(m_pTransport->published.size(), kUnconfirmedMessages);
  Confirm("+id1\n+id2\n");
  EXPECT_EQ(m_pTransport->published.size(), kUnconfirmedMessages + 2);
}

TEST_F(CConfirmsTest, CloudThatConfirmsNoMore_IsBelievedAtOnce) {
  Up(false);
  Add(0);
  Turn();
  BrokerHasAll(*m_pTransport);
  Configure(false, false);
  Turn();
  EXPECT_THAT(Tokens(*m_pTransport), ElementsAre(1, 1));
  BrokerHasAll(*m_pTransport);
  EXPECT_EQ(m_outbox.State().u64Entries, 0u);
}

TEST(Confirms, Take_WhatIsNoConfirmation_IsNotTaken) {
  for (const std::string& str : {std::string(), std::string("zx1"), std::string("zx2\n+id\n"),
                                 std::string("zx1\nid\n"), std::string("zx1\n+\n"), std::string("zx1\n+id"),
                                 "zx1\n+" + std::string(200, 'i') + "\n", std::string("zx1\n\n")}) {
    CConfirms confirms;
    confirms.Use(true);
    confirms.Sent(*MakeOutItem(1, 0, "id", "x"), nullptr, 0);
    EXPECT_FALSE(confirms.Take(str, [](uint64_t, bool) { ADD_FAILURE(); })) << str;
    EXPECT_TRUE(confirms.Waits(1));
  }
}

TEST(Confirms, Take_WhatStandsBeforeRubbishCounts) {
  CConfirms confirms;
  confirms.Use(true);
  confirms.Sent(*MakeOutItem(1, 0, "id", "x"), nullptr, 0);
  uint64_t u64Done = 0;
  EXPECT_FALSE(confirms.Take("zx1\n+id\nrubbish", [&](uint64_t u64Seq, bool) { u64Done = u64Seq; }));
  EXPECT_EQ(u64Done, 1u);
}
