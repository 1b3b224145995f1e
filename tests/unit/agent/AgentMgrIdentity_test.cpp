// Machine id and stored settings at start.
#include "agent/ManagerFixture.h"
#include "platform/doc/PJsonParse.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class AgentMgrIdentity : public CManagerTest {
 protected:
  void SetUp() override {
    Prepare();
    ASSERT_EQ(m_mgr.Data().Init(m_home.Root()), 1);
    SetSystem("sys-mid", "sys-mid2", "sn-new", "disk-new", "mac-new");
  }
  static void SetSystem(const char* pszMid, const char* pszMid2, const char* pszSn, const char* pszDisk,
                        const char* pszMac) {
    CFakeMid& mid = CFakeMid::Instance();
    mid.SetText("mid", pszMid);
    mid.SetText("mid2", pszMid2);
    mid.SetText("zxmid_getmid2sn", pszSn);
    mid.SetText("zxmid_getmid2disk", pszDisk);
    mid.SetText("zxmid_getmid2mac", pszMac);
  }
  void FailSystem() { CFakeMid::Instance().SetResult("mid", 1); }
  // A record of this agent: ids, facts when the id was made, facts at the last start.
  void StoreRecord(const std::string& strLastAllMac) {
    m_home.WriteFile(
        kFile,
        R"({"mid":"old-mid","mid2":"old-mid2","midfirstsn":"sn-1","midlastsn":"sn-2","midfirstdisk":"disk-1",)"
        R"("midlastdisk":"disk-2","midfirstmac":"mac-1","midlastmac":"mac-2","firstallmac":"all-1","lastallmac":")" +
            strLastAllMac + "\"}");
  }
  std::string Field(const char* pszName, const char* pszFile = kFile) {
    zxtools::CPJsonParse json;
    CPString strValue("(none)");
    if (json.LoadFile(m_home.Path(pszFile)) && json.GetNode(pszName) != nullptr)
      zxtools::CPJsonParse::GetValue(json.GetNode(pszName), strValue);
    return strValue.Str();
  }
  std::vector<std::string> Firsts() {
    return {Field("midfirstsn"), Field("midfirstdisk"), Field("midfirstmac"), Field("firstallmac")};
  }
  std::vector<std::string> Lasts() {
    return {Field("midlastsn"), Field("midlastdisk"), Field("midlastmac"), Field("lastallmac")};
  }
  std::vector<std::string> SentIds() {
    CPString strMid1;
    CPString strMid2;
    m_mgr.Sender().GetMid(strMid1, strMid2);
    return {strMid1.Str(), strMid2.Str()};
  }
  static constexpr char kFile[] = "etc/zxagent/inner/.mid";
};

// --- No record yet.

TEST_F(AgentMgrIdentity, NewMachine_TakesTheSystemsIds_FirstEqualsLast) {
  AddAdapter("eth0", "52:54:00:00:00:01");
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_THAT(SentIds(), ElementsAre("sys-mid", "sys-mid2"));
  EXPECT_EQ(Field("mid"), "sys-mid");
  EXPECT_THAT(Firsts(), ElementsAre("sn-new", "disk-new", "mac-new", "52:54:00:00:00:01"));
  EXPECT_EQ(Firsts(), Lasts());
  EXPECT_EQ(Field("mid", "root/etc/.mid"), "sys-mid");
}

TEST_F(AgentMgrIdentity, NewMachine_JoinsAllAddresses) {
  AddAdapter("eth0", "52:54:00:00:00:01");
  AddAdapter("eth1", "52:54:00:00:00:02");
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_THAT(Field("lastallmac"),
              ::testing::AnyOf("52:54:00:00:00:01,52:54:00:00:00:02", "52:54:00:00:00:02,52:54:00:00:00:01"));
}

TEST_F(AgentMgrIdentity, OlderAgentsId_IsTakenOver_WithTheCurrentFacts) {
  m_home.WriteFile("root/var/zxcwpp/run/.mid", "legacy-1\nlegacy-2\n");
  AddAdapter("eth0", "52:54:00:00:00:01");
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_THAT(SentIds(), ElementsAre("legacy-1", "legacy-2"));
  EXPECT_EQ(Field("mid"), "legacy-1");
  EXPECT_EQ(Field("mid2"), "legacy-2");
  EXPECT_THAT(Firsts(), ElementsAre("sn-new", "disk-new", "mac-new", "52:54:00:00:00:01"));
  EXPECT_EQ(Firsts(), Lasts());
  EXPECT_FALSE(m_home.Exists("root/var/zxcwpp/run/.mid"));
}

TEST_F(AgentMgrIdentity, OlderAgentsId_IsEnough_WhenTheProbeFails) {
  m_home.WriteFile("root/etc/.veltepp.mid", "mid2=legacy-2\nmid=legacy-1\n");
  FailSystem();
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_THAT(SentIds(), ElementsAre("legacy-1", "legacy-2"));
}

