#include <chrono>
#include <thread>

#include "platform/os/ZxThread.h"
#include "send/SendFixture.h"
#include "support/FakeHub.h"

using ::testing::ElementsAre;
using ::testing::SizeIs;

namespace {

constinit CZxThreadGroup g_group;
constexpr int kStepsPerRound = 11;  // ten pauses of a second, then the round

_ResendData* NewRecord(const char* pszMsg, int iPriv, int iMsgType = 2, int bSync = 0) {
  auto* pData = new _ResendData;
  pData->iPriv = iPriv;
  pData->iMsgType = iMsgType;
  pData->u64DataId = 5;
  pData->bSync = bSync;
  pData->strProduct = "p";
  pData->strCombo = "c";
  pData->strMsg = pszMsg;
  return pData;
}

}  // namespace

class AgentResend : public CSendTest {
 protected:
  void Round() {
    int iIdle = 0;
    for (int i = 1; i < kStepsPerRound; ++i)
      ASSERT_TRUE(m_send.ResendStep(iIdle)) << i;
    ASSERT_FALSE(m_send.ResendStep(iIdle));
    ASSERT_EQ(iIdle, 0) << "the next round is as far away as the first";
  }
};

TEST_F(AgentResend, Step_SendsNothing_BeforeTheTenthSecond) {
  CFakeHub hub;
  ASSERT_TRUE(m_send.InsertResendMsg(NewRecord("a", 1)));
  int iIdle = 0;
  for (int i = 1; i < kStepsPerRound; ++i)
    EXPECT_TRUE(m_send.ResendStep(iIdle));
  EXPECT_THAT(m_cloud.Calls(), SizeIs(0));
  EXPECT_FALSE(m_send.ResendStep(iIdle));
  EXPECT_THAT(m_cloud.Calls(), SizeIs(1));
}

TEST_F(AgentResend, Round_SendsQueuedRecordsInOrder_WithTheirOwnArguments) {
  CFakeHub hub;
  ASSERT_TRUE(m_send.InsertResendMsg(NewRecord("a", 1, 1, 1)));
  ASSERT_TRUE(m_send.InsertResendMsg(NewRecord("b", 3, 2, 0)));
  Round();
  const auto calls = m_cloud.Calls();
  ASSERT_THAT(calls, SizeIs(2));
  EXPECT_EQ(calls[0].eCall, ECloudCall::SendSync);
  EXPECT_NE(calls[0].strText.find("<product=p><combo=c>"), std::string::npos);
  EXPECT_NE(calls[0].strText.find("<PCServerJasonData=a>"), std::string::npos);
  EXPECT_EQ(calls[1].eCall, ECloudCall::Send);
  EXPECT_NE(calls[1].strText.find("<PCPluginJasonData=b>"), std::string::npos);
  Round();
  EXPECT_THAT(m_cloud.Calls(), SizeIs(2)) << "each record is sent once";
}

TEST_F(AgentResend, Round_LeavesRecordsQueued_WhileTheCloudIsNotConnected) {
  CFakeHub hub;
  hub.SetConnect(0);
  ASSERT_TRUE(m_send.InsertResendMsg(NewRecord("a", 1)));
  Round();
  EXPECT_THAT(m_cloud.Calls(), SizeIs(0));
  hub.SetConnect(1);
  Round();
  EXPECT_THAT(m_cloud.Calls(), SizeIs(1));
}

TEST_F(AgentResend, Round_LeavesRecordsQueued_WithoutManager) {
  const CScopedNoHub noHub;
  ASSERT_TRUE(m_send.InsertResendMsg(NewRecord("a", 1)));
  Round();
  EXPECT_THAT(m_cloud.Calls(), SizeIs(0));
}

TEST_F(AgentResend, Round_DropsTheFailedRecordAndEnds_WhenASendFails) {
  CFakeHub hub;
  m_cloud.QueueResults(ECloudCall::Send, {1});
  ASSERT_TRUE(m_send.InsertResendMsg(NewRecord("a", 1)));
  ASSERT_TRUE(m_send.InsertResendMsg(NewRecord("b", 2)));
  Round();
  EXPECT_THAT(m_cloud.Calls(), SizeIs(1));
  Round();
  EXPECT_EQ(Priorities(), (std::vector<int>{1, 2})) << "the failed one did not come back";
}

