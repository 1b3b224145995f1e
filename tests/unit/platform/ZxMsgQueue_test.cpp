#include "platform/os/ZxMsgQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "platform/os/ZxTime.h"
#include "support/Waiter.h"

namespace {

constexpr uint32_t kLongMs = 60000;

class ZxMsgQueue_test : public ::testing::Test {
 protected:
  ~ZxMsgQueue_test() override {
    if (m_bInit)
      ZxMsgQueueFini(m_queue);
  }
  void Init(size_t uMaxRecords = kZxMsgQueueMaxRecords, size_t uMaxBytes = kZxMsgQueueMaxBytes) {
    ZxMsgQueueInit(m_queue, uMaxRecords, uMaxBytes);
    m_bInit = true;
  }
  size_t Waiters() {
    pthread_mutex_lock(&m_queue.mutex);
    const size_t uWaiters = m_queue.uWaiters;
    pthread_mutex_unlock(&m_queue.mutex);
    return uWaiters;
  }

  ZxMsgQueue m_queue{};
  bool m_bInit = false;
};

TEST_F(ZxMsgQueue_test, Get_ReturnsRecordsInOrder) {
  Init();
  int iData = 0;
  EXPECT_TRUE(ZxMsgQueueInsert(m_queue, 1, 10, &iData));
  EXPECT_TRUE(ZxMsgQueueInsert(m_queue, 2, 20, nullptr));
  EXPECT_EQ(ZxGetMsgCount(m_queue), 2u);
  ZxMsgRecord record;
  ASSERT_TRUE(ZxGetMsgFromQueue(m_queue, record, 0));
  EXPECT_EQ(record.dwMessage, 1u);
  EXPECT_EQ(record.dwFlag, 10u);
  EXPECT_EQ(record.pData, &iData);
  EXPECT_EQ(record.pReserved, nullptr);
  ASSERT_TRUE(ZxGetMsgFromQueue(m_queue, record, kLongMs));
  EXPECT_EQ(record.dwMessage, 2u);
  EXPECT_EQ(ZxGetMsgCount(m_queue), 0u);
}

TEST_F(ZxMsgQueue_test, Get_TimesOut_WhenNothingComes) {
  Init();
  ZxMsgRecord record;
  EXPECT_FALSE(ZxGetMsgFromQueue(m_queue, record, 0));
  const uint64_t u64Begin = ZxGetTickCount();
  EXPECT_FALSE(ZxGetMsgFromQueue(m_queue, record, 20));
  EXPECT_GE(ZxGetTickCount() - u64Begin + 1, 20u);
  EXPECT_EQ(m_queue.uWaiters, 0u);
}

TEST_F(ZxMsgQueue_test, Insert_IsRefused_WhenRecordsAreFull) {
  Init(2);
  EXPECT_TRUE(ZxMsgQueueInsert(m_queue, 1, 0, nullptr));
  EXPECT_TRUE(ZxMsgQueueInsert(m_queue, 2, 0, nullptr));
  errno = 0;
  EXPECT_FALSE(ZxMsgQueueInsert(m_queue, 3, 0, nullptr));
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(ZxGetMsgCount(m_queue), 2u);
  ZxMsgRecord record;
  ASSERT_TRUE(ZxGetMsgFromQueue(m_queue, record, 0));
  EXPECT_TRUE(ZxMsgQueueInsert(m_queue, 3, 0, nullptr));
}

TEST_F(ZxMsgQueue_test, Insert_IsRefused_WhenBytesAreFull) {
  Init(100, 10);
  EXPECT_FALSE(ZxMsgQueueInsert(m_queue, 1, 0, nullptr, 11));
  EXPECT_TRUE(ZxMsgQueueInsert(m_queue, 1, 0, nullptr, 6));
  errno = 0;
  EXPECT_FALSE(ZxMsgQueueInsert(m_queue, 2, 0, nullptr, 5));
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_FALSE(ZxMsgQueueInsert(m_queue, 2, 0, nullptr, static_cast<size_t>(-1)));
  EXPECT_TRUE(ZxMsgQueueInsert(m_queue, 2, 0, nullptr, 4));
  EXPECT_TRUE(ZxMsgQueueInsert(m_queue, 3, 0, nullptr, 0));
  ZxMsgRecord record;
  ASSERT_TRUE(ZxGetMsgFromQueue(m_queue, record, 0));
  EXPECT_TRUE(ZxMsgQueueInsert(m_queue, 4, 0, nullptr, 6));
}

TEST_F(ZxMsgQueue_test, Insert_WakesABlockedGet) {
  Init();
  std::thread thread([&] {
    ZxMsgRecord record;
    EXPECT_TRUE(ZxGetMsgFromQueue(m_queue, record, kLongMs));
    EXPECT_EQ(record.dwMessage, 7u);
  });
  EXPECT_TRUE(EventuallyTrue([&] { return Waiters() == 1; }));
  EXPECT_TRUE(ZxMsgQueueInsert(m_queue, 7, 0, nullptr));
  thread.join();
}

TEST_F(ZxMsgQueue_test, Get_EndsByCancellation_AndLosesNoRecord) {
  Init();
  pthread_t hThread{};
  ASSERT_EQ(pthread_create(
                &hThread, nullptr,
                [](void* pQueue) -> void* {
                  ZxMsgRecord record;
                  ZxGetMsgFromQueue(*static_cast<ZxMsgQueue*>(pQueue), record, kLongMs);
                  return nullptr;
                },
                &m_queue),
            0);
  EXPECT_TRUE(EventuallyTrue([&] { return Waiters() == 1; }));
  EXPECT_EQ(pthread_cancel(hThread), 0);
  void* pResult = nullptr;
  ASSERT_EQ(pthread_join(hThread, &pResult), 0);
  EXPECT_EQ(pResult, PTHREAD_CANCELED);
  EXPECT_EQ(Waiters(), 0u);
  EXPECT_TRUE(ZxMsgQueueInsert(m_queue, 5, 0, nullptr));
  ZxMsgRecord record;
  ASSERT_TRUE(ZxGetMsgFromQueue(m_queue, record, 0));
  EXPECT_EQ(record.dwMessage, 5u);
}

TEST_F(ZxMsgQueue_test, Queue_LosesNothing_WithManyProducersAndConsumers) {
  constexpr uint32_t kThreads = 4;
  constexpr uint32_t kEach = 2000;
  Init();
  std::atomic<uint64_t> u64Sum{0};
  std::vector<std::thread> threads;
  for (uint32_t u = 0; u < kThreads; ++u) {
    threads.emplace_back([&, u] {
      uint32_t uLast = 0;
      for (uint32_t n = 0; n < kEach; ++n) {
        EXPECT_TRUE(ZxMsgQueueInsert(m_queue, u, n + 1, nullptr));
        uLast = n;
      }
      EXPECT_EQ(uLast, kEach - 1);
    });
    threads.emplace_back([&] {
      for (uint32_t n = 0; n < kEach; ++n) {
        ZxMsgRecord record;
        EXPECT_TRUE(ZxGetMsgFromQueue(m_queue, record, kLongMs));
        u64Sum += record.dwFlag;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(u64Sum.load(), uint64_t{kThreads} * kEach * (kEach + 1) / 2);
  EXPECT_EQ(ZxGetMsgCount(m_queue), 0u);
}

TEST_F(ZxMsgQueue_test, Queue_KeepsEachProducersOrder) {
  constexpr uint32_t kEach = 3000;
  Init();
  std::vector<std::thread> threads;
  for (uint32_t u = 0; u < 3; ++u) {
    threads.emplace_back([&, u] {
      for (uint32_t n = 0; n < kEach; ++n)
        EXPECT_TRUE(ZxMsgQueueInsert(m_queue, u, n, nullptr));
    });
  }
  uint32_t uNext[3] = {};
  for (uint32_t n = 0; n < 3 * kEach; ++n) {
    ZxMsgRecord record;
    ASSERT_TRUE(ZxGetMsgFromQueue(m_queue, record, kLongMs));
    ASSERT_LT(record.dwMessage, 3u);
    EXPECT_EQ(record.dwFlag, uNext[record.dwMessage]++);
  }
  for (std::thread& thread : threads)
    thread.join();
}

TEST_F(ZxMsgQueue_test, Queue_CanBeUsedAgainAfterFini) {
  for (int i = 0; i < 2; ++i) {
    ZxMsgQueue queue{};
    ZxMsgQueueInit(queue);
    EXPECT_TRUE(ZxMsgQueueInsert(queue, 1, 0, nullptr, 100));
    ZxMsgQueueFini(queue);
    EXPECT_EQ(queue.uBytes, 0u);
    EXPECT_TRUE(queue.items.empty());
  }
}

TEST_F(ZxMsgQueue_test, SetMaxBytes_AppliesToWhatComesNext) {
  Init(10, 100);
  EXPECT_TRUE(ZxMsgQueueInsert(m_queue, 1, 0, nullptr, 80));
  ZxMsgQueueSetMaxBytes(m_queue, 50);
  EXPECT_FALSE(ZxMsgQueueInsert(m_queue, 2, 0, nullptr, 1)) << "more waits than may wait now";
  ZxMsgRecord record;
  ASSERT_TRUE(ZxGetMsgFromQueue(m_queue, record, 0));
  EXPECT_EQ(record.dwMessage, 1u) << "what was taken stays";
  EXPECT_TRUE(ZxMsgQueueInsert(m_queue, 3, 0, nullptr, 50));
  EXPECT_FALSE(ZxMsgQueueInsert(m_queue, 4, 0, nullptr, 1));
  ZxMsgQueueSetMaxBytes(m_queue, 51);
  EXPECT_TRUE(ZxMsgQueueInsert(m_queue, 5, 0, nullptr, 1));
  while (ZxGetMsgFromQueue(m_queue, record, 0)) {
  }
}

}  // namespace
