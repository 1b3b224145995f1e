// The agent's main log channel, open down to the detail level and recorded for the length of one test.
#pragma once

#include "data/AgentLog.h"
#include "support/LogCapture.h"

class CMainLog : public CLogCapture {
 public:
  CMainLog() { g_hLogMain = Open("zxagent"); }
  ~CMainLog() override { g_hLogMain = nullptr; }

  // The level of the only line that equals strText; -1 when there is none, -2 when there are several.
  int LevelOf(const std::string& strText) const {
    int iLevel = -1;
    for (const CEntry& entry : Entries()) {
      if (entry.strText == strText)
        iLevel = iLevel == -1 ? entry.iLevel : -2;
    }
    return iLevel;
  }
};
