// The conversation with the task manager and the other components: commands handed over, their results,
// outcomes of uploads, engine addresses. The list of GUIDs is in AgentMgrGuidList.cpp.
#include <cstddef>
#include <memory>
#include <new>

#include "agent/AgentCommand.h"
#include "agent/AgentMgr.h"
#include "data/AgentCodes.h"
#include "data/AgentLog.h"
#include "send/AgentCallback.h"

namespace {

// Outcome of a log-cache upload; little-endian, as every machine of the bus.
struct [[gnu::packed]] _LogCacheResult {
  uint32_t uiReserved0 = 0;
  int32_t iResult = 0;
  uint64_t u64DataId = 0;
  uint64_t u64Reserved16 = 0;
  uint64_t u64Reserved24 = 0;
};
static_assert(sizeof(_LogCacheResult) == 32);
static_assert(offsetof(_LogCacheResult, iResult) == 4);
static_assert(offsetof(_LogCacheResult, u64DataId) == 8);

// Outcome of a task-manager upload.
struct [[gnu::packed]] _TaskMgrResult {
  uint32_t uiReserved0 = 0;
  int32_t iResult = 0;
  uint64_t u64DataId = 0;
  uint64_t u64Reserved16 = 0;
  uint8_t reserved24[16] = {};
  uint64_t u64Reserved40 = 0;
};
static_assert(sizeof(_TaskMgrResult) == 48);
static_assert(offsetof(_TaskMgrResult, iResult) == 4);
static_assert(offsetof(_TaskMgrResult, u64DataId) == 8);
static_assert(offsetof(_TaskMgrResult, reserved24) == 24);
static_assert(offsetof(_TaskMgrResult, u64Reserved40) == 40);

std::unique_ptr<_SendTaskMgrData> NewSendData(unsigned long long u64DataId, const CPString& strProduct,
                                              const CPString& strCombo, const CPString& strID,
                                              const CPString& strCommand) {
  std::unique_ptr<_SendTaskMgrData> pSendData(new (std::nothrow) _SendTaskMgrData);
  if (pSendData == nullptr)
    return nullptr;
  pSendData->u64DataId = u64DataId;
  pSendData->strProduct = strProduct;
  pSendData->strCombo = strCombo;
  pSendData->strID = strID;
  pSendData->strCommand = strCommand;
  return pSendData;
}

}  // namespace

uint32_t CAgentMgr::SendPushmsgToTaskMgr(unsigned long long u64DataId, const CPString& strID,
                                         const CPString& strGuid, const CPString& strProduct,
                                         const CPString& strCombo, const CPString& strCommand,
                                         const CPString& strMsg) {
  if (m_pCompCtx == nullptr)
    return LogFailError(
        kErrNoBusContext,
        "**zxagent pushmsg Error m_pCompCtx is NULL u64DataId[%llx] strID[%s] strProduct[%s] strCombo[%s] strGuid[%s] strMsg[%s]",
        u64DataId, strID, strProduct, strCombo, strGuid, strMsg);
  std::unique_ptr<_SendTaskMgrData> pSendData =
      NewSendData(u64DataId, strProduct, strCombo, strID, strCommand);
  if (pSendData == nullptr)
    return LogFailError(
        kErrNoManager,
        "**zxagent pushmsg Error pSendData new is NULL u64DataId[%llx] strID[%s] strProduct[%s] strCombo[%s] strGuid[%s] strMsg[%s]",
        u64DataId, strID, strProduct, strCombo, strGuid, strMsg);
  const CPString strSendMsg =
      CPString::Make("<version=1><guid=%s><product=%s><combo=%s><command=%s><msg=%s>", strGuid.c_str(),
                     strProduct.c_str(), strCombo.c_str(), strCommand.c_str(), strMsg.c_str());
  LogInfo(
      "zxagent pushmsg send taskmgr Begin u64DataId[%llx] strID[%s] strProduct[%s] strCombo[%s] strCommand[%s] strGuid[%s] strSendMsg[%s]",
      u64DataId, strID, strProduct, strCombo, strCommand, strGuid, strSendMsg);
  unsigned long long ui64ACT = 0;
  const uint32_t uiRet = m_pCompCtx->AsynSendEx(&m_guidTaskMgr, AGENT_MSG_ASYNC_TASKMGR, strSendMsg.c_str(),
                                                static_cast<uint32_t>(strSendMsg.GetLength()),
                                                &CAgentAsynCallback::m_AgentAsynCallback, pSendData.get(),
                                                &ui64ACT, kBusTimeoutMs);
  if (uiRet != 0)
    return LogFailError(
        uiRet,
        "**zxagent pushmsg Error AsynSendEx u64DataId[%llx] iRet[%x] strID[%s] strProduct[%s] strCombo[%s] strCommand[%s] strGuid[%s]",
        u64DataId, uiRet, strID, strProduct, strCombo, strCommand, strGuid);
  // The completion owns the record, and may have deleted it by now.
  static_cast<void>(pSendData.release());
  LogInfo(
      "zxagent pushmsg send taskmgr End OK u64DataId[%llx] ui64ACT[%llx] strID[%s] strProduct[%s] strCombo[%s] strCommand[%s] strGuid[%s]",
      u64DataId, ui64ACT, strID, strProduct, strCombo, strCommand, strGuid);
  return 0;
}

