// Request and reply between two components of one process, against two bare queues (mutex and condition
// variable, one thread on each) that carry the same bytes. One batch = kRequests pairs with kWindow under
// way.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "platform/bus/zxbus.h"

namespace {

constexpr int kRequests = 20000;
constexpr size_t kReplyBytes = 256;

class CBareQueue {
 public:
  void Push(std::string str) {
    {
      const std::lock_guard lock(m_mutex);
      m_queue.push_back(std::move(str));
    }
    m_cond.notify_one();
  }
  std::string Pop() {
    std::unique_lock lock(m_mutex);
    m_cond.wait(lock, [this] { return !m_queue.empty(); });
    std::string str = std::move(m_queue.front());
    m_queue.pop_front();
    return str;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cond;
  std::deque<std::string> m_queue;
};

void Bus_BareQueues_Floor(benchmark::State& state) {
  const auto iWindow = static_cast<int>(state.range(0));
  const std::string strRequest(static_cast<size_t>(state.range(1)), 'q');
  const std::string strReply(kReplyBytes, 'r');
  CBareQueue requests, replies;
  std::thread receiver([&] {
    for (;;) {
      const std::string str = requests.Pop();
      if (str.empty())
        return;
      benchmark::DoNotOptimize(str.data());
      replies.Push(strReply);
    }
  });
  for (auto _ : state) {
    int iSent = 0;
    for (; iSent < iWindow; ++iSent)
      requests.Push(strRequest);
    for (int iDone = 0; iDone < kRequests; ++iDone) {
      benchmark::DoNotOptimize(replies.Pop().data());
      if (iSent < kRequests) {
        requests.Push(strRequest);
        ++iSent;
      }
    }
  }
  requests.Push(std::string());
  receiver.join();
  state.SetItemsProcessed(state.iterations() * kRequests);
}

class CEcho final : public IMRReceiveComplete {
 public:
  void ReceiveCallback(const GUID&, long i64MsgType, const unsigned char* pData, unsigned int,
                       void* pBatonData, void* pContext) override {
    benchmark::DoNotOptimize(pData);
    static_cast<IBusContext*>(pContext)->Reply(0, i64MsgType, m_strReply.data(), kReplyBytes, pBatonData);
  }

 private:
  const std::string m_strReply = std::string(kReplyBytes, 'r');
};

// Keeps the window full from its completions, as a component that works through a list does.
class CAsker final : public IMRSendComplete {
 public:
  CAsker(IBusContext* pBus, const GUID& guidTarget, size_t uBytes)
      : m_pBus(pBus), m_guidTarget(guidTarget), m_strRequest(uBytes, 'q') {}

  void Run(int iWindow) {
    m_iSent = iWindow;
    m_iDone = 0;
    for (int i = 0; i < iWindow; ++i)
      Send();
    std::unique_lock lock(m_mutex);
    m_cond.wait(lock, [this] { return m_bEnd; });
    m_bEnd = false;
  }
  bool Failed() const { return m_bFailed; }

 private:
  void SendCallback(unsigned int iRetReply, long, const unsigned char* pResponse, unsigned int,
                    unsigned long long, void*) override {
    benchmark::DoNotOptimize(pResponse);
    m_bFailed = m_bFailed || iRetReply != 0;
    if (++m_iDone == kRequests) {
      const std::lock_guard lock(m_mutex);
      m_bEnd = true;
      m_cond.notify_one();
    } else if (m_iSent < kRequests) {
      ++m_iSent;
      Send();
    }
  }
  void Send() {
    unsigned long long ui64ACT = 0;
    if (m_pBus->AsynSendEx(&m_guidTarget, 1, m_strRequest.data(), static_cast<uint32_t>(m_strRequest.size()),
                           this, nullptr, &ui64ACT, 60000) != 0)
      std::abort();
  }

  IBusContext* const m_pBus;
  const GUID m_guidTarget;
  const std::string m_strRequest;
  std::atomic<int> m_iSent{0};
  int m_iDone = 0;  // the dispatcher's thread, between two batches nobody's
  bool m_bFailed = false;
  bool m_bEnd = false;
  std::mutex m_mutex;
  std::condition_variable m_cond;
};

void Bus_RequestReply(benchmark::State& state) {
  const GUID guidAsker("00000001-0000-4000-8000-000000000001");
  const GUID guidEcho("00000002-0000-4000-8000-000000000002");
  IBusContext* pAsker = ZxBusCreateContext();
  IBusContext* pEcho = ZxBusCreateContext();
  CEcho echo;
  CAsker asker(pAsker, guidEcho, static_cast<size_t>(state.range(1)));
  if (pAsker->Initialize(&guidAsker) != 0 || pEcho->Initialize(&guidEcho) != 0 ||
      pEcho->Receive(1, &echo) != 0)
    state.SkipWithError("no bus");
  for (auto _ : state)
    asker.Run(static_cast<int>(state.range(0)));
  if (asker.Failed())
    state.SkipWithError("a request failed");
  ZxBusDestroyContext(pAsker);
  ZxBusDestroyContext(pEcho);
  state.SetItemsProcessed(state.iterations() * kRequests);
}

void Cases(benchmark::internal::Benchmark* pBenchmark) {
  for (const int iWindow : {1, 64}) {
    for (const int iBytes : {256, 4096})
      pBenchmark->Args({iWindow, iBytes});
  }
  pBenchmark->ArgNames({"window", "bytes"})->UseRealTime()->Unit(benchmark::kMillisecond);
}
BENCHMARK(Bus_BareQueues_Floor)->Apply(Cases);
BENCHMARK(Bus_RequestReply)->Apply(Cases);

}  // namespace
