// Senders and the thread that answers them, without a file.
#include "platform/cloud/SpoolRequests.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/Waiter.h"

using namespace zxcloud;

namespace {

using TRequest = CSpoolRequests::TRequest;

TRequest Request(const std::string& strBody) {
  auto pRequest = std::make_shared<CSpoolRequests::_Request>();
  pRequest->pItem = MakeOutItem(0, 1, "id", strBody);
  pRequest->entry.uBytes = 100;
  return pRequest;
}

// Senders that each push one request and note the answer.
class CSenders {
 public:
  CSenders(CSpoolRequests& requests, int iCount) {
    for (int i = 0; i < iCount; ++i)
      m_threads.emplace_back([this, &requests, i] {
        const TRequest pRequest = Request(std::to_string(i));
        const uint32_t uiResult = requests.Push(pRequest) ? CSpoolRequests::Wait(pRequest) : UINT32_MAX;
        const std::lock_guard lock(m_mutex);
        m_mapAnswers[std::to_string(i)] = uiResult;
      });
  }
  std::map<std::string, uint32_t> Answers() {
    for (std::thread& thread : m_threads)
      thread.join();
    return m_mapAnswers;
  }

 private:
  std::mutex m_mutex;
  std::map<std::string, uint32_t> m_mapAnswers;
  std::vector<std::thread> m_threads;
};

void TakeUntil(CSpoolRequests& requests, std::vector<TRequest>& list, size_t uCount) {
  while (list.size() < uCount) {
    requests.Sleep(UINT64_MAX);
    requests.Take(list, uCount, SIZE_MAX);
  }
}

}  // namespace

TEST(SpoolRequests, PartsOfThoseWhoCameTogether_GetTheirOwnAnswers) {
  CSpoolRequests requests;
  CSenders senders(requests, 12);
  std::vector<TRequest> list[3];
  for (auto& one : list)
    TakeUntil(requests, one, 4);
  EXPECT_TRUE(requests.Empty());
  for (uint32_t u : {2u, 0u, 1u})
    requests.Answer(list[u], 100 + u);
  const std::map<std::string, uint32_t> mapAnswers = senders.Answers();
  for (uint32_t u = 0; u < 3; ++u) {
    for (const TRequest& pRequest : list[u])
      EXPECT_EQ(mapAnswers.at(std::string(pRequest->pItem->Body())), 100 + u);
  }
}

TEST(SpoolRequests, Take_EndsAtItsBounds_OldestFirst) {
  CSpoolRequests requests;
  for (int i = 0; i < 6; ++i)
    ASSERT_TRUE(requests.Push(Request(std::to_string(i))));
  std::vector<TRequest> list;
  requests.Take(list, 2, SIZE_MAX);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0]->pItem->Body(), "0");
  EXPECT_EQ(list[1]->pItem->Body(), "1");
  list.clear();
  requests.Take(list, 100, 250);
  EXPECT_EQ(list.size(), 3u);
  EXPECT_FALSE(requests.Empty());
}

TEST(SpoolRequests, SendersThatComeAgain_AreAllAnswered) {
  constexpr int kSenders = 16;
  constexpr int kEach = 200;
  CSpoolRequests requests;
  std::atomic<int> iWrong{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kSenders; ++i)
    threads.emplace_back([&] {
      for (int n = 0; n < kEach; ++n) {
        const TRequest pRequest = Request("x");
        iWrong += !requests.Push(pRequest) || CSpoolRequests::Wait(pRequest) != 7;
      }
    });
  std::vector<TRequest> list;
  for (size_t uAnswered = 0; uAnswered < size_t{kSenders} * kEach; uAnswered += list.size()) {
    requests.Sleep(UINT64_MAX);
    requests.Gather(1000);
    list.clear();
    requests.Take(list, 1000, SIZE_MAX);
    EXPECT_LE(list.size(), size_t{kSenders});
    requests.Answer(list, 7);
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(iWrong.load(), 0);
}

TEST(SpoolRequests, Gather_EndsWithAStop) {
  CSpoolRequests requests;
  std::vector<TRequest> list;
  for (int i = 0; i < 8; ++i)
    ASSERT_TRUE(requests.Push(Request("x")));
  requests.Take(list, 8, SIZE_MAX);
  requests.Answer(list, 0);  // eight may come again
  ASSERT_TRUE(requests.Push(Request("x")));
  requests.Stop();
  requests.Gather(3600000000);
  EXPECT_FALSE(requests.Push(Request("late")));
  EXPECT_TRUE(requests.TakeWishes().bStop);
  EXPECT_TRUE(requests.TakeWishes().bStop);
}

TEST(SpoolRequests, Wishes_EndTheSleep_AndAreToldOnce) {
  CSpoolRequests requests;
  requests.WantBodies();
  requests.Sleep(UINT64_MAX);
  requests.WantDeletes();
  const CSpoolRequests::_Wishes wishes = requests.TakeWishes();
  EXPECT_TRUE(wishes.bBodies && wishes.bDeletes && !wishes.bStop);
  const CSpoolRequests::_Wishes none = requests.TakeWishes();
  EXPECT_FALSE(none.bBodies || none.bDeletes || none.bStop);
}

TEST(SpoolRequests, CancelledSender_IsMarked_AndTheOthersOfItsGroupAreAnswered) {
  CSpoolRequests requests;
  CSenders senders(requests, 4);
  struct _Cancelled {
    CSpoolRequests& requests;
    TRequest pRequest = Request("cancelled");
  } cancelled{requests};
  pthread_t thread{};
  ASSERT_EQ(pthread_create(
                &thread, nullptr,
                [](void* p) -> void* {
                  auto* pCancelled = static_cast<_Cancelled*>(p);
                  if (pCancelled->requests.Push(pCancelled->pRequest))
                    CSpoolRequests::Wait(pCancelled->pRequest);
                  return nullptr;
                },
                &cancelled),
            0);
  std::vector<TRequest> list;
  TakeUntil(requests, list, 5);
  ASSERT_EQ(pthread_cancel(thread), 0);
  void* pResult = nullptr;
  ASSERT_EQ(pthread_join(thread, &pResult), 0);
  EXPECT_EQ(pResult, PTHREAD_CANCELED);
  EXPECT_TRUE(cancelled.pRequest->bCancelled.load());
  requests.Answer(list, 0);
  for (const auto& [strBody, uiResult] : senders.Answers())
    EXPECT_EQ(uiResult, 0u) << strBody;
}
