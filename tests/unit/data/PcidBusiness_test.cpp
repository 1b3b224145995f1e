#include <gtest/gtest.h>

#include "support/DataHome.h"
#include "support/FakeConfigProxy.h"

namespace {

class PcidBusiness : public testing::Test {
 protected:
  PcidBusiness() {
    m_home.Init();
    m_home.Data().SetPcidData("A,B,3|C,D,7", 0);
    m_home.Log().Clear();
  }
  void Install(const std::string& strPlugins) { m_proxy.SetText("{\"list\":[" + strPlugins + "]}"); }
  CPString Call(int& bChanged) { return m_home.Data().GetAllPcidBusiness(bChanged); }

  CDataHome m_home;
  CFakeConfigProxy m_proxy{m_home.Home().Str()};  // found at the first need behind Init
};

const std::string kPluginA = CFakeConfigProxy::Plugin("G1", "a", "b");
const std::string kPluginC = CFakeConfigProxy::Plugin("G2", "C", "D");
const std::string kUnloadedC = CFakeConfigProxy::Plugin("G2", "C", "D", 0);
const std::string kUnknown = CFakeConfigProxy::Plugin("G3", "no", "number");

}  // namespace

TEST_F(PcidBusiness, ListsTheNumbersOfLoadedPluginsInOrder) {
  Install(kPluginC + "," + kUnknown + "," + kPluginA + "," + kPluginC);
  int bChanged = 0;
  EXPECT_EQ(Call(bChanged), "<id>7</id>\n\t\t\t<id>3</id>\n\t\t\t<id>7</id>");
  EXPECT_EQ(bChanged, 1);
  Install(kUnloadedC + "," + kPluginA);
  EXPECT_EQ(Call(bChanged), "<id>3</id>");
}

TEST_F(PcidBusiness, ReportsAChangeOnce) {
  Install(kPluginA);
  int bChanged = 0;
  EXPECT_EQ(Call(bChanged), "<id>3</id>");
  EXPECT_EQ(bChanged, 1);
  EXPECT_EQ(m_home.Log().LevelOf("zxagent CAgentData::GetAllPcidBusiness strBussiness[<id>3</id>]"),
            kLogInfo);

  bChanged = 0;
  m_home.Log().Clear();
  EXPECT_EQ(Call(bChanged), "<id>3</id>");
  EXPECT_EQ(bChanged, 0);
  EXPECT_EQ(m_home.Log().LevelOf("zxagent CAgentData::GetAllPcidBusiness strBussiness[<id>3</id>]"),
            kLogDetail);

  Install(kPluginA + "," + kPluginC);
  Call(bChanged);
  EXPECT_EQ(bChanged, 1);
}

TEST_F(PcidBusiness, KeepsAChangeThatTheCallerKnowsOf) {
  Install(kPluginA);
  int bChanged = 0;
  Call(bChanged);
  m_home.Log().Clear();
  EXPECT_EQ(Call(bChanged), "<id>3</id>");
  EXPECT_EQ(bChanged, 1);
  EXPECT_EQ(m_home.Log().LevelOf("zxagent CAgentData::GetAllPcidBusiness strBussiness[<id>3</id>]"),
            kLogInfo);
}

TEST_F(PcidBusiness, IsEmptyAndSilent_WithoutLoadedPlugins) {
  Install(kUnknown);
  int bChanged = 1;
  EXPECT_TRUE(Call(bChanged).IsEmpty());
  EXPECT_EQ(bChanged, 1);
  EXPECT_FALSE(m_home.Log().Contains("GetAllPcidBusiness"));
  bChanged = 0;
  EXPECT_TRUE(Call(bChanged).IsEmpty());
  EXPECT_EQ(bChanged, 0);
}

TEST_F(PcidBusiness, BecomesEmpty_WhenTheProxyFails) {
  Install(kPluginA);
  int bChanged = 0;
  Call(bChanged);
  m_proxy.State().iResult = 1;
  bChanged = 0;
  EXPECT_TRUE(Call(bChanged).IsEmpty());
  EXPECT_EQ(bChanged, 1);
}
