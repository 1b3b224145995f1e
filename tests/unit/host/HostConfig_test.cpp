#include "HostConfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/TempHome.h"

namespace {

using testing::HasSubstr;

class HostConfig : public testing::Test {
 protected:
  bool Load(const char* pszText) {
    m_home.WriteFile("etc/zxhost.json", pszText);
    return LoadHostConfig(m_home.Path("etc/zxhost.json"), m_home.Root(), m_config, m_strError);
  }

  CTempHome m_home;
  _HostConfig m_config;
  CPString m_strError;
};

TEST_F(HostConfig, Plugins_KeepTheirOrder_AndStandBelowTheHome) {
  ASSERT_TRUE(Load(R"({"plugins":[
      {"name":"b","path":"lib/plugins/libb.so","guid":"B"},
      {"path":"/opt/other/liba.so","guid":"A","dispatchers":4}]})"));
  ASSERT_EQ(m_config.plugins.size(), 2u);
  EXPECT_EQ(m_config.plugins[0].strName, "b");
  EXPECT_EQ(m_config.plugins[0].strPath, m_home.Root() + "lib/plugins/libb.so");
  EXPECT_EQ(m_config.plugins[0].strGuid, "B");
  EXPECT_EQ(m_config.plugins[0].uiDispatchers, 0u);
  EXPECT_EQ(m_config.plugins[1].strName, "/opt/other/liba.so");
  EXPECT_EQ(m_config.plugins[1].strPath, "/opt/other/liba.so");
  EXPECT_EQ(m_config.plugins[1].uiDispatchers, 4u);
  EXPECT_EQ(m_config.uiStopTimeoutSec, 65u);
  EXPECT_EQ(m_config.iLogLevel, 0);
  EXPECT_TRUE(m_config.warnings.empty());
}

TEST_F(HostConfig, DisabledPlugins_AreLeftOut_WithoutWarning) {
  ASSERT_TRUE(Load(R"({"plugins":[
      {"path":"a.so","guid":"A","enabled":false}, {"path":"b.so","guid":"B","enabled":0},
      {"path":"c.so","guid":"C","enabled":true}]})"));
  ASSERT_EQ(m_config.plugins.size(), 1u);
  EXPECT_EQ(m_config.plugins[0].strGuid, "C");
  EXPECT_TRUE(m_config.warnings.empty());
}

TEST_F(HostConfig, UnusableEntries_AreLeftOut_WithTheReason) {
  ASSERT_TRUE(Load(R"({"plugins":[
      {"name":"no path","guid":"A"}, {"name":"no guid","path":"a.so"}, 7, null,
      {"name":"outside","path":"../a.so","guid":"A"}, {"name":"outside2","path":"lib/../../a.so","guid":"A"},
      {"name":"threads","path":"a.so","guid":"A","dispatchers":65}, {"name":"threads2","path":"a.so","guid":"A","dispatchers":-1},
      {"name":"good","path":"lib/..a.so","guid":"A"}]})"));
  ASSERT_EQ(m_config.plugins.size(), 1u);
  EXPECT_EQ(m_config.plugins[0].strName, "good");
  ASSERT_EQ(m_config.warnings.size(), 8u);
  EXPECT_THAT(m_config.warnings[0].Str(), HasSubstr("\"no path\" left out: no path"));
  EXPECT_THAT(m_config.warnings[1].Str(), HasSubstr("\"no guid\" left out: no guid"));
  EXPECT_THAT(m_config.warnings[4].Str(), HasSubstr("\"outside\" left out: relative path leaves the home"));
  EXPECT_THAT(m_config.warnings[6].Str(), HasSubstr("dispatchers out of range"));
}

TEST_F(HostConfig, TooManyPlugins_AreCut) {
  std::string strText = R"({"plugins":[)";
  for (size_t i = 0; i <= kMaxPlugins; ++i)
    strText += std::string(i == 0 ? "" : ",") + R"({"path":"a.so","guid":"A"})";
  ASSERT_TRUE(Load((strText + "]}").c_str()));
  EXPECT_EQ(m_config.plugins.size(), kMaxPlugins);
  EXPECT_EQ(m_config.warnings.size(), 1u);
}

