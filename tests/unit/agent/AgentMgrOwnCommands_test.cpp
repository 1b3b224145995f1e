// Commands from the cloud by way of the agent's own targets, the policy cache and the components.
#include <algorithm>

#include "agent/OwnCommandFixture.h"
#include "support/Gauges.h"

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

class AgentMgrOwnCommands : public COwnCommandTest {
 protected:
  static constexpr char kPlugMgr[] = "veltExtHost_PluginMgr/policy/";

  void TearDown() override {
    m_bus.SetHook(nullptr);
    m_cloud.Reset();
  }
  // What a copy says when the next acknowledgement is sent, or the next command handed over.
  void SeeAtAcknowledgement(const std::string& strCached) {
    m_cloud.SetHook(ECloudCall::Send, [this, strCached](const _CloudCall&) {
      m_strSeen = Verdict(strCached);
      return 0u;
    });
  }
  void SeeAtHandOff(const std::string& strCached) {
    m_bus.SetHook([this, strCached](const _BusCall& call) {
      if (call.eCall == EBusCall::AsynSendEx && call.uiType == AGENT_MSG_ASYNC_TASKMGR)
        m_strSeen = Verdict(strCached);
    });
  }
  std::string m_strSeen;
};

namespace {
constexpr char kTermConnect[] = R"({"type":2,"poller_cycle":120})";
constexpr char kAssets[] = R"({"open":1,"list":[]})";
}  // namespace

TEST_F(AgentMgrOwnCommands, Inner_AreCarriedOutRecordedAndAcknowledged) {
  m_cloud.SetResult(ECloudCall::TconfCheck, 1);
  const std::pair<const char*, const char*> commands[] = {
      {"PubMsgReport", "1"},
      {"term_connect_type", kTermConnect},
      {"ClientReady", "{}"},
      {"assetCollection", kAssets},
      {"msgsrvaddr", R"([{"addr":"a:1","type":"1"}])"},
  };
  for (const auto& [pszCommand, pszParam] : commands) {
    Forget();
    const std::string strMsg = Command("id-1", pszCommand, pszParam);
    EXPECT_EQ(Push(kPcidPlugMgr, strMsg), 1) << pszCommand;
    EXPECT_EQ(Verdict(std::string(kPlugMgr) + pszCommand + ".json"), "true") << pszCommand;
    EXPECT_THAT(Acks(), ElementsAre("id-1|1")) << pszCommand;
    EXPECT_THAT(MainLines(),
                Contains(AllOf(
                    StartsWith("zxagent pushmsg InnerCommand OK u64DataId["),
                    HasSubstr(std::string("] strID[id-1] strCommand[") + pszCommand +
                              "] strProduct[veltExtHost] strCombo[PluginMgr] lpszMsg[" + strMsg + "]\n"))));
  }
  EXPECT_THAT(HandOffs(), IsEmpty());
}

TEST_F(AgentMgrOwnCommands, Inner_AreRecordedBeforeTheyAreAcknowledged) {
  SeeAtAcknowledgement(std::string(kPlugMgr) + "ClientReady.json");
  EXPECT_EQ(Push(kPcidPlugMgr, Command("id-1", "ClientReady")), 1);
  EXPECT_EQ(m_strSeen, "true");
}

TEST_F(AgentMgrOwnCommands, Inner_AreNotOfferedToComponents_WhenTheyFail) {
  const std::pair<const char*, const char*> commands[] = {
      {"PubMsgReport", "4"}, {"term_connect_type", "{}"}, {"assetCollection", "{}"}, {"msgsrvaddr", "7"}};
  for (const auto& [pszCommand, pszParam] : commands) {
    Forget();
    EXPECT_EQ(Push(kPcidPlugMgr, Command("id-1", pszCommand, pszParam)), 1) << pszCommand;
    EXPECT_THAT(Acks(), ElementsAre("id-1|4")) << pszCommand;
    EXPECT_EQ(Verdict(std::string(kPlugMgr) + pszCommand + ".json"), "false") << pszCommand;
    EXPECT_THAT(HandOffs(), IsEmpty()) << pszCommand;
  }
  for (const char* pszFile :
       {"pubmsgreport.json", "termconnect.json", "msgsrvaddrset.json", "engineaddr.json"})
    EXPECT_FALSE(m_home.Exists(std::string("etc/zxagent/inner/") + pszFile)) << pszFile;
  EXPECT_EQ(m_cloud.Count(ECloudCall::Uninit), 0u);
}

