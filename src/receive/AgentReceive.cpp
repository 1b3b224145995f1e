#include "receive/AgentReceive.h"

#include <exception>

#include "data/AgentCodes.h"
#include "data/AgentHub.h"
#include "data/AgentLog.h"

CAgentReceive CAgentReceive::m_AgentReceive;

namespace {

constexpr char kReplySuccess[] = "success";
constexpr char kReplyFail[] = "fail";

CPString DataText(const unsigned char* pData, unsigned int uiDataLength) {
  return CPString(reinterpret_cast<const char*>(pData), uiDataLength);
}

const char* ReplyWord(uint32_t uiStatus) {
  return uiStatus == 0 ? kReplySuccess : kReplyFail;
}

}  // namespace

CAgentReceive::CAgentReceive() : m_guidLogCache(kLogCacheGuid), m_guidTaskMgr(kTaskMgrGuid) {}

void CAgentReceive::ReceiveCallback(const GUID& recvGuid, long i64MsgType, const unsigned char* pData,
                                    unsigned int uiDataLength, void* pBatonData, void* pContext) {
  CPString strReply;
  uint32_t iReplyStatus = 0;
  try {
    const CPString strGuid = recvGuid.ToUpper();
    LogDetail(
        "zxagent CAgentReceive::ReceiveCallback recv new i64MsgType[%llx] recvGuid[%s] pData[%p] uiDataLength[%u] pBatonData[%p] pContext[%p]",
        i64MsgType, strGuid, static_cast<const void*>(pData), uiDataLength, pBatonData, pContext);
    iReplyStatus = Dispatch(recvGuid, strGuid, i64MsgType, pData, uiDataLength, strReply);
  } catch (const std::exception& e) {
    // The reply stays the failure word that the handler began with.
    iReplyStatus = LogFailError(
        kErrNoManager,
        "**zxagent CAgentReceive::ReceiveCallback Error what[%s] i64MsgType[%llx] uiDataLength[%u]", e.what(),
        i64MsgType, uiDataLength);
  }
  if (pBatonData != nullptr && pContext != nullptr)
    static_cast<IBusContext*>(pContext)->Reply(iReplyStatus, i64MsgType, strReply.data(),
                                               static_cast<uint32_t>(strReply.GetLength()), pBatonData);
}

uint32_t CAgentReceive::Dispatch(const GUID& recvGuid, const CPString& strGuid, long i64MsgType,
                                 const unsigned char* pData, unsigned int uiDataLength, CPString& strReply) {
  switch (i64MsgType) {
    case AGENT_MSG_SYNC_LOGCACHE:
      return DisposeLogCache(recvGuid, pData, uiDataLength, strReply);
    case AGENT_MSG_SYNC_SETCONNECT:
      return DisposeSetconnect(strGuid, pData, uiDataLength, strReply);
    case AGENT_MSG_SYNC_GETCONNECT:
      return DisposeGetConnect(strGuid, strReply);
    case AGENT_MSG_SYNC_TESTCONNECT:
      return DisposeTestConnect(strGuid, pData, uiDataLength, strReply);
    case AGENT_MSG_SYNC_TESTLBCONNECT:
      return DisposeTestLbConnect(strGuid, pData, uiDataLength, strReply);
    case AGENT_MSG_SYNC_GETCLIENTREADY:
      return DisposeGetClientReady(strGuid, strReply);
    case AGENT_MSG_SYNC_GETLBDATA:
      return DisposeGetLbData(strGuid, strReply);
    case KBUS_MSG_TYPE_BST_AUTH_EVENT:
      return DisposeAuthChange(strGuid, strReply);
    case AGENT_MSG_SYNC_GETPLUGINGUID:
      return DisposeGetGuidList(strGuid, strReply);
    case AGENT_MSG_ASYNC_SENDTEMPLATE:
      return DisposeTaskMgr(recvGuid, pData, uiDataLength, strReply);
    case TASKMGR_MSG_TYPE_ASYNC:
      return DisposeAgentPolicy(recvGuid, pData, uiDataLength, strReply);
    default:
      strReply = "InvalidMsgType";
      return LogFail(kErrBusType,
                     "*zxagent CAgentReceive::ReceiveCallback Error i64MsgType[%llx] recvGuid[%s]",
                     i64MsgType, strGuid);
  }
}

