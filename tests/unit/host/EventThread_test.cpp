// A thread of the host and its event descriptor.
#include "EventThread.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>

namespace {

constexpr int kWaitMs = 30000;

bool IsReadable(int iFd, int iWaitMs) {
  pollfd fd{iFd, POLLIN, 0};
  return poll(&fd, 1, iWaitMs) == 1;
}

TEST(EventThread, SignalOfTheThread_IsReadableUntilTaken) {
  CEventThread thread;
  ASSERT_TRUE(thread.Start([&] {
    thread.Signal();
    thread.Signal();
  }));
  EXPECT_TRUE(IsReadable(thread.Fd(), kWaitMs));
  thread.Join();
  thread.Take();
  EXPECT_FALSE(IsReadable(thread.Fd(), 0));
}

TEST(EventThread, SignalOfTheOwner_WakesTheThread_AndJoinWaitsForIt) {
  CEventThread thread;
  std::atomic<bool> bWoken{false};
  ASSERT_TRUE(thread.Start([&] { bWoken = IsReadable(thread.Fd(), kWaitMs); }));
  EXPECT_TRUE(thread.IsJoinable());
  thread.Signal();
  thread.Join();
  EXPECT_TRUE(bWoken);
  EXPECT_FALSE(thread.IsJoinable());
}

TEST(EventThread, NeverStarted_HasNothingToWaitFor) {
  CEventThread thread;
  EXPECT_EQ(thread.Fd(), -1);
  thread.Join();
}

}  // namespace
