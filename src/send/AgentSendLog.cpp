// Every line of a send has two forms: the agent log carries the body at the end of the line, the log-cache
// channel has a line without it and the body in a second line at the detail level.
#include "data/AgentLog.h"
#include "data/AgentTools.h"
#include "send/AgentSendCall.h"

namespace {

HLog CacheLog() {
  return g_hLogCache.load(std::memory_order_relaxed);
}

void LogTypeBody(const _SendCall& call, const CPString& strMsg) {
  LogDetailTo(CacheLog(), "zxagent ZxcloudSendMsg Type u64DataId[%llx] strSendMsg[%s]", call.u64DataId,
              strMsg);
}

}  // namespace

void LogSendBody(const _SendCall& call, const char* pszFunction, const CPString& strSendMsg) {
  LogDetailTo(CacheLog(), "zxagent ZxcloudSendMsg %s u64DataId[%llx] strSendMsg[%s]", pszFunction,
              call.u64DataId, strSendMsg);
}

void LogSendErrorBody(const _SendCall& call, const char* pszFunction, const CPString& strSendMsg) {
  LogDetailTo(CacheLog(), "zxagent ZxcloudSendMsg Error %s u64DataId[%llx] strSendMsg[%s]", pszFunction,
              call.u64DataId, strSendMsg);
}

void LogTagError(const _SendCall& call, const CPString& strMsg) {
  const CPString strRefused = CAgentTools::RefusedText(strMsg);
  if (call.bLogCache == 0) {
    LogWarn(
        "*zxagent ZxcloudSendMsg Error GetCloudTag Error bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s] strMsg[%s]",
        call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo, strRefused);
    return;
  }
  LogWarnTo(
      CacheLog(),
      "*zxagent stepB ZxcloudSendMsg Error GetCloudTag Error bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
      call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
  LogTypeBody(call, strRefused);
}

void LogTypeError(const _SendCall& call, const CPString& strMsg) {
  if (call.bLogCache == 0) {
    LogWarn(
        "*zxagent ZxcloudSendMsg Error iMsgType Error bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s] strMsg[%s]",
        call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo, strMsg);
    return;
  }
  LogWarnTo(
      CacheLog(),
      "*zxagent stepB ZxcloudSendMsg Error iMsgType Error bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
      call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
  LogTypeBody(call, strMsg);
}

void LogMainError(const _SendCall& call, const _MainSend& main, const CPString& strSendMsg) {
  if (call.bLogCache == 0) {
    LogWarn(
        "*zxagent ZxcloudSendMsg Error %s iStatus[%d] ExecNumber[%d] SendTime[%d] bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s] strSendMsg[%s]",
        main.pszFunction, main.iStatus, main.iExecNumber, main.iSendTime, call.bSync, call.u64DataId,
        call.iPriv, call.iMsgType, call.strProduct, call.strCombo, strSendMsg);
    return;
  }
  LogWarnTo(
      CacheLog(),
      "*zxagent stepB ZxcloudSendMsg Error %s iStatus[%d] ExecNumber[%d] SendTime[%d] bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
      main.pszFunction, main.iStatus, main.iExecNumber, main.iSendTime, call.bSync, call.u64DataId,
      call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
  LogSendErrorBody(call, main.pszFunction, strSendMsg);
}

void LogMainOk(const _SendCall& call, const _MainSend& main, int iPubmsgReportType,
               const CPString& strSendMsg) {
  if (call.bLogCache == 0) {
    LogInfo(
        "zxagent ZxcloudSendMsg OK %s ExecNumber[%d] SendTime[%d] iPubmsgReportType[%d] bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s] strSendMsg[%s]",
        main.pszFunction, main.iExecNumber, main.iSendTime, iPubmsgReportType, call.bSync, call.u64DataId,
        call.iPriv, call.iMsgType, call.strProduct, call.strCombo, strSendMsg);
    return;
  }
  LogInfoTo(
      CacheLog(),
      "zxagent stepB ZxcloudSendMsg OK %s ExecNumber[%d] SendTime[%d] iPubmsgReportType[%d] bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
      main.pszFunction, main.iExecNumber, main.iSendTime, iPubmsgReportType, call.bSync, call.u64DataId,
      call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
  LogSendBody(call, main.pszFunction, strSendMsg);
}
