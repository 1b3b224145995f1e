// Named process-wide figures: what a library tells about itself (queue depths, counts, modes) to whoever
// shows the state of the process, without either knowing the other. A gauge is listed from its construction
// to its destruction, so one that lives in an unloaded library is gone with it. Gauges of one name count as
// one figure: their sum.
// Threads: Set, Add and Value are lock-free from any thread; construction, destruction and reading take one
// lock for the length of the list. Nothing here blocks on I/O or is a cancellation point.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/Api.h"
#include "platform/text/PString.h"

class ZX_API CZxGauge {
 public:
  // Dotted lower-case name, "agent.work_queue"; borrowed as long as the gauge lives.
  explicit CZxGauge(const char* pszName);
  ~CZxGauge();
  CZxGauge(const CZxGauge&) = delete;
  CZxGauge& operator=(const CZxGauge&) = delete;

  void Set(int64_t i64Value) { m_i64Value.store(i64Value, std::memory_order_relaxed); }
  void Add(int64_t i64Delta) { m_i64Value.fetch_add(i64Delta, std::memory_order_relaxed); }
  int64_t Value() const { return m_i64Value.load(std::memory_order_relaxed); }
  const char* Name() const { return m_pszName; }

 private:
  friend class CZxGaugeList;

  const char* m_pszName;
  std::atomic<int64_t> m_i64Value{0};
  CZxGauge* m_pNext = nullptr;  // under the list's lock
  CZxGauge* m_pPrev = nullptr;
};

struct ZxGaugeValue {
  CPString strName;
  int64_t i64Value = 0;
};

// Copies of all figures, sorted by name. Throws std::bad_alloc only.
ZX_API std::vector<ZxGaugeValue> ZxGaugesRead();

// The figures as one JSON object, {"agent.threads":36,...}, with its NUL into pszBuffer. Returns the length
// without the NUL, as snprintf does: a result of uCapacity or more was cut at the last figure that fits and
// is still a JSON object (an empty text below three bytes). Negative: out of memory.
extern "C" ZX_API int ZxGaugesReadJson(char* pszBuffer, size_t uCapacity);
