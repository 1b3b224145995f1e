// Whether a dispatcher that has read its connection empty looks again for a moment before it sleeps there. In
// a flow of messages the next one is about to come: taken without sleeping it costs neither side a wake-up,
// which is dear for the daemon, too. Between looks others run, and on few processors those others are who
// sends: a look that takes long is judged by the messages it brought. A single message at a time never makes
// a dispatcher linger, and where that does not pay it sleeps at once for a while. Threads: the one that
// serves.
#pragma once

#include <cstdint>
#include <utility>

class CBusLinger {
 public:
  static constexpr uint64_t kLongestNs = 30000;  // of looking in vain
  static constexpr uint64_t kShortNs = 1000000;  // a look that is not worth a judgement
  static constexpr uint64_t kWorthNs = 500000;   // a message in so much time is worth having looked
  static constexpr uint32_t kFlow = 2;           // messages since the last sleep
  static constexpr uint32_t kFailures = 4;       // in a row: it does not pay
  static constexpr uint32_t kSkipTimes = 64;

  void CountMessage() {
    ++m_uiMessages;
    ++m_uiSinceLook;
  }
  // Nothing is there. True: look until kLongestNs have passed, and say by Lingered how it went.
  bool May() {
    const uint64_t u64LookNs = std::exchange(m_u64LookNs, 0);
    if (u64LookNs > kShortNs && m_uiSinceLook * kWorthNs < u64LookNs)
      m_uiSkip = kSkipTimes;  // strangers took the processor
    if (m_uiMessages < kFlow)
      return false;
    if (m_uiSkip == 0)
      return true;
    --m_uiSkip;
    return false;
  }
  void Lingered(bool bFound, uint64_t u64TookNs) {
    m_u64LookNs = u64TookNs;
    m_uiSinceLook = 0;
    m_uiFailures = bFound ? 0 : m_uiFailures + 1;
    if (m_uiFailures < kFailures)
      return;
    m_uiFailures = 0;
    m_uiSkip = kSkipTimes;
  }
  void Sleeps() { m_uiMessages = 0; }

 private:
  uint32_t m_uiMessages = 0;   // since the last sleep
  uint64_t m_u64LookNs = 0;    // what the last look took, until it is judged
  uint32_t m_uiSinceLook = 0;  // messages since then
  uint32_t m_uiFailures = 0;
  uint32_t m_uiSkip = 0;
};
