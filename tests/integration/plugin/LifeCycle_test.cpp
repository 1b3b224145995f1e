// The plug-in's exports and its life cycle as a host sees them.
#include <dlfcn.h>
#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <memory>
#include <set>

#include "AgentFixture.h"

namespace {

std::set<std::string> ExportedSymbols(const std::string& strFile) {
  std::set<std::string> symbols;
  const std::unique_ptr<FILE, int (*)(FILE*)> pPipe(popen(("nm -D --defined-only " + strFile).c_str(), "r"),
                                                    pclose);
  std::array<char, 512> line{};
  while (std::fgets(line.data(), line.size(), pPipe.get()) != nullptr) {
    std::string strLine(line.data());
    strLine.erase(strLine.find_last_not_of("\n") + 1);
    symbols.insert(strLine.substr(strLine.rfind(' ') + 1));
  }
  return symbols;
}

size_t ThreadCount() {
  size_t uCount = 0;
  const std::unique_ptr<FILE, int (*)(FILE*)> pFile(std::fopen("/proc/self/status", "re"), std::fclose);
  std::array<char, 256> line{};
  while (std::fgets(line.data(), line.size(), pFile.get()) != nullptr) {
    if (std::sscanf(line.data(), "Threads: %zu", &uCount) == 1)
      break;
  }
  return uCount;
}

}  // namespace

TEST_F(CAgentFixture, Library_ExportsExactlyFourFunctions) {
  EXPECT_EQ(
      ExportedSymbols(m_home.Path("libzxagent.so").c_str()),
      (std::set<std::string>{"InitializePlugin", "UninitializePlugin", "CreateObject", "DestroyObject"}));
}

TEST_F(CAgentFixture, CreateObject_RefusesEveryOtherName) {
  Load();
  EXPECT_EQ(m_pfnCreateObject(nullptr), nullptr);
  EXPECT_EQ(m_pfnCreateObject(""), nullptr);
  EXPECT_EQ(m_pfnCreateObject("abc9a772-602c-45f4-9aac-7096fd9beda4"), nullptr);
  EXPECT_EQ(m_pfnCreateObject("ABC9A772-602C-45F4-9AAC-7096FD9BEDA4x"), nullptr);
  EXPECT_EQ(m_pfnCreateObject("ABC9A772-602C-45F4-9AAC-7096FD9BEDA"), nullptr);
}

TEST_F(CAgentFixture, Object_StatusFollowsTheHostsSteps) {
  Load();
  EXPECT_EQ(m_pObj->pfnGetStatus(), 0);
  EXPECT_EQ(m_pObj->pfnInitialize(nullptr), -1);
  EXPECT_EQ(m_pObj->pfnGetStatus(), 0);
  int iParam = 1;
  EXPECT_EQ(m_pObj->pfnInitialize(&iParam), 0);
  EXPECT_EQ(m_pObj->pfnGetStatus(), 1);
  EXPECT_EQ(m_pObj->pfnInfo(nullptr), -1);
  EXPECT_EQ(m_pObj->pfnInfo(&iParam), 0);
  EXPECT_EQ(m_pObj->pfnGetCtx(&iParam), 0);
  m_pObj->pfnSetCtx(static_cast<IBusContext*>(&m_bus));
  EXPECT_EQ(m_pObj->pfnStart(), 0);
  EXPECT_EQ(m_pObj->pfnGetStatus(), 2);
  EXPECT_EQ(m_pObj->pfnStop(), 0);
  EXPECT_EQ(m_pObj->pfnGetStatus(), 3);
  m_pObj->pfnUninitialize();
  EXPECT_EQ(m_pObj->pfnGetStatus(), 4);
}

TEST_F(CAgentFixture, Initialize_MakesTheAgentsDirectory) {
  Load();
  int iParam = 1;
  m_pObj->pfnInitialize(&iParam);
  EXPECT_EQ(m_home.Mode("data/zxagent/maint"), 0755u);
  EXPECT_TRUE(m_log.Contains("zxagent CAgentMgr::Init Begin 20250815 11.00"));
}

TEST_F(CAgentFixture, Start_OpensTheChannelWithIdsAndChannel) {
  StartAgent();
  CFakeCloud& cloud = CFakeCloud::Get();
  EXPECT_TRUE(cloud.IsInitialised());
  EXPECT_EQ(cloud.ChannelId(), "test-channel");
  EXPECT_EQ(cloud.ConfigPath(), (m_home.Path("etc/zxagent/inner/zxagent.json").Str()));
  EXPECT_THAT(cloud.Texts(ECloudCall::Setopt),
              testing::Contains("mid=fake-mid:m2=fake-mid2:cloudtcp_disable=0"));
  EXPECT_THAT(cloud.Texts(ECloudCall::Setopt), testing::Contains(testing::HasSubstr(":disable_hb=1")));
  const auto joins = m_bus.Calls(EBusCall::Initialize);
  ASSERT_EQ(joins.size(), 1u);
  EXPECT_EQ(joins[0].guid, GUID(kAgentId));
}

