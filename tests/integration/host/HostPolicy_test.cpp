// Who may do what on the bus, asked of the real daemon by real processes of real other users.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

#include "BusPeer.h"
#include "HostProcess.h"
#include "support/Waiter.h"

namespace {

using testing::HasSubstr;

const std::string kA = "AAAAAAAA-2D4F-4A6B-8C9D-0E1F2A3B4C5D";
const std::string kB = "BBBBBBBB-2D4F-4A6B-8C9D-0E1F2A3B4C5D";
const std::string kPlugin = "CCCCCCCC-2D4F-4A6B-8C9D-0E1F2A3B4C5D";
constexpr const char* kDenied = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* kDaemonInterface = "org.freedesktop.DBus";

struct _User {
  std::string strName;
  uid_t uid;
};

// Users that every machine has and that run nothing here.
std::vector<_User> SystemUsers() {
  std::vector<_User> users;
  for (const char* psz : {"games", "news", "uucp", "daemon", "bin"}) {
    const passwd* pEntry = getpwnam(psz);
    if (pEntry != nullptr)
      users.push_back({psz, pEntry->pw_uid});
  }
  return users;
}

class HostPolicy : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0)
      GTEST_SKIP() << "needs root: other users are played";
    m_users = SystemUsers();
    if (m_users.size() < 3)
      GTEST_SKIP() << "needs three system users";
    ASSERT_EQ(chmod(m_host.Home().Root().c_str(), 0755), 0);
    m_host.AddPlugin("a", kPlugin);
  }

  std::string Address() { return "unix:path=" + m_host.Home().Path("run/bus").Str(); }
  bool Start() {
    m_host.Start();
    return m_host.WaitRunning() && WaitLog("zxhost bus daemon started pid[");
  }
  void Install(const std::string& strName, const std::string& strGuid, const std::string& strUser,
               const std::string& strMore = R"(,"send":[20001])") {
    m_host.Home().WriteFile("etc/coms/client/" + strName + "/config.json",
                            R"({"plugins":[{"id":")" + strGuid +
                                R"(","product":"p","combo":"c"}],"bus":{"user":")" + strUser + "\"" +
                                strMore + "}}");
  }
  std::string OwnAs(uid_t uid, const std::string& strGuid) {
    return RunAs(uid, [&] {
      CPeerBus bus(Address());
      return bus.Connected() == "ok" ? bus.Own(ComponentName(strGuid)) : "not connected: " + bus.Connected();
    });
  }
  std::string SendAs(uid_t uid, const std::string& strGuid, uint32_t uiType) {
    return RunAs(uid, [&] { return CPeerBus(Address()).Send(ComponentName(strGuid), uiType); });
  }
  bool WaitLog(const std::string& strText) {
    return EventuallyTrue([&] { return m_host.HostLog().find(strText) != std::string::npos; });
  }
  pid_t DaemonPid() {
    const std::string strLog = m_host.HostLog();
    const std::string strMark = "zxhost bus daemon started pid[";
    return std::stoi(strLog.substr(strLog.rfind(strMark) + strMark.size()));
  }

  CHostProcess m_host;
  std::vector<_User> m_users;
};

TEST_F(HostPolicy, Uid_OwnsItsGuidOnly) {
  Install("a", kA, m_users[0].strName);
  Install("b", kB, m_users[1].strName);
  ASSERT_TRUE(Start());
  EXPECT_EQ(OwnAs(m_users[0].uid, kA), "ok");
  EXPECT_EQ(OwnAs(m_users[1].uid, kB), "ok");
  EXPECT_EQ(OwnAs(m_users[0].uid, kB), "EACCES");
  EXPECT_EQ(OwnAs(m_users[1].uid, kA), "EACCES");
  EXPECT_EQ(OwnAs(m_users[0].uid, "DDDDDDDD-2D4F-4A6B-8C9D-0E1F2A3B4C5D"), "EACCES");
  EXPECT_THAT(OwnAs(m_users[2].uid, kA), HasSubstr("not connected"));  // has no component
}

