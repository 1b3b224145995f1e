// What every writer of the store has in common: the whole content goes to <target>.tmp and is moved over the
// target, a failed step says which one it was, and the target keeps its old content until then.
#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <ostream>

#include "DataFixture.h"
#include "FileFaults.h"

namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::StartsWith;

struct _Writer {
  const char* pszName;
  const char* pszFile;
  const char* pszBefore;     // content of the file before the call, or null
  const char* pszSaveError;  // words of the failed write
  std::function<int(CAgentData&)> fnSave;
  std::vector<std::string>
      memoryLines;  // beginnings of the lines that running out of memory must be able to cause
};

void PrintTo(const _Writer& writer, std::ostream* pOut) {
  *pOut << writer.pszName;
}

CPStrSet TwoAddr() {
  CPStrSet set;
  set.Insert("a:1");
  set.Insert("b:2");
  return set;
}

constexpr char kWorkingCopy[] = R"({"other":{"kept":1},"tconf":{"tconf_url":"old:1"}})";

const std::vector<_Writer>& Writers() {
  static const std::vector<_Writer> writers = {
      {"SaveCacheAttribute",
       "etc/zxagent/inner/cacheattribute.json",
       nullptr,
       "SaveFile",
       [](CAgentData& data) { return data.SaveCacheAttribute("zxagent", 5, 6); },
       {"*zxagent CAgentData::SaveCacheAttribute Error CreateJson strName[zxagent] strFile[",
        "*zxagent CAgentData::SaveCacheAttribute Error AddNodeObject strName[zxagent] strFile[",
        "*zxagent CAgentData::SaveCacheAttribute Error AddNode filesize u64FileSize[5] strName[zxagent] strFile[",
        "*zxagent CAgentData::SaveCacheAttribute Error AddNode lastwritetime dwLastWriteTime[6] strName[zxagent] strFile[",
        "*zxagent CAgentData::SaveCacheAttribute Error SaveFile Error["}},
      {"SaveCacheAttribute",
       "etc/zxagent/inner/cacheattribute.json",
       R"({"zxagent":{"filesize":1,"lastwritetime":2}})",
       "SaveFile",
       [](CAgentData& data) { return data.SaveCacheAttribute("zxagent", 5, 6); },
       {"*zxagent CAgentData::SaveCacheAttribute Warn LoadFile Flag[",
        "*zxagent CAgentData::SaveCacheAttribute Error ReplaceNode filesize u64FileSize[5] strName[zxagent] strFile[",
        "*zxagent CAgentData::SaveCacheAttribute Error ReplaceNode lastwritetime dwLastWriteTime[6] strName[zxagent] strFile["}},
      {"SaveZxCloudData",
       "etc/zxagent/zxcloud.json",
       nullptr,
       "SaveFile",
       [](CAgentData& data) { return data.SaveZxCloudData(); },
       {"*zxagent CAgentData::SaveZxCloudData Error CreateJson",
        "*zxagent CAgentData::SaveZxCloudData Error AddNode lbaddr strLbAddr[]",
        "*zxagent CAgentData::SaveZxCloudData Error AddNode tconfaddr strTconfAddr[]",
        "*zxagent CAgentData::SaveZxCloudData Error AddNode shortaddrlocal strShortAddrLocal[]",
        "*zxagent CAgentData::SaveZxCloudData Error AddNode shortaddrremote strShortAddrRemote[]",
        "*zxagent CAgentData::SaveZxCloudData Error AddNode longaddrlocal strLongAddrLocal[]",
        "*zxagent CAgentData::SaveZxCloudData Error AddNode longaddrremote strLongAddrRemote[]",
        "*zxagent CAgentData::SaveZxCloudData Error AddNode connectstatus bConnectStatus[0]"}},
      {"SaveCustomCloudAddr",
       "etc/zxagent/inner/customcloud.json",
       R"({"customcloudaddr":"old:1"})",
       "SaveFile",
       [](CAgentData& data) { return data.SaveCustomCloudAddr("new:2"); },
       {"*zxagent CAgentData::SaveCustomCloudAddr Error CreateJson strAddr[new:2]",
        "*zxagent CAgentData::SaveCustomCloudAddr Error AddNode customcloudaddr strAddr[new:2]"}},
      {"UpdateCloudAddr",
       "etc/zxagent/inner/zxagent.json",
       kWorkingCopy,
       "SaveFile",
       [](CAgentData& data) { return data.UpdateCloudAddr("new:2"); },
       {"*zxagent CAgentData::UpdateCloudAddr Error LoadFile Error[",
        "*zxagent CAgentData::UpdateCloudAddr Error ReplaceNode tconf_url strAddr[new:2] strFile[",
        "*zxagent CAgentData::UpdateCloudAddr Error AddNodeObject scanconf strAddr[new:2] strFile[",
        "*zxagent CAgentData::UpdateCloudAddr Error AddNode scanconf_url strAddr[new:2] strFile["}},
      {"UpdateCloudAddr",
       "etc/zxagent/inner/zxagent.json",
       R"({"scanconf":{"scanconf_url":""}})",
       "SaveFile",
       [](CAgentData& data) { return data.UpdateCloudAddr("new:2"); },
       {"*zxagent CAgentData::UpdateCloudAddr Error AddNodeObject tconf strAddr[new:2] strFile[",
        "*zxagent CAgentData::UpdateCloudAddr Error AddNode tconf_url strAddr[new:2] strFile[",
        "*zxagent CAgentData::UpdateCloudAddr Error ReplaceNode scanconf_url strAddr[new:2] strFile["}},
      {"SaveLbData",
       "etc/zxagent/lbdata.json",
       "old",
       "SaveFileData",
       [](CAgentData& data) { return data.SaveLbData("new"); },
       {}},
      {"SaveEngineAddrStatus",
       "etc/zxagent/inner/engineaddr.json",
       R"({"enginestatus":1,"engineaddr":"old"})",
       "ZxSaveFileData",
       [](CAgentData& data) { return data.SaveEngineAddrStatus(2, "new"); },
       {"*zxagent CAgentData::SaveEngineAddrStatus Error CreateJson",
        "*zxagent CAgentData::SaveEngineAddrStatus Error AddNode dwStatus[2]",
        "*zxagent CAgentData::SaveEngineAddrStatus Error AddNode strAddr[new]"}},
      {"SaveAllEngineAddr",
       "etc/zxagent/allengineaddr.json",
       nullptr,
       "SaveFile",
       [](CAgentData& data) {
         CPString strJson;
         return data.SaveAllEngineAddr(TwoAddr(), strJson);
       },
       {"*zxagent CAgentData::SaveAllEngineAddr Warn CreateJson",
        "*zxagent CAgentData::SaveAllEngineAddr Error AddNodeArray allengineaddr strAddrList[2]",
        "*zxagent CAgentData::SaveAllEngineAddr Error GetJsonStr strAddrList[2]"}},
      {"SavePubmsgReportData",
       "etc/zxagent/inner/pubmsgreport.json",
       R"({"pubmsgreport":1})",
       "SaveFile",
       [](CAgentData& data) { return data.SavePubmsgReportData(2); },
       {"*zxagent CAgentData::SavePubmsgReportData Error CreateJson iPubmsgReport[2]",
        "*zxagent CAgentData::SavePubmsgReportData Error AddNode pubmsgreport iPubmsgReport[2]"}},
      {"SaveTermConnectData",
       "etc/zxagent/inner/termconnect.json",
       "old",
       "ZxSaveFileData",
       [](CAgentData& data) { return data.SaveTermConnectData("new"); },
       {}},
      {"SaveMsgSrvAddrSetData",
       "etc/zxagent/inner/msgsrvaddrset.json",
       "old",
       "ZxSaveFileData",
       [](CAgentData& data) { return data.SaveMsgSrvAddrSetData("new"); },
       {}},
  };
  return writers;
}

