#include "Child.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "support/Argv.h"

CChild::CChild(const std::vector<std::string>& args, uid_t uid) {
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
    std::abort();
  const std::vector<char*> argv = ArgvOf(args);
  m_pid = fork();
  if (m_pid == 0) {
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    if (uid != 0 && (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0))
      _exit(126);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  m_iIn = in[1];
  m_iOut = out[0];
  m_reader = std::thread([this] { Read(); });
}

CChild::~CChild() {
  if (m_pid > 0) {
    kill(m_pid, SIGKILL);
    Wait();
  }
  CloseInput();
  m_reader.join();
  close(m_iOut);
}

void CChild::Tell(const std::string& strLine) {
  const std::string str = strLine + "\n";
  if (write(m_iIn, str.data(), str.size()) != static_cast<ssize_t>(str.size()))
    std::perror("child input");
}

void CChild::CloseInput() {
  if (m_iIn >= 0)
    close(m_iIn);
  m_iIn = -1;
}

bool CChild::WaitLine(const std::function<bool(const std::string&)>& fn, uint32_t dwMs) {
  const auto due = std::chrono::steady_clock::now() + std::chrono::milliseconds(dwMs);
  std::unique_lock lock(m_mutex);
  for (size_t uNext = 0;;) {
    for (; uNext < m_lines.size(); ++uNext) {
      if (fn(m_lines[uNext]))
        return true;
    }
    if (m_bEnd || m_cond.wait_until(lock, due) == std::cv_status::timeout)
      return false;
  }
}

bool CChild::WaitFor(const std::string& strPrefix, uint32_t dwMs) {
  return WaitLine([&](const std::string& str) { return str.rfind(strPrefix, 0) == 0; }, dwMs);
}

std::vector<std::string> CChild::Lines() {
  const std::lock_guard lock(m_mutex);
  return m_lines;
}

bool CChild::HasEnded() {
  const std::lock_guard lock(m_mutex);
  return m_bEnd;
}

size_t CChild::Count(const std::string& strPrefix) {
  const std::lock_guard lock(m_mutex);
  size_t uCount = 0;
  for (const auto& str : m_lines)
    uCount += str.rfind(strPrefix, 0) == 0 ? 1 : 0;
  return uCount;
}

void CChild::Stop() const {
  int iStatus = 0;
  kill(m_pid, SIGSTOP);
  waitpid(m_pid, &iStatus, WUNTRACED);
}

int CChild::Wait() {
  int iStatus = -1;
  if (m_pid > 0)
    waitpid(m_pid, &iStatus, 0);
  m_pid = -1;
  return iStatus;
}

void CChild::Read() {
  std::string strRest;
  char buffer[4096];
  ssize_t iRead = 0;
  while ((iRead = read(m_iOut, buffer, sizeof(buffer))) > 0) {
    strRest.append(buffer, static_cast<size_t>(iRead));
    const std::lock_guard lock(m_mutex);
    size_t uEnd = 0;
    while ((uEnd = strRest.find('\n')) != std::string::npos) {
      m_lines.push_back(strRest.substr(0, uEnd));
      strRest.erase(0, uEnd + 1);
    }
    m_cond.notify_all();
  }
  const std::lock_guard lock(m_mutex);
  m_bEnd = true;
  m_cond.notify_all();
}
