// The reader: results that the tool leaves go up and are deleted.
#include <thread>

#include "MaintFixture.h"
#include "support/Gauges.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

class MaintReader : public CMaintTest {
 protected:
  void SetUp() override { Init(); }
  // The reader has scanned that often and waits (a scan is followed by ten pauses).
  bool WaitScans(uint32_t uScans) { return m_pauses.WaitReader((uScans - 1) * 10 + 1); }
  void NextScan() { m_pauses.Permit(10); }
  std::vector<std::string> Results() const { return FilesBelow(Path("data/zxpmaint/result")); }
};

TEST_F(MaintReader, UploadsAndDeletesResults) {
  Result("a.json", "{\"ID\":\"a\"}\n");
  Result("b.json", std::string("bin\0ary", 7));
  Spool();
  ASSERT_TRUE(WaitScans(1));
  const std::vector<_UploadedText> uploads = m_hub.Uploads();
  ASSERT_THAT(uploads, SizeIs(2));
  for (size_t u = 0; u < uploads.size(); ++u) {
    EXPECT_EQ(uploads[u].u64DataId, u + 1);
    EXPECT_EQ(uploads[u].strProduct, "veltcwpp");
    EXPECT_EQ(uploads[u].strCombo, "zxpmaint");
    EXPECT_EQ(uploads[u].iPriv, 1);
    EXPECT_EQ(uploads[u].iMsgType, 2);
  }
  EXPECT_THAT(m_hub.Texts(), UnorderedElementsAre("{\"ID\":\"a\"}\n", std::string("bin\0ary", 7)));
  EXPECT_THAT(Results(), IsEmpty());
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentMaint::ReadResultThread strFullPath[" +
                          Path("data/zxpmaint/result/a.json") + "]"),
            2);
}

TEST_F(MaintReader, LooksAgain_AfterTenSeconds) {
  Spool();
  ASSERT_TRUE(WaitScans(1));
  Result("a.json", "1");
  m_pauses.Permit(9);
  ASSERT_TRUE(m_pauses.WaitReader(10));
  EXPECT_THAT(m_hub.Texts(), IsEmpty()) << "after nine seconds";
  m_pauses.Permit(1);
  ASSERT_TRUE(WaitScans(2));
  EXPECT_THAT(m_hub.Texts(), ElementsAre("1"));
}

TEST_F(MaintReader, NumbersResults_FromItsStart) {
  Result("a.json", "1");
  Spool();
  ASSERT_TRUE(WaitScans(1));
  for (const char* pszText : {"2", "3"}) {
    Result("a.json", pszText);
    NextScan();
    ASSERT_TRUE(WaitScans(pszText[0] - '0'));
  }
  m_maint.Uninit();
  Init();
  Result("a.json", "4");
  const uint32_t uPauses = m_pauses.ReaderPauses();
  Spool();
  ASSERT_TRUE(m_pauses.WaitReader(uPauses + 1));
  std::vector<unsigned long long> ids;
  for (const _UploadedText& upload : m_hub.Uploads())
    ids.push_back(upload.u64DataId);
  EXPECT_THAT(ids, ElementsAre(1, 2, 3, 1)) << "the last by a reader of its own";
  EXPECT_THAT(m_hub.Texts(), ElementsAre("1", "2", "3", "4"));
}

TEST_F(MaintReader, DeletesAResult_WhenItsUploadFails) {
  m_hub.SetUploadHook([] { return 0xB0010026u; });
  Result("a.json", "1");
  Spool();
  ASSERT_TRUE(WaitScans(1));
  EXPECT_THAT(Results(), IsEmpty());
  NextScan();
  ASSERT_TRUE(WaitScans(2));
  EXPECT_THAT(m_hub.Texts(), ElementsAre("1")) << "lost, not repeated";
}

TEST_F(MaintReader, LeavesAResultThatCannotBeRead_AndTriesAgain) {
  ASSERT_EQ(mkfifo(Path("data/zxpmaint/result/x.json").c_str(), 0600), 0);
  Result("a.json", "1");
  Spool();
  ASSERT_TRUE(WaitScans(1));
  EXPECT_THAT(Results(), ElementsAre("x.json"));
  EXPECT_THAT(m_hub.Texts(), ElementsAre("1"));
  NextScan();
  ASSERT_TRUE(WaitScans(2));
  EXPECT_THAT(Results(), ElementsAre("x.json"));
  EXPECT_EQ(m_log.Count("zxagent CAgentMaint::ReadResultThread strFullPath[" +
                        Path("data/zxpmaint/result/x.json") + "]"),
            2u);
  // Once it can be read it goes up, with the next number.
  m_home.Remove("data/zxpmaint/result/x.json");
  Result("x.json", "2");
  NextScan();
  ASSERT_TRUE(WaitScans(3));
  ASSERT_THAT(m_hub.Texts(), ElementsAre("1", "2"));
  EXPECT_EQ(m_hub.Uploads()[1].u64DataId, 2u);
}

