#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>

#include "DataFixture.h"
#include "FileFaults.h"

namespace {

using ::testing::Contains;
using ::testing::StartsWith;

constexpr char kWorking[] = "etc/zxagent/inner/zxagent.json";
constexpr char kCustom[] = "etc/zxagent/inner/customcloud.json";
constexpr char kEngine[] = "etc/zxagent/inner/engineaddr.json";
constexpr char kMsgSrv[] = "etc/zxagent/inner/msgsrvaddrset.json";

class Addr : public CStoreFixture {
 protected:
  std::string Working() const { return " strFile[" + m_strDir + kWorking + "]"; }
  std::string Compact(const std::string& strFile) const {
    zxtools::CPJsonParse json;
    CPString strJson;
    if (!json.LoadFile(CPString(m_strDir + strFile)) || !json.GetJsonStr(strJson))
      return "<no document>";
    return strJson.Str();
  }
};

TEST_F(Addr, CustomCloudAddr_RoundTrips) {
  EXPECT_EQ(m_data.SaveCustomCloudAddr("c:1"), 1);
  EXPECT_EQ(Lines().back(), "zxagent CAgentData::SaveCustomCloudAddr OK SaveFile strAddr[c:1] strFile[" +
                                m_strDir + kCustom + "]");
  EXPECT_EQ(Compact(kCustom), R"({"customcloudaddr":"c:1"})");
  CPString strAddr;
  EXPECT_EQ(m_data.ReadCustomCloudAddr(strAddr), 1);
  EXPECT_EQ(strAddr, "c:1");
  EXPECT_EQ(Lines().back(), "zxagent CAgentData::ReadCustomCloudAddr strAddr[c:1]");
  EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "");  // stored, not applied
}

TEST_F(Addr, SaveCustomCloudAddr_Fails_WhenAddressIsEmpty) {
  EXPECT_EQ(m_data.SaveCustomCloudAddr(""), 0);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::SaveCustomCloudAddr Error strAddr is empty");
  EXPECT_FALSE(Exists(kCustom));
}

TEST_F(Addr, ReadCustomCloudAddr_AnswersEmptyValueAsSuccess) {
  WriteFile(kCustom, R"({"customcloudaddr":""})");
  CPString strAddr = "before";
  EXPECT_EQ(m_data.ReadCustomCloudAddr(strAddr), 1);
  EXPECT_EQ(strAddr, "");
}

TEST_F(Addr, ReadCustomCloudAddr_NamesWhatIsMissing) {
  CPString strAddr;
  EXPECT_EQ(m_data.ReadCustomCloudAddr(strAddr), 0);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::ReadCustomCloudAddr Warn LoadFile Flag[" +
                                std::to_string(ENOENT) + "] strFile[" + m_strDir + kCustom + "]");
  WriteFile(kCustom, "{}");
  EXPECT_EQ(m_data.ReadCustomCloudAddr(strAddr), 0);
  EXPECT_EQ(Lines().back(),
            "*zxagent CAgentData::ReadCustomCloudAddr Error GetNode customcloudaddr strFile[" + m_strDir +
                kCustom + "]");
}

TEST_F(Addr, UpdateCloudAddr_AddsMissingEntriesAndKeepsTheRest) {
  WriteFile(kWorking, R"({"lbconf":{"lbconf_url":"lb"},"tconf":{"x":1,"tconf_url":"old"},"other":[true]})");
  EXPECT_EQ(m_data.UpdateCloudAddr("new:1"), 1);
  EXPECT_EQ(Compact(kWorking),
            R"({"lbconf":{"lbconf_url":"lb"},"tconf":{"x":1,"tconf_url":"new:1"},"other":[true],)"
            R"("scanconf":{"scanconf_url":"new:1"}})");
  EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "new:1");
  EXPECT_EQ(m_data.GetZxCloudData().strLbAddr, "");
  EXPECT_THAT(Lines(), Contains("*zxagent CAgentData::UpdateCloudAddr Error GetNode scanconf strAddr[new:1]" +
                                Working()));
  EXPECT_EQ(Lines().back(), "zxagent CAgentData::UpdateCloudAddr OK SaveFile strAddr[new:1]" + Working());
}

TEST_F(Addr, UpdateCloudAddr_CreatesEveryEntry_InEmptyDocument) {
  WriteFile(kWorking, "{}");
  EXPECT_EQ(m_data.UpdateCloudAddr("new:1"), 1);
  EXPECT_EQ(Compact(kWorking), R"({"tconf":{"tconf_url":"new:1"},"scanconf":{"scanconf_url":"new:1"}})");
  EXPECT_THAT(Lines(), Contains("*zxagent CAgentData::UpdateCloudAddr Error GetNode tconf strAddr[new:1]" +
                                Working()));
}

