// When each message of the forwarder's benchmark was where: one file, mapped by everyone who notes something.
// A message is known by a mark in its body. Nanoseconds of the monotonic clock, which is one for all
// processes.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

struct _ForwardStamps {
  uint64_t u64Sent;          // by the forwarder
  uint64_t u64Written;       // to the daemon's socket
  uint64_t u64Arrived;       // in the host's process
  uint64_t u64ToLink;        // handed to the cloud link
  uint64_t u64Acknowledged;  // the link's call has returned
  uint64_t u64Back;          // the result is with the forwarder
};
inline constexpr uint32_t kMaxStamps = 1u << 18;
inline constexpr char kForwardMark[] = "zxforward:";
inline constexpr size_t kForwardDigits = 8;

inline std::string ForwardMark(uint32_t uiNumber) {
  char sz[32];
  std::snprintf(sz, sizeof(sz), "%s%08u:", kForwardMark, uiNumber);
  return sz;
}

// Of the first mark in a text; kMaxStamps when there is none.
inline uint32_t ForwardNumber(const void* pData, size_t uBytes) {
  const size_t uMark = sizeof(kForwardMark) - 1;
  const auto* pszMark = static_cast<const char*>(memmem(pData, uBytes, kForwardMark, uMark));
  if (pszMark == nullptr || pszMark + uMark + kForwardDigits > static_cast<const char*>(pData) + uBytes)
    return kMaxStamps;
  const auto uiNumber =
      static_cast<uint32_t>(std::strtoul(std::string(pszMark + uMark, kForwardDigits).c_str(), nullptr, 10));
  return uiNumber < kMaxStamps ? uiNumber : kMaxStamps;
}

// Rows 0 to kMaxStamps, the last for what has no number. Its u64Sent says whether sockets are looked at.
// Null: the file cannot be mapped.
inline _ForwardStamps* MapForwardStamps(const char* pszFile) {
  const int iFd = pszFile != nullptr ? open(pszFile, O_RDWR | O_CLOEXEC) : -1;
  if (iFd < 0)
    return nullptr;
  void* p =
      mmap(nullptr, (kMaxStamps + 1) * sizeof(_ForwardStamps), PROT_READ | PROT_WRITE, MAP_SHARED, iFd, 0);
  close(iFd);
  return p != MAP_FAILED ? static_cast<_ForwardStamps*>(p) : nullptr;
}
