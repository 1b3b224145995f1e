// Every reader of a JSON state file, given files that are none: it fails with a line and leaves its outputs.
#include <gmock/gmock.h>

#include <filesystem>
#include <functional>
#include <ostream>
#include <tuple>

#include "DataFixture.h"

namespace {

using ::testing::Contains;
using ::testing::StartsWith;

struct _Reader {
  const char* pszName;
  const char* pszFile;
  std::function<int(CAgentData&)> fnRead;
};

void PrintTo(const _Reader& reader, std::ostream* pOut) {
  *pOut << reader.pszName;
}

struct _Content {
  const char* pszName;
  std::function<void(const std::string& strFile)> fnMake;
};

void PrintTo(const _Content& content, std::ostream* pOut) {
  *pOut << content.pszName;
}

std::function<void(const std::string&)> Text(std::string strText) {
  return [strText = std::move(strText)](const std::string& strFile) { WriteText(strFile, strText); };
}

const std::vector<_Reader>& Readers() {
  static const std::vector<_Reader> readers = {
      {"ReadCacheAttribute", "etc/zxagent/inner/cacheattribute.json",
       [](CAgentData& data) {
         unsigned long long u64FileSize = 77;
         unsigned int dwLastWriteTime = 77;
         const int iRet = data.ReadCacheAttribute("zxagent", u64FileSize, dwLastWriteTime);
         EXPECT_EQ(u64FileSize, 77u);
         EXPECT_EQ(dwLastWriteTime, 77u);
         return iRet;
       }},
      {"CheckAgentConf", "etc/zxagent/inner/zxagent.json",
       [](CAgentData& data) { return data.CheckAgentConf(); }},
      {"ReadZxCloudData", "etc/zxagent/zxcloud.json",
       [](CAgentData& data) {
         const int iRet = data.ReadZxCloudData();
         EXPECT_EQ(data.GetZxCloudData().strShortAddrLocal, "");
         return iRet;
       }},
      {"ReadCustomCloudAddr", "etc/zxagent/inner/customcloud.json",
       [](CAgentData& data) {
         CPString strAddr = "before";
         const int iRet = data.ReadCustomCloudAddr(strAddr);
         EXPECT_EQ(strAddr, "before");
         return iRet;
       }},
      {"ReadAgentAddr", "etc/zxagent/inner/zxagent.json",
       [](CAgentData& data) {
         CPString strAddr = "before";
         const int iRet = data.ReadAgentAddr(strAddr);
         EXPECT_EQ(strAddr, "before");
         return iRet;
       }},
      {"ReadEngineAddrStatus", "etc/zxagent/inner/engineaddr.json",
       [](CAgentData& data) {
         unsigned int dwStatus = 77;
         CPString strAddr = "before";
         const int iRet = data.ReadEngineAddrStatus(dwStatus, strAddr);
         EXPECT_EQ(dwStatus, 77u);
         EXPECT_EQ(strAddr, "before");
         return iRet;
       }},
      {"UpdateDbAddr", "etc/zxagent/inner/zxagent.json",
       [](CAgentData& data) { return data.UpdateDbAddr(); }},
      {"ReadPubmsgReportData", "etc/zxagent/inner/pubmsgreport.json",
       [](CAgentData& data) {
         int iPubmsgReport = 77;
         const int iRet = data.ReadPubmsgReportData(iPubmsgReport);
         EXPECT_EQ(iPubmsgReport, 77);
         return iRet;
       }},
      {"ReadConfigPid", "etc/productinfo.json",
       [](CAgentData& data) {
         CPString strPid = "before";
         const int iRet = data.ReadConfigPid(strPid);
         EXPECT_EQ(strPid, "before");
         return iRet;
       }},
      {"GetVersionXml", "etc/version.xml", [](CAgentData& data) { return data.GetVersionXml(); }},
  };
  return readers;
}

const std::vector<_Content>& Contents() {
  static const std::vector<_Content> contents = {
      {"Missing", [](const std::string&) {}},
      {"Empty", Text("")},
      {"Truncated", Text(R"({"tconf":{"tconf_url":"a)")},
      {"TruncatedXml", Text("<Config><CurrentVer>1.0</Curr")},
      {"Binary", Text(std::string("\x7f\x45\x4c\x46\x00\x01\xff\xfe\x80{}", 11))},
      {"NulBehindObject", Text(std::string("{}\0", 3))},
      {"TrailingText", Text(R"({"tconf":{"tconf_url":"a"}} x)")},
      {"TooDeep", Text(std::string(100000, '['))},
      {"Number", Text("5")},
      {"Null", Text("null")},
      {"Array", Text("[1,2]")},
      {"EmptyObject", Text("{}")},
      {"WrongKinds",
       Text(R"({"tconf":5,"zxagent":[1],"customcloudaddr0":1,"shortaddrlocal0":[],"enginestatus":{},)"
            R"("pubmsgreport":[],"zxcloudconf":"x"})")},
      {"Directory", [](const std::string& strFile) { std::filesystem::create_directories(strFile); }},
  };
  return contents;
}

class StateFileReaders : public CStoreFixture,
                         public ::testing::WithParamInterface<std::tuple<_Reader, _Content>> {};

TEST_P(StateFileReaders, Read_FailsWithOneLine) {
  const auto& [reader, content] = GetParam();
  const std::string strFile = m_strDir + reader.pszFile;
  std::filesystem::create_directories(std::filesystem::path(strFile).parent_path());
  std::filesystem::remove(strFile);  // some are there since Init
  content.fnMake(strFile);
  EXPECT_EQ(reader.fnRead(m_data), 0);
  EXPECT_THAT(Lines(), Contains(StartsWith("*zxagent CAgentData::" + std::string(reader.pszName))).Times(1));
}

INSTANTIATE_TEST_SUITE_P(All, StateFileReaders,
                         ::testing::Combine(::testing::ValuesIn(Readers()), ::testing::ValuesIn(Contents())),
                         [](const auto& param) {
                           return std::string(std::get<0>(param.param).pszName) + "_" +
                                  std::get<1>(param.param).pszName;
                         });

}  // namespace
