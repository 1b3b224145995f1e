#include "platform/os/ZxThread.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "platform/os/ZxEvent.h"
#include "platform/os/ZxGauges.h"
#include "support/Waiter.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZX_TEST_SANITIZED 1
#else
#define ZX_TEST_SANITIZED 0
#endif

namespace {

constexpr uint32_t kShortMs = 20;

// Shared by a case and the thread it starts.
struct CThreadCase {
  CZxThreadGroup group;
  HZxEvent hRelease = ZxCreateEvent();
  CEventWaiter begun;
  std::atomic<bool> bFramesGone{false};
  sigset_t setBlocked{};
  size_t uStackBytes = 0;

  CThreadCase() = default;
  ~CThreadCase() { ZxDestroyEvent(hRelease); }
  CThreadCase(const CThreadCase&) = delete;
  CThreadCase& operator=(const CThreadCase&) = delete;

  static void* WaitForRelease(void* pArg) {
    pthread_detach(pthread_self());
    auto* pCase = static_cast<CThreadCase*>(pArg);
    struct CUnwind {
      CThreadCase* pCase;
      ~CUnwind() { pCase->bFramesGone = true; }
    } unwind{pCase};
    pCase->begun.Set();
    ZxWaitEvent(pCase->hRelease);
    return nullptr;
  }
  static void* Exit(void* pArg) {
    pthread_detach(pthread_self());
    auto* pCase = static_cast<CThreadCase*>(pArg);
    struct CUnwind {
      CThreadCase* pCase;
      ~CUnwind() { pCase->bFramesGone = true; }
    } unwind{pCase};  // NOLINT(clang-analyzer-deadcode.DeadStores) read by its destructor
    pCase->begun.Set();
    pthread_exit(nullptr);
  }
  static void* Inspect(void* pArg) {
    pthread_detach(pthread_self());
    auto* pCase = static_cast<CThreadCase*>(pArg);
    pthread_sigmask(SIG_SETMASK, nullptr, &pCase->setBlocked);
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
      pthread_attr_getstacksize(&attr, &pCase->uStackBytes);
      pthread_attr_destroy(&attr);
    }
    return nullptr;
  }
};

TEST(ZxThread_test, Gauge_ShowsTheRunningThreads) {
  CZxGauge gauge("test.thread_group");
  CThreadCase threadCase;
  threadCase.group.SetGauge(&gauge);
  EXPECT_EQ(gauge.Value(), 0);
  pthread_t hThread = 0;
  ASSERT_EQ(threadCase.group.Create(&hThread, &CThreadCase::WaitForRelease, &threadCase), 0);
  EXPECT_EQ(gauge.Value(), 1);
  ZxSetEvent(threadCase.hRelease);
  ASSERT_TRUE(threadCase.group.Wait(kTestDeadlineMs));
  EXPECT_EQ(gauge.Value(), 0);
}

TEST(ZxThread_test, Wait_Returns_WhenTheEntryReturned) {
  CThreadCase test;
  pthread_t hThread{};
  EXPECT_TRUE(test.group.Wait(0));
  ASSERT_EQ(test.group.Create(&hThread, &CThreadCase::WaitForRelease, &test), 0);
  ASSERT_TRUE(test.begun.Wait());
  EXPECT_EQ(test.group.Running(), 1u);
  EXPECT_FALSE(test.group.Wait(0));
  EXPECT_FALSE(test.group.Wait(kShortMs));
  ZxSetEvent(test.hRelease);
  EXPECT_TRUE(test.group.Wait(kTestDeadlineMs));
  EXPECT_TRUE(test.bFramesGone);
  EXPECT_EQ(test.group.Running(), 0u);
}

TEST(ZxThread_test, Wait_Returns_WhenACancelledThreadHasUnwound) {
  for (int i = 0; i < 20; ++i) {
    CThreadCase test;
    pthread_t hThread{};
    ASSERT_EQ(test.group.Create(&hThread, &CThreadCase::WaitForRelease, &test), 0);
    ASSERT_TRUE(test.begun.Wait());
    EXPECT_EQ(pthread_cancel(hThread), 0);
    ASSERT_TRUE(test.group.Wait(kTestDeadlineMs));
    EXPECT_TRUE(test.bFramesGone);
  }
}

TEST(ZxThread_test, Wait_Returns_WhenTheEntryCallsPthreadExit) {
  CThreadCase test;
  pthread_t hThread{};
  ASSERT_EQ(test.group.Create(&hThread, &CThreadCase::Exit, &test), 0);
  EXPECT_TRUE(test.group.Wait(kTestDeadlineMs));
  EXPECT_TRUE(test.bFramesGone);
}