TEST_F(AgentMgrIdentity, NothingToGoBy_FailsAndLeavesNothing) {
  FailSystem();
  EXPECT_EQ(m_mgr.DisposeMid(), 0);
  EXPECT_TRUE(Logged("**zxagent CAgentMgr::DisposeMid Error GetSysMid"));
  EXPECT_FALSE(m_home.Exists(kFile));
  EXPECT_THAT(SentIds(), ElementsAre("", ""));
  EXPECT_FALSE(m_mgr.GetConfig());
}

TEST_F(AgentMgrIdentity, SaveThatFails_StillHandsOverTheIds) {
  m_home.Remove("etc/zxagent");
  m_home.WriteFile("etc/zxagent", "in the way");
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_THAT(SentIds(), ElementsAre("sys-mid", "sys-mid2"));
}

// --- A record of this machine.

TEST_F(AgentMgrIdentity, KnownMachine_KeepsItsId_AndRefreshesTheLastFacts) {
  StoreRecord("52:54:00:00:00:01,52:54:00:00:00:09");
  AddAdapter("eth0", "52:54:00:00:00:01");
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_THAT(SentIds(), ElementsAre("old-mid", "old-mid2"));
  EXPECT_EQ(Field("mid"), "old-mid");
  EXPECT_THAT(Firsts(), ElementsAre("sn-1", "disk-1", "mac-1", "all-1"));
  EXPECT_THAT(Lasts(), ElementsAre("sn-new", "disk-new", "mac-new", "52:54:00:00:00:01"));
}

TEST_F(AgentMgrIdentity, KnownMachine_RefreshesOnlyTheSerialNumber_WhenOnlyThatChanged) {
  SetSystem("sys-mid", "sys-mid2", "sn-new", "disk-2", "mac-2");
  StoreRecord("52:54:00:00:00:01");
  AddAdapter("eth0", "52:54:00:00:00:01");
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_THAT(Lasts(), ElementsAre("sn-new", "disk-2", "mac-2", "52:54:00:00:00:01"));
  EXPECT_THAT(Firsts(), ElementsAre("sn-1", "disk-1", "mac-1", "all-1"));
}

TEST_F(AgentMgrIdentity, KnownMachine_IsNotWritten_WhenNothingChanged) {
  SetSystem("sys-mid", "sys-mid2", "sn-2", "disk-2", "mac-2");
  StoreRecord("52:54:00:00:00:01");
  AddAdapter("eth0", "52:54:00:00:00:01");
  const CPString strBefore = m_home.ReadFile(kFile);
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_EQ(m_home.ReadFile(kFile), strBefore);  // not even reformatted
}

TEST_F(AgentMgrIdentity, KnownMachine_KeepsWhatTheMachineDoesNotTell) {
  SetSystem("sys-mid", "sys-mid2", "", "", "");
  StoreRecord("52:54:00:00:00:01");
  AddAdapter("eth0", "52:54:00:00:00:01");
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_THAT(Lasts(), ElementsAre("sn-2", "disk-2", "mac-2", "52:54:00:00:00:01"));
}

TEST_F(AgentMgrIdentity, KnownMachine_KeepsItsId_WhenTheProbeFails) {
  FailSystem();
  StoreRecord("52:54:00:00:00:01");
  AddAdapter("eth0", "52:54:00:00:00:01");
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_THAT(SentIds(), ElementsAre("old-mid", "old-mid2"));
}

TEST_F(AgentMgrIdentity, KnownMachine_KeepsItsId_WithoutAnyAdapter) {
  StoreRecord("52:54:00:00:00:01");
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_THAT(SentIds(), ElementsAre("old-mid", "old-mid2"));
  EXPECT_EQ(Field("lastallmac"), "52:54:00:00:00:01");
}

TEST_F(AgentMgrIdentity, KnownMachine_KeepsItsId_WhenNoAddressWasStored) {
  StoreRecord("");
  AddAdapter("eth0", "52:54:00:00:00:01");
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_THAT(SentIds(), ElementsAre("old-mid", "old-mid2"));
  EXPECT_EQ(Field("lastallmac"), "52:54:00:00:00:01");
}

TEST_F(AgentMgrIdentity, OlderForm_IsRewritten_EvenWhenNothingChanged) {
  SetSystem("sys-mid", "sys-mid2", "sn-2", "disk-2", "mac-2");
  m_home.WriteFile(kFile,
                   R"({"mid":"old-mid","mid2":"old-mid2","midsn":"sn-2","middisk":"disk-2","midmac":"mac-2",)"
                   R"("allmac":"52:54:00:00:00:01"})");
  AddAdapter("eth0", "52:54:00:00:00:01");
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_THAT(SentIds(), ElementsAre("old-mid", "old-mid2"));
  EXPECT_THAT(Firsts(), ElementsAre("sn-2", "disk-2", "mac-2", "52:54:00:00:00:01"));
  EXPECT_EQ(Firsts(), Lasts());
  EXPECT_EQ(Field("midsn"), "(none)");
}

