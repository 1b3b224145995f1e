#include "zxpmaint/ScriptRunner.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/TempHome.h"

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::HasSubstr;
using ::testing::Lt;
using ::testing::StartsWith;

using EState = CScriptResult::EState;

class ScriptRunner : public ::testing::Test {
 protected:
  CScriptResult Run(const std::string& strText) {
    m_script.strText = strText;
    return RunScript(m_script, m_home.Root().Str());
  }
  // Gives the script as little time as it needs to get where it says it is: it leaves a file strReady there.
  CScriptResult RunOut(const std::string& strText, const std::string& strReady) {
    CScriptResult result;
    for (m_script.uTimeoutMs = 250; m_script.uTimeoutMs <= 16000; m_script.uTimeoutMs *= 2) {
      result = Run(strText);
      if (m_home.Exists(strReady))
        break;
    }
    return result;
  }
  std::string File(const std::string& strName) const { return m_home.Root().Str() + strName; }
  // The process whose number the script left in a file; 0 when there is none.
  pid_t Pid(const std::string& strName) const {
    return m_home.Exists(strName) ? static_cast<pid_t>(std::atoi(m_home.ReadFile(strName).c_str())) : 0;
  }
  static bool Gone(pid_t pid) { return pid > 1 && kill(pid, 0) != 0 && errno == ESRCH; }

  CTempHome m_home;
  CScript m_script;
};

TEST_F(ScriptRunner, ReportsOutputAndExitCode) {
  const CScriptResult result = Run("echo out; echo err >&2; exit 7");
  EXPECT_EQ(result.eState, EState::Done);
  EXPECT_EQ(result.iExitCode, 7);
  EXPECT_EQ(result.iSignal, 0);
  EXPECT_EQ(result.iError, 0);
  EXPECT_EQ(result.strStdout, "out\n");
  EXPECT_EQ(result.strStderr, "err\n");
  EXPECT_FALSE(result.bTruncated);
}

TEST_F(ScriptRunner, ReportsTheSignalThatEndedTheScript) {
  const CScriptResult result = Run("kill -9 $$");
  EXPECT_EQ(result.eState, EState::Done);
  EXPECT_EQ(result.iSignal, 9);
  EXPECT_EQ(result.iExitCode, -1);
}

TEST_F(ScriptRunner, PassesArgumentsAsTheyAre) {
  m_script.args = {"a b", "", "$(exit 3)", "'\"\n", "-x", "\xff"};
  const CScriptResult result = Run("printf '%s|' \"$#\" \"$@\"");
  EXPECT_EQ(result.strStdout, "6|a b||$(exit 3)|'\"\n|-x|\xff|");
}

TEST_F(ScriptRunner, RunsAnyInterpreter) {
  m_script.strInterpreter = "/bin/cat";
  const CScriptResult result = Run("the text itself");
  EXPECT_EQ(result.strStdout, "the text itself");
}

TEST_F(ScriptRunner, Fails_WithoutItsInterpreter) {
  m_script.strInterpreter = "/no/such/interpreter";
  CScriptResult result = Run("exit 0");
  EXPECT_EQ(result.eState, EState::Failed);
  EXPECT_EQ(result.iError, ENOENT);
  EXPECT_EQ(result.iExitCode, -1);
  m_script.strInterpreter = m_home.Root().c_str();
  result = Run("exit 0");
  EXPECT_EQ(result.eState, EState::Failed);
  EXPECT_EQ(result.iError, EACCES);
}

TEST_F(ScriptRunner, Fails_WithoutItsDirectory) {
  m_script.strText = "exit 0";
  const CScriptResult result = RunScript(m_script, File("missing"));
  EXPECT_EQ(result.eState, EState::Failed);
  EXPECT_EQ(result.iError, ENOENT);
}