TEST(ZxThread_test, Group_CountsManyThreads) {
  constexpr uint32_t kThreads = 32;
  CThreadCase test;
  for (uint32_t u = 0; u < kThreads; ++u) {
    pthread_t hThread{};
    ASSERT_EQ(test.group.Create(&hThread, &CThreadCase::WaitForRelease, &test), 0);
  }
  ASSERT_TRUE(test.begun.Wait(kThreads));
  EXPECT_EQ(test.group.Running(), kThreads);
  EXPECT_TRUE(EventuallyTrue([&] {
    ZxSetEvent(test.hRelease);
    return test.group.Running() == 0;
  }));
  EXPECT_TRUE(test.group.Wait(0));
}

TEST(ZxThread_test, NewThread_LeavesSignalsToTheHost) {
  CThreadCase test;
  pthread_t hThread{};
  sigset_t setBefore;
  pthread_sigmask(SIG_SETMASK, nullptr, &setBefore);
  ASSERT_EQ(test.group.Create(&hThread, &CThreadCase::Inspect, &test), 0);
  ASSERT_TRUE(test.group.Wait(kTestDeadlineMs));
  for (const int iSignal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGPIPE, SIGUSR1})
    EXPECT_EQ(sigismember(&test.setBlocked, iSignal), 1) << iSignal;
  for (const int iSignal : {SIGSEGV, SIGBUS, SIGABRT})
    EXPECT_EQ(sigismember(&test.setBlocked, iSignal), 0) << iSignal;
  sigset_t setAfter;
  pthread_sigmask(SIG_SETMASK, nullptr, &setAfter);
  for (const int iSignal : {SIGTERM, SIGUSR1})
    EXPECT_EQ(sigismember(&setBefore, iSignal), sigismember(&setAfter, iSignal)) << iSignal;
  if (ZX_TEST_SANITIZED == 0) {
    EXPECT_EQ(test.uStackBytes, kZxThreadStackBytes);
  }
}

// 0 when the start of a thread fails as it should while no new stack can be mapped.
int CreateWithoutMemory() {
  CThreadCase test;
  const rlimit none{1, RLIM_INFINITY};
  if (setrlimit(RLIMIT_AS, &none) != 0)
    return 1;
  pthread_t hThread{};
  if (test.group.Create(&hThread, &CThreadCase::Inspect, &test) != EAGAIN)
    return 2;
  return test.group.Running() == 0 && test.group.Wait(0) ? 0 : 3;
}

// In a process of its own: the C library keeps the stacks of ended threads for the next ones.
TEST(ZxThreadDeathTest, Create_ReturnsTheError_WhenTheSystemHasNoThread) {
  if (ZX_TEST_SANITIZED != 0)
    GTEST_SKIP() << "the sanitizer needs address space of its own";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(_exit(CreateWithoutMemory()), ::testing::ExitedWithCode(0), "");
}

TEST(ZxThread_test, SetThreadName_CutsAt15Characters) {
  CEventWaiter done;
  char szName[16] = {};
  struct CArg {
    char* pszName;
    CEventWaiter* pDone;
  } arg{szName, &done};
  CZxThreadGroup group;
  pthread_t hThread{};
  ASSERT_EQ(group.Create(
                &hThread,
                [](void* pArg) -> void* {
                  pthread_detach(pthread_self());
                  ZxSetThreadName("zxagentpollmsg0123");
                  prctl(PR_GET_NAME, static_cast<CArg*>(pArg)->pszName);
                  static_cast<CArg*>(pArg)->pDone->Set();
                  return nullptr;
                },
                &arg),
            0);
  ASSERT_TRUE(done.Wait());
  EXPECT_STREQ(szName, "zxagentpollmsg0");
  EXPECT_TRUE(group.Wait(kTestDeadlineMs));
}

TEST(ZxThread_test, SetThreadBatch_KeepsToTheCallingThread) {
  const int iOwnPolicy = sched_getscheduler(0);
  if (iOwnPolicy != SCHED_OTHER)
    GTEST_SKIP() << "the tests run under a policy of their own";
  bool bFirst = false;
  bool bSecond = true;
  int iPolicy = -1;
  std::thread([&] {
    bFirst = ZxSetThreadBatch();
    iPolicy = sched_getscheduler(0);
    bSecond = ZxSetThreadBatch();
  }).join();
  EXPECT_TRUE(bFirst);
  EXPECT_EQ(iPolicy, SCHED_BATCH);
  EXPECT_FALSE(bSecond);
  EXPECT_EQ(sched_getscheduler(0), iOwnPolicy);
}

}  // namespace
