// Threads that do not end: each is cancelled in each of its waits, and must neither end the process nor leave
// a lock behind.
#include <atomic>

#include "agent/ManagerFixture.h"
#include "platform/os/ZxEvent.h"

#if defined(__SANITIZE_ADDRESS__)
extern "C" void __asan_handle_no_return();
#endif

using ::testing::Each;
using ::testing::SizeIs;

// A place where a thread blocks until it is cancelled, as in a library call that never returns.
class CTrap {
 public:
  CTrap() : m_hEvent(ZxCreateEvent()) {}
  ~CTrap() { ZxDestroyEvent(m_hEvent); }
  CTrap(const CTrap&) = delete;
  CTrap& operator=(const CTrap&) = delete;

  uint32_t Enter() {
    m_entered.Set();
#if defined(__SANITIZE_ADDRESS__)
    __asan_handle_no_return();  // it does not see a cancellation unwind the frames above
#endif
    ZxWaitEvent(m_hEvent);
    return 0;
  }
  bool WaitEntered(uint32_t uThreads = 1) {
    return m_entered.Wait(uThreads);
  }

 private:
  HZxEvent m_hEvent;
  CEventWaiter m_entered;
};

class AgentMgrCancel : public CManagerTest {
 protected:
  using CManagerTest::CManagerTest;

  pthread_t Run(void* (*pfnEntry)(void*), void* pArg = nullptr) {
    pthread_t hThreadId = 0;
    EXPECT_EQ(AgentThreads().Create(&hThreadId, pfnEntry, pArg), 0);
    return hThreadId;
  }
  // Cancels the only agent thread; afterwards the manager can still be used.
  void Cancel(pthread_t hThreadId) {
    ASSERT_EQ(pthread_cancel(hThreadId), 0);
    ASSERT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
    m_mgr.SetWork(0);
    m_mgr.IsConnect();
    m_mgr.GetLbData();
    EXPECT_TRUE(m_mgr.AddZxcloudCallbackData(kWorkWake, 0, nullptr, 0));
  }
  void TrapCloud(ECloudCall eCall) {
    m_cloud.SetHook(eCall, [this](const _CloudCall&) { return m_trap.Enter(); });
  }
  void TrapBus(EBusCall eCall) {
    m_bus.SetHook([this, eCall](const _BusCall& call) {
      if (call.eCall == eCall)
        m_trap.Enter();
    });
  }
  CTrap m_trap;
};

TEST_F(AgentMgrCancel, WorkThread_WaitingForWork) {
  Load();
  const pthread_t hThreadId = Run(&CAgentMgr::WorkThread);
  ASSERT_TRUE(m_log.Capture().WaitFor("zxagent CAgentMgr::WorkThread Begin"));
  Cancel(hThreadId);
}

TEST_F(AgentMgrCancel, WorkThread_InABroadcast) {
  Load();
  TrapBus(EBusCall::BroadcastSend);
  const pthread_t hThreadId = Run(&CAgentMgr::WorkThread);
  m_mgr.AddZxcloudCallbackData(kWorkConnect, 443, "10.0.0.1", 0);
  ASSERT_TRUE(m_trap.WaitEntered());
  Cancel(hThreadId);
}

TEST_F(AgentMgrCancel, WorkThread_InAHandOff) {
  Load();
  TrapBus(EBusCall::AsynSendEx);
  const pthread_t hThreadId = Run(&CAgentMgr::WorkThread);
  m_mgr.AddZxcloudCallbackData(kWorkGuidList, 0, "{}", 0);
  ASSERT_TRUE(m_trap.WaitEntered());
  Cancel(hThreadId);
}

TEST_F(AgentMgrCancel, WorkThread_InAnAcknowledgement) {
  Load();
  ASSERT_TRUE(m_mgr.ZxcloudTconf("Scan,None,1003"));
  TrapCloud(ECloudCall::Send);
  const pthread_t hThreadId = Run(&CAgentMgr::WorkThread);
  m_mgr.AddZxcloudCallbackData(kWorkPushmsg, 1003, R"({"ID":"1","Command":"nobody"})", 0);
  ASSERT_TRUE(m_trap.WaitEntered());
  Cancel(hThreadId);
}

TEST_F(AgentMgrCancel, WorkThread_InACloudOption) {
  Load();
  TrapCloud(ECloudCall::Setopt);
  const pthread_t hThreadId = Run(&CAgentMgr::WorkThread);
  m_mgr.AddZxcloudCallbackData(kWorkData, 1, "10.0.0.7:5;cloud:443", 0);
  ASSERT_TRUE(m_trap.WaitEntered());
  Cancel(hThreadId);
}

TEST_F(AgentMgrCancel, PollThread_WaitingForItsTime) {
  Load();
  const pthread_t hThreadId = Run(&CAgentMgr::PollMsgThread);
  ASSERT_TRUE(m_log.Capture().WaitFor("zxagent CAgentMgr::PollMsgThread not recv tconf"));
  Cancel(hThreadId);
}

