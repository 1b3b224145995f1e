#include "platform/cloud/Outbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CloudFakes.h"

using namespace zxcloud;
using ::testing::ElementsAre;

namespace {

class COutboxTest : public ::testing::Test {
 protected:
  static _OutRoom Wide() {
    _OutRoom room;
    room.uMessages = 1000;
    room.uBytes = 1u << 30;
    return room;
  }
  bool Add(int iPriority, size_t uBytes = 10) {
    return m_box.Add(MakeOutItem(++m_u64Seq, iPriority, "id", std::string(uBytes, 'x')));
  }
  // Priorities in the order in which they go.
  std::vector<int> TakeAll() {
    std::vector<int> list;
    while (const TOutItem pItem = m_box.Take(Wide())) {
      list.push_back(pItem->iPriority);
      m_box.Done(pItem->u64Seq);
    }
    return list;
  }

  CFakeClock m_clock;
  COutbox m_box{100000, m_clock};
  uint64_t m_u64Seq = 0;
};

}  // namespace

TEST_F(COutboxTest, MakeOutItem_HasWireFormAndBody) {
  const TOutItem pItem = MakeOutItem(5, 11, "abc-1", std::string_view("a\0b", 3));
  EXPECT_EQ(pItem->strWire, std::string("zx1 abc-1\na\0b", 13));
  EXPECT_EQ(pItem->Body(), std::string_view("a\0b", 3));
}

TEST_F(COutboxTest, PriorityIndex_KnowsEightPriorities) {
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(PriorityIndex(i), i);
    EXPECT_EQ(PriorityIndex(10 + i), 4 + i);
  }
  for (const int i : {-1, 4, 9, 14, 1000, INT32_MIN, INT32_MAX})
    EXPECT_EQ(PriorityIndex(i), -1);
}

TEST_F(COutboxTest, Take_GoesByPriorityThenAge) {
  for (const int i : {3, 1, 0, 2, 1})
    ASSERT_TRUE(Add(i));
  std::vector<uint64_t> list;
  while (const TOutItem pItem = m_box.Take(Wide()))
    list.push_back(pItem->u64Seq);
  EXPECT_THAT(list, ElementsAre(3, 2, 5, 4, 1));
}

TEST_F(COutboxTest, Take_GivesTheSecondGroupEveryFourthTurn) {
  for (int i = 0; i < 8; ++i) {
    Add(3);
    Add(10);
  }
  EXPECT_THAT(TakeAll(), ElementsAre(3, 3, 3, 10, 3, 3, 3, 10, 3, 3, 10, 10, 10, 10, 10, 10));
}

TEST_F(COutboxTest, Take_KeepsARestOfTheRoomForUrgentEntries) {
  Add(1);
  Add(0);
  Add(10);
  _OutRoom room{8, 1u << 20, 8, 1000};
  EXPECT_EQ(m_box.Take(room)->iPriority, 0);
  EXPECT_EQ(m_box.Take(room)->iPriority, 10);
  EXPECT_EQ(m_box.Take(room), nullptr);
  room.uMessages = 9;
  EXPECT_EQ(m_box.Take(room)->iPriority, 1);
}

TEST_F(COutboxTest, Take_LetsAnUrgentEntryPassABulkEntryThatDoesNotFit) {
  Add(10);
  Add(3, 5000);
  const _OutRoom room{10, 1000, 0, 0};
  EXPECT_EQ(m_box.Take(room)->iPriority, 10);
  EXPECT_EQ(m_box.Take(room), nullptr);
}

TEST_F(COutboxTest, Take_LetsAnEntryLargerThanTheRoomGoAlone) {
  Add(2, 5000);
  _OutRoom room{10, 1000, 0, 0};
  EXPECT_EQ(m_box.Take(room), nullptr);
  room.bIdle = true;
  EXPECT_NE(m_box.Take(room), nullptr);
  EXPECT_EQ(m_box.Take({0, 1000, 0, 0, true, ELane::Any, false}), nullptr);
}

TEST_F(COutboxTest, Add_RefusesBeyondTheBytes_UrgentEntriesLast) {
  while (Add(2, 1000)) {
  }
  EXPECT_FALSE(Add(13, 1000));
  EXPECT_TRUE(Add(0, 1000));
  while (Add(0, 1000)) {
  }
  EXPECT_LE(m_box.Bytes(), 100000u);
  const TOutItem pItem = m_box.Take(Wide());
  EXPECT_FALSE(Add(0, 1000));  // taken is not gone
  m_box.Done(pItem->u64Seq);
  EXPECT_TRUE(Add(0, 1000));
  EXPECT_FALSE(m_box.Add(MakeOutItem(1, 5, "id", "x")));
}

