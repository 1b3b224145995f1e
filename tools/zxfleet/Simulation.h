// A fleet in virtual time: the link's own state machine and back-off, one pair per machine, against a model
// of the cloud's brokers. Every machine is connected, the brokers go away for a while and come back.
//
// Deterministic for one seed. One thread; blocks until done; memory about 1 KB per machine.
#pragma once

#include <cstdint>

#include "AttemptBins.h"
#include "platform/cloud/CloudPorts.h"

namespace zxfleet {

struct _SimSettings {
  uint32_t uMachines = 100000;
  uint32_t uAddresses = 1;  // that each machine knows; all go away and return together
  uint64_t u64AwayMs = 120000;
  uint64_t u64AfterMs = 600000;  // how long to look on after the return
  uint32_t uSpreadSec = 60;
  uint32_t uRetryMaxSec = 300;
  uint32_t uCapacity = 0;    // connections that the brokers can make per second; 0: any number
  uint32_t uBacklog = 4096;  // waiting for that; beyond, the attempt is not answered at all
  bool bSilent = false;      // away means no answer, instead of a refusal
  uint64_t u64Seed = 1;
  zxcloud::_LinkTimes times;
};

struct _SimResult {
  CAttemptBins attempts{100};  // from the loss on; the return is at u64AwayMs
  CAttemptBins ups{100};       // connections that came up
  uint32_t uUp = 0;            // at the end
  uint64_t u64Wasted = 0;      // handshakes that the brokers made for machines that had given up
  uint64_t u64HalfUpMs = 0;    // after the return, until this share is up; 0: never
  uint64_t u64MostUpMs = 0;    // 99 of 100
  uint64_t u64AllUpMs = 0;
};

_SimResult Simulate(const _SimSettings& settings);

}  // namespace zxfleet