TEST_F(HostConfig, Limits_AreTakenInRange_AndWarnedAboutOutside) {
  ASSERT_TRUE(Load(R"({"plugins":[],"stop_timeout_sec":3,"log_level":1})"));
  EXPECT_EQ(m_config.uiStopTimeoutSec, 3u);
  EXPECT_EQ(m_config.iLogLevel, 1);
  for (const char* psz : {"0", "-5", "66", "1e99"}) {
    m_config = _HostConfig();
    ASSERT_TRUE(Load((std::string(R"({"plugins":[],"stop_timeout_sec":)") + psz + "}").c_str()));
    EXPECT_EQ(m_config.uiStopTimeoutSec, 65u) << psz;
    EXPECT_EQ(m_config.warnings.size(), 1u) << psz;
  }
  m_config = _HostConfig();
  ASSERT_TRUE(Load(R"({"plugins":[],"log_level":10})"));
  EXPECT_EQ(m_config.iLogLevel, 0);
  EXPECT_EQ(m_config.warnings.size(), 1u);
}

TEST_F(HostConfig, NoUsableDocument_Fails_WithTheReason) {
  EXPECT_FALSE(Load("{"));
  EXPECT_EQ(m_strError, "not a JSON document");
  EXPECT_FALSE(Load(""));
  EXPECT_FALSE(Load("{}"));
  EXPECT_EQ(m_strError, "no list \"plugins\"");
  EXPECT_FALSE(Load(R"({"plugins":"x"})"));
  EXPECT_FALSE(LoadHostConfig(m_home.Path("nothing.json"), m_home.Root(), m_config, m_strError));
  EXPECT_EQ(m_strError, "No such file or directory");
}

// What is installed by default must be usable as it is.
TEST(HostDefaults, InstalledConfiguration_IsUsable) {
  _HostConfig config;
  CPString strError;
  ASSERT_TRUE(LoadHostConfig(ZX_DEFAULT_ETC "/zxhost.json", "/home/", config, strError)) << strError.c_str();
  EXPECT_TRUE(config.warnings.empty());
  EXPECT_EQ(config.uiStopTimeoutSec, 65u);
  bool bAgent = false;
  for (const _PluginEntry& entry : config.plugins)
    bAgent = bAgent || (entry.strPath == "/home/libzxagent.so" &&
                        entry.strGuid == "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4");
  EXPECT_TRUE(bAgent);
}

TEST_F(HostConfig, Bus_HasDefaults) {
  ASSERT_TRUE(Load(R"({"plugins":[]})"));
  EXPECT_TRUE(m_config.bus.bEnabled);
  EXPECT_EQ(m_config.bus.strAddress, "");
  EXPECT_EQ(m_config.bus.strRunDir, m_home.Root() + "run/");
  EXPECT_EQ(m_config.bus.strDaemon, "/usr/bin/dbus-daemon");
  EXPECT_EQ(m_config.bus.strUser, "zxbus");
}

TEST_F(HostConfig, Bus_IsTakenAsWritten) {
  ASSERT_TRUE(Load(R"({"plugins":[],"bus":{"enabled":false,"address":"unix:path=/x","run_dir":"/run/zx",
      "daemon":"/opt/d","user":""}})"));
  EXPECT_FALSE(m_config.bus.bEnabled);
  EXPECT_EQ(m_config.bus.strAddress, "unix:path=/x");
  EXPECT_EQ(m_config.bus.strRunDir, "/run/zx/");
  EXPECT_EQ(m_config.bus.strDaemon, "/opt/d");
  EXPECT_EQ(m_config.bus.strUser, "");
  EXPECT_TRUE(m_config.warnings.empty());
  ASSERT_TRUE(Load(R"({"plugins":[],"bus":{"run_dir":"var/bus"}})"));
  EXPECT_EQ(m_config.bus.strRunDir, m_home.Root() + "var/bus/");
}

TEST_F(HostConfig, Bus_WhatIsNotUsable_IsWarnedAbout) {
  ASSERT_TRUE(
      Load(R"({"plugins":[],"bus":{"address":"tcp:host=x","run_dir":"../x","daemon":"d","user":"A b"}})"));
  EXPECT_EQ(m_config.bus.strAddress, "");
  EXPECT_EQ(m_config.bus.strRunDir, m_home.Root() + "run/");
  EXPECT_EQ(m_config.bus.strDaemon, "/usr/bin/dbus-daemon");
  EXPECT_EQ(m_config.warnings.size(), 4u);
}

}  // namespace