uint32_t CAgentMgr::RecvMsgResultsFromTaskMgr(_SendTaskMgrData* pSendData) {
  if (pSendData == nullptr)
    return LogFail(kErrGeneral,
                   "*zxagent pushmsg callback Error RecvMsgResultsFromTaskMgr pSendData is NULL");
  const _SendTaskMgrData& data = *pSendData;
  if (data.iResult != 0)
    return LogFail(
        static_cast<uint32_t>(data.iResult),
        "*zxagent pushmsg callback Error RecvMsgResultsFromTaskMgr u64DataId[%llx] iResult[%x] ui64ACT[%llx] strID[%s] strProduct[%s] strCombo[%s]",
        data.u64DataId, data.iResult, data.ui64ACT, data.strID, data.strProduct, data.strCombo);
  m_AgentCache.UpdatePolicyCache(data.u64DataId, data.strID, data.strProduct, data.strCombo, data.strCommand,
                                 1);
  const uint32_t uiRet =
      SendResponseMsg(data.u64DataId, data.strProduct, data.strCombo, data.strID, kAckDoneByComponent, 0);
  if (uiRet != 0) {
    LogInfo(
        "zxagent pushmsg callback Error SendResponseMsg u64DataId[%llx] iRet[%x] ui64ACT[%llx] strID[%s] strProduct[%s] strCombo[%s]\n",
        data.u64DataId, uiRet, data.ui64ACT, data.strID, data.strProduct, data.strCombo);
    return uiRet;
  }
  LogInfo("zxagent pushmsg callback OK u64DataId[%llx] ui64ACT[%llx] strID[%s] strProduct[%s] strCombo[%s]\n",
          data.u64DataId, data.ui64ACT, data.strID, data.strProduct, data.strCombo);
  return 0;
}

uint32_t CAgentMgr::SendMsg(unsigned long long u64DataId, int iPriv, int iMsgType, const GUID& guid,
                            CPString strProduct, CPString strCombo, const char* pszMsg, unsigned int uiLen,
                            unsigned int uiKind) {
  if (strProduct.IsEmpty() || strCombo.IsEmpty()) {
    if (!m_AgentData.GetProductComboByGuid(guid, strProduct, strCombo))
      return LogFail(kErrUnknownGuid,
                     "*zxagent CAgentMgr::SendMsg Error GetProductComboByGuid u64DataId[%llx] strGuid[%s]",
                     u64DataId, guid.ToUpper());
    if (strProduct.IsEmpty() || strCombo.IsEmpty())
      return LogFail(
          kErrEmptyCombo,
          "*zxagent CAgentMgr::SendMsg Error empty u64DataId[%llx] strGuid[%s] strProduct[%s] strCombo[%s]",
          u64DataId, guid.ToUpper(), strProduct, strCombo);
  }
  m_AgentData.TransProductCombo(strProduct, strCombo);
  return m_AgentLogMsg.InsertSendMsg(strProduct, strCombo, iPriv, iMsgType, u64DataId,
                                     CPString(pszMsg, uiLen), uiKind);
}

uint32_t CAgentMgr::SendLogCacheResult(int iResult, unsigned long long u64DataId, int iPriv, int iMsgType,
                                       CPString strProduct, CPString strCombo) {
  const HLog hLog = g_hLogCache.load(std::memory_order_relaxed);
  if (m_pCompCtx == nullptr) {
    LogWarnTo(
        hLog,
        "*zxagent stepC Error m_pCompCtx is NULL iResult[%x] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
        iResult, u64DataId, iPriv, iMsgType, strProduct, strCombo);
    return kErrNoBusContext;
  }
  _LogCacheResult result;
  result.iResult = iResult;
  result.u64DataId = u64DataId;
  const GUID guidLogCache(kLogCacheGuid);
  unsigned long long ui64ACT = 0;
  const uint32_t uiRet = m_pCompCtx->AsynSendEx(
      &guidLogCache, AGENT_MSG_ASYNC_LOGCACHERESULT, &result, sizeof(result),
      &CLogCacheResultAsynCallback::m_LogCacheResultAsynCallback, nullptr, &ui64ACT, kBusTimeoutMs);
  if (uiRet != 0) {
    LogWarnTo(
        hLog,
        "*zxagent stepC Error AsynSendEx iRet[%x] iResult[%x] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
        uiRet, iResult, u64DataId, iPriv, iMsgType, strProduct, strCombo);
    return uiRet;
  }
  LogInfoTo(
      hLog,
      "zxagent stepC OK send result iResult[%x] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
      iResult, u64DataId, iPriv, iMsgType, strProduct, strCombo);
  return 0;
}

