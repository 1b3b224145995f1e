// Whose turn it is with one connection. An sd-bus object belongs to one thread at a time; this is the baton
// that says to which. The holder may do non-blocking I/O and take a lock for a look-up, but runs no callback
// of a component and waits for nothing: so waiting for it is short. Threads: any. No lock may be held when it
// is taken or tried. Not recursive.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/os/ThreadSafety.h"

class TS_CAPABILITY("turn") CBusTurn {
 public:
  void Take() TS_ACQUIRE();
  // Without waiting. False: somebody else has it, or waits for it, and will see what is to be written.
  bool TryTake() TS_TRY_ACQUIRE(true);
  // True: somebody tried meanwhile, and nobody else looks after what he wants written.
  bool Give() TS_RELEASE();

 private:
  static constexpr uint32_t kTaken = 1, kWaiting = 2, kMore = 4;
  std::atomic<uint32_t> m_uiState{0};
};
