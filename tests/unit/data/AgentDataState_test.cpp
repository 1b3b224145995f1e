#include <gmock/gmock.h>

#include <cerrno>
#include <functional>

#include "DataFixture.h"

namespace {

using ::testing::Contains;

constexpr char kWorking[] = "etc/zxagent/inner/zxagent.json";
constexpr char kReport[] = "etc/zxagent/inner/pubmsgreport.json";
constexpr char kProduct[] = "etc/productinfo.json";

class State : public CStoreFixture {
 protected:
  void MakePersonal() {
    WriteFile("etc/version.xml", "<Config><AppId>com.tamber.veltsafe</AppId></Config>");
    ASSERT_EQ(m_data.GetVersionXml(), 1);
  }
};

TEST_F(State, PubmsgReport_RoundTrips) {
  for (const int iSaved : {0, 1, -1, 2147483647}) {
    EXPECT_EQ(m_data.SavePubmsgReportData(iSaved), 1);
    EXPECT_EQ(Lines().back(), "zxagent CAgentData::SavePubmsgReportData OK SaveFile iPubmsgReport[" +
                                  std::to_string(iSaved) + "] strFile[" + m_strDir + kReport + "]");
    int iPubmsgReport = 77;
    EXPECT_EQ(m_data.ReadPubmsgReportData(iPubmsgReport), 1);
    EXPECT_EQ(iPubmsgReport, iSaved);
    EXPECT_EQ(Lines().back(), "zxagent CAgentData::ReadPubmsgReportData iPubmsgReport[" +
                                  std::to_string(iSaved) + "] strFile[" + m_strDir + kReport + "]");
  }
}

TEST_F(State, ReadPubmsgReport_NamesWhatIsMissing) {
  int iPubmsgReport = 77;
  EXPECT_EQ(m_data.ReadPubmsgReportData(iPubmsgReport), 0);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::ReadPubmsgReportData Warn LoadFile Flag[" +
                                std::to_string(ENOENT) + "] strFile[" + m_strDir + kReport + "]");
  WriteFile(kReport, "{}");
  EXPECT_EQ(m_data.ReadPubmsgReportData(iPubmsgReport), 0);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::ReadPubmsgReportData Error GetNode pubmsgreport strFile[" +
                                m_strDir + kReport + "]");
}

// What arrives is stored as it is; only its use parses it.
TEST_F(State, RawTexts_AreKeptAsTheyAre) {
  const std::string texts[] = {R"({"Param":{"type":2}})", "{ broken", std::string("a\0b\xff", 4), ""};
  for (const std::string& strText : texts) {
    CPString strData = "before";
    EXPECT_EQ(m_data.SaveTermConnectData(CPString(strText)), 1);
    EXPECT_EQ(ReadFile("etc/zxagent/inner/termconnect.json"), strText);
    EXPECT_EQ(m_data.ReadTermConnectData(strData), 1);
    EXPECT_EQ(strData.Str(), strText);
    EXPECT_EQ(m_data.SaveMsgSrvAddrSetData(CPString(strText)), 1);
    EXPECT_EQ(ReadFile("etc/zxagent/inner/msgsrvaddrset.json"), strText);
    EXPECT_EQ(m_data.ReadMsgSrvAddrSetData(strData), 1);
    EXPECT_EQ(strData.Str(), strText);
  }
  int iType = 0;
  int iPollerCycle = 0;
  ASSERT_EQ(m_data.SaveTermConnectData("{ broken"), 1);
  EXPECT_EQ(m_data.ParseTermConnectData("{ broken", iType, iPollerCycle), 0);
  EXPECT_EQ(ReadFile("etc/zxagent/inner/termconnect.json"), "{ broken");
}

TEST_F(State, RawTexts_Fail_WhenFileIsMissingOrADirectory) {
  CPString strData;
  EXPECT_EQ(m_data.ReadTermConnectData(strData), 0);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::ReadTermConnectData Warn ZxReadFileData Flag[" +
                                std::to_string(ENOENT) + "] strFile[" + m_strDir +
                                "etc/zxagent/inner/termconnect.json]");
  m_home.MakeDir("etc/zxagent/inner/msgsrvaddrset.json");
  EXPECT_EQ(m_data.ReadMsgSrvAddrSetData(strData), 0);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::ReadMsgSrvAddrSetData Warn ZxReadFileData Flag[" +
                                std::to_string(EINVAL) + "] strFile[" + m_strDir +
                                "etc/zxagent/inner/msgsrvaddrset.json]");
}

TEST_F(State, ParseTermConnect_BoundsThePollerCycle) {
  const std::pair<const char*, int> cases[] = {
      {"30", 60}, {"59", 60}, {"60", 60},     {"61", 61},           {"10800", 10800},
      {"0", 60},  {"-5", 60}, {"\"90\"", 90}, {"1e99", 2147483647}, {"\"x\"", 60},
  };
  for (const auto& [pszCycle, iExpected] : cases) {
    const CPString strData = CPString::Make("{\"Param\":{\"type\":2,\"poller_cycle\":%s}}", pszCycle);
    int iType = 0;
    int iPollerCycle = 0;
    EXPECT_EQ(m_data.ParseTermConnectData(strData, iType, iPollerCycle), 1) << pszCycle;
    EXPECT_EQ(iType, 2);
    EXPECT_EQ(iPollerCycle, iExpected) << pszCycle;
  }
}

TEST_F(State, ParseTermConnect_LogsTheResult) {
  int iType = 0;
  int iPollerCycle = 0;
  EXPECT_EQ(m_data.ParseTermConnectData(R"({"Param":{"type":1,"poller_cycle":61}})", iType, iPollerCycle), 1);
  EXPECT_THAT(Lines(),
              ::testing::ElementsAre("zxagent CAgentData::ParseTermConnectData OK iType[1] iPollerCycle[61] "
                                     R"(strData[{"Param":{"type":1,"poller_cycle":61}}])"));
}

TEST_F(State, ParseTermConnect_DefaultCycleDependsOnEdition) {
  const CPString strData = R"({"Param":{"type":0}})";
  int iType = 77;
  int iPollerCycle = 0;
  EXPECT_EQ(m_data.ParseTermConnectData(strData, iType, iPollerCycle), 1);
  EXPECT_EQ(iType, 0);
  EXPECT_EQ(iPollerCycle, 60);
  EXPECT_EQ(
      Lines().front(),
      R"(*zxagent CAgentData::ParseTermConnectData Warn GetNode poller_cycle strData[{"Param":{"type":0}}])");
  MakePersonal();
  EXPECT_EQ(m_data.ParseTermConnectData(strData, iType, iPollerCycle), 1);
  EXPECT_EQ(iPollerCycle, 10800);
  EXPECT_EQ(m_data.ParseTermConnectData(R"({"Param":{"type":0,"poller_cycle":30}})", iType, iPollerCycle), 1);
  EXPECT_EQ(iPollerCycle, 60);
}

TEST_F(State, ParseTermConnect_NamesWhatIsMissing) {
  const std::string strPrefix = "*zxagent CAgentData::ParseTermConnectData Error ";
  const std::pair<std::string, std::string> cases[] = {
      {"", "strData is empty"},
      {"{", "LoadBuffer strData[{]"},
      {"{}", "GetNode Param strData[{}]"},
      {R"({"Param":5})", R"(GetNode type strData[{"Param":5}])"},
      {R"({"Param":{"poller_cycle":61}})", R"(GetNode type strData[{"Param":{"poller_cycle":61}}])"},
      {R"({"Param":{"type":{}}})", R"(GetNode type strData[{"Param":{"type":{}}}])"},
      {"{" + std::string(10000, ' '), "LoadBuffer strData[(10001 bytes)]"},
  };
  for (const auto& [strData, strLine] : cases) {
    int iType = 77;
    int iPollerCycle = 77;
    ClearLines();
    EXPECT_EQ(m_data.ParseTermConnectData(CPString(strData), iType, iPollerCycle), 0);
    EXPECT_THAT(Lines(), ::testing::ElementsAre(strPrefix + strLine));
    EXPECT_EQ(iType, 77);
    EXPECT_EQ(iPollerCycle, 77);
  }
}

TEST_F(State, ParseMsgSrvAddrSet_JoinsAddresses) {
  const CPString strData = R"({"Param":{"1":{"addr":"a","type":"1"},"2":{"addr":"b","type":"9"}}})";
  CPString strAddr;
  EXPECT_EQ(m_data.ParseMsgSrvAddrSetData(strData, strAddr), 1);
  EXPECT_EQ(strAddr, "a,b");
  EXPECT_THAT(Lines(), ::testing::ElementsAre(
                           "zxagent CAgentData::ParseMsgSrvAddrSetData i[0] strChildAddr[a] strType[1]",
                           "zxagent CAgentData::ParseMsgSrvAddrSetData i[1] strChildAddr[b] strType[9]",
                           "zxagent CAgentData::ParseMsgSrvAddrSetData OK strAddr[a,b] strData[" +
                               strData.Str() + "]"));
}

TEST_F(State, ParseMsgSrvAddrSet_Succeeds_WhenNoChildHasAnAddress) {
  const CPString strData = R"({"Param":{"1":{"type":"1"},"2":5}})";
  CPString strAddr;
  EXPECT_EQ(m_data.ParseMsgSrvAddrSetData(strData, strAddr), 1);
  EXPECT_EQ(strAddr, "");
  EXPECT_THAT(Lines(),
              Contains("*zxagent CAgentData::ParseMsgSrvAddrSetData Warn GetNode addr i[0] strData[" +
                       strData.Str() + "]"));
  EXPECT_THAT(Lines(),
              Contains("*zxagent CAgentData::ParseMsgSrvAddrSetData Warn GetNode addr i[1] strData[" +
                       strData.Str() + "]"));
}

TEST_F(State, ParseMsgSrvAddrSet_TakesAddressWithoutType) {
  const CPString strData = R"({"Param":[{"type":"1"},{"addr":"a"},{"addr":""},{"addr":"b"},{"addr":""}]})";
  CPString strAddr;
  EXPECT_EQ(m_data.ParseMsgSrvAddrSetData(strData, strAddr), 1);
  EXPECT_EQ(strAddr, "a,,b");
  EXPECT_THAT(Lines(),
              Contains("*zxagent CAgentData::ParseMsgSrvAddrSetData Warn GetNode type i[1] strData[" +
                       strData.Str() + "]"));
}

TEST_F(State, ParseMsgSrvAddrSet_NamesWhatIsMissing) {
  const std::string strPrefix = "*zxagent CAgentData::ParseMsgSrvAddrSetData Error ";
  const std::pair<std::string, std::string> cases[] = {
      {"", "strData is empty"},
      {"[", "LoadBuffer strData[[]"},
      {std::string("{}\0", 3), "LoadBuffer strData[{}]"},
      {"{}", "GetNode Param strData[{}]"},
      {R"({"Param":"a"})", R"(GetAllNode strData[{"Param":"a"}])"},
  };
  for (const auto& [strData, strLine] : cases) {
    CPString strAddr;
    ClearLines();
    EXPECT_EQ(m_data.ParseMsgSrvAddrSetData(CPString(strData), strAddr), 0);
    EXPECT_THAT(Lines(), ::testing::ElementsAre(strPrefix + strLine));
    EXPECT_EQ(strAddr, "");
  }
}

class Channel : public CStoreFixture {
 protected:
  int Read() { return m_data.ReadConfigChannelId(m_strChannelId, m_strIpartner); }
  CPString m_strChannelId;
  CPString m_strIpartner;
};

TEST_F(Channel, ReadConfigChannelId_TakesWorkingCopy) {
  WriteFile(kWorking, R"({"zxagent":{"channel":"c1","pin":"p1"}})");
  WriteFile(kProduct, R"({"pid":"product"})");
  EXPECT_EQ(Read(), 1);
  EXPECT_EQ(m_strChannelId, "c1");
  EXPECT_EQ(m_strIpartner, "p1");
  EXPECT_EQ(Lines().back(),
            "zxagent CAgentData::ReadConfigChannelId strChannelId[c1] strIpartner[p1] strFile[" + m_strDir +
                kWorking + "]");
}

TEST_F(Channel, ReadConfigChannelId_KeepsDefaults_WhenMembersAreAbsent) {
  WriteFile(kWorking, R"({"zxagent":{}})");
  EXPECT_EQ(Read(), 1);
  EXPECT_EQ(m_strChannelId, "h_home");
  EXPECT_EQ(m_strIpartner, "h_home");
  WriteFile(kWorking, R"({"zxagent":{"pin":""}})");
  EXPECT_EQ(Read(), 1);
  EXPECT_EQ(m_strChannelId, "h_home");
  EXPECT_EQ(m_strIpartner, "");
}

TEST_F(Channel, ReadConfigChannelId_TakesProductId_WhenAgentObjectIsMissing) {
  WriteFile(kWorking, R"({"tconf":{}})");
  WriteFile(kProduct, R"({"pid":"product"})");
  EXPECT_EQ(Read(), 1);
  EXPECT_EQ(m_strChannelId, "product");
  EXPECT_EQ(m_strIpartner, "h_home");
  EXPECT_THAT(Lines(), Contains("*zxagent CAgentData::ReadConfigChannelId Warn GetNode zxagent strFile[" +
                                m_strDir + kWorking + "]"));
}

TEST_F(Channel, ReadConfigChannelId_TakesProductId_WhenWorkingCopyIsMissing) {
  WriteFile(kProduct, R"({"pid":"product"})");
  EXPECT_EQ(Read(), 1);
  EXPECT_EQ(m_strChannelId, "product");
  EXPECT_THAT(Lines(), Contains("*zxagent CAgentData::ReadConfigChannelId Error LoadFile Error[" +
                                std::to_string(ENOENT) + "] strFile[" + m_strDir + kWorking + "]"));
}

TEST_F(Channel, ReadConfigChannelId_KeepsDefaultAndFails_WithoutProductId) {
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(m_strChannelId, "h_home");
  WriteFile(kProduct, R"({"pid":""})");
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(m_strChannelId, "h_home");
  EXPECT_EQ(Lines().back(),
            "*zxagent CAgentData::ReadConfigPid Error strPid is empty strFile[" + m_strDir + kProduct + "]");
}

// --- Budget of waiting uploads.

class UploadBudget : public CStoreFixture {
 protected:
  int Read(const std::string& strConfig) {
    WriteFile(kWorking, strConfig.c_str());
    m_iMegabytes = -1;
    return m_data.ReadConfigUploadBudget(m_iMegabytes);
  }
  int m_iMegabytes = -1;
};

TEST_F(UploadBudget, ReadConfigUploadBudget_TakesTheWorkingCopy) {
  EXPECT_EQ(Read(R"({"zxagent":{"upload_budget_mb":8}})"), 1);
  EXPECT_EQ(m_iMegabytes, 8);
  EXPECT_EQ(Lines().back(),
            "zxagent CAgentData::ReadConfigUploadBudget iMegabytes[8] strFile[" + m_strDir + kWorking + "]");
}

TEST_F(UploadBudget, ReadConfigUploadBudget_KeepsTheDefault_WithoutANumber) {
  EXPECT_EQ(m_data.ReadConfigUploadBudget(m_iMegabytes), 0) << "no file";
  EXPECT_EQ(m_iMegabytes, 64);
  for (const char* pszConfig :
       {"{", "{}", R"({"zxagent":[]})", R"({"zxagent":{}})", R"({"zxagent":{"upload_budget_mb":null}})",
        R"({"zxagent":{"upload_budget_mb":{}}})", R"({"upload_budget_mb":3})"}) {
    EXPECT_EQ(Read(pszConfig), 0) << pszConfig;
    EXPECT_EQ(m_iMegabytes, 64) << pszConfig;
  }
}

TEST_F(UploadBudget, ReadConfigUploadBudget_StaysWithinItsBounds) {
  const std::vector<std::pair<std::string, int>> cases = {{"1", 1},
                                                          {"0", 1},
                                                          {"-5", 1},
                                                          {"-1e300", 1},
                                                          {"1024", 1024},
                                                          {"1025", 1024},
                                                          {"4294967297", 1024},
                                                          {"1e300", 1024},
                                                          {"\"many\"", 1},
                                                          {"\"16\"", 16}};
  for (const auto& [strValue, iExpected] : cases) {
    EXPECT_EQ(Read(R"({"zxagent":{"upload_budget_mb":)" + strValue + "}}"), 1) << strValue;
    EXPECT_EQ(m_iMegabytes, iExpected) << strValue;
  }
  Read(R"({"zxagent":{"upload_budget_mb":-5}})");
  EXPECT_EQ(Lines().back(),
            "*zxagent CAgentData::ReadConfigUploadBudget Warn iConfigured[-5] iMegabytes[1] strFile[" +
                m_strDir + kWorking + "]");
}

}  // namespace
