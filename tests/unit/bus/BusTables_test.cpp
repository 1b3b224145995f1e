// The tables behind the bus: deadlines and batons.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "platform/bus/BusBatons.h"
#include "platform/bus/BusClock.h"
#include "platform/bus/BusDeadlines.h"
#include "platform/bus/BusLinger.h"
#include "platform/bus/BusPause.h"

namespace {

CBusRef<CBusCall> NewCall(uint32_t uiTimeoutMs, unsigned long long ui64ACT = 1) {
  CBusRef<CBusCall> call(new CBusCall);
  call->uiTimeoutMs = uiTimeoutMs;
  call->ui64ACT = ui64ACT;
  return call;
}

TEST(BusDeadlines, PopDue_GivesEachCallAtItsTime) {
  CBusDeadlines deadlines;
  std::mt19937 random(7);
  for (int i = 0; i < 1000; ++i)
    deadlines.Insert(NewCall(1 + random() % 50), i * kBusNsPerMs / 10);
  size_t uPopped = 0;
  for (uint64_t u64Ms = 0; u64Ms <= 200; ++u64Ms) {
    const uint64_t u64NowNs = u64Ms * kBusNsPerMs;
    while (const CBusRef<CBusCall> call = deadlines.PopDue(u64NowNs)) {
      EXPECT_LE(call->u64DeadlineNs, u64NowNs);
      EXPECT_GT(call->u64DeadlineNs + kBusNsPerMs, u64NowNs);
      ++uPopped;
    }
    EXPECT_GT(deadlines.EarliestNs(), u64NowNs);
  }
  EXPECT_EQ(uPopped, 1000u);
  EXPECT_EQ(deadlines.Count(), 0u);
  EXPECT_EQ(deadlines.EarliestNs(), CBusDeadlines::kNever);
}

TEST(BusDeadlines, Earliest_IsNeverLate_AndPopDueBringsItUpToDate) {
  CBusDeadlines deadlines;
  EXPECT_EQ(deadlines.EarliestNs(), CBusDeadlines::kNever);
  const CBusRef<CBusCall> shortOne = NewCall(10);
  deadlines.Insert(NewCall(100), 0);
  deadlines.Insert(shortOne, 0);
  EXPECT_EQ(deadlines.EarliestNs(), 10 * kBusNsPerMs);
  deadlines.Remove(*shortOne);
  EXPECT_LE(deadlines.EarliestNs(), 100 * kBusNsPerMs);
  EXPECT_FALSE(deadlines.PopDue(50 * kBusNsPerMs));
  EXPECT_EQ(deadlines.EarliestNs(), 100 * kBusNsPerMs);
  EXPECT_TRUE(deadlines.PopAny());
  EXPECT_FALSE(deadlines.PopAny());
}

TEST(BusDeadlines, Remove_FromAnyPlace) {
  CBusDeadlines deadlines;
  std::vector<CBusRef<CBusCall>> calls;
  for (int i = 0; i < 5; ++i) {
    calls.push_back(NewCall(10));
    deadlines.Insert(calls.back(), 0);
  }
  for (const size_t u : {2u, 0u, 4u, 1u, 3u})
    EXPECT_EQ(deadlines.Remove(*calls[u]).Get(), calls[u].Get());
  EXPECT_EQ(deadlines.Count(), 0u);
  EXPECT_FALSE(deadlines.PopDue(UINT64_MAX - 1));
}

TEST(BusBatons, Handles_AreNeverGivenTwice) {
  CBusBatons batons;
  batons.Reserve(2);
  const uint64_t u64First = batons.Add(NewCall(1, 1));
  EXPECT_NE(u64First, 0u);
  EXPECT_NE(batons.Find(u64First), nullptr);
  EXPECT_TRUE(batons.Take(u64First));
  const uint64_t u64Second = batons.Add(NewCall(1, 2));
  EXPECT_NE(u64First, u64Second);
  EXPECT_EQ(batons.Find(u64First), nullptr);
  EXPECT_FALSE(batons.Take(u64First));
  EXPECT_FALSE(batons.Take(0));
  EXPECT_EQ(batons.Count(), 1u);
}

TEST(BusBatons, Grow_KeepsWhatIsHeld) {
  CBusBatons batons;
  std::vector<uint64_t> handles;
  for (unsigned long long i = 1; i <= 300; ++i) {
    batons.Reserve(batons.Count() + 1);
    handles.push_back(batons.Add(NewCall(1, i)));
  }
  for (size_t i = 0; i < handles.size(); ++i)
    EXPECT_EQ(batons.Find(handles[i])->ui64ACT, i + 1);
  EXPECT_THROW(batons.Reserve(CBusBatons::kMaxBatons + 1), std::bad_alloc);
}

TEST(BusBatons, Disown_ForgetsTheHandles_AndGivesEveryCallOnce) {
  CBusBatons batons;
  batons.Reserve(3);
  std::vector<CBusRef<CBusCall>> calls{NewCall(1, 1), NewCall(1, 2), NewCall(1, 3)};
  for (const auto& call : calls)
    batons.Add(call);
  batons.Take(calls[1]->u64Baton);
  batons.Disown();
  for (const auto& call : calls)
    EXPECT_EQ(call->u64Baton, 0u);
  int iTaken = 0;
  while (batons.TakeDisowned())
    ++iTaken;
  EXPECT_EQ(iTaken, 2);
}

constexpr uint64_t kSomeNs = kBusNsPerSecond;
constexpr uint64_t kSlowNs = CBusPause::kQuickNs;

// The queue is empty after so many steps. False: the dispatcher sleeps.
bool Looks(CBusPause& pause, uint32_t uiSteps, uint64_t u64NowNs, bool bNear = false) {
  pause.CountSteps(uiSteps, bNear);
  return pause.LookUntilNs(u64NowNs) != 0;
}

TEST(BusPause, LetsOthersRun_InAFlow) {
  CBusPause pause;
  EXPECT_FALSE(Looks(pause, 0, kSomeNs));
  EXPECT_FALSE(Looks(pause, 1, kSomeNs));
  EXPECT_FALSE(Looks(pause, 1, kSomeNs)) << "two singles are no flow";
  EXPECT_TRUE(Looks(pause, CBusPause::kFlowSteps, kSomeNs));
  EXPECT_FALSE(Looks(pause, 0, kSomeNs + CBusPause::kShortNs)) << "nothing came: sleep";
  pause.CountSteps(CBusPause::kFlowSteps, false);
  EXPECT_EQ(pause.LookUntilNs(kSomeNs + CBusPause::kShortNs), kSomeNs + CBusPause::kShortNs)
      << "a short time for nothing is no reason to stop, but it is done once";
}

TEST(BusPause, LooksOn_InAQuickExchangeWithinTheProcess) {
  CBusPause pause;
  EXPECT_FALSE(Looks(pause, 1, kSomeNs, true)) << "one that came alone";
  EXPECT_FALSE(Looks(pause, 1, kSomeNs + kSlowNs, true)) << "rounds that take their time";
  EXPECT_FALSE(Looks(pause, 1, kSomeNs + 2 * kSlowNs - 1, false)) << "from another process";
  pause.CountSteps(1, true);
  const uint64_t u64NowNs = kSomeNs + 3 * kSlowNs - 2;
  EXPECT_EQ(pause.LookUntilNs(u64NowNs), u64NowNs + CBusPause::kLookNs);
}

TEST(BusPause, StopsForLongerAndLonger_WhenNothingComes) {
  CBusPause pause;
  uint64_t u64NowNs = kSomeNs;
  EXPECT_FALSE(Looks(pause, 1, u64NowNs, true));
  uint32_t uiExpected = CBusPause::kSkipTimes;
  for (int i = 0; i < 10; ++i) {
    EXPECT_TRUE(Looks(pause, 1, ++u64NowNs, true)) << i;
    EXPECT_FALSE(Looks(pause, 0, u64NowNs += CBusPause::kLookNs)) << i;
    for (uint32_t u = 0; u < uiExpected; ++u)
      ASSERT_FALSE(Looks(pause, 1, ++u64NowNs, true)) << i << " " << u;
    uiExpected = std::min(2 * uiExpected, CBusPause::kMaxSkipTimes);
  }
  EXPECT_TRUE(Looks(pause, 1, ++u64NowNs, true));
  EXPECT_TRUE(Looks(pause, 1, ++u64NowNs, true)) << "an answer came while it looked";
  EXPECT_FALSE(Looks(pause, 0, u64NowNs += CBusPause::kLookNs));
  for (uint32_t u = 0; u < CBusPause::kSkipTimes; ++u)
    ASSERT_FALSE(Looks(pause, 1, ++u64NowNs, true)) << u;
  EXPECT_TRUE(Looks(pause, 1, ++u64NowNs, true)) << "that began anew";
}

TEST(BusPause, StopsForAWhile_WhenStrangersTookTheTime) {
  CBusPause pause;
  uint64_t u64NowNs = kSomeNs;
  const uint64_t u64TookNs = 4 * kBusNsPerMs;
  const auto uiWorth = static_cast<uint32_t>(u64TookNs / CBusPause::kWorthStepNs);
  EXPECT_TRUE(Looks(pause, 2, u64NowNs));
  EXPECT_TRUE(Looks(pause, uiWorth, u64NowNs += u64TookNs)) << "as many as that were worth it";
  for (uint32_t i = 0; i < CBusPause::kSkipTimes; ++i)
    EXPECT_FALSE(Looks(pause, uiWorth - 1, u64NowNs += u64TookNs)) << i;
  EXPECT_TRUE(Looks(pause, 2, u64NowNs += u64TookNs)) << "then it is tried again";
}

void Got(CBusLinger& linger, uint32_t uiMessages) {
  for (uint32_t i = 0; i < uiMessages; ++i)
    linger.CountMessage();
}

TEST(BusLinger, Lingers_InAFlowOnly) {
  CBusLinger linger;
  EXPECT_FALSE(linger.May());
  for (int i = 0; i < 3; ++i) {
    Got(linger, 1);
    EXPECT_FALSE(linger.May()) << "singles are no flow";
    linger.Sleeps();
  }
  Got(linger, CBusLinger::kFlow);
  EXPECT_TRUE(linger.May());
  linger.Lingered(true, 1000);
  Got(linger, 1);
  EXPECT_TRUE(linger.May()) << "still the same flow";
  linger.Lingered(false, CBusLinger::kLongestNs);
  linger.Sleeps();
  EXPECT_FALSE(linger.May());
}

TEST(BusLinger, StopsForAWhile_WhenItDoesNotPay) {
  CBusLinger linger;
  const auto inVain = [&] {
    Got(linger, CBusLinger::kFlow);
    const bool bMay = linger.May();
    if (bMay)
      linger.Lingered(false, CBusLinger::kLongestNs);
    linger.Sleeps();
    return bMay;
  };
  for (uint32_t i = 0; i < CBusLinger::kFailures; ++i)
    EXPECT_TRUE(inVain()) << i;
  for (uint32_t i = 0; i < CBusLinger::kSkipTimes; ++i)
    EXPECT_FALSE(inVain()) << i;
  EXPECT_TRUE(inVain()) << "then it is tried again";
}

TEST(BusLinger, Stops_WhenALongLookBringsLittle) {
  constexpr uint32_t kMessages = 8;
  CBusLinger linger;
  Got(linger, CBusLinger::kFlow);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(linger.May()) << "others took the processor, but they sent messages meanwhile";
    linger.Lingered(true, kMessages * CBusLinger::kWorthNs);
    Got(linger, kMessages);
  }
  ASSERT_TRUE(linger.May());
  linger.Lingered(true, kMessages * CBusLinger::kWorthNs);
  Got(linger, kMessages - 1);
  EXPECT_FALSE(linger.May()) << "strangers took it";
}

TEST(BusLinger, ShortLook_IsWorthOneMessage) {
  CBusLinger linger;
  Got(linger, CBusLinger::kFlow);
  ASSERT_TRUE(linger.May());
  linger.Lingered(true, CBusLinger::kShortNs);
  Got(linger, 1);
  EXPECT_TRUE(linger.May());
}

}  // namespace
