#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "HostLog.h"

namespace {

TEST(HostExit, Alarm_KillsTheProcess_WhateverItWaitsFor) {
  EXPECT_EXIT(
      {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        ArmAlarm(1);
        for (;;)
          pause();
      },
      testing::KilledBySignal(SIGALRM), "");
}

TEST(HostExit, ExitNow_GivesItsCode_AlsoWithoutALog) {
  EXPECT_EXIT(ExitNow(75), testing::ExitedWithCode(75), "");
}

}  // namespace