TEST_F(Addr, UpdateCloudAddr_WritesLbconf_WhenHeartbeatIsOn) {
  m_data.SetDisableHb(0);
  WriteFile(kWorking, R"({"tconf":{},"scanconf":{}})");
  EXPECT_EQ(m_data.UpdateCloudAddr("new:1"), 1);
  EXPECT_EQ(JsonOf(kWorking, "lbconf.lbconf_url"), "new:1");
  EXPECT_EQ(m_data.GetZxCloudData().strLbAddr, "new:1");
  EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "");
  EXPECT_THAT(Lines(), Contains("*zxagent CAgentData::UpdateCloudAddr Error GetNode lbconf strAddr[new:1]" +
                                Working()));
  EXPECT_EQ(m_data.UpdateCloudAddr("new:2"), 1);
  EXPECT_EQ(JsonOf(kWorking, "lbconf.lbconf_url"), "new:2");
}

TEST_F(Addr, UpdateCloudAddr_NamesTheLbconfStep_WhenMemoryRunsOut) {
  m_data.SetDisableHb(0);
  for (const char* pszText : {R"({"tconf":{}})", R"({"lbconf":{"lbconf_url":"old"}})"}) {
    bool bHit = true;
    for (unsigned int uAllowed = 0; bHit && uAllowed < 200; ++uAllowed) {
      WriteFile(kWorking, pszText);
      const CJsonMemoryFault fault(uAllowed);
      m_data.UpdateCloudAddr("new:1");
      bHit = fault.Hit();
    }
    EXPECT_FALSE(bHit);
  }
  for (const char* pszStep : {"AddNodeObject lbconf", "AddNode lbconf_url", "ReplaceNode lbconf_url"})
    EXPECT_THAT(Lines(), Contains("*zxagent CAgentData::UpdateCloudAddr Error " + std::string(pszStep) +
                                  " strAddr[new:1]" + Working()));
}

TEST_F(Addr, UpdateCloudAddr_Fails_WhenAddressIsEmptyOrFileMissing) {
  EXPECT_EQ(m_data.UpdateCloudAddr(""), 0);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::UpdateCloudAddr Error strAddr is empty");
  EXPECT_EQ(m_data.UpdateCloudAddr("new:1"), 0);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::UpdateCloudAddr Error LoadFile Error[" +
                                std::to_string(ENOENT) + "] strAddr[new:1]" + Working());
  EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "");
}

TEST_F(Addr, UpdateCloudAddr_Fails_WhenAnEntryIsNoObject) {
  WriteFile(kWorking, R"({"tconf":"text"})");
  EXPECT_EQ(m_data.UpdateCloudAddr("new:1"), 0);
  EXPECT_EQ(Lines().back(),
            "*zxagent CAgentData::UpdateCloudAddr Error AddNode tconf_url strAddr[new:1]" + Working());
  EXPECT_EQ(Compact(kWorking), R"({"tconf":"text"})");
}

TEST_F(Addr, ReadAgentAddr_ReadsWithoutSideEffects) {
  WriteFile(kWorking, R"({"lbconf":{"lbconf_url":"lb:1"},"tconf":{"tconf_url":"t:1"}})");
  CPString strAddr;
  EXPECT_EQ(m_data.ReadAgentAddr(strAddr), 1);
  EXPECT_EQ(strAddr, "t:1");
  EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "");
  m_data.SetDisableHb(0);
  EXPECT_EQ(m_data.ReadAgentAddr(strAddr), 1);
  EXPECT_EQ(strAddr, "lb:1");
}

TEST_F(Addr, ReadAgentAddr_NamesWhatIsMissing) {
  struct _Case {
    int bDisableHb;
    const char* pszText;
    int iRet;
    std::string strLine;
  };
  const std::string strPrefix = "*zxagent CAgentData::ReadAgentAddr Error ";
  const _Case cases[] = {
      {1, "", 0, strPrefix + "LoadFile Error[0]" + Working()},
      {1, "{}", 0, strPrefix + "GetNode tconf" + Working()},
      {1, R"({"tconf":{}})", 0, strPrefix + "GetNode url bIsLbConf[0]" + Working()},
      {1, R"({"tconf":{"tconf_url":""}})", 0, strPrefix + "strAddr is empty bIsLbConf[0]" + Working()},
      {0, R"({"tconf":{"tconf_url":"t:1"}})", 1, strPrefix + "GetNode lbconf" + Working()},
      {0, R"({"lbconf":{},"tconf":{"tconf_url":"t:1"}})", 0,
       strPrefix + "GetNode url bIsLbConf[1]" + Working()},
  };
  for (const _Case& c : cases) {
    m_data.SetDisableHb(c.bDisableHb);
    WriteFile(kWorking, c.pszText);
    ClearLines();
    CPString strAddr;
    EXPECT_EQ(m_data.ReadAgentAddr(strAddr), c.iRet) << c.pszText;
    EXPECT_THAT(Lines(), ::testing::ElementsAre(c.strLine)) << c.pszText;
  }
}

