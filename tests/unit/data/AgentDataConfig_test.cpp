#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <limits>

#include "DataFixture.h"
#include "FileFaults.h"

namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr char kDeployed[] = "etc/zxagent/zxagent.json";
constexpr char kWorking[] = "etc/zxagent/inner/zxagent.json";
constexpr char kAttributes[] = "etc/zxagent/inner/cacheattribute.json";
constexpr char kCustom[] = "etc/zxagent/inner/customcloud.json";

constexpr char kVersion[] =
    "<Config><CurrentVer>8.1</CurrentVer><SystemName>Desktop</SystemName><AppId>Com.Tamber.VeltSafe</AppId>"
    "<Arch>x86_64</Arch><PkgType>deb</PkgType><PkgEnv>prod</PkgEnv><CloudProduct>p</CloudProduct>"
    "<CloudCombo>c</CloudCombo><UpdateRootDir>/r</UpdateRootDir><UpdateTempDir>/t</UpdateTempDir>"
    "<UpdateUrl>https://u</UpdateUrl><UpdateIniTimeout>30</UpdateIniTimeout>"
    "<UpdateOtherTimeout>60</UpdateOtherTimeout></Config>";
constexpr char kVersionLine[] =
    "zxagent CAgentData::GetVersionXml strCurrentVer[8.1] strSystemName[Desktop] strAppId[Com.Tamber.VeltSafe] "
    "strArch[x86_64] strPkgType[deb] strPkgEnv[prod] strCloudProduct[p] strCloudCombo[c] strUpdateRootDir[/r] "
    "strUpdateTempDir[/t] strUpdateUrl[https://u] dwUpdateIniTimeout[30] dwUpdateOtherTimeout[60]";

class Version : public CStoreFixture {};

TEST_F(Version, GetVersionXml_ReadsConfig_WhenItIsTheDocumentElement) {
  WriteFile("etc/version.xml", kVersion);
  EXPECT_EQ(m_data.GetVersionXml(), 1);
  EXPECT_EQ(Lines().back(), kVersionLine);
}

TEST_F(Version, GetVersionXml_ReadsConfig_WhenItIsBelowTheDocumentElement) {
  WriteFile("etc/version.xml",
            "<?xml version=\"1.0\"?><Root><Other/>" + std::string(kVersion) + "<Config/></Root>");
  EXPECT_EQ(m_data.GetVersionXml(), 1);
  EXPECT_EQ(Lines().back(), kVersionLine);
}

TEST_F(Version, GetVersionXml_KeepsMembers_WhenElementsAreMissing) {
  WriteFile("etc/version.xml", kVersion);
  ASSERT_EQ(m_data.GetVersionXml(), 1);
  WriteFile("etc/version.xml", "<Config><CurrentVer>8.2</CurrentVer><SystemName></SystemName></Config>");
  EXPECT_EQ(m_data.GetVersionXml(), 1);
  EXPECT_THAT(Lines().back(), HasSubstr("strCurrentVer[8.2] strSystemName[] strAppId[Com.Tamber.VeltSafe]"));
  EXPECT_THAT(Lines().back(), HasSubstr("dwUpdateIniTimeout[30] dwUpdateOtherTimeout[60]"));
}

TEST_F(Version, GetVersionXml_NamesMissingVersionAndSystem) {
  WriteFile("etc/version.xml", "<Config><AppId>x</AppId></Config>");
  EXPECT_EQ(m_data.GetVersionXml(), 1);
  const std::string strFile = m_strDir + "etc/version.xml]";
  EXPECT_THAT(Lines(), ::testing::ElementsAre(
                           "*zxagent CAgentData::GetVersionXml Error CurrentVer Config File[" + strFile,
                           "*zxagent CAgentData::GetVersionXml Error SystemName Config File[" + strFile,
                           StartsWith("zxagent CAgentData::GetVersionXml strCurrentVer[]")));
}

TEST_F(Version, GetVersionXml_Fails_WhenConfigIsMissing) {
  WriteFile("etc/version.xml", "<Root><Inner><Config/></Inner></Root>");
  EXPECT_EQ(m_data.GetVersionXml(), 0);
  EXPECT_EQ(Lines().back(),
            "*zxagent CAgentData::GetVersionXml Error GetNode Config File[" + m_strDir + "etc/version.xml]");
}

