// The upload workers: how they begin, and how the stop ends them.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/os/ZxEvent.h"
#include "send/LogMsgFixture.h"

#if defined(__SANITIZE_ADDRESS__)
extern "C" void __asan_handle_no_return();
#endif

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAreArray;

namespace {

// Names of this process's threads that begin like a worker's, sorted.
std::vector<std::string> WorkerNames() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream file(entry.path() / "comm");
    std::string strName;
    if (std::getline(file, strName) && strName.rfind("zxagentlog", 0) == 0)
      names.push_back(strName);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// From here on the calling thread can create no thread; others still can.
void RefuseThreads() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone3, 2, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN),
  };
  sock_fprog program{sizeof(filter) / sizeof(filter[0]), filter};
  ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

class LogMsgThreads : public CLogMsgTest {
 protected:
  size_t Killed() const { return Count("thread need kill"); }
  // The texts that name all 32 workers by their index, at a level.
  static std::vector<std::string> ForEachWorker(const std::string& strBegin) {
    std::vector<std::string> lines;
    for (int i = 0; i < 32; ++i)
      lines.push_back(strBegin + "[" + std::to_string(i) + "]");
    return lines;
  }
  std::vector<std::string> LinesWith(const std::string& strPart) const {
    std::vector<std::string> lines;
    for (const std::string& strLine : Lines())
      if (strLine.find(strPart) != std::string::npos)
        lines.push_back(strLine);
    return lines;
  }
};

}  // namespace

// --- Beginning.

TEST_F(LogMsgThreads, Init_NamesThirtyTwoWorkers) {
  EXPECT_EQ(m_logMsg.Init(&m_send), 1);
  std::vector<std::string> names;
  for (int i = 1; i <= 32; ++i)
    names.push_back((i < 10 ? "zxagentlog0" : "zxagentlog") + std::to_string(i));
  EXPECT_EQ(WorkerNames(), names);
  m_logMsg.Uninit();
  EXPECT_TRUE(EventuallyTrue([] { return WorkerNames().empty(); }));
}

TEST_F(LogMsgThreads, Init_LogsEachWorker) {
  m_logMsg.Init(&m_send);
  const std::vector<std::string> created = LinesWith("pthread_create");
  ASSERT_THAT(created, SizeIs(32));
  for (int i = 0; i < 32; ++i)
    EXPECT_THAT(created[static_cast<size_t>(i)],
                MatchesRegex("2 zxagent CAgentLogMsg::Init pthread_create LogThread i\\[" +
                             std::to_string(i) + "\\] iThreadRet\\[0\\] hThreadLogId\\[[1-9][0-9]*\\]"));
  EXPECT_THAT(Lines(), Contains("2 zxagent CAgentLogMsg::Init OK"));
  EXPECT_THAT(LinesWith("LogThread Begin"),
              UnorderedElementsAreArray(ForEachWorker("2 zxagent CAgentLogMsg::LogThread Begin iIndex")));
  m_logMsg.Uninit();
  EXPECT_THAT(LinesWith("LogThread End"),
              UnorderedElementsAreArray(ForEachWorker("2 zxagent CAgentLogMsg::LogThread End iIndex")));
}

TEST_F(LogMsgThreads, Init_LogsWhatCannotBeCreated_AndTheStopWaitsForNone) {
  std::thread([this] {
    RefuseThreads();
    EXPECT_EQ(m_logMsg.Init(&m_send), 1);
  }).join();
  const std::vector<std::string> created = LinesWith("pthread_create");
  ASSERT_THAT(created, SizeIs(32));
  EXPECT_THAT(created,
              Each(MatchesRegex("2 zxagent CAgentLogMsg::Init pthread_create LogThread i\\[[0-9]+\\] "
                                "iThreadRet\\[11\\] hThreadLogId\\[0\\]")));
  EXPECT_THAT(Lines(), Contains("2 zxagent CAgentLogMsg::Init OK"));
  EXPECT_EQ(Insert(1), 0u);
  EXPECT_EQ(m_logMsg.Uninit(), 1);
  EXPECT_THAT(m_pauses, IsEmpty());
  EXPECT_EQ(Killed(), 0u);
  EXPECT_EQ(Sends(), 0u);
}

TEST_F(LogMsgThreads, Worker_EndsAtOnce_WithoutSlot) {
  pthread_t hThread = 0;
  ASSERT_EQ(AgentThreads().Create(&hThread, &CAgentLogMsg::LogThread, nullptr), 0);
  ASSERT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  EXPECT_THAT(Lines(), ElementsAre("3 *zxagent CAgentLogMsg::LogThread pLogData is NULL"));
}

