// The way of a command through its states.
#include <gmock/gmock.h>

#include "CloudFixture.h"

namespace zxcloudd {
namespace {

using EInsert = CCommandTable::EInsert;
using testing::ElementsAre;
using testing::IsEmpty;

class CCommands : public CStoreTest {
 protected:
  EInsert Insert(const std::string& strID, const std::string& strVia = "auto",
                 const std::string& strMid = kMid) {
    _NewCommand command;
    command.strID = strID;
    command.strMid = strMid;
    command.strCommand = "disk_usage";
    command.strText = "{\"ID\":\"" + strID + "\"}";
    command.strVia = strVia;
    command.iPcid = 1001;
    EInsert eResult = EInsert::Ok;
    EXPECT_TRUE(
        Run([&](CSqlite& db) { return CCommandTable::Insert(db, command, m_limits, m_i64Now, eResult); }));
    return eResult;
  }
  void Online(bool bOnline) {
    EXPECT_TRUE(Run([&](CSqlite& db) { return CAgentTable::SetOnline(db, kMid, bOnline, m_i64Now); }));
  }
  std::vector<int64_t> TakePushes(int iMax = 100, size_t uMaxBytes = 1 << 20) {
    std::vector<_PushItem> listItems;
    EXPECT_TRUE(Run(
        [&](CSqlite& db) { return CCommandTable::TakePushes(db, iMax, uMaxBytes, m_i64Now, listItems); }));
    std::vector<int64_t> listSeq;
    for (const _PushItem& item : listItems)
      listSeq.push_back(item.i64Seq);
    return listSeq;
  }
  std::vector<std::string> TakePoll() {
    std::vector<_PollItem> listItems;
    EXPECT_TRUE(
        Run([&](CSqlite& db) { return CCommandTable::TakePoll(db, kMid, m_poll, m_i64Now, listItems); }));
    std::vector<std::string> listTexts;
    for (const _PollItem& item : listItems)
      listTexts.push_back(item.strText);
    return listTexts;
  }
  bool Ack(const std::string& strID, int iMsgType, const std::string& strMid = kMid) {
    bool bKnown = false;
    EXPECT_TRUE(Run([&](CSqlite& db) {
      return CCommandTable::SetAcked(db, strMid, {strID, iMsgType}, m_limits, m_i64Now, bKnown);
    }));
    return bKnown;
  }
  _CommandRow Row(const std::string& strID) {
    std::vector<_CommandRow> listRows;
    EXPECT_TRUE(Run([&](CSqlite& db) { return CCommandTable::Find(db, strID, 10, listRows); }));
    return listRows.empty() ? _CommandRow() : listRows.front();
  }
  std::string State(const std::string& strID) { return Row(strID).strState; }