TEST_F(Version, GetVersionXml_RefusesDocumentType) {
  WriteFile(
      "etc/version.xml",
      "<!DOCTYPE Config [<!ENTITY e SYSTEM \"file:///etc/passwd\">]><Config><AppId>&e;</AppId></Config>");
  EXPECT_EQ(m_data.GetVersionXml(), 0);
  EXPECT_EQ(Lines().back(),
            "*zxagent CAgentData::GetVersionXml Error LoadFile File[" + m_strDir + "etc/version.xml]");
}

TEST_F(Version, GetVersionXml_BoundsTimeouts) {
  WriteFile("etc/version.xml",
            "<Config><UpdateIniTimeout>99999999999999999999</UpdateIniTimeout>"
            "<UpdateOtherTimeout>-1</UpdateOtherTimeout></Config>");
  EXPECT_EQ(m_data.GetVersionXml(), 1);
  EXPECT_THAT(Lines().back(), HasSubstr("dwUpdateIniTimeout[4294967295] dwUpdateOtherTimeout[0]"));
  WriteFile("etc/version.xml", "<Config><UpdateIniTimeout> 12s</UpdateIniTimeout></Config>");
  EXPECT_EQ(m_data.GetVersionXml(), 1);
  EXPECT_THAT(Lines().back(), HasSubstr("dwUpdateIniTimeout[12]"));
}

TEST_F(Version, Edition_IsUnset_WhenDescriptionIsBroken) {
  WriteFile("etc/version.xml", "<Config><AppId>com.tamber.veltsafe");
  EXPECT_EQ(m_data.GetVersionXml(), 0);
  EXPECT_EQ(m_data.IsPersonalEdition(), 0);
  EXPECT_EQ(m_data.IsDesktopSystem(), 0);
  EXPECT_EQ(m_data.GetPlatId(), 2);
}

TEST_F(Version, Edition_IgnoresCase) {
  WriteFile("etc/version.xml", kVersion);
  ASSERT_EQ(m_data.GetVersionXml(), 1);
  EXPECT_EQ(m_data.IsPersonalEdition(), 1);
  EXPECT_EQ(m_data.IsDesktopSystem(), 1);
}

TEST_F(Version, Edition_NeedsTheWholeName) {
  WriteFile("etc/version.xml",
            "<Config><SystemName>desktops</SystemName><AppId>com.tamber.veltsafe.pro</AppId></Config>");
  ASSERT_EQ(m_data.GetVersionXml(), 1);
  EXPECT_EQ(m_data.IsPersonalEdition(), 0);
  EXPECT_EQ(m_data.IsDesktopSystem(), 0);
}

TEST_F(Version, GetPlatId_Is6_OnDomesticDistribution) {
  WriteFile("root/etc/os-release", "NAME=\"Kylin Linux Advanced Server\"\nID=\"kylin\"\n");
  EXPECT_EQ(m_data.GetPlatId(), 6);
  EXPECT_EQ(Lines().back(), "zxagent CAgentData::GetPlatId iPlatId[6]");
}

TEST_F(Version, GetPlatId_Is5_OnDomesticDesktop) {
  WriteFile("root/etc/os-release", "NAME=\"Kylin\"\nID=\"kylin\"\n");
  WriteFile("etc/version.xml", kVersion);
  ASSERT_EQ(m_data.GetVersionXml(), 1);
  EXPECT_EQ(m_data.GetPlatId(), 5);
}

TEST_F(Version, IsDisableHb_IsAlwaysSet) {
  EXPECT_EQ(CAgentData().IsDisableHb(), 1);
}

class AgentConf : public CStoreFixture {
 protected:
  std::string File() const { return " strFile[" + m_strDir + kWorking + "]"; }
};

TEST_F(AgentConf, CheckAgentConf_TakesTconf) {
  WriteFile(kWorking, R"({"lbconf":{"lbconf_url":"lb:1"},"tconf":{"tconf_url":"t:1"}})");
  EXPECT_EQ(m_data.CheckAgentConf(), 1);
  EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "t:1");
  EXPECT_EQ(m_data.GetZxCloudData().strLbAddr, "");
  EXPECT_EQ(Lines().back(), "zxagent CAgentData::CheckAgentConf OK bIsLbConf[0] strAddr[t:1]" + File());
}

