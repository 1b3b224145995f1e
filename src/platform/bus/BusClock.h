// Monotonic nanoseconds, the unit of the bus's deadlines.
#pragma once

#include <time.h>

#include <cstdint>

inline constexpr uint64_t kBusNsPerMs = 1000000;
inline constexpr uint64_t kBusNsPerSecond = 1000000000;

inline uint64_t BusNowNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * kBusNsPerSecond + static_cast<uint64_t>(ts.tv_nsec);
}