uint32_t CAgentReceive::DisposeSetconnect(const CPString& strGuid, const unsigned char* pData,
                                          unsigned int uiDataLength, CPString& strReply) {
  strReply = kReplyFail;
  IAgentQueries* pAgentMgr = AgentQueries();
  if (pAgentMgr == nullptr)
    return LogFail(kErrNoManager,
                   "*zxagent CAgentReceive::DisposeReconnect Error pAgentMgr is NULL recvGuid[%s]", strGuid);
  if (pData == nullptr || uiDataLength == 0)
    return LogFail(kErrNoText,
                   "*zxagent CAgentReceive::DisposeReconnect Error pData[%p] uiDataLength[%u] recvGuid[%s]",
                   static_cast<const void*>(pData), uiDataLength, strGuid);
  const CPString strAddr = DataText(pData, uiDataLength);
  const uint32_t iReplyStatus = pAgentMgr->SetCloudAddr(strAddr);
  LogInfo("zxagent CAgentReceive::DisposeReconnect SetCloudAddr strAddr[%s] iReplyStatus[%x] recvGuid[%s]",
          strAddr, iReplyStatus, strGuid);
  strReply = ReplyWord(iReplyStatus);
  return iReplyStatus;
}

uint32_t CAgentReceive::DisposeTestConnect(const CPString& strGuid, const unsigned char* pData,
                                           unsigned int uiDataLength, CPString& strReply) {
  strReply = kReplyFail;
  IAgentQueries* pAgentMgr = AgentQueries();
  if (pAgentMgr == nullptr)
    return LogFail(kErrNoManager,
                   "*zxagent CAgentReceive::DisposeTestConnect Error pAgentMgr is NULL recvGuid[%s]",
                   strGuid);
  if (pData == nullptr || uiDataLength == 0)
    return LogFail(kErrNoText,
                   "*zxagent CAgentReceive::DisposeTestConnect Error pData[%p] uiDataLength[%u] recvGuid[%s]",
                   static_cast<const void*>(pData), uiDataLength, strGuid);
  const CPString strAddr = DataText(pData, uiDataLength);
  const uint32_t iReplyStatus = pAgentMgr->TestCloudAddr(strAddr);
  LogInfo("zxagent CAgentReceive::DisposeTestConnect TestCloudAddr strAddr[%s] iReplyStatus[%x] recvGuid[%s]",
          strAddr, iReplyStatus, strGuid);
  strReply = ReplyWord(iReplyStatus);
  return iReplyStatus;
}

uint32_t CAgentReceive::DisposeTestLbConnect(const CPString& strGuid, const unsigned char* pData,
                                             unsigned int uiDataLength, CPString& strReply) {
  strReply = kReplyFail;
  IAgentQueries* pAgentMgr = AgentQueries();
  if (pAgentMgr == nullptr)
    return LogFail(kErrNoManager,
                   "*zxagent CAgentReceive::DisposeTestLbConnect Error pAgentMgr is NULL recvGuid[%s]",
                   strGuid);
  if (pData == nullptr || uiDataLength == 0)
    return LogFail(
        kErrNoText,
        "*zxagent CAgentReceive::DisposeTestLbConnect Error pData[%p] uiDataLength[%u] recvGuid[%s]",
        static_cast<const void*>(pData), uiDataLength, strGuid);
  const CPString strAddr = DataText(pData, uiDataLength);
  const uint32_t iReplyStatus = pAgentMgr->TestLbCloudAddr(strAddr);
  LogInfo(
      "zxagent CAgentReceive::DisposeTestLbConnect TestLbCloudAddr strAddr[%s] iReplyStatus[%x] recvGuid[%s]",
      strAddr, iReplyStatus, strGuid);
  strReply = ReplyWord(iReplyStatus);
  return iReplyStatus;
}