TEST_F(COutboxTest, Return_BringsAnEntryBackToItsPlace) {
  Add(1);
  Add(1);
  const TOutItem pFirst = m_box.Take(Wide());
  const TOutItem pSecond = m_box.Take(Wide());
  EXPECT_EQ(m_box.Waiting(), 0u);
  Add(1);
  m_box.Return(pSecond->u64Seq);
  m_box.Return(pFirst->u64Seq);
  m_box.Return(pFirst->u64Seq);  // once is enough
  EXPECT_EQ(m_box.Waiting(), 3u);
  EXPECT_EQ(m_box.Take(Wide())->u64Seq, 1u);
  EXPECT_EQ(m_box.Take(Wide())->u64Seq, 2u);
  EXPECT_EQ(m_box.Take(Wide())->u64Seq, 3u);
}

TEST_F(COutboxTest, Cancel_RemovesAWaitingEntry_AndATakenOneWhenItReturns) {
  Add(1);
  Add(1);
  const TOutItem pTaken = m_box.Take(Wide());
  m_box.Cancel(2);
  EXPECT_EQ(m_box.Waiting(), 0u);
  m_box.Cancel(pTaken->u64Seq);
  EXPECT_GT(m_box.Bytes(), 0u);
  m_box.Return(pTaken->u64Seq);
  EXPECT_EQ(m_box.Waiting(), 0u);
  EXPECT_EQ(m_box.Bytes(), 0u);
  m_box.Cancel(99);
  m_box.Done(99);
  EXPECT_EQ(m_box.Bytes(), 0u);
}

TEST_F(COutboxTest, Take_GivesEachLaneItsOwn_InTheSameOrder) {
  for (const size_t uBytes : {kCommandBytes, kCommandBytes + 1, size_t{10}, size_t{9000}})
    ASSERT_TRUE(Add(1, uBytes));
  Add(0, 9000);
  const auto Lane = [this](ELane eLane) {
    _OutRoom room = Wide();
    room.eLane = eLane;
    std::vector<uint64_t> list;
    while (const TOutItem pItem = m_box.Take(room))
      list.push_back(pItem->u64Seq);
    for (const uint64_t u64Seq : list)
      m_box.Return(u64Seq);
    return list;
  };
  EXPECT_THAT(Lane(ELane::Command), ElementsAre(1, 3));
  EXPECT_THAT(Lane(ELane::Bulk), ElementsAre(5, 2, 4));
  EXPECT_THAT(Lane(ELane::Any), ElementsAre(5, 1, 2, 3, 4));
}

TEST_F(COutboxTest, Take_WaitedOnly_PassesWhatNobodyWaitsFor) {
  for (int i = 0; i < 3; ++i)
    Add(0);
  m_box.Add(MakeOutItem(++m_u64Seq, 3, "id", "waited", true));
  _OutRoom room = Wide();
  room.bWaitedOnly = true;
  const TOutItem pItem = m_box.Take(room);
  ASSERT_NE(pItem, nullptr);
  EXPECT_EQ(pItem->Body(), "waited");
  EXPECT_EQ(m_box.Take(room), nullptr);
  EXPECT_THAT(TakeAll(), ElementsAre(0, 0, 0));
}

TEST_F(COutboxTest, State_CountsEntriesBytesAndTheOldestAge) {
  EXPECT_EQ(m_box.State().u64OldestMs, 0u);
  Add(3, 100);
  m_clock.Advance(500);
  Add(0, 100);
  m_clock.Advance(700);
  _OutboxState state = m_box.State();
  EXPECT_EQ(state.u64Waiting, 2u);
  EXPECT_EQ(state.u64Bytes, m_box.Bytes());
  EXPECT_EQ(state.u64OldestMs, 1200u);
  const TOutItem pUrgent = m_box.Take(Wide());
  const TOutItem pOld = m_box.Take(Wide());
  EXPECT_EQ(m_box.State().u64Waiting, 0u);
  EXPECT_EQ(m_box.State().u64Entries, 2u);
  EXPECT_EQ(m_box.State().u64OldestMs, 1200u);
  m_box.Done(pOld->u64Seq);
  state = m_box.State();
  EXPECT_EQ(state.u64Entries, 1u);
  EXPECT_EQ(state.u64OldestMs, 700u);
}
