// The exported functions and the table, linked into the test. Nothing here starts an agent: the machine's
// own files stay untouched.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "agent/AgentMgr.h"
#include "data/AgentLog.h"
#include "data/AgentThreads.h"
#include "platform/os/ZxEvent.h"
#include "plugin/AgentPluginObj.h"
#include "plugin/zxplugin.h"
#include "support/LogCapture.h"
#include "support/Waiter.h"

extern "C" {
int InitializePlugin();
void UninitializePlugin();
void* CreateObject(const char* pszName);
void DestroyObject(const char* pszName, void* pInterface);
}

using ::testing::Contains;
using ::testing::HasSubstr;

namespace {

constexpr char kGuid[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";

}  // namespace

class AgentPlugin : public ::testing::Test {
 protected:
  AgentPlugin() { CLogDebug::Instance().SetChannel(m_log.Open("host")); }
  ~AgentPlugin() override {
    CLogDebug::Instance().SetChannel(nullptr);
    CAgentMgr::Close();
  }
  std::vector<int> Levels() const {
    std::vector<int> levels;
    for (const CLogCapture::CEntry& entry : m_log.Entries())
      levels.push_back(entry.iLevel);
    return levels;
  }
  CLogCapture m_log;
};

TEST_F(AgentPlugin, InitializePlugin_IsZero_AndTraces) {
  EXPECT_EQ(InitializePlugin(), 0);
  UninitializePlugin();
  EXPECT_THAT(m_log.Lines(), ::testing::ElementsAre(HasSubstr("zxagent InitializePlugin\n"),
                                                    HasSubstr("zxagent UninitializePlugin\n")));
  EXPECT_THAT(Levels(), ::testing::Each(6));
  EXPECT_THAT(m_log.Lines()[0], HasSubstr("[zxagent InitializePlugin:"));
}

TEST_F(AgentPlugin, CreateObject_RefusesEverythingButTheGuid) {
  std::string strLower(kGuid);
  for (char& ch : strLower)
    ch = static_cast<char>(tolower(ch));
  const std::string strLonger = std::string(kGuid) + "0";
  const std::string strShorter = std::string(kGuid).substr(0, 35);
  for (const char* pszName : {static_cast<const char*>(nullptr), "", strLower.c_str(), strLonger.c_str(),
                              strShorter.c_str(), "FAB922A8-736E-4CB5-A666-4FD849A3049A", "%s%n"})
    EXPECT_EQ(CreateObject(pszName), nullptr);
  EXPECT_TRUE(m_log.Contains("*zxagent CreateObject Error is NULL pszName["));
  EXPECT_TRUE(m_log.Contains("*zxagent CreateObject Error not agent guid pszName[" + strLower + "] guid[" +
                             kGuid + "]\n"));
  EXPECT_THAT(Levels(), Contains(3));
}

TEST_F(AgentPlugin, Table_HasTheEntryPoints_InTheirSlots) {
  void* pInterface = CreateObject(kGuid);
  ASSERT_NE(pInterface, nullptr);
  void* slots[8];
  memcpy(slots, pInterface, sizeof(slots));
  EXPECT_EQ(slots[0], reinterpret_cast<void*>(&CAgentPluginObj::Initialize));
  EXPECT_EQ(slots[1], reinterpret_cast<void*>(&CAgentPluginObj::Uninitialize));
  EXPECT_EQ(slots[2], reinterpret_cast<void*>(&CAgentPluginObj::Start));
  EXPECT_EQ(slots[3], reinterpret_cast<void*>(&CAgentPluginObj::Stop));
  EXPECT_EQ(slots[4], reinterpret_cast<void*>(&CAgentPluginObj::GetStatus));
  EXPECT_EQ(slots[5], reinterpret_cast<void*>(&CAgentPluginObj::GetCtx));
  EXPECT_EQ(slots[6], reinterpret_cast<void*>(&CAgentPluginObj::SetCtx));
  EXPECT_EQ(slots[7], reinterpret_cast<void*>(&CAgentPluginObj::Info));
  DestroyObject(kGuid, pInterface);
}

TEST_F(AgentPlugin, DestroyObject_KeepsTheTable_WhenTheNameIsWrong) {
  auto* pTable = static_cast<CPluginObj*>(CreateObject(kGuid));
  ASSERT_NE(pTable, nullptr);
  DestroyObject("FAB922A8-736E-4CB5-A666-4FD849A3049A", pTable);
  DestroyObject("", pTable);
  DestroyObject(nullptr, pTable);
  EXPECT_EQ(pTable->pfnInfo(pTable), 0);  // still there: the address sanitizer is the judge
  DestroyObject(kGuid, pTable);
  DestroyObject(kGuid, nullptr);
  EXPECT_TRUE(m_log.Contains("*zxagent DestroyObject Error not agent guid pszName[FAB922A8-"));
  EXPECT_TRUE(m_log.Contains(std::string("*zxagent DestroyObject Error pInterface is NULL pszName[") + kGuid +
                             "]\n"));
}

TEST_F(AgentPlugin, Tables_AreIndependent) {
  void* pFirst = CreateObject(kGuid);
  void* pSecond = CreateObject(kGuid);
  EXPECT_NE(pFirst, pSecond);
  DestroyObject(kGuid, pFirst);
  EXPECT_EQ(static_cast<CPluginObj*>(pSecond)->pfnGetCtx(nullptr), 0);
  DestroyObject(kGuid, pSecond);
}

TEST_F(AgentPlugin, InfoAndGetCtx_AnswerByTheirArgument) {
  int iAny = 0;
  EXPECT_EQ(CAgentPluginObj::Info(nullptr), -1);
  EXPECT_EQ(CAgentPluginObj::Info(&iAny), 0);
  EXPECT_EQ(CAgentPluginObj::GetCtx(nullptr), 0);
  EXPECT_EQ(CAgentPluginObj::GetCtx(&iAny), 0);
}

TEST_F(AgentPlugin, Start_BeforeInitialize_FailsInTheLogOnly) {
  const HLog hLog = m_log.Open("zxagent");
  g_hLogMain = hLog;
  EXPECT_EQ(CAgentPluginObj::Start(), 0);
  EXPECT_EQ(CAgentPluginObj::GetStatus(), 2);
  EXPECT_TRUE(m_log.Contains("**zxagent CAgentPluginObj::Start Error Start Error\n"));
  EXPECT_EQ(AgentThreads().Running(), 0u);
  g_hLogMain = nullptr;
}

TEST_F(AgentPlugin, Stop_BeforeEverything_IsHarmless) {
  EXPECT_EQ(CAgentPluginObj::Stop(), 0);
  EXPECT_EQ(CAgentPluginObj::GetStatus(), 3);
}

TEST_F(AgentPlugin, Uninitialize_BeforeEverything_IsHarmless) {
  CAgentPluginObj::Uninitialize();
  EXPECT_EQ(CAgentPluginObj::GetStatus(), 4);
  CAgentPluginObj::Uninitialize();
  EXPECT_EQ(CAgentMgr::Current(), nullptr);
}

TEST_F(AgentPlugin, Initialize_OfNull_OpensTheChannels_AndMakesNoManager) {
  const int iStatus = CAgentPluginObj::GetStatus();
  EXPECT_EQ(CAgentPluginObj::Initialize(nullptr), -1);
  EXPECT_NE(g_hLogMain.load(), nullptr);
  EXPECT_NE(g_hLogFlow.load(), nullptr);
  EXPECT_NE(g_hLogCache.load(), nullptr);
  EXPECT_EQ(CAgentPluginObj::GetStatus(), iStatus);
  EXPECT_EQ(CAgentMgr::Current(), nullptr);
  EXPECT_TRUE(m_log.Contains("**zxagent CAgentPluginObj::Initialize Error pInitParam is NULL"));
  CAgentPluginObj::Uninitialize();
  EXPECT_EQ(g_hLogMain.load(), nullptr);
  EXPECT_EQ(g_hLogFlow.load(), nullptr);
  EXPECT_EQ(g_hLogCache.load(), nullptr);
}

TEST_F(AgentPlugin, SetCtx_RefusesNull_AndMakesNoManager) {
  CAgentPluginObj::SetCtx(nullptr);
  EXPECT_EQ(CAgentMgr::Current(), nullptr);
}

TEST_F(AgentPlugin, Uninitialize_SaysSo_WhenAThreadStaysInTheLibrary) {
  m_log.Open("zxagent");
  g_hLogMain = LogInit("zxagent");
  HZxEvent hLeave = ZxCreateEvent();
  pthread_t hThreadId = 0;
  ASSERT_EQ(AgentThreads().Create(
                &hThreadId,
                [](void* pEvent) -> void* {
                  pthread_detach(pthread_self());
                  ZxWaitEvent(static_cast<HZxEvent>(pEvent));
                  return nullptr;
                },
                hLeave),
            0);
  CAgentPluginObj::Uninitialize();
  EXPECT_TRUE(m_log.Contains("**zxagent CAgentPluginObj::Uninitialize Error threads still run uRunning[1]"));
  EXPECT_EQ(CAgentPluginObj::GetStatus(), 4);
  ZxSetEvent(hLeave);
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  ZxDestroyEvent(hLeave);
}
