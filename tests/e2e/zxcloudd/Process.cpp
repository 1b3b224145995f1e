#include "Process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "support/Waiter.h"

namespace {

// In the child: everything that must not allocate was prepared before.
[[noreturn]] void Exec(char* const* ppszArgs, int iOut, uint64_t u64FileLimit) {
  sigset_t setNone;
  sigemptyset(&setNone);
  sigprocmask(SIG_SETMASK, &setNone, nullptr);
  if (u64FileLimit != 0) {
    // Only the soft limit, so that the test can lift it again; a write beyond it is an error, not a signal.
    const rlimit limit{u64FileLimit, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
    signal(SIGXFSZ, SIG_IGN);
  }
  dup2(iOut, STDOUT_FILENO);
  dup2(iOut, STDERR_FILENO);
  execvp(ppszArgs[0], ppszArgs);
  _exit(127);
}

pid_t Spawn(const std::vector<std::string>& listArgs, int iOut, uint64_t u64FileLimit) {
  std::vector<char*> listPointers;
  for (const std::string& str : listArgs)
    listPointers.push_back(const_cast<char*>(str.c_str()));
  listPointers.push_back(nullptr);
  const pid_t iPid = fork();
  if (iPid == 0)
    Exec(listPointers.data(), iOut, u64FileLimit);
  return iPid;
}

sockaddr_in Loopback(int iPort) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(iPort));
  return address;
}

}  // namespace

CProcess::~CProcess() {
  Stop(SIGKILL);
}

bool CProcess::Start(const std::vector<std::string>& listArgs, const std::string& strLogFile,
                     uint64_t u64FileLimit) {
  const int iOut = open(strLogFile.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
  if (iOut < 0)
    return false;
  m_iPid = Spawn(listArgs, iOut, u64FileLimit);
  close(iOut);
  return m_iPid > 0;
}

bool CProcess::Running() {
  if (m_iPid > 0 && waitpid(m_iPid, nullptr, WNOHANG) == m_iPid)
    m_iPid = -1;
  return m_iPid > 0;
}

int CProcess::Stop(int iSignal) {
  if (m_iPid <= 0)
    return -1;
  int iStatus = -1;
  kill(m_iPid, iSignal);
  if (!EventuallyTrue([&] { return waitpid(m_iPid, &iStatus, WNOHANG) == m_iPid; }, kE2eDeadlineMs)) {
    kill(m_iPid, SIGKILL);
    waitpid(m_iPid, nullptr, 0);
    iStatus = -1;
  }
  m_iPid = -1;
  return iStatus;
}

int RunCommand(const std::vector<std::string>& listArgs, std::string& strOutput) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0)
    return -1;
  const pid_t iPid = Spawn(listArgs, fds[1], 0);
  close(fds[1]);
  char buffer[4096];
  for (ssize_t iGot = 0; (iGot = read(fds[0], buffer, sizeof(buffer))) > 0;)
    strOutput.append(buffer, static_cast<size_t>(iGot));
  close(fds[0]);
  int iStatus = 0;
  return waitpid(iPid, &iStatus, 0) == iPid && WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
}

int FreePort() {
  const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback(0);
  socklen_t uLength = sizeof(address);
  bind(iSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  getsockname(iSocket, reinterpret_cast<sockaddr*>(&address), &uLength);
  close(iSocket);
  return ntohs(address.sin_port);
}

CSilentPort::CSilentPort() {
  const int iListener = m_listSockets.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = Loopback(0);
  socklen_t uLength = sizeof(address);
  bind(iListener, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  getsockname(iListener, reinterpret_cast<sockaddr*>(&address), &uLength);
  // Not 0: the kernel would answer with cookies then, and reset whoever finds the queue full after all.
  listen(iListener, 1);
  m_iPort = ntohs(address.sin_port);
  for (int i = 0; i < 2; ++i) {  // it takes one more than the backlog says
    const int iSocket = m_listSockets.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    connect(iSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  }
  // For a listening socket the kernel gives the queue's length as "unacked", its bound as "sacked".
  EXPECT_TRUE(EventuallyTrue(
      [iListener] {
        tcp_info info{};
        socklen_t uSize = sizeof(info);
        return getsockopt(iListener, IPPROTO_TCP, TCP_INFO, &info, &uSize) == 0 &&
               info.tcpi_unacked > info.tcpi_sacked;
      },
      kE2eDeadlineMs));
}

CSilentPort::~CSilentPort() {
  for (const int iSocket : m_listSockets)
    close(iSocket);
}

int PortAttempts(int iPort) {
  std::ifstream file("/proc/net/tcp");
  std::string strLine;
  char szRemote[32];
  std::snprintf(szRemote, sizeof(szRemote), "0100007F:%04X 02 ", static_cast<unsigned>(iPort));
  int iCount = 0;
  while (std::getline(file, strLine))
    iCount += strLine.find(szRemote) != std::string::npos ? 1 : 0;
  return iCount;
}

bool PortAnswers(int iPort) {
  const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = Loopback(iPort);
  const bool bAnswers = connect(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  close(iSocket);
  return bAnswers;
}
