// The real libzxagent.so in a home of its own, driven through its exports as a host does it, over fakes of
// the cloud and machine-id libraries and a bus context of the test's. Its main keeps it away from the
// machine's own /etc and /var.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "plugin/zxplugin.h"
#include "support/FakeBus.h"
#include "support/FakeCloud.h"
#include "support/FakeMid.h"
#include "support/LogCapture.h"
#include "support/TempHome.h"
#include "support/Waiter.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

constexpr char kGuid[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";

// One loaded library with its exports and one object.
class CLoadedPlugin {
 public:
  explicit CLoadedPlugin(const std::string& strFile) : m_strFile(strFile) {
    m_hLib = dlopen(strFile.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (m_hLib == nullptr) {
      ADD_FAILURE() << dlerror();
      return;
    }
    Resolve("InitializePlugin", m_pfnInitialize);
    Resolve("UninitializePlugin", m_pfnUninitialize);
    Resolve("CreateObject", m_pfnCreate);
    Resolve("DestroyObject", m_pfnDestroy);
    EXPECT_EQ(m_pfnInitialize(), 0);
    m_pObj = static_cast<CPluginObj*>(m_pfnCreate(kGuid));
  }
  ~CLoadedPlugin() { Unload(); }
  CLoadedPlugin(const CLoadedPlugin&) = delete;
  CLoadedPlugin& operator=(const CLoadedPlugin&) = delete;

  CPluginObj* operator->() { return m_pObj; }
  // What the host does at its end; whether the library is really gone.
  bool Unload() {
    if (m_hLib == nullptr)
      return true;
    m_pfnDestroy(kGuid, m_pObj);
    m_pfnUninitialize();
    EXPECT_EQ(dlclose(m_hLib), 0);
    m_hLib = nullptr;
    return dlopen(m_strFile.c_str(), RTLD_NOW | RTLD_NOLOAD) == nullptr;
  }

 private:
  template <class T>
  void Resolve(const char* pszName, T& pfn) {
    pfn = reinterpret_cast<T>(dlsym(m_hLib, pszName));
    ASSERT_NE(pfn, nullptr) << pszName;
  }
  std::string m_strFile;
  void* m_hLib = nullptr;
  CPluginObj* m_pObj = nullptr;
  PFNInitializePlugin m_pfnInitialize = nullptr;
  PFNUninitializePlugin m_pfnUninitialize = nullptr;
  PFNCreateObject m_pfnCreate = nullptr;
  PFNDestroyObject m_pfnDestroy = nullptr;
};

}  // namespace

class PluginLibrary : public ::testing::Test {
 protected:
  void SetUp() override {
    m_cloud.Reset();
    CFakeMid::Instance().Reset();
    m_strFile = m_home.Path("libzxagent.so").Str();
    std::filesystem::copy_file(ZX_AGENT_LIBRARY, m_strFile);
  }
  int Initialize(CLoadedPlugin& plugin) { return plugin->pfnInitialize(&m_iParam); }
  void SetCtx(CLoadedPlugin& plugin) { plugin->pfnSetCtx(static_cast<IBusContext*>(&m_bus)); }

  CTempHome m_home;
  CLogCapture m_log;
  CFakeBus m_bus;
  CFakeCloud& m_cloud = CFakeCloud::Get();
  std::string m_strFile;
  int m_iParam = 0;
};

TEST_F(PluginLibrary, Exports_AreExactlyFour) {
  FILE* pPipe = popen(("nm -D --defined-only " + m_strFile).c_str(), "r");
  ASSERT_NE(pPipe, nullptr);
  std::vector<std::string> names;
  char szLine[512];
  while (fgets(szLine, sizeof(szLine), pPipe) != nullptr) {
    const std::string strLine(szLine, strcspn(szLine, "\n"));
    names.push_back(strLine.substr(strLine.rfind(' ') + 1));
  }
  ASSERT_EQ(pclose(pPipe), 0);
  EXPECT_THAT(names, ElementsAre("CreateObject", "DestroyObject", "InitializePlugin", "UninitializePlugin"));
}

TEST_F(PluginLibrary, FullCycle_RunsThreeTimes_AndUnloadsEachTime) {
  for (size_t i = 1; i <= 3; ++i) {
    CLoadedPlugin plugin(m_strFile);
    EXPECT_EQ(plugin->pfnGetStatus(), 0) << "statics of the last life are still there";
    EXPECT_EQ(Initialize(plugin), 0);
    EXPECT_EQ(plugin->pfnGetStatus(), 1);
    SetCtx(plugin);
    EXPECT_EQ(plugin->pfnStart(), 0);
    EXPECT_EQ(plugin->pfnGetStatus(), 2);
    ASSERT_TRUE(m_bus.WaitCount(EBusCall::AsynSendEx, i)) << "no GUID list";
    EXPECT_EQ(m_cloud.FireConnect("10.0.0.1", 443), 0);
    ASSERT_TRUE(m_bus.WaitCount(EBusCall::BroadcastSend, i));
    EXPECT_EQ(plugin->pfnStop(), 0);
    EXPECT_EQ(plugin->pfnGetStatus(), 3);
    plugin->pfnUninitialize();
    EXPECT_EQ(plugin->pfnGetStatus(), 4);
    EXPECT_TRUE(plugin.Unload()) << "libzxagent.so stays mapped";
  }
}

TEST_F(PluginLibrary, Home_IsTheDirectoryOfTheLibrary) {
  CLoadedPlugin plugin(m_strFile);
  Initialize(plugin);
  SetCtx(plugin);
  plugin->pfnStart();
  EXPECT_EQ(m_cloud.FireLog(3, 2, "a line of the library"), 0);
  plugin->pfnStop();
  plugin->pfnUninitialize();
  EXPECT_TRUE(m_home.Exists("etc/zxagent/inner/.mid"));
  EXPECT_EQ(m_home.Mode("data/zxagent/maint"), 0755u);
  EXPECT_THAT(m_home.ReadFile("log/zxagent.log").Str(), HasSubstr("zxagent CAgentMgr::Start End"));
  EXPECT_THAT(m_home.ReadFile("log/zxcloud.log").Str(), HasSubstr("a line of the library"));
  EXPECT_EQ(m_cloud.ConfigPath(), m_home.Path("etc/zxagent/inner/zxagent.json").Str());
}

TEST_F(PluginLibrary, Initialize_OfNull_IsRefused_AndKeepsTheStatus) {
  CLoadedPlugin plugin(m_strFile);
  EXPECT_EQ(plugin->pfnInitialize(nullptr), -1);
  EXPECT_EQ(plugin->pfnGetStatus(), 0);
  EXPECT_TRUE(m_log.Contains("**zxagent CAgentPluginObj::Initialize Error pInitParam is NULL"));
  plugin->pfnUninitialize();
  EXPECT_TRUE(plugin.Unload());
}

TEST_F(PluginLibrary, Status_SaysStarted_WhenStartFailed) {
  CLoadedPlugin plugin(m_strFile);
  Initialize(plugin);
  EXPECT_EQ(plugin->pfnStart(), 0);  // without a context
  EXPECT_EQ(plugin->pfnGetStatus(), 2);
  EXPECT_TRUE(m_log.Contains("**zxagent CAgentPluginObj::Start Error Start Error\n"));
  EXPECT_EQ(plugin->pfnStart(), 0);
  EXPECT_EQ(plugin->pfnGetStatus(), 2);
  plugin->pfnUninitialize();
}

TEST_F(PluginLibrary, Initialize_WorksAgain_AfterUninitialize) {
  CLoadedPlugin plugin(m_strFile);
  for (size_t i = 1; i <= 2; ++i) {
    Initialize(plugin);
    SetCtx(plugin);
    plugin->pfnStart();
    ASSERT_TRUE(m_bus.WaitCount(EBusCall::AsynSendEx, i));
    plugin->pfnStop();
    plugin->pfnUninitialize();
  }
  EXPECT_TRUE(plugin.Unload());
}

TEST_F(PluginLibrary, HostThatForgetsToStop_CanStillUnload) {
  CLoadedPlugin plugin(m_strFile);
  Initialize(plugin);
  SetCtx(plugin);
  plugin->pfnStart();
  plugin->pfnUninitialize();
  EXPECT_FALSE(m_cloud.IsInitialised());
  EXPECT_TRUE(plugin.Unload());
}

TEST_F(PluginLibrary, ContextBeforeInitialize_IsKept) {
  CLoadedPlugin plugin(m_strFile);
  SetCtx(plugin);
  Initialize(plugin);
  plugin->pfnStart();
  EXPECT_TRUE(m_bus.WaitCount(EBusCall::AsynSendEx, 1));
  plugin->pfnStop();
  plugin->pfnUninitialize();
}

TEST_F(PluginLibrary, Start_SurvivesACloudThatDoesNotInitialise) {
  m_cloud.SetResult(ECloudCall::Init, 0xC0010003);
  CLoadedPlugin plugin(m_strFile);
  Initialize(plugin);
  SetCtx(plugin);
  EXPECT_EQ(plugin->pfnStart(), 0);
  EXPECT_TRUE(m_log.Contains("zxagent CAgentPluginObj::Start End Start OK\n"));
  EXPECT_TRUE(m_log.Contains("**zxagent CAgentMgr::Start Error InitZxcloud iRet[b0010021]"));
  plugin->pfnStop();
  plugin->pfnUninitialize();
  EXPECT_TRUE(m_log.Contains("zxagent CAgentMgr::Stop work pollmsg thread iCount[0]"));
  EXPECT_TRUE(plugin.Unload());
}
