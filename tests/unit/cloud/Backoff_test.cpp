#include "platform/cloud/Backoff.h"

#include <gtest/gtest.h>

#include "CloudFakes.h"

using namespace zxcloud;

TEST(Backoff, Next_StaysInTheWindow_WhichDoublesUpToTheCap) {
  CFakeRandom random;
  CBackoff backoff(1000, 300000, random);
  const uint32_t kWindows[] = {1000, 2000, 4000, 8000, 16000, 32000, 64000, 128000, 256000, 300000, 300000};
  for (const uint32_t dwWindow : kWindows)
    EXPECT_EQ(backoff.Next(), dwWindow);
  random.uPercent = 0;
  EXPECT_EQ(backoff.Next(), 0u);  // full jitter: the whole window, from its beginning
}

TEST(Backoff, Next_DoesNotOverflow_AfterVeryManyFailures) {
  CFakeRandom random;
  CBackoff backoff(1000, 300000, random);
  for (int i = 0; i < 1000; ++i)
    EXPECT_LE(backoff.Next(), 300000u);
  EXPECT_EQ(backoff.Next(), 300000u);
}

TEST(Backoff, Reset_StartsAnew) {
  CFakeRandom random;
  CBackoff backoff(1000, 300000, random);
  backoff.Next();
  backoff.Next();
  backoff.Reset();
  EXPECT_EQ(backoff.Failures(), 0u);
  EXPECT_EQ(backoff.Next(), 1000u);
}

TEST(Backoff, NextAtCap_IsInTheUpperHalf_AndStays) {
  CFakeRandom random;
  CBackoff backoff(1000, 300000, random);
  EXPECT_EQ(backoff.NextAtCap(), 150000u);
  random.uPercent = 0;
  EXPECT_EQ(backoff.NextAtCap(), 300000u);
  random.uPercent = 100;
  EXPECT_EQ(backoff.Next(), 300000u);
}

TEST(Backoff, SetWidest_BoundsNext_NotTheCap) {
  CFakeRandom random;
  CBackoff backoff(1000, 300000, random);
  backoff.SetWidest(5000);
  for (const uint32_t dwWindow : {1000u, 2000u, 4000u, 5000u, 5000u})
    EXPECT_EQ(backoff.Next(), dwWindow);
  EXPECT_EQ(backoff.Next(60000), 60000u);
  EXPECT_EQ(backoff.NextAtCap(), 150000u);
  backoff.SetWidest(1000000);
  EXPECT_EQ(backoff.Next(), 300000u);
}

TEST(Backoff, DelayAfter_ObeysRetryAfter_WithASpread) {
  CFakeRandom random;
  EXPECT_EQ(DelayAfter(700, 0, random), 700u);
  EXPECT_EQ(DelayAfter(700, 10, random), 11000u);
  random.uPercent = 0;
  EXPECT_EQ(DelayAfter(700, 10, random), 10000u);
  EXPECT_EQ(DelayAfter(50000, 10, random), 50000u);
  EXPECT_EQ(DelayAfter(700, 4000000000u, random), 86400000u);
}

TEST(Backoff, SystemRandom_CoversItsRange) {
  CSystemRandom random;
  EXPECT_EQ(random.Below(0), 0u);
  EXPECT_EQ(random.Below(1), 0u);
  uint32_t uLow = 0;
  for (int i = 0; i < 1000; ++i) {
    const uint32_t u = random.Below(1000);
    ASSERT_LT(u, 1000u);
    uLow += u < 500;
  }
  EXPECT_GT(uLow, 350u);
  EXPECT_LT(uLow, 650u);
}