TEST_F(Addr, LbData_IsKeptAsItIs) {
  const std::string texts[] = {"", "not json {", std::string("a\0b\xff\n", 5)};
  for (const std::string& strText : texts) {
    EXPECT_EQ(m_data.SaveLbData(CPString(strText)), 1);
    EXPECT_EQ(ReadFile("etc/zxagent/lbdata.json"), strText);
    CPString strData = "before";
    EXPECT_EQ(m_data.ReadLbData(strData), 1);
    EXPECT_EQ(strData.Str(), strText);
  }
}

TEST_F(Addr, ReadLbData_Fails_WhenFileIsMissing) {
  CPString strData;
  EXPECT_EQ(m_data.ReadLbData(strData), 0);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::ReadLbData ReadFileData Warn[" + std::to_string(ENOENT) +
                                "] strFile[" + m_strDir + "etc/zxagent/lbdata.json]");
}

TEST_F(Addr, EngineAddrStatus_RoundTrips) {
  for (const unsigned int dwSaved : {0u, 2u, 0x7fffffffu, 0xffffffffu}) {
    EXPECT_EQ(m_data.SaveEngineAddrStatus(dwSaved, "e:1"), 1);
    unsigned int dwStatus = 77;
    CPString strAddr;
    EXPECT_EQ(m_data.ReadEngineAddrStatus(dwStatus, strAddr), 1);
    EXPECT_EQ(dwStatus, dwSaved);
    EXPECT_EQ(strAddr, "e:1");
  }
  EXPECT_EQ(m_data.SaveEngineAddrStatus(2, "e:1"), 1);
  EXPECT_EQ(Compact(kEngine), R"({"enginestatus":2,"engineaddr":"e:1"})");
}

TEST_F(Addr, ReadEngineAddrStatus_DeliversStatus_WhenAddressIsMissing) {
  WriteFile(kEngine, R"({"enginestatus":3})");
  unsigned int dwStatus = 77;
  CPString strAddr = "before";
  EXPECT_EQ(m_data.ReadEngineAddrStatus(dwStatus, strAddr), 0);
  EXPECT_EQ(dwStatus, 3u);
  EXPECT_EQ(strAddr, "before");
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::ReadEngineAddrStatus Error GetNode engineaddr strFile[" +
                                m_strDir + kEngine + "]");
}

TEST_F(Addr, ReadEngineAddrStatus_NamesWhatIsMissing) {
  unsigned int dwStatus = 77;
  CPString strAddr;
  EXPECT_EQ(m_data.ReadEngineAddrStatus(dwStatus, strAddr), 0);
  EXPECT_EQ(Lines().back(),
            "*zxagent CAgentData::ReadEngineAddrStatus Warn LoadFile strFile[" + m_strDir + kEngine + "]");
  WriteFile(kEngine, R"({"engineaddr":"e:1"})");
  EXPECT_EQ(m_data.ReadEngineAddrStatus(dwStatus, strAddr), 0);
  EXPECT_EQ(dwStatus, 77u);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::ReadEngineAddrStatus Error GetNode enginestatus strFile[" +
                                m_strDir + kEngine + "]");
}

TEST_F(Addr, ReadAllEngineAddr_CollectsEverySource) {
  WriteFile(kWorking, R"({"tconf":{"tconf_url":"t:1"}})");
  WriteFile(kMsgSrv, R"({"Param":{"1":{"addr":"m:1","type":"1"},"2":{"addr":",,t:1,m:2","type":"2"}}})");
  WriteFile(kCustom, R"({"customcloudaddr":"c:1"})");
  CPStrSet set;
  m_data.ReadAllEngineAddr(set);
  EXPECT_EQ(set.ToString("|"), "c:1|m:1|m:2|t:1");
}

TEST_F(Addr, ReadAllEngineAddr_AddsEmptyText_WhenCustomAddressIsEmpty) {
  WriteFile(kCustom, R"({"customcloudaddr":""})");
  CPStrSet set;
  m_data.ReadAllEngineAddr(set);
  EXPECT_EQ(set.GetCount(), 1u);
  EXPECT_TRUE(set.Contains(""));
}

TEST_F(Addr, ReadAllEngineAddr_SkipsMissingAndBrokenSources) {
  WriteFile(kMsgSrv, R"({"Param":)");
  CPStrSet set;
  m_data.ReadAllEngineAddr(set);
  EXPECT_TRUE(set.IsEmpty());
}