TEST_F(HostPolicy, HostsOwnNames_AreNobodyElses) {
  Install("a", kA, m_users[0].strName);
  Install("thief", kPlugin, m_users[1].strName);
  ASSERT_TRUE(Start());
  EXPECT_EQ(OwnAs(m_users[0].uid, kPlugin), "EACCES");
  EXPECT_THAT(OwnAs(m_users[1].uid, kPlugin), HasSubstr("not connected"));
  EXPECT_TRUE(WaitLog("*zxhost component[thief] gets no rights on the bus: GUID " + kPlugin +
                      " is served by a plug-in of the host"));
  EXPECT_EQ(RunAs(m_users[0].uid, [&] { return CPeerBus(Address()).Own("com.zxagent.bus1.host"); }),
            "EACCES");
  EXPECT_EQ(RunAs(m_users[0].uid, [&] { return CPeerBus(Address()).Own("org.example.other"); }), "EACCES");
}

TEST_F(HostPolicy, Types_AreTheManifests) {
  Install("a", kA, m_users[0].strName, R"(,"send":[20001,20204],"broadcast":[7])");
  Install("b", kB, m_users[1].strName, "");
  ASSERT_TRUE(Start());
  const CPeerProcess b(m_users[1].uid, Component(Address(), ComponentName(kB), 42));
  ASSERT_EQ(b.Ready(), "ok");
  EXPECT_EQ(SendAs(m_users[0].uid, kB, 20001), "status 42");
  EXPECT_EQ(SendAs(m_users[0].uid, kB, 20204), "status 42");
  EXPECT_EQ(SendAs(m_users[0].uid, kB, 20002), kDenied);
  EXPECT_EQ(SendAs(m_users[0].uid, kB, 2000), kDenied);
  EXPECT_EQ(SendAs(m_users[0].uid, kB, 200011), kDenied);
  EXPECT_EQ(SendAs(m_users[1].uid, kB, 20001), kDenied);
  EXPECT_EQ(SendAs(kSelf, kB, 1), "status 42");  // root: everything
}

TEST_F(HostPolicy, Broadcasts_NeedTheirOwnRight) {
  Install("a", kA, m_users[0].strName, R"(,"send":[8],"broadcast":[7])");
  ASSERT_TRUE(Start());
  const CPeerProcess listener(kSelf, [&](const FnSay& say) { CPeerBus(Address()).Listen(say); });
  ASSERT_EQ(listener.Ready(), "listening");
  RunAs(m_users[0].uid, [&] {
    CPeerBus bus(Address());
    bus.Broadcast(8);
    bus.Broadcast(7);
    return bus.CallDaemon(kDaemonInterface, "ListNames");  // both are with the daemon now
  });
  EXPECT_EQ(listener.Next(), "7");
}

TEST_F(HostPolicy, Monitoring_IsForRoot) {
  Install("a", kA, m_users[0].strName);
  ASSERT_TRUE(Start());
  const auto monitor = [&] {
    return CPeerBus(Address()).CallDaemon("org.freedesktop.DBus.Monitoring", "BecomeMonitor", "asu");
  };
  EXPECT_EQ(RunAs(m_users[0].uid, monitor), kDenied);
  EXPECT_EQ(RunAs(kSelf, monitor), "ok");
  const auto eavesdrop = [&] {
    return CPeerBus(Address()).CallDaemon(kDaemonInterface, "AddMatch", "",
                                          "eavesdrop=true,type='method_call'");
  };
  EXPECT_EQ(
      RunAs(m_users[0].uid, [&] { return CPeerBus(Address()).CallDaemon(kDaemonInterface, "ReloadConfig"); }),
      kDenied);
  EXPECT_EQ(
      RunAs(m_users[0].uid,
            [&] { return CPeerBus(Address()).CallDaemon("org.freedesktop.DBus.Debug.Stats", "GetStats"); }),
      kDenied);
  EXPECT_NE(RunAs(m_users[0].uid, eavesdrop), "");
}

