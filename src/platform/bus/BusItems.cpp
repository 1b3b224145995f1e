#include "platform/bus/BusItems.h"

#include <sys/random.h>

#include <cstring>

#include "platform/os/ZxTime.h"

namespace {

// Also the part that makes baton handles unique, so it never repeats in a process.
// Starts at a random place, so that a handle derived from a token cannot be told from outside.
unsigned long long FirstToken() {
  unsigned long long ui64Random = 0;
  if (getrandom(&ui64Random, sizeof(ui64Random), GRND_NONBLOCK) != sizeof(ui64Random))
    ui64Random = ZxGetTickCount() << 24;
  return ui64Random >> 24;  // 40 bits, so that a handle, which is the token shifted by 20, keeps all of them
}

}  // namespace

unsigned long long NextBusToken() {
  static std::atomic<unsigned long long> s_ui64LastACT{FirstToken()};
  return s_ui64LastACT.fetch_add(1, std::memory_order_relaxed) + 1;
}

TBusBytes CopyBytes(const void* pData, uint32_t uiLength) {
  if (uiLength == 0)
    return nullptr;
  TBusBytes bytes(static_cast<unsigned char*>(std::malloc(uiLength)));
  if (bytes == nullptr)
    throw std::bad_alloc();
  std::memcpy(bytes.get(), pData, uiLength);
  return bytes;
}
