// A log call below its threshold, against a bare integer compare.
#include <benchmark/benchmark.h>

#include <atomic>

#include "platform/log/Log.h"

namespace {

void Log_BareCompare_Floor(benchmark::State& state) {
  int iThreshold = 2;
  int iLevel = 1;
  uint64_t u64Id = 7;
  for (auto _ : state) {
    benchmark::DoNotOptimize(iThreshold);
    benchmark::DoNotOptimize(u64Id);
    if (iLevel >= iThreshold)
      benchmark::DoNotOptimize(++u64Id);
  }
}
BENCHMARK(Log_BareCompare_Floor);

void Log_BelowThreshold(benchmark::State& state) {
  CLogChannel channel;
  HLog hLog = &channel;
  uint64_t u64Id = 7;
  const CPString strText("text");
  for (auto _ : state) {
    benchmark::DoNotOptimize(hLog);
    benchmark::DoNotOptimize(u64Id);
    LogDetailTo(hLog, "zxagent bench below threshold u64DataId[%llx] strText[%s]", u64Id, strText);
  }
}
BENCHMARK(Log_BelowThreshold);

}  // namespace
