#include <gmock/gmock.h>

#include "LogFixture.h"

using ::testing::ElementsAre;

namespace {

class LogConfig_test : public CLogHomeTest {
 protected:
  int ThresholdWith(const CPString& strConfig, const char* pszChannel = "zxagent") {
    if (!strConfig.IsEmpty())
      m_home.WriteFile("etc/zxlog.json", strConfig);
    const HLog hLog = LogInit(pszChannel);
    const int iThreshold = hLog->iThreshold;
    LogUninit(hLog);
    return iThreshold;
  }
};

TEST_F(LogConfig_test, Threshold_IsTwo_WithoutSettings) {
  EXPECT_EQ(ThresholdWith(""), 2);
}

TEST_F(LogConfig_test, Threshold_ComesFromTheFile) {
  EXPECT_EQ(ThresholdWith(R"({"level":3})"), 3);
  EXPECT_EQ(ThresholdWith(R"({"level":3,"channels":{"zxagent":{"level":1}}})"), 1);
  EXPECT_EQ(ThresholdWith(R"({"level":3,"channels":{"zxagent":{"level":1}}})", "zxcloud"), 3);
  EXPECT_EQ(ThresholdWith(R"({"channels":{"zxagent":{}}})"), 2);
}

TEST_F(LogConfig_test, Threshold_IgnoresWhatIsNoLevel) {
  for (const char* psz : {R"({"level":0})", R"({"level":-3})", R"({"level":10})", R"({"level":[]})", R"([1])",
                          R"({"channels":[{"level":1}]})", R"({"channels":{"zxagent":{"level":77}}})", "7"})
    EXPECT_EQ(ThresholdWith(psz), 2) << psz;
}

TEST_F(LogConfig_test, Threshold_KeepsTheDefault_WhenTheFileIsUnusable) {
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(ThresholdWith("{\"level\":"), 2);
  const std::string strErr = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(strErr.find("etc/zxlog.json is not usable"), std::string::npos) << strErr;
}

TEST_F(LogConfig_test, Environment_StandsAboveTheFile) {
  m_home.WriteFile("etc/zxlog.json", R"({"level":3,"channels":{"zxagent":{"level":4}},"dir":"elsewhere"})");
  SetEnv("ZX_LOG_LEVEL", "1");
  SetEnv("ZX_LOG_DIR", m_home.Path("env").c_str());
  const HLog hLog = LogInit("zxagent");
  EXPECT_EQ(hLog->iThreshold, 1);
  LogPrintStr(hLog, 1, "detail");
  LogUninit(hLog);
  EXPECT_THAT(TextsIn("env/zxagent.log"), ElementsAre("detail"));
  EXPECT_FALSE(m_home.Exists("elsewhere"));
}

TEST_F(LogConfig_test, Environment_IsIgnored_WhenItIsNoLevel) {
  SetEnv("ZX_LOG_LEVEL", "verbose");
  EXPECT_EQ(ThresholdWith(""), 2);
  SetEnv("ZX_LOG_LEVEL", "");
  EXPECT_EQ(ThresholdWith(""), 2);
}

TEST_F(LogConfig_test, Directory_MayBeRelativeToTheHomeOrAbsolute) {
  m_home.WriteFile("etc/zxlog.json", R"({"dir":"var/deep/log"})");
  HLog hLog = LogInit("zxagent");
  LogPrintStr(hLog, 2, "relative");
  LogUninit(hLog);
  EXPECT_THAT(TextsIn("var/deep/log/zxagent.log"), ElementsAre("relative"));
  EXPECT_EQ(m_home.Mode("var/deep/log"), 0700u);

  m_home.WriteFile("etc/zxlog.json", "{\"dir\":\"" + m_home.Path("absolute/") + "\"}");
  hLog = LogInit("zxagent");
  LogPrintStr(hLog, 2, "absolute");
  LogUninit(hLog);
  EXPECT_THAT(TextsIn("absolute/zxagent.log"), ElementsAre("absolute"));
}

TEST_F(LogConfig_test, Sizes_OutOfRangeAreIgnored) {
  m_home.WriteFile("etc/zxlog.json", R"({"max_bytes":1,"max_files":0})");
  const HLog hLog = LogInit("zxagent");
  for (int i = 0; i < 100; ++i)
    LogPrintStr(hLog, 2, "line");
  LogUninit(hLog);
  EXPECT_EQ(TextsIn("log/zxagent.log").size(), 100u);
  EXPECT_FALSE(m_home.Exists("log/zxagent.1.log"));
}

TEST_F(LogConfig_test, Settings_AreReadAgainWhileRunning) {
  const HLog hLog = LogInit("zxagent");
  EXPECT_EQ(hLog->iThreshold, 2);
  m_home.WriteFile("etc/zxlog.json", R"({"level":1,"dir":"moved"})");
  EXPECT_TRUE(EventuallyTrue([&] { return hLog->iThreshold == 1; }, 20000));
  LogPrintStr(hLog, 1, "in the new place");
  LogUninit(hLog);
  EXPECT_THAT(TextsIn("moved/zxagent.log"), ElementsAre("in the new place"));
}

TEST_F(LogConfig_test, ForcedLevel_StandsOverEverything_UntilZero) {
  m_home.WriteFile("etc/zxlog.json", R"({"level":3,"channels":{"named":{"level":4}}})");
  SetEnv("ZX_LOG_LEVEL", "6");
  HLog hOpen = LogInit("named");
  LogForceLevel(1);
  HLog hLater = LogInit("later");
  EXPECT_EQ(hOpen->iThreshold, 1);
  EXPECT_EQ(hLater->iThreshold, 1);
  LogForceLevel(10);
  LogForceLevel(-1);
  EXPECT_EQ(hOpen->iThreshold, 1);
  LogForceLevel(0);
  EXPECT_EQ(hOpen->iThreshold, 6);
  EXPECT_EQ(hLater->iThreshold, 6);
  LogUninit(hLater);
  LogUninit(hOpen);
}

TEST_F(LogConfig_test, Settings_OfANewHomeHoldForOpenChannels) {
  const HLog hFirst = LogInit("zxagent");
  const CTempHome other;
  other.WriteFile("etc/zxlog.json", R"({"level":4})");
  LogSetHome(other.Root());
  const HLog hSecond = LogInit("zxagentflow");
  EXPECT_EQ(hFirst->iThreshold, 4);
  EXPECT_EQ(hSecond->iThreshold, 4);
  LogPrintStr(hFirst, 4, "x");
  LogUninit(hFirst);
  LogUninit(hSecond);
  EXPECT_TRUE(other.Exists("log/zxagent.log"));
  EXPECT_FALSE(m_home.Exists("log/zxagent.log"));
}

TEST_F(LogConfig_test, Lines_GoToStderr_WithoutAHome) {
  LogSetHome("");
  ::testing::internal::CaptureStderr();
  const HLog hLog = LogInit("zxagent");
  LogPrintStr(hLog, 2, "to stderr");
  LogUninit(hLog);
  const std::string strErr = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(strErr.find("] to stderr\n"), std::string::npos) << strErr;
}

}  // namespace