class SaveConvention : public CStoreFixture, public ::testing::WithParamInterface<_Writer> {
 protected:
  void SetUp() override {
    CStoreFixture::SetUp();
    Restore();
  }
  void Restore() {
    std::filesystem::remove(m_strDir + GetParam().pszFile);
    std::filesystem::remove(Tmp());
    if (GetParam().pszBefore != nullptr)
      WriteFile(GetParam().pszFile, GetParam().pszBefore);
  }
  std::string Target() const { return m_strDir + GetParam().pszFile; }
  std::string Tmp() const { return Target() + ".tmp"; }
  std::string Error(const std::string& strWords) const {
    return "*zxagent CAgentData::" + std::string(GetParam().pszName) + " Error " + strWords + " Error[";
  }
  void ExpectUnchanged() const {
    if (GetParam().pszBefore == nullptr)
      EXPECT_FALSE(Exists(GetParam().pszFile));
    else
      EXPECT_EQ(ReadFile(GetParam().pszFile), GetParam().pszBefore);
  }
};

TEST_P(SaveConvention, Save_LeavesTargetOnly) {
  EXPECT_EQ(GetParam().fnSave(m_data), 1);
  EXPECT_TRUE(Exists(GetParam().pszFile));
  EXPECT_FALSE(std::filesystem::exists(Tmp()));
}

