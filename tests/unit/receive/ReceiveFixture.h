// The bus receiver between a fake bus and a fake manager. Messages are handed to it the way the bus does.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "data/AgentCodes.h"
#include "receive/AgentReceive.h"
#include "support/FakeBus.h"
#include "support/FakeQueries.h"
#include "support/GuardedBytes.h"
#include "support/LogChannels.h"

inline constexpr char kSender[] = "0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9";
inline constexpr char kReplyOk[] = "agent_reply_okok";
inline constexpr char kReplyError[] = "agent_reply_erro";

// Names the cases of a table by their pszName.
template <class T>
std::string CaseName(const ::testing::TestParamInfo<T>& testInfo) {
  return testInfo.param.pszName;
}

class CReceiveTest : public ::testing::Test {
 protected:
  // What the sender gets.
  struct _Answer {
    uint32_t uiStatus = 0;
    std::string strReply;
    bool operator==(const _Answer& other) const {
      return uiStatus == other.uiStatus && strReply == other.strReply;
    }
    friend void PrintTo(const _Answer& answer, std::ostream* pOut) {
      *pOut << std::hex << answer.uiStatus << " " << answer.strReply;
    }
  };

  CReceiveTest() { m_log.Clear(); }

  // One message whose sender waits; a failure unless it gets exactly one reply.
  _Answer Ask(long i64MsgType, const void* pData, unsigned int uiLength, const GUID& guid = GUID(kSender)) {
    const size_t uBefore = m_bus.Count(EBusCall::Reply);
    m_receive.ReceiveCallback(guid, i64MsgType, static_cast<const unsigned char*>(pData), uiLength, &m_baton,
                              Context());
    const std::vector<_BusCall> replies = m_bus.Calls(EBusCall::Reply);
    EXPECT_EQ(replies.size(), uBefore + 1);
    if (replies.size() <= uBefore)
      return {};
    EXPECT_EQ(replies.back().pBatonData, &m_baton);
    EXPECT_EQ(replies.back().i64MsgType, i64MsgType);
    return {replies.back().uiType, replies.back().strData};
  }
  // The data stands at the end of the readable memory.
  _Answer Ask(long i64MsgType, const std::string& strData, const GUID& guid = GUID(kSender)) {
    const CGuardedBytes bytes(strData);
    return Ask(i64MsgType, bytes.Data(), bytes.Length(), guid);
  }

  void* Context() { return static_cast<IBusContext*>(&m_bus); }

  // Lines of a channel as "level text", without the line on each message that arrives.
  std::vector<std::string> Lines(const std::string& strChannel = "zxagent") const {
    std::vector<std::string> lines;
    for (const CLogCapture::CEntry& entry : m_log.Capture().Entries()) {
      if (entry.strChannel == strChannel &&
          entry.strText.find("ReceiveCallback recv new") == std::string::npos)
        lines.push_back(std::to_string(entry.iLevel) + " " + entry.strText);
    }
    return lines;
  }

  static std::string Pointer(const void* p) { return CPString::Make("%p", p).Str(); }

  CLogChannels m_log;
  CFakeBus m_bus;
  CFakeQueries m_queries;
  CAgentReceive& m_receive = CAgentReceive::m_AgentReceive;
  char m_baton = 0;  // its address is the baton
};