TEST_F(AgentConf, CheckAgentConf_Fails_WithoutAddress) {
  const std::pair<const char*, std::string> cases[] = {
      {R"({"lbconf":{"lbconf_url":"lb:1"}})",
       "*zxagent CAgentData::CheckAgentConf Error GetNode tconf" + File()},
      {R"({"tconf":{}})", "*zxagent CAgentData::CheckAgentConf Error GetNode url bIsLbConf[0]" + File()},
      {R"({"tconf":{"tconf_url":""}})",
       "*zxagent CAgentData::CheckAgentConf Error strAddr is empty bIsLbConf[0]" + File()},
  };
  for (const auto& [pszConf, strLine] : cases) {
    WriteFile(kWorking, pszConf);
    EXPECT_EQ(m_data.CheckAgentConf(), 0) << pszConf;
    EXPECT_EQ(Lines().back(), strLine);
    EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "");
  }
}

TEST_F(AgentConf, CheckAgentConf_TakesLbconf_WhenHeartbeatIsOn) {
  m_data.SetDisableHb(0);
  WriteFile(kWorking, R"({"lbconf":{"lbconf_url":"lb:1"},"tconf":{"tconf_url":"t:1"}})");
  EXPECT_EQ(m_data.CheckAgentConf(), 1);
  EXPECT_EQ(m_data.GetZxCloudData().strLbAddr, "lb:1");
  EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "");
  EXPECT_EQ(Lines().back(), "zxagent CAgentData::CheckAgentConf OK bIsLbConf[1] strAddr[lb:1]" + File());
}

TEST_F(AgentConf, CheckAgentConf_FallsBackToTconf_WhenLbconfIsMissing) {
  m_data.SetDisableHb(0);
  WriteFile(kWorking, R"({"tconf":{"tconf_url":"t:1"}})");
  EXPECT_EQ(m_data.CheckAgentConf(), 1);
  EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "t:1");
  EXPECT_THAT(Lines(), Contains("*zxagent CAgentData::CheckAgentConf Error GetNode lbconf" + File()));
}

TEST_F(AgentConf, CheckAgentConf_DoesNotTryTconf_WhenLbconfHasNoUrl) {
  m_data.SetDisableHb(0);
  WriteFile(kWorking, R"({"lbconf":{},"tconf":{"tconf_url":"t:1"}})");
  EXPECT_EQ(m_data.CheckAgentConf(), 0);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::CheckAgentConf Error GetNode url bIsLbConf[1]" + File());
  EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "");
}

class Merge : public CStoreFixture {};

TEST_F(Merge, MergeCheckConfig_CopiesChangedFileAndTakesItsAddress) {
  WriteFile(kDeployed, R"({"tconf":{"tconf_url":"t:1"},"other":[1]})");
  EXPECT_EQ(m_data.MergeCheckConfig(), 1);
  EXPECT_EQ(ReadFile(kWorking), R"({"tconf":{"tconf_url":"t:1"},"other":[1]})");
  EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "t:1");
  struct stat st {};
  ASSERT_EQ(stat((m_strDir + kDeployed).c_str(), &st), 0);
  EXPECT_EQ(JsonOf(kAttributes, "zxagent.filesize"), std::to_string(st.st_size));
  EXPECT_EQ(JsonOf(kAttributes, "zxagent.lastwritetime"), std::to_string(st.st_mtim.tv_sec));
  EXPECT_THAT(Lines(),
              Contains(StartsWith("zxagent CAgentData::MergeCheckConfig ZxCopyFile bStatus[1] Flag[0]")));
  EXPECT_THAT(Lines(),
              Contains(StartsWith("zxagent CAgentData::MergeCheckConfig ReadCustomCloudAddr bStatus[0]")));
}

