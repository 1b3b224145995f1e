#include "platform/os/ZxCritSec.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

TEST(ZxCritSec_test, Lock_ExcludesOtherThreads) {
  CCritSec cs;
  int iCount = 0;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 5000; ++n) {
        CCritLock lock(cs);
        ++iCount;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(iCount, 20000);
}

TEST(ZxCritSec_test, Lock_MayFollowAnUnlock) {
  CCritSec a;
  CCritSec b;
  { CCritLock lock(a); }
  { CCritLock lock(b); }
  EXPECT_EQ(pthread_mutex_trylock(a.Native()), 0);
  EXPECT_EQ(pthread_mutex_unlock(a.Native()), 0);
}

#ifndef NDEBUG
void LockTwo() {
  CCritSec a;
  CCritSec b;
  CCritLock lockA(a);
  CCritLock lockB(b);
}

TEST(ZxCritSecDeathTest, Lock_Aborts_WhenAnotherIsHeld) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(LockTwo(), "never nested");
}
#endif

}  // namespace
