// What the benchmarks' log-cache forwarders say to the agent and are told by it: docs/components.md describes
// both.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr char kForwarderGuid[] = "9946467F-0102-46E8-ACAC-B9EFE3CD68FD";
inline constexpr char kAgentGuid[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";
inline constexpr uint32_t kLogCache = 20002;
inline constexpr uint32_t kLogCacheResult = 20003;
inline constexpr size_t kResultCodeAt = 4;  // in a result record
inline constexpr size_t kDataIdAt = 8;
inline constexpr size_t kResultBytes = 32;

inline constexpr uint32_t kReplyTimeoutMs = 60000;
inline constexpr size_t kBodyBytes = 1024;
