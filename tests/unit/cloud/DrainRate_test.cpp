#include "platform/cloud/DrainRate.h"

#include <gtest/gtest.h>

using namespace zxcloud;

namespace {

// How many messages go in this span, asked every millisecond.
uint64_t Drained(CDrainRate& drain, uint64_t& u64Now, uint64_t u64Ms, size_t uBytes = 100) {
  uint64_t u64Count = 0;
  for (const uint64_t u64End = u64Now + u64Ms; u64Now < u64End; ++u64Now) {
    while (drain.Admits(u64Now)) {
      drain.Took(uBytes);
      ++u64Count;
    }
  }
  return u64Count;
}

}  // namespace

TEST(DrainRate, Admits_Everything_WithoutALimit) {
  CDrainRate drain;
  EXPECT_FALSE(drain.Limits());
  EXPECT_TRUE(drain.Admits(5));
  drain.Begin(0, 5);
  EXPECT_FALSE(drain.Limits());
  drain.Took(1u << 30);
  EXPECT_TRUE(drain.Admits(5));
}

TEST(DrainRate, Begin_LetsASecondsWorthGoAtOnce_ThenKeepsTheRate) {
  CDrainRate drain;
  uint64_t u64Now = 7000;
  drain.Begin(100, u64Now);
  EXPECT_EQ(Drained(drain, u64Now, 1), 100u);
  EXPECT_NEAR(static_cast<double>(Drained(drain, u64Now, 5000)), 500, 2);
}

TEST(DrainRate, Rate_DoublesEveryTenSeconds) {
  CDrainRate drain;
  uint64_t u64Now = 0;
  drain.Begin(100, u64Now);
  EXPECT_NEAR(static_cast<double>(Drained(drain, u64Now, 10000)), 1100, 10);
  EXPECT_NEAR(static_cast<double>(Drained(drain, u64Now, 10000)), 2000, 10);
  EXPECT_NEAR(static_cast<double>(Drained(drain, u64Now, 10000)), 4000, 10);
}

TEST(DrainRate, Took_CountsALargeMessageForItsSize) {
  CDrainRate drain;
  uint64_t u64Now = 0;
  drain.Begin(100, u64Now);
  EXPECT_NEAR(static_cast<double>(Drained(drain, u64Now, 5000, 9 * 16384)), 60, 2);
}

TEST(DrainRate, Pause_SavesNoMoreThanASecondsWorth) {
  CDrainRate drain;
  uint64_t u64Now = 0;
  drain.Begin(100, u64Now);
  u64Now = 9000;
  EXPECT_EQ(Drained(drain, u64Now, 1), 100u);
}

TEST(DrainRate, Next_IsWhenItAdmitsAgain_AndNeverBusy) {
  CDrainRate drain;
  drain.Begin(2, 1000);
  while (drain.Admits(1000))
    drain.Took(1);
  EXPECT_EQ(drain.NextMs(), 1501u);
  EXPECT_FALSE(drain.Admits(1499));
  EXPECT_TRUE(drain.Admits(drain.NextMs()));
  drain.Begin(1000000, 1000);
  while (drain.Admits(1000))
    drain.Took(1u << 20);
  EXPECT_GE(drain.NextMs(), 1050u);
  drain.End();
  EXPECT_TRUE(drain.Admits(1000));
}

TEST(DrainRate, LongDrain_DoesNotOverflow) {
  CDrainRate drain;
  drain.Begin(1000000, 0);
  EXPECT_TRUE(drain.Admits(uint64_t{1} << 50));
  drain.Took(SIZE_MAX / 2);
  EXPECT_FALSE(drain.Admits((uint64_t{1} << 50) + 1));
}
