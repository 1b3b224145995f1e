// The work queue, the records of it, and the order in which the work thread handles them.
#include <time.h>

#include <limits>

#include "agent/ManagerFixture.h"

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

class AgentMgrQueue : public CManagerTest {
 protected:
  void Dispatch(uint32_t dwMessage, uint32_t dwFlag, const char* pszData) {
    std::string strCopy = pszData == nullptr ? "" : pszData;
    ZxMsgRecord record;
    record.dwMessage = dwMessage;
    record.dwFlag = dwFlag;
    record.pData = pszData == nullptr ? nullptr : strCopy.data();
    m_mgr.DispatchWork(record);
  }
  std::string RecordFile(const std::string& strName) const {
    return m_home.ReadFile("data/zxagent/maint/" + strName).Str();
  }
  // Runs the work thread until everything queued so far is handled.
  void RunQueue() {
    pthread_t hThreadId = 0;
    ASSERT_EQ(AgentThreads().Create(&hThreadId, &CAgentMgr::WorkThread, nullptr), 0);
    ASSERT_TRUE(m_log.Capture().WaitFor("zxagent CAgentMgr::WorkThread Begin"));
    // The last record is one that shows when it is handled.
    ASSERT_TRUE(m_mgr.AddZxcloudCallbackData(kWorkGuidList, 0, "the end", 0));
    ASSERT_TRUE(m_bus.WaitCount(EBusCall::AsynSendEx, 1));
    m_mgr.Stop();
    ASSERT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
  }
};

inline constexpr char kTimeRegex[] = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}";

// --- Inserting.

TEST_F(AgentMgrQueue, Add_CopiesTheWholeText_WhenLengthIsZero) {
  Load();
  const std::string strTable = "Scan,One,7|Scan,Two,8";
  EXPECT_TRUE(m_mgr.AddZxcloudCallbackData(kWorkTconf, 0, strTable.c_str(), 0));
  RunQueue();
  EXPECT_THAT(RecordFile("tconf"), EndsWith("," + strTable));
}

TEST_F(AgentMgrQueue, Add_CutsTheCopy_WhenLengthIsShorter) {
  Load();
  EXPECT_TRUE(m_mgr.AddZxcloudCallbackData(kWorkData, 7, "abcdef", 4));
  RunQueue();
  EXPECT_THAT(RecordFile("clouddata_7"), EndsWith(",abcd"));
}

TEST_F(AgentMgrQueue, Add_StopsAtTheEndOfTheText_WhenLengthIsLonger) {
  Load();
  const std::vector<char> text = {'a', 'b', 0, 'x', 'y'};
  EXPECT_TRUE(m_mgr.AddZxcloudCallbackData(kWorkData, 7, text.data(), 5));
  RunQueue();
  EXPECT_THAT(RecordFile("clouddata_7"), EndsWith(",ab"));
}

TEST_F(AgentMgrQueue, Add_ReadsNotPastTheLength_WhenTheTextHasNoEnd) {
  Load();
  // Exactly four bytes on the heap: one more and the address sanitizer ends the test.
  const std::unique_ptr<char[]> pText(new char[4]{'w', 'x', 'y', 'z'});
  EXPECT_TRUE(m_mgr.AddZxcloudCallbackData(kWorkData, 7, pText.get(), 4));
  RunQueue();
  EXPECT_THAT(RecordFile("clouddata_7"), EndsWith(",wxyz"));
}

