// A child process of one test. Killed and reaped at the end of the scope.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "support/Waiter.h"

// Whole processes on a machine that compiles as well.
inline constexpr uint32_t kE2eDeadlineMs = 40000;
inline bool Eventually(const std::function<bool()>& fnCondition) {
  return EventuallyTrue(fnCondition, kE2eDeadlineMs);
}

class CProcess {
 public:
  CProcess() = default;
  ~CProcess();
  CProcess(const CProcess&) = delete;
  CProcess& operator=(const CProcess&) = delete;

  // Standard output and error go to strLogFile (appended). u64FileLimit not 0: no file of it grows beyond.
  bool Start(const std::vector<std::string>& listArgs, const std::string& strLogFile,
             uint64_t u64FileLimit = 0);
  bool Running();
  pid_t Pid() const { return m_iPid; }
  // Sends the signal and waits; the wait status, or -1 when it does not end in time (then it is killed).
  int Stop(int iSignal);

 private:
  pid_t m_iPid = -1;
};

// Runs a command to its end; its output in strOutput; the exit code, -1 when it did not exit.
int RunCommand(const std::vector<std::string>& listArgs, std::string& strOutput);
// A TCP port of 127.0.0.1 that was free a moment ago.
int FreePort();
bool PortAnswers(int iPort);

// A port of 127.0.0.1 whose queue of connections is full: who connects waits and hears nothing.
class CSilentPort {
 public:
  CSilentPort();
  ~CSilentPort();
  CSilentPort(const CSilentPort&) = delete;
  CSilentPort& operator=(const CSilentPort&) = delete;
  int Port() const { return m_iPort; }

 private:
  std::vector<int> m_listSockets;
  int m_iPort = 0;
};
// Connections to the port that are being made right now.
int PortAttempts(int iPort);