TEST_F(AgentMgrOwnCommands, Inner_StayTaken_WhenTheAcknowledgementFails) {
  m_cloud.SetResult(ECloudCall::Send, 1);
  EXPECT_EQ(Push(kPcidPlugMgr, Command("id-1", "ClientReady")), 1);
  EXPECT_THAT(HandOffs(), IsEmpty());
}

TEST_F(AgentMgrOwnCommands, Inner_ReinitialiseOnce_WhenShortConnectionsAreAskedForTwice) {
  EXPECT_EQ(Push(kPcidPlugMgr, Command("1", "term_connect_type", kTermConnect)), 1);
  EXPECT_EQ(Push(kPcidPlugMgr, Command("2", "term_connect_type", kTermConnect)), 1);
  EXPECT_EQ(m_cloud.Count(ECloudCall::Uninit), 1u);
  EXPECT_THAT(Acks(), ElementsAre("1|1", "2|1"));
}

TEST_F(AgentMgrOwnCommands, Inner_AreFound_WhateverTheCaseOfTheTarget) {
  EXPECT_EQ(m_mgr.DisposePushmsg(1, "VELTEXTHOST", "PLUGINMGR", Command("id-1", "ClientReady").c_str()), 0u);
  EXPECT_THAT(Acks(), ElementsAre("id-1|1"));
  EXPECT_EQ(Verdict("VELTEXTHOST_PLUGINMGR/policy/ClientReady.json"), "true");
  EXPECT_THAT(HandOffs(), IsEmpty());
}

TEST_F(AgentMgrOwnCommands, Inner_AreRouted_WhenTheNameIsNotOneOfTheFive) {
  for (const char* pszCommand : {"clientready", "ClientReady2", "Restart", "RunScriptFile"}) {
    Forget();
    const std::string strMsg = Command("id-1", pszCommand);
    EXPECT_EQ(Push(kPcidPlugMgr, strMsg), 1) << pszCommand;
    EXPECT_THAT(HandOffs(), ElementsAre(HandOff(kGuidPlugMgr, pszCommand, strMsg)));
    EXPECT_THAT(Acks(), ElementsAre("id-1|3")) << pszCommand << ": the component's, not the agent's";
    EXPECT_THAT(MainLines(), Not(Contains(HasSubstr("InnerCommand OK"))));
  }
}

TEST_F(AgentMgrOwnCommands, Inner_AreRouted_WhenTheTargetIsAnother) {
  const std::string strMsg = Command("id-1", "ClientReady");
  EXPECT_EQ(Push(kPcidScan, strMsg), 1);
  EXPECT_EQ(Push(kPcidMaint, strMsg), 1);
  EXPECT_THAT(HandOffs(), ElementsAre(HandOff(kGuidScan, "ClientReady", strMsg),
                                      HandOff(kGuidMaint, "ClientReady", strMsg)));
  EXPECT_EQ(m_mgr.GetClientReady(), "");
}

TEST_F(AgentMgrOwnCommands, Inner_AreRouted_WithoutACommand) {
  const std::string strMsg = R"({"ID":"id-1","Command":"","command":"ClientReady"})";
  EXPECT_EQ(Push(kPcidPlugMgr, strMsg), 1);
  EXPECT_THAT(HandOffs(), ElementsAre(HandOff(kGuidPlugMgr, "", strMsg)));
  EXPECT_FALSE(m_home.Exists("data/policy/agentcache")) << "a command without a name has no copy";
}