uint32_t CAgentReceive::DisposeGetConnect(const CPString& strGuid, CPString& strReply) {
  IAgentQueries* pAgentMgr = AgentQueries();
  if (pAgentMgr == nullptr)
    return LogFail(kErrNoManager,
                   "*zxagent CAgentReceive::DisposeGetConnect Error pAgentMgr is NULL recvGuid[%s]", strGuid);
  strReply = pAgentMgr->GetConnectData();
  LogInfo("zxagent CAgentReceive::DisposeGetConnect GetConnectData OK recvGuid[%s] strReply[%s]", strGuid,
          strReply);
  return 0;
}

uint32_t CAgentReceive::DisposeGetClientReady(const CPString& strGuid, CPString& strReply) {
  IAgentQueries* pAgentMgr = AgentQueries();
  if (pAgentMgr == nullptr)
    return LogFail(kErrNoManager,
                   "*zxagent CAgentReceive::DisposeGetClientReady Error pAgentMgr is NULL recvGuid[%s]",
                   strGuid);
  strReply = pAgentMgr->GetClientReady();
  LogInfo("zxagent CAgentReceive::DisposeGetClientReady GetClientReady OK recvGuid[%s] strReply[%s]", strGuid,
          strReply);
  return 0;
}

uint32_t CAgentReceive::DisposeGetLbData(const CPString& strGuid, CPString& strReply) {
  IAgentQueries* pAgentMgr = AgentQueries();
  if (pAgentMgr == nullptr)
    return LogFail(kErrNoManager,
                   "*zxagent CAgentReceive::DisposeGetLbData Error pAgentMgr is NULL recvGuid[%s]", strGuid);
  strReply = pAgentMgr->GetLbData();
  LogInfo("zxagent CAgentReceive::DisposeGetLbData GetLbData OK recvGuid[%s] strReply[%s]", strGuid,
          strReply);
  return 0;
}

uint32_t CAgentReceive::DisposeAuthChange(const CPString& strGuid, CPString& strReply) {
  strReply = kReplyFail;
  IAgentQueries* pAgentMgr = AgentQueries();
  if (pAgentMgr == nullptr)
    return LogFail(kErrNoManager,
                   "*zxagent CAgentReceive::DisposeAuthChange Error pAgentMgr is NULL recvGuid[%s]", strGuid);
  const uint32_t iReplyStatus = pAgentMgr->NotifyAuthChange();
  LogInfo("zxagent CAgentReceive::DisposeAuthChange NotifyAuthChange OK recvGuid[%s] iReplyStatus[%x]",
          strGuid, iReplyStatus);
  strReply = ReplyWord(iReplyStatus);
  return iReplyStatus;
}

uint32_t CAgentReceive::DisposeGetGuidList(const CPString& strGuid, CPString& strReply) {
  IAgentQueries* pAgentMgr = AgentQueries();
  if (pAgentMgr == nullptr)
    return LogFail(kErrNoManager,
                   "*zxagent CAgentReceive::DisposeGetGuidList Error pAgentMgr is NULL recvGuid[%s]",
                   strGuid);
  const uint32_t iReplyStatus =
      pAgentMgr->GetTaskmgrGuidList(strReply) != 0 ? 0 : static_cast<uint32_t>(kErrGeneral);
  LogInfo(
      "zxagent CAgentReceive::DisposeGetGuidList GetTaskmgrGuidList OK recvGuid[%s] iReplyStatus[%x] strReply[%s]",
      strGuid, iReplyStatus, strReply);
  return iReplyStatus;
}
