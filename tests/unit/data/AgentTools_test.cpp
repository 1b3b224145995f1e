#include "data/AgentTools.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "DataFixture.h"
#include "data/AgentHub.h"
#include "support/FakeHub.h"

namespace {

using ::testing::Contains;

class AgentTools : public CLogFixture {
 protected:
  // Home as a copy of the probe library in strDir reports it.
  static std::string ProbeHome(const std::string& strDir) {
    const std::string strFile = strDir + "/libprobe.so";
    std::filesystem::create_directories(strDir);
    std::filesystem::copy_file(ZX_HOME_PROBE, strFile);
    void* hModule = dlopen(strFile.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (hModule == nullptr)
      return std::string("dlopen: ") + dlerror();
    auto* pfnHome = reinterpret_cast<const char* (*)(HLog)>(dlsym(hModule, "ProbeHome"));
    std::string strHome = pfnHome != nullptr ? pfnHome(g_hLogMain.load()) : "no ProbeHome";
    dlclose(hModule);
    return strHome;
  }
};

TEST_F(AgentTools, HomeOfModulePath_CutsBehindLastSlash) {
  EXPECT_EQ(CAgentTools::HomeOfModulePath("/opt/zxagent/libzxagent.so"), "/opt/zxagent/");
  EXPECT_EQ(CAgentTools::HomeOfModulePath("/libzxagent.so"), "/");
  EXPECT_EQ(CAgentTools::HomeOfModulePath("./lib/../libzxagent.so"), "./lib/../");
  EXPECT_EQ(CAgentTools::HomeOfModulePath("/opt/zxagent/"), "/opt/zxagent/");
}

TEST_F(AgentTools, HomeOfModulePath_AppendsSlash_WhenPathHasNone) {
  EXPECT_EQ(CAgentTools::HomeOfModulePath("libzxagent.so"), "libzxagent.so/");
  EXPECT_EQ(CAgentTools::HomeOfModulePath(""), "/");
}

TEST_F(AgentTools, GetHomePath_IsDirectoryOfLoadedLibrary) {
  EXPECT_EQ(ProbeHome(m_strDir + "a home"), m_strDir + "a home/");
}

TEST_F(AgentTools, GetHomePath_IsEmptyAndLogged_WhenPathExceedsBuffer) {
  std::string strDir = m_strDir + "deep";
  while (strDir.size() < 520)
    strDir += "/" + std::string(100, 'd');
  EXPECT_EQ(ProbeHome(strDir), "");
  EXPECT_THAT(Lines(), Contains("*zxagent CAgentTools::GetHomePath Error GetModuleFilePath Error[" +
                                std::to_string(ENAMETOOLONG) + "]"));
}

TEST_F(AgentTools, CreateDirectory_CreatesEveryLevelWithMode) {
  const mode_t old = umask(077);
  EXPECT_EQ(CAgentTools::CreateDirectory(CPString(m_strDir + "a/b/c///"), 0755), 1);
  umask(old);
  EXPECT_EQ(ModeOf("a"), 0755u);
  EXPECT_EQ(ModeOf("a/b"), 0755u);
  EXPECT_EQ(ModeOf("a/b/c"), 0755u);
}

TEST_F(AgentTools, CreateDirectory_ResetsMode_WhenDirectoryExists) {
  std::filesystem::create_directory(m_strDir + "a");
  ASSERT_EQ(chmod((m_strDir + "a").c_str(), 0700), 0);
  EXPECT_EQ(CAgentTools::CreateDirectory(CPString(m_strDir + "a"), 0755), 1);
  EXPECT_EQ(ModeOf("a"), 0755u);
}

TEST_F(AgentTools, CreateDirectory_Fails_WhenRelativeNameIsAbsent) {
  EXPECT_EQ(CAgentTools::CreateDirectory("zx_absent_name", 0755), 0);
  EXPECT_EQ(CAgentTools::CreateDirectory("zx_absent_name/sub", 0755), 0);
  EXPECT_FALSE(std::filesystem::exists("zx_absent_name"));
}

TEST_F(AgentTools, CreateDirectory_Fails_WhenSingleComponentUnderRootIsAbsent) {
  EXPECT_EQ(CAgentTools::CreateDirectory("/zx_absent_name", 0755), 0);
  EXPECT_FALSE(std::filesystem::exists("/zx_absent_name"));
}

TEST_F(AgentTools, CreateDirectory_Fails_WhenNothingIsLeftOfPath) {
  EXPECT_EQ(CAgentTools::CreateDirectory("", 0755), 0);
  EXPECT_EQ(CAgentTools::CreateDirectory("/", 0755), 0);
  EXPECT_EQ(CAgentTools::CreateDirectory("///", 0755), 0);
}

TEST_F(AgentTools, CreateDirectory_TellsReason_WhenParentIsFile) {
  WriteFile("file", "x");
  errno = 0;
  EXPECT_EQ(CAgentTools::CreateDirectory(CPString(m_strDir + "file/sub"), 0755), 0);
  EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(AgentTools, CreateDirectory_Fails_WhenPathCannotExist) {
  std::string strPath;
  for (int i = 0; i < 1000000; ++i)
    strPath += "/a";
  EXPECT_EQ(CAgentTools::CreateDirectory(CPString(strPath), 0755), 0);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(AgentTools, IsFileName_RefusesWhatLeavesItsDirectory) {
  const CPString refused[] = {
      "", ".", "..", "/", "a/b", "../x", CPString("a\0b", 3), CPString(std::string(256, 'a'))};
  for (const CPString& strName : refused)
    EXPECT_FALSE(CAgentTools::IsFileName(strName)) << strName.c_str();
  const CPString accepted[] = {"a", "...", ".mid", "a b", "\xe6\x96\xb9", CPString(std::string(255, 'a'))};
  for (const CPString& strName : accepted)
    EXPECT_TRUE(CAgentTools::IsFileName(strName)) << strName.c_str();
}

TEST_F(AgentTools, RefusedText_GivesSize_WhenTextIsLong) {
  const CPString strShort(std::string(CAgentTools::kRefusedTextMax, 'x'));
  EXPECT_EQ(CAgentTools::RefusedText(strShort), strShort);
  EXPECT_EQ(CAgentTools::RefusedText(strShort + "x"), "(4097 bytes)");
}

TEST(AgentHub, Accessor_IsNullOutsideOfManagerLife) {
  EXPECT_EQ(AgentHub(), nullptr);
  {
    CFakeHub hub;
    EXPECT_EQ(AgentHub(), &hub);
    EXPECT_EQ(SetAgentHub(nullptr), &hub);
    EXPECT_EQ(AgentHub(), nullptr);
  }
  EXPECT_EQ(AgentHub(), nullptr);
}

}  // namespace
