#include "platform/cloud/Backoff.h"

#include <algorithm>
#include <limits>

namespace zxcloud {

namespace {

constexpr uint32_t kSecondsPerDay = 86400;

}  // namespace

CBackoff::CBackoff(uint32_t dwBase, uint32_t dwCap, IRandom& random)
    : m_dwBase(dwBase),
      m_dwCap(std::min(dwCap, std::numeric_limits<uint32_t>::max() - 1)),
      m_random(random),
      m_dwWidest(m_dwCap) {}

void CBackoff::SetWidest(uint32_t dwWidest) {
  m_dwWidest = std::min(dwWidest, m_dwCap);
}

uint32_t CBackoff::Next(uint32_t dwLeast) {
  const uint64_t u64Window = static_cast<uint64_t>(m_dwBase) << std::min(m_uFailures, 31u);
  m_uFailures += m_uFailures < 31 ? 1 : 0;
  const uint32_t dwWindow =
      std::max(static_cast<uint32_t>(std::min<uint64_t>(u64Window, m_dwWidest)), dwLeast);
  return m_random.Below(dwWindow + 1);
}

uint32_t CBackoff::NextAtCap() {
  m_uFailures = 31;
  return m_dwCap - m_random.Below(m_dwCap / 2 + 1);
}

uint32_t DelayAfter(uint32_t dwBackoff, uint32_t uRetryAfterSec, IRandom& random) {
  if (uRetryAfterSec == 0)
    return dwBackoff;
  const uint32_t dwAsked = std::min(uRetryAfterSec, kSecondsPerDay) * 1000;
  return std::max(dwBackoff, dwAsked + random.Below(dwAsked / 10 + 1));
}

}  // namespace zxcloud
