// A sender over the fake cloud library.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "data/AgentCodes.h"
#include "send/AgentSendMsg.h"
#include "support/FakeCloud.h"
#include "support/LogChannels.h"

// Names the cases of a table by their pszName.
template <class T>
std::string CaseName(const ::testing::TestParamInfo<T>& testInfo) {
  return testInfo.param.pszName;
}

class CSendTest : public ::testing::Test {
 protected:
  CSendTest() {
    m_cloud.Reset();
    m_send.SetMid("mid-1", "mid-2");
    m_send.SetChannelId("chan", "partner");
    m_send.SetVersion("Debian 12", "10.0.1");
    m_log.Clear();  // tests see the lines of their own calls only
  }

  uint32_t Send(int iMsgType, int iPriv, int bSync, const char* pszMsg = "{\"k\":1}", int bLogCache = 0) {
    return m_send.ZxcloudSendMsg("prod", "comb", iPriv, iMsgType, 0x1f, pszMsg, bSync, bLogCache);
  }

  // Priorities of the sends so far; blocking ones as they are, non-blocking ones too.
  std::vector<int> Priorities() const {
    std::vector<int> priorities;
    for (const _CloudCall& call : m_cloud.Calls())
      priorities.push_back(call.iPriority);
    return priorities;
  }

  CLogChannels m_log;  // all lines, every level
  CFakeCloud& m_cloud = CFakeCloud::Get();
  CAgentSendMsg m_send;
};