TEST_F(LogMsgThreads, Workers_EndAtOnce_WithoutSender) {
  EXPECT_EQ(m_logMsg.Init(nullptr), 1);
  ASSERT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  EXPECT_THAT(LinesWith("is NULL"), UnorderedElementsAreArray(ForEachWorker(
                                        "2 zxagent CAgentLogMsg::LogThread pAgentLogMsg is NULL iIndex")));
  EXPECT_EQ(Insert(1), 0u);
  EXPECT_EQ(m_logMsg.Uninit(), 1);
  EXPECT_EQ(Killed(), 0u);
  EXPECT_EQ(Sends(), 0u);
}

TEST_F(LogMsgThreads, Workers_EndAtOnce_WithoutManager) {
  const CScopedNoHub none;
  EXPECT_EQ(m_logMsg.Init(&m_send), 1);
  ASSERT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  EXPECT_THAT(LinesWith("is NULL"), UnorderedElementsAreArray(ForEachWorker(
                                        "4 **zxagent CAgentLogMsg::LogThread pAgentMgr is NULL iIndex")));
  EXPECT_EQ(m_logMsg.Uninit(), 1);
  EXPECT_EQ(Killed(), 0u);
}

// --- Stopping.

TEST_F(LogMsgThreads, Uninit_EndsIdleWorkersPromptly) {
  CAgentLogMsg logMsg;  // with its own pauses
  logMsg.Init(&m_send);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(logMsg.Uninit(), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(4500))
      << "a worker waited out its 5 seconds";
  EXPECT_EQ(Killed(), 0u);
  EXPECT_EQ(Count("LogThread End iIndex["), 32u);
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
}

TEST_F(LogMsgThreads, Uninit_IsQuick_WhenNothingWasStarted) {
  EXPECT_EQ(Insert(1), 0u);
  EXPECT_EQ(m_logMsg.Uninit(), 1);
  EXPECT_EQ(m_logMsg.Uninit(), 1);
  EXPECT_THAT(m_pauses, IsEmpty());
  EXPECT_THAT(
      Lines(),
      ElementsAre("3 *zxagent CAgentLogMsg::Uninit Warn accepted and not sent uCount[1] uSending[0]"));
}

TEST_F(LogMsgThreads, Uninit_LetsABusyWorkerFinish) {
  HoldSends();
  m_logMsg.Init(&m_send);
  EXPECT_EQ(Insert(1), 0u);
  ASSERT_TRUE(WaitSends(1));
  OnPause([this](int iPass) {
    if (iPass == 1) {
      EXPECT_TRUE(WaitEnded(31));
      m_release.Set();
    }
    WaitEnded(32);
  });
  EXPECT_EQ(m_logMsg.Uninit(), 1);
  EXPECT_EQ(Killed(), 0u);
  EXPECT_THAT(m_hub.Outcomes(), SizeIs(1)) << "its outcome is still told";
  EXPECT_THAT(m_pauses, Each(300u));
}

TEST_F(LogMsgThreads, Uninit_DropsWhatWaitsBehindBusyWorkers) {
  HoldSends();
  m_logMsg.Init(&m_send);
  for (unsigned long long u64DataId = 1; u64DataId <= 40; ++u64DataId)
    EXPECT_EQ(Insert(u64DataId), 0u);
  ASSERT_TRUE(WaitSends(32));
  OnPause([this](int) {
    m_release.Set();
    WaitEnded(32);
  });
  EXPECT_EQ(m_logMsg.Uninit(), 1);
  EXPECT_EQ(Sends(), 32u);
  EXPECT_THAT(m_hub.Outcomes(), SizeIs(32));
  EXPECT_THAT(Lines(),
              Contains("3 *zxagent CAgentLogMsg::Uninit Warn accepted and not sent uCount[8] uSending[0]"));
  EXPECT_EQ(Killed(), 0u);
}

TEST_F(LogMsgThreads, Uninit_DropsARecord_ThatComesWhileItWaits) {
  HoldSends();
  m_logMsg.Init(&m_send);
  EXPECT_EQ(Insert(1), 0u);
  ASSERT_TRUE(WaitSends(1));
  OnPause([this](int iPass) {
    if (iPass == 1) {
      Insert(2);
      m_release.Set();
    }
    WaitEnded(32);
  });
  EXPECT_EQ(m_logMsg.Uninit(), 1);
  Insert(3);  // and one that comes after it
  EXPECT_EQ(Sends(), 1u);
  // A second start sends neither of them.
  OnPause([](int) { PauseMs(20); });
  EXPECT_EQ(m_logMsg.Uninit(), 1);
  EXPECT_EQ(m_logMsg.Init(&m_send), 1);
  EXPECT_EQ(Insert(4), 0u);
  ASSERT_TRUE(m_hub.WaitOutcomes(2));
  EXPECT_EQ(m_hub.Outcomes()[0].u64DataId, 1u);
  EXPECT_EQ(m_hub.Outcomes()[1].u64DataId, 4u);
}

