#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>

#include "DataFixture.h"

namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class AgentDataInit : public CLogFixture {
 protected:
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
  WriteFile("etc/zxagent/inner/pcid.dat", "veltcwpp,zxsample,7");
  ASSERT_EQ(m_data.Init(CPString(m_strDir)), 1);
  int iId = 0;
  ASSERT_EQ(m_data.GetIDByProductCombo("veltcwpp", "zxsample", iId), 1);
  EXPECT_EQ(m_data.Uninit(), 1);
  EXPECT_EQ(m_data.GetIDByProductCombo("veltcwpp", "zxsample", iId), 0);
  commandRouteMap mapRoute;
  productComboToGuidMap mapPcGuid;
  m_data.GetCommandProductMap(mapRoute, mapPcGuid);
  EXPECT_TRUE(mapRoute.empty());
  EXPECT_TRUE(mapPcGuid.empty());
  EXPECT_EQ(Lines().back(), "zxagent CAgentData::Uninit OK");
}

TEST_F(AgentDataInit, Uninit_IsHarmless_WhenNeverInitialised) {
  EXPECT_EQ(m_data.Uninit(), 1);
}

TEST_F(AgentDataInit, Init_Again_AfterUninit) {
  ASSERT_EQ(m_data.Init(CPString(m_strDir)), 1);
  ASSERT_EQ(m_data.Uninit(), 1);
  EXPECT_EQ(m_data.Init(CPString(m_strDir)), 1);
}

}  // namespace