TEST_F(AgentResend, Round_GoesOn_WhenARecordHasAnUnknownType) {
  CFakeHub hub;
  ASSERT_TRUE(m_send.InsertResendMsg(NewRecord("a", 1, 4)));
  ASSERT_TRUE(m_send.InsertResendMsg(NewRecord("b", 2)));
  Round();
  EXPECT_EQ(Priorities(), (std::vector<int>{2}));
}

TEST_F(AgentResend, Round_HandlesOnlyWhatWasQueuedAtItsBeginning) {
  CFakeHub hub;
  m_cloud.SetHook(ECloudCall::Send, [&](const _CloudCall&) {
    EXPECT_TRUE(m_send.InsertResendMsg(NewRecord("again", 2)));
    return 0u;
  });
  ASSERT_TRUE(m_send.InsertResendMsg(NewRecord("a", 1)));
  Round();
  EXPECT_EQ(Priorities(), (std::vector<int>{1}));
}

// The leak checker of the address sanitizer is the judge of this one; without it the queue's bound is.
TEST_F(AgentResend, Destructor_DeletesQueuedRecords) {
  CAgentSendMsg sender;
  for (int i = 0; i < 100; ++i)
    ASSERT_TRUE(sender.InsertResendMsg(NewRecord("left over", i)));
}

TEST_F(AgentResend, Insert_RefusesAndDeletes_WhenTheQueueIsFull) {
  const std::string strBig(16u << 20, 'x');
  int iAccepted = 0;
  while (iAccepted < 100 && m_send.InsertResendMsg(NewRecord(strBig.c_str(), 1)))
    ++iAccepted;
  EXPECT_GT(iAccepted, 0);
  EXPECT_LT(iAccepted, 100);
}

TEST_F(AgentResend, Thread_RunsUntilItsStatusChanges) {
  CFakeHub hub;
  EXPECT_EQ(m_send.GetResendStatus(), 0);
  pthread_t hThread = 0;
  ASSERT_EQ(g_group.Create(&hThread, &CAgentSendMsg::ReSendMsgThread, &m_send), 0);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (m_send.GetResendStatus() != 1 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::yield();
  ASSERT_EQ(m_send.GetResendStatus(), 1);
  EXPECT_THAT(m_log.Lines("zxagent"),
              ::testing::Contains("zxagent CAgentMgr::ReSendFailSendMsgThread Begin"));
  m_send.SetResendStatus(0);
  ASSERT_TRUE(g_group.Wait(10000));
  EXPECT_EQ(m_send.GetResendStatus(), 2);
}

TEST_F(AgentResend, Thread_Ends_WithoutSender) {
  CFakeHub hub;
  pthread_t hThread = 0;
  ASSERT_EQ(g_group.Create(&hThread, &CAgentSendMsg::ReSendMsgThread, nullptr), 0);
  ASSERT_TRUE(g_group.Wait(10000));
  EXPECT_EQ(m_log.Lines("zxagent").back(), "**zxagent CAgentSendMsg::ReSendMsgThread pThis is NULL");
  EXPECT_EQ(m_log.Levels("zxagent").back(), 4);
}

TEST_F(AgentResend, Thread_Ends_WithoutManager) {
  const CScopedNoHub noHub;
  pthread_t hThread = 0;
  ASSERT_EQ(g_group.Create(&hThread, &CAgentSendMsg::ReSendMsgThread, &m_send), 0);
  ASSERT_TRUE(g_group.Wait(10000));
  EXPECT_EQ(m_log.Lines("zxagent").back(), "**zxagent CAgentSendMsg::ReSendMsgThread pAgentMgr is NULL");
  EXPECT_EQ(m_send.GetResendStatus(), 0);
}

TEST_F(AgentResend, Thread_CanBeCancelledInItsPause) {
  CFakeHub hub;
  pthread_t hThread = 0;
  ASSERT_EQ(g_group.Create(&hThread, &CAgentSendMsg::ReSendMsgThread, &m_send), 0);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (m_send.GetResendStatus() != 1 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::yield();
  ASSERT_EQ(m_send.GetResendStatus(), 1);
  ASSERT_EQ(pthread_cancel(hThread), 0);
  ASSERT_TRUE(g_group.Wait(10000));
  EXPECT_EQ(m_send.GetResendStatus(), 1) << "a cancelled thread does not say that it ended";
}
