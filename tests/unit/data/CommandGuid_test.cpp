// Registering plug-ins, building the table, looking commands up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/DataHome.h"
#include "support/FakeConfigProxy.h"

using testing::ElementsAre;

namespace {

constexpr char kGuid1[] = "11111111-2222-3333-4444-555555555555";
constexpr char kGuid2[] = "{AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE}";
constexpr char kGuid3[] = "fab922a8-736e-4cb5-a666-4fd849a3049a";

class CommandGuid : public testing::Test {
 protected:
  CommandGuid() { m_home.Init(); }
  CAgentData& Data() { return m_home.Data(); }
  void Build(const std::string& strRoutes, const std::string& strPlugins) {
    m_home.Temp().WriteFile("home/etc/zxagent/commandroute.json",
                            CPString("{\"commandroute\":[" + strRoutes + "]}"));
    m_proxy.SetText("{\"list\":[" + strPlugins + "]}");
    EXPECT_EQ(Data().ReLoadCommandGuid(), 1);
    m_home.Log().Clear();
  }
  // The GUIDs a command goes to; empty also when the lookup fails.
  std::vector<std::string> Route(const char* pszProduct, const char* pszCombo, const char* pszCommand) {
    CPStrList list;
    m_iRet = Data().GetCommandGuid(0x1f, pszProduct, pszCombo, pszCommand, list);
    std::vector<std::string> guids;
    for (const CPString& strGuid : list)
      guids.push_back(strGuid.Str());
    return guids;
  }

  CDataHome m_home;
  CFakeConfigProxy m_proxy{m_home.Home().Str()};
  int m_iRet = -1;
};

std::string RouteEntry(const std::string& strGuid, const std::string& strCommand,
                       const std::string& strProduct, const std::string& strCombo) {
  return R"({"id":")" + strGuid + R"(","command":")" + strCommand + R"(","product":")" + strProduct +
         R"(","combo":")" + strCombo + R"(","desc":""})";
}

const std::string kPlugin1 = CFakeConfigProxy::Plugin(kGuid1, "Prod", "Combo");
const std::string kPlugin2 = CFakeConfigProxy::Plugin(kGuid2, "prod", "COMBO");
const std::string kPlugin3 = CFakeConfigProxy::Plugin(kGuid3, "Other", "Thing", 0);

}  // namespace

TEST_F(CommandGuid, CommandsMatchWithoutRegardToCase) {
  Build(RouteEntry(kGuid1, "ScanDisk", "", ""), kPlugin3);
  EXPECT_THAT(Route("any", "thing", "SCANdisk"), ElementsAre(kGuid1));
  EXPECT_EQ(m_iRet, 1);
}

TEST_F(CommandGuid, EmptyProductAndComboRouteForEveryProduct) {
  Build(RouteEntry(kGuid1, "scan", "", ""), kPlugin3);
  EXPECT_THAT(Route("", "", "scan"), ElementsAre(kGuid1));
  EXPECT_THAT(Route("Other", "Thing", "scan"), ElementsAre(kGuid1));
}

TEST_F(CommandGuid, LimitedEntriesMatchTheirProductAndComboOnly) {
  Build(RouteEntry(kGuid1, "scan", "A", "B") + "," + RouteEntry(kGuid2, "scan", "a", "C"),
        CFakeConfigProxy::Plugin(kGuid3, "A", "D"));
  EXPECT_THAT(Route("a", "b", "scan"), ElementsAre(kGuid1));
  EXPECT_THAT(Route("A", "c", "scan"), ElementsAre(kGuid2));
  EXPECT_THAT(Route("A", "D", "scan"), ElementsAre(kGuid3));  // no entry: by product and combo
  EXPECT_EQ(m_iRet, 1);
  EXPECT_THAT(Route("A", "E", "scan"), ElementsAre());
  EXPECT_EQ(m_iRet, 0);
}

TEST_F(CommandGuid, EntriesWithOnlyOneOfTheTwoNeedBothEqual) {
  Build(RouteEntry(kGuid1, "scan", "A", "") + "," + RouteEntry(kGuid2, "scan", "", "B"), kPlugin3);
  EXPECT_THAT(Route("A", "B", "scan"), ElementsAre());
  EXPECT_THAT(Route("A", "", "scan"), ElementsAre(kGuid1));
  EXPECT_THAT(Route("", "B", "scan"), ElementsAre(kGuid2));
}

TEST_F(CommandGuid, EveryMatchingEntryCounts) {
  Build(RouteEntry(kGuid1, "scan", "A", "B") + "," + RouteEntry(kGuid2, "scan", "", "") + "," +
            RouteEntry(kGuid1, "scan", "a", "b"),
        kPlugin3);
  EXPECT_THAT(Route("A", "B", "scan"), ElementsAre(kGuid1, kGuid2, kGuid1));
}

