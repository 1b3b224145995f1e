// The upload queue: what its workers send and report, and what they do not.
#include <algorithm>
#include <atomic>
#include <map>
#include <set>
#include <thread>

#include "send/LogMsgFixture.h"
#include "support/Gauges.h"

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

class LogMsg : public CLogMsgTest {};

// --- Uploads and their outcomes.

TEST_F(LogMsg, Worker_SendsBlocking_AndLogsToTheLogCacheChannel) {
  EXPECT_EQ(m_logMsg.Init(&m_send), 1);
  m_log.Clear();
  EXPECT_EQ(m_logMsg.InsertSendMsg("Scan", "One", 2, 1, 0x1f, "{\"k\":\"<v>\"}", 1), 0u);
  ASSERT_TRUE(m_hub.WaitOutcomes(1));
  ASSERT_THAT(m_cloud.Calls(), SizeIs(1));
  const _CloudCall call = m_cloud.Calls()[0];
  EXPECT_EQ(call.eCall, ECloudCall::SendSync);
  EXPECT_EQ(call.iPriority, 2);
  EXPECT_EQ(call.iTimeoutMs, 100000);
  EXPECT_THAT(call.strText, HasSubstr("<product=Scan><combo=One>"));
  EXPECT_THAT(call.strText, HasSubstr("<PCServerJasonData={\"k\":\"<v>\"}>"));
  EXPECT_THAT(Lines("zxlogcache"), Contains(StartsWith("2 zxagent stepB")));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(LogMsg, Outcome_CarriesTheRecordsFields) {
  m_logMsg.Init(&m_send);
  EXPECT_EQ(m_logMsg.InsertSendMsg("Scan", "One", 0, 2, 0x1122334455667788ull, "body", 1), 0u);
  ASSERT_TRUE(m_hub.WaitOutcomes(1));
  const _UploadOutcome outcome = m_hub.Outcomes()[0];
  EXPECT_EQ(outcome.iResult, 0);
  EXPECT_EQ(outcome.u64DataId, 0x1122334455667788ull);
  EXPECT_EQ(outcome.iPriv, 0);
  EXPECT_EQ(outcome.iMsgType, 2);
  EXPECT_EQ(outcome.strProduct, "Scan");
  EXPECT_EQ(outcome.strCombo, "One");
}

class LogMsgKind : public CLogMsgTest, public ::testing::WithParamInterface<uint32_t> {};

INSTANTIATE_TEST_SUITE_P(Kinds, LogMsgKind, ::testing::Values(0u, 1u, 2u, 3u, 0xffffffffu));

TEST_P(LogMsgKind, Outcome_GoesToTheTaskManager_ForKindTwoOnly) {
  m_logMsg.Init(&m_send);
  EXPECT_EQ(Insert(7, "body", GetParam()), 0u);
  ASSERT_TRUE(m_hub.WaitOutcomes(1));
  EXPECT_EQ(m_hub.Outcomes()[0].bTaskMgr, GetParam() == 2);
}

TEST_F(LogMsg, Outcome_IsTheSendersCode_AndNothingIsSentAgain) {
  m_logMsg.Init(&m_send);
  m_cloud.SetResult(ECloudCall::SendSync, 5);
  EXPECT_EQ(Insert(1), 0u);
  ASSERT_TRUE(m_hub.WaitOutcomes(1));
  EXPECT_EQ(m_hub.Outcomes()[0].iResult, static_cast<int>(0xb0010026));
  EXPECT_EQ(m_logMsg.InsertSendMsg("Scan", "One", 3, 4, 2, "body", 2), 0u)
      << "a type that the cloud does not know";
  ASSERT_TRUE(m_hub.WaitOutcomes(2));
  EXPECT_EQ(m_hub.Outcomes()[1].iResult, static_cast<int>(0xb0010063));
  m_logMsg.Uninit();
  EXPECT_EQ(m_cloud.Calls().size(), 1u);
  EXPECT_THAT(m_hub.Outcomes(), SizeIs(2));
}

TEST_F(LogMsg, Outcome_IsToldOnce_WhenTheComponentCannotBeReached) {
  m_logMsg.Init(&m_send);
  m_hub.SetResult(0xb0010011);
  EXPECT_EQ(Insert(1), 0u);
  EXPECT_EQ(Insert(2), 0u);
  ASSERT_TRUE(m_hub.WaitOutcomes(2));
  m_logMsg.Uninit();
  EXPECT_THAT(m_hub.Outcomes(), SizeIs(2));
}

TEST_F(LogMsg, Workers_SendThirtyTwoAtOnce_AndNoMore) {
  std::atomic<int> iNow{0};
  std::atomic<int> iMost{0};
  m_cloud.SetHook(ECloudCall::SendSync, [&](const _CloudCall&) {
    const int iMine = ++iNow;
    for (int iSeen = iMost; iMine > iSeen && !iMost.compare_exchange_weak(iSeen, iMine);) {
    }
    m_release.Wait();
    --iNow;
    return 0u;
  });
  m_logMsg.Init(&m_send);
  for (unsigned long long u64DataId = 1; u64DataId <= 50; ++u64DataId)
    EXPECT_EQ(Insert(u64DataId), 0u);
  ASSERT_TRUE(EventuallyTrue([&] { return iNow == 32; }));
  EXPECT_THAT(m_hub.Outcomes(), IsEmpty());
  m_release.Set();
  ASSERT_TRUE(m_hub.WaitOutcomes(50));
  EXPECT_EQ(iMost, 32);
}

TEST_F(LogMsg, Insert_TakesFromManyThreads_AndEachRecordIsReportedOnce) {
  constexpr int kThreads = 4;
  constexpr int kRecords = 250;
  m_logMsg.Init(&m_send);
  std::vector<std::thread> producers;
  producers.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i)
    producers.emplace_back([this, i] {
      for (int iRecord = 0; iRecord < kRecords; ++iRecord)
        EXPECT_EQ(Insert(static_cast<unsigned long long>(i * kRecords + iRecord)), 0u);
    });
  for (std::thread& producer : producers)
    producer.join();
  ASSERT_TRUE(m_hub.WaitOutcomes(kThreads * kRecords));
  std::set<unsigned long long> ids;
  for (const _UploadOutcome& outcome : m_hub.Outcomes())
    ids.insert(outcome.u64DataId);
  EXPECT_THAT(ids, SizeIs(kThreads * kRecords));
  EXPECT_EQ(Sends(), static_cast<size_t>(kThreads * kRecords));
}

