// Products, combos, commands and ids come from the cloud; none may lead out of the cache.
#include "CacheFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class CacheHostile : public CCacheTest {
 protected:
  void SetUp() override {
    Load(Conf("Scan", "One", "task", 3));
    m_filesBefore = FilesBelow(m_home.Root().Str());
  }
  void ExpectNothingWritten(const std::string& strWhat) {
    EXPECT_EQ(FilesBelow(m_home.Root().Str()), m_filesBefore) << strWhat;
    EXPECT_FALSE(std::filesystem::exists("/tmp/zxhostile")) << strWhat;
    EXPECT_FALSE(std::filesystem::exists("/tmp/zxhostile.json")) << strWhat;
  }
  std::vector<std::string> m_filesBefore;
};

namespace {
constexpr char kMsg[] = R"({"ID":"1"})";
}  // namespace

TEST_F(CacheHostile, Save_WritesNothing_AndSaysSo) {
  for (const std::string& strName : HostileNames()) {
    const CPString strHostile(strName);
    if (strHostile.IsEmpty())
      continue;  // refused as missing
    for (const auto& [strProduct, strCombo, strCommand] :
         {std::tuple{strHostile, CPString("One"), CPString("cmd")},
          std::tuple{CPString("Scan"), strHostile, CPString("cmd")},
          std::tuple{CPString("Scan"), CPString("One"), strHostile}}) {
      m_log.Clear();
      EXPECT_EQ(m_cache.SavePolicyFile(1, "id", strProduct, strCombo, strCommand, kMsg, 0), 1) << strName;
      ASSERT_FALSE(m_log.Lines().empty()) << strName;
      EXPECT_THAT(m_log.Lines().back(), StartsWith("*zxagent CAgentCache::SaveFileCache ")) << strName;
      ExpectNothingWritten(strName);
    }
  }
}

TEST_F(CacheHostile, SaveTask_WritesAndDeletesNothing_WhenTheIdIsHostile) {
  m_home.WriteFile("data/policy/agentcache/Scan_One/task/task_old.json", "{}");
  m_filesBefore = FilesBelow(m_home.Root().Str());
  for (const std::string& strName : HostileNames()) {
    if (strName.empty())
      continue;  // refused as missing
    EXPECT_EQ(m_cache.SavePolicyFile(1, strName, "Scan", "One", "task", kMsg, 0), 1) << strName;
    EXPECT_EQ(m_cache.SaveTaskCache(strName, "Scan", "One", "task", "{}", 0), 0) << strName;
    ExpectNothingWritten(strName);
  }
}

TEST_F(CacheHostile, Save_GoesOnWithTheNextCommand) {
  EXPECT_EQ(m_cache.SavePolicyFile(1, "id", "Scan", "One", "../../etc/x", kMsg, 0), 1);
  EXPECT_EQ(m_cache.SavePolicyFile(1, "id", "Scan", "One", "cmd", kMsg, 0), 1);
  EXPECT_THAT(Cached(), ElementsAre("Scan_One/policy/cmd.json"));
}

TEST_F(CacheHostile, Save_StoresAPolicy_WhateverItsId) {
  EXPECT_EQ(m_cache.SavePolicyFile(1, "../../id", "Scan", "One", "cmd", kMsg, 0), 1);
  EXPECT_THAT(Cached(), ElementsAre("Scan_One/policy/cmd.json")) << "its id is no part of the name";
}

TEST_F(CacheHostile, Save_StoresOddButHarmlessNames) {
  for (const char* pszName : {"$(touch x)", "`touch x`", "a\"b'c", "a\nb", "-rf", "...", "a b", "\xff\xfe"}) {
    EXPECT_EQ(m_cache.SavePolicyFile(1, "id", "Scan", "One", pszName, kMsg, 0), 1) << pszName;
    EXPECT_TRUE(m_home.Exists(std::string("data/policy/agentcache/Scan_One/policy/") + pszName + ".json"))
        << pszName;
  }
}

TEST_F(CacheHostile, Save_RefusesNamesThatTogetherAreTooLong) {
  const CPString strLong(std::string(200, 'p'));
  EXPECT_EQ(m_cache.SavePolicyFile(1, "id", strLong, strLong, "cmd", kMsg, 0), 1);
  EXPECT_EQ(m_cache.SavePolicyFile(1, strLong, "Scan", "One", "task", kMsg, 0), 1) << "fits";
  EXPECT_EQ(m_cache.SavePolicyFile(1, "id", "Scan", "One", std::string(254, 'c'), kMsg, 0), 1);
  EXPECT_THAT(Cached(), ElementsAre("Scan_One/task/task_" + strLong.Str() + ".json"));
}

TEST_F(CacheHostile, Update_TouchesNothing_OutsideTheCache) {
  m_home.WriteFile("etc/x.json", "{}");
  m_home.WriteFile("data/policy/x.json", "{}");
  m_home.MakeDir("data/policy/agentcache/Scan_One/policy");
  m_home.MakeDir("data/policy/agentcache/Scan_One/task");
  for (const char* pszCommand : {"../../../../../etc/x", "../../../x", "..", ".", "a/../../x"}) {
    m_log.Clear();
    EXPECT_EQ(m_cache.UpdatePolicyCache(1, "id", "Scan", "One", pszCommand, 1), 0) << pszCommand;
    ASSERT_EQ(m_log.Lines().size(), 1u) << pszCommand;
    EXPECT_THAT(m_log.Lines()[0], StartsWith("*zxagent CAgentCache::UpdatePolicyCache LoadBuffer error["))
        << pszCommand;
  }
  EXPECT_EQ(m_cache.UpdatePolicyCache(1, "../../../../x", "Scan", "One", "task", 1), 0);
  EXPECT_EQ(m_cache.UpdatePolicyCache(1, "id", "../..", "x", "x", 1), 0);
  EXPECT_EQ(m_home.ReadFile("etc/x.json"), "{}");
  EXPECT_EQ(m_home.ReadFile("data/policy/x.json"), "{}");
  EXPECT_THAT(Cached(), IsEmpty());
}
