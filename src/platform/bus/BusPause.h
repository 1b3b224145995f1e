// Whether a dispatcher that finds its queue empty lets other threads run before it sleeps. In a flow of
// messages the next ones are about to come from threads that wait for the processor: worked off together they
// cost one wake-up, else each costs one. A single message at a time never makes a dispatcher wait, and where
// strangers take the processor instead it goes to sleep as usual for a while. Threads: the one dispatcher
// that owns it.
#pragma once

#include <cstdint>
#include <utility>

class CBusPause {
 public:
  static constexpr uint32_t kFlowSteps = 2;         // so many since the last time are a flow
  static constexpr uint64_t kShortNs = 1000000;     // a time that is not worth a judgement
  static constexpr uint64_t kWorthStepNs = 500000;  // a step in so much time is worth having waited
  static constexpr uint32_t kSkipTimes = 64;

  void CountSteps(uint32_t uiSteps) { m_uiSteps += uiSteps; }
  // Called when the queue is empty, on a monotonic clock that is not at 0. True: let others run and look
  // again. False: sleep.
  bool LetOthersRun(uint64_t u64NowNs) {
    const uint32_t uiSteps = std::exchange(m_uiSteps, 0);
    if (const uint64_t u64LeftNs = std::exchange(m_u64LeftNs, 0); u64LeftNs != 0) {
      const uint64_t u64TookNs = u64NowNs - u64LeftNs;
      if (u64TookNs > kShortNs && uiSteps * kWorthStepNs < u64TookNs)
        m_uiSkip = kSkipTimes;
    }
    if (uiSteps < kFlowSteps)
      return false;
    if (m_uiSkip != 0) {
      --m_uiSkip;
      return false;
    }
    m_u64LeftNs = u64NowNs;
    return true;
  }

 private:
  uint32_t m_uiSteps = 0;    // since the queue was last seen empty
  uint64_t m_u64LeftNs = 0;  // when others were last let run, until that is judged; 0: it is
  uint32_t m_uiSkip = 0;     // times to sleep at once
};
