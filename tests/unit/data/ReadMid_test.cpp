#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "support/DataHome.h"

namespace {

constexpr char kPrimary[] = "home/etc/zxagent/inner/.mid";
constexpr char kBackup[] = "home/etc/zxagent/.mid";
constexpr char kSystem[] = "root/etc/.mid";

constexpr char kFull[] =
    R"({"mid":"m1","mid2":"m2","midfirstsn":"fs","midlastsn":"ls","midfirstdisk":"fd","midlastdisk":"ld",)"
    R"("midfirstmac":"fm","midlastmac":"lm","firstallmac":"fa","lastallmac":"la"})";

class ReadMid : public testing::Test {
 protected:
  ReadMid() { m_home.Init(); }
  int Call() { return m_home.Data().ReadMid(m_info, m_bSave); }
  void Write(const char* pszFile, const CPString& strText, mode_t mode = 0600) {
    m_home.Temp().WriteFile(pszFile, strText, mode);
  }

  CDataHome m_home;
  _MidInfoData m_info;
  int m_bSave = 0;
};

}  // namespace

TEST_F(ReadMid, FillsTheRecord) {
  Write(kPrimary, kFull);
  EXPECT_EQ(Call(), 1);
  EXPECT_EQ(m_bSave, 0);
  EXPECT_EQ(m_info.strMid1, "m1");
  EXPECT_EQ(m_info.strMid2, "m2");
  EXPECT_EQ(m_info.strMidFirstSn, "fs");
  EXPECT_EQ(m_info.strMidLastSn, "ls");
  EXPECT_EQ(m_info.strMidFirstDisk, "fd");
  EXPECT_EQ(m_info.strMidLastDisk, "ld");
  EXPECT_EQ(m_info.strMidFirstMac, "fm");
  EXPECT_EQ(m_info.strMidLastMac, "lm");
  EXPECT_EQ(m_info.strFirstAllMac, "fa");
  EXPECT_EQ(m_info.strLastAllMac, "la");
  EXPECT_EQ(m_home.Log().LevelOf(
                "zxagent CAgentData::ReadMid fromfile bSave[0] strMid1[m1] strMid2[m2] "
                "strMidSn[fs][ls] strMidDisk[fd][ld] strMidMac[fm][lm] strAllMac[fa][la] strFile[" +
                m_home.Path(kPrimary) + "]"),
            kLogInfo);
}

TEST_F(ReadMid, RestoresPrimaryAndBackup_WhenTheHomeWasWiped) {
  Write(kSystem, kFull, 0644);
  EXPECT_EQ(Call(), 1);
  EXPECT_EQ(m_info.strMid1, "m1");
  EXPECT_EQ(m_home.Temp().ReadFile(kPrimary), kFull);
  EXPECT_EQ(m_home.Temp().ReadFile(kBackup), kFull);
  for (const char* pszFile : {kPrimary, kBackup, kSystem})
    EXPECT_EQ(m_home.Temp().Mode(pszFile), 0600u) << pszFile;
  EXPECT_EQ(m_home.Log().LevelOf("zxagent CAgentData::ReadMid ZxCopyFile bStatus[1] Flag[0] srcFile[" +
                                 m_home.Path(kSystem) + "] dstFile[" + m_home.Path(kPrimary) + "]"),
            kLogDetail);
  EXPECT_EQ(m_home.Log().LevelOf("zxagent CAgentData::ReadMid ZxCopyFile bk bStatus[1] Flag[0] srcFile[" +
                                 m_home.Path(kPrimary) + "] dstFile[" + m_home.Path(kBackup) + "]"),
            kLogDetail);
  EXPECT_FALSE(m_home.Log().Contains("ZxCopyFile sys"));
}

TEST_F(ReadMid, RestoresTheCopies_FromThePrimary) {
  Write(kPrimary, kFull, 0644);
  EXPECT_EQ(Call(), 1);
  EXPECT_EQ(m_home.Temp().ReadFile(kBackup), kFull);
  EXPECT_EQ(m_home.Temp().ReadFile(kSystem), kFull);
  for (const char* pszFile : {kPrimary, kBackup, kSystem})
    EXPECT_EQ(m_home.Temp().Mode(pszFile), 0600u) << pszFile;
  EXPECT_EQ(m_home.Log().LevelOf("zxagent CAgentData::ReadMid ZxCopyFile sys bStatus[1] Flag[0] srcFile[" +
                                 m_home.Path(kPrimary) + "] dstFile[" + m_home.Path(kSystem) + "]"),
            kLogDetail);
}

TEST_F(ReadMid, NeverReadsTheBackup) {
  Write(kBackup, kFull);
  EXPECT_EQ(Call(), 0);
  EXPECT_FALSE(m_home.Temp().Exists(kPrimary));
}

