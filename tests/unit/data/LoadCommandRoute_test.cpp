#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/DataHome.h"

using testing::ElementsAre;

namespace {

constexpr char kFile[] = "home/etc/zxagent/commandroute.json";

class LoadCommandRoute : public testing::Test {
 protected:
  LoadCommandRoute() { m_home.Init(); }
  int Load(const CPString& strText) {
    m_home.Temp().WriteFile(kFile, strText);
    return m_home.Data().LoadCommandRoute(m_map);
  }
  int Set(const char* pszGuid, const char* pszCommand) {
    return m_home.Data().SetCommandRoute(pszGuid, "P", "C", pszCommand, m_map);
  }
  std::vector<std::string> Routes(const char* pszCommand) const {
    std::vector<std::string> routes;
    const auto it = m_map.find(pszCommand);
    if (it != m_map.end()) {
      for (const _GuidProductCombo& gpc : it->second)
        routes.push_back(gpc.strGuid.Str() + "|" + gpc.strProduct.Str() + "|" + gpc.strCombo.Str());
    }
    return routes;
  }
  int LevelOf(const std::string& strText) {
    return m_home.Log().LevelOf(strText + " strFile[" + m_home.Path(kFile) + "]");
  }

  CDataHome m_home;
  commandRouteMap m_map;
};

const std::string kPrefix = "zxagent CAgentData::LoadCommandRoute ";

}  // namespace

TEST_F(LoadCommandRoute, KeepsFileOrderAndSpelling) {
  EXPECT_EQ(Load(R"({"commandroute":[
      {"id":"G2","command":"Scan, UPDATE","product":"Prod","combo":"Combo","desc":"d"},
      {"id":"G1","command":"scan","product":"","combo":"","desc":""},
      {"id":"G2","command":"scan","product":"Prod","combo":"Combo","desc":""}]})"),
            1);
  EXPECT_THAT(Routes("scan"), ElementsAre("G2|Prod|Combo", "G1||", "G2|Prod|Combo"));
  EXPECT_THAT(Routes("update"), ElementsAre("G2|Prod|Combo"));
  EXPECT_EQ(m_map.size(), 2u);
  EXPECT_EQ(m_home.Log().LevelOf(kPrefix + "SetCommandRoute i[0] iCount[2] strGuid[G2] strProduct[Prod] "
                                           "strCombo[Combo] strCommand[Scan, UPDATE] strDesc[d]"),
            kLogInfo);
  EXPECT_EQ(m_home.Log().LevelOf(kPrefix + "OK commandRouteMap[2] strFile[" + m_home.Path(kFile) + "]\n"),
            kLogInfo);
}

TEST_F(LoadCommandRoute, SkipsWithoutIdCommandOrProduct_ButNotWithoutCombo) {
  EXPECT_EQ(Load(R"({"commandroute":[
      {"command":"a","product":"P","combo":"C","desc":""},
      {"id":"G","product":"P","combo":"C","desc":""},
      {"id":"G","command":"b","combo":"C","desc":""},
      5,
      {"id":"G","command":"c","product":"P"}]})"),
            1);
  EXPECT_EQ(m_map.size(), 1u);
  EXPECT_THAT(Routes("c"), ElementsAre("G|P|"));
  EXPECT_EQ(LevelOf("*" + kPrefix + "Warn GetNode id i[0]"), kLogWarn);
  EXPECT_EQ(LevelOf("*" + kPrefix + "Warn GetNode command i[1]"), kLogWarn);
  EXPECT_EQ(LevelOf("*" + kPrefix + "Warn GetNode product i[2]"), kLogWarn);
  EXPECT_EQ(LevelOf("*" + kPrefix + "Warn GetNode id i[3]"), kLogWarn);
  EXPECT_EQ(LevelOf("*" + kPrefix + "Warn GetNode combo i[4]"), kLogWarn);
  EXPECT_EQ(LevelOf("*" + kPrefix + "Warn GetNode desc i[4]"), kLogWarn);
}

TEST_F(LoadCommandRoute, WarnsOfEntriesThatAddNothing) {
  EXPECT_EQ(Load(R"({"commandroute":[{"id":"","command":"a","product":"P","combo":"C","desc":"D"},
                                     {"id":"G","command":" , ,","product":"P","combo":"C","desc":"D"}]})"),
            1);
  EXPECT_TRUE(m_map.empty());
  EXPECT_EQ(m_home.Log().LevelOf("*" + kPrefix +
                                 "Warn SetCommandRoute i[0] iCount[-1] strGuid[] strProduct[P] "
                                 "strCombo[C] strCommand[a] strDesc[D]"),
            kLogWarn);
  EXPECT_EQ(m_home.Log().LevelOf("*" + kPrefix +
                                 "Warn SetCommandRoute i[1] iCount[0] strGuid[G] strProduct[P] "
                                 "strCombo[C] strCommand[ , ,] strDesc[D]"),
            kLogWarn);
}

TEST_F(LoadCommandRoute, AcceptsAnEmptyArray) {
  EXPECT_EQ(Load(R"({"commandroute":[]})"), 1);
  EXPECT_TRUE(m_map.empty());
}

TEST_F(LoadCommandRoute, Fails_WithoutAFileOrArray) {
  EXPECT_EQ(m_home.Data().LoadCommandRoute(m_map), 0);
  EXPECT_EQ(LevelOf("*" + kPrefix + "Warn LoadFile Flag[2]"), kLogWarn);
  EXPECT_EQ(Load("{\"commandroute\":["), 0);
  EXPECT_EQ(LevelOf("*" + kPrefix + "Warn LoadFile Flag[0]"), kLogWarn);
  EXPECT_EQ(Load("{\"routes\":[]}"), 0);
  EXPECT_EQ(LevelOf("*" + kPrefix + "Error GetNode commandroute"), kLogWarn);
  EXPECT_EQ(Load("{\"commandroute\":\"x\"}"), 0);
  EXPECT_EQ(LevelOf("*" + kPrefix + "Error GetAllNode"), kLogWarn);
}

TEST_F(LoadCommandRoute, SetCommandRoute_CountsTheNames) {
  EXPECT_EQ(Set("G", "A,b , C,,a"), 4);
  EXPECT_THAT(Routes("a"), ElementsAre("G|P|C", "G|P|C"));
  EXPECT_THAT(Routes("b"), ElementsAre("G|P|C"));
  EXPECT_THAT(Routes("c"), ElementsAre("G|P|C"));
}

TEST_F(LoadCommandRoute, SetCommandRoute_RefusesEmptyArguments) {
  EXPECT_EQ(Set("", "a"), -1);
  EXPECT_EQ(Set("G", ""), -1);
  EXPECT_EQ(Set("G", " ,,"), 0);
  EXPECT_TRUE(m_map.empty());
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent CAgentData::SetCommandRoute Warn is empty strGuid[] strProduct[P] "
                                 "strCombo[C] strCommand[a]"),
            kLogWarn);
  EXPECT_EQ(
      m_home.Log().LevelOf("*zxagent CAgentData::SetCommandRoute Warn strCommandList is empty strGuid[G] "
                           "strProduct[P] strCombo[C] strCommand[ ,,]"),
      kLogWarn);
}
