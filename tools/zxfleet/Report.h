// What the fleet tool prints: figures of one outage and return, and the attempts over time as a table.
#pragma once

#include <cstdint>

#include "AttemptBins.h"

namespace zxfleet {

struct _Outage {
  uint64_t u64ReturnMs = 0;      // on the bins' time line
  uint64_t u64MinuteMs = 60000;  // the first minute after it, in the run's own time
  uint64_t u64EndMs = 0;
};

// True: peak over mean stays below 3 in 100 ms bins (in scaled time: in bins of half a second), or below what
// chance alone makes of so few machines, and nothing later is higher than twice the first minute's mean.
bool PrintAttempts(const CAttemptBins& attempts, const _Outage& outage);

}  // namespace zxfleet
