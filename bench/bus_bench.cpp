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

#include "BusWindow.h"
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

void Bus_RequestReply(benchmark::State& state) {
  const GUID guidAsker("00000001-0000-4000-8000-000000000001");
  const GUID guidEcho("00000002-0000-4000-8000-000000000002");
  IBusContext* pAsker = ZxBusCreateContext();
  IBusContext* pEcho = ZxBusCreateContext();
  CEcho echo;
  CBusWindow asker(pAsker, guidEcho, static_cast<size_t>(state.range(1)));
  if (pAsker->Initialize(&guidAsker) != 0 || pEcho->Initialize(&guidEcho) != 0 ||
      pEcho->Receive(1, &echo) != 0)
    state.SkipWithError("no bus");
  for (auto _ : state)
    asker.Run(static_cast<int>(state.range(0)), kRequests);
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