// --- A record of another machine.

TEST_F(AgentMgrIdentity, CopiedDisk_GetsTheSystemsIds_AndKeepsTheFirstFacts) {
  StoreRecord("52:54:00:00:00:08,52:54:00:00:00:09");
  AddAdapter("eth0", "52:54:00:00:00:01");
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_THAT(SentIds(), ElementsAre("sys-mid", "sys-mid2"));
  EXPECT_EQ(Field("mid"), "sys-mid");
  EXPECT_THAT(Firsts(), ElementsAre("sn-1", "disk-1", "mac-1", "all-1"));
  EXPECT_THAT(Lasts(), ElementsAre("sn-new", "disk-new", "mac-new", "52:54:00:00:00:01"));
}

TEST_F(AgentMgrIdentity, CopiedDisk_KeepsTheStoredId_UntilTheProbeWorks) {
  StoreRecord("52:54:00:00:00:08");
  AddAdapter("eth0", "52:54:00:00:00:01");
  FailSystem();
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_THAT(SentIds(), ElementsAre("old-mid", "old-mid2"));
  EXPECT_EQ(Field("lastallmac"), "52:54:00:00:00:08");
  CFakeMid::Instance().SetResult("mid", 0);
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_THAT(SentIds(), ElementsAre("sys-mid", "sys-mid2"));
}

TEST_F(AgentMgrIdentity, Probe_LogsThroughTheCloudsCallback) {
  EXPECT_EQ(m_mgr.DisposeMid(), 1);
  EXPECT_EQ(CFakeMid::Instance().LogCallback(), &CAgentMgr::ZxcloudLogCallback);
}

// --- Settings.

TEST_F(AgentMgrIdentity, Config_IsLongWithSixtySeconds_ByDefault) {
  EXPECT_TRUE(m_mgr.GetConfig());
  EXPECT_TRUE(
      Logged("zxagent CAgentMgr::GetConfig ReadTermConnect iType[0] bIsOnlyShort[0] iPollerCycle[60]\n"));
}

TEST_F(AgentMgrIdentity, Config_OfAPersonalEdition_PollsEveryThreeHours) {
  StorePersonalEdition();
  ASSERT_TRUE(m_mgr.Data().GetVersionXml());
  EXPECT_TRUE(m_mgr.GetConfig());
  EXPECT_TRUE(
      Logged("zxagent CAgentMgr::GetConfig ReadTermConnect iType[2] bIsOnlyShort[1] iPollerCycle[10800]\n"));
}

TEST_F(AgentMgrIdentity, Config_TakesAStoredCommand_OverTheEdition) {
  StorePersonalEdition();
  ASSERT_TRUE(m_mgr.Data().GetVersionXml());
  StoreTermConnect(1, 90);
  EXPECT_TRUE(m_mgr.GetConfig());
  EXPECT_TRUE(
      Logged("zxagent CAgentMgr::GetConfig ReadTermConnect iType[1] bIsOnlyShort[0] iPollerCycle[90]\n"));
}

TEST_F(AgentMgrIdentity, Config_LoadsWhatWasStored) {
  m_home.WriteFile("etc/zxagent/lbdata.json", "lb-data");
  m_home.WriteFile("etc/zxagent/zxagent.json", R"({"zxagent":{"channel":"ch-7","pin":"pin-8"}})");
  StoreMsgSrvAddrSet("engine:1", "engine:2");
  StoreEngineStatus(3, "engine:9");
  EXPECT_TRUE(m_mgr.GetConfig());
  EXPECT_EQ(m_mgr.GetLbData(), "lb-data");
  CPString strChannelId;
  CPString strIpartner;
  m_mgr.Sender().GetChannelId(strChannelId, strIpartner);
  EXPECT_EQ(strChannelId, "ch-7");
  EXPECT_EQ(strIpartner, "pin-8");
  EXPECT_TRUE(
      Logged("zxagent CAgentMgr::GetConfig ParseMsgSrvAddrSetData strMsgSrvAddrSet[engine:1,engine:2]\n"));
  EXPECT_TRUE(Logged(
      "zxagent CAgentMgr::GetConfig ReadEngineAddrStatus dwEngineStatus[3] strEngineAddr[engine:9]\n"));
}

TEST_F(AgentMgrIdentity, Config_SurvivesStateFilesOfGarbage) {
  for (const char* pszFile : {"termconnect.json", "msgsrvaddrset.json", "engineaddr.json",
                              "pubmsgreport.json", "cacheattribute.json", "customcloud.json", "zxagent.json"})
    m_home.WriteFile(CPString("etc/zxagent/inner/") + pszFile, CPString("\0\xff{[\"", 5));
  m_home.WriteFile("etc/zxagent/zxagent.json", "not json");
  EXPECT_TRUE(m_mgr.GetConfig());
  EXPECT_EQ(m_mgr.InitZxcloud(0), 0u);
}