  _LimitConfig m_limits;
  _PollConfig m_poll;
  int64_t m_i64Now = 1000000;
};

TEST_F(CCommands, Insert_RefusesUnknownMachineDuplicateAndTooMany) {
  m_limits.iPendingPerAgent = 2;
  EXPECT_EQ(Insert("a"), EInsert::Ok);
  EXPECT_EQ(Insert("a"), EInsert::Duplicate);
  EXPECT_EQ(Insert("b", "auto", "nobody"), EInsert::UnknownAgent);
  EXPECT_EQ(Insert("b"), EInsert::Ok);
  EXPECT_EQ(Insert("c"), EInsert::Full);
  Ack("a", 3);
  EXPECT_EQ(Insert("c"), EInsert::Ok);
}

TEST_F(CCommands, Push_GoesOutOnce_WhenTheMachineIsOnline) {
  Insert("a");
  EXPECT_THAT(TakePushes(), IsEmpty());
  Online(true);
  const auto listSeq = TakePushes();
  ASSERT_EQ(listSeq.size(), 1u);
  EXPECT_EQ(State("a"), "publishing");
  EXPECT_THAT(TakePushes(), IsEmpty());
  EXPECT_TRUE(Run([&](CSqlite& db) { return CCommandTable::SetPushed(db, listSeq, m_i64Now); }));
  EXPECT_EQ(State("a"), "pushed");
  EXPECT_THAT(TakePoll(), IsEmpty()) << "what the broker has is not offered by polling as well";
}

TEST_F(CCommands, Push_ComesAgain_WhenTheBrokerDidNotAcknowledge) {
  Insert("a");
  Online(true);
  const auto listFirst = TakePushes();
  EXPECT_TRUE(Run([&](CSqlite& db) { return CCommandTable::RequeuePublishing(db); }));
  EXPECT_EQ(TakePushes(), listFirst);
}

TEST_F(CCommands, Push_OrderAndBounds) {
  Online(true);
  for (const char* psz : {"a", "b", "c"})
    Insert(psz);
  EXPECT_THAT(TakePushes(2), ElementsAre(1, 2));
  EXPECT_THAT(TakePushes(2), ElementsAre(3));
  Insert("d");
  Insert("e");
  EXPECT_THAT(TakePushes(10, 1), ElementsAre(4)) << "one at least, whatever its size";
}

TEST_F(CCommands, Via_DecidesTheWay) {
  Online(true);
  Insert("poll", "poll");
  EXPECT_THAT(TakePushes(), IsEmpty());
  EXPECT_EQ(TakePoll().size(), 1u);
  Online(false);
  Insert("push", "push");
  EXPECT_THAT(TakePoll(), IsEmpty());
  EXPECT_EQ(State("push"), "queued");
  Online(true);
  EXPECT_EQ(TakePushes().size(), 1u);
}

TEST_F(CCommands, Poll_OffersAgainOnlyAfterTheInterval_UntilAcknowledged) {
  Insert("a");
  EXPECT_EQ(TakePoll().size(), 1u);
  EXPECT_THAT(TakePoll(), IsEmpty());
  m_i64Now += m_poll.iReofferSec * 1000 - 1;
  EXPECT_THAT(TakePoll(), IsEmpty());
  m_i64Now += 1;
  EXPECT_EQ(TakePoll().size(), 1u);
  EXPECT_EQ(Row("a").i64Offers, 2);
  Ack("a", 3);
  m_i64Now += m_poll.iReofferSec * 1000;
  EXPECT_THAT(TakePoll(), IsEmpty());
  EXPECT_EQ(State("a"), "acked");
}

TEST_F(CCommands, Poll_ExpiresWhatIsNeverAcknowledged_AndStillTakesALateAcknowledgement) {
  m_poll.iMaxOffers = 2;
  Insert("a");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(TakePoll().size(), 1u);
    m_i64Now += m_poll.iReofferSec * 1000;
  }
  EXPECT_THAT(TakePoll(), IsEmpty());
  EXPECT_EQ(State("a"), "expired");
  Ack("a", 3);
  EXPECT_EQ(State("a"), "acked");
}

TEST_F(CCommands, Poll_CarriesAtMostTheConfiguredNumber_OldestFirst) {
  m_poll.iMaxCommands = 2;
  for (const char* psz : {"a", "b", "c"})
    Insert(psz);
  EXPECT_THAT(TakePoll(), ElementsAre("{\"ID\":\"a\"}", "{\"ID\":\"b\"}"));
  EXPECT_THAT(TakePoll(), ElementsAre("{\"ID\":\"c\"}"));
}

TEST_F(CCommands, Poll_OfferedCommandsAreNotPushedWhenTheMachineComesOnline) {
  Insert("a");
  TakePoll();
  Online(true);
  EXPECT_THAT(TakePushes(), IsEmpty());
}

struct _AckCase {
  int iFirst, iSecond;
  const char* pszState;
  int iMsgType;
};

class CAckOrder : public CCommands, public testing::WithParamInterface<_AckCase> {};

TEST_P(CAckOrder, ASuccessIsNotUndone) {
  Insert("a");
  EXPECT_TRUE(Ack("a", GetParam().iFirst));
  EXPECT_TRUE(Ack("a", GetParam().iSecond));
  EXPECT_EQ(State("a"), GetParam().pszState);
  EXPECT_EQ(Row("a").iMsgType, GetParam().iMsgType);
}

INSTANTIATE_TEST_SUITE_P(CCommands, CAckOrder,
                         testing::Values(_AckCase{3, 4, "acked", 3}, _AckCase{4, 3, "acked", 3},
                                         _AckCase{4, 4, "refused", 4}, _AckCase{3, 1, "acked", 3}));

TEST_F(CCommands, Ack_ArrivesBeforeTheBrokersOwn) {
  Insert("a");
  Online(true);
  const auto listSeq = TakePushes();
  Ack("a", 3);
  EXPECT_TRUE(Run([&](CSqlite& db) { return CCommandTable::SetPushed(db, listSeq, m_i64Now); }));
  EXPECT_EQ(State("a"), "acked");
}

TEST_F(CCommands, Ack_OfAnotherMachineChangesNothing) {
  Insert("a");
  EXPECT_FALSE(Ack("a", 3, "other"));
  EXPECT_FALSE(Ack("unknown", 3));
  EXPECT_EQ(State("a"), "queued");
}

TEST_F(CCommands, Ack_FloodKeepsABoundedTrace) {
  Insert("a");
  for (int i = 0; i < 500; ++i)
    Ack("a", 3);
  EXPECT_EQ(Row("a").listEvents.size(), 64u);
}

TEST_F(CCommands, Finished_OlderOnesAreForgotten_WithTheirEvents) {
  m_limits.iFinishedPerAgent = 2;
  for (int i = 0; i < 6; ++i) {
    Insert("c" + std::to_string(i));
    Ack("c" + std::to_string(i), 3);
  }
  EXPECT_EQ(State("c0"), "");
  EXPECT_EQ(State("c5"), "acked");
  int64_t i64Commands = 0, i64Orphans = -1;
  Run([&](CSqlite& db) {
    bool bOk = false;
    i64Commands = db.Query("SELECT COUNT(*) FROM commands").Number(0, bOk);
    i64Orphans = db.Query("SELECT COUNT(*) FROM events WHERE command NOT IN (SELECT seq FROM commands)")
                     .Number(-1, bOk);
    return bOk;
  });
  EXPECT_EQ(i64Commands, 3);
  EXPECT_EQ(i64Orphans, 0);
}

TEST_F(CCommands, Trace_KeepsEveryStepWithItsTime) {
  Insert("a");
  m_i64Now += 5;
  Online(true);
  const auto listSeq = TakePushes();
  m_i64Now += 5;
  EXPECT_TRUE(Run([&](CSqlite& db) { return CCommandTable::SetPushed(db, listSeq, m_i64Now); }));
  m_i64Now += 5;
  Ack("a", 3);
  Reopen();
  std::vector<std::string> listSteps;
  for (const _CommandEvent& event : Row("a").listEvents)
    listSteps.push_back(event.strKind + "@" + std::to_string(event.i64At - 1000000));
  EXPECT_THAT(listSteps, ElementsAre("created@0", "published@5", "pushed@10", "acked@15"));
}

}  // namespace
}  // namespace zxcloudd