TEST_F(AgentMgrCancel, PollThread_InAPoll) {
  StoreTermConnect(2, 60);
  Load();
  ASSERT_TRUE(m_mgr.ZxcloudTconf("Scan,One,7"));
  TrapCloud(ECloudCall::SendPollmsg);
  const pthread_t hThreadId = Run(&CAgentMgr::PollMsgThread);
  ASSERT_TRUE(m_trap.WaitEntered());
  Cancel(hThreadId);
}

TEST_F(AgentMgrCancel, CheckThread_WaitingForAnEvent) {
  Load();
  m_mgr.SetWork(1);
  const pthread_t hThreadId = Run(&CAgentMgr::CheckTconfThread);
  ASSERT_TRUE(m_log.Capture().WaitFor("zxagent CAgentMgr::CheckTconfThread Begin"));
  Cancel(hThreadId);
}

TEST_F(AgentMgrCancel, InitThread_InEachCallOfTheLibrary) {
  StoreEngineStatus(3, "engine:9");
  Load();
  for (const ECloudCall eCall : {ECloudCall::Uninit, ECloudCall::Setopt, ECloudCall::SetOtherConnAddr,
                                 ECloudCall::Init, ECloudCall::Getopt}) {
    CTrap trap;
    m_cloud.SetHook(eCall, [&trap](const _CloudCall&) { return trap.Enter(); });
    const pthread_t hThreadId = Run(&CAgentMgr::InitZxcloudThread, reinterpret_cast<void*>(1));
    ASSERT_TRUE(trap.WaitEntered());
    Cancel(hThreadId);
    m_cloud.SetHook(eCall, nullptr);
  }
  // With everything answering, the dormant thread does what its name says.
  m_cloud.Reset();
  Run(&CAgentMgr::InitZxcloudThread, nullptr);
  ASSERT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  EXPECT_TRUE(m_cloud.IsInitialised());
  EXPECT_EQ(m_cloud.Count(ECloudCall::Uninit), 0u);
}

// --- Without a manager the threads end at once.

TEST_F(AgentMgrCancel, Threads_EndAtOnce_WithoutAManager) {
  CAgentMgr* pMgr = CAgentMgr::SetCurrent(nullptr);
  Run(&CAgentMgr::WorkThread);
  Run(&CAgentMgr::PollMsgThread);
  Run(&CAgentMgr::CheckTconfThread);
  Run(&CAgentMgr::InitZxcloudThread);
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  CAgentMgr::SetCurrent(pMgr);
  EXPECT_TRUE(Logged("**zxagent CAgentMgr::WorkThread pThis is NULL"));
  EXPECT_TRUE(Logged("**zxagent CAgentMgr::PollMsgThread pThis is NULL"));
  EXPECT_TRUE(Logged("**zxagent CAgentMgr::CheckTconfThread pThis is NULL"));
}

// --- Stop with threads that do not listen. The pauses are short, so that 200 of them take no minute.

class AgentMgrStuck : public AgentMgrCancel {
 protected:
  AgentMgrStuck() : AgentMgrCancel(true) {}
};