// --- Maintenance scripts.

TEST_F(AgentMgrOwnCommands, Maint_SpoolsRecordsAndAcknowledges) {
  for (const char* pszCommand : {"RunScriptFile", "runscriptfile", "RunScriptProcess"}) {
    Forget();
    const std::string strMsg = Command("id-1", pszCommand);
    EXPECT_EQ(Push(kPcidMaint, strMsg), 1) << pszCommand;
    EXPECT_EQ(Verdict(std::string("veltcwpp_zxpmaint/policy/") + pszCommand + ".json"), "true");
    EXPECT_THAT(Acks(), ElementsAre("id-1|1")) << pszCommand;
    EXPECT_THAT(HandOffs(), IsEmpty()) << pszCommand;
    EXPECT_THAT(MainLines(), Contains(AllOf(StartsWith("zxagent pushmsg MaintCommand OK u64DataId["),
                                            HasSubstr(std::string("] strCommand[") + pszCommand + "] "))));
  }
  EXPECT_THAT(FilesBelow(Path("data/zxpmaint")),
              ElementsAre("policyfile/id-1.json", "policyprocess/id-1.json"));
}

TEST_F(AgentMgrOwnCommands, Maint_IsFound_WhateverTheCaseOfTheTarget) {
  EXPECT_EQ(m_mgr.DisposePushmsg(1, "VELTCWPP", "ZXPMAINT", Command("id-1", "RunScriptFile").c_str()), 0u);
  EXPECT_THAT(Acks(), ElementsAre("id-1|1"));
  EXPECT_TRUE(m_home.Exists("data/zxpmaint/policyfile/id-1.json"));
}

TEST_F(AgentMgrOwnCommands, Maint_IsRouted_WhenMaintenanceDoesNotTakeIt) {
  for (const char* pszCommand : {"RunScriptNormal", "runscript", "RunScriptOther"}) {
    Forget();
    const std::string strMsg = Command("id-1", pszCommand);
    EXPECT_EQ(Push(kPcidMaint, strMsg), 1) << pszCommand;
    EXPECT_THAT(HandOffs(), ElementsAre(HandOff(kGuidMaint, pszCommand, strMsg)));
    EXPECT_THAT(Acks(), ElementsAre("id-1|3")) << pszCommand;
    EXPECT_TRUE(Logged("CAgentMaint::")) << pszCommand << " was offered to it";
  }
  for (const char* pszCommand : {"RunScrip", "xRunScriptFile", "Restart"}) {
    Forget();
    const std::string strMsg = Command("id-1", pszCommand);
    EXPECT_EQ(Push(kPcidMaint, strMsg), 1) << pszCommand;
    EXPECT_THAT(HandOffs(), ElementsAre(HandOff(kGuidMaint, pszCommand, strMsg)));
    EXPECT_FALSE(Logged("CAgentMaint::")) << pszCommand << " is none of its commands";
  }
  EXPECT_THAT(FilesBelow(Path("data/zxpmaint")), IsEmpty());
}

TEST_F(AgentMgrOwnCommands, Maint_AnswersWhatMaintenanceAnswers) {
  EXPECT_EQ(m_mgr.DisposeMaintCommand(1, "veltcwpp", "zxpmaint", "id", "RunScriptFile", "{}"), 1);
  EXPECT_EQ(m_mgr.DisposeMaintCommand(1, "veltcwpp", "zxpmaint", "id", "RunScriptFile", nullptr), 0);
  EXPECT_EQ(m_mgr.DisposeMaintCommand(1, "veltcwpp", "zxpmaint", "id", "RunScriptNormal", "{}"), 0);
  EXPECT_EQ(m_mgr.DisposeMaintCommand(1, "veltcwpp", "zxpmaint", "id", "", "{}"), 0);
  EXPECT_THAT(Acks(), ElementsAre("id|1"));
}