TEST_F(Addr, SaveAllEngineAddr_WritesAndReturnsTheDocument) {
  CPStrSet set;
  for (const char* pszAddr : {"b:2", "", "a:1,c:3", "a:1"})
    set.Insert(pszAddr);
  CPString strJson;
  EXPECT_EQ(m_data.SaveAllEngineAddr(set, strJson), 1);
  EXPECT_EQ(strJson, R"({"allengineaddr":["a:1","a:1","c:3","b:2"]})");
  EXPECT_EQ(Compact("etc/zxagent/allengineaddr.json"), strJson.Str());
}

TEST_F(Addr, SaveAllEngineAddr_WritesEmptyArray_WhenSetIsEmpty) {
  CPString strJson;
  EXPECT_EQ(m_data.SaveAllEngineAddr(CPStrSet(), strJson), 1);
  EXPECT_EQ(strJson, R"({"allengineaddr":[]})");
}

TEST_F(Addr, UpdateDbAddr_ReplacesOrAddsThePath) {
  const std::string strPath = m_strDir + "etc/zxagent/zxcloud.db";
  for (const char* pszText :
       {R"({"zxcloudconf":{"db_path":"old"},"other":1})", R"({"zxcloudconf":{},"other":1})"}) {
    WriteFile(kWorking, pszText);
    EXPECT_EQ(m_data.UpdateDbAddr(), 1);
    EXPECT_EQ(JsonOf(kWorking, "zxcloudconf.db_path"), strPath);
    EXPECT_EQ(JsonOf(kWorking, "other"), "1");
    EXPECT_EQ(Lines().back(),
              "zxagent CAgentData::UpdateDbAddr OK SaveFile strAddr[" + strPath + "]" + Working());
  }
}

TEST_F(Addr, UpdateDbAddr_SavesInPlace) {
  WriteFile(kWorking, R"({"zxcloudconf":{}})");
  ASSERT_EQ(chmod((m_strDir + kWorking).c_str(), 0600), 0);
  struct stat stBefore {};
  struct stat stAfter {};
  ASSERT_EQ(stat((m_strDir + kWorking).c_str(), &stBefore), 0);
  EXPECT_EQ(m_data.UpdateDbAddr(), 1);
  ASSERT_EQ(stat((m_strDir + kWorking).c_str(), &stAfter), 0);
  EXPECT_EQ(stBefore.st_ino, stAfter.st_ino);
  EXPECT_EQ(stAfter.st_mode & 07777, 0600u);
  EXPECT_FALSE(Exists(std::string(kWorking) + ".tmp"));
}

TEST_F(Addr, UpdateDbAddr_NamesWhatIsMissing) {
  const std::string strAddr = " strAddr[" + m_strDir + "etc/zxagent/zxcloud.db]";
  EXPECT_EQ(m_data.UpdateDbAddr(), 0);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::UpdateDbAddr Error LoadFile Error[" +
                                std::to_string(ENOENT) + "]" + strAddr + Working());
  WriteFile(kWorking, R"({"tconf":{}})");
  EXPECT_EQ(m_data.UpdateDbAddr(), 0);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::UpdateDbAddr Error GetNode tconf" + strAddr + Working());
  EXPECT_EQ(Compact(kWorking), R"({"tconf":{}})");
}

TEST_F(Addr, UpdateDbAddr_NamesTheStep_WhenMemoryRunsOut) {
  for (const char* pszText : {R"({"zxcloudconf":{"db_path":"old"}})", R"({"zxcloudconf":{}})"}) {
    bool bHit = true;
    for (unsigned int uAllowed = 0; bHit && uAllowed < 200; ++uAllowed) {
      WriteFile(kWorking, pszText);
      const CJsonMemoryFault fault(uAllowed);
      m_data.UpdateDbAddr();
      bHit = fault.Hit();
    }
    EXPECT_FALSE(bHit);
  }
  const std::string strTail = " strAddr[" + m_strDir + "etc/zxagent/zxcloud.db]" + Working();
  for (const char* pszStep : {"ReplaceNode db_path", "AddNode db_path"})
    EXPECT_THAT(Lines(),
                Contains("*zxagent CAgentData::UpdateDbAddr Error " + std::string(pszStep) + strTail));
  EXPECT_THAT(Lines(), Contains(StartsWith("*zxagent CAgentData::UpdateDbAddr Error SaveFile Error[")));
}

TEST_F(Addr, UpdateDbAddr_Fails_BeforeInit) {
  CStore data(m_strDir);
  EXPECT_EQ(data.UpdateDbAddr(), 0);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::UpdateDbAddr Error strAddr is empty");
}

}  // namespace
