// The bus daemon under the host: started, watched, started again, ended.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "BusPeer.h"
#include "HostProcess.h"
#include "support/Waiter.h"

namespace {

using testing::HasSubstr;
using testing::Not;

size_t Count(const std::string& strText, const std::string& strPart) {
  size_t uCount = 0;
  for (size_t u = 0; (u = strText.find(strPart, u)) != std::string::npos; u += strPart.size())
    ++uCount;
  return uCount;
}

class HostBus : public testing::Test {
 protected:
  HostBus() { m_host.AddPlugin("a", "ok"); }

  std::string Address() { return "unix:path=" + m_host.Home().Path("run/bus").Str(); }
  bool Start() {
    m_host.Start();
    return m_host.WaitRunning() && WaitStarts(1);
  }
  bool WaitLog(const std::string& strText) {
    return EventuallyTrue([&] { return m_host.HostLog().find(strText) != std::string::npos; });
  }
  bool WaitStarts(size_t uStarts) {
    return EventuallyTrue([&] { return Count(m_host.HostLog(), "zxhost bus daemon started") >= uStarts; });
  }
  // The last one that was started.
  pid_t DaemonPid() {
    const std::string strLog = m_host.HostLog();
    const std::string strMark = "zxhost bus daemon started pid[";
    const size_t uAt = strLog.rfind(strMark);
    return uAt == std::string::npos ? 0 : std::stoi(strLog.substr(uAt + strMark.size()));
  }
  static bool IsAlive(pid_t iPid) {
    std::ifstream stat("/proc/" + std::to_string(iPid) + "/stat");
    std::string strText((std::istreambuf_iterator<char>(stat)), {});
    return !strText.empty() && strText.find(") Z ") == std::string::npos;
  }
  std::string Connect() {
    return RunAs(kSelf, [this] { return CPeerBus(Address()).Connected(); });
  }