TEST_F(AgentMgrOwnCommands, Maint_UploadsTheToolsResults) {
  m_home.WriteFile("data/zxpmaint/result/r.json", R"({"ID":"id-1","state":"done"})");
  EXPECT_EQ(Push(kPcidMaint, Command("id-1", "RunScriptFile")), 1);
  ASSERT_TRUE(m_cloud.WaitCount(ECloudCall::SendSync, 1));
  EXPECT_THAT(m_cloud.Texts(ECloudCall::SendSync)[0], AllOf(HasSubstr("<product=veltcwpp><combo=zxpmaint>"),
                                                            HasSubstr(R"({"ID":"id-1","state":"done"})")));
  EXPECT_TRUE(EventuallyTrue([this] { return !m_home.Exists("data/zxpmaint/result/r.json"); }));
}

// --- The policy cache.

TEST_F(AgentMgrOwnCommands, Cache_HoldsARoutedCommand_BeforeItIsHandedOver) {
  SeeAtHandOff("Scan_One/policy/doIt.json");
  EXPECT_EQ(Push(kPcidScan, Command("id-1", "doIt")), 1);
  EXPECT_EQ(m_strSeen, "false") << "the component has not answered yet";
}

TEST_F(AgentMgrOwnCommands, Cache_TakesTheComponentsSuccess_BeforeTheAcknowledgement) {
  SeeAtAcknowledgement("Scan_One/policy/doIt.json");
  EXPECT_EQ(Push(kPcidScan, Command("id-1", "doIt")), 1);
  EXPECT_EQ(m_strSeen, "true");
  EXPECT_THAT(Acks(), ElementsAre("id-1|3"));
}

TEST_F(AgentMgrOwnCommands, Cache_KeepsACommandOpen_WhenTheComponentFails) {
  SetComponentResult(5);
  EXPECT_EQ(Push(kPcidScan, Command("id-1", "doIt")), 1);
  EXPECT_EQ(Verdict("Scan_One/policy/doIt.json"), "false");
  EXPECT_THAT(Acks(), IsEmpty());
}

TEST_F(AgentMgrOwnCommands, Cache_KeepsACommandOpen_WhenTheBusRefusesIt) {
  m_bus.SetResult(EBusCall::AsynSendEx, kBusErrBusy);
  EXPECT_EQ(Push(kPcidScan, Command("id-1", "doIt")), 1);
  EXPECT_EQ(Verdict("Scan_One/policy/doIt.json"), "false");
  EXPECT_THAT(Acks(), IsEmpty());
}

TEST_F(AgentMgrOwnCommands, Cache_HoldsACommandThatNobodyTakes) {
  EXPECT_EQ(Push(kPcidNobody, Command("id-1", "doIt")), 0);
  EXPECT_EQ(Verdict("Scan_None/policy/doIt.json"), "false");
  EXPECT_THAT(Acks(), ElementsAre("id-1|4"));
}

TEST_F(AgentMgrOwnCommands, Cache_KeepsAHistoryOfTasks) {
  for (const char* pszID : {"a", "b", "c"})
    EXPECT_EQ(Push(kPcidScan, Command(pszID, "task")), 1);
  EXPECT_THAT(FilesBelow(Path("data/policy/agentcache")), SizeIs(2));
  EXPECT_EQ(Verdict("Scan_One/task/task_c.json"), "true");
}

TEST_F(AgentMgrOwnCommands, Cache_DoesNotStandInTheWay_WhenItCannotWrite) {
  m_home.Remove("data/policy");
  m_home.WriteFile("data/policy", "");
  const std::string strMsg = Command("id-1", "doIt");
  EXPECT_EQ(Push(kPcidScan, strMsg), 1);
  EXPECT_EQ(Push(kPcidPlugMgr, Command("id-2", "ClientReady")), 1);
  EXPECT_THAT(HandOffs(), ElementsAre(HandOff(kGuidScan, "doIt", strMsg)));
  EXPECT_THAT(Acks(), ElementsAre("id-1|3", "id-2|1"));
}

