#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>

#include "HostProcess.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

// The calls without the record's line.
std::vector<std::string> CallsOf(const CHostProcess& host) {
  std::vector<std::string> calls;
  for (const std::string& strLine : host.Calls()) {
    if (strLine.find("home=") == std::string::npos)
      calls.push_back(strLine);
  }
  return calls;
}

TEST(HostLife, Plugins_AreDrivenInOrder_AndStoppedInReverse) {
  CHostProcess host;
  host.AddPlugin("a", "ok");
  host.AddPlugin("b", "ok");
  host.Start();
  ASSERT_TRUE(host.WaitRunning());
  host.Signal(SIGTERM);
  EXPECT_EQ(host.WaitExit(), 0);
  EXPECT_THAT(CallsOf(host),
              ElementsAre("a InitializePlugin", "a CreateObject", "a Initialize", "a SetCtx", "a Start",  //
                          "b InitializePlugin", "b CreateObject", "b Initialize", "b SetCtx", "b Start",  //
                          "b Stop", "a Stop",                                                             //
                          "b Uninitialize", "b DestroyObject", "b UninitializePlugin",                    //
                          "a Uninitialize", "a DestroyObject", "a UninitializePlugin"));
}

TEST(HostLife, InitRecord_TellsHomeNameAndVersion) {
  CHostProcess host;
  host.AddPlugin("a", "ok");
  host.Start();
  ASSERT_TRUE(host.WaitRunning());
  EXPECT_TRUE(host.WaitCall("a home=" + host.Home().Root().Str() + " name=a version=" ZX_VERSION));
}

struct _Broken {
  const char* pszBehaviour;
  std::vector<std::string> calls;  // of the broken one
};

class HostBroken : public testing::TestWithParam<_Broken> {};

TEST_P(HostBroken, Plugin_IsLeftOutAndCleanedUp_TheOthersRun) {
  CHostProcess host;
  host.AddPlugin("x", GetParam().pszBehaviour);
  host.AddPlugin("good", "ok");
  host.Start();
  ASSERT_TRUE(host.WaitRunning());
  EXPECT_THAT(host.HostLog(), HasSubstr("zxhost running plugins[1]"));
  EXPECT_THAT(host.HostLog(), HasSubstr("*zxhost plugin[x] left out"));
  host.Signal(SIGTERM);
  EXPECT_EQ(host.WaitExit(), 0);
  std::vector<std::string> calls;
  for (const std::string& strLine : CallsOf(host)) {
    if (strLine.starts_with("x "))
      calls.push_back(strLine.substr(2));
  }
  EXPECT_EQ(calls, GetParam().calls);
}

INSTANTIATE_TEST_SUITE_P(
    Each, HostBroken,
    testing::Values(_Broken{"no-object", {"InitializePlugin", "CreateObject", "UninitializePlugin"}},
                    _Broken{"empty-slot",
                            {"InitializePlugin", "CreateObject", "DestroyObject", "UninitializePlugin"}},
                    _Broken{"fail-Initialize",
                            {"InitializePlugin", "CreateObject", "Initialize", "Uninitialize",
                             "DestroyObject", "UninitializePlugin"}},
                    _Broken{"throw-Initialize",
                            {"InitializePlugin", "CreateObject", "Initialize", "Uninitialize",
                             "DestroyObject", "UninitializePlugin"}},
                    _Broken{"fail-Start",
                            {"InitializePlugin", "CreateObject", "Initialize", "SetCtx", "Start",
                             "Uninitialize", "DestroyObject", "UninitializePlugin"}},
                    _Broken{"throw-Start",
                            {"InitializePlugin", "CreateObject", "Initialize", "SetCtx", "Start",
                             "Uninitialize", "DestroyObject", "UninitializePlugin"}}),
    [](const auto& param) {
      std::string str(param.param.pszBehaviour);
      str.erase(std::remove(str.begin(), str.end(), '-'), str.end());
      return str;
    });

TEST(HostLife, LibrariesThatAreNone_AreLeftOut) {
  CHostProcess host;
  host.Home().WriteFile("lib/plugins/text.so", "not a library");
  host.AddEntry(R"({"name":"text","path":"lib/plugins/text.so","guid":"x"})");
  host.AddEntry(R"({"name":"missing","path":"lib/plugins/missing.so","guid":"x"})");
  host.AddEntry(R"({"name":"foreign","path":")" ZX_FOREIGN_LIBRARY R"(","guid":"x"})");
  host.AddEntry(R"({"name":"outside","path":"../x.so","guid":"x"})");
  host.AddPlugin("good", "ok");
  host.Start();
  ASSERT_TRUE(host.WaitRunning());
  const std::string strLog = host.HostLog();
  EXPECT_THAT(strLog, HasSubstr("**zxhost plugin[text] cannot be loaded"));
  EXPECT_THAT(strLog, HasSubstr("**zxhost plugin[missing] cannot be loaded"));
  EXPECT_THAT(strLog, HasSubstr("**zxhost plugin[foreign] is no plug-in"));
  EXPECT_THAT(strLog, HasSubstr("plug-in \"outside\" left out: relative path leaves the home"));
}

