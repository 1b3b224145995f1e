// Hand-over of records from one thread to another, against a bare mutex + condition variable + deque.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "platform/os/ZxMsgQueue.h"

namespace {

constexpr int kBatch = 20000;

void Queue_BareDeque_Floor(benchmark::State& state) {
  for (auto _ : state) {
    std::mutex mutex;
    std::condition_variable cond;
    std::deque<ZxMsgRecord> deque;
    std::thread consumer([&] {
      for (int i = 0; i < kBatch; ++i) {
        std::unique_lock<std::mutex> lock(mutex);
        cond.wait_for(lock, std::chrono::seconds(5), [&] { return !deque.empty(); });
        ZxMsgRecord record = deque.front();
        deque.pop_front();
        benchmark::DoNotOptimize(record);
      }
    });
    for (int i = 0; i < kBatch; ++i) {
      {
        const std::lock_guard<std::mutex> lock(mutex);
        deque.push_back(ZxMsgRecord{static_cast<uint32_t>(i), 0, nullptr, nullptr});
      }
      cond.notify_one();
    }
    consumer.join();
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(Queue_BareDeque_Floor)->UseRealTime()->Unit(benchmark::kMillisecond);

void Queue_ZxMsgQueue(benchmark::State& state) {
  for (auto _ : state) {
    ZxMsgQueue queue;
    ZxMsgQueueInit(queue);
    std::thread consumer([&] {
      for (int i = 0; i < kBatch; ++i) {
        ZxMsgRecord record;
        ZxGetMsgFromQueue(queue, record, 5000);
        benchmark::DoNotOptimize(record);
      }
    });
    for (int i = 0; i < kBatch; ++i)
      ZxMsgQueueInsert(queue, static_cast<uint32_t>(i), 0, nullptr);
    consumer.join();
    ZxMsgQueueFini(queue);
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(Queue_ZxMsgQueue)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