TEST_F(HostPolicy, InstalledAndRemoved_TakesEffect_WithoutARestart) {
  Install("b", kB, m_users[1].strName);
  ASSERT_TRUE(Start());
  const pid_t iDaemon = DaemonPid();
  const CPeerProcess b(m_users[1].uid, Component(Address(), ComponentName(kB), 42));
  ASSERT_EQ(b.Ready(), "ok");
  EXPECT_THAT(OwnAs(m_users[0].uid, kA), HasSubstr("not connected"));

  Install("a", kA, m_users[0].strName);
  EXPECT_TRUE(EventuallyTrue([&] { return OwnAs(m_users[0].uid, kA) == "ok"; }));
  EXPECT_EQ(SendAs(m_users[0].uid, kB, 20001), "status 42");  // who was there stays there

  // Changed in place: another user, other types.
  Install("a", kA, m_users[2].strName, R"(,"send":[5])");
  EXPECT_TRUE(EventuallyTrue([&] { return OwnAs(m_users[2].uid, kA) == "ok"; }));
  EXPECT_THAT(OwnAs(m_users[0].uid, kA), HasSubstr("not connected"));
  EXPECT_EQ(SendAs(m_users[2].uid, kB, 20001), kDenied);
  EXPECT_EQ(SendAs(m_users[2].uid, kB, 5), "status 42");

  m_host.Home().Remove("etc/coms/client/a");
  EXPECT_TRUE(EventuallyTrue([&] { return OwnAs(m_users[2].uid, kA) != "ok"; }));
  EXPECT_EQ(SendAs(kSelf, kB, 1), "status 42");
  EXPECT_EQ(DaemonPid(), iDaemon);
}

TEST_F(HostPolicy, RemovedComponent_MaySendNothingMore_OnTheConnectionItHas) {
  Install("a", kA, m_users[0].strName);
  Install("b", kB, m_users[1].strName);
  ASSERT_TRUE(Start());
  const CPeerProcess b(m_users[1].uid, Component(Address(), ComponentName(kB), 42));
  ASSERT_EQ(b.Ready(), "ok");
  const CPeerProcess a(m_users[0].uid, [&](const FnSay& say) {
    CPeerBus bus(Address());
    std::string strResult;
    say(bus.Send(ComponentName(kB), 20001));
    for (int i = 0; i < 2000 && strResult != kDenied; ++i) {
      usleep(5000);
      strResult = bus.Send(ComponentName(kB), 20001);
    }
    say(strResult);
  });
  EXPECT_EQ(a.Ready(), "status 42");
  m_host.Home().Remove("etc/coms/client/a");
  EXPECT_EQ(a.Next(), kDenied);
}

TEST_F(HostPolicy, HostileManifests_DoNotBreakTheOthers) {
  const std::string strClients = "etc/coms/client/";
  Install("good", kA, m_users[0].strName);
  Install("injected", kB, R"(x\"/><allow own=\"*)");
  Install("twin1", kB, m_users[1].strName);
  Install("twin2", kB, m_users[2].strName);
  m_host.Home().WriteFile(strClients + "huge/config.json", std::string(2u << 20, '['));
  Install("unowned", "DDDDDDDD-2D4F-4A6B-8C9D-0E1F2A3B4C5D", m_users[2].strName);
  ASSERT_EQ(chown(m_host.Home().Path(strClients + "unowned/config.json").c_str(), m_users[2].uid, 0), 0);
  m_host.Home().MakeDir(strClients + "link");
  std::filesystem::create_symlink("../good/config.json",
                                  m_host.Home().Path(strClients + "link/config.json").Str());
  ASSERT_TRUE(Start());
  EXPECT_EQ(OwnAs(m_users[0].uid, kA), "ok");
  EXPECT_THAT(OwnAs(m_users[1].uid, kB), HasSubstr("not connected"));
  EXPECT_THAT(OwnAs(m_users[2].uid, kB), HasSubstr("not connected"));
  for (const char* psz : {"injected", "twin1", "twin2", "huge", "unowned", "link"})
    EXPECT_TRUE(WaitLog(std::string("*zxhost component[") + psz + "] gets no rights on the bus")) << psz;
  // Put right, it counts.
  m_host.Home().Remove(strClients + "twin2");
  EXPECT_TRUE(EventuallyTrue([&] { return OwnAs(m_users[1].uid, kB) == "ok"; }));
}

