#include "registry/AgentInterface.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/FakeConfigProxy.h"
#include "support/MainLog.h"
#include "support/TempHome.h"

namespace {

class AgentInterface : public testing::Test {
 protected:
  ~AgentInterface() override {
    if (m_bInit)
      m_interface.Uninit();
  }
  int Init() {
    m_bInit = true;
    return m_interface.Init(m_home.Root());
  }

  CTempHome m_home;
  CMainLog m_log;
  CAgentInterface m_interface;
  std::list<_GuidProductCombo> m_list;
  bool m_bInit = false;
};

}  // namespace

TEST_F(AgentInterface, Init_LoadsTheLibrary) {
  CFakeConfigProxy proxy(m_home.Root().Str());
  EXPECT_EQ(Init(), 1);
  EXPECT_EQ(proxy.State().iObjects, 1);
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentInterface::Init OK strHomePath[" + m_home.Root().Str() + "]"),
            kLogInfo);
}

TEST_F(AgentInterface, Init_RefusesAnEmptyHome) {
  EXPECT_EQ(m_interface.Init(""), 0);
  EXPECT_EQ(m_log.LevelOf("**zxagent CAgentInterface::Init Error strHomePath is empty"), kLogError);
}

TEST_F(AgentInterface, Init_SaysWhatIsMissing_WhenThereIsNoLibrary) {
  EXPECT_EQ(Init(), 0);
  EXPECT_TRUE(m_log.Contains("**zxagent CAgentInterface::Init Error init Error[13][" +
                             m_home.Path("lib/modules/libconfigproxy.so").Str() + ": cannot open"));
  EXPECT_TRUE(m_log.Contains("] strInstallDir[" + m_home.Root().Str() + "]"));
}

TEST_F(AgentInterface, Uninit_ReleasesTheImplementation) {
  CFakeConfigProxy proxy(m_home.Root().Str());
  EXPECT_EQ(m_interface.Init(m_home.Root()), 1);
  EXPECT_EQ(m_interface.Uninit(), 1);
  EXPECT_EQ(proxy.State().iObjects, 0);
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentInterface::Uninit OK"), kLogInfo);
}

TEST_F(AgentInterface, Uninit_Complains_WithoutAProxy) {
  EXPECT_EQ(m_interface.Uninit(), 0);
  EXPECT_EQ(m_log.LevelOf("**zxagent CAgentInterface::Uninit Error pDornConfigProxy is NULL"), kLogError);
}

TEST_F(AgentInterface, SecondLifeCycle_UsesTheNewHome) {
  CFakeConfigProxy proxy(m_home.Root().Str());
  EXPECT_EQ(m_interface.Init(m_home.Root()), 1);
  EXPECT_EQ(m_interface.Uninit(), 1);

  CTempHome second;
  CFakeConfigProxy secondProxy(second.Root().Str());
  secondProxy.SetText("{\"list\":[" + CFakeConfigProxy::Plugin("G", "P", "C") + "]}");
  m_bInit = true;
  EXPECT_EQ(m_interface.Init(second.Root()), 1);
  EXPECT_EQ(m_interface.GetAllGuidProductCombo(m_list), 1);
  EXPECT_EQ(m_list.size(), 1u);
  EXPECT_EQ(proxy.State().iGets, 0);
  EXPECT_EQ(secondProxy.State().iGets, 1);
}

TEST_F(AgentInterface, GetPluginInfo_TellsLoadedFromInstalled) {
  CFakeConfigProxy proxy(m_home.Root().Str());
  const std::string strData = "{\"list\":[" + CFakeConfigProxy::Plugin("G1", "P", "C", 1) + "," +
                              CFakeConfigProxy::Plugin("G2", "P", "C", 0) + "]}";
  proxy.SetText(strData);
  EXPECT_EQ(Init(), 1);
  EXPECT_EQ(m_interface.GetAllGuidProductCombo(m_list), 1);
  EXPECT_EQ(m_list.size(), 2u);
  EXPECT_EQ(proxy.State().iLastItem, 5);
  EXPECT_EQ(m_log.LevelOf(
                "zxagent CAgentInterface::GetPluginInfo OK ParsePluginInfo bGetAll[1] gpcList[2] strData[" +
                strData + "]\n"),
            kLogInfo);

  m_list.clear();
  EXPECT_EQ(m_interface.GetLoadGuidProductCombo(m_list), 1);
  ASSERT_EQ(m_list.size(), 1u);
  EXPECT_EQ(m_list.front().strGuid, "G1");
}