TEST_F(AgentMgrQueue, Add_Refuses_WhenLengthIsNegative) {
  EXPECT_FALSE(m_mgr.AddZxcloudCallbackData(kWorkData, 7, "abc", -1));
  EXPECT_FALSE(m_mgr.AddZxcloudCallbackData(kWorkData, 7, "abc", std::numeric_limits<int>::min()));
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::AddZxcloudCallbackData Error new iLength[-1] err["));
}

TEST_F(AgentMgrQueue, Add_Refuses_WhenTheQueueIsFull) {
  for (size_t i = 0; i < kZxMsgQueueMaxRecords; ++i)
    ASSERT_TRUE(m_mgr.AddZxcloudCallbackData(kWorkWake, 0, nullptr, 0));
  EXPECT_FALSE(m_mgr.AddZxcloudCallbackData(kWorkPushmsg, 9, "one too many", 0));
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::AddZxcloudCallbackData Error ZxMsgQueueInsert iLength[12] err["));
}

TEST_F(AgentMgrQueue, Add_RefusesBytes_BeyondTheBound) {
  const std::string strLarge(20u << 20, 'x');
  EXPECT_TRUE(m_mgr.AddZxcloudCallbackData(kWorkWake, 0, strLarge.c_str(), 0));
  EXPECT_TRUE(m_mgr.AddZxcloudCallbackData(kWorkWake, 0, strLarge.c_str(), 0));
  EXPECT_TRUE(m_mgr.AddZxcloudCallbackData(kWorkWake, 0, strLarge.c_str(), 0));
  EXPECT_FALSE(m_mgr.AddZxcloudCallbackData(kWorkWake, 0, strLarge.c_str(), 0));
}

// --- Handling.

TEST_F(AgentMgrQueue, WorkThread_HandlesRecords_InArrivalOrder) {
  Load();
  for (int i = 0; i < 50; ++i)
    ASSERT_TRUE(m_mgr.AddZxcloudCallbackData(kWorkConnect, static_cast<uint32_t>(i), "10.0.0.1", 0));
  ASSERT_TRUE(m_mgr.AddZxcloudCallbackData(kWorkDisconnect, 0, nullptr, 0));
  RunQueue();
  const std::vector<std::string> connects = Broadcasts(1000);
  ASSERT_THAT(connects, SizeIs(50));
  for (int i = 0; i < 50; ++i)
    EXPECT_EQ(connects[static_cast<size_t>(i)],
              "{\"onlineflag\":\"1\",\"ip\":\"10.0.0.1\",\"port\":\"" + std::to_string(i) + "\"}");
  EXPECT_EQ(m_mgr.GetConnectData(), "{\"onlineflag\":\"0\",\"ip\":\"\",\"port\":\"0\"}");
}

TEST_F(AgentMgrQueue, Connect_LeavesItsRecord) {
  Load();
  Dispatch(kWorkConnect, 443, "10.0.0.1");
  EXPECT_THAT(RecordFile("connect"), MatchesRegex(std::string(kTimeRegex) + ",10\\.0\\.0\\.1:443"));
  EXPECT_EQ(m_mgr.IsConnect(), 1);
}

TEST_F(AgentMgrQueue, Disconnect_LeavesTheTimeOnly_WithoutData) {
  Load();
  Dispatch(kWorkDisconnect, 0, nullptr);
  EXPECT_THAT(RecordFile("disconnect"), MatchesRegex(kTimeRegex));
  EXPECT_THAT(Broadcasts(1001), SizeIs(1));
}

TEST_F(AgentMgrQueue, Data_LeavesARecordPerFlag_AlsoForUnknownFlags) {
  Load();
  Dispatch(kWorkData, 7, "seven");
  Dispatch(kWorkData, static_cast<uint32_t>(-1), "minus");
  EXPECT_THAT(RecordFile("clouddata_7"), MatchesRegex(std::string(kTimeRegex) + ",seven"));
  EXPECT_THAT(RecordFile("clouddata_-1"), EndsWith(",minus"));
}

TEST_F(AgentMgrQueue, Record_IsOverwritten_ByTheNextEvent) {
  Load();
  Dispatch(kWorkConnect, 443, "a-long-host-name");
  Dispatch(kWorkConnect, 1, "b");
  EXPECT_THAT(RecordFile("connect"), EndsWith(",b:1"));
}

TEST_F(AgentMgrQueue, Tconf_SurvivesNullData) {
  Load();
  Dispatch(kWorkTconf, 0, nullptr);
  EXPECT_THAT(RecordFile("tconf"), MatchesRegex(std::string(kTimeRegex) + ","));
  EXPECT_TRUE(Logged("*zxagent CAgentMgr::ZxcloudTconf Warn lpszData is NULL"));
}

TEST_F(AgentMgrQueue, KindsWithoutARecord_LeaveNoFile) {
  Load();
  for (const uint32_t dwMessage : {0u, 4u, 5u, 7u, 8u, 255u, 4711u})
    Dispatch(dwMessage, 0, nullptr);
  EXPECT_TRUE(std::filesystem::is_empty(m_home.Path("data/zxagent/maint").Str()));
}

TEST_F(AgentMgrQueue, GuidList_GoesToTheTaskManager) {
  Load();
  Dispatch(kWorkGuidList, 0, "{\"a\":1}");
  ASSERT_THAT(m_bus.Calls(EBusCall::AsynSendEx), SizeIs(1));
  EXPECT_EQ(m_bus.Calls(EBusCall::AsynSendEx)[0].strData, "{\"a\":1}");
}

TEST_F(AgentMgrQueue, Pushmsg_PassesTheBusinessNumber) {
  Load();
  Dispatch(kWorkPushmsg, static_cast<uint32_t>(-5), "{}");
  EXPECT_TRUE(Logged("iPcid[-5]"));
}