TEST_P(SaveConvention, Save_KeepsTarget_WhenTemporaryFileCannotBeWritten) {
  std::filesystem::create_directory(Tmp());
  EXPECT_EQ(GetParam().fnSave(m_data), 0);
  ExpectUnchanged();
  EXPECT_THAT(Lines(), Contains(StartsWith(Error(GetParam().pszSaveError) + std::to_string(EISDIR) + "]")));
  EXPECT_THAT(Lines(), Contains(HasSubstr("strFileTmp[" + Tmp() + "]")));
}

TEST_P(SaveConvention, Save_KeepsTargetAndTemporaryFile_WhenMoveIsRefused) {
  const CRenameFault fault(Target(), EACCES);
  EXPECT_EQ(GetParam().fnSave(m_data), 0);
  ExpectUnchanged();
  EXPECT_TRUE(std::filesystem::exists(Tmp()));
  EXPECT_EQ(Lines().back(), Error("MyMoveFile") + std::to_string(EACCES) + "] strFileTmp[" + Tmp() +
                                "] strFile[" + Target() + "]");
}

TEST_P(SaveConvention, Save_Works_OverLeftTemporaryFile) {
  WriteFile(std::string(GetParam().pszFile) + ".tmp", std::string(100000, 'x'));
  EXPECT_EQ(GetParam().fnSave(m_data), 1);
  EXPECT_LT(std::filesystem::file_size(Target()), 1000u);
}

// Of the writers that build a document.
class DocumentWriter : public SaveConvention {};

TEST_P(DocumentWriter, Save_NamesTheStep_WhenMemoryRunsOut) {
  std::vector<std::string> lines;
  bool bHit = true;
  for (unsigned int uAllowed = 0; bHit && uAllowed < 500; ++uAllowed) {
    Restore();
    ClearLines();
    int iRet = 0;
    {
      const CJsonMemoryFault fault(uAllowed);
      iRet = GetParam().fnSave(m_data);
      bHit = fault.Hit();
    }
    if (iRet == 0) {
      ExpectUnchanged();
      EXPECT_THAT(Lines(), Contains(StartsWith("*"))) << "silent failure with " << uAllowed << " allocations";
    }
    for (const std::string& strLine : Lines())
      lines.push_back(strLine);
  }
  EXPECT_FALSE(bHit) << "never enough memory";
  for (const std::string& strExpected : GetParam().memoryLines)
    EXPECT_THAT(lines, Contains(StartsWith(strExpected)));
}

std::string WriterName(const ::testing::TestParamInfo<_Writer>& param) {
  return std::string(param.param.pszName) + "_" + std::to_string(param.index);
}

std::vector<_Writer> DocumentWriters() {
  std::vector<_Writer> writers;
  for (const _Writer& writer : Writers()) {
    if (!writer.memoryLines.empty())
      writers.push_back(writer);
  }
  return writers;
}

INSTANTIATE_TEST_SUITE_P(Writers, SaveConvention, ::testing::ValuesIn(Writers()), &WriterName);
INSTANTIATE_TEST_SUITE_P(Writers, DocumentWriter, ::testing::ValuesIn(DocumentWriters()), &WriterName);

}  // namespace
