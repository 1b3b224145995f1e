// Whether a dispatcher that finds its queue empty lets other threads run and looks again before it sleeps.
//
// In a flow of messages the next ones are about to come from threads that wait for the processor: worked off
// together they cost one wake-up, else each costs one. In a quick exchange within the process, request and
// answer in turn, going to sleep and being woken takes longer than the other side's work: there it looks
// again for a short time. A message that comes alone never makes a dispatcher look. Where looking does not
// pay, because strangers take the processor instead or nothing comes, it goes to sleep as usual for a while,
// in an exchange longer each time. Threads: the one dispatcher that owns it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>

class CBusPause {
 public:
  static constexpr uint32_t kFlowSteps = 2;         // so many since the last time are a flow
  static constexpr uint64_t kQuickNs = 200000;      // an exchange whose rounds take less is quick
  static constexpr uint64_t kLookNs = 50000;        // how long it is worth looking for the next one then
  static constexpr uint64_t kShortNs = 1000000;     // a time that is not worth a judgement
  static constexpr uint64_t kWorthStepNs = 500000;  // a step in so much time is worth having waited
  static constexpr uint32_t kSkipTimes = 64;        // to sleep at once, after an attempt that did not pay
  static constexpr uint32_t kMaxSkipTimes = 4096;   // after many of them

  // bNear: among them was a request or an answer of this process.
  void CountSteps(uint32_t uiSteps, bool bNear) {
    m_uiSteps += uiSteps;
    m_bNear = m_bNear || bNear;
  }
  // Called when the queue is empty, on a monotonic clock that is not at 0. 0: sleep. Otherwise let others run
  // once, and again until that time while nothing comes.
  uint64_t LookUntilNs(uint64_t u64NowNs) {
    const uint32_t uiSteps = std::exchange(m_uiSteps, 0);
    const bool bNear = std::exchange(m_bNear, false);
    const uint64_t u64TookNs = u64NowNs - m_u64EmptyNs;
    if (std::exchange(m_bLooked, false))
      Judge(uiSteps, u64TookNs);
    if (uiSteps == 0)
      return 0;
    m_u64EmptyNs = u64NowNs;
    m_bQuick = bNear && uiSteps < kFlowSteps && u64TookNs < kQuickNs;
    if (!m_bQuick && uiSteps < kFlowSteps)
      return 0;
    if (m_uiSkip != 0) {
      --m_uiSkip;
      return 0;
    }
    m_bLooked = true;
    return m_bQuick ? u64NowNs + kLookNs : u64NowNs;
  }

 private:
  void Judge(uint32_t uiSteps, uint64_t u64TookNs) {
    const bool bStrangers = u64TookNs > kShortNs && uiSteps * kWorthStepNs < u64TookNs;
    if (!m_bQuick) {
      m_uiSkip = bStrangers ? kSkipTimes : 0;
    } else if (bStrangers || uiSteps == 0) {
      m_uiSkip = m_uiNextSkip;
      m_uiNextSkip = std::min(2 * m_uiNextSkip, kMaxSkipTimes);
    } else {
      m_uiNextSkip = kSkipTimes;
    }
  }

  uint32_t m_uiSteps = 0;  // since the queue was last seen empty
  bool m_bNear = false;
  uint64_t m_u64EmptyNs = 0;           // when the queue was last found empty after a step
  bool m_bQuick = false;               // that step ended a quick round
  bool m_bLooked = false;              // since then others were let run, and that is to be judged
  uint32_t m_uiSkip = 0;               // times to sleep at once
  uint32_t m_uiNextSkip = kSkipTimes;  // in an exchange
};
