// The spool tree and the command files in it.
#include "MaintFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

class MaintSpool : public CMaintTest {};

TEST_F(MaintSpool, Init_CreatesTheTree) {
  const mode_t maskBefore = umask(077);
  m_maint.Init(m_home.Root());
  umask(maskBefore);
  for (const char* pszDir :
       {"data/zxpmaint", "data/zxpmaint/policyfile", "data/zxpmaint/policyprocess", "data/zxpmaint/result"})
    EXPECT_EQ(m_home.Mode(pszDir), 0755u) << pszDir;
  EXPECT_THAT(m_log.Lines(),
              ElementsAre("zxagent CAgentMaint::Init m_strPath[" + Path("") + "] m_strPolicyFilePath[" +
                              Path("data/zxpmaint/policyfile") + "] m_strPolicyProcessPath[" +
                              Path("data/zxpmaint/policyprocess") + "] m_strResultPath[" +
                              Path("data/zxpmaint/result") + "]",
                          "zxagent CAgentMaint::Init End"));
  EXPECT_FALSE(ReaderRuns());
}

TEST_F(MaintSpool, Init_RefusesAnEmptyHome) {
  m_maint.Init("");
  EXPECT_THAT(m_log.Lines(), ElementsAre("*zxagent CAgentMaint::Init Error strHomePath is empty",
                                         "zxagent CAgentMaint::Init End"));
  EXPECT_EQ(m_log.Entries()[0].iLevel, 3);
  EXPECT_EQ(m_log.Entries()[1].iLevel, 2);
}

TEST_F(MaintSpool, Init_ReportsEveryDirectory_ThatCannotBeMade) {
  m_home.WriteFile("data", "in the way");
  m_maint.Init(m_home.Root());
  const std::string strError = "*zxagent CAgentMaint::Init Error CreateDirectory ";
  const std::string strBase = Path("data/zxpmaint");
  ASSERT_THAT(m_log.Lines(), SizeIs(6));
  EXPECT_THAT(m_log.Lines()[0], StartsWith(strError + "strPath[" + strBase));
  EXPECT_EQ(m_log.LevelOf(strError + "m_strPolicyFilePath[" + strBase + "/policyfile] Error[20]"), 3);
  EXPECT_EQ(m_log.LevelOf(strError + "m_strPolicyProcessPath[" + strBase + "/policyprocess] Error[20]"), 3);
  EXPECT_EQ(m_log.LevelOf(strError + "m_strResultPath[" + strBase + "/result] Error[20]"), 3);
  EXPECT_EQ(m_log.Lines().back(), "zxagent CAgentMaint::Init End");
}

TEST_F(MaintSpool, Init_GoesOn_WhenOneDirectoryCannotBeMade) {
  m_home.MakeDir("data/zxpmaint");
  std::filesystem::create_symlink("nowhere", Path("data/zxpmaint/policyfile"));
  m_maint.Init(m_home.Root());
  EXPECT_EQ(m_log.LevelOf("*zxagent CAgentMaint::Init Error CreateDirectory m_strPolicyFilePath[" +
                          Path("data/zxpmaint/policyfile") + "] Error[17]"),
            3);
  EXPECT_EQ(m_home.Mode("data/zxpmaint/policyprocess"), 0755u);
  EXPECT_EQ(m_home.Mode("data/zxpmaint/result"), 0755u);
}

TEST_F(MaintSpool, Forward_LeavesRunScriptNormalToOthers) {
  Init();
  for (const char* pszCombo : {"RunScriptNormal", "runscriptnormal", "RUNSCRIPTNORMAL"})
    EXPECT_EQ(m_maint.ForwardMsg(0x2a, pszCombo, "id", "{}"), 0) << pszCombo;
  ASSERT_THAT(m_log.Lines(), SizeIs(3));
  for (const CLogCapture::CEntry& entry : m_log.Entries()) {
    EXPECT_EQ(entry.strText,
              "zxagent CAgentMaint::ForwardMsg strCombo is RunScriptNormal u64DataId[2a] strID[id]");
    EXPECT_EQ(entry.iLevel, 2);
  }
  EXPECT_THAT(FilesBelow(Path("data")), IsEmpty());
  EXPECT_FALSE(ReaderRuns());
}

