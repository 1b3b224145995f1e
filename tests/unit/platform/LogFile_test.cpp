#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "LogFixture.h"

using ::testing::ElementsAre;

namespace {

class LogFile_test : public CLogHomeTest {
 protected:
  bool HasWriterThread() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
      CPString strName;
      std::error_code error;
      FILE* pFile = fopen((entry.path() / "comm").c_str(), "r");
      if (pFile == nullptr)
        continue;
      char szName[32] = {};
      const bool bRead = fgets(szName, sizeof(szName), pFile) != nullptr;
      fclose(pFile);
      if (bRead && std::string(szName) == "zxlogwriter\n")
        return true;
    }
    return false;
  }
};

TEST_F(LogFile_test, Line_HasTimeLevelIdsAndTheText) {
  const HLog hLog = LogInit("zxagent");
  ASSERT_NE(hLog, nullptr);
  LogPrint(hLog, 3, "*zxagent CThing::Do Warn n[%d]", 5);
  LogUninit(hLog);
  const std::string strIds = std::to_string(getpid()) + ":" + std::to_string(syscall(SYS_gettid));
  const std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [+-]\d{4} \[3\] \[)" + strIds +
                        R"(\] \*zxagent CThing::Do Warn n\[5\]\n)");
  const CPString strData = m_home.ReadFile("log/zxagent.log");
  EXPECT_TRUE(std::regex_match(strData.Str(), line)) << strData.c_str();
}

TEST_F(LogFile_test, Files_ArePrivateToOwnerAndGroup) {
  const HLog hLog = LogInit("zxagent");
  LogPrintStr(hLog, 2, "x");
  LogUninit(hLog);
  EXPECT_EQ(m_home.Mode("log"), 0700u);
  EXPECT_EQ(m_home.Mode("log/zxagent.log"), 0640u);
}

TEST_F(LogFile_test, Channels_WriteTheirOwnFiles) {
  const HLog hMain = LogInit("zxagent");
  const HLog hFlow = LogInit("zxagentflow");
  LogPrintStr(hMain, 2, "main");
  LogPrintStr(hFlow, 2, "flow");
  LogUninit(hMain);
  LogUninit(hFlow);
  EXPECT_THAT(TextsIn("log/zxagent.log"), ElementsAre("main"));
  EXPECT_THAT(TextsIn("log/zxagentflow.log"), ElementsAre("flow"));
}

TEST_F(LogFile_test, Channel_IsShared_UntilItsLastUninit) {
  const HLog hFirst = LogInit("zxagent");
  const HLog hSecond = LogInit("zxagent");
  EXPECT_EQ(hFirst, hSecond);
  LogUninit(hFirst);
  LogPrintStr(hSecond, 2, "still open");
  LogUninit(hSecond);
  EXPECT_THAT(TextsIn("log/zxagent.log"), ElementsAre("still open"));
}

TEST_F(LogFile_test, ClosedChannel_SwallowsItsLines) {
  const HLog hOther = LogInit("other");
  const HLog hLog = LogInit("zxagent");
  LogPrintStr(hLog, 2, "kept");
  LogUninit(hLog);
  LogPrintStr(hLog, 2, "lost");
  LogUninit(hOther);
  LogPrintStr(hLog, 2, "lost as well");
  EXPECT_THAT(TextsIn("log/zxagent.log"), ElementsAre("kept"));
}

TEST_F(LogFile_test, Channel_AppendsWhenItIsOpenedAgain) {
  for (const char* psz : {"first", "second"}) {
    const HLog hLog = LogInit("zxagent");
    EXPECT_TRUE(EventuallyTrue([&] { return HasWriterThread(); }));
    LogPrintStr(hLog, 2, psz);
    LogUninit(hLog);
    EXPECT_FALSE(HasWriterThread());
  }
  EXPECT_THAT(TextsIn("log/zxagent.log"), ElementsAre("first", "second"));
}

TEST_F(LogFile_test, Lines_ReachTheFileWithoutBeingClosed) {
  const HLog hLog = LogInit("zxagent");
  LogPrintStr(hLog, 2, "prompt");
  EXPECT_TRUE(EventuallyTrue([&] {
    return m_home.Exists("log/zxagent.log") &&
           m_home.ReadFile("log/zxagent.log").Find("prompt") != CPString::npos;
  }));
  LogUninit(hLog);
}

