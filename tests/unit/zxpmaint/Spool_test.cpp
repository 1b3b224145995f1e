// The maintenance spool below a home.
#include "zxpmaint/Spool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/doc/PJsonParse.h"
#include "support/FileTree.h"
#include "support/TempHome.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Ne;

class Spool : public ::testing::Test {
 protected:
  Spool() : m_spool(m_home.Root().Str()) {
    for (const char* pszDir : {"policyfile", "policyprocess", "result"})
      m_home.MakeDir(std::string("data/zxpmaint/") + pszDir);
  }
  static std::string Command(const std::string& strScript, const std::string& strID = "maint-1",
                             const std::string& strMore = "") {
    return R"({"ID":")" + strID + R"(","Command":"RunScriptProcess","Param":{"script":")" + strScript + "\"" +
           strMore + "}}";
  }
  void Put(const std::string& strPath, const std::string& strText) {
    m_home.WriteFile("data/zxpmaint/" + strPath, strText);
  }
  std::vector<std::string> Files() const { return FilesBelow(m_home.Root().Str() + "data/zxpmaint"); }
  std::string Result(const std::string& strName, const char* pszMember) const {
    zxtools::CPJsonParse json;
    EXPECT_EQ(json.LoadFile(m_home.Path("data/zxpmaint/result/" + strName)), 1) << strName;
    CPString strValue("(none)");
    if (json.GetNode(pszMember) != nullptr)
      zxtools::CPJsonParse::GetValue(json.GetNode(pszMember), strValue);
    return strValue.Str();
  }

  CTempHome m_home;
  CSpool m_spool;
};

TEST_F(Spool, RunsACommand_AndLeavesItsResult) {
  Put("policyprocess/a.json", Command("echo hello; exit 3"));
  EXPECT_TRUE(m_spool.Run("a.json"));
  EXPECT_THAT(Files(), ElementsAre("result/a.json")) << "no command, no script, nothing half";
  EXPECT_EQ(Result("a.json", "ID"), "maint-1");
  EXPECT_EQ(Result("a.json", "state"), "done");
  EXPECT_EQ(Result("a.json", "exit_code"), "3");
  EXPECT_EQ(Result("a.json", "stdout"), "hello\n");
}

TEST_F(Spool, FindsCommandsOfEitherKind) {
  Put("policyfile/f.json", Command("echo f"));
  Put("policyprocess/p.json", Command("echo p"));
  EXPECT_TRUE(m_spool.Run("f.json"));
  EXPECT_TRUE(m_spool.Run("p.json"));
  EXPECT_THAT(Files(), ElementsAre("result/f.json", "result/p.json"));
}

