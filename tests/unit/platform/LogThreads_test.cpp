#include <gmock/gmock.h>
#include <pthread.h>

#include <atomic>
#include <map>
#include <thread>

#include "LogFixture.h"
#include "support/LogCapture.h"

namespace {

class LogThreads_test : public CLogHomeTest {};

TEST_F(LogThreads_test, NoLineIsLost_WhenTheQueueIsFull) {
  constexpr int kThreads = 4;
  constexpr int kEach = 2000;  // far more than the queue holds
  const HLog hLog = LogInit("zxagent");
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([hLog, i] {
      for (int n = 0; n < kEach; ++n)
        LogPrint(hLog, 2, "%d %d", i, n);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  LogUninit(hLog);
  const std::vector<std::string> texts = TextsIn("log/zxagent.log");
  EXPECT_EQ(texts.size(), static_cast<size_t>(kThreads * kEach));
  std::map<int, int> next;
  for (const std::string& strText : texts) {
    int iThread = -1;
    int iLine = -1;
    ASSERT_EQ(sscanf(strText.c_str(), "%d %d", &iThread, &iLine), 2) << strText;
    ASSERT_EQ(iLine, next[iThread]++) << "thread " << iThread;
  }
}

TEST_F(LogThreads_test, NoLineIsLost_WhenTheQueuesBytesAreFull) {
  constexpr int kLines = 60;
  const std::string strBig(50000, 'x');
  const HLog hLog = LogInit("zxagent");
  for (int i = 0; i < kLines; ++i)
    LogPrintStr(hLog, 2, strBig.c_str());
  LogUninit(hLog);
  EXPECT_EQ(TextsIn("log/zxagent.log").size(), static_cast<size_t>(kLines));
}

TEST_F(LogThreads_test, ACancelledThread_LeavesTheLogUsable) {
  struct CArg {
    HLog hLog;
    CEventWaiter begun;
  };
  const HLog hLog = LogInit("zxagent");
  for (int i = 0; i < 10; ++i) {
    CArg arg{hLog, {}};
    pthread_t hThread{};
    ASSERT_EQ(pthread_create(
                  &hThread, nullptr,
                  [](void* pArg) -> void* {
                    auto* p = static_cast<CArg*>(pArg);
                    p->begun.Set();
                    while (true) {
                      LogPrint(p->hLog, 2, "from the loop");
                      pthread_testcancel();
                    }
                    return nullptr;
                  },
                  &arg),
              0);
    ASSERT_TRUE(arg.begun.Wait());
    ASSERT_EQ(pthread_cancel(hThread), 0);
    void* pResult = nullptr;
    ASSERT_EQ(pthread_join(hThread, &pResult), 0);
    EXPECT_EQ(pResult, PTHREAD_CANCELED);
  }
  LogPrintStr(hLog, 2, "after");
  LogUninit(hLog);
  EXPECT_EQ(TextsIn("log/zxagent.log").back(), "after");
}

TEST_F(LogThreads_test, ACall_IsNoCancellationPoint) {
  struct CArg {
    HLog hLog;
    CEventWaiter cancelled;
    CEventWaiter logged;
  };
  const HLog hLog = LogInit("zxagent");
  CArg arg{hLog, {}, {}};
  pthread_t hThread{};
  ASSERT_EQ(pthread_create(
                &hThread, nullptr,
                [](void* pArg) -> void* {
                  auto* p = static_cast<CArg*>(pArg);
                  int iOld = 0;
                  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &iOld);
                  p->cancelled.Wait();
                  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &iOld);
                  for (int i = 0; i < 2000; ++i)  // fills the queue on the way
                    LogPrint(p->hLog, 2, "line");
                  LogUninit(LogInit("second"));
                  p->logged.Set();
                  pthread_testcancel();
                  return nullptr;
                },
                &arg),
            0);
  ASSERT_EQ(pthread_cancel(hThread), 0);
  arg.cancelled.Set();
  void* pResult = nullptr;
  ASSERT_EQ(pthread_join(hThread, &pResult), 0);
  EXPECT_EQ(arg.logged.Count(), 1u);
  EXPECT_EQ(pResult, PTHREAD_CANCELED);
  LogUninit(hLog);
  EXPECT_EQ(TextsIn("log/zxagent.log").size(), 2000u);
}

TEST_F(LogThreads_test, ChannelsOpenAndClose_WhileOthersLog) {
  std::atomic<bool> bStop{false};
  const HLog hShared = LogInit("zxagent");
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      while (!bStop)
        LogPrint(hShared, 2, "logging");
    });
    threads.emplace_back([] {
      for (int n = 0; n < 50; ++n) {
        const HLog hLog = LogInit("churn");
        LogPrint(hLog, 2, "churn");
        LogUninit(hLog);
      }
    });
  }
  threads[1].join();
  threads[3].join();
  LogUninit(hShared);  // call sites may still hold the handle
  bStop = true;
  threads[0].join();
  threads[2].join();
  EXPECT_EQ(TextsIn("log/churn.log").size(), 100u);
}

TEST_F(LogThreads_test, Sink_IsNotEntered_OnceItIsReplaced) {
  std::atomic<bool> bStop{false};
  const HLog hLog = LogInit("zxagent");
  std::thread thread([&] {
    while (!bStop)
      LogPrint(hLog, 2, "line");
  });
  for (int i = 0; i < 200; ++i) {
    CLogCapture capture;  // its destruction races with the logging thread
    if (i == 0) {
      EXPECT_TRUE(capture.WaitFor("line"));
    }
  }
  bStop = true;
  thread.join();
  LogUninit(hLog);
}

}  // namespace
