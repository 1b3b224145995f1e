#include "platform/cloud/CloudPorts.h"

#include <sys/random.h>
#include <time.h>

#include "platform/os/ZxTime.h"

namespace zxcloud {

uint64_t CSystemClock::NowMs() {
  return ZxGetTickCount();
}

int64_t CSystemWallClock::NowSec() {
  return time(nullptr);
}

CSystemRandom::CSystemRandom() : m_u64State(0) {
  if (getrandom(&m_u64State, sizeof(m_u64State), 0) != static_cast<ssize_t>(sizeof(m_u64State)))
    m_u64State = ZxGetTickCount() ^ reinterpret_cast<uintptr_t>(this);
}

uint32_t CSystemRandom::Below(uint32_t uBound) {
  m_u64State += 0x9e3779b97f4a7c15u;  // splitmix64
  uint64_t u64 = m_u64State;
  u64 = (u64 ^ (u64 >> 30)) * 0xbf58476d1ce4e5b9u;
  u64 = (u64 ^ (u64 >> 27)) * 0x94d049bb133111ebu;
  u64 ^= u64 >> 31;
  return static_cast<uint32_t>(((u64 >> 32) * uBound) >> 32);
}

}  // namespace zxcloud