uint32_t CAgentMgr::SendTaskMgrResult(int iResult, unsigned long long u64DataId, int iPriv, int iMsgType,
                                      CPString strProduct, CPString strCombo) {
  const HLog hLog = g_hLogCache.load(std::memory_order_relaxed);
  if (m_pCompCtx == nullptr) {
    LogWarnTo(
        hLog,
        "*zxagent stepC Error SendTaskMgrResult m_pCompCtx is NULL iResult[%x] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]\n",
        iResult, u64DataId, iPriv, iMsgType, strProduct, strCombo);
    return kErrNoBusContext;
  }
  _TaskMgrResult result;
  result.iResult = iResult;
  result.u64DataId = u64DataId;
  unsigned long long ui64ACT = 0;
  const uint32_t uiRet = m_pCompCtx->AsynSendEx(
      &m_guidTaskMgr, AGENT_MSG_ASYNC_TASKMGRRESULT, &result, sizeof(result),
      &CLogCacheResultAsynCallback::m_LogCacheResultAsynCallback, nullptr, &ui64ACT, kBusTimeoutMs);
  if (uiRet != 0) {
    LogWarnTo(
        hLog,
        "*zxagent stepC Error SendTaskMgrResult AsynSendEx iRet[%x] iResult[%x] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]\n",
        uiRet, iResult, u64DataId, iPriv, iMsgType, strProduct, strCombo);
    return uiRet;
  }
  LogInfoTo(
      hLog,
      "zxagent stepC OK SendTaskMgrResult send result iResult[%x] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]\n",
      iResult, u64DataId, iPriv, iMsgType, strProduct, strCombo);
  return 0;
}

uint32_t CAgentMgr::ZxcloudSendMsg(unsigned long long u64DataId, const CPString& strProduct,
                                   const CPString& strCombo, int iPriv, int iMsgType,
                                   const CPString& strMsg) {
  const uint32_t uiRet =
      m_AgentSendMsg.ZxcloudSendMsg(strProduct, strCombo, iPriv, iMsgType, u64DataId, strMsg, 1, 0);
  if (uiRet != 0)
    return LogFail(
        uiRet,
        "*zxagent CAgentMgr::ZxcloudSendMsg Warn u64DataId[%llx] iRet[%x] strProduct[%s] strCombo[%s] strMsg[%s]\n",
        u64DataId, uiRet, strProduct, strCombo, strMsg);
  LogInfo("zxagent CAgentMgr::ZxcloudSendMsg OK u64DataId[%llx] strProduct[%s] strCombo[%s] strMsg[%s]\n",
          u64DataId, strProduct, strCombo, strMsg);
  return 0;
}

int CAgentMgr::SendEngineAddr() {
  CPStrSet strEngineAddrSet;
  m_AgentData.ReadAllEngineAddr(strEngineAddrSet);
  if (strEngineAddrSet.IsEmpty())
    return LogWarn("*zxagent CAgentMgr::SendEngineAddr Error ReadAllEngineAddr strEngineAddrSet is NULL");
  // Never updated after a send: every call with addresses broadcasts.
  if (strEngineAddrSet == m_strEngineAddrSetOld) {
    LogInfo("zxagent CAgentMgr::SendEngineAddr strEngineAddrSet same to strEngineAddrSetOld");
    return 0;
  }
  CPString strJsonStr;
  if (!m_AgentData.SaveAllEngineAddr(strEngineAddrSet, strJsonStr))
    return LogWarn(
        "*zxagent CAgentMgr::SendEngineAddr Error SaveAllEngineAddr strEngineAddrSet[%d] strJsonStr[%s]",
        static_cast<int>(strEngineAddrSet.GetCount()), strJsonStr);
  if (m_pCompCtx == nullptr)
    return LogWarn("*zxagent CAgentMgr::SendEngineAddr Error m_pCompCtx is NULL");
  const uint32_t uiRet = m_pCompCtx->BroadcastSend(AGENT_MSG_BST_ENGINEADDR, strJsonStr.c_str(),
                                                   static_cast<uint32_t>(strJsonStr.GetLength()));
  if (uiRet != 0)
    return LogWarn("*zxagent CAgentMgr::SendEngineAddr Error iRet[%x] strJsonStr[%s]", uiRet, strJsonStr);
  LogInfo("zxagent CAgentMgr::SendEngineAddr OK strJsonStr[%s]", strJsonStr);
  return 1;
}
