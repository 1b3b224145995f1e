#include "CacheFixture.h"

using ::testing::ElementsAre;
using ::testing::SizeIs;
using ::testing::StartsWith;

class TaskConf : public CCacheTest {
 protected:
  // Initialises the cache with this text as its whole task configuration.
  void LoadText(const std::string& strText) {
    m_home.WriteFile("etc/zxagent/taskconf.json", strText);
    m_log.Clear();
    ASSERT_EQ(m_cache.Init(m_home.Root()), 1) << "whatever the file holds";
  }
  std::string File() const { return Path("etc/zxagent/taskconf.json"); }
};

TEST_F(TaskConf, NamesSeveralCommands_WithOneCount) {
  Load(Conf("Scan", "One", "first,second", 5));
  EXPECT_EQ(CountOf("Scan", "One", "first"), 5);
  EXPECT_EQ(CountOf("Scan", "One", "second"), 5);
  EXPECT_EQ(CountOf("Scan", "One", "first,second"), -1);
  EXPECT_EQ(CountOf("Scan", "One", "third"), -1);
  EXPECT_EQ(CountOf("Scan", "Two", "first"), -1);
  EXPECT_EQ(CountOf("Other", "One", "first"), -1);
}

TEST_F(TaskConf, IgnoresCase) {
  Load(Conf("SCAN", "One", "DoIt", 4));
  EXPECT_EQ(CountOf("scan", "oNE", "doit"), 4);
  EXPECT_EQ(CountOf("Scan", "ONE", "DOIT"), 4);
}

TEST_F(TaskConf, SkipsElements_WithoutProductOrCombo) {
  Load(R"({"product":"Scan","command":"a","savecount":1},{"combo":"One","command":"a","savecount":1},)"
       R"(7,"text",null,[],{},)" +
       Conf("Scan", "Two", "a", 2));
  EXPECT_EQ(CountOf("Scan", "", "a"), -1);
  EXPECT_EQ(CountOf("Scan", "One", "a"), -1);
  EXPECT_EQ(CountOf("Scan", "Two", "a"), 2);
}

TEST_F(TaskConf, MakesEveryCommandATask_WithoutAnyCommand) {
  Load(R"({"product":"Scan","combo":"One","savecount":5},)"
       R"({"product":"Scan","combo":"Two","command":"","savecount":5},)"
       R"({"product":"Scan","combo":"Three","command":" , ,","savecount":5})");
  for (const char* pszCombo : {"One", "Two", "Three"}) {
    EXPECT_EQ(CountOf("Scan", pszCombo, "anything"), 10) << pszCombo << ": not its own count";
    EXPECT_EQ(CountOf("Scan", pszCombo, ""), 10) << pszCombo;
  }
}

TEST_F(TaskConf, AddsElementsOfTheSameKey_InFileOrder) {
  Load(Conf("Scan", "One", "a", 1) + "," + Conf("SCAN", "ONE", "a,b", 2) + "," + Conf("scan", "one", "c", 3));
  EXPECT_EQ(CountOf("Scan", "One", "a"), 1) << "the first one counts";
  EXPECT_EQ(CountOf("Scan", "One", "b"), 2);
  EXPECT_EQ(CountOf("Scan", "One", "c"), 3);
}

// An element without commands adds nothing to a list that has some.
TEST_F(TaskConf, KeepsAListWithCommands_WhenAnElementHasNone) {
  Load(Conf("Scan", "One", "a", 1) + R"(,{"product":"Scan","combo":"One"})");
  EXPECT_EQ(CountOf("Scan", "One", "a"), 1);
}

TEST_F(TaskConf, ReadsTheCount) {
  Load(R"({"product":"Scan","combo":"One","command":"missing"},)" + Conf("Scan", "One", "zero", 0) + "," +
       Conf("Scan", "One", "many", 1000000));
  EXPECT_EQ(CountOf("Scan", "One", "missing"), 0);
  EXPECT_EQ(CountOf("Scan", "One", "zero"), 0);
  EXPECT_EQ(CountOf("Scan", "One", "many"), 1000000);
}