TEST_F(ReadMid, LeavesExistingCopiesAlone) {
  Write(kPrimary, kFull);
  Write(kBackup, "other", 0640);
  Write(kSystem, "third", 0644);
  EXPECT_EQ(Call(), 1);
  EXPECT_EQ(m_home.Temp().ReadFile(kBackup), "other");
  EXPECT_EQ(m_home.Temp().ReadFile(kSystem), "third");
  EXPECT_EQ(m_home.Temp().Mode(kBackup), 0600u);
  EXPECT_EQ(m_home.Temp().Mode(kSystem), 0600u);
  EXPECT_FALSE(m_home.Log().Contains("ZxCopyFile"));
}

TEST_F(ReadMid, Fails_WhenNoCopyExists) {
  EXPECT_EQ(Call(), 0);
  EXPECT_EQ(m_home.Log().Count("ZxCopyFile"), 3u);
  EXPECT_TRUE(m_home.Log().Contains("zxagent CAgentData::ReadMid ZxCopyFile bStatus[0] Flag[2] srcFile["));
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent CAgentData::ReadMid Error LoadFile Error[2] strFile[" +
                                 m_home.Path(kPrimary) + "]"),
            kLogWarn);
}

TEST_F(ReadMid, Fails_WhenThePrimaryIsDamaged) {
  for (const CPString& strText : {CPString(), CPString("{\"mid\":\"m1\",\"mi"),
                                  CPString("\x7f"
                                           "ELF\0\1\2",
                                           7)}) {
    Write(kPrimary, strText);
    m_home.Log().Clear();
    EXPECT_EQ(Call(), 0);
    EXPECT_TRUE(m_home.Log().Contains("*zxagent CAgentData::ReadMid Error LoadFile Error[0] strFile["));
  }
}

TEST_F(ReadMid, NeedsBothIds) {
  Write(kPrimary, R"({"mid2":"m2"})");
  EXPECT_EQ(Call(), 0);
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent CAgentData::ReadMid Error GetNode mid strFile[" +
                                 m_home.Path(kPrimary) + "]"),
            kLogWarn);
  EXPECT_TRUE(m_info.strMid1.IsEmpty());

  Write(kPrimary, R"({"mid":"m1"})");
  EXPECT_EQ(Call(), 0);
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent CAgentData::ReadMid Error GetNode mid2 strFile[" +
                                 m_home.Path(kPrimary) + "]"),
            kLogWarn);
  EXPECT_EQ(m_info.strMid1, "m1");
}

TEST_F(ReadMid, TakesTheOldKeysForBothValues_AndAsksForARewrite) {
  Write(kPrimary, R"({"mid":"m1","mid2":"m2","allmac":"aa"})");
  m_info.strMidFirstSn = "kept";
  EXPECT_EQ(Call(), 1);
  EXPECT_EQ(m_bSave, 1);
  EXPECT_EQ(m_info.strFirstAllMac, "aa");
  EXPECT_EQ(m_info.strLastAllMac, "aa");
  EXPECT_EQ(m_info.strMidFirstSn, "kept");  // in neither form
  EXPECT_TRUE(m_info.strMidLastSn.IsEmpty());
}

TEST_F(ReadMid, MixesOldAndNewKeys) {
  Write(
      kPrimary,
      R"({"mid":"m1","mid2":"m2","midfirstsn":"fs","midsn":"os","middisk":"od","midlastdisk":"ld","midmac":"om"})");
  EXPECT_EQ(Call(), 1);
  EXPECT_EQ(m_bSave, 1);
  EXPECT_EQ(m_info.strMidFirstSn, "fs");
  EXPECT_EQ(m_info.strMidLastSn, "os");
  EXPECT_EQ(m_info.strMidFirstDisk, "od");
  EXPECT_EQ(m_info.strMidLastDisk, "ld");
  EXPECT_EQ(m_info.strMidFirstMac, "om");
  EXPECT_EQ(m_info.strMidLastMac, "om");
}

TEST_F(ReadMid, ReadMidKey_RefusesMissingNames) {
  zxtools::CPJsonParse json;
  ASSERT_TRUE(json.LoadBuffer(R"({"a":"1","b":"2"})"));
  CPString strFirst;
  CPString strLast;
  CAgentData& data = m_home.Data();
  EXPECT_EQ(data.ReadMidKey(json, nullptr, "b", "c", strFirst, strLast, m_bSave), 0);
  EXPECT_EQ(data.ReadMidKey(json, "a", "", "c", strFirst, strLast, m_bSave), 0);
  EXPECT_EQ(data.ReadMidKey(json, "a", "b", nullptr, strFirst, strLast, m_bSave), 0);
  EXPECT_TRUE(strFirst.IsEmpty());
  EXPECT_EQ(m_bSave, 0);
  EXPECT_EQ(data.ReadMidKey(json, "a", "b", "c", strFirst, strLast, m_bSave), 1);
  EXPECT_EQ(strFirst, "1");
  EXPECT_EQ(strLast, "2");
  EXPECT_EQ(m_bSave, 0);
}
