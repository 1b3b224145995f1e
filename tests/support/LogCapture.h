// Records every log line of the process while it exists. One at a time. A line is recorded when its channel
// is open and its level passes the threshold; code under test whose handle may be closed (null) logs nothing.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "platform/log/Log.h"
#include "support/Waiter.h"

class CLogCapture : public ILogSink {
 public:
  struct CEntry {
    std::string strChannel;
    int iLevel = 0;
    std::string strText;
  };

  CLogCapture();
  ~CLogCapture() override;  // closes the channels of Open
  CLogCapture(const CLogCapture&) = delete;
  CLogCapture& operator=(const CLogCapture&) = delete;

  // Opens a channel down to iLevel until the end of the capture: g_hLogMain = log.Open("zxagent"). Put null
  // back into such a handle before that.
  HLog Open(const char* pszChannel, int iLevel = kLogDetail);

  std::vector<std::string> Lines() const;  // the texts, in order
  std::vector<CEntry> Entries() const;
  bool Contains(const std::string& strPart) const;
  size_t Count(const std::string& strPart) const;  // lines that hold strPart
  // Waits until a line holds strPart, already recorded ones included.
  bool WaitFor(const std::string& strPart, uint32_t dwMs = kTestDeadlineMs);
  void Clear();

  void OnLine(const char* pszChannel, int iLevel, const char* pszText) override;

 private:
  bool Has(const std::string& strPart) const;

  mutable std::mutex m_mutex;
  std::condition_variable m_cond;
  std::vector<CEntry> m_entries;
  std::vector<HLog> m_open;
  ILogSink* m_pPrevious = nullptr;
};
