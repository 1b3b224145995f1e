// The tables behind the bus: deadlines and batons.
#include <gtest/gtest.h>

#include <random>

#include "platform/bus/BusBatons.h"
#include "platform/bus/BusClock.h"
#include "platform/bus/BusDeadlines.h"
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

bool WorkedOff(CBusPause& pause, uint32_t uiSteps, uint64_t u64NowNs) {
  for (uint32_t i = 0; i < uiSteps; ++i)
    pause.CountSteps(1);
  return pause.LetOthersRun(u64NowNs);
}

TEST(BusPause, LetsOthersRun_InAFlowOnly) {
  CBusPause pause;
  EXPECT_FALSE(WorkedOff(pause, 0, kSomeNs));
  EXPECT_FALSE(WorkedOff(pause, 1, kSomeNs));
  EXPECT_FALSE(WorkedOff(pause, 1, kSomeNs)) << "two singles are no flow";
  EXPECT_TRUE(WorkedOff(pause, CBusPause::kFlowSteps, kSomeNs));
  EXPECT_FALSE(WorkedOff(pause, 0, kSomeNs + CBusPause::kShortNs)) << "nothing came: sleep";
  EXPECT_TRUE(WorkedOff(pause, CBusPause::kFlowSteps, kSomeNs + CBusPause::kShortNs))
      << "a short time for nothing is no reason to stop";
}

TEST(BusPause, StopsForAWhile_WhenStrangersTookTheTime) {
  CBusPause pause;
  uint64_t u64NowNs = kSomeNs;
  const uint64_t u64TookNs = 4 * kBusNsPerMs;
  const auto uiWorth = static_cast<uint32_t>(u64TookNs / CBusPause::kWorthStepNs);
  EXPECT_TRUE(WorkedOff(pause, 2, u64NowNs));
  EXPECT_TRUE(WorkedOff(pause, uiWorth, u64NowNs += u64TookNs)) << "as many as that were worth it";
  for (uint32_t i = 0; i < CBusPause::kSkipTimes; ++i)
    EXPECT_FALSE(WorkedOff(pause, uiWorth - 1, u64NowNs += u64TookNs)) << i;
  EXPECT_TRUE(WorkedOff(pause, 2, u64NowNs += u64TookNs)) << "then it is tried again";
}

}  // namespace
