#include "RecentLines.h"

#include <cstdio>
#include <cstring>
#include <utility>

void CRecentLines::OnLine(const char* pszChannel, int iLevel, const char* pszText) {
  if (m_bEcho && std::strcmp(pszChannel, "zxhost") == 0)
    std::fprintf(stderr, "%s\n", pszText);
  if (iLevel < kLogWarn || iLevel > kLogError)
    return;
  _RecentLine line{std::time(nullptr), pszChannel, iLevel, CPString(pszText, strnlen(pszText, kMaxText))};
  CCritLock lock(m_cs);
  m_lines.push_back(std::move(line));
  if (m_lines.size() > kMaxLines)
    m_lines.pop_front();
}

std::vector<_RecentLine> CRecentLines::Lines() {
  CCritLock lock(m_cs);
  return {m_lines.begin(), m_lines.end()};
}
