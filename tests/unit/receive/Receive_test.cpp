// Dispatch by message type, and the queries and commands that become one call of the manager.
#include <thread>

#include "receive/ReceiveFixture.h"

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

class Receive : public CReceiveTest {};

// --- Dispatch.

TEST_F(Receive, Callback_LogsEachArrival_AtDetail) {
  const unsigned char data[] = "x";
  m_receive.ReceiveCallback(GUID(kSender), 10012, data, 1, &m_baton, Context());
  ASSERT_THAT(m_log.Lines("zxagent"), SizeIs(2));
  EXPECT_EQ(m_log.Lines("zxagent")[0],
            "zxagent CAgentReceive::ReceiveCallback recv new i64MsgType[271c] recvGuid[" +
                std::string(kSender) + "] pData[" + Pointer(data) + "] uiDataLength[1] pBatonData[" +
                Pointer(&m_baton) + "] pContext[" + Pointer(Context()) + "]");
  EXPECT_EQ(m_log.Levels("zxagent")[0], 1);
}

TEST_F(Receive, Callback_SaysInvalidMsgType_WhenTypeIsUnknown) {
  EXPECT_EQ(Ask(20003, "data"), (_Answer{0xb0010061, "InvalidMsgType"}));
  EXPECT_THAT(Lines(),
              ElementsAre("3 *zxagent CAgentReceive::ReceiveCallback Error i64MsgType[4e23] recvGuid[" +
                          std::string(kSender) + "]"));
  EXPECT_THAT(m_queries.Calls(), IsEmpty());
}

TEST_F(Receive, Callback_ComparesAll64BitsOfTheType) {
  EXPECT_EQ(Ask(0x100000000L + 10012, ""), (_Answer{0xb0010061, "InvalidMsgType"}));
  EXPECT_EQ(Ask(-1, ""), (_Answer{0xb0010061, "InvalidMsgType"}));
  EXPECT_EQ(Ask(0, nullptr, 0), (_Answer{0xb0010061, "InvalidMsgType"}));
  EXPECT_THAT(Lines(), Contains(HasSubstr(" i64MsgType[10000271c] ")));
  EXPECT_THAT(Lines(), Contains(HasSubstr(" i64MsgType[ffffffffffffffff] ")));
  EXPECT_THAT(m_queries.Calls(), IsEmpty());
}

TEST_F(Receive, Callback_RepliesNothing_WithoutBatonOrContext) {
  m_receive.ReceiveCallback(GUID(kSender), 10012, nullptr, 0, nullptr, Context());
  m_receive.ReceiveCallback(GUID(kSender), 10012, nullptr, 0, &m_baton, nullptr);
  m_receive.ReceiveCallback(GUID(kSender), 77, nullptr, 0, nullptr, nullptr);
  EXPECT_THAT(m_bus.Calls(), IsEmpty());
  EXPECT_THAT(m_queries.Calls(), ElementsAre("GetConnectData()", "GetConnectData()"))
      << "the message itself is handled";
}

TEST_F(Receive, Callback_RepliesOnce_WhenTheBusRefusesTheReply) {
  m_bus.SetResult(EBusCall::Reply, kBusErrInvalid);
  Ask(10012, nullptr, 0);
  EXPECT_EQ(m_bus.Count(EBusCall::Reply), 1u);
}

TEST_F(Receive, Callback_AnswersThroughTheBus_WhenRegisteredThere) {
  m_queries.SetText("GetConnectData", "up");
  ASSERT_EQ(m_bus.Receive(10012, &CAgentReceive::m_AgentReceive), 0u);
  const auto reply = m_bus.Deliver(GUID(kSender), 10012, "");
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->uiStatus, 0u);
  EXPECT_EQ(reply->i64MsgType, 10012);
  EXPECT_EQ(reply->strData, "up");
}

