// Whether a dispatcher that has read its connection empty looks again for a moment before it sleeps there. In
// a flow of messages the next one is about to come: taken without sleeping it costs neither side a wake-up,
// which is dear for the daemon, too. Between looks others run. A single message at a time never makes a
// dispatcher linger, and where that does not pay, or strangers take the processor meanwhile, it sleeps at
// once for a while. Threads: the one that serves.
#pragma once

#include <cstdint>

class CBusLinger {
 public:
  static constexpr uint64_t kLongestNs = 30000;    // of looking in vain
  static constexpr uint64_t kStrangeNs = 1000000;  // of a look: strangers
  static constexpr uint32_t kFlow = 2;             // messages since the last sleep
  static constexpr uint32_t kFailures = 4;         // in a row: it does not pay
  static constexpr uint32_t kSkipTimes = 64;

  void CountMessage() { ++m_uiMessages; }
  // Nothing is there. True: look until kLongestNs have passed, and say by Lingered how it went.
  bool May() {
    if (m_uiMessages < kFlow)
      return false;
    if (m_uiSkip == 0)
      return true;
    --m_uiSkip;
    return false;
  }
  void Lingered(bool bFound, uint64_t u64TookNs) {
    m_uiFailures = bFound ? 0 : m_uiFailures + 1;
    if (m_uiFailures < kFailures && u64TookNs <= kStrangeNs)
      return;
    m_uiFailures = 0;
    m_uiSkip = kSkipTimes;
  }
  void Sleeps() { m_uiMessages = 0; }

 private:
  uint32_t m_uiMessages = 0;  // since the last sleep
  uint32_t m_uiFailures = 0;
  uint32_t m_uiSkip = 0;
};
