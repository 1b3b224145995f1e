#include "platform/os/ZxEvent.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <memory>
#include <thread>
#include <vector>

#include "platform/os/ZxTime.h"
#include "support/Waiter.h"

namespace {

constexpr uint32_t kShortMs = 20;
constexpr uint32_t kLongMs = 60000;

struct CEventCloser {
  void operator()(HZxEvent hEvent) const { ZxDestroyEvent(hEvent); }
};
using CEventOwner = std::unique_ptr<ZxEvent, CEventCloser>;

// A thread that waits for the event and can be cancelled there.
struct CCancelCase {
  HZxEvent hEvent;
  uint32_t dwMs;  // 0: without a time-out
  CEventWaiter begun;
  bool bUnwound = false;

  static void* Entry(void* pArg) {
    auto* pCase = static_cast<CCancelCase*>(pArg);
    struct CUnwind {
      bool& bFlag;
      ~CUnwind() { bFlag = true; }
    } unwind{pCase->bUnwound};
    pCase->begun.Set();
    if (pCase->dwMs == 0)
      ZxWaitEvent(pCase->hEvent);
    else
      ZxWaitEventTimeout(pCase->hEvent, pCase->dwMs);
    return nullptr;
  }

  // The thread's result: PTHREAD_CANCELED when it ended by cancellation.
  void* CancelInWait() {
    pthread_t hThread{};
    EXPECT_EQ(pthread_create(&hThread, nullptr, &Entry, this), 0);
    EXPECT_TRUE(begun.Wait());
    EXPECT_EQ(pthread_cancel(hThread), 0);
    void* pResult = nullptr;
    EXPECT_EQ(pthread_join(hThread, &pResult), 0);
    return pResult;
  }
};

TEST(ZxEvent_test, NewEvent_IsNotSignalled) {
  const CEventOwner event(ZxCreateEvent());
  ASSERT_NE(event, nullptr);
  EXPECT_FALSE(ZxWaitEventTimeout(event.get(), 0));
}

TEST(ZxEvent_test, Set_LetsExactlyOneWaitThrough) {
  const CEventOwner event(ZxCreateEvent());
  ZxSetEvent(event.get());
  ZxSetEvent(event.get());
  EXPECT_TRUE(ZxWaitEventTimeout(event.get(), 0));
  EXPECT_FALSE(ZxWaitEventTimeout(event.get(), 0));
}

TEST(ZxEvent_test, WaitTimeout_LastsItsTime_WhenNobodySets) {
  const CEventOwner event(ZxCreateEvent());
  const uint64_t u64Begin = ZxGetTickCount();
  EXPECT_FALSE(ZxWaitEventTimeout(event.get(), kShortMs));
  EXPECT_GE(ZxGetTickCount() - u64Begin + 1, kShortMs);
}

TEST(ZxEvent_test, Set_WakesABlockedWait) {
  const CEventOwner event(ZxCreateEvent());
  CEventWaiter begun;
  CEventWaiter passed;
  std::thread thread([&] {
    begun.Set();
    ZxWaitEvent(event.get());
    passed.Set();
    EXPECT_TRUE(ZxWaitEventTimeout(event.get(), kLongMs));
    passed.Set();
  });
  EXPECT_TRUE(begun.Wait());
  ZxSetEvent(event.get());
  EXPECT_TRUE(passed.Wait(1));
  ZxSetEvent(event.get());
  EXPECT_TRUE(passed.Wait(2));
  thread.join();
}

TEST(ZxEvent_test, Set_ReleasesOneOfManyWaiters) {
  constexpr uint32_t kThreads = 4;
  const CEventOwner event(ZxCreateEvent());
  CEventWaiter passed;
  std::vector<std::thread> threads;
  for (uint32_t u = 0; u < kThreads; ++u) {
    threads.emplace_back([&] {
      ZxWaitEvent(event.get());
      passed.Set();
    });
  }
  for (uint32_t u = 1; u <= kThreads; ++u) {
    EXPECT_EQ(passed.Count(), u - 1);
    ZxSetEvent(event.get());
    EXPECT_TRUE(passed.Wait(u));
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_FALSE(ZxWaitEventTimeout(event.get(), 0));
}

TEST(ZxEvent_test, Event_MayBeDestroyedByTheThreadItWoke) {
  for (int i = 0; i < 200; ++i) {
    const HZxEvent hEvent = ZxCreateEvent();
    std::thread thread([hEvent] { ZxSetEvent(hEvent); });
    ZxWaitEvent(hEvent);
    ZxDestroyEvent(hEvent);
    thread.join();
  }
}

TEST(ZxEvent_test, Wait_EndsByCancellation) {
  const CEventOwner event(ZxCreateEvent());
  CCancelCase cancel{event.get(), 0, {}};
  EXPECT_EQ(cancel.CancelInWait(), PTHREAD_CANCELED);
  EXPECT_TRUE(cancel.bUnwound);
  ZxSetEvent(event.get());  // the lock was released by the unwinding
  EXPECT_TRUE(ZxWaitEventTimeout(event.get(), 0));
}

TEST(ZxEvent_test, WaitTimeout_EndsByCancellation) {
  const CEventOwner event(ZxCreateEvent());
  CCancelCase cancel{event.get(), kLongMs, {}};
  EXPECT_EQ(cancel.CancelInWait(), PTHREAD_CANCELED);
  EXPECT_TRUE(cancel.bUnwound);
  ZxSetEvent(event.get());
  EXPECT_TRUE(ZxWaitEventTimeout(event.get(), 0));
}

TEST(ZxEvent_test, Destroy_AllowsNull) {
  ZxDestroyEvent(nullptr);
}

}  // namespace
