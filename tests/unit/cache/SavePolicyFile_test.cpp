#include <unistd.h>

#include <atomic>
#include <thread>

#include "CacheFixture.h"

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

class SavePolicyFile : public CCacheTest {};

TEST_F(SavePolicyFile, Init_TakesTheHome) {
  EXPECT_EQ(m_cache.Init(m_home.Root()), 1);
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentCache::Init m_strPath[" + m_home.Root().Str() + "]"), 2);
}

TEST_F(SavePolicyFile, Init_RefusesAnEmptyHome) {
  EXPECT_EQ(m_cache.Init(""), 0);
  EXPECT_THAT(m_log.Lines(), ElementsAre("*zxagent CAgentCache::Init Error strHomePath is empty"));
  EXPECT_EQ(m_log.Entries()[0].iLevel, 3);
}

TEST_F(SavePolicyFile, RefusesMissingTexts_InOrder) {
  Load("");
  EXPECT_EQ(m_cache.SavePolicyFile(0x2a, "", "", "", "", nullptr, 0), 0);
  EXPECT_EQ(m_cache.SavePolicyFile(0x2a, "id", "", "", "", nullptr, 0), 0);
  EXPECT_EQ(m_cache.SavePolicyFile(0x2b, "id", "", "", "", "", 0), 0);
  EXPECT_EQ(m_cache.SavePolicyFile(0x2a, "id", "", "C", "cmd", "not json", 0), 0);
  EXPECT_EQ(m_cache.SavePolicyFile(0x2a, "id", "P", "", "cmd", "not json", 0), 0);
  EXPECT_EQ(m_cache.SavePolicyFile(0x2a, "id", "P", "C", "", "not json", 0), 0);
  const std::string strEmpty = "*zxagent CAgentCache::SavePolicyCache Error empty u64DataId[2a] ";
  EXPECT_THAT(m_log.Lines(),
              ElementsAre("*zxagent CAgentCache::SavePolicyCache Error strID is empty u64DataId[2a]",
                          "*zxagent CAgentCache::SavePolicyCache Error lpszMsg is empty u64DataId[2a]",
                          "*zxagent CAgentCache::SavePolicyCache Error lpszMsg is empty u64DataId[2b]",
                          strEmpty + "strProduct[] strCombo[C] strCommand[cmd]",
                          strEmpty + "strProduct[P] strCombo[] strCommand[cmd]",
                          strEmpty + "strProduct[P] strCombo[C] strCommand[]"));
  for (const CLogCapture::CEntry& entry : m_log.Entries())
    EXPECT_EQ(entry.iLevel, 3) << entry.strText;
  EXPECT_THAT(Cached(), IsEmpty());
}

TEST_F(SavePolicyFile, RefusesWhatIsNoJson) {
  Load("");
  for (const char* pszMsg : {"not json", "{]", "{\"ID\":1} x"}) {
    m_log.Clear();
    EXPECT_EQ(m_cache.SavePolicyFile(0x2a, "id", "Scan", "One", "cmd", pszMsg, 0), 0) << pszMsg;
    ASSERT_EQ(m_log.Lines().size(), 1u) << pszMsg;
    EXPECT_THAT(m_log.Lines()[0], StartsWith("*zxagent CAgentCache::SavePolicyCache LoadBuffer error["));
    EXPECT_THAT(m_log.Lines()[0], EndsWith(std::string("] lpszMsg[") + pszMsg + "]"));
    EXPECT_EQ(m_log.Entries()[0].iLevel, 3);
  }
  EXPECT_THAT(Cached(), IsEmpty());
}

TEST_F(SavePolicyFile, LogsTheSizeOfALargeRefusedText) {
  Load("");
  EXPECT_EQ(m_cache.SavePolicyFile(1, "id", "Scan", "One", "cmd", std::string(1u << 20, '[').c_str(), 0), 0);
  ASSERT_EQ(m_log.Lines().size(), 1u);
  EXPECT_LT(m_log.Lines()[0].size(), 10000u);
}