TEST_F(MaintSpool, Dispose_RefusesAMissingText) {
  Init();
  EXPECT_EQ(m_maint.DisposeMaintMsg(0x2a, "unknown", "id", nullptr), 0);
  EXPECT_EQ(m_maint.DisposeMaintMsg(0x2a, "RunScriptFile", "id", ""), 0);
  EXPECT_THAT(
      m_log.Lines(),
      ElementsAre(
          "*zxagent CAgentMaint::DisposeMaintMsg lpszMsg is NULL u64DataId[2a] strCommand[unknown] strID[id]",
          "*zxagent CAgentMaint::DisposeMaintMsg lpszMsg is NULL u64DataId[2a] strCommand[RunScriptFile] strID[id]"));
  EXPECT_EQ(m_log.Entries()[0].iLevel, 3);
  EXPECT_THAT(FilesBelow(Path("data")), IsEmpty());
}

TEST_F(MaintSpool, Dispose_RefusesUnknownKinds) {
  Init();
  for (const char* pszKind : {"RunScript", "RunScriptFileX", "RunScriptFil", "", "RunScriptNormal"}) {
    m_log.Clear();
    EXPECT_EQ(m_maint.DisposeMaintMsg(0x2a, pszKind, "id", "{}"), 0) << pszKind;
    EXPECT_EQ(
        m_log.LevelOf(std::string("*zxagent CAgentMaint::DisposeMaintMsg unknown u64DataId[2a] strCommand[") +
                      pszKind + "] strID[id]"),
        3)
        << pszKind;
  }
  EXPECT_THAT(FilesBelow(Path("data")), IsEmpty());
  EXPECT_FALSE(ReaderRuns()) << "nothing was spooled";
}

TEST_F(MaintSpool, Dispose_SpoolsByKind_WhateverItsCase) {
  Init();
  EXPECT_EQ(m_maint.ForwardMsg(1, "runscriptfile", "f-1", "{\"a\":1}"), 1);
  EXPECT_EQ(m_maint.ForwardMsg(1, "RUNSCRIPTFILE", "f-2", "{\"a\":2}"), 1);
  EXPECT_EQ(m_maint.ForwardMsg(1, "RunScriptProcess", "p-1", "{\"a\":3}"), 1);
  EXPECT_THAT(FilesBelow(Path("data/zxpmaint")),
              UnorderedElementsAre("policyfile/f-1.json", "policyfile/f-2.json", "policyprocess/p-1.json"));
  EXPECT_EQ(m_home.ReadFile("data/zxpmaint/policyfile/f-1.json"), "{\"a\":1}");
  EXPECT_EQ(m_home.ReadFile("data/zxpmaint/policyprocess/p-1.json"), "{\"a\":3}");
  EXPECT_EQ(
      m_log.LevelOf(
          "zxagent CAgentMaint::DisposeMaintMsg OK u64DataId[1] strCommand[runscriptfile] strID[f-1] strFile[" +
          Path("data/zxpmaint/policyfile/f-1.json") + "] lpszMsg[{\"a\":1}]"),
      2);
}

TEST_F(MaintSpool, Dispose_StoresTheTextAsItCame) {
  Init();
  const std::string strText = "{ \"x\" : \"\xff\xfe\r\n\" }\n\n ";
  EXPECT_EQ(m_maint.ForwardMsg(1, "RunScriptFile", "id", std::string(100000, 'x').c_str()), 1);
  EXPECT_EQ(m_maint.ForwardMsg(1, "RunScriptFile", "id", strText.c_str()), 1);
  EXPECT_EQ(m_home.ReadFile("data/zxpmaint/policyfile/id.json"), strText);
}

TEST_F(MaintSpool, Dispose_Fails_WhenTheFileCannotBeOpened) {
  Init();
  m_home.Remove("data/zxpmaint/policyfile");
  EXPECT_EQ(m_maint.ForwardMsg(0x2a, "RunScriptFile", "id", "{}"), 0);
  EXPECT_EQ(
      m_log.LevelOf(
          "*zxagent CAgentMaint::DisposeMaintMsg fopen error[2][No such file or directory] u64DataId[2a] "
          "strCommand[RunScriptFile] strID[id] strFile[" +
          Path("data/zxpmaint/policyfile/id.json") + "]"),
      3);
  EXPECT_FALSE(ReaderRuns());
}