TEST_F(AgentInterface, GetPluginInfo_Complains_WithoutAProxy) {
  EXPECT_EQ(m_interface.GetAllGuidProductCombo(m_list), 0);
  EXPECT_EQ(
      m_log.LevelOf("**zxagent CAgentInterface::GetPluginInfo Error pDornConfigProxy is NULL bGetAll[1]"),
      kLogError);
}

TEST_F(AgentInterface, GetPluginInfo_AnswersThirteen_WhenTheLibraryIsMissing) {
  m_list.push_back({"keep", "p", "c"});
  EXPECT_EQ(Init(), 0);
  EXPECT_EQ(m_interface.GetLoadGuidProductCombo(m_list), 0);
  EXPECT_EQ(m_log.LevelOf("**zxagent CAgentInterface::GetPluginInfo Error GetConfig cfgRet[13] bGetAll[0]"),
            kLogError);
  ASSERT_EQ(m_list.size(), 1u);
  EXPECT_EQ(m_list.front().strGuid, "keep");
}

TEST_F(AgentInterface, GetPluginInfo_LoadsALibraryThatCameLater) {
  EXPECT_EQ(Init(), 0);
  CFakeConfigProxy proxy(m_home.Root().Str());
  proxy.SetText("{\"list\":[]}");
  EXPECT_EQ(m_interface.GetAllGuidProductCombo(m_list), 1);
  EXPECT_EQ(proxy.State().iCreated, 1);
}

TEST_F(AgentInterface, GetPluginInfo_Fails_WhenTheReadFails) {
  CFakeConfigProxy proxy(m_home.Root().Str());
  proxy.SetText("{\"list\":[" + CFakeConfigProxy::Plugin("G", "P", "C") + "]}");
  EXPECT_EQ(Init(), 1);
  proxy.State().iResult = 1;
  EXPECT_EQ(m_interface.GetAllGuidProductCombo(m_list), 0);
  EXPECT_TRUE(m_list.empty());
  EXPECT_EQ(m_log.LevelOf("**zxagent CAgentInterface::GetPluginInfo Error GetConfig cfgRet[1] bGetAll[1]"),
            kLogError);
}

TEST_F(AgentInterface, GetPluginInfo_TakesOnlyTexts) {
  CFakeConfigProxy proxy(m_home.Root().Str());
  proxy.SetText("{\"list\":[]}");
  EXPECT_EQ(Init(), 1);
  proxy.State().iTag = 3;
  EXPECT_EQ(m_interface.GetAllGuidProductCombo(m_list), 0);
  EXPECT_TRUE(m_log.Contains("*zxagent CAgentData::ParsePluginInfo Warn strData is empty bGetAll[1]"));
  EXPECT_EQ(
      m_log.LevelOf("**zxagent CAgentInterface::GetPluginInfo Error ParsePluginInfo bGetAll[1] strData[]"),
      kLogError);

  proxy.State().iTag = 4;
  proxy.State().pszText = nullptr;
  EXPECT_EQ(m_interface.GetAllGuidProductCombo(m_list), 0);
}

struct _LoadCase {
  EFakeConfigProxy eKind;
  int bRefuse;
  const char* pszOutput;
};

class LoadFailure : public AgentInterface, public testing::WithParamInterface<_LoadCase> {};

TEST_P(LoadFailure, IsPrintedOnStandardOutput) {
  CFakeConfigProxy proxy(m_home.Root().Str(), GetParam().eKind);
  if (GetParam().eKind == EFakeConfigProxy::Complete)
    proxy.State().bRefuse = GetParam().bRefuse;
  testing::internal::CaptureStdout();
  EXPECT_EQ(Init(), 0);
  const std::string strOutput = testing::internal::GetCapturedStdout();
  EXPECT_THAT(strOutput, testing::StartsWith(GetParam().pszOutput));
  EXPECT_EQ(strOutput.back(), '\n');
  EXPECT_TRUE(m_log.Contains("**zxagent CAgentInterface::Init Error init Error[13]["));

  // Every later need tries again.
  EXPECT_EQ(m_interface.GetAllGuidProductCombo(m_list), 0);
  EXPECT_TRUE(m_log.Contains("Error GetConfig cfgRet[13] bGetAll[1]"));
}

INSTANTIATE_TEST_SUITE_P(Kinds, LoadFailure,
                         testing::Values(_LoadCase{EFakeConfigProxy::NotALibrary, 0, "[loadLib] laod err: "},
                                         _LoadCase{EFakeConfigProxy::NoEntryPoint, 0,
                                                   "[loadLib]:get  PFNCFGCreateInstance fail.\n"},
                                         _LoadCase{EFakeConfigProxy::Complete, 1,
                                                   "[loadLib]:get  m_CfgImpl fail.\n"}));
