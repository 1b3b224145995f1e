// bin/zxlogcache as a process on a real D-Bus daemon, killed again and again while it takes and forwards:
// what it answered with "ok" must reach the agent, which the test plays.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <mutex>
#include <set>
#include <thread>

#include "platform/bus/zxbus.h"
#include "support/TempHome.h"
#include "support/Waiter.h"

namespace {

constexpr char kAgent[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";
constexpr char kForwarder[] = "9946467F-0102-46E8-ACAC-B9EFE3CD68FD";
constexpr uint32_t kDeadlineMs = 60000;

class CChild {
 public:
  ~CChild() { End(SIGKILL); }
  void Start(const std::vector<std::string>& arguments, const std::string& strOutput) {
    m_pid = fork();
    if (m_pid != 0)
      return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::vector<char*> argv;
    for (const std::string& strArgument : arguments)
      argv.push_back(const_cast<char*>(strArgument.c_str()));
    argv.push_back(nullptr);
    if (std::freopen(strOutput.c_str(), "a", stderr) != nullptr)
      execvp(argv[0], argv.data());
    _exit(127);
  }
  int End(int iSignal) {
    if (m_pid <= 0)
      return 0;
    int iStatus = 0;
    kill(m_pid, iSignal);
    waitpid(m_pid, &iStatus, 0);
    m_pid = -1;
    return iStatus;
  }

 private:
  pid_t m_pid = -1;
};

// Takes log caches and reports them as uploaded.
class CAgent : public IMRReceiveComplete {
 public:
  CAgent() : m_pBus(ZxBusCreateContext()) {
    const GUID guid(kAgent);
    EXPECT_EQ(m_pBus->Initialize(&guid), 0u);
    EXPECT_EQ(m_pBus->Receive(20002, this), 0u);
  }
  ~CAgent() override {
    m_pBus->Uninitialize();
    ZxBusDestroyContext(m_pBus);
  }
  CAgent(const CAgent&) = delete;
  CAgent& operator=(const CAgent&) = delete;

  size_t Have(const std::set<std::string>& lines) {
    const std::lock_guard lock(m_mutex);
    size_t uCount = 0;
    for (const std::string& strLine : lines)
      uCount += m_lines.count(strLine);
    return uCount;
  }

 private:
  void ReceiveCallback(const GUID& from, long i64MsgType, const unsigned char* pData, unsigned int uiLength,
                       void* pBaton, void* pContext) override {
    const std::string strText(reinterpret_cast<const char*>(pData), uiLength);
    EXPECT_EQ(from, GUID(kForwarder));
    const uint64_t u64DataId = std::stoull(strText.substr(strText.find("<dataid=") + 8), nullptr, 16);
    {
      const std::lock_guard lock(m_mutex);
      size_t uAt = strText.find("<end=1><msg=") + 12;
      for (size_t uEnd = strText.find('\n', uAt); uEnd != std::string::npos; uEnd = strText.find('\n', uAt)) {
        m_lines.insert(strText.substr(uAt, uEnd - uAt));
        uAt = uEnd + 1;
      }
    }
    IBusContext* pBus = static_cast<IBusContext*>(pContext);
    pBus->Reply(0, i64MsgType, "agent_reply_okok", 16, pBaton);
    char record[32] = {};
    std::memcpy(record + 8, &u64DataId, sizeof(u64DataId));
    const GUID guid(kForwarder);
    pBus->AsynSendEx(&guid, 20003, record, sizeof(record), nullptr, nullptr, nullptr, 20000);
  }

  IBusContext* m_pBus;
  std::mutex m_mutex;
  std::set<std::string> m_lines;
};

class ForwarderProcess : public testing::Test {
 protected:
  ForwarderProcess() {
    m_home.WriteFile("etc/zxlogcache.json",
                     R"({"sources":[{"name":"app","product":"p","combo":"c","body":"lines",
      "sockets":[{"path":"in.sock","ack":true}]}],"batch":{"linger_ms":10,"max_bytes":4096},
      "retry_min_ms":20,"retry_max_ms":200})");
    m_home.MakeDir("run");
    m_home.WriteFile(
        "bus.conf",
        CPString(R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>custom</type><listen>)" +
                 Address() + R"(</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*"/><allow send_type="signal"/>
<allow receive_type="method_call"/><allow receive_type="method_return"/><allow receive_type="error"/>
<allow receive_type="signal"/></policy></busconfig>)"));
    StartDaemon();
    ZxBusConnectSettings settings;
    settings.pszAddress = m_strAddress.c_str();
    EXPECT_TRUE(EventuallyTrue(
        [&] {
          const uint32_t uiRet = ZxBusConnect(&settings);
          if (uiRet != 0)
            ZxBusDisconnect();
          return uiRet == 0;
        },
        kDeadlineMs));
  }
  ~ForwarderProcess() override { ZxBusDisconnect(); }

  std::string Address() const { return "unix:path=" + m_home.Path("run/bus").Str(); }
  void StartDaemon() {
    m_daemon.Start({"dbus-daemon", "--config-file=" + m_home.Path("bus.conf").Str(), "--nofork",
                    "--nopidfile", "--nosyslog"},
                   m_home.Path("daemon.out").Str());
  }
  void StartForwarder() {
    m_forwarder.Start({ZX_LOGCACHE_PROGRAM, "--home", m_home.Root().Str(), "--bus", m_strAddress},
                      m_home.Path("forwarder.out").Str());
  }
  int Connect() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    m_home.Path("data/zxlogcache/in.sock").Str().copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int hFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_TRUE(EventuallyTrue(
        [&] { return connect(hFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0; },
        kDeadlineMs));
    return hFd;
  }
  // Sends lines until uCount of them have been answered for; those are added to m_kept.
  void Feed(const std::string& strPrefix, size_t uCount) {
    const int hFd = Connect();
    timeval wait{20, 0};
    setsockopt(hFd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
    std::string strAnswers;
    size_t uOk = 0;
    for (size_t uSent = 0; uOk < uCount;) {
      for (size_t u = 0; u < 10; ++u, ++uSent) {
        const std::string strLine = strPrefix + std::to_string(uSent) + "\n";
        ASSERT_EQ(send(hFd, strLine.data(), strLine.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(strLine.size()));
      }
      char buffer[256];
      const ssize_t iBytes = recv(hFd, buffer, sizeof(buffer), 0);
      ASSERT_GT(iBytes, 0);
      strAnswers.append(buffer, static_cast<size_t>(iBytes));
      const size_t uEnd = strAnswers.rfind('\n');
      const size_t uLast = uEnd == std::string::npos ? std::string::npos : strAnswers.rfind("ok ", uEnd);
      if (uLast != std::string::npos)
        uOk = std::stoul(strAnswers.substr(uLast + 3));
    }
    for (size_t u = 0; u < uOk; ++u)
      m_kept.insert(strPrefix + std::to_string(u));
    m_forwarder.End(SIGKILL);  // with answers and log caches under way
    close(hFd);
  }

  CTempHome m_home;
  const std::string m_strAddress = Address();
  CChild m_daemon;
  CChild m_forwarder;
  std::set<std::string> m_kept;
};

TEST_F(ForwarderProcess, Killed_LosesNothingThatItAnsweredFor) {
  for (int iRound = 0; iRound < 3; ++iRound) {
    StartForwarder();
    ASSERT_NO_FATAL_FAILURE(Feed("without-agent-" + std::to_string(iRound) + "-", 30));
  }
  CAgent agent;
  for (int iRound = 0; iRound < 5; ++iRound) {
    StartForwarder();
    ASSERT_NO_FATAL_FAILURE(Feed("with-agent-" + std::to_string(iRound) + "-", 30));
  }
  EXPECT_GE(m_kept.size(), 240u);
  StartForwarder();
  EXPECT_TRUE(EventuallyTrue([&] { return agent.Have(m_kept) == m_kept.size(); }, kDeadlineMs))
      << agent.Have(m_kept) << " of " << m_kept.size();
  close(Connect());  // it is up: before that a signal just ends it
  EXPECT_EQ(m_forwarder.End(SIGTERM), 0) << "an orderly end";
}

TEST_F(ForwarderProcess, BusThatIsStartedLater_IsJoined) {
  ZxBusDisconnect();
  m_daemon.End(SIGKILL);
  StartForwarder();
  {
    const int hFd = Connect();
    ASSERT_EQ(send(hFd, "early\n", 6, MSG_NOSIGNAL), 6);
    shutdown(hFd, SHUT_WR);
    char buffer[64];
    EXPECT_GT(recv(hFd, buffer, sizeof(buffer), 0), 0);
    close(hFd);
  }
  StartDaemon();
  ZxBusConnectSettings settings;
  settings.pszAddress = m_strAddress.c_str();
  ZxBusConnect(&settings);  // goes on by itself when it is too early
  CAgent agent;
  EXPECT_TRUE(EventuallyTrue([&] { return agent.Have({"early"}) == 1; }, kDeadlineMs));
  EXPECT_EQ(m_forwarder.End(SIGTERM), 0);
}

}  // namespace
