#include "AssetFixture.h"
#include "data/FileFaults.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

class ParseAssetPolicy : public CAssetTest {};

TEST_F(ParseAssetPolicy, Init_TakesTheHome) {
  m_asset.Init("/some/where/");
  m_asset.Init("");
  EXPECT_THAT(m_log.Lines(), ElementsAre("zxagent CAgentAsset::Init m_strPath[/some/where/]",
                                         "*zxagent CAgentAsset::Init Error strHomePath is empty"));
  EXPECT_EQ(m_log.Entries()[0].iLevel, 2);
  EXPECT_EQ(m_log.Entries()[1].iLevel, 3);
}

TEST_F(ParseAssetPolicy, RefusesMissingTexts) {
  EXPECT_EQ(m_asset.ParseAssetPolicy(0x2a, "", nullptr), 0);
  EXPECT_EQ(m_asset.ParseAssetPolicy(0x2a, "id", nullptr), 0);
  EXPECT_EQ(m_asset.ParseAssetPolicy(0x2b, "id", ""), 0);
  EXPECT_THAT(m_log.Lines(),
              ElementsAre("*zxagent CAgentAsset::ParseAssetPolicy Error strID is empty u64DataId[2a]",
                          "*zxagent CAgentAsset::ParseAssetPolicy Error lpszJson is NULL u64DataId[2a]",
                          "*zxagent CAgentAsset::ParseAssetPolicy Error lpszJson is NULL u64DataId[2b]"));
}

TEST_F(ParseAssetPolicy, RefusesUnusableDocuments) {
  struct _Case {
    const char* pszJson;
    const char* pszWhat;
  };
  const _Case cases[] = {
      {"not json", "Error LoadBuffer Fail"},
      {"{\"Param\":{}", "Error LoadBuffer Fail"},
      {"{}", "GetNode Param Fail"},
      {"[]", "GetNode Param Fail"},
      {R"({"param":{"open":1,"list":[]}})", "GetNode Param Fail"},
      {R"({"Param":{"list":[]}})", "GetNode open Fail"},
      {R"({"Param":7})", "GetNode open Fail"},
      {R"({"open":1,"Param":{"list":[]}})", "GetNode open Fail"},
      {R"({"Param":{"open":1}})", "GetNode list Fail"},
      {R"({"list":[],"Param":{"open":1}})", "GetNode list Fail"},
      {R"({"Param":{"open":1,"list":7}})", "GetAllNode Fail"},
      {R"({"Param":{"open":1,"list":"x"}})", "GetAllNode Fail"},
      {R"({"Param":{"open":1,"list":null}})", "GetAllNode Fail"},
  };
  for (const _Case& testCase : cases) {
    m_log.Clear();
    EXPECT_EQ(Parse(testCase.pszJson), 0) << testCase.pszJson;
    EXPECT_THAT(m_log.Lines(),
                ElementsAre(std::string("*zxagent CAgentAsset::ParseAssetPolicy ") + testCase.pszWhat +
                            " u64DataId[2a] lpszJson[" + testCase.pszJson + "]"));
    EXPECT_EQ(m_log.Entries()[0].iLevel, 3) << testCase.pszJson;
  }
  EXPECT_THAT(Pushed(), IsEmpty());
  EXPECT_FALSE(m_home.Exists("data"));
}

TEST_F(ParseAssetPolicy, LogsTheSizeOfALargeRefusedDocument) {
  EXPECT_EQ(Parse(std::string(1u << 20, '{')), 0);
  ASSERT_THAT(m_log.Lines(), SizeIs(1));
  EXPECT_LT(m_log.Lines()[0].size(), 10000u);
}

TEST_F(ParseAssetPolicy, AnswersOne_WithoutEntries) {
  EXPECT_EQ(Parse(Policy("1", "")), 1);
  EXPECT_THAT(Pushed(), IsEmpty());
  EXPECT_THAT(Copies(), IsEmpty());
}

