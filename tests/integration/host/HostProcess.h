// zxhost as a process on a home of its own, with fake plug-ins that record what is done to them.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/TempHome.h"

class CHostProcess {
 public:
  CHostProcess();
  ~CHostProcess();  // kills what still runs
  CHostProcess(const CHostProcess&) = delete;
  CHostProcess& operator=(const CHostProcess&) = delete;

  CTempHome& Home() { return m_home; }
  // Installs a copy of the fake plug-in as lib/plugins/<name>.so and adds it to the configuration.
  void AddPlugin(const std::string& strName, const std::string& strBehaviour);
  void AddEntry(const std::string& strJson) { m_entries.push_back(strJson); }
  void SetStopTimeout(int iSeconds) { m_iStopTimeoutSec = iSeconds; }
  void SetBus(const std::string& strJson) { m_strBus = strJson; }  // the member "bus"
  void SetEnvironment(const std::string& strPair) { m_environment.push_back(strPair); }

  void WriteConfig();
  // Writes the configuration and starts the program; the home is given by --home.
  void Start(std::vector<std::string> arguments = {});
  // Once more on the same home, after the process has ended.
  void Restart();
  bool WaitRunning();  // until the host has said so in its log
  void Signal(int iSignal) const;
  int WaitExit();  // exit code, or 1000 + signal; -1 when it did not end in time
  bool IsRunning();
  pid_t Pid() const { return m_iPid; }

  std::vector<std::string> Calls() const;  // lines of calls.log
  bool WaitCall(const std::string& strLine) const;
  std::string HostLog() const;
  std::string Stderr() const;

 private:
  CTempHome m_home;
  std::vector<std::string> m_entries;
  std::vector<std::string> m_environment;
  std::string m_strBus;
  int m_iStopTimeoutSec = 0;
  pid_t m_iPid = -1;
  int m_iExit = -1;
};