TEST_F(Merge, MergeCheckConfig_KeepsWorkingCopy_WhenFileIsUnchanged) {
  WriteFile(kDeployed, R"({"tconf":{"tconf_url":"t:1"}})");
  ASSERT_EQ(m_data.MergeCheckConfig(), 1);
  WriteFile(kWorking, R"({"tconf":{"tconf_url":"t:2"}})");
  ClearLines();
  EXPECT_EQ(m_data.MergeCheckConfig(), 1);
  EXPECT_EQ(JsonOf(kWorking, "tconf.tconf_url"), "t:2");
  EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "t:2");
  EXPECT_THAT(Lines(), Contains(StartsWith("zxagent CAgentData::MergeCheckConfig no change u64FileSize[")));
}

TEST_F(Merge, MergeCheckConfig_CopiesUnchangedFile_WhenWorkingCopyLacksTconf) {
  WriteFile(kDeployed, R"({"tconf":{"tconf_url":"t:1"}})");
  ASSERT_EQ(m_data.MergeCheckConfig(), 1);
  WriteFile(kWorking, "{}");
  EXPECT_EQ(m_data.MergeCheckConfig(), 1);
  EXPECT_EQ(JsonOf(kWorking, "tconf.tconf_url"), "t:1");
  EXPECT_THAT(Lines(), Contains("*zxagent CAgentData::MergeCheckConfig CheckAgentConf Error"));
}

TEST_F(Merge, MergeCheckConfig_NoticesNewTimeOfSameSize) {
  WriteFile(kDeployed, R"({"tconf":{"tconf_url":"t:1"}})");
  ASSERT_EQ(m_data.MergeCheckConfig(), 1);
  WriteFile(kDeployed, R"({"tconf":{"tconf_url":"t:2"}})");
  const timespec times[2] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (m_strDir + kDeployed).c_str(), times, 0), 0);
  EXPECT_EQ(m_data.MergeCheckConfig(), 1);
  EXPECT_EQ(JsonOf(kWorking, "tconf.tconf_url"), "t:2");
  EXPECT_EQ(JsonOf(kAttributes, "zxagent.lastwritetime"), "1000");
}

TEST_F(Merge, MergeCheckConfig_EndsInCustomAddress_WhenOneIsStored) {
  ASSERT_EQ(m_data.SaveCustomCloudAddr("custom:9"), 1);
  for (const char* pszDeployed :
       {R"({"tconf":{"tconf_url":"t:1"}})", R"({"tconf":{"tconf_url":"longer:1"}})", "{}"}) {
    WriteFile(kDeployed, pszDeployed);
    ClearLines();
    EXPECT_EQ(m_data.MergeCheckConfig(), 1);
    EXPECT_EQ(JsonOf(kWorking, "tconf.tconf_url"), "custom:9");
    EXPECT_EQ(JsonOf(kWorking, "scanconf.scanconf_url"), "custom:9");
    EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "custom:9");
    EXPECT_EQ(Lines().back(),
              "zxagent CAgentData::MergeCheckConfig UpdateCloudAddr OK strAddr[custom:9] srcFile[" +
                  m_strDir + kDeployed + "] dstFile[" + m_strDir + kWorking + "]");
    EXPECT_THAT(Lines(), Each(Not(HasSubstr("CAgentData::CheckAgentConf"))));
  }
}

TEST_F(Merge, MergeCheckConfig_TellsFailure_WhenCustomAddressCannotBeApplied) {
  ASSERT_EQ(m_data.SaveCustomCloudAddr("custom:9"), 1);
  WriteFile(kDeployed, "no json");
  EXPECT_EQ(m_data.MergeCheckConfig(), 1);
  EXPECT_THAT(
      Lines().back(),
      StartsWith("zxagent CAgentData::MergeCheckConfig UpdateCloudAddr Error[0] strAddr[custom:9] srcFile["));
  EXPECT_THAT(Lines(), Each(Not(HasSubstr("CAgentData::CheckAgentConf"))));
}

TEST_F(Merge, MergeCheckConfig_TakesDeployedAddress_WhenCustomAddressIsEmpty) {
  WriteFile(kCustom, R"({"customcloudaddr":""})");
  WriteFile(kDeployed, R"({"tconf":{"tconf_url":"t:1"}})");
  EXPECT_EQ(m_data.MergeCheckConfig(), 1);
  EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "t:1");
  EXPECT_THAT(Lines(),
              Contains(StartsWith(
                  "zxagent CAgentData::MergeCheckConfig ReadCustomCloudAddr bStatus[1] Flag[0] strAddr[]")));
}