TEST_F(ParseAssetPolicy, PushesOneCommand_PerComponent) {
  const std::string strTask = R"({"b":[1,2.5,"x",null,true],"a":{"n":12345678901234}})";
  EXPECT_EQ(Parse(Policy("1", Entry("Scan/One", 1, 86400, strTask) + "," + Entry("Other/Two", 0, -1))), 1);
  ASSERT_THAT(Pushed(), ElementsAre("Scan|One|" + Command("Scan/One", 1, 86400, strTask),
                                    "Other|Two|" + Command("Other/Two", 0, -1)));
  for (const _RoutedCommand& command : m_hub.Routed()) {
    EXPECT_EQ(command.u64DataId, 0x2au);
    EXPECT_EQ(command.strID, "id-1");
    EXPECT_EQ(command.strCommand, "assetCollection");
  }
  EXPECT_THAT(Copies(), ElementsAre("One", "Two"));
  EXPECT_EQ(Copy("One"), Command("Scan/One", 1, 86400, strTask)) << "exactly as pushed";
}

TEST_F(ParseAssetPolicy, CopiesTasksOfEveryType) {
  for (const char* pszTask :
       {"7", "-1.5", "\"text\"", "true", "null", "[]", "{}", "[[1],{\"a\":null}]", "\"\\u4e2d\\\"\\\\\""}) {
    const size_t uBefore = Pushed().size();
    EXPECT_EQ(Parse(Policy("1", Entry("Scan/One", 1, 60, pszTask))), 1) << pszTask;
    ASSERT_EQ(Pushed().size(), uBefore + 1) << pszTask;
    zxtools::CPJsonParse json;
    ASSERT_EQ(json.LoadBuffer(m_hub.Routed().back().strMsg.c_str()), 1) << pszTask;
    zxtools::CPJsonParse expect;
    ASSERT_EQ(expect.LoadBuffer((std::string("{\"task\":") + pszTask + "}").c_str()), 1) << pszTask;
    CPString strTask;
    CPString strExpect;
    zxtools::CPJsonParse::GetValue(json.GetNode("task"), strTask);
    zxtools::CPJsonParse::GetValue(expect.GetNode("task"), strExpect);
    EXPECT_EQ(strTask.Str(), strExpect.Str());
  }
}

TEST_F(ParseAssetPolicy, TurnsEveryEntryOff_WithTheMasterSwitch) {
  EXPECT_EQ(Parse(Policy("0", Entry("Scan/One", 1) + "," + Entry("veltcwpp/zxpwebassets", 1) + "," +
                                  Entry("veltcwpp/zxpdockersd", 1))),
            1);
  EXPECT_THAT(
      Pushed(),
      ElementsAre(
          "Scan|One|" + Command("Scan/One", 0),
          "veltcwpp|zxpwebassets|" + Combined("veltcwpp/zxpwebassets", Command("veltcwpp/zxpwebassets", 0)),
          "veltcwpp|zxpdockersd|" + Combined("veltcwpp/zxpdockersd", Command("veltcwpp/zxpdockersd", 0))));
}

TEST_F(ParseAssetPolicy, PassesTheEntrysSwitchOn_WhenTheMasterIsOn) {
  for (const char* pszMaster : {"1", "2", "-1"}) {
    const size_t uBefore = Pushed().size();
    EXPECT_EQ(
        Parse(Policy(pszMaster, Entry("Scan/A", 0) + "," + Entry("Scan/B", 1) + "," + Entry("Scan/C", 5))),
        1);
    const std::vector<std::string> pushed = Pushed();
    ASSERT_EQ(pushed.size(), uBefore + 3);
    EXPECT_EQ(pushed[uBefore], "Scan|A|" + Command("Scan/A", 0));
    EXPECT_EQ(pushed[uBefore + 1], "Scan|B|" + Command("Scan/B", 1));
    EXPECT_EQ(pushed[uBefore + 2], "Scan|C|" + Command("Scan/C", 5));
  }
}

TEST_F(ParseAssetPolicy, SkipsIncompleteEntries_AndPushesTheOthers) {
  const std::string strEntries = R"({"interval":60,"combo":"Scan/A","task":{}},)"
                                 R"({"open":1,"combo":"Scan/B","task":{}},)"
                                 R"({"open":1,"interval":60,"task":{}},)"
                                 R"({"open":1,"interval":60,"combo":"Scan/D"},)"
                                 R"(7,"text",null,[],)" +
                                 Entry("Scan/E");
  EXPECT_EQ(Parse(Policy("1", strEntries)), 1);
  EXPECT_THAT(Pushed(), ElementsAre("Scan|E|" + Command("Scan/E")));
  const std::string strHead = "*zxagent CAgentAsset::ParseAssetPolicy hArrayList ";
  const std::string strOpen = strHead + "GetNode open Fail u64DataId[2a]";
  EXPECT_THAT(m_log.Lines(),
              ElementsAre(strOpen, strHead + "GetNode interval Fail u64DataId[2a]",
                          strHead + "GetNode combo Fail u64DataId[2a]",
                          strHead + "task combo Fail u64DataId[2a]", strOpen, strOpen, strOpen, strOpen));
  EXPECT_EQ(m_log.Entries()[0].iLevel, 3);
}