TEST_F(ScriptRunner, RunsInItsDirectory_WithASmallEnvironment) {
  ASSERT_EQ(setenv("ZX_SECRET", "secret", 1), 0);
  ASSERT_EQ(setenv("LD_PRELOAD_X", "secret", 1), 0);
  m_script.strInterpreter = "/bin/cat";
  m_script.args = {"/proc/self/environ"};
  const CScriptResult result = Run("");
  std::vector<std::string> names;
  for (size_t uBegin = 0; uBegin < result.strStdout.size();) {
    const size_t uEnd = result.strStdout.find('\0', uBegin);
    const std::string strEntry = result.strStdout.substr(uBegin, uEnd - uBegin);
    names.push_back(strEntry.substr(0, strEntry.find('=')));
    uBegin = uEnd + 1;
  }
  EXPECT_THAT(names, ::testing::UnorderedElementsAre("PATH", "HOME", "LANG"));
  m_script = CScript();
  EXPECT_THAT(Run("cd .. && cd - >/dev/null; pwd; echo \"$HOME\"").strStdout,
              StartsWith(m_home.Root().Left(m_home.Root().GetLength() - 1).Str()));
  unsetenv("ZX_SECRET");
  unsetenv("LD_PRELOAD_X");
}

TEST_F(ScriptRunner, HasNoInput) {
  EXPECT_EQ(Run("cat; echo end").strStdout, "end\n");
}

TEST_F(ScriptRunner, InheritsNoOpenFile) {
  const int iFile = open("/dev/null", O_RDONLY);  // without O_CLOEXEC on purpose
  ASSERT_GE(iFile, 0);
  ASSERT_EQ(dup2(iFile, 77), 77);
  EXPECT_EQ(Run("[ -e /proc/$$/fd/77 ] && echo leaked || echo closed").strStdout, "closed\n");
  close(77);
  close(iFile);
}

TEST_F(ScriptRunner, HasOrdinarySignals) {
  const auto pfnBefore = signal(SIGPIPE, SIG_IGN);
  sigset_t mask;
  sigset_t maskBefore;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  sigprocmask(SIG_BLOCK, &mask, &maskBefore);
  const std::string strStatus = Run("grep -E '^Sig(Blk|Ign)' /proc/self/status").strStdout;
  unsigned long long ullBlocked = 1;
  unsigned long long ullIgnored = 1;
  ASSERT_EQ(std::sscanf(strStatus.c_str(), "SigBlk: %llx SigIgn: %llx", &ullBlocked, &ullIgnored), 2);
  // Signals 32 and 33 belong to the C library, which lets nobody set them; whoever started us may ignore
  // them.
  constexpr unsigned long long kOfTheCLibrary = 0x180000000;
  EXPECT_EQ(ullBlocked & ~kOfTheCLibrary, 0u);
  EXPECT_EQ(ullIgnored & ~kOfTheCLibrary, 0u);
  sigprocmask(SIG_SETMASK, &maskBefore, nullptr);
  signal(SIGPIPE, pfnBefore);
}

TEST_F(ScriptRunner, TakesLargeScripts) {
  EXPECT_EQ(Run("#" + std::string(1u << 20, 'x') + "\necho end\n").strStdout, "end\n");
}

// --- Output.

TEST_F(ScriptRunner, KeepsTheBeginningOfEachStream) {
  m_script.uMaxOutputBytes = 1000;
  const CScriptResult result =
      Run("printf begin; head -c 3000000 /dev/zero; printf ERR >&2; head -c 3000000 /dev/zero >&2; exit 3");
  EXPECT_EQ(result.eState, EState::Done);
  EXPECT_EQ(result.iExitCode, 3) << "the rest was read, so the script came to its end";
  EXPECT_EQ(result.strStdout.size(), 1000u);
  EXPECT_EQ(result.strStderr.size(), 1000u);
  EXPECT_EQ(result.strStdout.substr(0, 5), "begin");
  EXPECT_EQ(result.strStderr.substr(0, 3), "ERR");
  EXPECT_TRUE(result.bTruncated);
}

TEST_F(ScriptRunner, DoesNotTruncateWhatJustFits) {
  m_script.uMaxOutputBytes = 10;
  CScriptResult result = Run("printf 0123456789; printf 0123456789 >&2");
  EXPECT_EQ(result.strStdout, "0123456789");
  EXPECT_EQ(result.strStderr, "0123456789");
  EXPECT_FALSE(result.bTruncated);
  result = Run("printf 01234567890");
  EXPECT_EQ(result.strStdout, "0123456789");
  EXPECT_TRUE(result.bTruncated);
}

TEST_F(ScriptRunner, KeepsEveryByte) {
  EXPECT_EQ(Run("printf 'a\\000b\\377c'").strStdout, std::string("a\0b\xff"
                                                                 "c",
                                                                 5));
}

// --- Time and everything that was started.