// --- Bounds.

// The budget for records of the fixture's product and combo.
size_t Bytes(size_t uRecords, size_t uBodies) {
  return uRecords * (sizeof(_LogMsgData) + 7) + uBodies;
}

TEST_F(LogMsg, Insert_Refuses_BeyondTheBudget) {
  m_logMsg.SetBudget(Bytes(2, 100));
  EXPECT_EQ(Insert(1, std::string(60, 'a')), 0u);
  EXPECT_EQ(Insert(2, std::string(60, 'b')), 0xb0010003u);
  EXPECT_EQ(Insert(3, std::string(40, 'c')), 0u);
  EXPECT_EQ(Insert(4, ""), 0xb0010003u) << "an empty body takes its record's place too";
  const std::string strBegin = "3 *zxagent Error InsertSendMsg insert queue Error u64DataId[";
  const std::string strFields = "] iPriv[3] iMsgType[2] strProduct[Scan] strCombo[One] strMsg[";
  EXPECT_THAT(Lines("zxlogcache"), ElementsAre(strBegin + "2" + strFields + std::string(60, 'b') + "]",
                                               strBegin + "4" + strFields + "]"));
  m_logMsg.Init(&m_send);
  ASSERT_TRUE(m_hub.WaitOutcomes(2));
  EXPECT_EQ(Insert(5, std::string(100, 'd')), 0u) << "what was sent counts no more";
  ASSERT_TRUE(m_hub.WaitOutcomes(3));
  m_logMsg.Uninit();
  std::vector<unsigned long long> ids;
  for (const _UploadOutcome& outcome : m_hub.Outcomes())
    ids.push_back(outcome.u64DataId);
  EXPECT_THAT(ids, UnorderedElementsAre(1, 3, 5)) << "nothing was queued for the refused ones";
}

TEST_F(LogMsg, Insert_Refuses_ARecordThatNeverFits) {
  m_logMsg.SetBudget(Bytes(1, 100));
  EXPECT_EQ(Insert(1, std::string(101, 'a')), 0xb0010003u);
  EXPECT_EQ(Insert(2, std::string(100, 'a')), 0u);
}

TEST_F(LogMsg, Insert_CountsNames_AsComponentsChooseThemToo) {
  m_logMsg.SetBudget(Bytes(1, 100));
  const CPString strLong = std::string(200, 'n');
  EXPECT_EQ(m_logMsg.InsertSendMsg(strLong, "c", 3, 2, 1, "b", 1), 0xb0010003u);
  EXPECT_EQ(m_logMsg.InsertSendMsg("p", strLong, 3, 2, 2, "b", 1), 0xb0010003u);
  EXPECT_EQ(m_logMsg.InsertSendMsg("p", "c", 3, 2, 3, "b", 1), 0u);
}

