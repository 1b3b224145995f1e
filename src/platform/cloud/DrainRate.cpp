#include "platform/cloud/DrainRate.h"

#include <algorithm>

namespace zxcloud {

namespace {

constexpr uint64_t kDoublingMs = 10000;
constexpr uint64_t kMaxDoublings = 12;
constexpr size_t kBytesPerCount = 16u << 10;
constexpr int64_t kOne = 1000;  // thousandths
constexpr uint64_t kLeastWaitMs = 50;

}  // namespace

void CDrainRate::Begin(uint32_t uPerSec, uint64_t u64NowMs) {
  m_uBase = uPerSec;
  m_u64Begin = m_u64At = u64NowMs;
  m_i64Allowed = static_cast<int64_t>(uPerSec) * kOne;
}

// Messages per second, which are thousandths per millisecond.
uint64_t CDrainRate::Rate(uint64_t u64NowMs) const {
  return static_cast<uint64_t>(m_uBase) << std::min((u64NowMs - m_u64Begin) / kDoublingMs, kMaxDoublings);
}

bool CDrainRate::Admits(uint64_t u64NowMs) {
  if (m_uBase == 0)
    return true;
  const uint64_t u64Rate = Rate(u64NowMs);
  const auto i64Most = static_cast<int64_t>(u64Rate) * kOne;
  const auto u64Passed = std::min<uint64_t>(u64NowMs - m_u64At, kDoublingMs * kMaxDoublings);
  m_i64Allowed = std::min(i64Most, m_i64Allowed + static_cast<int64_t>(u64Passed * u64Rate));
  m_u64At = u64NowMs;
  return m_i64Allowed >= kOne;
}

void CDrainRate::Took(size_t uBytes) {
  if (m_uBase != 0)
    m_i64Allowed -= kOne * static_cast<int64_t>(1 + uBytes / kBytesPerCount);
}

uint64_t CDrainRate::NextMs() const {
  const int64_t i64Missing = std::max<int64_t>(kOne - m_i64Allowed, 0);
  const uint64_t u64Wait = static_cast<uint64_t>(i64Missing) / std::max<uint64_t>(Rate(m_u64At), 1) + 1;
  return m_u64At + std::max(u64Wait, kLeastWaitMs);
}

}  // namespace zxcloud
