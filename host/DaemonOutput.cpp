#include "DaemonOutput.h"

#include <algorithm>
#include <utility>

namespace {

constexpr uint64_t kLineCost = 60000;

}  // namespace

void CDaemonOutput::Refill(uint64_t u64NowMs) {
  if (m_u64RefilledMs != 0 && u64NowMs > m_u64RefilledMs) {
    const uint64_t u64Passed = std::min<uint64_t>(u64NowMs - m_u64RefilledMs, 3600000);
    m_u64Credit = std::min(m_u64Credit + u64Passed * kPerMinute, uint64_t{kBurst} * kLineCost);
  }
  m_u64RefilledMs = u64NowMs;
}

void CDaemonOutput::EndLine(std::vector<std::string>& lines, uint64_t u64NowMs) {
  std::string strLine = std::exchange(m_strLine, {});
  if (!std::exchange(m_bAny, false))
    return;
  Refill(u64NowMs);
  if (m_u64Credit < kLineCost) {
    ++m_u64Dropped;
    return;
  }
  m_u64Credit -= kLineCost;
  lines.push_back(std::move(strLine));
}

std::vector<std::string> CDaemonOutput::Feed(std::string_view svData, uint64_t u64NowMs) {
  std::vector<std::string> lines;
  for (const char ch : svData) {
    if (ch == '\n') {
      EndLine(lines, u64NowMs);
      continue;
    }
    m_bAny = true;
    if (m_strLine.size() < kMaxLine)
      m_strLine += static_cast<unsigned char>(ch) < ' ' || ch == 0x7f ? '?' : ch;
  }
  return lines;
}

std::vector<std::string> CDaemonOutput::Finish(uint64_t u64NowMs) {
  std::vector<std::string> lines;
  EndLine(lines, u64NowMs);
  return lines;
}

uint64_t CDaemonOutput::TakeDropped(uint64_t u64NowMs) {
  Refill(u64NowMs);
  return m_u64Credit >= kLineCost ? std::exchange(m_u64Dropped, 0) : 0;
}