TEST_F(LogMsg, Insert_Refuses_WhenAHeldCloudHasFilledTheQueue) {
  HoldSends();
  m_logMsg.SetBudget(Bytes(32, 1000));
  m_logMsg.Init(&m_send);
  for (unsigned long long u64DataId = 1; u64DataId <= 32; ++u64DataId)
    ASSERT_EQ(Insert(u64DataId, std::string(10, 'x')), 0u);
  ASSERT_TRUE(WaitSends(32));
  EXPECT_EQ(Insert(33, std::string(Bytes(31, 1000), 'x')), 0u);
  EXPECT_EQ(Insert(34), 0xb0010003u);
  m_release.Set();
  ASSERT_TRUE(m_hub.WaitOutcomes(33));
  EXPECT_EQ(Insert(34), 0u) << "taken again when the cloud goes on";
  EXPECT_TRUE(m_hub.WaitOutcomes(34));
}

// --- Memory runs out on a worker.

TEST_F(LogMsg, Outcome_IsAFailure_WhenTheSendRunsOutOfMemory) {
  m_logMsg.Init(&m_send);
  m_log.Clear();
  m_cloud.SetHook(ECloudCall::SendSync, [](const _CloudCall&) -> uint32_t { throw std::bad_alloc(); });
  for (unsigned long long u64DataId = 1; u64DataId <= 40; ++u64DataId)
    EXPECT_EQ(Insert(u64DataId), 0u);
  ASSERT_TRUE(m_hub.WaitOutcomes(40)) << "more than there are workers: none of them ended";
  for (const _UploadOutcome& outcome : m_hub.Outcomes())
    EXPECT_EQ(outcome.iResult, static_cast<int>(0xb0010003));
  EXPECT_THAT(Lines(), SizeIs(40));
  EXPECT_THAT(Lines(), Each(StartsWith("4 **zxagent CAgentLogMsg::Send Error what[")));
}

TEST_F(LogMsg, Worker_GoesOn_WhenItsReportRunsOutOfMemory) {
  m_logMsg.Init(&m_send);
  m_hub.SetHook([](const _UploadOutcome&) { throw std::bad_alloc(); });
  for (unsigned long long u64DataId = 1; u64DataId <= 40; ++u64DataId)
    EXPECT_EQ(Insert(u64DataId), 0u);
  EXPECT_TRUE(m_hub.WaitOutcomes(40));
  m_logMsg.Uninit();
  EXPECT_EQ(Sends(), 40u);
  EXPECT_EQ(Count("**zxagent CAgentLogMsg::LogThread Error what["), 40u);
}

// --- Figures.

TEST_F(LogMsg, Gauges_FollowARecordFromTheQueueToItsOutcome) {
  m_logMsg.SetBudget(1u << 20);
  HoldSends();
  m_logMsg.Init(&m_send);
  constexpr int kRecords = CAgentLogMsg::kWorkers + 2;
  for (int i = 0; i < kRecords; ++i)
    ASSERT_EQ(Insert(i), 0u);
  ASSERT_TRUE(WaitSends(CAgentLogMsg::kWorkers));
  EXPECT_EQ(GaugeValue("agent.uploads.sending"), CAgentLogMsg::kWorkers);
  EXPECT_EQ(GaugeValue("agent.uploads.waiting"), 2);
  _LogMsgData waiting;
  waiting.strProduct = "Scan";
  waiting.strCombo = "One";
  waiting.strMsg = "body";
  EXPECT_EQ(GaugeValue("agent.uploads.waiting_bytes"), static_cast<int64_t>(2 * RecordBytes(waiting)));
  EXPECT_EQ(Insert(99, CPString(std::string(2u << 20, 'x').c_str())), 0xb0010003u);
  EXPECT_EQ(GaugeValue("agent.uploads.refused"), 1);
  EXPECT_EQ(GaugeValue("agent.uploads.waiting"), 2) << "a refused record never waited";

  m_release.Set();
  ASSERT_TRUE(m_hub.WaitOutcomes(kRecords));
  m_cloud.SetResult(ECloudCall::SendSync, 5);
  m_cloud.SetHook(ECloudCall::SendSync, nullptr);
  ASSERT_EQ(Insert(100), 0u);
  ASSERT_TRUE(m_hub.WaitOutcomes(kRecords + 1));
  EXPECT_EQ(GaugeValue("agent.uploads.sent"), kRecords);
  EXPECT_EQ(GaugeValue("agent.uploads.failed"), 1);
  EXPECT_EQ(GaugeValue("agent.uploads.sending"), 0);
  EXPECT_EQ(GaugeValue("agent.uploads.waiting"), 0);
  EXPECT_EQ(GaugeValue("agent.uploads.waiting_bytes"), 0);
}

TEST_F(LogMsg, Gauges_CountWhatAStopDropsAsGone) {
  ASSERT_EQ(Insert(1), 0u);
  EXPECT_EQ(GaugeValue("agent.uploads.waiting"), 1);
  m_logMsg.Uninit();
  EXPECT_EQ(GaugeValue("agent.uploads.waiting"), 0);
  EXPECT_EQ(GaugeValue("agent.uploads.waiting_bytes"), 0);
}
