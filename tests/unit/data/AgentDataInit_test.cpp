#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>

#include "DataFixture.h"
#include "support/FakeConfigProxy.h"

namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kSampleGuid[] = "5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D";

class AgentDataInit : public CLogFixture {
 protected:
  // Whether route, component and business number of the sample are all loaded.
  static bool Known(CAgentData& data) {
    int iId = 0;
    CPString strProduct;
    CPString strCombo;
    CPStrList guidList;
    return data.GetCommandGuid(1, "any", "any", "disk_usage", guidList) != 0 &&
           data.GetProductComboByGuid(GUID(kSampleGuid), strProduct, strCombo) != 0 &&
           data.GetIDByProductCombo("veltcwpp", "zxsample", iId) != 0;
  }

  CStore m_data{m_strDir + "root"};
};

TEST_F(AgentDataInit, Init_FailsAndCreatesNothing_WhenHomeIsEmpty) {
  EXPECT_EQ(m_data.Init(""), 0);
  EXPECT_THAT(Lines(), ::testing::ElementsAre("*zxagent CAgentData::Init Error strHomePath is empty"));
  EXPECT_EQ(m_data.GetConfInnerPath(), "");
  EXPECT_TRUE(std::filesystem::is_empty(m_strDir));
}

TEST_F(AgentDataInit, Init_CreatesDirectories) {
  EXPECT_EQ(m_data.Init(CPString(m_strDir)), 1);
  EXPECT_EQ(ModeOf("etc/zxagent"), 0755u);
  EXPECT_EQ(ModeOf("etc/zxagent/inner"), 0755u);
  EXPECT_EQ(m_data.GetConfInnerPath().Str(), m_strDir + "etc/zxagent/inner/");
  EXPECT_THAT(Lines(),
              Contains("zxagent CAgentData::Init m_strHomePath[" + m_strDir + "] m_strConfPath[" + m_strDir +
                       "etc/zxagent/] m_strConfInnerPath[" + m_strDir + "etc/zxagent/inner/]\n"));
  EXPECT_EQ(Lines().back(), "zxagent CAgentData::Init OK");
}

TEST_F(AgentDataInit, Init_WritesCloudRecordAtOnce) {
  ASSERT_EQ(m_data.Init(CPString(m_strDir)), 1);
  EXPECT_EQ(JsonOf("etc/zxagent/zxcloud.json", "connectstatus"), "0");
  EXPECT_EQ(JsonOf("etc/zxagent/zxcloud.json", "longaddrremote"), "");
}

TEST_F(AgentDataInit, Init_GoesOn_WhenHomeCannotBeWritten) {
  WriteFile("file", "x");
  const std::string strHome = m_strDir + "file/";
  EXPECT_EQ(m_data.Init(CPString(strHome)), 1);
  EXPECT_THAT(Lines(), Contains("*zxagent CAgentData::Init Error CreateDirectory m_strConfPath[" + strHome +
                                "etc/zxagent/] Error[" + std::to_string(ENOTDIR) + "]"));
  EXPECT_THAT(Lines(), Contains("*zxagent CAgentData::Init Error CreateDirectory m_strConfInnerPath[" +
                                strHome + "etc/zxagent/inner/] Error[" + std::to_string(ENOTDIR) + "]"));
  EXPECT_EQ(m_data.SetZxCloudTconfAddr("a:1"), 0);
  EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "a:1");
}

TEST_F(AgentDataInit, Init_TellsMissingBusinessTable) {
  ASSERT_EQ(m_data.Init(CPString(m_strDir)), 1);
  EXPECT_THAT(Lines(),
              Contains("*zxagent CAgentData::Init ReadPcidData Warn[" + std::to_string(ENOENT) + "]"));
}

