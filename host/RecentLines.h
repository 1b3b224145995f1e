// The host's view of its process's log: the last warnings and errors of every channel for whoever asks what
// is wrong, and the echo of the host's own lines on standard error. Any thread; must be set as the sink by
// the process once, and lives as long as it.
#pragma once

#include <ctime>
#include <deque>
#include <vector>

#include "platform/log/Log.h"
#include "platform/os/ZxCritSec.h"

struct _RecentLine {
  std::time_t tTime = 0;
  CPString strChannel;
  int iLevel = 0;
  CPString strText;  // cut to CRecentLines::kMaxText
};

class CRecentLines final : public ILogSink {
 public:
  static constexpr size_t kMaxLines = 32;
  static constexpr size_t kMaxText = 512;

  void SetEcho(bool bEcho) { m_bEcho = bEcho; }  // before it becomes the sink
  void OnLine(const char* pszChannel, int iLevel, const char* pszText) override TS_EXCLUDES(m_cs);
  std::vector<_RecentLine> Lines() TS_EXCLUDES(m_cs);  // oldest first

 private:
  bool m_bEcho = false;
  CCritSec m_cs;
  std::deque<_RecentLine> m_lines TS_GUARDED_BY(m_cs);
};