TEST(HostLife, NoPluginAtAll_IsAnExitCode) {
  CHostProcess host;
  host.AddPlugin("x", "fail-Start");
  host.Start();
  EXPECT_EQ(host.WaitExit(), 1);
  EXPECT_THAT(host.HostLog(), HasSubstr("**zxhost no plug-in could be started"));
}

TEST(HostLife, FailingStop_DoesNotKeepTheOthers) {
  CHostProcess host;
  host.AddPlugin("a", "ok");
  host.AddPlugin("b", "throw-Stop");
  host.Start();
  ASSERT_TRUE(host.WaitRunning());
  host.Signal(SIGTERM);
  EXPECT_EQ(host.WaitExit(), 0);
  EXPECT_THAT(CallsOf(host), testing::IsSupersetOf({"b Uninitialize", "a Stop", "a Uninitialize"}));
}

TEST(HostLife, BusContext_IsLeftForThePlugin_WhenItForgets) {
  // The plug-in joins the bus and never leaves it: destroying the context does.
  CHostProcess host;
  host.AddPlugin("a", "crowd");
  host.Start();
  ASSERT_TRUE(host.WaitRunning());
  host.Signal(SIGTERM);
  EXPECT_EQ(host.WaitExit(), 0);
}

TEST(HostLife, SecondHost_OnTheSameHome_IsRefused) {
  CHostProcess host;
  host.AddPlugin("a", "ok");
  host.Start();
  ASSERT_TRUE(host.WaitRunning());
  const pid_t iFirst = host.Pid();
  EXPECT_EQ(host.Home().ReadFile("run/zxhost.lock").Str(), std::to_string(iFirst) + "\n");
  const std::string strCommand =
      std::string(ZX_HOST_PROGRAM) + " --home " + host.Home().Root().Str() + " 2>/dev/null";
  const int iStatus = std::system(strCommand.c_str());
  EXPECT_EQ(WEXITSTATUS(iStatus), 3);
  EXPECT_TRUE(host.IsRunning());
}

TEST(HostLife, UnwritableRunDirectory_DoesNotKeepTheHost) {
  CHostProcess host;
  host.AddPlugin("a", "ok");
  host.Home().WriteFile("run", "in the way");
  host.Start();
  ASSERT_TRUE(host.WaitRunning());
  EXPECT_THAT(host.HostLog(), HasSubstr("*zxhost starts without run/zxhost.lock"));
}

TEST(HostLife, BrokenConfiguration_IsAnExitCode) {
  CHostProcess host;
  host.Home().WriteFile("etc/zxhost.json", "{");
  host.Start();
  EXPECT_EQ(host.WaitExit(), 2);
  EXPECT_THAT(host.Stderr(), HasSubstr("not a JSON document"));
}

TEST(HostLife, OtherConfigurationFile_CanBeNamed) {
  CHostProcess host;
  host.AddPlugin("a", "ok");
  host.WriteConfig();
  host.Home().WriteFile("other.json", R"({"plugins":[]})");
  host.Start({"--config", host.Home().Path("other.json").Str()});
  EXPECT_EQ(host.WaitExit(), 1);
  EXPECT_TRUE(host.Calls().empty());
}

TEST(HostLife, UnknownOption_IsAnExitCode) {
  CHostProcess host;
  host.Start({"--no-such-option"});
  EXPECT_EQ(host.WaitExit(), 2);
}

TEST(HostLife, Foreground_EchoesTheHostsLines) {
  CHostProcess host;
  host.AddPlugin("a", "ok");
  host.Start({"--foreground"});
  ASSERT_TRUE(host.WaitRunning());
  host.Signal(SIGTERM);
  EXPECT_EQ(host.WaitExit(), 0);
  EXPECT_THAT(host.Stderr(), HasSubstr("zxhost running plugins[1]"));
}

TEST(HostLife, LogLevel_OfTheConfiguration_HoldsForEveryChannel) {
  CHostProcess host;
  host.AddPlugin("a", "ok");
  host.Home().WriteFile("etc/zxhost.json",
                        R"({"log_level":4,"plugins":[{"name":"a","path":"lib/plugins/a.so","guid":"ok"},)"
                        R"({"name":"x","path":"lib/plugins/x.so","guid":"ok"}]})");
  host.Start();
  ASSERT_TRUE(host.WaitCall("a Start"));
  host.Signal(SIGTERM);
  EXPECT_EQ(host.WaitExit(), 0);
  EXPECT_THAT(host.HostLog(), HasSubstr("**zxhost plugin[x] cannot be loaded"));
  EXPECT_THAT(host.HostLog(), Not(HasSubstr("zxhost begin")));
}

}  // namespace
