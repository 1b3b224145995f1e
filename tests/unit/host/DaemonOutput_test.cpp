#include "DaemonOutput.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(DaemonOutput, Lines_AreCutAtTheirEnds) {
  CDaemonOutput output;
  EXPECT_THAT(output.Feed("one\ntw", 1), ElementsAre("one"));
  EXPECT_THAT(output.Feed("o\n\nthree", 1), ElementsAre("two"));
  EXPECT_THAT(output.Finish(1), ElementsAre("three"));
  EXPECT_THAT(output.Finish(1), IsEmpty());
}

TEST(DaemonOutput, ControlCharacters_AreReplaced) {
  CDaemonOutput output;
  EXPECT_THAT(output.Feed(std::string_view("a\x1b[2J\0\x7f z\r\n", 11), 1), ElementsAre("a?[2J?? z?"));
}

TEST(DaemonOutput, LongLine_IsCut_AndTheNextIsWhole) {
  CDaemonOutput output;
  const auto lines = output.Feed(std::string(100000, 'x') + "\nnext\n", 1);
  EXPECT_THAT(lines, ElementsAre(std::string(CDaemonOutput::kMaxLine, 'x'), "next"));
}

TEST(DaemonOutput, Flood_IsDropped_CountedAndOver) {
  CDaemonOutput output;
  std::string strFlood;
  for (int i = 0; i < 1000; ++i)
    strFlood += "x\n";
  EXPECT_EQ(output.Feed(strFlood, 1000).size(), CDaemonOutput::kBurst);
  EXPECT_EQ(output.TakeDropped(1000), 0u);  // saying so would be one more line
  EXPECT_EQ(output.TakeDropped(3000), 1000u - CDaemonOutput::kBurst);
  EXPECT_EQ(output.TakeDropped(3000), 0u);
  EXPECT_EQ(output.Feed(strFlood, 63000).size(), CDaemonOutput::kBurst);  // never more than a burst at once
}

TEST(DaemonOutput, Rate_HoldsOverTime) {
  CDaemonOutput output;
  size_t uLines = output.Feed(std::string(200, '\n'), 1000).size();  // empty lines cost nothing
  EXPECT_EQ(uLines, 0u);
  for (uint64_t u64Ms = 1000; u64Ms < 601000; u64Ms += 100)
    uLines += output.Feed("x\n", u64Ms).size();
  EXPECT_NEAR(static_cast<double>(uLines), 10.0 * CDaemonOutput::kPerMinute + CDaemonOutput::kBurst, 2);
}

TEST(DaemonOutput, ClockThatJumpsBack_IsNoTrouble) {
  CDaemonOutput output;
  output.Feed("x\n", 100000);
  EXPECT_THAT(output.Feed("y\n", 5), ElementsAre("y"));
}

}  // namespace
