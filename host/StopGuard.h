// Ends the process when a stop takes too long, whatever a plug-in does. A thread of its own ("zxhoststop")
// that sleeps until armed; after the deadline it writes a reason to stderr and calls _exit(kExitForced).
#pragma once

#include <pthread.h>

#include <cstdint>

inline constexpr int kExitForced = 75;

class CStopGuard {
 public:
  // Starts the deadline. Once; false when the thread cannot be made (then nothing bounds the stop).
  bool Arm(uint32_t uTimeoutMs);

 private:
  static void* Thread(void* pTimeoutMs);
};
