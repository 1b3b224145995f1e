// The turn of a connection: one holder at a time, and nothing that was asked for is forgotten.
#include "platform/bus/BusTurn.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

TEST(BusTurn, WhoTriesInVain_IsToldToTheHolder) {
  CBusTurn turn;
  ASSERT_TRUE(turn.TryTake());
  EXPECT_FALSE(turn.TryTake());
  EXPECT_TRUE(turn.Give());
  turn.Take();
  EXPECT_FALSE(turn.Give());
}

TEST(BusTurn, WhatWasQueuedIsWrittenInTheEnd_WhoeverHoldsIt) {
  constexpr int kThreads = 3, kEach = 20000;
  CBusTurn turn;
  std::atomic<int> iQueued{0};
  int iWritten = 0;  // the turn's
  const auto write = [&] { iWritten += iQueued.exchange(0); };
  const auto giveTurn = [&] {
    while (turn.Give() && turn.TryTake())
      write();
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < kEach; ++n) {
        ++iQueued;
        if (turn.TryTake()) {
          write();
          giveTurn();
        }
      }
    });
    threads.emplace_back([&] {  // some that wait for it write nothing of their own accord
      for (int n = 0; n < kEach / 4; ++n) {
        turn.Take();
        giveTurn();
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(iWritten, kThreads * kEach);
}

}  // namespace
