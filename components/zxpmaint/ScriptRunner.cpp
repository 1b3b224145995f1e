#include "zxpmaint/ScriptRunner.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/os/ZxFile.h"
#include "platform/os/ZxTime.h"

namespace {

constexpr uint64_t kDrainMs = 1000;  // for output that is still in the pipes when the script is gone
constexpr uint64_t kLookMs = 100;    // how often a script is looked at when the kernel gives no handle on it
constexpr int kStartFailed = 127;

class CFd {
 public:
  CFd() = default;
  explicit CFd(int iFd) : m_iFd(iFd) {}
  ~CFd() { Close(); }
  CFd(CFd&& other) noexcept : m_iFd(other.Release()) {}
  CFd& operator=(CFd&& other) noexcept {
    Close();
    m_iFd = other.Release();
    return *this;
  }
  int Get() const { return m_iFd; }
  int Release() {
    const int iFd = m_iFd;
    m_iFd = -1;
    return iFd;
  }
  void Close() {
    if (m_iFd >= 0)
      close(m_iFd);
    m_iFd = -1;
  }

 private:
  int m_iFd = -1;
};

struct CPipe {
  CFd read;
  CFd write;
  bool Open() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
      return false;
    read = CFd(fds[0]);
    write = CFd(fds[1]);
    return true;
  }
};

// In the child between fork and exec: async-signal-safe calls only.
[[noreturn]] void Exec(const char* pszWorkDir, char* const* argv, char* const* envp, int iStdout, int iStderr,
                       int iError) {
  setpgid(0, 0);
  for (int iSignal = 1; iSignal < NSIG; ++iSignal)
    signal(iSignal, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  close_range(3, UINT_MAX, CLOSE_RANGE_CLOEXEC);  // whoever started us may have left files open
  const int iNull = open("/dev/null", O_RDONLY);
  if (chdir(pszWorkDir) == 0 && dup2(iNull, 0) == 0 && dup2(iStdout, 1) == 1 && dup2(iStderr, 2) == 2)
    execve(argv[0], argv, envp);
  const int iErrno = errno;
  (void)!write(iError, &iErrno, sizeof(iErrno));
  _exit(kStartFailed);
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& str : texts)
    pointers.push_back(str.data());
  pointers.push_back(nullptr);
  return pointers;
}

void Append(std::string& strOut, const char* pData, size_t uLength, size_t uMax, bool& bTruncated) {
  const size_t uRoom = strOut.size() < uMax ? uMax - strOut.size() : 0;
  strOut.append(pData, std::min(uLength, uRoom));
  bTruncated = bTruncated || uLength > uRoom;
}

// Reads what is there; false at the end of the stream.
bool ReadSome(int iFd, std::string& strOut, size_t uMax, bool& bTruncated) {
  char buffer[16384];
  const ssize_t iRead = read(iFd, buffer, sizeof(buffer));
  if (iRead > 0)
    Append(strOut, buffer, static_cast<size_t>(iRead), uMax, bTruncated);
  return iRead > 0 || (iRead < 0 && (errno == EINTR || errno == EAGAIN));
}

// The script's process while it runs; its exit stays to be taken, so that its number cannot go to another.
class CRunning {
 public:
  explicit CRunning(pid_t pid) : m_pid(pid), m_fd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}
  bool Ended() const {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == m_pid;
  }
  int Fd() const { return m_fd.Get(); }  // readable when it ended; -1: unknown

 private:
  pid_t m_pid;
  CFd m_fd;
};

// Collects output until both streams end, the deadline passes, or the script (may be null) ends. Others may
// hold the streams open for longer than the script lives, and a script may close them and run on.
void Collect(CPipe& out, CPipe& err, const CScript& script, const CRunning* pRunning, uint64_t u64Deadline,
             CScriptResult& result) {
  for (;;) {
    const uint64_t u64Now = ZxGetTickCount();
    const bool bStreams = out.read.Get() >= 0 || err.read.Get() >= 0;
    if (u64Now >= u64Deadline || (pRunning != nullptr ? pRunning->Ended() : !bStreams))
      return;
    const int iRunning = pRunning != nullptr ? pRunning->Fd() : -1;
    const uint64_t u64Wait =
        pRunning != nullptr && iRunning < 0 ? std::min(u64Deadline - u64Now, kLookMs) : u64Deadline - u64Now;
    pollfd fds[3] = {{out.read.Get(), POLLIN, 0}, {err.read.Get(), POLLIN, 0}, {iRunning, POLLIN, 0}};
    if (poll(fds, 3, static_cast<int>(std::min<uint64_t>(u64Wait, INT_MAX))) <= 0)
      continue;
    if (fds[0].revents != 0 &&
        !ReadSome(out.read.Get(), result.strStdout, script.uMaxOutputBytes, result.bTruncated))
      out.read.Close();
    if (fds[1].revents != 0 &&
        !ReadSome(err.read.Get(), result.strStderr, script.uMaxOutputBytes, result.bTruncated))
      err.read.Close();
  }
}