TEST_F(Merge, MergeCheckConfig_KeepsWorkingCopy_WhenDeployedFileIsMissing) {
  WriteFile(kWorking, R"({"tconf":{"tconf_url":"t:2"}})");
  EXPECT_EQ(m_data.MergeCheckConfig(), 1);
  EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "t:2");
  EXPECT_EQ(JsonOf(kAttributes, "zxagent.filesize"), "0");
  EXPECT_THAT(Lines(),
              Contains(StartsWith("zxagent CAgentData::MergeCheckConfig ZxCopyFile bStatus[0] Flag[" +
                                  std::to_string(ENOENT) + "] u64FileSize[0][0] dwLastWriteTime[0][0]")));
}

TEST_F(Merge, MergeCheckConfig_RemembersFile_WhenCopyFails) {
  WriteFile(kDeployed, R"({"tconf":{"tconf_url":"t:1"}})");
  const CRenameFault fault(m_strDir + kWorking, EACCES);
  EXPECT_EQ(m_data.MergeCheckConfig(), 1);
  EXPECT_NE(JsonOf(kAttributes, "zxagent.filesize"), "0");
  EXPECT_FALSE(Exists(kWorking));
}

TEST_F(Merge, MergeCheckConfig_KeepsWorkingCopyPrivate_WhenDeployedFileIs) {
  ASSERT_EQ(m_data.SaveCustomCloudAddr("custom:9"), 1);
  WriteFile(kDeployed, R"({"tconf":{"tconf_url":"t:1"}})");
  ASSERT_EQ(chmod((m_strDir + kDeployed).c_str(), 0600), 0);
  EXPECT_EQ(m_data.MergeCheckConfig(), 1);
  EXPECT_EQ(JsonOf(kWorking, "tconf.tconf_url"), "custom:9");
  EXPECT_EQ(ModeOf(kWorking), 0600u);
}

class CacheAttribute : public CStoreFixture {
 protected:
  int Read(const char* pszName = "zxagent") {
    m_u64FileSize = 77;
    m_dwLastWriteTime = 77;
    return m_data.ReadCacheAttribute(pszName, m_u64FileSize, m_dwLastWriteTime);
  }
  std::string File() const { return "] strFile[" + m_strDir + kAttributes + "]"; }
  unsigned long long m_u64FileSize = 0;
  unsigned int m_dwLastWriteTime = 0;
};

TEST_F(CacheAttribute, Save_AddsMember) {
  EXPECT_EQ(m_data.SaveCacheAttribute("zxagent", 123, 456), 1);
  EXPECT_EQ(
      Lines().back(),
      "zxagent CAgentData::SaveCacheAttribute OK SaveFile strName[zxagent] u64FileSize[123] dwLastWriteTime[456" +
          File());
  EXPECT_EQ(Read(), 1);
  EXPECT_EQ(m_u64FileSize, 123u);
  EXPECT_EQ(m_dwLastWriteTime, 456u);
}

TEST_F(CacheAttribute, Save_KeepsOtherNames) {
  WriteFile(kAttributes, R"({"other":{"filesize":1,"lastwritetime":2,"x":true},"zxagent":{"y":"z"}})");
  EXPECT_EQ(m_data.SaveCacheAttribute("zxagent", 3, 4), 1);
  EXPECT_EQ(m_data.SaveCacheAttribute("third", 5, 6), 1);
  EXPECT_EQ(m_data.SaveCacheAttribute("zxagent", 7, 8), 1);
  EXPECT_EQ(JsonOf(kAttributes, "other"), R"({"filesize":1,"lastwritetime":2,"x":true})");
  EXPECT_EQ(JsonOf(kAttributes, "zxagent"), R"({"y":"z","filesize":7,"lastwritetime":8})");
  EXPECT_EQ(JsonOf(kAttributes, "third"), R"({"filesize":5,"lastwritetime":6})");
}