TEST_F(CAgentFixture, Start_TellsTheTaskManagerTheGuidList) {
  StartAgent();
  bool bFound = false;
  for (const _BusCall& call : m_bus.Calls(EBusCall::AsynSendEx)) {
    if (call.uiType != 20104)
      continue;
    bFound = true;
    EXPECT_EQ(call.guid, GUID(kTaskMgrId));
    EXPECT_EQ(call.strData,
              R"({"command":{"disk_usage":[{"guid":"5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D",)"
              R"("productcombo":"veltcwpp/zxsample"}]},)"
              R"("productcombo":{"veltcwpp/zxsample":"5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D"}})");
    EXPECT_EQ(m_home.ReadFile("data/zxagent/maint/zxpagentpcguid.json").Str(), call.strData);
  }
  EXPECT_TRUE(bFound);
}

TEST_F(CAgentFixture, Start_BroadcastsTheEngineAddresses) {
  StartAgent();
  bool bFound = false;
  for (const _BusCall& call : m_bus.Calls(EBusCall::BroadcastSend)) {
    if (call.uiType != 1008)
      continue;
    bFound = true;
    EXPECT_EQ(call.strData, R"({"allengineaddr":["127.0.0.1:9"]})");
  }
  EXPECT_TRUE(bFound);
}

TEST_F(CAgentFixture, Start_WithoutContextFailsButStatusSaysStarted) {
  Load();
  int iParam = 1;
  m_pObj->pfnInitialize(&iParam);
  EXPECT_EQ(m_pObj->pfnStart(), 0);
  EXPECT_EQ(m_pObj->pfnGetStatus(), 2);
  EXPECT_TRUE(m_log.Contains("**zxagent CAgentMgr::Start Error InitCompCtx Error"));
  EXPECT_FALSE(CFakeCloud::Get().IsInitialised());
  StopAgent();
}

TEST_F(CAgentFixture, Start_WhenTheCloudFailsStartsNoThreadAndStopsAtOnce) {
  CFakeCloud::Get().SetResult(ECloudCall::Init, 0xC0010003);
  Load();
  int iParam = 1;
  m_pObj->pfnInitialize(&iParam);
  m_pObj->pfnSetCtx(static_cast<IBusContext*>(&m_bus));
  EXPECT_EQ(m_pObj->pfnStart(), 0);
  EXPECT_TRUE(m_log.Contains("**zxagent CAgentMgr::Start Error InitZxcloud iRet[b0010021]"));
  EXPECT_TRUE(m_log.Contains("zxagent CAgentPluginObj::Start End Start OK"));
  EXPECT_FALSE(m_log.Contains("zxagent CAgentMgr::WorkThread Begin"));
  StopAgent();
  EXPECT_TRUE(m_log.Contains("zxagent CAgentMgr::Stop work pollmsg thread iCount[0]"));
}

TEST_F(CAgentFixture, Host_OutOfOrderIsSurvived) {
  Load();
  EXPECT_EQ(m_pObj->pfnStop(), 0);
  EXPECT_EQ(m_pObj->pfnGetStatus(), 3);
  m_pObj->pfnSetCtx(nullptr);
  m_pObj->pfnUninitialize();
  m_pObj->pfnUninitialize();
  EXPECT_EQ(m_pObj->pfnGetStatus(), 4);
  int iParam = 1;
  EXPECT_EQ(m_pObj->pfnInitialize(&iParam), 0);
  EXPECT_EQ(m_pObj->pfnStop(), 0);
  m_pObj->pfnSetCtx(static_cast<IBusContext*>(&m_bus));
  EXPECT_EQ(m_pObj->pfnStart(), 0);
  Online();
  ExpectNextCommandWorks();
}

TEST_F(CAgentFixture, Stop_LeavesTheBusAndTheCloud) {
  StartAgent();
  StopAgent();
  EXPECT_FALSE(CFakeCloud::Get().IsInitialised());
  EXPECT_EQ(m_bus.Count(EBusCall::Uninitialize), 1u);
  EXPECT_TRUE(m_log.Contains("zxagent CAgentMgr::WorkThread End"));
  EXPECT_TRUE(m_log.Contains("zxagent CAgentMgr::PollMsgThread End"));
}

TEST_F(CAgentFixture, Object_SecondLifeCycleInOneProcessWorks) {
  StartAgent();
  ExpectNextCommandWorks("first-life");
  StopAgent();
  int iParam = 1;
  ASSERT_EQ(m_pObj->pfnInitialize(&iParam), 0);
  m_pObj->pfnSetCtx(static_cast<IBusContext*>(&m_bus));
  ASSERT_EQ(m_pObj->pfnStart(), 0);
  Online();
  ExpectNextCommandWorks("second-life");
  // The number sequence of commands goes on while the library stays loaded.
  EXPECT_TRUE(m_log.Contains("zxagent pushmsg Begin recvnew u64DataId[2] "));
}

TEST_F(CAgentFixture, Library_IsUnmappedByTheLastCloseAndLoadsAfresh) {
  const size_t uThreads = ThreadCount();
  for (int iCycle = 0; iCycle < 3; ++iCycle) {
    ASSERT_NO_FATAL_FAILURE(StartAgent());
    ExpectNextCommandWorks("cycle-" + std::to_string(iCycle));
    StopAgent();
    Unload();
    EXPECT_FALSE(IsMapped()) << "cycle " << iCycle;
  }
  // Threads that have left the library still have to end.
  EXPECT_TRUE(EventuallyTrue([uThreads] { return ThreadCount() == uThreads; })) << ThreadCount();
  // A fresh load starts the numbers again.
  EXPECT_EQ(m_log.Count("zxagent pushmsg Begin recvnew u64DataId[1] "), 3u);
}
