#include "RecentLines.h"

#include <gtest/gtest.h>

namespace {

TEST(RecentLines, KeepsTheLastWarningsAndErrors) {
  CRecentLines lines;
  lines.OnLine("a", kLogInfo, "progress");
  lines.OnLine("a", kLogTrace, "trace");
  EXPECT_TRUE(lines.Lines().empty());
  for (size_t i = 0; i < CRecentLines::kMaxLines + 3; ++i)
    lines.OnLine("b", i % 2 == 0 ? kLogWarn : kLogError, std::to_string(i).c_str());
  const std::vector<_RecentLine> kept = lines.Lines();
  ASSERT_EQ(kept.size(), CRecentLines::kMaxLines);
  EXPECT_EQ(kept.front().strText, "3");
  EXPECT_EQ(kept.front().iLevel, kLogError);
  EXPECT_EQ(kept.front().strChannel, "b");
  EXPECT_EQ(kept.back().strText, std::to_string(CRecentLines::kMaxLines + 2));
}

TEST(RecentLines, CutsLongOnes) {
  CRecentLines lines;
  lines.OnLine("a", kLogError, std::string(100000, 'x').c_str());
  EXPECT_EQ(lines.Lines().front().strText.GetLength(), CRecentLines::kMaxText);
}

}  // namespace