TEST_F(SavePolicyFile, KeepsTheDocument_WithTheVerdictAtTheRoot) {
  Load("");
  const char* pszMsg =
      R"({"ID":"id-1","Command":"doIt","n":12345678901234,"f":1.25,"list":[1,"x",null],"o":{"b":true}})";
  EXPECT_EQ(m_cache.SavePolicyFile(1, "id-1", "Scan", "One", "doIt", pszMsg, 0), 1);
  ASSERT_THAT(Cached(), ElementsAre("Scan_One/policy/doIt.json"));

  zxtools::CPJsonParse expect;
  ASSERT_EQ(expect.LoadBuffer(pszMsg), 1);
  ASSERT_EQ(expect.AddNodeBool(nullptr, "Result_Agent_Taskmgr", 0), 1);
  CPString strExpect;
  ASSERT_EQ(expect.GetJsonStr(strExpect, true), 1);
  EXPECT_EQ(Text("Scan_One/policy/doIt.json"), strExpect.Str()) << "formatted, members in their order";
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentCache::SaveFileCache ZxSaveFileData OK strFile[" +
                          Path("data/policy/agentcache/Scan_One/policy/doIt.json") + "]"),
            2);
}

TEST_F(SavePolicyFile, WritesTheCallersVerdict) {
  Load("");
  EXPECT_EQ(Save("1", "a", 0), 1);
  EXPECT_EQ(Save("1", "b", 1), 1);
  EXPECT_EQ(Save("1", "c", 7), 1);
  EXPECT_EQ(Verdict("Scan_One/policy/a.json"), "false");
  EXPECT_EQ(Verdict("Scan_One/policy/b.json"), "true");
  EXPECT_EQ(Verdict("Scan_One/policy/c.json"), "true");
}

// A cloud that names the member itself does not decide what the agent reports.
TEST_F(SavePolicyFile, ReplacesAVerdictThatIsAlreadyThere) {
  Load("");
  for (const char* pszValue : {"true", "\"yes\"", "[1,2]", "{\"a\":1}", "null"}) {
    const std::string strMsg = std::string(R"({"Result_Agent_Taskmgr":)") + pszValue + R"(,"ID":"1"})";
    EXPECT_EQ(m_cache.SavePolicyFile(1, "1", "Scan", "One", "cmd", strMsg.c_str(), 0), 1) << pszValue;
    const std::string strText = Text("Scan_One/policy/cmd.json");
    EXPECT_EQ(Verdict("Scan_One/policy/cmd.json"), "false") << pszValue;
    EXPECT_EQ(strText.find("Result_Agent_Taskmgr"), strText.rfind("Result_Agent_Taskmgr")) << strText;
  }
}

TEST_F(SavePolicyFile, OverwritesTheCopyOfTheSameCommand) {
  Load(Conf("Scan", "Two", "cmd", 3));  // a task of another combo only
  EXPECT_EQ(m_cache.SavePolicyFile(1, "first", "Scan", "One", "cmd",
                                   R"({"ID":"first","long":"0123456789012345678901234567890"})", 1),
            1);
  EXPECT_EQ(Save("second", "cmd"), 1);
  EXPECT_THAT(Cached(), ElementsAre("Scan_One/policy/cmd.json"));
  EXPECT_THAT(Text("Scan_One/policy/cmd.json"), HasSubstr("\"second\""));
  EXPECT_THAT(Text("Scan_One/policy/cmd.json"), Not(HasSubstr("first")));
  EXPECT_EQ(Verdict("Scan_One/policy/cmd.json"), "false");
}

TEST_F(SavePolicyFile, NamesTheCopyAsTheCommandIsWritten) {
  Load("");
  EXPECT_EQ(m_cache.SavePolicyFile(1, "1", "SCAN", "oNe", "MixedCase", R"({"ID":"1"})", 0), 1);
  EXPECT_THAT(Cached(), ElementsAre("SCAN_oNe/policy/MixedCase.json"));
}

TEST_F(SavePolicyFile, KeepsOneCopyPerTask) {
  Load(Conf("Scan", "One", "cmd", 5));
  EXPECT_EQ(Save("id-1", "cmd"), 1);
  EXPECT_EQ(Save("id-2", "CMD"), 1) << "the command of the configuration is compared without regard to case";
  EXPECT_EQ(Save("id-1", "other"), 1);
  EXPECT_THAT(Cached(), ElementsAre("Scan_One/policy/other.json", "Scan_One/task/CMD_id-2.json",
                                    "Scan_One/task/cmd_id-1.json"));
}

