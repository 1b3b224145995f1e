#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "HostProcess.h"
#include "support/Waiter.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;

TEST(HostSignals, Interrupt_Stops) {
  CHostProcess host;
  host.AddPlugin("a", "ok");
  host.Start();
  ASSERT_TRUE(host.WaitRunning());
  host.Signal(SIGINT);
  EXPECT_EQ(host.WaitExit(), 0);
  EXPECT_THAT(host.Calls(), Contains("a UninitializePlugin"));
  EXPECT_THAT(host.HostLog(), HasSubstr("zxhost stopping why[SIGINT]"));
  EXPECT_THAT(host.HostLog(), HasSubstr("zxhost end code[0]"));
}

TEST(HostSignals, Hangup_IsLogged_AndNothingElse) {
  CHostProcess host;
  host.AddPlugin("a", "ok");
  host.Start();
  ASSERT_TRUE(host.WaitRunning());
  host.Signal(SIGHUP);
  EXPECT_TRUE(EventuallyTrue([&] { return host.HostLog().find("zxhost SIGHUP") != std::string::npos; }));
  EXPECT_TRUE(host.IsRunning());
  host.Signal(SIGTERM);
  EXPECT_EQ(host.WaitExit(), 0);
}

TEST(HostSignals, HangingStop_EndsTheHost_InTheTimeGiven) {
  CHostProcess host;
  host.AddPlugin("a", "ok");
  host.AddPlugin("b", "hang-Stop");
  host.SetStopTimeout(1);
  host.Start();
  ASSERT_TRUE(host.WaitRunning());
  const auto begin = std::chrono::steady_clock::now();
  host.Signal(SIGTERM);
  EXPECT_EQ(host.WaitExit(), 75);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(990));
  EXPECT_THAT(host.HostLog(), HasSubstr("**zxhost not stopped in time, exit now step[b Stop]"));
}

TEST(HostSignals, HangingUninitialize_EndsTheHost_Too) {
  CHostProcess host;
  host.AddPlugin("a", "hang-Uninitialize");
  host.SetStopTimeout(1);
  host.Start();
  ASSERT_TRUE(host.WaitRunning());
  host.Signal(SIGTERM);
  EXPECT_EQ(host.WaitExit(), 75);
  EXPECT_THAT(host.HostLog(), HasSubstr("step[a Uninitialize]"));
}

TEST(HostSignals, HangingStart_CanBeStopped) {
  CHostProcess host;
  host.AddPlugin("a", "hang-Start");
  host.SetStopTimeout(1);
  host.Start();
  ASSERT_TRUE(host.WaitCall("a Start"));
  host.Signal(SIGTERM);
  EXPECT_EQ(host.WaitExit(), 75);
  EXPECT_THAT(host.HostLog(), HasSubstr("step[a Start]"));
}

TEST(HostSignals, SecondInterrupt_EndsAtOnce) {
  CHostProcess host;
  host.AddPlugin("a", "hang-Stop");
  host.Start();
  ASSERT_TRUE(host.WaitRunning());
  host.Signal(SIGINT);
  ASSERT_TRUE(host.WaitCall("a Stop"));
  EXPECT_TRUE(host.IsRunning());
  host.Signal(SIGINT);
  EXPECT_EQ(host.WaitExit(), 130);
  EXPECT_THAT(host.HostLog(), HasSubstr("*zxhost second SIGINT, exit at once step[a Stop]"));
}

TEST(HostSignals, SecondTerminate_IsPatient) {
  CHostProcess host;
  host.AddPlugin("a", "hang-Stop");
  host.SetStopTimeout(1);
  host.Start();
  ASSERT_TRUE(host.WaitRunning());
  host.Signal(SIGTERM);
  ASSERT_TRUE(host.WaitCall("a Stop"));
  host.Signal(SIGTERM);
  EXPECT_EQ(host.WaitExit(), 75);
}

// A crash of a plug-in is a crash of the process: the service manager starts it again, and no lock stays.
TEST(HostSignals, CrashingPlugin_EndsTheProcess_AndTheNextStartWorks) {
  CHostProcess host;
  host.AddPlugin("a", "crash-Start");
  host.Start();
  EXPECT_EQ(host.WaitExit(), 1000 + SIGABRT);

  CHostProcess next;
  next.AddPlugin("a", "ok");
  next.Home().WriteFile("run/zxhost.lock", std::to_string(host.Pid()) + "\n");
  next.Start();
  EXPECT_TRUE(next.WaitRunning());
}

