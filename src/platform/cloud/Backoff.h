// Delays between attempts: full jitter, a random time between 0 and min(cap, base * 2^n).
// Pure: no clock and no thread of its own; one thread per object. Times in milliseconds.
#pragma once

#include <cstdint>

#include "platform/cloud/CloudPorts.h"

namespace zxcloud {

// Between these lies what the cloud and the settings may choose for the widest window (retry_max_sec).
inline constexpr uint32_t kLeastRetrySec = 5;
inline constexpr uint32_t kMaxRetrySec = 300;

class CBackoff {
 public:
  CBackoff(uint32_t dwBase, uint32_t dwCap, IRandom& random);

  // The delay before the next attempt; each call widens the window of the one after it. The window is at
  // least dwLeast, also where that is above the cap.
  uint32_t Next(uint32_t dwLeast = 0);
  // For refusals that time alone does not heal: in the upper half of the widest window, and stays there.
  uint32_t NextAtCap();
  // From the next call on no window of Next is wider, other than by its dwLeast. Nothing above the cap
  // counts.
  void SetWidest(uint32_t dwWidest);
  void Reset() { m_uFailures = 0; }
  uint32_t Failures() const { return m_uFailures; }

 private:
  const uint32_t m_dwBase;
  const uint32_t m_dwCap;
  IRandom& m_random;
  uint32_t m_dwWidest;
  uint32_t m_uFailures = 0;
};

// The delay before the next attempt when the far side may have named one (Retry-After, seconds; 0: it has
// not). Never earlier than it asked, spread by a tenth so that a fleet does not return in one moment; a
// number beyond a day is taken as a day.
uint32_t DelayAfter(uint32_t dwBackoff, uint32_t uRetryAfterSec, IRandom& random);

}  // namespace zxcloud
