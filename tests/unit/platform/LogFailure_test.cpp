#include <gmock/gmock.h>
#include <sys/resource.h>

#include "LogFixture.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

size_t CountIn(const std::string& strText, const std::string& strPart) {
  size_t uCount = 0;
  for (size_t u = strText.find(strPart); u != std::string::npos; u = strText.find(strPart, u + 1))
    ++uCount;
  return uCount;
}

// Raises the limit of file sizes again at the end of the scope.
class CFileSizeLimit {
 public:
  explicit CFileSizeLimit(rlim_t uBytes) {
    getrlimit(RLIMIT_FSIZE, &m_old);
    const rlimit limit{uBytes, m_old.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~CFileSizeLimit() { setrlimit(RLIMIT_FSIZE, &m_old); }
  CFileSizeLimit(const CFileSizeLimit&) = delete;
  CFileSizeLimit& operator=(const CFileSizeLimit&) = delete;

 private:
  rlimit m_old{};
};

class LogFailure_test : public CLogHomeTest {
 protected:
  // Waits until everything logged so far is written or given to stderr, with the channel staying open.
  static void Flush(const char* pszName) { LogUninit(LogInit(pszName)); }
};

TEST_F(LogFailure_test, Lines_GoToStderr_WhenTheDirectoryCannotBe) {
  m_home.WriteFile("log", "a file where the directory should be");
  ::testing::internal::CaptureStderr();
  const HLog hLog = LogInit("zxagent");
  LogPrintStr(hLog, 2, "one");
  Flush("zxagent");
  LogPrintStr(hLog, 2, "two");
  LogUninit(hLog);
  const std::string strErr = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(strErr, HasSubstr("] one\n"));
  EXPECT_THAT(strErr, HasSubstr("] two\n"));
  EXPECT_EQ(CountIn(strErr, "log/zxagent.log fails (Not a directory), its lines go to stderr\n"), 1u)
      << strErr;
}

TEST_F(LogFailure_test, Lines_GoToTheFileAgain_WhenItCanBeWritten) {
  m_home.WriteFile("log", "a file where the directory should be");
  ::testing::internal::CaptureStderr();
  const HLog hLog = LogInit("zxagent");
  LogPrintStr(hLog, 2, "lost");
  Flush("zxagent");
  m_home.Remove("log");
  EXPECT_TRUE(EventuallyTrue([&] {
    LogPrintStr(hLog, 2, "back");
    return m_home.Exists("log/zxagent.log");
  }));
  LogUninit(hLog);
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("log/zxagent.log is written again\n"));
  EXPECT_THAT(TextsIn("log/zxagent.log"), Contains("back"));
  EXPECT_THAT(TextsIn("log/zxagent.log"), Not(Contains("lost")));
}

TEST_F(LogFailure_test, FullDisk_DivertsLines_AndRecovers) {
  ::testing::internal::CaptureStderr();
  const HLog hLog = LogInit("zxagent");
  {
    // Stderr is a captured file as well and must stay below the limit.
    const CFileSizeLimit limit(16384);
    const std::string strBig(15000, 'x');
    LogPrintStr(hLog, 2, strBig.c_str());
    Flush("zxagent");
    const std::string strRest(3000, 'y');
    LogPrintStr(hLog, 2, strRest.c_str());
    Flush("zxagent");
  }
  EXPECT_TRUE(EventuallyTrue([&] {
    LogPrintStr(hLog, 2, "back");
    Flush("zxagent");
    return m_home.ReadFile("log/zxagent.log").Find("] back\n") != CPString::npos;
  }));
  LogUninit(hLog);
  const std::string strErr = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(strErr, HasSubstr("fails (File too large), its lines go to stderr\n"));
  EXPECT_THAT(strErr, HasSubstr("yyy\n"));
  // What the full disk left of the last line is ended before the next one.
  EXPECT_THAT(TextsIn("log/zxagent.log"), Contains("back"));
}

TEST_F(LogFailure_test, DivertedLines_AreLimited_AndTheRestIsCounted) {
  m_home.WriteFile("log", "a file where the directory should be");
  ::testing::internal::CaptureStderr();
  const HLog hLog = LogInit("zxagent");
  for (int i = 0; i < 1500; ++i)
    LogPrintStr(hLog, 2, "line");
  Flush("zxagent");
  m_home.Remove("log");
  EXPECT_TRUE(EventuallyTrue([&] {
    LogPrintStr(hLog, 2, "back");
    Flush("zxagent");
    return m_home.Exists("log/zxagent.log");
  }));
  LogUninit(hLog);
  const std::string strErr = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(CountIn(strErr, "] line\n"), 1000u);
  const size_t uNotice = strErr.find("is written again; ");
  ASSERT_NE(uNotice, std::string::npos) << strErr.substr(strErr.size() - 500);
  EXPECT_GE(std::stoi(strErr.substr(uNotice + 18)), 500);
}

TEST_F(LogFailure_test, AFailingChannel_DoesNotDisturbTheOthers) {
  m_home.MakeDir("log/zxagent.log");  // a directory in the place of the file
  ::testing::internal::CaptureStderr();
  const HLog hBad = LogInit("zxagent");
  const HLog hGood = LogInit("zxagentflow");
  LogPrintStr(hBad, 2, "bad");
  LogPrintStr(hGood, 2, "good");
  LogUninit(hBad);
  LogUninit(hGood);
  const std::string strErr = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(strErr, HasSubstr("] bad\n"));
  EXPECT_THAT(strErr, HasSubstr("fails (Is a directory)"));
  EXPECT_THAT(TextsIn("log/zxagentflow.log"), ElementsAre("good"));
}

}  // namespace
