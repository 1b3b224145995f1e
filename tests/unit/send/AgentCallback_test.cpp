#include "send/AgentCallback.h"

#include "data/AgentRecords.h"
#include "send/SendFixture.h"
#include "support/FakeHub.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

class CThrowingHub final : public CFakeHub {
 public:
  uint32_t RecvMsgResultsFromTaskMgr(_SendTaskMgrData*) override { throw std::bad_alloc(); }
};

}  // namespace

class AgentCallback : public CSendTest {
 protected:
  // A record on the heap, as the manager makes it. The address sanitizer judges that it is deleted once.
  static _SendTaskMgrData* NewRecord() {
    auto* pSendData = new _SendTaskMgrData;
    pSendData->u64DataId = 0xab;
    pSendData->strID = "id-1";
    return pSendData;
  }

  void Answer(long i64MsgType, unsigned int iRetReply, void* pContext) {
    CAgentAsynCallback::m_AgentAsynCallback.SendCallback(iRetReply, i64MsgType, nullptr, 0, 0x77, pContext);
  }
};

TEST_F(AgentCallback, SendCallback_PassesResultAndTokenToTheManager) {
  CFakeHub hub;
  Answer(20001, 0, NewRecord());
  Answer(20001, 0x80000001u, NewRecord());
  const auto results = hub.Results();
  ASSERT_THAT(results, SizeIs(2));
  EXPECT_EQ(results[0].iResult, 0);
  EXPECT_EQ(results[0].ui64ACT, 0x77u);
  EXPECT_EQ(results[0].u64DataId, 0xabu);
  EXPECT_EQ(results[0].strID, "id-1");
  EXPECT_EQ(results[1].iResult, static_cast<int>(0x80000001u));
}

TEST_F(AgentCallback, SendCallback_WritesADetailLineFirst) {
  CFakeHub hub;
  Answer(20001, 5, NewRecord());
  ASSERT_FALSE(m_log.Lines("zxagent").empty());
  EXPECT_THAT(
      m_log.Lines("zxagent")[0],
      StartsWith("zxagent pushmsg callback recv new i64MsgType[20001] iRetReply[5] ui64ACT[77] pResponse["));
  EXPECT_EQ(m_log.Levels("zxagent")[0], 1);
}

TEST_F(AgentCallback, SendCallback_AcceptsGuidListAnswers_WithoutRecord) {
  CFakeHub hub;
  Answer(20104, 0, nullptr);
  EXPECT_THAT(hub.Results(), SizeIs(0));
  EXPECT_EQ(m_log.Lines("zxagent").back(),
            "zxagent pushmsg callback i64MsgType i64MsgType[20104] iRetReply[0] ui64ACT[77]");
  EXPECT_EQ(m_log.Levels("zxagent").back(), 2);
}

TEST_F(AgentCallback, SendCallback_LeavesTheContextAlone_WhenTheTypeIsNotItsOwn) {
  CFakeHub hub;
  _SendTaskMgrData onStack;
  Answer(20003, 0, &onStack);
  Answer(20104, 0, &onStack);
  Answer(-1, 0, &onStack);
  EXPECT_EQ(onStack.iResult, -1);
  EXPECT_THAT(hub.Results(), SizeIs(0));
  EXPECT_EQ(
      m_log.Lines("zxagent").back(),
      "*zxagent pushmsg callback Error i64MsgType NOT AGENT_MSG_ASYNC_TASKMGR i64MsgType[18446744073709551615] iRetReply[0] ui64ACT[77]");
  EXPECT_EQ(m_log.Levels("zxagent").back(), 3);
}

TEST_F(AgentCallback, SendCallback_Warns_WhenTheRecordIsMissing) {
  CFakeHub hub;
  Answer(20001, 0, nullptr);
  EXPECT_THAT(hub.Results(), SizeIs(0));
  EXPECT_EQ(m_log.Lines("zxagent").back(),
            "*zxagent pushmsg callback Error pSendData is NULL i64MsgType[20001] iRetReply[0] ui64ACT[77]");
}

TEST_F(AgentCallback, SendCallback_DeletesTheRecord_WhenTheManagerIsGone) {
  const CScopedNoHub noHub;
  Answer(20001, 3, NewRecord());
  EXPECT_EQ(
      m_log.Lines("zxagent").back(),
      "*zxagent pushmsg callback Error pAgentMgr is NULL u64DataId[ab] i64MsgType[20001] iRetReply[3] ui64ACT[77]");
}

TEST_F(AgentCallback, SendCallback_LetsNothingThrownOut_AndStillDeletesTheRecord) {
  const CThrowingHub hub;
  EXPECT_NO_THROW(Answer(20001, 0, NewRecord()));
  EXPECT_THAT(m_log.Lines("zxagent").back(), HasSubstr("callback Error exception u64DataId[ab]"));
}

TEST_F(AgentCallback, LogCacheCallback_DoesNothing) {
  CFakeHub hub;
  _SendTaskMgrData onStack;
  CLogCacheResultAsynCallback::m_LogCacheResultAsynCallback.SendCallback(1, 20003, nullptr, 0, 1, &onStack);
  EXPECT_EQ(onStack.iResult, -1);
  EXPECT_THAT(hub.Results(), SizeIs(0));
  EXPECT_THAT(m_log.Lines("zxagent"), SizeIs(0));
}