TEST_F(MaintReader, LeavesAResultThatIsTooLarge) {
  Result("x.json", "");
  std::filesystem::resize_file(Path("data/zxpmaint/result/x.json"), (64u << 20) + 1);
  Spool();
  ASSERT_TRUE(WaitScans(1));
  EXPECT_THAT(m_hub.Texts(), IsEmpty());
  EXPECT_THAT(Results(), ElementsAre("x.json"));
}

TEST_F(MaintReader, LeavesOtherFilesAlone) {
  Result("a.json.tmp", "half");
  Result("b.txt", "x");
  m_home.MakeDir("data/zxpmaint/result/dir.json");
  m_home.WriteFile("secret", "keep");
  std::filesystem::create_symlink(Path("secret"), Path("data/zxpmaint/result/link.json"));
  Spool();
  ASSERT_TRUE(WaitScans(1));
  EXPECT_THAT(m_hub.Texts(), IsEmpty());
  EXPECT_THAT(Results(), ElementsAre("a.json.tmp", "b.txt", "link.json"));
  EXPECT_EQ(m_home.ReadFile("secret"), "keep");
}

TEST_F(MaintReader, WorksOn_WhenTheResultDirectoryIsMissing) {
  m_home.Remove("data/zxpmaint/result");
  Spool();
  ASSERT_TRUE(WaitScans(1));
  Result("a.json", "1");
  NextScan();
  ASSERT_TRUE(WaitScans(2));
  EXPECT_THAT(m_hub.Texts(), ElementsAre("1"));
}

TEST_F(MaintReader, IsStartedOnce) {
  Spool("id-1");
  Spool("id-2");
  Spool("id-3");
  ASSERT_TRUE(WaitScans(1));
  EXPECT_EQ(AgentThreads().Running(), 1u);
}

TEST_F(MaintReader, Ends_WithoutAManager) {
  IAgentHub* const pHub = SetAgentHub(nullptr);
  Result("a.json", "1");
  Spool();
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  SetAgentHub(pHub);
  EXPECT_EQ(m_log.LevelOf("**zxagent CAgentLogMsg::ReadResultThread pAgentMagr is NULL"), 4);
  EXPECT_THAT(Results(), ElementsAre("a.json"));
  m_maint.Uninit();
  EXPECT_EQ(m_pauses.StopPauses(), 0u);
  EXPECT_EQ(m_log.Count("need kill"), 0u) << "it had ended";
}

TEST_F(MaintReader, Ends_WithoutAnObject) {
  pthread_t hThreadId = 0;
  ASSERT_EQ(AgentThreads().Create(&hThreadId, &CAgentMaint::ReadResultThread, nullptr), 0);
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  EXPECT_EQ(m_log.LevelOf("**zxagent CAgentLogMsg::ReadResultThread pThis is NULL"), 4);
}

TEST_F(MaintReader, GoesOn_WhenAnUploadRunsOutOfMemory) {
  std::atomic<int> iCalls{0};
  m_hub.SetUploadHook([&iCalls]() -> uint32_t {
    if (++iCalls == 1)
      throw std::bad_alloc();
    return 0;
  });
  Result("a.json", "1");
  Spool();
  ASSERT_TRUE(WaitScans(1));
  NextScan();
  ASSERT_TRUE(WaitScans(2));
  EXPECT_GE(iCalls, 1);
  EXPECT_EQ(AgentThreads().Running(), 1u) << "the reader still looks";
}

// --- Stop.

TEST_F(MaintReader, Uninit_AnswersAtOnce_WithoutAReader) {
  EXPECT_EQ(m_maint.Uninit(), 1);
  EXPECT_THAT(m_log.Lines(),
              ElementsAre("zxagent CAgentMaint::Uninit Begin", "zxagent CAgentMaint::Uninit End"));
  EXPECT_EQ(m_pauses.StopPauses(), 0u);
}

