#include "agent/ManagerFixture.h"

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

constexpr uint32_t kUploadThreads = CAgentLogMsg::kWorkers;
constexpr uint32_t kAllThreads = kUploadThreads + 2;  // with the work and the poll thread

std::vector<std::string> ThreadNames() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    FILE* pFile = fopen((entry.path() / "comm").c_str(), "re");
    char szName[32] = {};
    if (pFile != nullptr && fgets(szName, sizeof(szName), pFile) != nullptr)
      names.emplace_back(szName, strcspn(szName, "\n"));
    if (pFile != nullptr)
      fclose(pFile);
  }
  return names;
}

}  // namespace

class AgentMgrLifecycle : public CManagerTest {
 protected:
  std::vector<EBusCall> BusOrder() const {
    std::vector<EBusCall> order;
    for (const _BusCall& call : m_bus.Calls())
      order.push_back(call.eCall);
    return order;
  }
};

// --- Init and SetCtx.

TEST_F(AgentMgrLifecycle, Init_MakesTheRecordDirectory_WhenHomeIsGiven) {
  EXPECT_TRUE(m_mgr.Init(m_home.Root()));
  EXPECT_EQ(m_home.Mode("data/zxagent/maint"), 0755u);
}

TEST_F(AgentMgrLifecycle, Init_IsTrue_WhenHomeIsEmpty) {
  EXPECT_TRUE(m_mgr.Init(CPString()));
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::Init Error strHomePath is empty"));
  EXPECT_FALSE(m_mgr.Start());  // and Start reports it
  EXPECT_TRUE(Logged("**zxagent CAgentMgr::Start Error Init Error"));
}

