#include "platform/cloud/Waiters.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "support/Waiter.h"

using zxcloud::CWaiters;

TEST(Waiters, Wait_ReturnsTheAnswer_AlsoWhenItCameFirst) {
  CWaiters waiters;
  CWaiters::CWaiter early(waiters, 1);
  waiters.Complete(1, 7);
  EXPECT_EQ(early.Wait(0, 99), 7u);
  waiters.Complete(1, 8);  // the first answer counts
  EXPECT_EQ(early.Wait(0, 99), 7u);

  CWaiters::CWaiter late(waiters, 2);
  std::thread other([&] { waiters.Complete(2, 5); });
  EXPECT_EQ(late.Wait(10000, 99), 5u);
  other.join();
}

TEST(Waiters, Wait_TimesOut_AndAnAnswerForNobodyIsDropped) {
  CWaiters waiters;
  {
    CWaiters::CWaiter waiter(waiters, 1);
    EXPECT_EQ(waiter.Wait(1, 99), 99u);
  }
  waiters.Complete(1, 0);
  CWaiters::CWaiter again(waiters, 1);
  EXPECT_EQ(again.Wait(1, 99), 99u);
}

TEST(Waiters, Stop_EndsEveryWaiter_AlsoLaterOnes) {
  CWaiters waiters;
  std::atomic<uint32_t> uiResult{0};
  CEventWaiter started;
  std::thread other([&] {
    CWaiters::CWaiter waiter(waiters, 1);
    started.Set();
    uiResult = waiter.Wait(60000, 99);
  });
  ASSERT_TRUE(started.Wait());
  waiters.Stop(42);
  other.join();
  EXPECT_EQ(uiResult.load(), 42u);
  CWaiters::CWaiter later(waiters, 2);
  EXPECT_EQ(later.Wait(60000, 99), 42u);
}

TEST(Waiters, Wait_LeavesNoTrace_WhenItsThreadIsCancelled) {
  CWaiters waiters;
  CEventWaiter started;
  struct _Arg {
    CWaiters& waiters;
    CEventWaiter& started;
  } arg{waiters, started};
  pthread_t hThread{};
  ASSERT_EQ(pthread_create(
                &hThread, nullptr,
                [](void* p) -> void* {
                  auto& a = *static_cast<_Arg*>(p);
                  CWaiters::CWaiter waiter(a.waiters, 1);
                  a.started.Set();
                  waiter.Wait(60000, 99);
                  return nullptr;
                },
                &arg),
            0);
  ASSERT_TRUE(started.Wait());
  ASSERT_EQ(pthread_cancel(hThread), 0);
  void* pResult = nullptr;
  ASSERT_EQ(pthread_join(hThread, &pResult), 0);
  EXPECT_EQ(pResult, PTHREAD_CANCELED);
  waiters.Complete(1, 0);  // the waiter is gone from the table, the lock is free
  waiters.Stop(1);
}