TEST_F(ScriptRunner, IsKilled_WhenItsTimeIsOver) {
  const CScriptResult result =
      RunOut("echo $$ > pid; echo before; : > ready; sleep 1000; echo after", "ready");
  EXPECT_EQ(result.eState, EState::Timeout);
  EXPECT_EQ(result.strStdout, "before\n") << "what it said until then is kept";
  EXPECT_THAT(result.u64DurationMs, AllOf(Ge(250u), Lt(20000u)));
  EXPECT_TRUE(Gone(Pid("pid")));
}

TEST_F(ScriptRunner, IsKilled_AlsoWhenItIgnoresSignals) {
  const CScriptResult result =
      RunOut("trap '' TERM INT HUP; echo $$ > pid; : > ready; while :; do sleep 1000; done", "ready");
  EXPECT_EQ(result.eState, EState::Timeout);
  EXPECT_TRUE(Gone(Pid("pid")));
}

TEST_F(ScriptRunner, IsKilled_AlsoWhenItClosesItsOutput) {
  const CScriptResult result = RunOut("echo $$ > pid; exec >&- 2>&-; : > ready; sleep 1000", "ready");
  EXPECT_EQ(result.eState, EState::Timeout);
  EXPECT_TRUE(Gone(Pid("pid")));
}

TEST_F(ScriptRunner, IsKilled_WhileItFloodsItsOutput) {
  const CScriptResult result = RunOut("head -c 1000000 /dev/zero; : > ready; yes", "ready");
  EXPECT_EQ(result.eState, EState::Timeout);
  EXPECT_TRUE(result.bTruncated);
}

TEST_F(ScriptRunner, TakesItsWholeGroupAlong) {
  const CScriptResult result = RunOut(
      "sleep 1000 & echo $! > child; (sh -c 'echo $$ > grandchild; : > ready; sleep 1000' & wait) & sleep 1000",
      "ready");
  EXPECT_EQ(result.eState, EState::Timeout);
  EXPECT_TRUE(Gone(Pid("child")));
  EXPECT_TRUE(Gone(Pid("grandchild")));
}

TEST_F(ScriptRunner, TakesDescendantsAlong_ThatLeftTheGroup) {
  const CScriptResult result = RunOut(
      "rm -f own daemon; setsid sh -c 'echo $$ > own; trap \"\" TERM HUP; while :; do sleep 1000; done' &\n"
      "setsid sh -c 'setsid sh -c \"echo \\$\\$ > daemon; exec sleep 1000 >/dev/null 2>&1\" & exit' &\n"
      "while [ ! -s own ] || [ ! -s daemon ]; do sleep 0.01; done\n"
      "echo ready; : > ready; sleep 1000",
      "ready");
  EXPECT_EQ(result.eState, EState::Timeout);
  EXPECT_EQ(result.strStdout, "ready\n");
  EXPECT_TRUE(Gone(Pid("own")));
  EXPECT_TRUE(Gone(Pid("daemon")));
}

TEST_F(ScriptRunner, LeavesNobodyBehind_WhenItEndsByItself) {
  m_script.uTimeoutMs = 60000;
  const CScriptResult result =
      Run("sleep 1000 & echo $! > child\n"
          "setsid sh -c 'echo $$ > own; sleep 1000' &\n"
          "setsid sh -c 'setsid sh -c \"echo \\$\\$ > daemon; exec sleep 1000 >/dev/null 2>&1\" & exit' &\n"
          "while [ ! -s own ] || [ ! -s daemon ]; do sleep 0.01; done\n"
          "echo done; exit 4");
  EXPECT_EQ(result.eState, EState::Done) << "although others hold its output open";
  EXPECT_EQ(result.iExitCode, 4);
  EXPECT_EQ(result.strStdout, "done\n");
  EXPECT_LT(result.u64DurationMs, 30000u);
  EXPECT_TRUE(Gone(Pid("child")));
  EXPECT_TRUE(Gone(Pid("own")));
  EXPECT_TRUE(Gone(Pid("daemon")));
}

TEST_F(ScriptRunner, CanRunAgain) {
  m_script.uTimeoutMs = 100;
  EXPECT_EQ(Run("sleep 1000").eState, EState::Timeout);
  m_script.uTimeoutMs = 60000;
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(Run("echo again").strStdout, "again\n");
}
