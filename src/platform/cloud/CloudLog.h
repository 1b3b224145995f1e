// The library's log lines: printf texts checked at compile time, handed to the host's log callback.
// Threads: any. Levels as the callback receives them: 0 detail, 1 progress, 2 warning ("*"), 3 error ("**").
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/cloud/Callbacks.h"
#include "platform/log/Log.h"

namespace zxcloud {

class CCloudLog {
 public:
  explicit CCloudLog(CCallbacks& callbacks) : m_callbacks(callbacks) {}

  void SetDebug(bool bDebug) { m_bDebug.store(bDebug, std::memory_order_relaxed); }

  template <class... A>
  void LogDetail(zxlog::TLogText<0, std::type_identity_t<A>...> text, const A&... args) {
    if (m_bDebug.load(std::memory_order_relaxed))
      Write(0, text.psz, zxlog::Pass(args)...);
  }
  template <class... A>
  void LogInfo(zxlog::TLogText<0, std::type_identity_t<A>...> text, const A&... args) {
    Write(1, text.psz, zxlog::Pass(args)...);
  }
  template <class... A>
  void LogWarn(zxlog::TLogText<1, std::type_identity_t<A>...> text, const A&... args) {
    Write(2, text.psz, zxlog::Pass(args)...);
  }
  template <class... A>
  void LogError(zxlog::TLogText<2, std::type_identity_t<A>...> text, const A&... args) {
    Write(3, text.psz, zxlog::Pass(args)...);
  }

 private:
  void Write(int iLevel, const char* pszFormat, ...);

  CCallbacks& m_callbacks;
  std::atomic<bool> m_bDebug{true};
};

// Lets a repeated failure through once at its beginning and then once per period.
class CQuietPeriod {
 public:
  explicit CQuietPeriod(uint32_t dwPeriodMs) : m_dwPeriodMs(dwPeriodMs) {}
  bool Due(uint64_t u64NowMs) {
    if (m_bQuiet && u64NowMs - m_u64Last < m_dwPeriodMs)
      return false;
    m_bQuiet = true;
    m_u64Last = u64NowMs;
    return true;
  }
  void Reset() { m_bQuiet = false; }  // the state has changed: the next failure is news

 private:
  const uint32_t m_dwPeriodMs;
  uint64_t m_u64Last = 0;
  bool m_bQuiet = false;
};

inline constexpr size_t kReasonsMax = 16;

// The same for failures that have a reason: one that was not heard since the last Reset is let through at
// once, as what cures one reason often shows the next; no more than kReasonsMax of them. Figures that differ
// with each attempt (times, counts of bytes, the clock) make no reason new.
class CQuietReasons {
 public:
  explicit CQuietReasons(uint32_t dwPeriodMs) : m_period(dwPeriodMs) {}
  bool Due(uint64_t u64NowMs, std::string_view svReason);
  void Reset();

 private:
  CQuietPeriod m_period;
  std::vector<size_t> m_listHeard;  // hashes
};

}  // namespace zxcloud