// Descendants that left the group become our children (we are their reaper): found by their parent in /proc.
void KillOrphans() {
  DIR* pDir = opendir("/proc");
  if (pDir == nullptr)
    return;
  while (const dirent* pEntry = readdir(pDir)) {  // NOLINT(concurrency-mt-unsafe) one reader per stream
    const pid_t pid = static_cast<pid_t>(std::strtol(pEntry->d_name, nullptr, 10));
    CPString strStat;
    if (pid <= 0 || !ZxReadFileText(CPString("/proc/") + pEntry->d_name + "/stat", strStat))
      continue;
    const size_t uName = strStat.ReverseFind(')');  // the name may hold anything
    char chState = 0;
    int iParent = 0;
    if (uName != CPString::npos &&
        std::sscanf(strStat.c_str() + uName + 1, " %c %d", &chState, &iParent) == 2 && iParent == getpid())
      kill(pid, SIGKILL);
  }
  closedir(pDir);
}

// Ends whatever is left of the script; the exit status of its first process. Each round ends the children we
// have; theirs become ours with their death, before we see it.
int EndGroup(pid_t pid) {
  int iStatus = 0;
  kill(-pid, SIGKILL);
  for (;;) {
    KillOrphans();
    int iOther = 0;
    const pid_t done = waitpid(-1, &iOther, 0);
    if (done == pid)
      iStatus = iOther;
    if (done < 0 && errno != EINTR)
      return iStatus;  // no child is left
  }
}

bool WriteScript(const CScript& script, const std::string& strFile) {
  return ZxSaveFileData(strFile, CPString(script.strText), true);
}

CScriptResult Failed(int iError) {
  CScriptResult result;
  result.iError = iError;
  return result;
}

}  // namespace

CScriptResult RunScript(const CScript& script, const std::string& strWorkDir) {
  const std::string strFile = strWorkDir + "/script";
  if (!WriteScript(script, strFile))
    return Failed(errno);
  std::vector<std::string> argTexts{script.strInterpreter, strFile};
  argTexts.insert(argTexts.end(), script.args.begin(), script.args.end());
  std::vector<std::string> envTexts{"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                                    "HOME=" + strWorkDir, "LANG=C.UTF-8"};
  const std::vector<char*> argv = Pointers(argTexts);
  const std::vector<char*> envp = Pointers(envTexts);
  CPipe out;
  CPipe err;
  CPipe failure;
  if (!out.Open() || !err.Open() || !failure.Open())
    return Failed(errno);
  prctl(PR_SET_CHILD_SUBREAPER, 1);

  const uint64_t u64Start = ZxGetTickCount();
  const pid_t pid = fork();
  if (pid < 0)
    return Failed(errno);
  if (pid == 0)
    Exec(strWorkDir.c_str(), argv.data(), envp.data(), out.write.Get(), err.write.Get(), failure.write.Get());
  setpgid(pid, pid);  // in both, so that it holds whoever runs first
  out.write.Close();
  err.write.Close();
  failure.write.Close();

  CScriptResult result;
  int iError = 0;
  const bool bStarted =
      read(failure.read.Get(), &iError, sizeof(iError)) != static_cast<ssize_t>(sizeof(iError));
  const CRunning running(pid);
  Collect(out, err, script, &running, u64Start + script.uTimeoutMs, result);
  const bool bTimeout = !running.Ended();
  const int iStatus = EndGroup(pid);
  Collect(out, err, script, nullptr, ZxGetTickCount() + kDrainMs, result);
  result.u64DurationMs = ZxGetTickCount() - u64Start;
  if (!bStarted) {
    result.iError = iError;
    return result;
  }
  result.eState = bTimeout ? CScriptResult::EState::Timeout : CScriptResult::EState::Done;
  if (WIFEXITED(iStatus))
    result.iExitCode = WEXITSTATUS(iStatus);
  if (WIFSIGNALED(iStatus))
    result.iSignal = WTERMSIG(iStatus);
  return result;
}
