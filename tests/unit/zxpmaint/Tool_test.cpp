// The tool as a process in a home of its own, alone and under the agent.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "maint/MaintFixture.h"
#include "platform/doc/PJsonParse.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Ne;
using ::testing::Not;

class MaintToolProcess : public CMaintTest {
 protected:
  void SetUp() override {
    Init();
    m_home.MakeDir("bin");
    std::filesystem::copy_file(ZX_MAINT_TOOL, Path("bin/zxpmaint"));
  }
  static std::string Command(const std::string& strScript) {
    return R"({"ID":"maint-1","Param":{"script":")" + strScript + "\"}}";
  }
  void Put(const std::string& strPath, const std::string& strText) {
    m_home.WriteFile("data/zxpmaint/" + strPath, strText);
  }
  // Starts the tool; what it writes to stderr is appended to the file "err".
  pid_t Start(std::vector<std::string> arguments) const {
    const std::string strTool = Path(m_home.Exists("bin") ? "bin/zxpmaint" : "elsewhere/bin/zxpmaint");
    const std::string strErr = Path("err");
    arguments.insert(arguments.begin(), strTool);
    std::vector<char*> argv;
    for (std::string& strArgument : arguments)
      argv.push_back(strArgument.data());
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
      const int iErr = open(strErr.c_str(), O_CREAT | O_APPEND | O_WRONLY | O_CLOEXEC, 0644);
      dup2(iErr, STDERR_FILENO);
      dup2(iErr, STDOUT_FILENO);
      execv(strTool.c_str(), argv.data());
      _exit(127);
    }
    return pid;
  }
  // Its exit code; 128 and the signal when one ended it.
  static int Wait(pid_t pid) {
    int iStatus = 0;
    EXPECT_EQ(waitpid(pid, &iStatus, 0), pid);
    return WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : 128 + WTERMSIG(iStatus);
  }
  int Run(const std::vector<std::string>& arguments) const { return Wait(Start(arguments)); }
  std::string Result(const std::string& strName, const char* pszMember) const {
    zxtools::CPJsonParse json;
    EXPECT_EQ(json.LoadFile(Path("data/zxpmaint/result/" + strName)), 1) << strName;
    CPString strValue("(none)");
    if (json.GetNode(pszMember) != nullptr)
      zxtools::CPJsonParse::GetValue(json.GetNode(pszMember), strValue);
    return strValue.Str();
  }
};

TEST_F(MaintToolProcess, RunsTheCommandNamed) {
  Put("policyprocess/a.json", Command("echo hello"));
  EXPECT_EQ(Run({"a.json"}), 0);
  EXPECT_EQ(Result("a.json", "stdout"), "hello\n");
  EXPECT_THAT(FilesBelow(Path("data/zxpmaint")), ElementsAre("result/a.json"));
}

TEST_F(MaintToolProcess, Succeeds_AlsoWhenTheScriptFails) {
  Put("policyprocess/a.json", Command("exit 9"));
  EXPECT_EQ(Run({"a.json"}), 0) << "the result says it";
  EXPECT_EQ(Result("a.json", "exit_code"), "9");
}

TEST_F(MaintToolProcess, Fails_WithoutSuchACommand) {
  EXPECT_NE(Run({"missing.json"}), 0);
  EXPECT_THAT(m_home.ReadFile("err").Str(), HasSubstr("missing.json"));
  EXPECT_NE(Run({"../../etc/passwd"}), 0);
  EXPECT_NE(Run({""}), 0);
  EXPECT_NE(Run({}), 0);
  EXPECT_THAT(FilesBelow(Path("data")), IsEmpty());
}

TEST_F(MaintToolProcess, TakesNames_ThatLookLikeOptions) {
  for (const char* pszName : {"-rf.json", "--help.json", "-.json", "--watch.json", "--.json", "-h.json"}) {
    Put(std::string("policyprocess/") + pszName, Command("echo x"));
    EXPECT_EQ(Run({pszName}), 0) << pszName << ": " << m_home.ReadFile("err").c_str();
    EXPECT_EQ(Result(pszName, "state"), "done") << pszName;
  }
}

TEST_F(MaintToolProcess, LeavesOneCommandToOneTool) {
  Put("policyprocess/a.json", Command("echo ran >> " + Path("ran")));
  std::vector<pid_t> tools;
  for (int i = 0; i < 8; ++i)
    tools.push_back(Start({"a.json"}));
  int iRan = 0;
  for (const pid_t pid : tools)
    iRan += Wait(pid) == 0 ? 1 : 0;
  EXPECT_EQ(iRan, 1);
  EXPECT_EQ(m_home.ReadFile("ran"), "ran\n");
  EXPECT_THAT(FilesBelow(Path("data/zxpmaint")), ElementsAre("result/a.json"));
}

