#include "BusDaemon.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "SystemUser.h"

namespace {

constexpr int kBacklog = 128;
constexpr int kFirstPassedFd = 3;  // where a program looks for the sockets that it is handed
constexpr int kExecFailed = 127;

CPString ErrnoText(const CPString& strWhat) {
  return strWhat + ": " + std::strerror(errno);  // NOLINT(concurrency-mt-unsafe)
}

void CloseFd(int& iFd) {
  if (iFd >= 0)
    close(std::exchange(iFd, -1));
}

// Of the child between fork and exec: only calls that are safe there. Everything is prepared before.
struct _ChildPlan {
  const char* pszProgram;
  const char* const* ppszArgv;
  char* const* ppszEnv;
  char* pszListenPid;  // digits are written here: the child's own pid
  int iListenFd;
  int iOutputFd;
  int iErrorFd;  // errno of a failed step goes here; closed by exec
  pid_t iParent;
  bool bChangeUser;
  uid_t uid;
  gid_t gid;
};

void WriteNumber(char* psz, pid_t iNumber) {
  char digits[16];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + iNumber % 10);
    iNumber /= 10;
  } while (iNumber != 0);
  while (n > 0)
    *psz++ = digits[--n];
  *psz = '\0';
}

bool BecomeUser(const _ChildPlan& plan) {
  if (!plan.bChangeUser)
    return true;
  return setgroups(0, nullptr) == 0 && setresgid(plan.gid, plan.gid, plan.gid) == 0 &&
         setresuid(plan.uid, plan.uid, plan.uid) == 0;
}

// Descriptors 0 to 3 as the daemon wants them. The sources were made at 4 or above.
bool PlaceDescriptors(const _ChildPlan& plan) {
  const int iNull = open("/dev/null", O_RDWR | O_CLOEXEC);
  return iNull >= 0 && dup2(iNull, 0) == 0 && dup2(iNull, 1) == 1 && dup2(plan.iOutputFd, 2) == 2 &&
         dup2(plan.iListenFd, kFirstPassedFd) == kFirstPassedFd;
}

