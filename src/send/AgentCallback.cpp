#include "send/AgentCallback.h"

#include <exception>
#include <memory>

#include "data/AgentCodes.h"
#include "data/AgentHub.h"
#include "data/AgentLog.h"
#include "data/AgentRecords.h"

constinit CAgentAsynCallback CAgentAsynCallback::m_AgentAsynCallback;
constinit CLogCacheResultAsynCallback CLogCacheResultAsynCallback::m_LogCacheResultAsynCallback;

void CAgentAsynCallback::SendCallback(unsigned int iRetReply, long i64MsgType, const unsigned char* pResponse,
                                      unsigned int uiResponseLength, unsigned long long ui64ACT,
                                      void* pContext) {
  LogDetail(
      "zxagent pushmsg callback recv new i64MsgType[%llu] iRetReply[%x] ui64ACT[%llx] pResponse[%p] uiResponseLength[%u] pContext[%p]",
      i64MsgType, iRetReply, ui64ACT, pResponse, uiResponseLength, pContext);
  if (i64MsgType == AGENT_MSG_ASYNC_GUIDLIST) {
    LogInfo("zxagent pushmsg callback i64MsgType i64MsgType[%llu] iRetReply[%x] ui64ACT[%llx]", i64MsgType,
            iRetReply, ui64ACT);
    return;
  }
  if (i64MsgType != AGENT_MSG_ASYNC_TASKMGR) {
    // Not ours to free: only sends of the task-manager type carry a record.
    LogWarn(
        "*zxagent pushmsg callback Error i64MsgType NOT AGENT_MSG_ASYNC_TASKMGR i64MsgType[%llu] iRetReply[%x] ui64ACT[%llx]",
        i64MsgType, iRetReply, ui64ACT);
    return;
  }
  const std::unique_ptr<_SendTaskMgrData> pSendData(static_cast<_SendTaskMgrData*>(pContext));
  if (pSendData == nullptr) {
    LogWarn("*zxagent pushmsg callback Error pSendData is NULL i64MsgType[%llu] iRetReply[%x] ui64ACT[%llx]",
            i64MsgType, iRetReply, ui64ACT);
    return;
  }
  pSendData->iResult = static_cast<int>(iRetReply);
  pSendData->ui64ACT = ui64ACT;
  IAgentHub* pAgentMgr = AgentHub();
  if (pAgentMgr == nullptr) {
    LogWarn(
        "*zxagent pushmsg callback Error pAgentMgr is NULL u64DataId[%llx] i64MsgType[%llu] iRetReply[%x] ui64ACT[%llx]",
        pSendData->u64DataId, i64MsgType, iRetReply, ui64ACT);
    return;
  }
  try {
    pAgentMgr->RecvMsgResultsFromTaskMgr(pSendData.get());
  } catch (const std::exception& e) {
    LogWarn("*zxagent pushmsg callback Error exception u64DataId[%llx] ui64ACT[%llx] what[%s]",
            pSendData->u64DataId, ui64ACT, e.what());
  }
}