TEST_F(SavePolicyFile, CreatesItsDirectories) {
  Load("");
  const mode_t maskBefore = umask(077);
  EXPECT_EQ(Save("1", "cmd"), 1);
  umask(maskBefore);
  for (const char* pszDir : {"data/policy", "data/policy/agentcache", "data/policy/agentcache/Scan_One",
                             "data/policy/agentcache/Scan_One/policy"})
    EXPECT_EQ(m_home.Mode(pszDir), 0755u) << pszDir;
}

TEST_F(SavePolicyFile, AnswersOne_WhenTheCopyCannotBeWritten) {
  Load("");
  m_home.WriteFile("data", "in the way");
  EXPECT_EQ(Save("1", "cmd"), 1);
  ASSERT_EQ(m_log.Lines().size(), 2u);
  EXPECT_EQ(m_log.LevelOf("*zxagent CAgentCache::SaveFileCache Error CreateDirectory strPath[" +
                          Path("data/policy/agentcache/Scan_One/policy") + "] Error[20]"),
            3);
  EXPECT_THAT(
      m_log.Lines()[1],
      StartsWith("*zxagent CAgentCache::SaveFileCache ZxSaveFileData error[20][Not a directory] strFile[" +
                 Path("data/policy/agentcache/Scan_One/policy/cmd.json") + "] strFomatJson[{"));
  EXPECT_EQ(m_log.Entries()[1].iLevel, 3);
  EXPECT_EQ(m_home.ReadFile("data"), "in the way");
}

TEST_F(SavePolicyFile, AnswersOne_WhenTheDiskIsFull) {
  Load(Conf("Scan", "One", "task", 3));
  const CFileSizeLimit limit(4);
  EXPECT_EQ(Save("1", "cmd"), 1);
  EXPECT_EQ(Save("1", "task"), 1);
  EXPECT_EQ(m_log.Count("*zxagent CAgentCache::SaveFileCache ZxSaveFileData error[27][File too large]"), 2u);
}

TEST_F(SavePolicyFile, SaveFileCache_WritesAndReports) {
  EXPECT_EQ(m_cache.SaveFileCache(m_home.Path("x/y/z.json"), "text"), 1);
  EXPECT_EQ(m_home.ReadFile("x/y/z.json"), "text");
  EXPECT_EQ(m_home.Mode("x/y"), 0755u);
  m_home.MakeDir("x/dir.json");
  EXPECT_EQ(m_cache.SaveFileCache(m_home.Path("x/dir.json"), "text"), 0);
  EXPECT_EQ(
      m_log.LevelOf("*zxagent CAgentCache::SaveFileCache ZxSaveFileData error[21][Is a directory] strFile[" +
                    Path("x/dir.json") + "] strFomatJson[text]"),
      3);
}

TEST_F(SavePolicyFile, SaveFileCache_TakesTheWholeTextAsDirectory_WithoutASlash) {
  const std::string strBefore = std::filesystem::current_path().string();
  ASSERT_EQ(chdir(m_home.Root().c_str()), 0);
  EXPECT_EQ(m_cache.SaveFileCache("bare.json", "text"), 1);
  EXPECT_EQ(chdir(strBefore.c_str()), 0);
  EXPECT_THAT(
      m_log.Lines()[0],
      StartsWith("*zxagent CAgentCache::SaveFileCache Error CreateDirectory strPath[bare.json] Error["));
  EXPECT_EQ(m_home.ReadFile("bare.json"), "text") << "the write is still tried";
}

// Bus threads update what the work thread saves, and look commands up meanwhile.
TEST_F(SavePolicyFile, ServesSeveralThreads) {
  Load(Conf("Scan", "One", "task", 2));
  std::atomic<int> iFailed{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([this, i, &iFailed] {
      const CPString strID = CPString::Make("id-%d", i);
      for (int iPass = 0; iPass < 20; ++iPass) {
        unsigned int uiCount = 0;
        if (m_cache.FindTaskConf("scan", "One", "TASK", uiCount) != 1 || uiCount != 2)
          ++iFailed;
        if (Save(strID, CPString::Make("cmd-%d", i)) != 1 ||
            m_cache.UpdatePolicyCache(1, strID, "Scan", "One", CPString::Make("cmd-%d", i), 1) != 1)
          ++iFailed;
        Save(strID, "task");
        m_cache.LoadTaskConf();
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(iFailed, 0);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(Verdict("Scan_One/policy/cmd-" + std::to_string(i) + ".json"), "true");
}