[[noreturn]] void RunChild(const _ChildPlan& plan) {
  for (const int iSignal : {SIGPIPE, SIGTERM, SIGINT, SIGHUP})
    signal(iSignal, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  WriteNumber(plan.pszListenPid, getpid());
  // The change of user clears the death signal, so it comes first; the parent may have died by then.
  if (BecomeUser(plan) && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && PlaceDescriptors(plan)) {
    if (getppid() != plan.iParent)
      _exit(kExecFailed);
    execve(plan.pszProgram, const_cast<char* const*>(plan.ppszArgv), plan.ppszEnv);
  }
  const int iError = errno;
  (void)!write(plan.iErrorFd, &iError, sizeof(iError));
  _exit(kExecFailed);
}

// A descriptor at or above 4, so that placing 0 to 3 in the child overwrites none of them.
int Lift(int iFd) {
  if (iFd < 0 || iFd > kFirstPassedFd)
    return iFd;
  const int iHigh = fcntl(iFd, F_DUPFD_CLOEXEC, kFirstPassedFd + 1);
  close(iFd);
  return iHigh;
}

// A socket left over from a crash refuses.
bool IsServed(const sockaddr_un& addr) {
  const int iFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const bool bServed =
      iFd >= 0 &&
      (connect(iFd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0 || errno == EAGAIN);
  if (iFd >= 0)
    close(iFd);
  return bServed;
}

}  // namespace

CBusDaemon::CBusDaemon(_BusDaemonSettings settings) : m_settings(std::move(settings)) {}

CBusDaemon::~CBusDaemon() {
  Stop(0);
  CloseFd(m_iOutputFd);
  Unlisten();
}

bool CBusDaemon::Listen(CPString& strError) {
  struct stat st {};
  if (m_iListenFd >= 0 && lstat(m_settings.strSocket.c_str(), &st) == 0 && S_ISSOCK(st.st_mode))
    return true;
  CloseFd(m_iListenFd);  // somebody removed the file
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (m_settings.strSocket.GetLength() > kMaxSocketPath) {
    strError = "the socket's path is too long: " + m_settings.strSocket;
    return false;
  }
  std::memcpy(addr.sun_path, m_settings.strSocket.data(), m_settings.strSocket.GetLength());
  if (lstat(addr.sun_path, &st) == 0 && S_ISSOCK(st.st_mode)) {
    if (IsServed(addr)) {
      strError = "another process listens on " + m_settings.strSocket;
      return false;
    }
    unlink(addr.sun_path);
  }
  const int iFd = Lift(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (iFd < 0 || bind(iFd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 ||
      chmod(addr.sun_path, 0666) != 0 || listen(iFd, kBacklog) != 0) {
    strError = ErrnoText(m_settings.strSocket);
    if (iFd >= 0)
      close(iFd);
    return false;
  }
  m_iListenFd = iFd;
  return true;
}

void CBusDaemon::Unlisten() {
  if (m_iListenFd < 0)
    return;
  unlink(m_settings.strSocket.c_str());
  CloseFd(m_iListenFd);
}

bool CBusDaemon::Start(CPString& strError) {
  uid_t uid = 0;
  gid_t gid = 0;
  const bool bChangeUser = !m_settings.strUser.IsEmpty();
  if (bChangeUser && !FindSystemUser(m_settings.strUser, uid, gid)) {
    strError = "user " + m_settings.strUser + " does not exist";
    return false;
  }
  if (access(m_settings.strProgram.c_str(), X_OK) != 0) {
    strError = ErrnoText(m_settings.strProgram);
    return false;
  }
  int output[2];
  int error[2];
  if (pipe2(output, O_CLOEXEC) != 0) {
    strError = ErrnoText("pipe");
    return false;
  }
  if (pipe2(error, O_CLOEXEC) != 0) {
    strError = ErrnoText("pipe");
    close(output[0]);
    close(output[1]);
    return false;
  }
  for (int* pFd : {&output[0], &output[1], &error[0], &error[1]})
    *pFd = Lift(*pFd);
  fcntl(output[0], F_SETFL, O_NONBLOCK);

  const std::string strConfig = "--config-file=" + m_settings.strConfig.Str();
  const char* const argv[] = {"dbus-daemon", strConfig.c_str(), "--nofork",
                              "--nopidfile", "--nosyslog",      nullptr};
  char szListenPid[32] = "LISTEN_PID=";
  char szListenFds[] = "LISTEN_FDS=1";
  char szPath[] = "PATH=/usr/bin:/bin";
  char* const env[] = {szListenFds, szListenPid, szPath, nullptr};
  const _ChildPlan plan{m_settings.strProgram.c_str(),
                        argv,
                        env,
                        szListenPid + std::strlen(szListenPid),
                        m_iListenFd,
                        output[1],
                        error[1],
                        getpid(),
                        bChangeUser && uid != geteuid(),
                        uid,
                        gid};
  const pid_t iPid = fork();
  if (iPid == 0)
    RunChild(plan);
  int iError = iPid < 0 ? errno : 0;
  close(output[1]);
  close(error[1]);
  // Exec closes the child's end, so this read ends in any case.
  if (iPid > 0 && read(error[0], &iError, sizeof(iError)) != sizeof(iError))
    iError = 0;
  close(error[0]);
  if (iError != 0) {
    errno = iError;
    strError = ErrnoText(m_settings.strProgram);
    if (iPid > 0)
      waitpid(iPid, nullptr, 0);
    close(output[0]);
    return false;
  }
  m_iPid = iPid;
  m_iPidFd = static_cast<int>(syscall(SYS_pidfd_open, iPid, 0));
  CloseFd(m_iOutputFd);
  m_iOutputFd = output[0];
  return true;
}

bool CBusDaemon::Reap(CPString& strHow) {
  int iStatus = 0;
  if (m_iPid <= 0 || waitpid(m_iPid, &iStatus, WNOHANG) != m_iPid)
    return false;
  strHow = WIFSIGNALED(iStatus) ? CPString::Make("signal %d", WTERMSIG(iStatus))
                                : CPString::Make("exit %d", WEXITSTATUS(iStatus));
  m_iPid = -1;
  CloseFd(m_iPidFd);
  return true;
}

std::string CBusDaemon::ReadOutput() {
  char buffer[4096];
  if (m_iOutputFd < 0)
    return {};
  const ssize_t iRead = read(m_iOutputFd, buffer, sizeof(buffer));
  if (iRead == 0 || (iRead < 0 && errno != EAGAIN && errno != EINTR))
    CloseFd(m_iOutputFd);
  return iRead > 0 ? std::string(buffer, static_cast<size_t>(iRead)) : std::string();
}

void CBusDaemon::Stop(uint32_t uiGraceMs) {
  if (m_iPid <= 0)
    return;
  kill(m_iPid, uiGraceMs != 0 ? SIGTERM : SIGKILL);
  pollfd fd{m_iPidFd, POLLIN, 0};
  if (uiGraceMs != 0 && (m_iPidFd < 0 || poll(&fd, 1, static_cast<int>(uiGraceMs)) <= 0))
    kill(m_iPid, SIGKILL);
  waitpid(m_iPid, nullptr, 0);
  m_iPid = -1;
  CloseFd(m_iPidFd);
}
