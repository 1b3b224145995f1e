// A data store on a temporary home, with a system root of its own beside it.
#pragma once

#include "data/AgentData.h"
#include "support/MainLog.h"
#include "support/TempHome.h"

class CDataHome {
 public:
  CDataHome() { m_temp.MakeDir("root/etc"); }
  CDataHome(const CDataHome&) = delete;
  CDataHome& operator=(const CDataHome&) = delete;
  ~CDataHome() {
    if (m_bInit)
      m_data.Uninit();
  }

  // Registers the store with its home; the log starts empty behind it.
  CAgentData& Init() {
    EXPECT_EQ(m_data.Init(Home()), 1);
    m_bInit = true;
    m_log.Clear();
    return m_data;
  }

  CAgentData& Data() { return m_data; }
  CMainLog& Log() { return m_log; }
  CTempHome& Temp() { return m_temp; }  // holds "home/" and "root/"
  CPString Home() const { return m_temp.Path("home/"); }
  std::string Path(const std::string& strRelative) const { return m_temp.Path(strRelative).Str(); }

 private:
  CTempHome m_temp;
  CMainLog m_log;
  CAgentData m_data{m_temp.Path("root")};
  bool m_bInit = false;
};