TEST_F(Receive, Callback_HandlesManyThreadsAtOnce) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([this] {
      char baton = 0;
      const unsigned char data[] = {'h', ':', '1'};
      for (int iRound = 0; iRound < kRounds; ++iRound)
        for (const long i64Type :
             {20002, 10011, 10012, 10013, 10014, 10021, 10022, 1003, 10203, 20204, 20001, 5})
          m_receive.ReceiveCallback(GUID(kSender), i64Type, data, sizeof(data), &baton, Context());
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(m_bus.Count(EBusCall::Reply), static_cast<size_t>(kThreads * kRounds * 12));
  EXPECT_THAT(m_queries.Calls(), SizeIs(kThreads * kRounds * 8)) << "three refused senders, one unknown type";
}

TEST_F(Receive, Callback_AnswersAFailure_WhenMemoryIsOut) {
  m_queries.SetThrow(true);
  const struct {
    long i64MsgType;
    const char* pszReply;
  } cases[] = {{10011, "fail"}, {10012, ""}, {10013, "fail"}, {10014, "fail"},
               {10021, ""},     {10022, ""}, {1003, "fail"},  {10203, ""}};
  for (const auto& testCase : cases)
    EXPECT_EQ(Ask(testCase.i64MsgType, "h:1"), (_Answer{0xb0010003, testCase.pszReply}));
  EXPECT_THAT(Lines(), SizeIs(8));
  EXPECT_THAT(Lines(), Each(MatchesRegex("4 \\*\\*zxagent CAgentReceive::ReceiveCallback Error what\\[.+\\] "
                                         "i64MsgType\\[[0-9a-f]+\\] uiDataLength\\[3\\]")));
  EXPECT_EQ(Ask(20001, "{}", GUID(kTaskMgrGuid)), (_Answer{0xb0010003, kReplyError}));
  m_queries.SetThrow(false);
  EXPECT_EQ(Ask(10012, nullptr, 0), (_Answer{0, ""}));
}

// --- Addresses.

struct _AddressCase {
  const char* pszName;
  long i64MsgType;
  const char* pszOperation;  // of the manager
  const char* pszLogName;    // the set command logs under another name
};

void PrintTo(const _AddressCase& testCase, std::ostream* pOut) {
  *pOut << testCase.pszName;
}

class ReceiveAddress : public CReceiveTest, public ::testing::WithParamInterface<_AddressCase> {
 protected:
  std::string Prefix() const { return std::string("zxagent CAgentReceive::") + GetParam().pszLogName; }
  std::string Call(const std::string& strAddr) const {
    return std::string(GetParam().pszOperation) + "(" + strAddr + ")";
  }
};

INSTANTIATE_TEST_SUITE_P(Types, ReceiveAddress,
                         ::testing::Values(_AddressCase{"Set", 10011, "SetCloudAddr", "DisposeReconnect"},
                                           _AddressCase{"Test", 10013, "TestCloudAddr", "DisposeTestConnect"},
                                           _AddressCase{"TestLb", 10014, "TestLbCloudAddr",
                                                        "DisposeTestLbConnect"}),
                         CaseName<_AddressCase>);

TEST_P(ReceiveAddress, Succeeds_WhenTheManagerDoes) {
  EXPECT_EQ(Ask(GetParam().i64MsgType, "10.0.0.1:443"), (_Answer{0, "success"}));
  EXPECT_THAT(m_queries.Calls(), ElementsAre(Call("10.0.0.1:443")));
  EXPECT_THAT(Lines(), ElementsAre("2 " + Prefix() + " " + GetParam().pszOperation +
                                   " strAddr[10.0.0.1:443] iReplyStatus[0] recvGuid[" + kSender + "]"));
}

TEST_P(ReceiveAddress, PassesTheManagersCodeOn) {
  m_queries.SetResult(0xffffffff);
  EXPECT_EQ(Ask(GetParam().i64MsgType, "h:1"), (_Answer{0xffffffff, "fail"}));
  EXPECT_THAT(Lines(), ElementsAre("2 " + Prefix() + " " + GetParam().pszOperation +
                                   " strAddr[h:1] iReplyStatus[ffffffff] recvGuid[" + kSender + "]"));
}

TEST_P(ReceiveAddress, TakesExactlyTheLengthGiven) {
  EXPECT_EQ(Ask(GetParam().i64MsgType, "0123456789", 4), (_Answer{0, "success"}));
  EXPECT_EQ(Ask(GetParam().i64MsgType, std::string("a\0b", 3)), (_Answer{0, "success"}));
  EXPECT_THAT(m_queries.Calls(), ElementsAre(Call("0123"), Call(std::string("a\0b", 3))));
}

TEST_P(ReceiveAddress, Refuses_WithoutData) {
  const char cData = 'x';
  EXPECT_EQ(Ask(GetParam().i64MsgType, nullptr, 0), (_Answer{0xb0010002, "fail"}));
  EXPECT_EQ(Ask(GetParam().i64MsgType, nullptr, 0xffffffff), (_Answer{0xb0010002, "fail"}));
  EXPECT_EQ(Ask(GetParam().i64MsgType, &cData, 0), (_Answer{0xb0010002, "fail"}));
  EXPECT_THAT(m_queries.Calls(), IsEmpty());
  const std::string strBegin = "3 *" + Prefix() + " Error pData[";
  EXPECT_THAT(Lines(),
              ElementsAre(strBegin + "(nil)] uiDataLength[0] recvGuid[" + kSender + "]",
                          strBegin + "(nil)] uiDataLength[4294967295] recvGuid[" + kSender + "]",
                          strBegin + Pointer(&cData) + "] uiDataLength[0] recvGuid[" + kSender + "]"));
}

TEST_P(ReceiveAddress, Refuses_WithoutManager) {
  const CScopedNoQueries none;
  EXPECT_EQ(Ask(GetParam().i64MsgType, "h:1"), (_Answer{0xb0010003, "fail"}));
  EXPECT_EQ(Ask(GetParam().i64MsgType, nullptr, 0), (_Answer{0xb0010003, "fail"}))
      << "checked before the data";
  const std::string strLine = "3 *" + Prefix() + " Error pAgentMgr is NULL recvGuid[" + kSender + "]";
  EXPECT_THAT(Lines(), ElementsAre(strLine, strLine));
}

// --- Texts asked for.

struct _QueryCase {
  const char* pszName;
  long i64MsgType;
  const char* pszOperation;
  const char* pszHandler;
};

void PrintTo(const _QueryCase& testCase, std::ostream* pOut) {
  *pOut << testCase.pszName;
}

class ReceiveQuery : public CReceiveTest, public ::testing::WithParamInterface<_QueryCase> {};

INSTANTIATE_TEST_SUITE_P(
    Types, ReceiveQuery,
    ::testing::Values(_QueryCase{"Connect", 10012, "GetConnectData", "DisposeGetConnect"},
                      _QueryCase{"ClientReady", 10021, "GetClientReady", "DisposeGetClientReady"},
                      _QueryCase{"LbData", 10022, "GetLbData", "DisposeGetLbData"}),
    CaseName<_QueryCase>);

TEST_P(ReceiveQuery, AnswersTheManagersText) {
  m_queries.SetText(GetParam().pszOperation, R"({"onlineflag":"1"})");
  EXPECT_EQ(Ask(GetParam().i64MsgType, nullptr, 0), (_Answer{0, R"({"onlineflag":"1"})"}));
  EXPECT_THAT(m_queries.Calls(), ElementsAre(std::string(GetParam().pszOperation) + "()"));
  EXPECT_THAT(Lines(), ElementsAre(std::string("2 zxagent CAgentReceive::") + GetParam().pszHandler + " " +
                                   GetParam().pszOperation + " OK recvGuid[" + kSender +
                                   R"(] strReply[{"onlineflag":"1"}])"));
}

TEST_P(ReceiveQuery, AnswersTheWholeText_AndNothingForAnEmptyOne) {
  EXPECT_EQ(Ask(GetParam().i64MsgType, "ignored"), (_Answer{0, ""}));
  const std::string strText("a\0b", 3);
  m_queries.SetText(GetParam().pszOperation, strText);
  EXPECT_EQ(Ask(GetParam().i64MsgType, nullptr, 0), (_Answer{0, strText}));
}

TEST_P(ReceiveQuery, Refuses_WithoutManager) {
  const CScopedNoQueries none;
  EXPECT_EQ(Ask(GetParam().i64MsgType, nullptr, 0), (_Answer{0xb0010003, ""}));
  EXPECT_THAT(Lines(), ElementsAre(std::string("3 *zxagent CAgentReceive::") + GetParam().pszHandler +
                                   " Error pAgentMgr is NULL recvGuid[" + kSender + "]"));
}

// --- Authorisation changes and the GUID list.

TEST_F(Receive, AuthChange_AnswersTheManagersResult) {
  EXPECT_EQ(Ask(1003, nullptr, 0), (_Answer{0, "success"}));
  m_queries.SetResult(0xb0010001);
  EXPECT_EQ(Ask(1003, nullptr, 0), (_Answer{0xb0010001, "fail"}));
  EXPECT_THAT(m_queries.Calls(), ElementsAre("NotifyAuthChange()", "NotifyAuthChange()"));
  const std::string strBegin =
      "2 zxagent CAgentReceive::DisposeAuthChange NotifyAuthChange OK recvGuid[" + std::string(kSender);
  EXPECT_THAT(Lines(), ElementsAre(strBegin + "] iReplyStatus[0]", strBegin + "] iReplyStatus[b0010001]"));
}

TEST_F(Receive, AuthChange_Refuses_WithoutManager) {
  const CScopedNoQueries none;
  EXPECT_EQ(Ask(1003, nullptr, 0), (_Answer{0xb0010003, "fail"}));
  EXPECT_THAT(Lines(),
              ElementsAre("3 *zxagent CAgentReceive::DisposeAuthChange Error pAgentMgr is NULL recvGuid[" +
                          std::string(kSender) + "]"));
}

TEST_F(Receive, GuidList_AnswersTheList) {
  m_queries.SetText("GetTaskmgrGuidList", R"({"command":{}})");
  EXPECT_EQ(Ask(10203, nullptr, 0), (_Answer{0, R"({"command":{}})"}));
  m_queries.SetResult(1);
  EXPECT_EQ(Ask(10203, nullptr, 0), (_Answer{0xb0010001, R"({"command":{}})"}));
  const std::string strBegin =
      "2 zxagent CAgentReceive::DisposeGetGuidList GetTaskmgrGuidList OK recvGuid[" + std::string(kSender);
  EXPECT_THAT(Lines(), ElementsAre(strBegin + R"(] iReplyStatus[0] strReply[{"command":{}}])",
                                   strBegin + R"(] iReplyStatus[b0010001] strReply[{"command":{}}])"));
}

TEST_F(Receive, GuidList_Refuses_WithoutManager) {
  const CScopedNoQueries none;
  EXPECT_EQ(Ask(10203, nullptr, 0), (_Answer{0xb0010003, ""}));
  EXPECT_THAT(Lines(),
              ElementsAre("3 *zxagent CAgentReceive::DisposeGetGuidList Error pAgentMgr is NULL recvGuid[" +
                          std::string(kSender) + "]"));
}
