#include "platform/cloud/CloudLog.h"

#include <algorithm>
#include <cstdarg>
#include <functional>
#include <string>

#include "platform/text/PString.h"

namespace zxcloud {

namespace {

constexpr std::string_view kClock = " (this machine's clock says";

// The length of a number at the beginning of sv that is a measure; 0: there is none.
size_t MeasureLength(std::string_view sv) {
  const size_t uDigits = std::min(sv.find_first_not_of("0123456789"), sv.size());
  const std::string_view svBehind = sv.substr(uDigits);
  for (const std::string_view svUnit : {" ms", " milliseconds", " bytes", " out of"}) {
    if (uDigits != 0 && svBehind.substr(0, svUnit.size()) == svUnit)
      return uDigits;
  }
  return 0;
}

std::string WithoutMeasures(std::string_view sv) {
  std::string strText;
  while (!sv.empty()) {
    size_t uSkip = MeasureLength(sv);
    if (sv.substr(0, kClock.size()) == kClock)
      uSkip = std::min(sv.find(')'), sv.size());
    if (uSkip == 0) {
      // A number is taken whole: its end is not another one.
      uSkip = std::max<size_t>(std::min(sv.find_first_not_of("0123456789"), sv.size()), 1);
      strText.append(sv.substr(0, uSkip));
    }
    sv.remove_prefix(uSkip);
  }
  return strText;
}

}  // namespace

bool CQuietReasons::Due(uint64_t u64NowMs, std::string_view svReason) {
  const size_t uHash = std::hash<std::string>()(WithoutMeasures(svReason));
  const bool bHeard = std::find(m_listHeard.begin(), m_listHeard.end(), uHash) != m_listHeard.end();
  if (!bHeard && m_listHeard.size() < kReasonsMax) {
    m_listHeard.push_back(uHash);
    m_period.Reset();
  }
  return m_period.Due(u64NowMs);
}

void CQuietReasons::Reset() {
  m_period.Reset();
  m_listHeard.clear();
}

// The formats are literals that TLogText has checked at their call sites.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void CCloudLog::Write(int iLevel, const char* pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  CPString strText;
  strText.FormatV(pszFormat, args);
  va_end(args);
  m_callbacks.Log(iLevel, strText.c_str());
}
#pragma GCC diagnostic pop

}  // namespace zxcloud