TEST_F(CommandGuid, FallbackNeverFansOut) {
  Build(RouteEntry(kGuid1, "scan", "", "") + "," + RouteEntry(kGuid2, "scan", "", ""),
        kPlugin1 + "," + kPlugin2);
  EXPECT_THAT(Route("PROD", "combo", "scan"), ElementsAre(kGuid1, kGuid2));
  EXPECT_EQ(m_iRet, 1);
  Route("PROD", "combo", "Other");
  EXPECT_EQ(m_iRet, 0);
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent pushmsg Error multiple combos found u64DataId[1f]strProduct[PROD] "
                                 "strCombo[combo] strCommand[other] strGuidList[2][" +
                                 std::string(kGuid1) + "," + kGuid2 + "]"),
            kLogWarn);
}

TEST_F(CommandGuid, EmptyCommandsUseTheFallbackOnly) {
  Build(RouteEntry(kGuid1, "scan", "", ""), kPlugin3);
  EXPECT_THAT(Route("other", "thing", ""), ElementsAre(kGuid3));
  EXPECT_THAT(Route("Prod", "Combo", ""), ElementsAre());
  EXPECT_EQ(m_iRet, 0);
}

TEST_F(CommandGuid, SetGuidProductCombo_FillsBothMaps) {
  productComboToGuidMap mapPcGuid;
  guidToProductComboMap mapGuidPc;
  EXPECT_EQ(Data().SetGuidProductCombo(kGuid1, "Prod", "Combo", mapPcGuid, mapGuidPc), 1);
  EXPECT_EQ(Data().SetGuidProductCombo(kGuid2, "PROD", "combo", mapPcGuid, mapGuidPc), 1);
  ASSERT_EQ(mapPcGuid.size(), 1u);
  EXPECT_EQ(mapPcGuid["prod/combo"].ToString(" "), std::string(kGuid1) + " " + kGuid2);
  ASSERT_EQ(mapGuidPc.size(), 2u);
  EXPECT_EQ(mapGuidPc[GUID("aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee")].strProduct,
            "PROD");  // braces, other case
  EXPECT_EQ(m_home.Log().LevelOf("zxagent CAgentData::SetGuidProductCombo strGuid[" + std::string(kGuid1) +
                                 "] strProduct[Prod] strCombo[Combo]"),
            kLogInfo);

  EXPECT_EQ(Data().SetGuidProductCombo(kGuid1, "New", "Names", mapPcGuid, mapGuidPc), 1);
  EXPECT_EQ(mapGuidPc.size(), 2u);
  EXPECT_EQ(mapGuidPc[GUID(kGuid1)].strProduct, "New");
  EXPECT_EQ(mapPcGuid.size(), 2u);
}

TEST_F(CommandGuid, SetGuidProductCombo_TakesTextsThatAreNoGuid) {
  productComboToGuidMap mapPcGuid;
  guidToProductComboMap mapGuidPc;
  EXPECT_EQ(Data().SetGuidProductCombo("no guid", "P", "C", mapPcGuid, mapGuidPc), 1);
  EXPECT_EQ(mapGuidPc.count(GUID()), 1u);
}

TEST_F(CommandGuid, SetGuidProductCombo_RefusesEmptyArguments) {
  productComboToGuidMap mapPcGuid;
  guidToProductComboMap mapGuidPc;
  EXPECT_EQ(Data().SetGuidProductCombo("", "P", "C", mapPcGuid, mapGuidPc), 0);
  EXPECT_EQ(Data().SetGuidProductCombo("G", "", "C", mapPcGuid, mapGuidPc), 0);
  EXPECT_EQ(Data().SetGuidProductCombo("G", "P", "", mapPcGuid, mapGuidPc), 0);
  EXPECT_TRUE(mapPcGuid.empty());
  EXPECT_TRUE(mapGuidPc.empty());
  EXPECT_EQ(
      m_home.Log().LevelOf("*zxagent CAgentData::SetGuidProductCombo Warn Product Combo is empty strGuid[G] "
                           "strProduct[P] strCombo[]"),
      kLogWarn);
}

TEST_F(CommandGuid, GetProductComboByGuid_AnswersWhatWasInstalled) {
  Build("", kPlugin1 + "," + kPlugin2);
  CPString strProduct;
  CPString strCombo;
  EXPECT_EQ(Data().GetProductComboByGuid(GUID(kGuid2), strProduct, strCombo), 1);
  EXPECT_EQ(strProduct, "prod");
  EXPECT_EQ(strCombo, "COMBO");
  EXPECT_EQ(Data().GetProductComboByGuid(GUID(kGuid3), strProduct, strCombo), 0);
  EXPECT_EQ(strProduct, "prod");
}

TEST_F(CommandGuid, LoadCommandGuid_TakesInstalledPlugins_LoadedOrNot) {
  m_proxy.SetText("{\"list\":[" + kPlugin1 + "," + kPlugin3 + "]}");
  commandRouteMap mapRoute;
  productComboToGuidMap mapPcGuid;
  guidToProductComboMap mapGuidPc;
  EXPECT_EQ(Data().LoadCommandGuid(mapRoute, mapPcGuid, mapGuidPc), 1);
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent CAgentData::LoadCommandGuid Warn LoadCommandRoute"), kLogWarn);
  EXPECT_EQ(m_home.Log().LevelOf(
                "zxagent CAgentData::LoadCommandGuid OK commandRouteMap[0] productComboToGuidMap[2] "
                "guidToProductComboMap[2]\n"),
            kLogInfo);
}