TEST_F(LogFile_test, Text_StaysInOnePiece_WithSeveralLines) {
  const HLog hLog = LogInit("zxagent");
  LogPrint(hLog, 2, "first\n%s\nthird\n", "second");
  LogUninit(hLog);
  EXPECT_NE(m_home.ReadFile("log/zxagent.log").Find("] first\nsecond\nthird\n\n"), CPString::npos);
}

TEST_F(LogFile_test, Text_IsCut_OnlyAbove64KiB) {
  const std::string strFits(65536, 'a');
  const std::string strLong(70000, 'b');
  const HLog hLog = LogInit("zxagent");
  LogPrint(hLog, 2, "%s", strFits.c_str());
  LogPrintStr(hLog, 2, strFits.c_str());
  LogPrint(hLog, 2, "%s", strLong.c_str());
  LogPrintStr(hLog, 2, strLong.c_str());
  LogUninit(hLog);
  const std::string strCut = std::string(65536, 'b') + "...[cut, 70000 bytes]";
  const std::vector<std::string> texts = TextsIn("log/zxagent.log");
  ASSERT_EQ(texts.size(), 4u);
  EXPECT_TRUE(texts[0] == strFits);
  EXPECT_TRUE(texts[1] == strFits);
  EXPECT_TRUE(texts[2] == strCut);
  EXPECT_TRUE(texts[3] == strCut);
}

TEST_F(LogFile_test, Files_RotateBySize) {
  m_home.WriteFile("etc/zxlog.json", R"({"max_bytes":4096,"max_files":3})");
  const HLog hLog = LogInit("zxagent");
  constexpr int kLines = 400;
  for (int i = 0; i < kLines; ++i)
    LogPrint(hLog, 2, "line %04d", i);
  LogUninit(hLog);
  EXPECT_FALSE(m_home.Exists("log/zxagent.3.log"));
  std::vector<std::string> texts;
  for (const char* psz : {"log/zxagent.2.log", "log/zxagent.1.log", "log/zxagent.log"}) {
    EXPECT_LE(m_home.ReadFile(psz).GetLength(), 4096u) << psz;
    EXPECT_EQ(m_home.Mode(psz), 0640u) << psz;
    const std::vector<std::string> part = TextsIn(psz);
    texts.insert(texts.end(), part.begin(), part.end());
  }
  // The newest lines without a gap.
  ASSERT_GT(texts.size(), 50u);
  for (size_t u = 0; u < texts.size(); ++u) {
    const int iLine = kLines - static_cast<int>(texts.size() - u);
    EXPECT_EQ(texts[u], CPString::Make("line %04d", iLine).Str());
  }
}

TEST_F(LogFile_test, ALineLargerThanTheFileLimit_IsWrittenWhole) {
  m_home.WriteFile("etc/zxlog.json", R"({"max_bytes":4096,"max_files":2})");
  const std::string strLong(10000, 'x');
  const HLog hLog = LogInit("zxagent");
  LogPrintStr(hLog, 2, "before");
  LogPrintStr(hLog, 2, strLong.c_str());
  LogUninit(hLog);
  EXPECT_THAT(TextsIn("log/zxagent.1.log"), ElementsAre("before"));
  EXPECT_THAT(TextsIn("log/zxagent.log"), ElementsAre(strLong));
}

TEST_F(LogFile_test, AnUnfinishedLine_IsEndedFirst) {
  m_home.WriteFile("log/zxagent.log", "half a line");
  const HLog hLog = LogInit("zxagent");
  LogPrintStr(hLog, 2, "whole");
  LogUninit(hLog);
  EXPECT_THAT(TextsIn("log/zxagent.log"), ElementsAre("half a line", "whole"));
}

TEST_F(LogFile_test, Descriptors_AreClosedOnExec) {
  const HLog hLog = LogInit("zxagent");
  LogPrintStr(hLog, 2, "x");
  // A line is there: the file is open for good, and not on its way to that.
  EXPECT_TRUE(EventuallyTrue(
      [&] { return m_home.Exists("log/zxagent.log") && !m_home.ReadFile("log/zxagent.log").IsEmpty(); }));
  const std::string strCommand = "ls -l /proc/self/fd | grep -q " + m_home.Path("log/").Str();
  EXPECT_NE(system(strCommand.c_str()), 0);  // NOLINT(concurrency-mt-unsafe,cert-env33-c)
  LogUninit(hLog);
}

}  // namespace