TEST_F(HostPolicy, DaemonWithoutRights_DoesAllOfIt) {
  Install("a", kA, m_users[0].strName);
  m_host.SetBus(R"({"user":")" + m_users[2].strName + "\"}");
  ASSERT_TRUE(Start());
  const pid_t iDaemon = DaemonPid();
  EXPECT_TRUE(EventuallyTrue([&] { return OwnAs(m_users[0].uid, kA) == "ok"; }));
  struct stat st {};
  ASSERT_EQ(stat(("/proc/" + std::to_string(iDaemon)).c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, m_users[2].uid);
  Install("b", kB, m_users[1].strName);  // the reload works without rights, too
  EXPECT_TRUE(EventuallyTrue([&] { return OwnAs(m_users[1].uid, kB) == "ok"; }));
  EXPECT_EQ(DaemonPid(), iDaemon);
  m_host.Signal(SIGKILL);  // and the death signal
  EXPECT_EQ(m_host.WaitExit(), 1000 + SIGKILL);
  EXPECT_TRUE(EventuallyTrue([&] {
    std::ifstream stat("/proc/" + std::to_string(iDaemon) + "/stat");
    const std::string strText((std::istreambuf_iterator<char>(stat)), {});
    return strText.empty() || strText.find(") Z ") != std::string::npos;
  }));
}

TEST_F(HostPolicy, UserThatDoesNotExist_LeavesTheDaemonAsRoot_AndSaysSo) {
  Install("a", kA, m_users[0].strName);
  m_host.SetBus(R"({"user":"zx-no-such-user"})");
  ASSERT_TRUE(Start());
  EXPECT_TRUE(WaitLog("*zxhost bus daemon runs as root, there is no user[zx-no-such-user]"));
  EXPECT_EQ(OwnAs(m_users[0].uid, kA), "ok");
}

TEST_F(HostPolicy, ThousandComponents_AreOneReading) {
  for (int i = 0; i < 1000; ++i)
    Install("c" + std::to_string(i), CPString::Make("%08X-2D4F-4A6B-8C9D-0E1F2A3B4C5D", i + 1).Str(),
            m_users[static_cast<size_t>(i) % m_users.size()].strName,
            R"(,"send":[20001,20104,20204,20003,20105])");
  const auto begin = std::chrono::steady_clock::now();
  const auto passed = [&] {
    return static_cast<long long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin)
            .count());
  };
  ASSERT_TRUE(Start());
  EXPECT_EQ(OwnAs(m_users[999 % m_users.size()].uid, "000003E8-2D4F-4A6B-8C9D-0E1F2A3B4C5D"), "ok");
  std::printf("1000 components: on the bus %lld ms after the start\n", passed());
  Install("late", kA, m_users[0].strName);
  const long long iInstalled = passed();
  EXPECT_TRUE(EventuallyTrue([&] { return OwnAs(m_users[0].uid, kA) == "ok"; }));
  std::printf("1001st installed: in force after %lld ms\n", passed() - iInstalled);
  for (const pid_t iPid : {m_host.Pid(), DaemonPid()}) {
    std::ifstream status("/proc/" + std::to_string(iPid) + "/status");
    for (std::string str; std::getline(status, str);) {
      if (str.starts_with("Name:") || str.starts_with("VmRSS:"))
        std::printf("%s\n", str.c_str());
    }
  }
}

}  // namespace
