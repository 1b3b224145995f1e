#include <gmock/gmock.h>

#include "LogFixture.h"
#include "support/LogCapture.h"

namespace {

class LogDebug_test : public CLogHomeTest {
 protected:
  ~LogDebug_test() override { CLogDebug::Instance().SetChannel(nullptr); }
  CLogDebug& m_logger = CLogDebug::Instance();
};

TEST_F(LogDebug_test, Lines_GoToStderr_WithoutAChannel) {
  ::testing::internal::CaptureStderr();
  m_logger.LogPrintStr(6, "zxagent", "InitializePlugin", 42, "zxagent InitializePlugin\n");
  m_logger.LogPrintV(2, "zxagent", "CreateObject", 7, "guid[%s] n[%d]", "x", 3);
  const std::string strErr = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(strErr, ::testing::HasSubstr("] [zxagent InitializePlugin:42] zxagent InitializePlugin\n"));
  EXPECT_THAT(strErr, ::testing::HasSubstr("[2] ["));
  EXPECT_THAT(strErr, ::testing::HasSubstr("] [zxagent CreateObject:7] guid[x] n[3]\n"));
}

TEST_F(LogDebug_test, Threshold_IsTwo_WithoutAChannel) {
  EXPECT_TRUE(m_logger.CheckLogLevel(2));
  EXPECT_FALSE(m_logger.CheckLogLevel(1));
  ::testing::internal::CaptureStderr();
  m_logger.LogPrintStr(1, "zxagent", "F", 1, "x");
  m_logger.LogPrintV(1, "zxagent", "F", 1, "%d", 1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(LogDebug_test, Lines_GoToTheChannelOfTheHost) {
  CLogCapture capture;
  const HLog hLog = capture.Open("zxhost", kLogWarn);
  m_logger.SetChannel(hLog);
  EXPECT_FALSE(m_logger.CheckLogLevel(2));
  EXPECT_TRUE(m_logger.CheckLogLevel(3));
  m_logger.LogPrintStr(2, "zxagent", "F", 1, "hidden");
  m_logger.LogPrintV(4, "zxagent", "F", 2, "seen %d", 1);
  ASSERT_EQ(capture.Entries().size(), 1u);
  EXPECT_EQ(capture.Entries()[0].strChannel, "zxhost");
  EXPECT_EQ(capture.Entries()[0].iLevel, 4);
  EXPECT_EQ(capture.Entries()[0].strText, "[zxagent F:2] seen 1");
}

TEST_F(LogDebug_test, Sink_SeesStderrLinesUnderNoChannel) {
  CLogCapture capture;
  ::testing::internal::CaptureStderr();
  m_logger.LogPrintStr(6, "zxagent", "UninitializePlugin", 9, "zxagent UninitializePlugin\n");
  ::testing::internal::GetCapturedStderr();
  ASSERT_EQ(capture.Entries().size(), 1u);
  EXPECT_EQ(capture.Entries()[0].strChannel, "");
  EXPECT_EQ(capture.Entries()[0].strText, "[zxagent UninitializePlugin:9] zxagent UninitializePlugin\n");
}

}  // namespace
