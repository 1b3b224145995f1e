// The maintenance tool is really started here; a script that records its arguments stands in for it.
#include <unistd.h>

#include "MaintFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class MaintTool : public CMaintTest {
 protected:
  void SetUp() override {
    Init();
    // Arguments, each behind its number and ended by a NUL, appear at once in args/<n>.
    m_home.MakeDir("args");
    m_home.WriteFile(
        "bin/zxpmaint",
        "#!/bin/sh\n"
        "out='" +
            Path("args") +
            "'\n"
            "{ printf '%s\\0' \"$#\"; for a in \"$@\"; do printf '%s\\0' \"$a\"; done; } > \"$out/.$$\"\n"
            "mv \"$out/.$$\" \"$out/$$\"\n",
        0755);
    // A command that breaks out would work in here.
    m_home.MakeDir("cwd");
    m_strCwdBefore = std::filesystem::current_path().string();
    ASSERT_EQ(chdir(Path("cwd").c_str()), 0);
  }
  void TearDown() override { EXPECT_EQ(chdir(m_strCwdBefore.c_str()), 0); }

  // What the tool was given; waits until it ran.
  std::vector<std::string> Arguments() {
    std::vector<std::string> files;
    EXPECT_TRUE(EventuallyTrue([&] {
      files = FilesBelow(Path("args"));
      return files.size() == 1 && files[0][0] != '.';
    })) << "the tool did not run";
    if (files.empty())
      return {};
    const std::string strText = m_home.ReadFile("args/" + files[0]).Str();
    m_home.Remove("args/" + files[0]);
    std::vector<std::string> arguments;
    for (size_t uBegin = 0; uBegin < strText.size();) {
      const size_t uEnd = strText.find('\0', uBegin);
      arguments.push_back(strText.substr(uBegin, uEnd - uBegin));
      uBegin = uEnd + 1;
    }
    return arguments;
  }

 private:
  std::string m_strCwdBefore;
};

TEST_F(MaintTool, IsStarted_WithTheNameOfTheCommandFile) {
  EXPECT_EQ(m_maint.ForwardMsg(0x2a, "RunScriptProcess", "id-1", "{}"), 1);
  EXPECT_THAT(Arguments(), ElementsAre("1", "id-1.json"));
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentMaint::DisposeMaintMsg CreateProcess iRet[0] u64DataId[2a] strCmd[" +
                          Path("bin/zxpmaint \"id-1.json\" &") + "] strID[id-1]"),
            2);
}

TEST_F(MaintTool, IsNotStarted_ForFiles) {
  EXPECT_EQ(m_maint.ForwardMsg(1, "RunScriptFile", "id-1", "{}"), 1);
  EXPECT_EQ(m_log.Count("CreateProcess"), 0u);
}

TEST_F(MaintTool, IsNotStarted_WhenNothingWasSpooled) {
  m_home.Remove("data/zxpmaint/policyprocess");
  EXPECT_EQ(m_maint.ForwardMsg(1, "RunScriptProcess", "id-1", "{}"), 0);
  EXPECT_EQ(m_log.Count("CreateProcess"), 0u);
}

TEST_F(MaintTool, MayBeMissing) {
  m_home.Remove("bin/zxpmaint");
  EXPECT_EQ(m_maint.ForwardMsg(1, "RunScriptProcess", "id-1", "{}"), 1);
  EXPECT_EQ(m_log.Count("CreateProcess iRet["), 1u);
  EXPECT_TRUE(m_home.Exists("data/zxpmaint/policyprocess/id-1.json"));
}

TEST_F(MaintTool, FindsTheCommandComplete_WhenItStarts) {
  m_home.WriteFile("bin/zxpmaint",
                   "#!/bin/sh\ncat '" + Path("data/zxpmaint/policyprocess/") + "'\"$1\" > '" +
                       Path("args/.x") + "'\nmv '" + Path("args/.x") + "' '" + Path("args/x") + "'\n",
                   0755);
  const std::string strText = "{\"text\":\"" + std::string(50000, 'x') + "\"}";
  EXPECT_EQ(m_maint.ForwardMsg(1, "RunScriptProcess", "id-1", strText.c_str()), 1);
  ASSERT_TRUE(EventuallyTrue([this] { return m_home.Exists("args/x"); }));
  EXPECT_EQ(m_home.ReadFile("args/x"), strText);
}

TEST_F(MaintTool, GetsHostileIds_AsOneArgument) {
  for (const char* pszID : {"$(touch x)",
                            "`touch x`",
                            "$(touch$IFS\"x\")",
                            "a\";touch x;\"",
                            "a\" & touch x & \"",
                            "a';touch x;'",
                            "a\ntouch x\n",
                            "\"\ntouch x\n\"",
                            "-",
                            "-rf",
                            "--help",
                            "a b",
                            " a ",
                            "\\",
                            "a\\",
                            "\\\"",
                            "\\$(touch x)",
                            "$HOME",
                            "${x:-y}",
                            "*",
                            "?",
                            "~",
                            "!!",
                            "#",
                            "a;touch x",
                            "a&touch x",
                            "a|touch x",
                            "a>x",
                            "<x",
                            "a\tb",
                            "\r",
                            "\x01",
                            "\xff\xfe",
                            "%s%n",
                            "(touch x)",
                            "{touch,x}",
                            "\xe2\x80\xae"}) {
    EXPECT_EQ(m_maint.ForwardMsg(1, "RunScriptProcess", pszID, "{}"), 1) << pszID;
    EXPECT_THAT(Arguments(), ElementsAre("1", std::string(pszID) + ".json")) << pszID;
    EXPECT_TRUE(m_home.Exists(std::string("data/zxpmaint/policyprocess/") + pszID + ".json")) << pszID;
  }
  EXPECT_THAT(FilesBelow(Path("cwd")), IsEmpty()) << "an id was run as a command";
}

TEST_F(MaintTool, DoesNotHoldTheAgentUp) {
  m_home.WriteFile("bin/zxpmaint",
                   "#!/bin/sh\nread line < '" + Path("go") + "'\necho done > '" + Path("args/done") + "'\n",
                   0755);
  ASSERT_EQ(mkfifo(Path("go").c_str(), 0600), 0);
  EXPECT_EQ(m_maint.ForwardMsg(1, "RunScriptProcess", "id-1", "{}"), 1) << "while the tool still runs";
  EXPECT_FALSE(m_home.Exists("args/done"));
  const int iGo = open(Path("go").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(iGo, 0);
  EXPECT_EQ(write(iGo, "\n", 1), 1);
  close(iGo);
  EXPECT_TRUE(EventuallyTrue([this] { return m_home.Exists("args/done"); }));
}