TEST_F(AgentMgrOwnCommands, Cache_LeavesTheVerdictOfAssetPolicies) {
  EXPECT_EQ(Push(kPcidScan, Command("id-1", "assetCollection")), 1);
  EXPECT_THAT(Acks(), ElementsAre("id-1|3"));
  EXPECT_EQ(Verdict("Scan_One/policy/assetCollection.json"), "false") << "as it was saved";
}

// --- Hostile texts: nothing outside the place meant, the step's ordinary failure, the next command works.

TEST_F(AgentMgrOwnCommands, Hostile_CommandsStayInTheCache) {
  m_home.WriteFile("etc/x.json", "keep");
  const std::vector<std::string> before = FilesBelow(Path(""));
  for (const std::string strCommand : {"../../../../../etc/x", "..", ".", "a/b", "/tmp/zxhostile"}) {
    Forget();
    const std::string strMsg = Command("id-1", strCommand);
    EXPECT_EQ(Push(kPcidScan, strMsg), 1) << strCommand;
    EXPECT_THAT(HandOffs(), ElementsAre(HandOff(kGuidScan, strCommand, strMsg))) << "still handed over";
    EXPECT_THAT(Acks(), ElementsAre("id-1|3"));
    EXPECT_EQ(FilesBelow(Path("")), before) << strCommand;
  }
  EXPECT_EQ(m_home.ReadFile("etc/x.json"), "keep");
  EXPECT_FALSE(std::filesystem::exists("/tmp/zxhostile.json"));
  EXPECT_EQ(Push(kPcidScan, Command("id-2", "next")), 1);
  EXPECT_EQ(Verdict("Scan_One/policy/next.json"), "true");
}

TEST_F(AgentMgrOwnCommands, Hostile_TaskIdsStayInTheCache) {
  const std::vector<std::string> before = FilesBelow(Path(""));
  for (const std::string strID : {"../../x", "..", "a/b", "/tmp/zxhostile"}) {
    EXPECT_EQ(Push(kPcidScan, Command(strID, "task")), 1) << strID;
    EXPECT_EQ(FilesBelow(Path("")), before) << strID;
  }
}

TEST_F(AgentMgrOwnCommands, Hostile_MaintenanceIdsAreNotSpooled) {
  for (const std::string strID : {"../../../etc/x", "a/b", ".", ".."}) {
    Forget();
    EXPECT_EQ(Push(kPcidMaint, Command(strID, "RunScriptProcess")), 1) << "offered to the component instead";
    EXPECT_THAT(Acks(), ElementsAre(strID + "|3"));
    EXPECT_THAT(FilesBelow(Path("data/zxpmaint")), IsEmpty()) << strID;
    EXPECT_FALSE(Logged("CreateProcess")) << strID;
  }
  Forget();
  EXPECT_EQ(Push(kPcidMaint, Command("id-1", "RunScriptFile")), 1);
  EXPECT_THAT(Acks(), ElementsAre("id-1|1"));
}

TEST_F(AgentMgrOwnCommands, Hostile_MaintenanceIdsDoNotReachTheShell) {
  m_home.MakeDir("args");
  m_home.WriteFile("bin/zxpmaint",
                   "#!/bin/sh\nprintf '%s|%s' \"$#\" \"$1\" > '" + Path("args/.x") + "'\nmv '" +
                       Path("args/.x") + "' '" + Path("args/x") + "'\n",
                   0755);
  const std::string strID = "$(touch " + Path("args/evil") + ")`touch " + Path("args/evil") + "`\"";
  std::string strName = strID;  // as a file name it may hold no slash
  std::replace(strName.begin(), strName.end(), '/', '_');
  EXPECT_EQ(m_mgr.DisposeMaintCommand(1, "veltcwpp", "zxpmaint", strID, "RunScriptProcess", "{}"), 0);
  EXPECT_EQ(m_mgr.DisposeMaintCommand(1, "veltcwpp", "zxpmaint", strName, "RunScriptProcess", "{}"), 1);
  ASSERT_TRUE(EventuallyTrue([this] { return m_home.Exists("args/x"); }));
  EXPECT_EQ(m_home.ReadFile("args/x").Str(), "1|" + strName + ".json");
  EXPECT_THAT(FilesBelow(Path("args")), ElementsAre("x"));
}