TEST_F(Spool, RunsACommandOnce) {
  Put("policyprocess/a.json", Command("echo x"));
  EXPECT_TRUE(m_spool.Run("a.json"));
  m_home.Remove("data/zxpmaint/result/a.json");
  EXPECT_FALSE(m_spool.Run("a.json"));
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(Spool, Refuses_WithoutSuchACommand) {
  EXPECT_FALSE(m_spool.Run("missing.json"));
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(Spool, RefusesNamesThatLeadOut) {
  m_home.WriteFile("evil.json", Command("echo x"));
  m_home.WriteFile("data/evil.json", Command("echo x"));
  Put("evil.json", Command("echo x"));
  Put("policyprocess/sub/evil.json", Command("echo x"));
  const std::vector<std::string> before = FilesBelow(m_home.Root().Str());
  for (const std::string& strName :
       {std::string("../evil.json"), std::string("../../evil.json"), std::string("../../../evil.json"),
        std::string("sub/evil.json"), m_home.Root().Str() + "evil.json", std::string(""), std::string("."),
        std::string(".."), std::string("sub"), std::string("a\0b.json", 8), std::string(300, 'n') + ".json"})
    EXPECT_FALSE(m_spool.Run(strName)) << strName;
  EXPECT_EQ(FilesBelow(m_home.Root().Str()), before);
}

TEST_F(Spool, TakesOddNames) {
  for (const char* pszName :
       {"-rf.json", "--watch.json", "$(touch x).json", "a b.json", "'\".json", "\n.json", "..json"}) {
    Put(std::string("policyprocess/") + pszName, Command("echo x"));
    EXPECT_TRUE(m_spool.Run(pszName)) << pszName;
    EXPECT_EQ(Result(pszName, "state"), "done") << pszName;
  }
}

TEST_F(Spool, TakesNamesUpToTheLimitOfTheFileSystem) {
  const std::string strName = std::string(250, 'n') + ".json";
  Put("policyprocess/" + strName, Command("echo x"));
  EXPECT_TRUE(m_spool.Run(strName));
  EXPECT_THAT(Files(), ElementsAre("result/" + strName));
}

// The result goes back under the name of the command's file, whatever its text says.
TEST_F(Spool, DoesNotTrustTheIdInTheText) {
  Put("policyprocess/a.json", Command("echo x", "../../../evil"));
  EXPECT_TRUE(m_spool.Run("a.json"));
  EXPECT_THAT(FilesBelow(m_home.Root().Str()), ElementsAre("data/zxpmaint/result/a.json"));
  EXPECT_EQ(Result("a.json", "ID"), "../../../evil");
}

TEST_F(Spool, AnswersBadCommands) {
  for (const char* pszText : {"", "not json", "{}", R"({"ID":"x","Param":{"script":[]}})",
                              R"({"ID":"x","Param":{"script":"touch ran","timeout_sec":0}})"}) {
    Put("policyprocess/a.json", pszText);
    EXPECT_TRUE(m_spool.Run("a.json")) << pszText;
    EXPECT_THAT(Files(), ElementsAre("result/a.json")) << pszText;
    EXPECT_EQ(Result("a.json", "state"), "failed") << pszText;
    EXPECT_THAT(Result("a.json", "error"), Ne("")) << pszText;
  }
}

TEST_F(Spool, AnswersScriptsThatDoNotStart) {
  Put("policyprocess/a.json", Command("x", "id", R"(,"interpreter":"/no/such")"));
  EXPECT_TRUE(m_spool.Run("a.json"));
  EXPECT_EQ(Result("a.json", "state"), "failed");
  EXPECT_THAT(Result("a.json", "error"), HasSubstr("No such file"));
}

TEST_F(Spool, AnswersScriptsThatTakeTooLong) {
  Put("policyprocess/a.json", Command("sleep 1000", "id", R"(,"timeout_sec":1)"));
  EXPECT_TRUE(m_spool.Run("a.json"));
  EXPECT_EQ(Result("a.json", "state"), "timeout");
}

TEST_F(Spool, CapsTheOutput) {
  Put("policyprocess/a.json", Command("printf 0123456789", "id", R"(,"max_output_bytes":4)"));
  EXPECT_TRUE(m_spool.Run("a.json"));
  EXPECT_EQ(Result("a.json", "stdout"), "0123");
  EXPECT_EQ(Result("a.json", "truncated"), "true");
}

TEST_F(Spool, RunsInAPrivateDirectory) {
  const mode_t maskBefore = umask(0);
  Put("policyprocess/a.json", Command("pwd -P; stat -c %a . .. \\\"$0\\\""));
  EXPECT_TRUE(m_spool.Run("a.json"));
  umask(maskBefore);
  const std::string strOut = Result("a.json", "stdout");
  const std::string strWork =
      std::filesystem::canonical(m_home.Root().Str()).string() + "/data/zxpmaint/running/";
  EXPECT_EQ(strOut.substr(0, strWork.size()), strWork);
  const std::string strModes = strOut.substr(strOut.find('\n') + 1);
  EXPECT_EQ(strModes.substr(0, 8), "700\n700\n") << "the script's directory and the one it lies in";
  EXPECT_THAT(strModes.substr(8), ::testing::AnyOf("600\n", "400\n", "700\n"));
}

TEST_F(Spool, KeepsResultsPrivate) {
  Put("policyprocess/a.json", Command("echo secret"));
  m_home.MakeDir("data/zxpmaint/running", 0777);
  EXPECT_TRUE(m_spool.Run("a.json"));
  EXPECT_EQ(m_home.Mode("data/zxpmaint/result/a.json"), 0600u);
  EXPECT_EQ(m_home.Mode("data/zxpmaint/running"), 0700u);
}

TEST_F(Spool, ReplacesAnOlderResult) {
  Put("result/a.json", "older");
  Put("policyprocess/a.json", Command("echo x"));
  EXPECT_TRUE(m_spool.Run("a.json"));
  EXPECT_THAT(Files(), ElementsAre("result/a.json"));
  EXPECT_EQ(Result("a.json", "stdout"), "x\n");
}

TEST_F(Spool, Fails_WhenTheResultCannotBeWritten) {
  m_home.Remove("data/zxpmaint/result");
  m_home.WriteFile("data/zxpmaint/result", "in the way");
  Put("policyprocess/a.json", Command("echo x"));
  EXPECT_FALSE(m_spool.Run("a.json"));
  EXPECT_FALSE(m_home.Exists("data/zxpmaint/policyprocess/a.json")) << "never run twice";
  EXPECT_FALSE(m_spool.Run("a.json"));
}

// --- What waits.

TEST_F(Spool, Waiting_NamesFiles_OldestFirst) {
  for (const char* pszName : {"b", "a", "c"}) {
    Put(std::string("policyfile/") + pszName + ".json", "{}");
    SetFileTime(m_home.Path(std::string("data/zxpmaint/policyfile/") + pszName + ".json").Str(),
                pszName[0] == 'b'   ? 1000
                : pszName[0] == 'a' ? 2000
                                    : 3000);
  }
  Put("policyfile/d.json.tmp", "{}");
  Put("policyfile/e.txt", "{}");
  Put("policyprocess/p.json", "{}");
  m_home.MakeDir("data/zxpmaint/policyfile/dir.json");
  EXPECT_THAT(m_spool.Waiting(), ElementsAre("b.json", "a.json", "c.json"));
}

TEST_F(Spool, Waiting_IsEmpty_WithoutASpool) {
  m_home.Remove("data");
  EXPECT_THAT(m_spool.Waiting(), IsEmpty());
}
