#include "AssetFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

class SendPolicyMsgData : public CAssetTest {
 protected:
  int Send(const CPString& strCombo, const CPString& strMsg = "text") {
    return m_asset.SendPolicyMsgData(0x2a, "Scan", strCombo, "id-1", "cmd", strMsg);
  }
};

TEST_F(SendPolicyMsgData, StoresAndPushes) {
  const mode_t maskBefore = umask(077);
  EXPECT_EQ(Send("One", "first and longer"), 1);
  EXPECT_EQ(Send("One", "second"), 1);
  umask(maskBefore);
  EXPECT_EQ(Copy("One"), "second");
  EXPECT_EQ(m_home.Mode("data/policy/assetcollection"), 0755u);
  ASSERT_THAT(Pushed(), ElementsAre("Scan|One|first and longer", "Scan|One|second"));
  const _RoutedCommand command = m_hub.Routed()[0];
  EXPECT_EQ(command.u64DataId, 0x2au);
  EXPECT_EQ(command.strID, "id-1");
  EXPECT_EQ(command.strCommand, "cmd");
}

TEST_F(SendPolicyMsgData, Fails_WithoutAManager) {
  const CScopedNoHub noHub;
  EXPECT_EQ(Send("One"), 0);
  EXPECT_THAT(m_log.Lines(), ElementsAre("*zxagent CAgentAsset::SendPolicyMsgrData pAgentMgr is NULL"));
  EXPECT_EQ(m_log.Entries()[0].iLevel, 3);
  EXPECT_FALSE(m_home.Exists("data"));
}

TEST_F(SendPolicyMsgData, PushesNothing_WhenTheCopyCannotBeWritten) {
  m_home.MakeDir("data/policy/assetcollection/One");
  EXPECT_EQ(Send("One"), 0);
  EXPECT_THAT(
      m_log.Lines(),
      ElementsAre(
          "*zxagent CAgentAsset::SendPolicyMsgrData ZxSaveFileData Error[21][Is a directory] strPath[" +
          Path("data/policy/assetcollection/One") + "] strMsg[text]"));
  EXPECT_EQ(m_log.Entries()[0].iLevel, 3);
  EXPECT_THAT(Pushed(), IsEmpty());
}

TEST_F(SendPolicyMsgData, StillTriesToWrite_WhenTheDirectoryCannotBeMade) {
  m_home.WriteFile("data", "in the way");
  EXPECT_EQ(Send("One"), 0);
  ASSERT_THAT(m_log.Lines(), SizeIs(2));
  EXPECT_THAT(m_log.Lines()[0],
              StartsWith("*zxagent CAgentAsset::SendPolicyMsgData Error CreateDirectory strPath[" +
                         Path("data/policy/assetcollection")));
  EXPECT_THAT(m_log.Lines()[0], ::testing::EndsWith("] Error[20]"));
  EXPECT_THAT(m_log.Lines()[1],
              StartsWith("*zxagent CAgentAsset::SendPolicyMsgrData ZxSaveFileData Error[20]["));
  EXPECT_EQ(m_log.Entries()[0].iLevel, 3);
  EXPECT_THAT(Pushed(), IsEmpty());
}

TEST_F(SendPolicyMsgData, Fails_WhenNobodyTakesTheCommand) {
  m_hub.SetRouted(0);
  EXPECT_EQ(Send("One"), 0);
  EXPECT_EQ(m_log.LevelOf("*zxagent CAgentAsset::SendPolicyMsgrData SendPushMsgData Fail u64DataId[2a] "
                          "strProduct[Scan] strCombo[One] strMsg[text]"),
            3);
  EXPECT_EQ(Copy("One"), "text") << "the copy stays";
}

TEST_F(SendPolicyMsgData, StaysInsideItsDirectory) {
  for (const std::string& strCombo : HostileNames()) {
    m_log.Clear();
    EXPECT_EQ(Send(strCombo), 0) << strCombo;
    ASSERT_FALSE(m_log.Lines().empty()) << strCombo;
    EXPECT_THAT(m_log.Lines().back(),
                StartsWith("*zxagent CAgentAsset::SendPolicyMsgrData ZxSaveFileData Error["));
  }
  EXPECT_THAT(FilesBelow(Path("")), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists("/tmp/zxhostile"));
  EXPECT_THAT(Pushed(), IsEmpty());
}
