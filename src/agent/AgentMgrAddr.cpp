// Cloud addresses set and tested from outside: over the bus, and the pending message-server setting that the
// check thread verifies.
#include "agent/AgentMgr.h"
#include "data/AgentCodes.h"
#include "data/AgentLog.h"
#include "platform/cloud/zxcloud.h"

namespace {

constexpr uint32_t kTestNotSupported = static_cast<uint32_t>(-1);
constexpr int kTestTries = 3;
constexpr int kRetrySteps = 5;
constexpr uint32_t kRetryStepMs = 1000;

// Values of m_iMsgSrvAddrSetStatus, and of the stored engine status.
constexpr int kAddrVerified = 2;
constexpr int kAddrFromBus = 3;

}  // namespace

uint32_t CAgentMgr::SetCloudAddr(CPString strAddr) {
  LogTrace("zxagent CAgentMgr::SetCloudAddr Begin strAddr[%s]", strAddr);
  if (!m_AgentData.SaveCustomCloudAddr(strAddr))
    return LogFail(kErrCustomAddrSave,
                   "*zxagent CAgentMgr::SetCloudAddr Warn SaveCustomCloudAddr iRet[%x] strAddr[%s]",
                   static_cast<uint32_t>(kErrCustomAddrSave), strAddr);
  m_AgentData.SaveEngineAddrStatus(kAddrFromBus, strAddr);
  {
    CCritLock lock(m_csStatus);
    m_strEngineAddr = strAddr;
    m_iMsgSrvAddrSetStatus = kAddrFromBus;
  }
  AddZxcloudCallbackData(kWorkEngineAddr, 0, nullptr, 0);
  if (!m_AgentData.UpdateCloudAddr(strAddr))
    return LogFail(kErrCloudAddrUpdate,
                   "*zxagent CAgentMgr::SetCloudAddr Warn UpdateCloudAddr iRet[%x] strAddr[%s]",
                   static_cast<uint32_t>(kErrCloudAddrUpdate), strAddr);
  const uint32_t iRet = InitZxcloud(1);
  if (iRet != 0)
    return LogFail(iRet, "*zxagent CAgentMgr::SetCloudAddr Warn InitZxcloud iRet[%x] strAddr[%s]", iRet,
                   strAddr);
  LogTrace("zxagent CAgentMgr::SetCloudAddr End OK strAddr[%s]", strAddr);
  return 0;
}

uint32_t CAgentMgr::TestCloudAddr(CPString strAddr) {
  LogTrace("zxagent CAgentMgr::TestCloudAddr Begin strAddr[%s]", strAddr);
  const uint32_t iRet = zxcloud_tconf_check(strAddr.c_str());
  if (iRet != 0)
    return LogFail(kErrCloudTest, "*zxagent CAgentMgr::TestCloudAddr Warn iRet[%d] strAddr[%s]", iRet,
                   strAddr);
  LogInfo("zxagent CAgentMgr::TestCloudAddr End OK strAddr[%s]", strAddr);
  return 0;
}

uint32_t CAgentMgr::TestLbCloudAddr(CPString strAddr) {
  LogTrace("zxagent CAgentMgr::TestLbCloudAddr Begin strAddr[%s]", strAddr);
  return kTestNotSupported;
}

int CAgentMgr::CheckMsgSrvAddrSet(const CPString& strAddrList) {
  CPStrList list;
  strAddrList.Split(",", list, true, true);
  for (const CPString& iterList : list) {
    for (int iTry = 1; iTry <= kTestTries; ++iTry) {
      if (TestCloudAddr(iterList) == 0) {
        LogInfo("zxagent CAgentMgr::CheckMsgSrvAddrSet OK iterList[%s]", iterList);
        return 1;
      }
      if (iTry == kTestTries)
        break;
      for (int iStep = 0; iStep < kRetrySteps && IsWorking(); ++iStep)
        m_fnSleepMs(kRetryStepMs);
      if (!IsWorking())
        return LogWarn("*zxagent CAgentMgr::CheckMsgSrvAddrSet IsWorking is FALSE iterList[%s]", iterList);
    }
  }
  return 0;
}

int CAgentMgr::ReMsgSrvAddrSet() {
  CPString strMsgSrvAddrSet;
  {
    CCritLock lock(m_csStatus);
    strMsgSrvAddrSet = m_strMsgSrvAddrSet;
  }
  if (!CheckMsgSrvAddrSet(strMsgSrvAddrSet))
    return LogWarn("*zxagent CAgentMgr::ReMsgSrvAddrSet Error CheckMsgSrvAddrSet strMsgSrvAddrSet[%s]",
                   strMsgSrvAddrSet);
  unsigned int dwEngineStatus = 0;
  CPString strEngineAddr;
  m_AgentData.ReadEngineAddrStatus(dwEngineStatus, strEngineAddr);
  if (dwEngineStatus >= kAddrVerified) {
    LogInfo("zxagent CAgentMgr::ReMsgSrvAddrSet dwEngineStatus[%d]", dwEngineStatus);
    return 0;
  }
  m_AgentData.SaveEngineAddrStatus(kAddrVerified, strMsgSrvAddrSet);
  {
    CCritLock lock(m_csStatus);
    m_iMsgSrvAddrSetStatus = kAddrVerified;
    m_strEngineAddr = strMsgSrvAddrSet;
  }
  return 1;
}
