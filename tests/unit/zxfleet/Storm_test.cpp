// A fleet that loses its brokers and comes back: the link's own state machine and back-off in virtual time.
#include <gtest/gtest.h>

#include "Simulation.h"

using namespace zxfleet;

namespace {

constexpr uint64_t kMinuteMs = 60000;
// So many that chance alone stays below half of the bound: 20000 in the 600 bins of a minute are 33 each.
constexpr uint32_t kFleet = 20000;

_SimSettings Away(uint64_t u64Ms) {
  _SimSettings settings;
  settings.uMachines = kFleet;
  settings.u64AwayMs = u64Ms;
  return settings;
}

}  // namespace

TEST(Storm, TwoMinutesAway_ComeBackEvenly_WithoutASecondWave) {
  const uint64_t u64Return = 2 * kMinuteMs;
  const _SimResult result = Simulate(Away(u64Return));
  EXPECT_EQ(result.uUp, kFleet);
  EXPECT_LT(result.attempts.PeakOverMean(u64Return, u64Return + kMinuteMs), 3);
  const CAttemptBins seconds = result.attempts.Coarser(1000);
  EXPECT_LT(seconds.PeakOverMean(u64Return, u64Return + kMinuteMs), 2.5);
  EXPECT_LT(static_cast<double>(seconds.Peak(u64Return + kMinuteMs, seconds.End())),
            seconds.Mean(u64Return, u64Return + kMinuteMs));
  // Most of them are back within the spread.
  EXPECT_LT(result.u64MostUpMs, kMinuteMs);
}

class CStormAway : public ::testing::TestWithParam<uint32_t> {};

// Also when the brokers return while the first attempts still come.
TEST_P(CStormAway, ReturnIsEven) {
  const uint64_t u64Return = GetParam() * 1000u;
  const _SimResult result = Simulate(Away(u64Return));
  EXPECT_EQ(result.uUp, kFleet);
  EXPECT_LT(result.attempts.Coarser(1000).PeakOverMean(u64Return, u64Return + kMinuteMs), 3.1);
  // While they were away, nobody hammered them: on average an attempt in half of the spread.
  EXPECT_LT(result.attempts.Sum(0, u64Return), uint64_t{kFleet} * (1 + GetParam() / 20));
}

INSTANTIATE_TEST_SUITE_P(Seconds, CStormAway, ::testing::Values(2, 10, 30, 59, 60, 90, 600),
                         [](const auto& one) { return std::to_string(one.param); });

// Brokers that make fewer connections per second than the fleet asks for are a queue, not a collapse, as long
// as what waits at their door is served within the links' patience.
TEST(Storm, SlowBrokers_ServeTheWholeFleet) {
  _SimSettings settings = Away(2 * kMinuteMs);
  settings.uCapacity = 60;
  settings.uBacklog = 1000;
  settings.u64AfterMs = 3600000;
  const _SimResult result = Simulate(settings);
  EXPECT_EQ(result.uUp, kFleet);
  EXPECT_LT(result.u64MostUpMs, 3 * 1000ull * kFleet / settings.uCapacity);
  EXPECT_LT(result.u64Wasted, kFleet);
}

TEST(Storm, SilentBrokers_AreTheSame) {
  _SimSettings settings = Away(2 * kMinuteMs);
  settings.bSilent = true;
  const _SimResult result = Simulate(settings);
  EXPECT_EQ(result.uUp, kFleet);
  EXPECT_LT(result.attempts.Coarser(1000).PeakOverMean(settings.u64AwayMs, settings.u64AwayMs + kMinuteMs),
            3);
}

TEST(Storm, WiderSpread_LowersThePeak) {
  _SimSettings settings = Away(2 * kMinuteMs);
  settings.u64AfterMs = 1200000;
  const _SimResult narrow = Simulate(settings);
  settings.uSpreadSec = 300;
  const _SimResult wide = Simulate(settings);
  const uint64_t u64End = settings.u64AwayMs + settings.u64AfterMs;
  EXPECT_EQ(wide.uUp, kFleet);
  EXPECT_LT(wide.attempts.Coarser(1000).Peak(settings.u64AwayMs, u64End) * 3,
            narrow.attempts.Coarser(1000).Peak(settings.u64AwayMs, u64End));
}

TEST(Storm, SameSeed_SameResult) {
  _SimSettings settings = Away(kMinuteMs);
  settings.uMachines = 500;
  const _SimResult first = Simulate(settings);
  const _SimResult second = Simulate(settings);
  EXPECT_EQ(first.u64AllUpMs, second.u64AllUpMs);
  settings.u64Seed = 2;
  EXPECT_NE(Simulate(settings).u64AllUpMs, first.u64AllUpMs);
}
