#include "platform/os/ZxTime.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstring>
#include <regex>
#include <string>

namespace {

TEST(ZxTime_test, TickCount_IsTheMonotonicClockInMs) {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const auto u64Before =
      static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
  const uint64_t u64First = ZxGetTickCount();
  const uint64_t u64Second = ZxGetTickCount();
  EXPECT_GE(u64First, u64Before);
  EXPECT_LT(u64First - u64Before, 10000u);
  EXPECT_GE(u64Second, u64First);
}

TEST(ZxTime_test, FmtTime_IsLocalTimeToTheSecond) {
  const time_t tBefore = time(nullptr);
  char szTime[32] = {};
  ZxGetCurrentFmtTime(szTime, sizeof(szTime));
  const time_t tAfter = time(nullptr);
  ASSERT_TRUE(std::regex_match(szTime, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)"))) << szTime;
  struct tm tmRead {};
  ASSERT_NE(strptime(szTime, "%Y-%m-%d %H:%M:%S", &tmRead), nullptr);
  tmRead.tm_isdst = -1;
  const time_t tRead = mktime(&tmRead);
  EXPECT_GE(tRead, tBefore);
  EXPECT_LE(tRead, tAfter);
}

TEST(ZxTime_test, FmtTime_IsCut_WhenTheBufferIsSmall) {
  char szTime[8];
  std::memset(szTime, 'x', sizeof(szTime));
  ZxGetCurrentFmtTime(szTime, 5);
  EXPECT_EQ(std::strlen(szTime), 4u);
  EXPECT_EQ(szTime[5], 'x');
  ZxGetCurrentFmtTime(szTime, 0);
  EXPECT_EQ(std::strlen(szTime), 4u);
  ZxGetCurrentFmtTime(nullptr, 10);
}

}  // namespace