  CHostProcess m_host;
};

TEST_F(HostBus, Daemon_RunsWithTheHost_AndEndsWithIt) {
  ASSERT_TRUE(Start());
  EXPECT_EQ(Connect(), "ok");
  struct stat st {};
  ASSERT_EQ(stat(m_host.Home().Path("run").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0755u);
  ASSERT_EQ(stat(m_host.Home().Path("run/bus.conf").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  const pid_t iDaemon = DaemonPid();
  m_host.Signal(SIGTERM);
  EXPECT_EQ(m_host.WaitExit(), 0);
  EXPECT_FALSE(IsAlive(iDaemon));
  EXPECT_FALSE(m_host.Home().Exists("run/bus"));
  EXPECT_THAT(m_host.HostLog(), HasSubstr("zxhost bus end"));
}

TEST_F(HostBus, KilledDaemon_IsStartedAgain_OnTheSameSocket) {
  ASSERT_TRUE(Start());
  ASSERT_EQ(Connect(), "ok");
  for (size_t i = 2; i <= 4; ++i) {
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(kill(DaemonPid(), SIGKILL), 0);
    EXPECT_EQ(Connect(), "ok");  // waits in the socket until it is served again
    ASSERT_TRUE(WaitStarts(i));
    EXPECT_EQ(Connect(), "ok");
    std::printf("daemon killed: served again after %lld ms\n",
                static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                           std::chrono::steady_clock::now() - begin)
                                           .count()));
  }
  EXPECT_THAT(m_host.HostLog(), HasSubstr("*zxhost bus daemon ended"));
  EXPECT_THAT(m_host.HostLog(), HasSubstr("how[signal 9]"));
}

TEST_F(HostBus, KilledHost_TakesTheDaemonWithIt_AndTheNextOneRuns) {
  ASSERT_TRUE(Start());
  const pid_t iDaemon = DaemonPid();
  m_host.Signal(SIGKILL);
  EXPECT_EQ(m_host.WaitExit(), 1000 + SIGKILL);
  EXPECT_TRUE(EventuallyTrue([&] { return !IsAlive(iDaemon); }));
  EXPECT_TRUE(m_host.Home().Exists("run/bus"));  // left behind; must be in nobody's way
  m_host.Restart();
  ASSERT_TRUE(WaitStarts(2));
  EXPECT_EQ(Connect(), "ok");
}

TEST_F(HostBus, StoppedDaemon_DoesNotKeepTheHostFromEnding) {
  ASSERT_TRUE(Start());
  ASSERT_EQ(kill(DaemonPid(), SIGSTOP), 0);
  m_host.Signal(SIGTERM);
  EXPECT_EQ(m_host.WaitExit(), 0);
  EXPECT_FALSE(IsAlive(DaemonPid()));
}

TEST_F(HostBus, MissingDaemon_IsSaidOnce_AndUsedWhenItComes) {
  const std::string strProgram = m_host.Home().Path("dbus-daemon").Str();
  m_host.SetBus(R"({"daemon":")" + strProgram + "\"}");
  m_host.Start();
  ASSERT_TRUE(m_host.WaitRunning());  // the plug-ins do not wait for it
  ASSERT_TRUE(WaitLog("No such file or directory"));
  std::filesystem::create_symlink("/usr/bin/dbus-daemon", strProgram);
  ASSERT_TRUE(WaitStarts(1));
  EXPECT_EQ(Connect(), "ok");
  EXPECT_EQ(Count(m_host.HostLog(), "the daemon cannot be started"),
            1u + Count(m_host.HostLog(), "well again"))
      << m_host.HostLog();
}

TEST_F(HostBus, DaemonThatEndsAtOnce_IsTriedAgain_EverMoreRarely) {
  m_host.SetBus(R"({"daemon":"/bin/false"})");
  m_host.Start();
  ASSERT_TRUE(m_host.WaitRunning());
  ASSERT_TRUE(WaitLog("how[exit 1]"));
  ASSERT_TRUE(WaitStarts(4));
  EXPECT_THAT(m_host.HostLog(), HasSubstr("again_in_ms[50]"));
  EXPECT_THAT(m_host.HostLog(), HasSubstr("again_in_ms[200]"));
  m_host.Signal(SIGTERM);
  EXPECT_EQ(m_host.WaitExit(), 0);
}

TEST_F(HostBus, BusOfTheConfiguration_IsUsed_AndNoneStarted) {
  m_host.SetBus(R"({"address":"unix:path=/nonexistent/bus"})");
  m_host.Start();
  ASSERT_TRUE(m_host.WaitRunning());
  ASSERT_TRUE(WaitLog("zxhost bus begin with the bus of the configuration"));
  m_host.Signal(SIGTERM);
  EXPECT_EQ(m_host.WaitExit(), 0);
  EXPECT_THAT(m_host.HostLog(), Not(HasSubstr("daemon started")));
  EXPECT_FALSE(m_host.Home().Exists("run/bus"));
}

TEST_F(HostBus, SwitchedOff_ThereIsNone) {
  m_host.SetBus(R"({"enabled":false})");
  m_host.Start();
  ASSERT_TRUE(m_host.WaitRunning());
  ASSERT_TRUE(WaitLog("zxhost bus is off by configuration"));
  m_host.Signal(SIGTERM);
  EXPECT_EQ(m_host.WaitExit(), 0);
  EXPECT_FALSE(m_host.Home().Exists("run/bus"));
}

TEST_F(HostBus, RunDirectoryThatOthersCanWrite_IsNotUsed_UntilItIsRight) {
  m_host.Home().MakeDir("run", 0777);
  m_host.Start();
  ASSERT_TRUE(m_host.WaitRunning());
  ASSERT_TRUE(WaitLog("can be written by others"));
  EXPECT_FALSE(m_host.Home().Exists("run/bus"));
  ASSERT_EQ(chmod(m_host.Home().Path("run").c_str(), 0755), 0);
  ASSERT_TRUE(WaitStarts(1));
  EXPECT_EQ(Connect(), "ok");
}

TEST_F(HostBus, SocketPathThatIsTooLong_IsSaid) {
  const std::string strLong(120, 'x');
  m_host.SetBus(R"({"run_dir":")" + strLong + "\"}");
  m_host.Start();
  ASSERT_TRUE(m_host.WaitRunning());
  EXPECT_TRUE(WaitLog("the socket's path is too long"));
}