TEST_F(AgentMgrOwnCommands, Hostile_AssetCombosStayInTheirDirectory) {
  m_home.WriteFile("etc/x", "keep");
  const std::string strEntry = R"({"open":1,"interval":9,"task":{},"combo":")";
  EXPECT_EQ(Push(kPcidPlugMgr, Command("id-1", "assetCollection",
                                       R"({"open":1,"list":[)" + strEntry + "../../..\"}," + strEntry +
                                           "..\"}," + strEntry + "Scan/One\"}]}")),
            1);
  EXPECT_THAT(Acks(), ElementsAre("id-1|3", "id-1|1"));
  EXPECT_THAT(HandOffs(), ElementsAre(StartsWith(std::string(kGuidScan) + "|assetCollection|")));
  EXPECT_THAT(FilesBelow(Path("data/policy/assetcollection")), ElementsAre("One"));
  EXPECT_EQ(m_home.ReadFile("etc/x"), "keep");
}

// --- Figures.

TEST_F(AgentMgrOwnCommands, Gauges_ShowCommandsModeAndWaitingRecords) {
  const int64_t i64Pushes = GaugeValue("agent.pushes").value_or(-1);
  const int64_t i64DataId = GaugeValue("agent.data_id").value_or(-1);
  Push(kPcidScan, Command("a", "task"));
  Push(kPcidScan, Command("b", "task"));
  EXPECT_EQ(GaugeValue("agent.pushes"), i64Pushes + 2);
  EXPECT_GE(GaugeValue("agent.data_id").value_or(-1), i64DataId + 2);
  EXPECT_EQ(GaugeValue("agent.poll_cycle_sec"), 60);
  EXPECT_EQ(GaugeValue("agent.only_short"), 0);
  EXPECT_EQ(GaugeValue("agent.threads"), AgentThreads().Running());
  EXPECT_GE(AgentThreads().Running(), 32u);

  Push(kPcidScan, Command("c", "task"));
  m_mgr.DisposeTermConnect(1, "d", R"({"Param":{"type":2,"poller_cycle":600}})");
  EXPECT_EQ(GaugeValue("agent.poll_cycle_sec"), 600);
  EXPECT_EQ(GaugeValue("agent.only_short"), 1);

  const int64_t i64Waiting = GaugeValue("agent.work_queue").value_or(-1);
  ASSERT_TRUE(m_mgr.AddZxcloudCallbackData(kWorkWake, 0, nullptr, 0));
  EXPECT_EQ(GaugeValue("agent.work_queue"), i64Waiting + 1);
  RunWorkThread();
  EXPECT_TRUE(EventuallyTrue([] { return GaugeValue("agent.work_queue") == 0; }));

  EXPECT_EQ(GaugeValue("agent.connected"), 0);
  m_mgr.ZxcloudConnect("10.0.0.1", 1, 1);
  EXPECT_EQ(GaugeValue("agent.connected"), 0) << "a poll is no long connection";
  m_mgr.ZxcloudConnect("10.0.0.1", 1, 0);
  EXPECT_EQ(GaugeValue("agent.connected"), 1);
  m_mgr.ZxcloudDisconnect();
  EXPECT_EQ(GaugeValue("agent.connected"), 0);
}
