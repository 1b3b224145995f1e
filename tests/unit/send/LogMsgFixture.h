// An upload queue with its sender, over the fake cloud library, and a fake manager that is told the outcomes.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <time.h>

#include <functional>
#include <string>
#include <vector>

#include "data/AgentCodes.h"
#include "data/AgentThreads.h"
#include "send/AgentLogMsg.h"
#include "send/AgentSendMsg.h"
#include "support/FakeCloud.h"
#include "support/FakeHub.h"
#include "support/LogChannels.h"
#include "support/Waiter.h"

inline void PauseMs(long lMs) {
  const timespec tsPause{lMs / 1000, lMs % 1000 * 1000000};
  nanosleep(&tsPause, nullptr);
}

class CLogMsgTest : public ::testing::Test {
 protected:
  CLogMsgTest() {
    m_cloud.Reset();
    m_log.Clear();
  }
  ~CLogMsgTest() override {
    m_release.Set();
    m_logMsg.Uninit();
    EXPECT_TRUE(AgentThreads().Wait(kTestDeadlineMs));
    m_cloud.Reset();
  }

  uint32_t Insert(unsigned long long u64DataId, const CPString& strMsg = "body", uint32_t uiKind = 1) {
    return m_logMsg.InsertSendMsg("Scan", "One", 3, 2, u64DataId, strMsg, uiKind);
  }
  // Every send waits until the test releases it.
  void HoldSends() {
    m_cloud.SetHook(ECloudCall::SendSync, [this](const _CloudCall&) {
      m_release.Wait();
      return 0u;
    });
  }
  bool WaitSends(size_t uCount) { return m_cloud.WaitCount(ECloudCall::SendSync, uCount); }
  size_t Sends() { return m_cloud.Count(ECloudCall::SendSync); }
  bool WaitEnded(size_t uWorkers) {
    return EventuallyTrue([&] { return Count("CAgentLogMsg::LogThread End iIndex[") >= uWorkers; });
  }
  // What the stop does in each of its pauses; the argument counts from 1.
  void OnPause(std::function<void(int iPass)> fn) { m_fnOnPause = std::move(fn); }
  size_t Count(const std::string& strPart) const { return m_log.Capture().Count(strPart); }

  // Lines of a channel as "level text".
  std::vector<std::string> Lines(const std::string& strChannel = "zxagent") const {
    std::vector<std::string> lines;
    for (const CLogCapture::CEntry& entry : m_log.Capture().Entries()) {
      if (entry.strChannel == strChannel)
        lines.push_back(std::to_string(entry.iLevel) + " " + entry.strText);
    }
    return lines;
  }

  CLogChannels m_log;
  CFakeHub m_hub;
  CFakeCloud& m_cloud = CFakeCloud::Get();
  CEventWaiter m_release;
  std::vector<uint32_t> m_pauses;  // lengths of the stop's pauses
  std::function<void(int)> m_fnOnPause = [](int) { PauseMs(20); };
  CAgentSendMsg m_send;
  CAgentLogMsg m_logMsg{[this](uint32_t dwMs) {
    m_pauses.push_back(dwMs);
    m_fnOnPause(static_cast<int>(m_pauses.size()));
  }};
};
