// A child process that talks in lines over its standard streams. Killed and reaped when the object goes.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <csignal>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class CChild {
 public:
  // uid 0: the test's own. The child dies with the test.
  explicit CChild(const std::vector<std::string>& args, uid_t uid = 0);
  ~CChild();
  CChild(const CChild&) = delete;
  CChild& operator=(const CChild&) = delete;

  void Tell(const std::string& strLine);
  // Waits for the next line, in order, for which fn is true; lines before it stay. False: deadline or end.
  bool WaitLine(const std::function<bool(const std::string&)>& fn, uint32_t dwMs = 20000);
  bool WaitFor(const std::string& strPrefix, uint32_t dwMs = 20000);
  std::vector<std::string> Lines();
  size_t Count(const std::string& strPrefix);
  void Signal(int iSignal) const { kill(m_pid, iSignal); }
  void Stop() const;  // returns once it has stopped
  int Wait();         // status of waitpid
  void CloseInput();
  bool HasEnded();  // closed its output
  pid_t Pid() const { return m_pid; }

 private:
  void Read();

  pid_t m_pid = -1;
  int m_iIn = -1;
  int m_iOut = -1;
  std::mutex m_mutex;
  std::condition_variable m_cond;
  std::vector<std::string> m_lines;
  bool m_bEnd = false;
  std::thread m_reader;
};
