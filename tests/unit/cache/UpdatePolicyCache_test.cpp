#include "CacheFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

class UpdatePolicyCache : public CCacheTest {
 protected:
  int Update(const CPString& strID, const CPString& strCommand, int bResult = 1) {
    return m_cache.UpdatePolicyCache(0x2a, strID, "Scan", "One", strCommand, bResult);
  }
};

TEST_F(UpdatePolicyCache, RefusesMissingTexts_InOrder) {
  Load("");
  EXPECT_EQ(m_cache.UpdatePolicyCache(0x2a, "", "", "", "", 1), 0);
  EXPECT_EQ(m_cache.UpdatePolicyCache(0x2a, "id", "", "C", "assetCollection", 1), 0);
  EXPECT_EQ(m_cache.UpdatePolicyCache(0x2a, "id", "P", "", "cmd", 1), 0);
  EXPECT_EQ(m_cache.UpdatePolicyCache(0x2a, "id", "P", "C", "", 1), 0);
  const std::string strEmpty = "*zxagent CAgentCache::UpdatePolicyCache Error empty u64DataId[2a] ";
  EXPECT_THAT(m_log.Lines(),
              ElementsAre("*zxagent CAgentCache::UpdatePolicyCache Error strID is empty u64DataId[2a]",
                          strEmpty + "strProduct[] strCombo[C] strCommand[assetCollection]",
                          strEmpty + "strProduct[P] strCombo[] strCommand[cmd]",
                          strEmpty + "strProduct[P] strCombo[C] strCommand[]"));
  for (const CLogCapture::CEntry& entry : m_log.Entries())
    EXPECT_EQ(entry.iLevel, 3) << entry.strText;
}

TEST_F(UpdatePolicyCache, ReplacesTheVerdict_AndNothingElse) {
  Load("");
  ASSERT_EQ(Save("1", "cmd", 0), 1);
  std::string strExpect = Text("Scan_One/policy/cmd.json");
  EXPECT_EQ(Update("another id", "cmd"), 1) << "a command has one copy, whatever its id";
  const size_t uFalse = strExpect.find("false");
  ASSERT_NE(uFalse, std::string::npos);
  EXPECT_EQ(Text("Scan_One/policy/cmd.json"), strExpect.replace(uFalse, 5, "true"));
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentCache::UpdatePolicyCache ZxSaveFileData strPath[" +
                          Path("data/policy/agentcache/Scan_One/policy/cmd.json") + "] bSuccess[1]"),
            2);
  EXPECT_EQ(Update("1", "cmd", 0), 1);
  EXPECT_EQ(Verdict("Scan_One/policy/cmd.json"), "false");
}

TEST_F(UpdatePolicyCache, FindsTheCopyOfATask_ById) {
  Load(Conf("Scan", "One", "cmd", 5));
  ASSERT_EQ(Save("id-1", "cmd"), 1);
  ASSERT_EQ(Save("id-2", "cmd"), 1);
  EXPECT_EQ(Update("id-2", "cmd"), 1);
  EXPECT_EQ(Verdict("Scan_One/task/cmd_id-1.json"), "false");
  EXPECT_EQ(Verdict("Scan_One/task/cmd_id-2.json"), "true");
  EXPECT_EQ(Update("id-3", "cmd"), 0);
}

TEST_F(UpdatePolicyCache, CreatesNothing_WhenTheCopyWasNeverSaved) {
  Load(Conf("Scan", "One", "task", 5));
  EXPECT_EQ(Update("1", "cmd"), 0);
  EXPECT_EQ(Update("1", "task"), 0);
  const std::string strLine =
      "*zxagent CAgentCache::UpdatePolicyCache LoadBuffer error[2][No such file or directory] strPath[" +
      Path("data/policy/agentcache/Scan_One/");
  EXPECT_THAT(m_log.Lines(), ElementsAre(strLine + "policy/cmd.json]", strLine + "task/task_1.json]"));
  EXPECT_EQ(m_log.Entries()[0].iLevel, 3);
  EXPECT_FALSE(m_home.Exists("data"));
}

TEST_F(UpdatePolicyCache, Refuses_WhenTheCopyIsNoJson) {
  Load("");
  m_home.WriteFile("data/policy/agentcache/Scan_One/policy/cmd.json", "{\"cut");
  EXPECT_EQ(Update("1", "cmd"), 0);
  ASSERT_THAT(m_log.Lines(), SizeIs(1));
  EXPECT_THAT(m_log.Lines()[0], StartsWith("*zxagent CAgentCache::UpdatePolicyCache LoadBuffer error["));
  EXPECT_EQ(Text("Scan_One/policy/cmd.json"), "{\"cut");
}

TEST_F(UpdatePolicyCache, LeavesAssetPoliciesAlone) {
  Load(Conf("Scan", "One", "ASSETCOLLECTION", 3));
  for (const char* pszCommand : {"assetCollection", "AssetCollection", "ASSETCOLLECTION"}) {
    EXPECT_EQ(Update("1", pszCommand), 1) << pszCommand << " without a copy";
    ASSERT_EQ(Save("1", pszCommand, 0), 1);
    EXPECT_EQ(Update("1", pszCommand), 1) << pszCommand;
    EXPECT_EQ(Verdict(std::string("Scan_One/task/") + pszCommand + "_1.json"), "false");
  }
}

TEST_F(UpdatePolicyCache, Fails_WhenTheCopyCannotBeWritten) {
  Load("");
  ASSERT_EQ(Save("1", "cmd"), 1);
  m_log.Clear();
  {
    const CFileSizeLimit limit(4);
    EXPECT_EQ(Update("1", "cmd"), 0);
  }
  ASSERT_THAT(m_log.Lines(), SizeIs(1));
  EXPECT_THAT(
      m_log.Lines()[0],
      StartsWith("*zxagent CAgentCache::UpdatePolicyCache ZxSaveFileData error[27][File too large] strPath[" +
                 Path("data/policy/agentcache/Scan_One/policy/cmd.json") + "] strJsonFormat[{"));
  EXPECT_EQ(m_log.Entries()[0].iLevel, 3);
}

TEST_F(UpdatePolicyCache, DoesNotCreateDirectories) {
  Load("");
  ASSERT_EQ(Save("1", "cmd"), 1);
  m_home.Remove("data/policy/agentcache/Scan_One/policy");
  EXPECT_EQ(Update("1", "cmd"), 0);
  EXPECT_THAT(Cached(), IsEmpty());
  EXPECT_FALSE(m_home.Exists("data/policy/agentcache/Scan_One/policy"));
}