TEST_F(AgentMgrStuck, Stop_CancelsAWorkThread_After200PassesOf300Ms) {
  Prepare();
  ASSERT_TRUE(m_mgr.Start());
  ASSERT_TRUE(m_bus.WaitCount(EBusCall::AsynSendEx, 1));
  TrapBus(EBusCall::BroadcastSend);
  m_cloud.FireConnect("10.0.0.1", 443);
  ASSERT_TRUE(m_trap.WaitEntered());
  EXPECT_TRUE(m_mgr.Stop());
  EXPECT_THAT(m_pauses.All(), SizeIs(200));
  EXPECT_THAT(m_pauses.All(), Each(300u));
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::Stop Warn thread need kill work threadid["));
  EXPECT_TRUE(Logged("zxagent CAgentMgr::Stop work pollmsg thread iCount[200]"));
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
}

TEST_F(AgentMgrStuck, Stop_CancelsAPollThread) {
  StoreTermConnect(2, 60);
  Prepare();
  ASSERT_TRUE(m_mgr.Start());
  TrapCloud(ECloudCall::SendPollmsg);
  ASSERT_TRUE(m_mgr.ZxcloudTconf("Scan,One,7"));
  // The next pass is up to five seconds away.
  ASSERT_TRUE(m_trap.WaitEntered());
  EXPECT_TRUE(m_mgr.Stop());
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::Stop Warn thread need kill pollmsg threadid["));
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
}

TEST_F(AgentMgrStuck, Stop_CancelsACheckThread_AndTheNextStartGetsANewOne) {
  StoreMsgSrvAddrSet("engine:1", "engine:2");
  StoreEngineStatus(1, "");
  Prepare();
  TrapCloud(ECloudCall::TconfCheck);
  ASSERT_TRUE(m_mgr.Start());
  ASSERT_TRUE(m_trap.WaitEntered());
  EXPECT_TRUE(m_mgr.Stop());
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::Stop Warn thread need kill check threadid["));
  ASSERT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  m_cloud.SetHook(ECloudCall::TconfCheck, nullptr);
  m_log.Clear();
  ASSERT_TRUE(m_mgr.Start());
  EXPECT_TRUE(m_cloud.WaitCount(ECloudCall::TconfCheck, 2));
}

TEST_F(AgentMgrStuck, Stop_CancelsACheckThread_InThePauseBetweenTwoTries) {
  StoreMsgSrvAddrSet("engine:1", "engine:2");
  StoreEngineStatus(1, "");
  Load();
  m_mgr.SetWork(1);
  m_cloud.SetResult(ECloudCall::TconfCheck, 1);
  CEventWaiter paused;
  m_pauses.m_fnOnPause = [&](uint32_t dwMs) {
    if (dwMs != 1000)
      return;  // a pass of Stop
    paused.Set();
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    m_trap.Enter();  // the sanitizers lose sight of a thread that is cancelled in nanosleep
#else
    CAgentMgr::SleepMs(600000);
#endif
  };
  ASSERT_TRUE(m_mgr.StartCheckThread());
  ASSERT_TRUE(paused.Wait());
  EXPECT_TRUE(m_mgr.Stop());
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
}

TEST_F(AgentMgrStuck, Stop_CancelsACheckThread_InAReinitialisation) {
  StoreMsgSrvAddrSet("engine:1", "engine:2");
  StoreEngineStatus(1, "");
  Load();
  m_mgr.SetWork(1);
  TrapCloud(ECloudCall::Init);
  ASSERT_TRUE(m_mgr.StartCheckThread());
  ASSERT_TRUE(m_trap.WaitEntered());
  EXPECT_TRUE(m_mgr.Stop());
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
}

TEST_F(AgentMgrStuck, Stop_CancelsACheckThread_OfAnAgentWithoutOtherThreads) {
  StoreMsgSrvAddrSet("engine:1", "engine:2");
  StoreEngineStatus(1, "");
  Load();
  m_mgr.SetWork(1);
  TrapCloud(ECloudCall::TconfCheck);
  ASSERT_TRUE(m_mgr.StartCheckThread());
  ASSERT_TRUE(m_trap.WaitEntered());
  EXPECT_TRUE(m_mgr.Stop());
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
}

TEST_F(AgentMgrStuck, Stop_EndsInItsTime_WithFullQueuesAndBusyWorkers) {
  Prepare();
  m_home.WriteFile("etc/zxagent/zxagent.json", R"({"zxagent":{"upload_budget_mb":1}})");
  ASSERT_TRUE(m_mgr.Start());
  ASSERT_TRUE(m_bus.WaitCount(EBusCall::AsynSendEx, 1));

  CTrap sends;
  m_cloud.SetHook(ECloudCall::SendSync, [&sends](const _CloudCall&) { return sends.Enter(); });
  const std::string strBody(4000, 'x');
  const GUID guid;
  const auto fnSendMsg = [&] {
    return m_mgr.SendMsg(1, 1, 2, guid, "Scan", "One", strBody.data(),
                         static_cast<unsigned int>(strBody.size()), kUploadLogCache);
  };
  for (int i = 0; i < CAgentLogMsg::kWorkers; ++i)
    ASSERT_EQ(fnSendMsg(), 0u);
  ASSERT_TRUE(sends.WaitEntered(CAgentLogMsg::kWorkers));
  size_t uWaiting = 0;
  while (fnSendMsg() == 0)
    ++uWaiting;
  EXPECT_GT(uWaiting, 200u);
  EXPECT_LT(uWaiting, 263u) << "a megabyte at most";

  TrapBus(EBusCall::BroadcastSend);
  m_cloud.FireConnect("10.0.0.1", 443);
  ASSERT_TRUE(m_trap.WaitEntered());
  while (m_mgr.AddZxcloudCallbackData(kWorkWake, 0, nullptr, 0)) {
  }

  EXPECT_TRUE(m_mgr.Stop());
  EXPECT_THAT(m_pauses.All(), SizeIs(400)) << "a minute for the workers and one for the work thread";
  EXPECT_THAT(m_pauses.All(), Each(300u));
  EXPECT_TRUE(Logged("*zxagent CAgentLogMsg::Uninit Warn accepted and not sent uCount[" +
                     std::to_string(uWaiting + CAgentLogMsg::kWorkers) + "] uSending[32]"));
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::Stop Warn thread need kill work threadid["));
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
}
