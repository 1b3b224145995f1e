// The agent's main, flow and log-cache channels, open down to the detail level and captured while this lives.
#pragma once

#include <string>
#include <vector>

#include "data/AgentLog.h"
#include "support/LogCapture.h"

class CLogChannels {
 public:
  CLogChannels() {
    g_hLogMain = m_capture.Open("zxagent");
    g_hLogFlow = m_capture.Open("zxagentflow");
    g_hLogCache = m_capture.Open("zxlogcache");
  }
  ~CLogChannels() {
    g_hLogMain = nullptr;
    g_hLogFlow = nullptr;
    g_hLogCache = nullptr;
  }
  CLogChannels(const CLogChannels&) = delete;
  CLogChannels& operator=(const CLogChannels&) = delete;

  std::vector<std::string> Lines(const std::string& strChannel) const {
    std::vector<std::string> lines;
    for (const CLogCapture::CEntry& entry : m_capture.Entries())
      if (entry.strChannel == strChannel)
        lines.push_back(entry.strText);
    return lines;
  }
  std::vector<int> Levels(const std::string& strChannel) const {
    std::vector<int> levels;
    for (const CLogCapture::CEntry& entry : m_capture.Entries())
      if (entry.strChannel == strChannel)
        levels.push_back(entry.iLevel);
    return levels;
  }
  void Clear() { m_capture.Clear(); }
  CLogCapture& Capture() { return m_capture; }
  const CLogCapture& Capture() const { return m_capture; }

 private:
  CLogCapture m_capture;
};