TEST_F(CacheAttribute, Save_StartsOver_WhenFileIsBroken) {
  WriteFile(kAttributes, R"({"zxagent":{"filesi)");
  EXPECT_EQ(m_data.SaveCacheAttribute("zxagent", 3, 4), 1);
  EXPECT_THAT(
      Lines(),
      Contains("*zxagent CAgentData::SaveCacheAttribute Warn LoadFile Flag[0] strName[zxagent" + File()));
  EXPECT_EQ(Read(), 1);
}

TEST_F(CacheAttribute, SaveAndRead_Fail_WhenNameIsEmpty) {
  EXPECT_EQ(m_data.SaveCacheAttribute("", 3, 4), 0);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::SaveCacheAttribute Error strName is empty");
  EXPECT_EQ(Read(""), 0);
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::ReadCacheAttribute Error strName is empty");
}

TEST_F(CacheAttribute, Save_Fails_WhenMemberIsNoObject) {
  WriteFile(kAttributes, R"({"zxagent":5})");
  EXPECT_EQ(m_data.SaveCacheAttribute("zxagent", 3, 4), 0);
  EXPECT_EQ(Lines().back(),
            "*zxagent CAgentData::SaveCacheAttribute Error AddNode filesize u64FileSize[3] strName[zxagent" +
                File());
}

TEST_F(CacheAttribute, Read_NamesMissingNode) {
  const std::string strPrefix = "*zxagent CAgentData::ReadCacheAttribute ";
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(Lines().back(), strPrefix + "Warn LoadFile Flag[" + std::to_string(ENOENT) + File());
  const std::pair<const char*, const char*> cases[] = {
      {"{}", "Error GetNode strName[zxagent"},
      {R"({"zxagent":{"lastwritetime":1}})", "Error GetNode filesize strName[zxagent"},
      {R"({"zxagent":{"filesize":1}})", "Error GetNode lastwritetime strName[zxagent"},
      {R"({"zxagent":{"filesize":[],"lastwritetime":1}})", "Error GetNode filesize strName[zxagent"},
  };
  for (const auto& [pszText, pszLine] : cases) {
    WriteFile(kAttributes, pszText);
    EXPECT_EQ(Read(), 0) << pszText;
    EXPECT_EQ(Lines().back(), strPrefix + pszLine + File());
  }
}

TEST_F(CacheAttribute, Read_KeepsTopBit) {
  const std::pair<const char*, unsigned long long> cases[] = {
      {"9223372036854775808", 1ull << 63},
      {"18446744073709549568", 18446744073709549568ull},
      {"18446744073709551615", std::numeric_limits<unsigned long long>::max()},
      {"1e300", std::numeric_limits<unsigned long long>::max()},
      {"-1", 0},
      {"4.9", 4},
  };
  for (const auto& [pszSize, u64Size] : cases) {
    WriteFile(kAttributes,
              "{\"zxagent\":{\"filesize\":" + std::string(pszSize) + ",\"lastwritetime\":4294967295}}");
    EXPECT_EQ(Read(), 1);
    EXPECT_EQ(m_u64FileSize, u64Size) << pszSize;
    EXPECT_EQ(m_dwLastWriteTime, 4294967295u);
  }
  WriteFile(kAttributes, R"({"zxagent":{"filesize":0,"lastwritetime":4294967296}})");
  EXPECT_EQ(Read(), 1);
  EXPECT_EQ(m_dwLastWriteTime, 4294967295u);
  WriteFile(kAttributes, R"({"zxagent":{"filesize":0,"lastwritetime":-4294967297}})");
  EXPECT_EQ(Read(), 1);
  EXPECT_EQ(m_dwLastWriteTime, 0u);
}

TEST_F(CacheAttribute, SaveAndRead_RoundTripWideSizes) {
  const unsigned long long u64Size = (1ull << 63) + (1ull << 20);
  EXPECT_EQ(m_data.SaveCacheAttribute("zxagent", u64Size, 4294967295u), 1);
  EXPECT_EQ(Read(), 1);
  EXPECT_EQ(m_u64FileSize, u64Size);
  EXPECT_EQ(m_dwLastWriteTime, 4294967295u);
}

}  // namespace
