// Policies that the task manager passes back.
#include "receive/ReceiveFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Policy : public CReceiveTest {
 protected:
  _Answer Hand(const std::string& strData, const char* pszSender = kTaskMgrGuid) {
    return Ask(20001, strData, GUID(pszSender));
  }
};

TEST_F(Policy, Text_GoesToTheManager) {
  EXPECT_EQ(Hand(std::string("{\"ID\":\"1\"}", 11)), (_Answer{0, kReplyOk}));
  EXPECT_THAT(m_queries.Calls(), ElementsAre(R"(DisposePolicy({"ID":"1"}))"));
  EXPECT_THAT(Lines(), ElementsAre(R"(1 zxagent DisposeAgentPolicy iReplyStatus[0] pData[{"ID":"1"}])"));
  EXPECT_THAT(Lines("zxlogcache"), IsEmpty());
}

TEST_F(Policy, Text_IsRefused_WhenTheManagerFails) {
  m_queries.SetResult(1);
  EXPECT_EQ(Hand("{}"), (_Answer{0xb0010001, kReplyError}));
  EXPECT_THAT(Lines(), ElementsAre("1 zxagent DisposeAgentPolicy iReplyStatus[b0010001] pData[{}]"));
}

TEST_F(Policy, Text_EndsAtItsLength_WhenItHasNoNul) {
  for (const size_t uLength : {1u, 4095u, 4096u, 4097u}) {
    const std::string strText(uLength, 'x');
    EXPECT_EQ(Hand(strText), (_Answer{0, kReplyOk}));
    EXPECT_EQ(m_queries.Calls().back(), "DisposePolicy(" + strText + ")");
    EXPECT_EQ(Lines().back(), "1 zxagent DisposeAgentPolicy iReplyStatus[0] pData[" + strText + "]");
  }
}

TEST_F(Policy, Text_EndsAtItsFirstNul) {
  EXPECT_EQ(Hand(std::string("ab\0cd", 5)), (_Answer{0, kReplyOk}));
  EXPECT_THAT(m_queries.Calls(), ElementsAre("DisposePolicy(ab)"));
}

TEST_F(Policy, Text_EndsAtItsLength_WhenMoreIsReadable) {
  EXPECT_EQ(Ask(20001, "abcdef", 3, GUID(kTaskMgrGuid)), (_Answer{0, kReplyOk}));
  EXPECT_THAT(m_queries.Calls(), ElementsAre("DisposePolicy(abc)"));
}

TEST_F(Policy, Text_MayBeEmpty) {
  EXPECT_EQ(Hand(""), (_Answer{0, kReplyOk}));
  EXPECT_EQ(Hand(std::string(1, '\0')), (_Answer{0, kReplyOk}));
  EXPECT_THAT(m_queries.Calls(), ElementsAre("DisposePolicy()", "DisposePolicy()"));
}

TEST_F(Policy, Text_MayBeAsLongAsTheBusTakes) {
  const std::string strText(kBusMaxBytes, 'x');
  EXPECT_EQ(Hand(strText), (_Answer{0, kReplyOk}));
  EXPECT_TRUE(m_queries.Calls().back() == "DisposePolicy(" + strText + ")");
}

// --- Refusals, in the order of the checks.

TEST_F(Policy, Text_IsRefused_WithoutData) {
  const CScopedNoQueries none;
  EXPECT_EQ(Ask(20001, nullptr, 9, GUID(kSender)), (_Answer{0xb0010002, kReplyError}));
  EXPECT_THAT(
      Lines(),
      ElementsAre(std::string("3 *zxagent DisposeAgentPolicy Error pData is NULL uiDataLength[9] recvGuid[") +
                  kSender + "]"));
  EXPECT_THAT(Lines("zxlogcache"), IsEmpty());
}

TEST_F(Policy, Text_IsRefused_WithoutManager) {
  const CScopedNoQueries none;
  EXPECT_EQ(Hand("{}", kSender), (_Answer{0xb0010003, kReplyError}));
  EXPECT_THAT(
      Lines(),
      ElementsAre(
          std::string("3 *zxagent DisposeAgentPolicy Error pAgentMgr is NULL uiDataLength[2] recvGuid[") +
          kSender + "]"));
}

TEST_F(Policy, Text_IsNotRead_WhenTheSenderIsAnotherComponent) {
  const CGuardedBytes nothing("");
  for (const char* pszSender : {kLogCacheGuid, kSender}) {
    m_log.Clear();
    EXPECT_EQ(Ask(20001, nothing.Data(), 4096, GUID(pszSender)), (_Answer{0xb0010062, kReplyError}));
    EXPECT_THAT(Lines(), ElementsAre(std::string("3 *zxagent DisposeAgentPolicy Error is not TaskMgr Guid "
                                                 "uiDataLength[4096] recvGuid[") +
                                     pszSender + "]"));
  }
  EXPECT_THAT(m_queries.Calls(), IsEmpty());
}