TEST_F(CommandGuid, LoadCommandGuid_AnswersZero_WithoutAValidPlugin) {
  m_proxy.State().iResult = 1;
  commandRouteMap mapRoute;
  productComboToGuidMap mapPcGuid;
  guidToProductComboMap mapGuidPc;
  EXPECT_EQ(Data().LoadCommandGuid(mapRoute, mapPcGuid, mapGuidPc), 0);
  EXPECT_EQ(m_home.Log().LevelOf("**zxagent CAgentData::LoadCommandGuid Error GetAllGuidProductCombo"),
            kLogError);
  m_proxy.State().iResult = 2;
  m_proxy.SetText("{\"list\":[" + CFakeConfigProxy::Plugin(kGuid1, "", "C") + "]}");
  EXPECT_EQ(Data().LoadCommandGuid(mapRoute, mapPcGuid, mapGuidPc), 0);
}

TEST_F(CommandGuid, ReLoadCommandGuid_KeepsTheTable_WhenThereIsNoPlugin) {
  Build(RouteEntry(kGuid1, "scan", "", ""), kPlugin3);
  m_proxy.SetText("{\"list\":[]}");
  m_home.Temp().WriteFile("home/etc/zxagent/commandroute.json",
                          CPString("{\"commandroute\":[" + RouteEntry(kGuid2, "update", "", "") + "]}"));
  EXPECT_EQ(Data().ReLoadCommandGuid(), 0);
  EXPECT_EQ(
      m_home.Log().LevelOf("zxagent CAgentData::ReLoadCommandGuid LoadCommandGuid fail commandRouteMap[1] "
                           "productComboToGuidMap[0] guidToProductComboMap[0]"),
      kLogInfo);
  EXPECT_THAT(Route("x", "y", "scan"), ElementsAre(kGuid1));
  EXPECT_THAT(Route("x", "y", "update"), ElementsAre());
  EXPECT_THAT(Route("Other", "Thing", ""), ElementsAre(kGuid3));
}

TEST_F(CommandGuid, ReLoadCommandGuid_SwapsTheWholeTable) {
  Build(RouteEntry(kGuid1, "scan", "", ""), kPlugin3);
  Build(RouteEntry(kGuid2, "update", "", ""), kPlugin1);
  EXPECT_THAT(Route("x", "y", "scan"), ElementsAre());
  EXPECT_THAT(Route("x", "y", "update"), ElementsAre(kGuid2));
  EXPECT_THAT(Route("Other", "Thing", ""), ElementsAre());
}

TEST_F(CommandGuid, GetCommandProductMap_HandsOutCopies) {
  Build(RouteEntry(kGuid1, "scan", "", ""), kPlugin3);
  commandRouteMap mapRoute;
  productComboToGuidMap mapPcGuid;
  Data().GetCommandProductMap(mapRoute, mapPcGuid);
  EXPECT_EQ(mapRoute.count("scan"), 1u);
  EXPECT_EQ(mapPcGuid.count("other/thing"), 1u);
  mapRoute.clear();
  EXPECT_THAT(Route("x", "y", "scan"), ElementsAre(kGuid1));
}

TEST_F(CommandGuid, Uninit_EmptiesTheTable) {
  CAgentData data(m_home.Temp().Path("root"));
  m_home.Temp().WriteFile("home/etc/zxagent/commandroute.json",
                          CPString("{\"commandroute\":[" + RouteEntry(kGuid1, "scan", "", "") + "]}"));
  m_proxy.SetText("{\"list\":[" + kPlugin3 + "]}");
  ASSERT_EQ(data.Init(m_home.Home()), 1);
  CPStrList list;
  EXPECT_EQ(data.GetCommandGuid(1, "x", "y", "scan", list), 1);
  data.Uninit();
  CPStrList after;
  EXPECT_EQ(data.GetCommandGuid(1, "x", "y", "scan", after), 0);
  EXPECT_EQ(data.GetCommandGuid(1, "Other", "Thing", "", after), 0);
  m_home.Init();
}

TEST_F(CommandGuid, LookupsSeeWholeTables_WhileTheyAreRebuilt) {
  Build(RouteEntry(kGuid1, "scan", "", ""), kPlugin3);
  std::atomic<bool> bStop{false};
  std::thread rebuilder([&] {
    for (int i = 0; i < 50; ++i)
      Data().ReLoadCommandGuid();
    bStop = true;
  });
  while (!bStop) {
    EXPECT_THAT(Route("x", "y", "scan"), ElementsAre(kGuid1));
    EXPECT_THAT(Route("Other", "Thing", ""), ElementsAre(kGuid3));
  }
  rebuilder.join();
}
