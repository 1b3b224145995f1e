#include "AttemptBins.h"

#include <gtest/gtest.h>

using namespace zxfleet;

TEST(AttemptBins, CountsWithinItsWindow) {
  CAttemptBins bins(100);
  for (const uint64_t u64At : {0, 99, 100, 250, 251, 252, 1000})
    bins.Add(u64At);
  EXPECT_EQ(bins.Sum(0, 1100), 7u);
  EXPECT_EQ(bins.Sum(100, 300), 4u);
  EXPECT_EQ(bins.Peak(0, 1100), 3u);
  EXPECT_DOUBLE_EQ(bins.Mean(0, 400), 1.5);
  EXPECT_DOUBLE_EQ(bins.PeakOverMean(0, 400), 2.0);
  EXPECT_EQ(bins.Sum(5000, 6000), 0u);
  EXPECT_DOUBLE_EQ(bins.PeakOverMean(5000, 6000), 0);
  EXPECT_DOUBLE_EQ(bins.Mean(100, 100), 0);
  EXPECT_EQ(bins.End(), 1100u);
}

TEST(AttemptBins, Coarser_KeepsEveryCount) {
  CAttemptBins bins(100);
  for (uint64_t u64At = 0; u64At < 5000; u64At += 70)
    bins.Add(u64At);
  const CAttemptBins coarse = bins.Coarser(1000);
  EXPECT_EQ(coarse.Sum(0, 5000), bins.Sum(0, 5000));
  EXPECT_EQ(coarse.Sum(1000, 2000), bins.Sum(1000, 2000));
}

// A few machines in many bins cannot look even, whatever they do.
TEST(AttemptBins, Chance_LimitsWhatAFewMachinesCanShow) {
  EXPECT_GT(PeakOverMeanByChance(500.0 / 600, 600), 5);
  EXPECT_LT(PeakOverMeanByChance(20000.0 / 600, 600), 1.7);
  EXPECT_NEAR(PeakOverMeanByChance(1e6 / 600, 600), 1.09, 0.03);
  EXPECT_EQ(PeakOverMeanByChance(0, 600), 0);
}
