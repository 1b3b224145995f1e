// What the host answers over its bus: to root and its own user.
#include <cjson/cJSON.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "BusPeer.h"
#include "HostProcess.h"
#include "platform/bus/zxbus.h"
#include "support/Waiter.h"

namespace {

using testing::HasSubstr;

const std::string kA = "AAAAAAAA-2D4F-4A6B-8C9D-0E1F2A3B4C5D";
const std::string kPlugin = "00000001-0000-0000-0000-000000000001";

using TJson = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

class HostMethods : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(chmod(m_host.Home().Root().c_str(), 0755), 0);
    m_host.AddPlugin("crowded", "crowd");
    m_host.AddPlugin("broken", "fail-Start");
    m_host.Home().WriteFile("etc/coms/client/x/config.json",
                            R"({"plugins":[{"id":")" + kA + R"("}],"bus":{"user":"games","send":[20001]}})");
    m_host.Home().WriteFile("etc/coms/client/bad/config.json", "{");
    m_host.Start();
    ASSERT_TRUE(m_host.WaitRunning());
    // Served as soon as the host has joined its bus.
    ASSERT_TRUE(EventuallyTrue([this] { return Call("status", "{}") == 0; }))
        << m_strAnswer << m_host.HostLog();
  }

  std::string Address() { return "unix:path=" + m_host.Home().Path("run/bus").Str(); }
  uint32_t Call(const char* pszMethod, const char* pszJson) {
    char* pszAnswer = nullptr;
    const uint32_t uiResult =
        ZxBusCallHost(Address().c_str(), pszMethod, pszJson, &pszAnswer, kTestDeadlineMs);
    m_strAnswer = pszAnswer != nullptr ? pszAnswer : "";
    ZxBusFree(pszAnswer);
    m_json = TJson(cJSON_Parse(m_strAnswer.c_str()), &cJSON_Delete);
    return uiResult;
  }
  static std::string Text(const cJSON* pObject, const char* pszName) {
    const cJSON* pItem = cJSON_GetObjectItemCaseSensitive(pObject, pszName);
    return pItem == nullptr                ? "(none)"
           : pItem->valuestring != nullptr ? pItem->valuestring
           : cJSON_IsBool(pItem) != 0      ? (cJSON_IsTrue(pItem) != 0 ? "true" : "false")
                                           : std::to_string(static_cast<long long>(pItem->valuedouble));
  }
  const cJSON* Member(const char* pszName) const {
    return cJSON_GetObjectItemCaseSensitive(m_json.get(), pszName);
  }
  const cJSON* Component(const std::string& strName) const {
    const cJSON* pItem = nullptr;
    cJSON_ArrayForEach(pItem, Member("components")) {
      if (Text(pItem, "name") == strName)
        return pItem;
    }
    return nullptr;
  }

  CHostProcess m_host;
  std::string m_strAnswer;
  TJson m_json{nullptr, &cJSON_Delete};
};

TEST_F(HostMethods, Status_TellsWhatRuns) {
  ASSERT_EQ(Call("status", "{}"), 0u);
  EXPECT_EQ(Text(m_json.get(), "version"), ZX_VERSION);
  EXPECT_EQ(Text(m_json.get(), "home"), m_host.Home().Root().Str());
  EXPECT_EQ(Text(m_json.get(), "pid"), std::to_string(m_host.Pid()));
  const cJSON* pPlugin = cJSON_GetArrayItem(Member("plugins"), 0);
  EXPECT_EQ(Text(pPlugin, "name"), "crowded");
  EXPECT_EQ(Text(pPlugin, "state"), "running");
  EXPECT_EQ(Text(pPlugin, "status"), "2");  // its own word
  EXPECT_EQ(Text(cJSON_GetArrayItem(Member("plugins"), 1), "state"), "failed");
  EXPECT_EQ(Text(m_json.get(), "plugins_answer"), "true");
  const cJSON* pBus = Member("bus");
  EXPECT_EQ(Text(pBus, "address"), Address());
  EXPECT_EQ(Text(pBus, "daemon_starts"), "1");
  EXPECT_EQ(Text(pBus, "trouble"), "");
  EXPECT_EQ(Text(cJSON_GetObjectItemCaseSensitive(pBus, "stats"), "state"), "connected");
  EXPECT_EQ(kill(std::atoi(Text(pBus, "daemon_pid").c_str()), 0), 0);
  // What was warned about is in it, of every channel.
  EXPECT_THAT(m_strAnswer, HasSubstr("plugin[broken] left out"));
  EXPECT_EQ(cJSON_GetArraySize(Member("link")), 0);  // no cloud library in this process
}

TEST_F(HostMethods, Components_AreManifestsPluginsAndPeers) {
  ASSERT_TRUE(
      EventuallyTrue([this] { return Call("components", "{}") == 0 && Component("bad") != nullptr; }));
  EXPECT_EQ(Text(Component("crowded"), "kind"), "plug-in");
  EXPECT_EQ(Text(Component("bad"), "accepted"), "false");
  EXPECT_THAT(Text(Component("bad"), "refused"), HasSubstr("not a JSON object"));
  // The fake plug-in is on the bus under another GUID than its entry's.
  EXPECT_THAT(m_strAnswer, HasSubstr(kPlugin));
  const cJSON* pX = Component("x");
  ASSERT_NE(pX, nullptr);
  EXPECT_EQ(Text(pX, "kind"), "process");
  EXPECT_EQ(Text(pX, "guid"), kA);
  EXPECT_EQ(Text(pX, "user"), "games");
  EXPECT_EQ(Text(pX, "accepted"), "true");
  EXPECT_EQ(Text(pX, "joined"), "false");
  const passwd* pGames = getpwnam("games");
  const uid_t uid = geteuid() == 0 && pGames != nullptr ? pGames->pw_uid : kSelf;
  const CPeerProcess peer(uid, ::Component(Address(), ComponentName(kA), 0));
  ASSERT_EQ(peer.Ready(), "ok");
  EXPECT_TRUE(EventuallyTrue([&] {
    return Call("components", "{}") == 0 && Text(Component("x"), "joined") == "true" &&
           Text(Component("x"), "pid") == std::to_string(peer.Pid()) &&
           Text(Component("x"), "uid") == std::to_string(uid == kSelf ? geteuid() : uid);
  })) << m_strAnswer;
}