TEST_F(MaintToolProcess, LeavesNoProcessBehind) {
  Put("policyprocess/a.json", Command("setsid sh -c 'echo $$ > " + Path("pid") +
                                      "; exec sleep 1000 > /dev/null 2>&1' & while [ ! -s " + Path("pid") +
                                      " ]; do sleep 0.01; done"));
  EXPECT_EQ(Run({"a.json"}), 0);
  const pid_t pid = static_cast<pid_t>(std::atoi(m_home.ReadFile("pid").c_str()));
  ASSERT_GT(pid, 1);
  EXPECT_NE(kill(pid, 0), 0);
}

TEST_F(MaintToolProcess, Watches_UntilItIsStopped) {
  Put("policyfile/a.json", Command("echo a"));
  const pid_t pid = Start({"--watch", "1"});
  EXPECT_TRUE(EventuallyTrue([this] { return m_home.Exists("data/zxpmaint/result/a.json"); }));
  Put("policyfile/tmp", Command("echo b"));  // complete before it has its name
  std::filesystem::rename(Path("data/zxpmaint/policyfile/tmp"), Path("data/zxpmaint/policyfile/b.json"));
  EXPECT_TRUE(EventuallyTrue([this] { return m_home.Exists("data/zxpmaint/result/b.json"); }));
  EXPECT_EQ(kill(pid, SIGTERM), 0);
  EXPECT_EQ(Wait(pid), 0);
  EXPECT_THAT(FilesBelow(Path("data/zxpmaint")), ElementsAre("result/a.json", "result/b.json"));
}

TEST_F(MaintToolProcess, Scans_WhatWaits_AndEnds) {
  for (const char* pszName : {"a", "b"})
    Put(std::string("policyfile/") + pszName + ".json", Command("echo x"));
  Put("policyprocess/p.json", Command("echo x"));
  EXPECT_EQ(Run({"--scan"}), 0);
  EXPECT_THAT(FilesBelow(Path("data/zxpmaint")),
              ElementsAre("policyprocess/p.json", "result/a.json", "result/b.json"));
  EXPECT_EQ(Run({"--scan"}), 0) << "nothing waits";
}

TEST_F(MaintToolProcess, ServesAnotherHome) {
  Put("policyprocess/a.json", Command("echo x"));
  m_home.MakeDir("elsewhere");
  std::filesystem::rename(Path("bin"), Path("elsewhere/bin"));
  std::string strHome = Path("");
  strHome.pop_back();
  EXPECT_EQ(Run({"--home", strHome, "a.json"}), 0);
  EXPECT_EQ(Result("a.json", "state"), "done");
}

TEST_F(MaintToolProcess, Watches_SurvivesBadCommands) {
  Put("policyfile/bad.json", "not json");
  SetFileTime(Path("data/zxpmaint/policyfile/bad.json"), 1000);
  Put("policyfile/good.json", Command("echo good"));
  const pid_t pid = Start({"--watch", "1"});
  EXPECT_TRUE(EventuallyTrue([this] { return m_home.Exists("data/zxpmaint/result/good.json"); }));
  EXPECT_EQ(Result("bad.json", "state"), "failed");
  EXPECT_EQ(kill(pid, SIGTERM), 0);
  EXPECT_EQ(Wait(pid), 0);
}

// --- Under the agent.

TEST_F(MaintToolProcess, AnswersTheAgent) {
  const std::string strID = "$(id) -x \"1\"";
  EXPECT_EQ(m_maint.ForwardMsg(1, "RunScriptProcess", strID, Command("echo hello").c_str()), 1);
  ASSERT_TRUE(EventuallyTrue([&] { return m_home.Exists("data/zxpmaint/result/" + strID + ".json"); }));
  m_pauses.Permit(20);
  ASSERT_TRUE(EventuallyTrue([this] { return !m_hub.Texts().empty(); }));
  EXPECT_THAT(m_hub.Texts(), ElementsAre(HasSubstr(R"("stdout":"hello\n")")));
  EXPECT_TRUE(EventuallyTrue([this] { return FilesBelow(Path("data/zxpmaint")).empty(); }));
}

TEST_F(MaintToolProcess, RunsForTheAgent_WithNamesThatLookLikeOptions) {
  EXPECT_EQ(m_maint.ForwardMsg(1, "RunScriptProcess", "-rf", Command("echo hello").c_str()), 1);
  EXPECT_TRUE(EventuallyTrue([this] { return m_home.Exists("data/zxpmaint/result/-rf.json"); }));
}