// --- The two scanners that take one command for all their entries.

TEST_F(ParseAssetPolicy, CombinesTheEntriesOfAScanner) {
  EXPECT_EQ(
      Parse(Policy("1", Entry("veltcwpp/zxpdockersd", 1, 10, "{\"d\":1}") + "," +
                            Entry("veltcwpp/zxpwebassets", 1, 20, "{\"w\":1}") + "," + Entry("Scan/One") +
                            "," + Entry("veltcwpp/zxpwebassets", 0, 30, "{\"w\":2}"))),
      1);
  EXPECT_THAT(
      Pushed(),
      ElementsAre(
          "Scan|One|" + Command("Scan/One"),
          "veltcwpp|zxpwebassets|" +
              Combined("veltcwpp/zxpwebassets", Command("veltcwpp/zxpwebassets", 1, 20, "{\"w\":1}") + "," +
                                                    Command("veltcwpp/zxpwebassets", 0, 30, "{\"w\":2}")),
          "veltcwpp|zxpdockersd|" +
              Combined("veltcwpp/zxpdockersd", Command("veltcwpp/zxpdockersd", 1, 10, "{\"d\":1}"))));
  EXPECT_THAT(Copies(), ElementsAre("One", "zxpdockersd", "zxpwebassets"));
  EXPECT_EQ("veltcwpp|zxpwebassets|" + Copy("zxpwebassets"), Pushed()[1]);
  for (const _RoutedCommand& command : m_hub.Routed())
    EXPECT_EQ(command.strCommand, "assetCollection");
}

TEST_F(ParseAssetPolicy, KnowsAScanner_WhateverItsCase) {
  EXPECT_EQ(Parse(Policy("1", Entry("VELTCWPP/ZxpWebAssets") + "," + Entry("VeltCwpp/ZXPDOCKERSD"))), 1);
  EXPECT_THAT(Pushed(), ElementsAre("veltcwpp|zxpwebassets|" +
                                        Combined("veltcwpp/zxpwebassets", Command("VELTCWPP/ZxpWebAssets")),
                                    "veltcwpp|zxpdockersd|" +
                                        Combined("veltcwpp/zxpdockersd", Command("VeltCwpp/ZXPDOCKERSD"))));
}

TEST_F(ParseAssetPolicy, PushesNoCombinedCommand_WithoutAnEntry) {
  EXPECT_EQ(Parse(Policy("1", Entry("veltcwpp/zxpwebassetsX") + "," +
                                  R"({"open":1,"interval":1,"combo":"veltcwpp/zxpdockersd"})")),
            1);
  EXPECT_THAT(Pushed(), ElementsAre("veltcwpp|zxpwebassetsX|" + Command("veltcwpp/zxpwebassetsX")));
}

// --- Failures of single pushes.

TEST_F(ParseAssetPolicy, GoesOn_WhenAPushFails) {
  m_hub.SetRouted(0);
  EXPECT_EQ(Parse(Policy("1", Entry("Scan/One") + "," + Entry("Scan/Two") + "," +
                                  Entry("veltcwpp/zxpwebassets") + "," + Entry("veltcwpp/zxpdockersd"))),
            1);
  EXPECT_THAT(Pushed(), SizeIs(4));
  const std::string strHead = "*zxagent CAgentAsset::ParseAssetPolicy SendPolicyMsgrData Fail ";
  for (const char* pszCombo : {"One", "Two"})
    EXPECT_EQ(m_log.LevelOf(strHead + "u64DataId[2a] strProduct[Scan] strCombo[" + pszCombo +
                            "] strJsonCombo[" + Command(std::string("Scan/") + pszCombo) + "]"),
              3);
  EXPECT_EQ(m_log.LevelOf(strHead + "veltcwpp/zxpwebassets u64DataId[2a] strWebJson[" +
                          Combined("veltcwpp/zxpwebassets", Command("veltcwpp/zxpwebassets")) + "]"),
            3);
  EXPECT_EQ(m_log.LevelOf(strHead + "veltcwpp/zxpdockersd u64DataId[2a] strDockerJson[" +
                          Combined("veltcwpp/zxpdockersd", Command("veltcwpp/zxpdockersd")) + "]"),
            3);
}