TEST_F(AgentDataInit, Init_LoadsBusinessTableWithoutSavingIt) {
  WriteFile("etc/zxagent/inner/pcid.dat", "veltcwpp,zxsample,7");
  ASSERT_EQ(m_data.Init(CPString(m_strDir)), 1);
  CPString strProduct;
  CPString strCombo;
  EXPECT_EQ(m_data.GetProductComboByID(7, strProduct, strCombo), 1);
  EXPECT_EQ(strProduct, "veltcwpp");
  EXPECT_EQ(strCombo, "zxsample");
  EXPECT_THAT(Lines(), Each(Not(HasSubstr("CAgentData::Init ReadPcidData"))));
  EXPECT_THAT(Lines(), Each(Not(HasSubstr("CAgentData::Init SetPcidData"))));
}

TEST_F(AgentDataInit, Uninit_ForgetsRoutesAndBusinessNumbers) {
  CFakeConfigProxy proxy(m_strDir);
  proxy.SetText("{\"list\":[" + CFakeConfigProxy::Plugin(kSampleGuid, "veltcwpp", "zxsample") + "]}");
  WriteFile("etc/zxagent/commandroute.json",
            R"({"commandroute":[{"id":"5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D","product":"","combo":"",)"
            R"("command":"disk_usage","desc":""}]})");
  WriteFile("etc/zxagent/inner/pcid.dat", "veltcwpp,zxsample,7");
  ASSERT_EQ(m_data.Init(CPString(m_strDir)), 1);
  EXPECT_TRUE(Known(m_data));
  EXPECT_EQ(m_data.Uninit(), 1);
  EXPECT_EQ(Lines().back(), "zxagent CAgentData::Uninit OK");

  int iId = 0;
  CPString strProduct;
  CPString strCombo;
  commandRouteMap mapRoute;
  productComboToGuidMap mapPcGuid;
  m_data.GetCommandProductMap(mapRoute, mapPcGuid);
  EXPECT_TRUE(mapRoute.empty());
  EXPECT_TRUE(mapPcGuid.empty());
  EXPECT_EQ(m_data.GetProductComboByGuid(GUID(kSampleGuid), strProduct, strCombo), 0);
  EXPECT_EQ(m_data.GetIDByProductCombo("veltcwpp", "zxsample", iId), 0);
  EXPECT_EQ(proxy.State().iObjects, 0);
}

TEST_F(AgentDataInit, Uninit_IsHarmless_WhenNeverInitialised) {
  EXPECT_EQ(m_data.Uninit(), 1);
}

TEST_F(AgentDataInit, Init_LoadsEverythingAgain_AfterUninit) {
  CFakeConfigProxy proxy(m_strDir);
  proxy.SetText("{\"list\":[" + CFakeConfigProxy::Plugin(kSampleGuid, "veltcwpp", "zxsample") + "]}");
  WriteFile("etc/zxagent/commandroute.json",
            R"({"commandroute":[{"id":"5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D","product":"","combo":"",)"
            R"("command":"disk_usage","desc":""}]})");
  WriteFile("etc/zxagent/inner/pcid.dat", "veltcwpp,zxsample,7");
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(m_data.Init(CPString(m_strDir)), 1);
    EXPECT_TRUE(Known(m_data));
    ASSERT_EQ(m_data.Uninit(), 1);
  }
}

TEST_F(AgentDataInit, Lines_HaveTheirLevels) {
  ASSERT_EQ(m_data.Init(CPString(m_strDir)), 1);
  WriteFile("etc/version.xml", "<Config><CurrentVer>1</CurrentVer><SystemName>s</SystemName></Config>");
  ASSERT_EQ(m_data.GetVersionXml(), 1);
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentData::Init OK"), kLogInfo);
  EXPECT_EQ(m_log.LevelOf("*zxagent CAgentData::GetVersionXml Error LoadFile File[" + m_strDir +
                          "etc/version.xml]"),
            kLogWarn);
  EXPECT_EQ(m_log.LevelOf(Lines().back()), kLogDetail);  // the thirteen values
}

}  // namespace
