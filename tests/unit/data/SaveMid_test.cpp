#include <gtest/gtest.h>

#include "FileFaults.h"
#include "support/DataHome.h"

namespace {

constexpr char kPrimary[] = "home/etc/zxagent/inner/.mid";
constexpr char kBackup[] = "home/etc/zxagent/.mid";
constexpr char kSystem[] = "root/etc/.mid";

class SaveMid : public testing::Test {
 protected:
  SaveMid() {
    m_home.Init();
    m_info.strMid1 = "m1";
    m_info.strMid2 = "m2";
    m_info.strMidFirstSn = "fs";
    m_info.strMidLastSn = "ls";
    m_info.strMidFirstDisk = "fd";
    m_info.strMidLastDisk = "ld";
    m_info.strMidFirstMac = "fm";
    m_info.strMidLastMac = "lm";
    m_info.strFirstAllMac = "fa";
    m_info.strLastAllMac = "la";
  }
  int Call() { return m_home.Data().SaveMid(m_info); }

  CDataHome m_home;
  _MidInfoData m_info;
};

}  // namespace

TEST_F(SaveMid, WritesTheTenKeysInOrderToAllThreePlaces) {
  EXPECT_EQ(Call(), 1);
  zxtools::CPJsonParse json;
  ASSERT_TRUE(json.LoadFile(m_home.Temp().Path(kPrimary)));
  CPString strJson;
  ASSERT_TRUE(json.GetJsonStr(strJson));
  EXPECT_EQ(
      strJson,
      R"({"mid":"m1","mid2":"m2","midfirstsn":"fs","midlastsn":"ls","midfirstdisk":"fd","midlastdisk":"ld",)"
      R"("midfirstmac":"fm","midlastmac":"lm","firstallmac":"fa","lastallmac":"la"})");
  EXPECT_EQ(m_home.Temp().ReadFile(kBackup), m_home.Temp().ReadFile(kPrimary));
  EXPECT_EQ(m_home.Temp().ReadFile(kSystem), m_home.Temp().ReadFile(kPrimary));
  EXPECT_FALSE(m_home.Temp().Exists(std::string(kPrimary) + ".tmp"));
  EXPECT_EQ(m_home.Log().LevelOf("zxagent CAgentData::SaveMid OK strMid1[m1] strMid2[m2] strMidSn[fs][ls] "
                                 "strMidDisk[fd][ld] strMidMac[fm][lm] strAllMac[fa][la] strFile[" +
                                 m_home.Path(kPrimary) + "] strBkFile[" + m_home.Path(kBackup) + "][" +
                                 m_home.Path(kSystem) + "]"),
            kLogInfo);
}

TEST_F(SaveMid, KeepsEveryCopyPrivate) {
  for (const char* pszFile : {kPrimary, kBackup, kSystem})
    m_home.Temp().WriteFile(pszFile, "older and readable", 0644);
  EXPECT_EQ(Call(), 1);
  for (const char* pszFile : {kPrimary, kBackup, kSystem})
    EXPECT_EQ(m_home.Temp().Mode(pszFile), 0600u) << pszFile;
}

TEST_F(SaveMid, IsReadBack) {
  m_info.strMidFirstSn = "quote \" backslash \\ line\n";
  EXPECT_EQ(Call(), 1);
  _MidInfoData info;
  int bSave = 0;
  EXPECT_EQ(m_home.Data().ReadMid(info, bSave), 1);
  EXPECT_EQ(bSave, 0);
  EXPECT_EQ(info.strMidFirstSn, m_info.strMidFirstSn);
  EXPECT_EQ(info.strLastAllMac, "la");
}

TEST_F(SaveMid, Fails_WhenThePrimaryCannotBeWritten) {
  m_home.Temp().Remove("home/etc/zxagent/inner");
  EXPECT_EQ(Call(), 0);
  EXPECT_FALSE(m_home.Temp().Exists(kBackup));
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent CAgentData::SaveMid Error SaveFile Error[2] strFile[" +
                                 m_home.Path(kPrimary) + "]"),
            kLogWarn);
}

TEST_F(SaveMid, Succeeds_WhenTheCopiesCannotBeWritten) {
  m_home.Temp().MakeDir(kBackup);
  m_home.Temp().Remove("root/etc");
  EXPECT_EQ(Call(), 1);
  EXPECT_TRUE(m_home.Temp().Exists(kPrimary));
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent CAgentData::SaveMid Error ZxCopyFile 1 Error[21] strFile[" +
                                 m_home.Path(kPrimary) + "] strBkFile[" + m_home.Path(kBackup) + "]"),
            kLogWarn);
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent CAgentData::SaveMid Error ZxCopyFile 2 Error[2] strFile[" +
                                 m_home.Path(kPrimary) + "] strBkFile[" + m_home.Path(kSystem) + "]"),
            kLogWarn);
}

TEST_F(SaveMid, NamesEachStep_WhenMemoryRunsOut) {
  unsigned int uAllowed = 0;
  for (int iRet = 0; iRet == 0; ++uAllowed) {
    ASSERT_LT(uAllowed, 1000u);
    const CJsonMemoryFault fault(uAllowed);
    iRet = Call();
  }
  for (const char* pszStep :
       {"CreateJson strMid1[m1] strMid2[m2]", "AddNode mid strMid1[m1]", "AddNode mid2 strMid2[m2]",
        "AddNode midfirstsn strMidSn[fs]", "AddNode midlastsn strMidSn[ls]",
        "AddNode midfirstdisk strMidDisk[fd]", "AddNode midlastdisk strMidDisk[ld]",
        "AddNode midfirstmac strMidMac[fm]", "AddNode midlastmac strMidMac[lm]",
        "AddNode firstallmac strAllMac[fa]", "AddNode lastallmac strAllMac[la]", "SaveFile Error["})
    EXPECT_TRUE(m_home.Log().Contains(std::string("*zxagent CAgentData::SaveMid Error ") + pszStep))
        << pszStep;
}