// The service manager's end of the notification socket.
class CNotifySocket {
 public:
  explicit CNotifySocket(CTempHome& home) : m_strPath(home.Path("notify.sock").Str()) {
    m_iFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, m_strPath.c_str(), sizeof(addr.sun_path) - 1);
    EXPECT_EQ(bind(m_iFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  }
  ~CNotifySocket() { close(m_iFd); }
  CNotifySocket(const CNotifySocket&) = delete;
  CNotifySocket& operator=(const CNotifySocket&) = delete;

  const std::string& Path() const { return m_strPath; }
  bool Wait(const std::string& strPart) {
    return EventuallyTrue([&] {
      char szBuffer[512];
      for (ssize_t iRead; (iRead = recv(m_iFd, szBuffer, sizeof(szBuffer), 0)) > 0;)
        m_strAll += std::string(szBuffer, static_cast<size_t>(iRead)) + "\n";
      return m_strAll.find(strPart) != std::string::npos;
    });
  }
  void Clear() { m_strAll.clear(); }
  const std::string& All() const { return m_strAll; }

 private:
  std::string m_strPath;
  std::string m_strAll;
  int m_iFd = -1;
};

TEST(HostNotify, ReadyAndStopping_AreTold) {
  CHostProcess host;
  CNotifySocket notify(host.Home());
  host.AddPlugin("a", "ok");
  host.SetEnvironment("NOTIFY_SOCKET=" + notify.Path());
  host.Start();
  EXPECT_TRUE(notify.Wait("READY=1\nSTATUS=1 plug-ins running"));
  host.Signal(SIGTERM);
  EXPECT_TRUE(notify.Wait("STOPPING=1"));
  EXPECT_EQ(host.WaitExit(), 0);
  EXPECT_THAT(notify.All(), Not(HasSubstr("WATCHDOG=1")));  // nobody asked for signs of life
}

TEST(HostNotify, NotReady_WhenNoPluginStarts) {
  CHostProcess host;
  CNotifySocket notify(host.Home());
  host.AddPlugin("a", "fail-Start");
  host.SetEnvironment("NOTIFY_SOCKET=" + notify.Path());
  host.Start();
  EXPECT_EQ(host.WaitExit(), 1);
  notify.Wait("");
  EXPECT_THAT(notify.All(), Not(HasSubstr("READY=1")));
}

TEST(HostNotify, SignsOfLife_ComeWhileThePluginsAnswer) {
  CHostProcess host;
  CNotifySocket notify(host.Home());
  host.AddPlugin("a", "ok");
  host.SetEnvironment("NOTIFY_SOCKET=" + notify.Path());
  host.SetEnvironment("WATCHDOG_USEC=20000");
  host.Start();
  EXPECT_TRUE(notify.Wait("WATCHDOG=1"));
  EXPECT_TRUE(host.WaitCall("a GetStatus"));
  notify.Clear();
  EXPECT_TRUE(notify.Wait("WATCHDOG=1"));
  host.Signal(SIGTERM);
  EXPECT_EQ(host.WaitExit(), 0);
}

TEST(HostNotify, NoSignOfLife_WhenAPluginHangs) {
  CHostProcess host;
  CNotifySocket notify(host.Home());
  host.AddPlugin("a", "hang-GetStatus");
  host.SetStopTimeout(1);
  host.SetEnvironment("NOTIFY_SOCKET=" + notify.Path());
  host.SetEnvironment("WATCHDOG_USEC=20000");
  host.Start();
  ASSERT_TRUE(notify.Wait("READY=1"));
  ASSERT_TRUE(host.WaitCall("a GetStatus"));
  host.Signal(SIGTERM);
  ASSERT_TRUE(notify.Wait("STOPPING=1"));
  const std::string strBefore = notify.All().substr(0, notify.All().find("STOPPING=1"));
  EXPECT_THAT(strBefore, Not(HasSubstr("WATCHDOG=1")));
  EXPECT_EQ(host.WaitExit(), 75);
}

}  // namespace