TEST_F(LogMsgThreads, Uninit_EndsEveryCycle_WhenStartedAgain) {
  for (unsigned long long u64Cycle = 1; u64Cycle <= 3; ++u64Cycle) {
    m_logMsg.Init(&m_send);
    EXPECT_EQ(Insert(u64Cycle), 0u);
    ASSERT_TRUE(m_hub.WaitOutcomes(u64Cycle));
    EXPECT_EQ(m_logMsg.Uninit(), 1);
    EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
    EXPECT_EQ(Count("LogThread End iIndex["), 32 * u64Cycle);
  }
  EXPECT_EQ(Killed(), 0u);
}

// --- Workers that do not come back: the process lives, their records are released.

namespace {

// Waits until the thread is cancelled, and counts that it unwound. In an event: thread sanitizer takes every
// lock behind a cancelled poll for missing.
void Stick(HZxEvent hNever, CEventWaiter& unwound) {
  struct _OnUnwind {
    CEventWaiter& unwound;
    ~_OnUnwind() { unwound.Set(); }
  } onUnwind{unwound};
#if defined(__SANITIZE_ADDRESS__)
  __asan_handle_no_return();  // it does not see a cancellation unwind the frames above
#endif
  ZxWaitEvent(hNever);
}

}  // namespace

class LogMsgStuck : public LogMsgThreads {
 protected:
  ~LogMsgStuck() override {
    m_logMsg.Uninit();
    EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));  // none of them waits for the event any more
    ZxDestroyEvent(m_hNever);
  }

  // Stops while worker threads hang; the idle ones are given time to end.
  void StopStuck(size_t uStuck) {
    OnPause([this, uStuck](int iPass) {
      if (iPass == 1) {
        WaitEnded(32 - uStuck);
      }
      PauseMs(1);
    });
    EXPECT_EQ(m_logMsg.Uninit(), 1);
    EXPECT_THAT(m_pauses, SizeIs(200));
    EXPECT_THAT(m_pauses, Each(300u));
    const std::vector<std::string> killed = LinesWith("thread need kill");
    EXPECT_THAT(killed, SizeIs(uStuck));
    EXPECT_THAT(killed,
                Each(MatchesRegex("3 \\*zxagent CAgentLogMsg::Uninit Warn thread need kill i\\[[0-9]+\\] "
                                  "threadid\\[[1-9][0-9]*\\]")));
    EXPECT_TRUE(m_unwound.Wait(static_cast<uint32_t>(uStuck)));
    EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  }

  HZxEvent m_hNever = ZxCreateEvent();
  CEventWaiter m_unwound;
};

TEST_F(LogMsgStuck, Uninit_CancelsAWorkerThatHangsInItsSend) {
  m_cloud.SetHook(ECloudCall::SendSync, [this](const _CloudCall&) {
    Stick(m_hNever, m_unwound);
    return 0u;
  });
  m_logMsg.Init(&m_send);
  EXPECT_EQ(Insert(1), 0u);
  ASSERT_TRUE(WaitSends(1));
  StopStuck(1);
  EXPECT_THAT(m_hub.Outcomes(), IsEmpty());
}

TEST_F(LogMsgStuck, Uninit_CancelsAWorkerThatHangsInItsReport) {
  m_hub.SetHook([this](const _UploadOutcome&) { Stick(m_hNever, m_unwound); });
  m_logMsg.Init(&m_send);
  EXPECT_EQ(Insert(1, "body", 1), 0u);
  EXPECT_EQ(Insert(2, "body", 2), 0u);
  ASSERT_TRUE(m_hub.WaitOutcomes(2));
  StopStuck(2);
}

TEST_F(LogMsgStuck, Uninit_CancelsThemAll_AndTheNextCycleWorks) {
  m_cloud.SetHook(ECloudCall::SendSync, [this](const _CloudCall&) {
    Stick(m_hNever, m_unwound);
    return 0u;
  });
  m_logMsg.Init(&m_send);
  for (unsigned long long u64DataId = 1; u64DataId <= 33; ++u64DataId)
    EXPECT_EQ(Insert(u64DataId), 0u);
  ASSERT_TRUE(WaitSends(32));
  StopStuck(32);
  EXPECT_THAT(Lines(),
              Contains("3 *zxagent CAgentLogMsg::Uninit Warn accepted and not sent uCount[33] uSending[32]"));
  m_cloud.Reset();
  OnPause([](int) { PauseMs(20); });
  m_logMsg.Init(&m_send);
  EXPECT_EQ(Insert(34), 0u);
  EXPECT_TRUE(m_hub.WaitOutcomes(1));
  EXPECT_EQ(m_logMsg.Uninit(), 1);
  EXPECT_EQ(Sends(), 1u) << "the 33rd record went with the first cycle";
  EXPECT_EQ(Killed(), 32u);
}