TEST_F(MaintSpool, Dispose_Fails_WhenTheDiskIsFull) {
  Init();
  {
    const CFileSizeLimit limit(4);
    EXPECT_EQ(m_maint.ForwardMsg(0x2a, "RunScriptFile", "id", "0123456789"), 0);
    EXPECT_EQ(m_maint.ForwardMsg(0x2a, "RunScriptProcess", "id", std::string(100000, 'x').c_str()), 0);
  }
  ASSERT_THAT(m_log.Lines(), SizeIs(2));
  const std::string strError =
      "*zxagent CAgentMaint::DisposeMaintMsg fwrite error[27][File too large] dwLength[";
  EXPECT_THAT(m_log.Lines()[0], StartsWith(strError + "10] dwWriteLength["));
  EXPECT_THAT(m_log.Lines()[1], StartsWith(strError + "100000] dwWriteLength["));
  EXPECT_THAT(m_log.Lines()[0],
              ::testing::EndsWith("] u64DataId[2a] strCommand[RunScriptFile] strID[id] strFile[" +
                                  Path("data/zxpmaint/policyfile/id.json") + "]"));
  EXPECT_EQ(m_log.Entries()[0].iLevel, 3);
  EXPECT_FALSE(ReaderRuns());
}

// --- Ids come from the cloud.

TEST_F(MaintSpool, Dispose_WritesNothing_WhenTheIdIsNoFileName) {
  Init();
  m_home.WriteFile("etc/x.json", "keep");
  const std::vector<std::string> before = FilesBelow(Path(""));
  for (const std::string& strID : HostileNames()) {
    for (const char* pszKind : {"RunScriptFile", "RunScriptProcess"}) {
      m_log.Clear();
      EXPECT_EQ(m_maint.ForwardMsg(1, pszKind, strID, "{\"evil\":1}"), 0) << strID;
      ASSERT_THAT(m_log.Lines(), SizeIs(1)) << strID;
      EXPECT_THAT(m_log.Lines()[0], StartsWith("*zxagent CAgentMaint::DisposeMaintMsg fopen error["));
      EXPECT_EQ(FilesBelow(Path("")), before) << strID;
    }
  }
  EXPECT_EQ(m_home.ReadFile("etc/x.json"), "keep");
  EXPECT_FALSE(std::filesystem::exists("/tmp/zxhostile.json"));
  EXPECT_FALSE(ReaderRuns());
  Spool();
  EXPECT_TRUE(m_home.Exists("data/zxpmaint/policyfile/id-1.json")) << "the next command is carried out";
}

TEST_F(MaintSpool, Dispose_TakesNames_UpToTheLimitOfTheFileSystem) {
  Init();
  EXPECT_EQ(m_maint.ForwardMsg(1, "RunScriptFile", std::string(250, 'i'), "{}"), 1);
  for (const size_t uLength : {251u, 255u, 256u})
    EXPECT_EQ(m_maint.ForwardMsg(1, "RunScriptFile", std::string(uLength, 'i'), "{}"), 0) << uLength;
  EXPECT_THAT(FilesBelow(Path("data")), SizeIs(1));
}

// --- Lists.

TEST_F(MaintSpool, List_TakesJsonFilesOnly) {
  m_home.WriteFile("d/a.json", "");
  m_home.WriteFile("d/b.json.tmp", "");
  m_home.WriteFile("d/c.JSON", "");
  m_home.WriteFile("d/json", "");
  m_home.WriteFile("d/djson", "");
  m_home.MakeDir("d/dir.json");
  ASSERT_EQ(mkfifo(Path("d/fifo.json").c_str(), 0600), 0);
  std::filesystem::create_symlink(Path("d/a.json"), Path("d/link.json"));
  CPStrList list;
  EXPECT_EQ(CAgentMaint::GetPolicyFileList(Path("d").c_str(), list), 1);
  EXPECT_THAT(std::vector<CPString>(list.begin(), list.end()),
              UnorderedElementsAre(Path("d/a.json"), Path("d/fifo.json")));
}

TEST_F(MaintSpool, List_AnswersZero_WithoutADirectory) {
  m_home.WriteFile("file", "");
  CPStrList list;
  EXPECT_EQ(CAgentMaint::GetPolicyFileList(nullptr, list), 0);
  EXPECT_EQ(CAgentMaint::GetPolicyFileList("", list), 0);
  EXPECT_EQ(CAgentMaint::GetPolicyFileList(Path("missing").c_str(), list), 0);
  EXPECT_EQ(CAgentMaint::GetPolicyFileList(Path("file").c_str(), list), 0);
  EXPECT_TRUE(list.IsEmpty());
}