TEST_F(HostBus, WhatTheDaemonSays_IsInTheLog) {
  ASSERT_TRUE(Start());
  RunAs(kSelf, [this] { return CPeerBus(Address()).CallDaemon("org.freedesktop.DBus", "ReloadConfig"); });
  EXPECT_TRUE(WaitLog("Reloaded configuration"));
}

TEST_F(HostBus, DaemonThatFloodsItsOutput_DoesNotFloodTheLog) {
  m_host.Home().WriteFile(
      "chatter",
      "#!/bin/sh\ni=0; while [ $i -lt 5000 ]; do echo line $i >&2; i=$((i+1)); done\nread x < " +
          m_host.Home().Path("pipe") + "\n",
      0755);
  ASSERT_EQ(mkfifo(m_host.Home().Path("pipe").c_str(), 0600), 0);
  m_host.SetBus(R"({"daemon":")" + m_host.Home().Path("chatter").Str() + "\"}");
  m_host.Start();
  ASSERT_TRUE(m_host.WaitRunning());
  ASSERT_TRUE(WaitLog("zxhost bus daemon says[line 0]"));
  ASSERT_TRUE(EventuallyTrue([&] { return Count(m_host.HostLog(), "bus daemon says") >= 20; }));
  m_host.Signal(SIGTERM);
  EXPECT_EQ(m_host.WaitExit(), 0);
  EXPECT_LT(Count(m_host.HostLog(), "bus daemon says"), 60u);
}

TEST(HostBuses, TwoHomes_StandSideBySide) {
  CHostProcess first;
  CHostProcess second;
  first.AddPlugin("a", "ok");
  second.AddPlugin("a", "ok");
  first.Start();
  second.Start();
  ASSERT_TRUE(first.WaitRunning());
  ASSERT_TRUE(second.WaitRunning());
  const std::string strGuid = "5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D";
  const std::string strFirst = "unix:path=" + first.Home().Path("run/bus").Str();
  const std::string strSecond = "unix:path=" + second.Home().Path("run/bus").Str();
  ASSERT_TRUE(
      EventuallyTrue([&] { return first.Home().Exists("run/bus") && second.Home().Exists("run/bus"); }));
  // One GUID on both machines' halves: each bus has its own.
  CPeerProcess one(kSelf, Component(strFirst, ComponentName(strGuid), 1));
  CPeerProcess two(kSelf, Component(strSecond, ComponentName(strGuid), 2));
  EXPECT_EQ(one.Ready(), "ok");
  EXPECT_EQ(two.Ready(), "ok");
  const auto send = [&](const std::string& strAddress) {
    return RunAs(kSelf, [&] { return CPeerBus(strAddress).Send(ComponentName(strGuid), 20001); });
  };
  EXPECT_EQ(send(strFirst), "status 1");
  EXPECT_EQ(send(strSecond), "status 2");
  first.Signal(SIGTERM);
  EXPECT_EQ(first.WaitExit(), 0);
  EXPECT_EQ(send(strSecond), "status 2");
}

TEST(HostBuses, OneRunDirectoryForTwo_IsRefusedToTheSecond) {
  CHostProcess first;
  CHostProcess second;
  first.AddPlugin("a", "ok");
  second.AddPlugin("a", "ok");
  first.Start();
  ASSERT_TRUE(first.WaitRunning());
  const std::string strAddress = "unix:path=" + first.Home().Path("run/bus").Str();
  ASSERT_TRUE(EventuallyTrue([&] { return first.Home().Exists("run/bus"); }));
  second.SetBus(R"({"run_dir":")" + first.Home().Path("run").Str() + "\"}");
  second.Start();
  ASSERT_TRUE(second.WaitRunning());
  EXPECT_TRUE(EventuallyTrue(
      [&] { return second.HostLog().find("another process listens on") != std::string::npos; }));
  EXPECT_EQ(RunAs(kSelf, [&] { return CPeerBus(strAddress).Connected(); }), "ok");
}

}  // namespace
