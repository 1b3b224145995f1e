#include "support/LogCapture.h"

#include <algorithm>
#include <chrono>

CLogCapture::CLogCapture() {
  m_pPrevious = LogSetSink(this);
}

CLogCapture::~CLogCapture() {
  LogSetSink(m_pPrevious);
  for (const HLog hLog : m_open)
    LogUninit(hLog);
}

HLog CLogCapture::Open(const char* pszChannel, int iLevel) {
  const HLog hLog = LogInit(pszChannel);
  hLog->iThreshold = iLevel;
  m_open.push_back(hLog);
  return hLog;
}

std::vector<std::string> CLogCapture::Lines() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  std::vector<std::string> lines;
  lines.reserve(m_entries.size());
  for (const CEntry& entry : m_entries)
    lines.push_back(entry.strText);
  return lines;
}

std::vector<CLogCapture::CEntry> CLogCapture::Entries() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_entries;
}

bool CLogCapture::Contains(const std::string& strPart) const {
  return Count(strPart) != 0;
}

size_t CLogCapture::Count(const std::string& strPart) const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return static_cast<size_t>(std::count_if(m_entries.begin(), m_entries.end(), [&](const CEntry& entry) {
    return entry.strText.find(strPart) != std::string::npos;
  }));
}

bool CLogCapture::WaitFor(const std::string& strPart, uint32_t dwMs) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_cond.wait_for(lock, std::chrono::milliseconds(dwMs), [&] { return Has(strPart); });
}

void CLogCapture::Clear() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_entries.clear();
}

void CLogCapture::OnLine(const char* pszChannel, int iLevel, const char* pszText) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_entries.push_back({pszChannel, iLevel, pszText});
  m_cond.notify_all();
}

bool CLogCapture::Has(const std::string& strPart) const {
  return std::any_of(m_entries.begin(), m_entries.end(),
                     [&](const CEntry& entry) { return entry.strText.find(strPart) != std::string::npos; });
}