TEST_F(TaskConf, ReadsTheMembersOfAnObject) {
  LoadText(R"({"taskconf":{"first":)" + Conf("Scan", "One", "a", 3) + "}}");
  EXPECT_EQ(CountOf("Scan", "One", "a"), 3);
}

TEST_F(TaskConf, TrimsCommands) {
  Load(Conf("Scan", "One", " a , b ", 3));
  EXPECT_EQ(CountOf("Scan", "One", "a"), 3);
  EXPECT_EQ(CountOf("Scan", "One", "b"), 3);
}

TEST_F(TaskConf, LeavesTheMapEmpty_WithoutAFile) {
  ASSERT_EQ(m_cache.Init(m_home.Root()), 1);
  EXPECT_EQ(m_log.LevelOf(
                "*zxagent CAgentCache::LoadTaskConf LoadFile error[2][No such file or directory] strFile[" +
                File() + "]"),
            3);
  EXPECT_EQ(CountOf("Scan", "One", "a"), -1);
  EXPECT_EQ(Save("1", "a"), 1);
  EXPECT_THAT(Cached(), ElementsAre("Scan_One/policy/a.json"));
}

TEST_F(TaskConf, KeepsTheMap_WhenTheFileIsUnusable) {
  struct _Case {
    const char* pszText;
    std::string strLine;
  };
  const _Case cases[] = {
      {"", "*zxagent CAgentCache::LoadTaskConf LoadFile error["},
      {"not json", "*zxagent CAgentCache::LoadTaskConf LoadFile error["},
      {"{}", "*zxagent CAgentData::LoadTaskConf Error GetNode taskconf strFile[" + File() + "]"},
      {"[]", "*zxagent CAgentData::LoadTaskConf Error GetNode taskconf strFile[" + File() + "]"},
      {R"({"taskconf":7})", "*zxagent CAgentData::LoadTaskConf Error GetAllNode strFile[" + File() + "]"},
      {R"({"taskconf":"x"})", "*zxagent CAgentData::LoadTaskConf Error GetAllNode strFile[" + File() + "]"},
  };
  Load(Conf("Scan", "One", "a", 3));
  for (const _Case& testCase : cases) {
    m_home.WriteFile("etc/zxagent/taskconf.json", testCase.pszText);
    m_log.Clear();
    m_cache.LoadTaskConf();
    ASSERT_THAT(m_log.Lines(), SizeIs(1)) << testCase.pszText;
    EXPECT_THAT(m_log.Lines()[0], StartsWith(testCase.strLine)) << testCase.pszText;
    EXPECT_EQ(m_log.Entries()[0].iLevel, 3) << testCase.pszText;
    EXPECT_EQ(CountOf("Scan", "One", "a"), 3) << testCase.pszText;
  }
}

TEST_F(TaskConf, EmptiesTheMap_WhenTheListIsEmpty) {
  Load(Conf("Scan", "One", "a", 3));
  LoadText(R"({"taskconf":[]})");
  EXPECT_EQ(CountOf("Scan", "One", "a"), -1);
}

TEST_F(TaskConf, TakesEffect_WithTheNextInitOnly) {
  Load(Conf("Scan", "One", "a", 3));
  m_home.WriteFile("etc/zxagent/taskconf.json", R"({"taskconf":[]})");
  EXPECT_EQ(CountOf("Scan", "One", "a"), 3);
}

TEST_F(TaskConf, PrefersTheCommandItself_OverAnEmptyOne) {
  Load(Conf("Scan", "One", "a", 3) + R"(,{"product":"Scan","combo":"Two","command":"","savecount":1})");
  EXPECT_EQ(CountOf("Scan", "One", "A"), 3);
  EXPECT_EQ(CountOf("Scan", "One", "b"), -1);
}