TEST_F(AgentMgrLifecycle, Init_IsTrue_WhenTheDirectoryCannotBeMade) {
  m_home.WriteFile("data", "a file");
  EXPECT_TRUE(m_mgr.Init(m_home.Root()));
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::Init Error CreateDirectory m_strAgentPath["));
}

TEST_F(AgentMgrLifecycle, InitCompCtx_Fails_WithoutContext) {
  EXPECT_FALSE(m_mgr.InitCompCtx());
  EXPECT_TRUE(Logged("**zxagent CAgentMgr::InitCompCtx Error m_pCompCtx is NULL"));
}

TEST_F(AgentMgrLifecycle, InitCompCtx_JoinsTheBusAsTheAgent) {
  Prepare();
  EXPECT_TRUE(m_mgr.InitCompCtx());
  ASSERT_THAT(m_bus.Calls(EBusCall::Initialize), SizeIs(1));
  EXPECT_EQ(m_bus.Calls(EBusCall::Initialize)[0].guid.ToUpper(), "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4");
}

TEST_F(AgentMgrLifecycle, InitCompCtx_Succeeds_WhenTheBusRefuses) {
  Prepare();
  m_bus.SetResult(EBusCall::Initialize, 0xB0020008);
  EXPECT_TRUE(m_mgr.InitCompCtx());
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::InitCompCtx Warn Initialize iRet[b0020008]"));
}

// --- Start.

TEST_F(AgentMgrLifecycle, Start_RunsBothThreads_AndPublishesTheGuidList) {
  Prepare();
  EXPECT_TRUE(m_mgr.Start());
  EXPECT_EQ(m_mgr.IsWorking(), 1);
  EXPECT_THAT(ThreadNames(), Contains("zxagentwork"));
  EXPECT_THAT(ThreadNames(), Contains("zxagentpollmsg"));
  ASSERT_TRUE(m_bus.WaitCount(EBusCall::AsynSendEx, 1));
  EXPECT_EQ(m_bus.Calls(EBusCall::AsynSendEx)[0].uiType, 20104u);
  EXPECT_EQ(m_bus.Calls(EBusCall::AsynSendEx)[0].guid, GUID("FAB922A8-736E-4CB5-A666-4FD849A3049A"));
  EXPECT_TRUE(m_mgr.Stop());
}

TEST_F(AgentMgrLifecycle, Start_BroadcastsTheEngineAddresses) {
  StoreMsgSrvAddrSet("engine:1", "engine:2");
  Prepare();
  EXPECT_TRUE(m_mgr.Start());
  ASSERT_TRUE(m_bus.WaitCount(EBusCall::BroadcastSend, 1));
  ASSERT_THAT(Broadcasts(1008), SizeIs(1));
  EXPECT_THAT(Broadcasts(1008)[0], HasSubstr("engine:2"));
}

TEST_F(AgentMgrLifecycle, Start_HandsTheIdsToTheCloud) {
  Prepare();
  EXPECT_TRUE(m_mgr.Start());
  EXPECT_THAT(m_cloud.Texts(ECloudCall::Setopt), Contains("mid=fake-mid:m2=fake-mid2:cloudtcp_disable=0"));
}

TEST_F(AgentMgrLifecycle, Start_Fails_WithoutContext) {
  m_mgr.Init(m_home.Root());
  EXPECT_FALSE(m_mgr.Start());
  EXPECT_TRUE(Logged("**zxagent CAgentMgr::Start Error InitCompCtx Error"));
  EXPECT_EQ(m_cloud.Count(ECloudCall::Init), 0u);
}

TEST_F(AgentMgrLifecycle, Start_Fails_WhenNoMachineIdCanBeHad) {
  CFakeMid::Instance().SetResult("mid", 1);
  Prepare();
  EXPECT_FALSE(m_mgr.Start());
  EXPECT_TRUE(Logged("**zxagent CAgentMgr::Start Error GetConfig Error"));
  EXPECT_THAT(m_bus.Calls(EBusCall::Initialize), IsEmpty());
}

TEST_F(AgentMgrLifecycle, Start_RunsOverAHomeThatCannotBeWritten) {
  m_home.WriteFile("etc", "a file where the directories should be");
  m_home.WriteFile("data", "another");
  Prepare();
  EXPECT_TRUE(m_mgr.Start());
  EXPECT_THAT(ThreadNames(), Contains("zxagentwork"));
  EXPECT_EQ(m_cloud.FireConnect("10.0.0.9", 443), 0);
  ASSERT_TRUE(m_bus.WaitCount(EBusCall::BroadcastSend, 1));
  EXPECT_TRUE(m_mgr.Stop());
}

TEST_F(AgentMgrLifecycle, Start_IsTrueWithoutThreads_WhenTheCloudDoesNotInitialise) {
  for (const ECloudCall eCall : {ECloudCall::Setopt, ECloudCall::Init, ECloudCall::Getopt}) {
    m_cloud.Reset();
    m_cloud.SetResult(eCall, 0xC0010003);
    Prepare();
    EXPECT_TRUE(m_mgr.Start());
    EXPECT_EQ(AgentThreads().Running(), kUploadThreads);
    EXPECT_TRUE(m_mgr.Stop());
    EXPECT_THAT(m_pauses.All(), IsEmpty());
    EXPECT_EQ(m_bus.Count(EBusCall::AsynSendEx), 0u);
  }
  EXPECT_EQ(m_log.Capture().Count("zxagent CAgentMgr::Stop work pollmsg thread iCount[0]"), 3u);
  EXPECT_TRUE(Logged("**zxagent CAgentMgr::Start Error InitZxcloud iRet[b0010024]"));
}

TEST_F(AgentMgrLifecycle, Start_KeepsTheThreadsItHas_WhenCalledTwice) {
  Prepare();
  EXPECT_TRUE(m_mgr.Start());
  EXPECT_TRUE(m_mgr.Start());
  EXPECT_EQ(AgentThreads().Running(), kAllThreads);
  EXPECT_EQ(m_cloud.Count(ECloudCall::Init), 1u);
  EXPECT_TRUE(m_mgr.Stop());
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
}

TEST_F(AgentMgrLifecycle, Start_TriesAgain_AfterACloudThatFailed) {
  Prepare();
  m_cloud.SetResult(ECloudCall::Init, 1);
  EXPECT_TRUE(m_mgr.Start());
  m_cloud.SetResult(ECloudCall::Init, 0);
  EXPECT_TRUE(m_mgr.Start());
  EXPECT_EQ(AgentThreads().Running(), kAllThreads);
}

// --- Stop.

TEST_F(AgentMgrLifecycle, Stop_EndsTheThreads_InOnePassAtMost) {
  Prepare();
  EXPECT_TRUE(m_mgr.Start());
  EXPECT_TRUE(m_mgr.Stop());
  EXPECT_THAT(m_pauses.All(), Each(300u));
  EXPECT_LE(m_pauses.All().size(), 1u);
  EXPECT_FALSE(Logged("need kill"));
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  EXPECT_EQ(m_mgr.IsWorking(), 0);
}

TEST_F(AgentMgrLifecycle, Stop_WakesAWorkThread_ThatWaitsForWork) {
  Prepare();
  EXPECT_TRUE(m_mgr.Start());
  ASSERT_TRUE(m_bus.WaitCount(EBusCall::AsynSendEx, 1));  // then it waits, for 5 seconds
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(m_mgr.Stop());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
  EXPECT_TRUE(Logged("zxagent CAgentMgr::WorkThread End"));
}

TEST_F(AgentMgrLifecycle, Stop_ReleasesCloudBeforeThreads_AndBusLast) {
  Prepare();
  EXPECT_TRUE(m_mgr.Start());
  size_t uUninitsAtBusEnd = 0;
  uint32_t uThreadsAtCloudEnd = 0;
  m_cloud.SetHook(ECloudCall::Uninit, [&](const _CloudCall&) {
    uThreadsAtCloudEnd = AgentThreads().Running();
    return 0u;
  });
  m_bus.SetHook([&](const _BusCall& call) {
    if (call.eCall == EBusCall::Uninitialize)
      uUninitsAtBusEnd = m_cloud.Count(ECloudCall::Uninit);
  });
  EXPECT_TRUE(m_mgr.Stop());
  EXPECT_EQ(uThreadsAtCloudEnd, 2u);
  EXPECT_EQ(uUninitsAtBusEnd, 1u);
  EXPECT_EQ(BusOrder().back(), EBusCall::Uninitialize);
}

TEST_F(AgentMgrLifecycle, Stop_SaysSo_WhenTheCloudRefusesToStop) {
  Prepare();
  EXPECT_TRUE(m_mgr.Start());
  m_cloud.SetResult(ECloudCall::Uninit, 7);
  EXPECT_TRUE(m_mgr.Stop());
  EXPECT_TRUE(Logged("**zxagent CAgentMgr::UninitZxcloud Error zxcloud_uninit iRet[7]"));
  EXPECT_TRUE(Logged("zxagent CAgentMgr::Stop UninitZxcloud bStatus[0]"));
  EXPECT_EQ(m_cloud.Count(ECloudCall::Uninit), 1u);
}

TEST_F(AgentMgrLifecycle, Stop_IsHarmless_BeforeStart) {
  EXPECT_TRUE(m_mgr.Stop());  // not even a context
  Prepare();
  EXPECT_TRUE(m_mgr.Stop());
  EXPECT_EQ(m_log.Capture().Count("zxagent CAgentMgr::Stop work pollmsg thread iCount[0]"), 2u);
  EXPECT_TRUE(m_mgr.Start());
  EXPECT_EQ(AgentThreads().Running(), kAllThreads);
}

TEST_F(AgentMgrLifecycle, Stop_IsHarmless_WhenCalledTwice) {
  Prepare();
  EXPECT_TRUE(m_mgr.Start());
  EXPECT_TRUE(m_mgr.Stop());
  EXPECT_TRUE(m_mgr.Stop());
}

TEST_F(AgentMgrLifecycle, Start_WorksAgain_AfterStop) {
  Prepare();
  for (size_t i = 1; i <= 3; ++i) {
    EXPECT_TRUE(m_mgr.Start());
    EXPECT_EQ(AgentThreads().Running(), kAllThreads);
    ASSERT_TRUE(m_bus.WaitCount(EBusCall::AsynSendEx, i));
    EXPECT_EQ(m_cloud.FireConnect("10.0.0.9", 443), 0);
    ASSERT_TRUE(m_bus.WaitCount(EBusCall::BroadcastSend, i));
    EXPECT_TRUE(m_mgr.Stop());
    EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  }
}

TEST_F(AgentMgrLifecycle, Stop_ReleasesTheCloudOnceMore_WhenAThreadWasReinitialisingIt) {
  StoreMsgSrvAddrSet("engine:1", "engine:2");
  StoreEngineStatus(1, "");
  Prepare();
  CEventWaiter stopping;
  CEventWaiter reinit;
  std::atomic<int> iInits{0};
  m_cloud.SetHook(ECloudCall::Init, [&](const _CloudCall&) {
    if (++iInits == 2) {
      reinit.Set();
      stopping.Wait();
    }
    return 0u;
  });
  EXPECT_TRUE(m_mgr.Start());  // the check thread verifies the setting and initialises the cloud again
  ASSERT_TRUE(reinit.Wait());
  m_pauses.m_fnOnPause = [&](uint32_t) { stopping.Set(); };
  EXPECT_TRUE(m_mgr.Stop());
  EXPECT_FALSE(m_cloud.IsInitialised());
}

// --- The singleton.

TEST_F(AgentMgrLifecycle, Current_IsNull_AfterClose) {
  CAgentMgr::SetCurrent(nullptr);
  CAgentMgr* pMgr = CAgentMgr::Instance();
  ASSERT_NE(pMgr, nullptr);
  EXPECT_EQ(CAgentMgr::Instance(), pMgr);
  EXPECT_EQ(AgentHub(), static_cast<IAgentHub*>(pMgr));
  CAgentMgr::Close();
  EXPECT_EQ(CAgentMgr::Current(), nullptr);
  EXPECT_EQ(AgentHub(), nullptr);
  CAgentMgr::Close();  // nothing left to close
}

TEST_F(AgentMgrLifecycle, Close_StopsAManager_ThatTheHostForgot) {
  auto* pMgr = new CAgentMgr(m_home.Path("root"));
  CAgentMgr::SetCurrent(pMgr);
  pMgr->Init(m_home.Root());
  pMgr->SetCtx(static_cast<IBusContext*>(&m_bus));
  EXPECT_TRUE(pMgr->Start());
  CAgentMgr::Close();
  EXPECT_EQ(AgentThreads().Running(), 0u);
  EXPECT_FALSE(m_cloud.IsInitialised());
}

TEST_F(AgentMgrLifecycle, TwoLifeCycles_RunInOneProcess) {
  for (int i = 0; i < 2; ++i) {
    auto* pMgr = new CAgentMgr(m_home.Path("root"));
    CAgentMgr::SetCurrent(pMgr);
    pMgr->Init(m_home.Root());
    pMgr->SetCtx(static_cast<IBusContext*>(&m_bus));
    EXPECT_TRUE(pMgr->Start());
    EXPECT_EQ(AgentThreads().Running(), kAllThreads);
    EXPECT_TRUE(pMgr->Stop());
    CAgentMgr::Close();
    EXPECT_EQ(AgentThreads().Running(), 0u);
  }
}

TEST_F(AgentMgrLifecycle, Destructor_FreesWhatIsStillQueued) {
  CAgentMgr mgr(m_home.Path("root"));  // the leak checker is the judge
  EXPECT_TRUE(mgr.AddZxcloudCallbackData(kWorkPushmsg, 1, "left behind", 0));
  EXPECT_TRUE(mgr.AddZxcloudCallbackData(kWorkDisconnect, 0, nullptr, 0));
}