TEST_F(MaintReader, Uninit_EndsTheReader_BetweenTwoSeconds) {
  Spool();
  ASSERT_TRUE(WaitScans(1));
  Result("late.json", "1");
  EXPECT_EQ(m_maint.Uninit(), 1);
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  EXPECT_EQ(m_pauses.ReaderPauses(), 1u) << "it left the wait early";
  EXPECT_THAT(m_hub.Texts(), IsEmpty()) << "and did not scan again";
  EXPECT_EQ(m_log.Count("need kill"), 0u);
  EXPECT_EQ(m_maint.Uninit(), 1) << "a second time";
}

// Also when the reader has not begun yet.
TEST_F(MaintReader, Uninit_EndsTheReader_RightBehindItsStart) {
  for (int i = 0; i < 50; ++i) {
    Init();
    Spool();
    EXPECT_EQ(m_maint.Uninit(), 1);
    ASSERT_TRUE(AgentThreads().Wait(kTestDeadlineMs)) << i;
    ASSERT_EQ(m_log.Count("need kill"), 0u) << i;
  }
}

// The work thread may still be in a command while the host stops the agent.
TEST_F(MaintReader, Uninit_LetsNoReaderStart_BeforeTheNextInit) {
  EXPECT_EQ(m_maint.Uninit(), 1);
  Result("a.json", "1");
  Spool();
  EXPECT_FALSE(ReaderRuns());
  EXPECT_TRUE(m_home.Exists("data/zxpmaint/policyfile/id-1.json")) << "spooled all the same";
  Init();
  Spool();
  ASSERT_TRUE(WaitScans(1));
  EXPECT_THAT(m_hub.Texts(), ElementsAre("1"));
}

TEST_F(MaintReader, Uninit_MayMeetACommand) {
  for (int i = 0; i < 20; ++i) {
    Init();
    std::thread work([this] { Spool(); });
    EXPECT_EQ(m_maint.Uninit(), 1);
    work.join();
    ASSERT_TRUE(AgentThreads().Wait(kTestDeadlineMs)) << i;
  }
}

TEST_F(MaintReader, Uninit_CancelsAReaderThatDoesNotEnd) {
  const HZxEvent hNever = ZxCreateEvent();
  CEventWaiter entered;
  m_hub.SetUploadHook([&] {
    entered.Set();
    ZxWaitEvent(hNever);
    return 0u;
  });
  Result("a.json", "1");
  Spool();
  ASSERT_TRUE(entered.Wait());
  m_pauses.m_bStopSkips = true;
  EXPECT_EQ(m_maint.Uninit(), 1);
  EXPECT_EQ(m_pauses.StopPauses(), 200u);
  EXPECT_EQ(m_log.Count("*zxagent CAgentMaint::Uninit Warn thread need kill work threadid["), 1u);
  EXPECT_EQ(m_log.Lines().back(), "zxagent CAgentMaint::Uninit End");
  ASSERT_TRUE(AgentThreads().Wait(kTestDeadlineMs)) << "the process lives on";
  ZxDestroyEvent(hNever);

  // The next script starts a reader again.
  Init();
  m_hub.SetUploadHook(nullptr);
  const uint32_t uPauses = m_pauses.ReaderPauses();
  Spool();
  EXPECT_TRUE(m_pauses.WaitReader(uPauses + 1));
  m_pauses.m_bStopSkips = false;
}

TEST_F(MaintReader, Uninit_CancelsAReaderInItsPause) {
  Spool();
  ASSERT_TRUE(WaitScans(1));
  m_pauses.m_bStopSkips = true;
  EXPECT_EQ(m_maint.Uninit(), 1);
  EXPECT_EQ(m_log.Count("need kill"), 1u);
  EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  m_pauses.m_bStopSkips = false;
}

TEST_F(MaintReader, Gauge_CountsCommandsWhoseResultsAreMissing) {
  Result("earlier.json", "of another run");
  Spool();
  ASSERT_TRUE(WaitScans(1));
  const int64_t i64UnderWay = GaugeValue("agent.maint.under_way").value_or(-1);
  Spool();
  EXPECT_EQ(GaugeValue("agent.maint.under_way"), i64UnderWay + 1);
  Result("a.json", "1");
  Result("b.json", "2");
  Result("c.json", "3");
  NextScan();
  ASSERT_TRUE(WaitScans(2));
  EXPECT_EQ(GaugeValue("agent.maint.under_way"), 0);
}