// A program of the component kit, under the user of its manifest, over two daemons.
TEST_F(HostMethods, RealComponent_JoinsAsItsUser_AndReturnsWithTheDaemon) {
  const passwd* pGames = getpwnam("games");
  const uid_t uid = geteuid() == 0 && pGames != nullptr ? pGames->pw_uid : kSelf;
  m_host.Home().MakeDir("elsewhere", 0777);
  m_host.Home().WriteFile(
      "etc/coms/client/sample/config.json",
      R"({"plugins":[{"id":"5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D"}],"bus":{"user":"games"}})");
  const std::string strHome = m_host.Home().Path("elsewhere").Str();
  // A program that is not allowed yet would end, for its supervisor to start it again.
  const std::string strName = ComponentName("5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D");
  ASSERT_TRUE(
      EventuallyTrue([&] { return RunAs(uid, [&] { return CPeerBus(Address()).Own(strName); }) == "ok"; }));
  const CPeerProcess sample(uid, [&](const FnSay& say) {
    say(access(ZX_SAMPLE_PROGRAM, X_OK) == 0 ? "there" : "out of reach");
    setenv("ZX_LOG_DIR", strHome.c_str(), 1);
    execl(ZX_SAMPLE_PROGRAM, ZX_SAMPLE_PROGRAM, "--home", strHome.c_str(), "--bus", Address().c_str(),
          static_cast<char*>(nullptr));
  });
  if (sample.Ready() != "there")
    GTEST_SKIP() << "the build tree is out of the other user's reach";
  const auto joined = [&] {
    return EventuallyTrue([&] {
      return Call("components", "{}") == 0 && Text(Component("sample"), "joined") == "true" &&
             Text(Component("sample"), "pid") == std::to_string(sample.Pid()) &&
             Text(Component("sample"), "uid") == std::to_string(uid == kSelf ? geteuid() : uid);
    });
  };
  ASSERT_TRUE(joined()) << m_strAnswer << m_host.HostLog();
  ASSERT_EQ(Call("status", "{}"), 0u);
  ASSERT_EQ(kill(std::atoi(Text(Member("bus"), "daemon_pid").c_str()), SIGKILL), 0);
  EXPECT_TRUE(EventuallyTrue(
      [&] { return Call("status", "{}") == 0 && Text(Member("bus"), "daemon_starts") == "2"; }));
  EXPECT_TRUE(joined()) << m_strAnswer;
}

TEST_F(HostMethods, LogLevel_HoldsForEveryChannel_UntilZero) {
  ASSERT_EQ(Call("log_level", R"({"level":4})"), 0u);
  EXPECT_EQ(m_strAnswer, R"({"level":4})");
  m_host.Home().WriteFile("etc/coms/client/late/config.json", "{");  // a warning that must not be written
  ASSERT_TRUE(
      EventuallyTrue([this] { return Call("components", "{}") == 0 && Component("late") != nullptr; }));
  ASSERT_EQ(Call("log_level", R"({"level":0})"), 0u);
  ASSERT_EQ(Call("status", "{}"), 0u);
  EXPECT_EQ(Text(m_json.get(), "log_level"), "0");
  ASSERT_TRUE(
      EventuallyTrue([this] { return m_host.HostLog().find("zxhost log_level[0]") != std::string::npos; }));
  EXPECT_THAT(m_host.HostLog(), testing::Not(HasSubstr("component[late]")));
}

TEST_F(HostMethods, WhatIsNoMethodOrArgument_IsAnError) {
  EXPECT_EQ(Call("reboot", "{}"), kBusErrNoReceiver);
  for (const char* psz : {"", "{", "7", "{}", R"({"level":"2"})", R"({"level":10})", R"({"level":-1})",
                          R"({"level":1.5})", R"({"level":1e99})"}) {
    EXPECT_EQ(Call("log_level", psz), kBusErrInvalid) << psz;
    EXPECT_THAT(m_strAnswer, HasSubstr("wanted")) << psz;
  }
}

TEST_F(HostMethods, OtherUsers_AreRefused) {
  const passwd* pGames = getpwnam("games");
  if (geteuid() != 0 || pGames == nullptr)
    GTEST_SKIP() << "needs root: another user is played";
  const std::string strResult =
      RunAs(pGames->pw_uid, [this] { return std::to_string(Call("status", "{}")); });
  EXPECT_EQ(strResult, std::to_string(kBusErrDenied));
}

TEST_F(HostMethods, KilledDaemon_LeavesTheHostServingAgain) {
  ASSERT_EQ(Call("status", "{}"), 0u);
  ASSERT_EQ(kill(std::atoi(Text(Member("bus"), "daemon_pid").c_str()), SIGKILL), 0);
  EXPECT_TRUE(EventuallyTrue([this] {
    return Call("status", "{}") == 0 && Text(Member("bus"), "daemon_starts") == "2" &&
           Text(cJSON_GetObjectItemCaseSensitive(Member("bus"), "stats"), "state") == "connected";
  })) << m_strAnswer;
  m_host.Signal(SIGTERM);
  EXPECT_EQ(m_host.WaitExit(), 0);
  EXPECT_EQ(Call("status", "{}"), kBusErrGone);
}

}  // namespace