TEST_F(ParseAssetPolicy, SurvivesLackOfMemory_AtEveryAllocation) {
  const std::string strPolicy = Policy(
      "1", Entry("Scan/One") + "," + Entry("veltcwpp/zxpwebassets") + "," + Entry("veltcwpp/zxpdockersd"));
  unsigned int uAllowed = 0;
  for (bool bHit = true; bHit; ++uAllowed) {
    ASSERT_LT(uAllowed, 2000u);
    const CJsonMemoryFault fault(uAllowed);
    Parse(strPolicy);
    bHit = fault.Hit();
  }
  const std::vector<std::string> lines = m_log.Lines();
  const std::string strHead = "*zxagent CAgentAsset::ParseAssetPolicy ";
  EXPECT_THAT(lines, Contains(strHead + "CreateJson Fail u64DataId[2a]"));
  EXPECT_THAT(lines, Contains(strHead + "AddNodeArray hWebArray data Fail u64DataId[2a]"));
  EXPECT_THAT(lines, Contains(strHead + "AddNodeArray hDockerArray data Fail u64DataId[2a]"));
  // Whatever was pushed was whole.
  for (const _RoutedCommand& command : m_hub.Routed()) {
    zxtools::CPJsonParse json;
    EXPECT_EQ(json.LoadBuffer(command.strMsg.c_str()), 1) << command.strMsg.c_str();
    EXPECT_NE(json.GetNode("ID"), nullptr) << command.strMsg.c_str();
    EXPECT_TRUE(json.GetNode("task") != nullptr || json.GetNode("data") != nullptr) << command.strMsg.c_str();
  }
}

// --- Combos come from the cloud.

TEST_F(ParseAssetPolicy, SplitsTheCombo_AtItsLastSlash) {
  EXPECT_EQ(Parse(Policy("1", Entry("a/b/c") + "," + Entry("/lead") + "," + Entry("noslash"))), 1);
  EXPECT_THAT(Pushed(), ElementsAre("a/b|c|" + Command("a/b/c"), "|lead|" + Command("/lead"),
                                    "|noslash|" + Command("noslash")));
}

TEST_F(ParseAssetPolicy, WritesNothing_WhenTheComboIsNoFileName) {
  m_home.WriteFile("etc/x", "keep");
  for (const std::string& strCombo :
       {std::string(""), std::string("Scan/"), std::string("."), std::string(".."), std::string("Scan/."),
        std::string("Scan/.."), std::string("../.."), "Scan/" + std::string(300, 'n')}) {
    m_log.Clear();
    EXPECT_EQ(Parse(Policy("1", Entry(strCombo) + "," + Entry("Scan/Good"))), 1) << strCombo;
    EXPECT_EQ(Pushed().back(), "Scan|Good|" + Command("Scan/Good")) << strCombo;
    ASSERT_THAT(m_log.Lines(), SizeIs(Ge(2))) << strCombo;
    EXPECT_THAT(m_log.Lines()[0],
                StartsWith("*zxagent CAgentAsset::SendPolicyMsgrData ZxSaveFileData Error["));
    EXPECT_THAT(m_log.Lines()[1],
                StartsWith("*zxagent CAgentAsset::ParseAssetPolicy SendPolicyMsgrData Fail u64DataId[2a] "));
  }
  EXPECT_THAT(Copies(), ElementsAre("Good"));
  EXPECT_THAT(FilesBelow(Path("")), ElementsAre("data/policy/assetcollection/Good", "etc/x"));
  EXPECT_EQ(m_home.ReadFile("etc/x"), "keep");
}

TEST_F(ParseAssetPolicy, StaysInsideItsDirectory_WhateverTheProduct) {
  EXPECT_EQ(Parse(Policy("1", Entry("../../../etc/x") + "," + Entry("$(touch x)/`touch x`"))), 1);
  EXPECT_THAT(FilesBelow(Path("")),
              ElementsAre("data/policy/assetcollection/`touch x`", "data/policy/assetcollection/x"));
}
