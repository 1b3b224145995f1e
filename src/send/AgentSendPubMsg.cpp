// The public-message second send. Eight outcomes (four reasons, sent or refused), each with its line in both
// forms.
#include "data/AgentLog.h"
#include "platform/cloud/zxcloud.h"
#include "send/AgentSendCall.h"

namespace {

HLog CacheLog() {
  return g_hLogCache.load(std::memory_order_relaxed);
}

enum class EPubMsg { None, ServerData, PluginData, Both, CloudTag };

// The first bit that is set decides, also when it then sends nothing for this type.
EPubMsg ReasonOf(int iMsgType, int iPubmsgReportType) {
  if (iMsgType == kSendCloudTags)
    return EPubMsg::CloudTag;
  if ((iPubmsgReportType & kReportServerData) != 0)
    return iMsgType == kSendServerData ? EPubMsg::ServerData : EPubMsg::None;
  if ((iPubmsgReportType & kReportPluginData) != 0)
    return iMsgType == kSendPluginData ? EPubMsg::PluginData : EPubMsg::None;
  return (iPubmsgReportType & kReportBoth) != 0 ? EPubMsg::Both : EPubMsg::None;
}

void LogPriority(const _SendCall& call) {
  if (call.bLogCache == 0) {
    LogDetailWarn(
        "*zxagent ZxcloudSendMsg SendPubMsg Warn bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
        call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
    return;
  }
  LogDetailWarnTo(
      CacheLog(),
      "*zxagent stepB ZxcloudSendMsg SendPubMsg Warn bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
      call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
}

void LogServerData(const _SendCall& call, int iRet) {
  if (call.bLogCache == 0) {
    if (iRet == 0)
      LogDetail(
          "zxagent ZxcloudSendMsg SendPubMsg OK ServerData zxcloud_send bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
          call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
    else
      LogDetailWarn(
          "*zxagent ZxcloudSendMsg SendPubMsg Warn ServerData zxcloud_send iRet[%d] bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
          iRet, call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
    return;
  }
  if (iRet == 0)
    LogDetailTo(
        CacheLog(),
        "zxagent stepB ZxcloudSendMsg SendPubMsg OK ServerData zxcloud_send bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
        call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
  else
    LogDetailWarnTo(
        CacheLog(),
        "*zxagent stepB ZxcloudSendMsg SendPubMsg Warn ServerData zxcloud_send iRet[%d] bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
        iRet, call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
}

void LogPluginData(const _SendCall& call, int iRet) {
  if (call.bLogCache == 0) {
    if (iRet == 0)
      LogDetail(
          "zxagent ZxcloudSendMsg SendPubMsg OK PluginData zxcloud_send bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
          call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
    else
      LogDetailWarn(
          "*zxagent ZxcloudSendMsg SendPubMsg Warn PluginData zxcloud_send iRet[%d] bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
          iRet, call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
    return;
  }
  if (iRet == 0)
    LogDetailTo(
        CacheLog(),
        "zxagent stepB ZxcloudSendMsg SendPubMsg OK PluginData zxcloud_send bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
        call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
  else
    LogDetailWarnTo(
        CacheLog(),
        "*zxagent stepB ZxcloudSendMsg SendPubMsg Warn PluginData zxcloud_send iRet[%d] bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
        iRet, call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
}

void LogBoth(const _SendCall& call, int iRet) {
  if (call.bLogCache == 0) {
    if (iRet == 0)
      LogDetail(
          "zxagent CAgentSendMsg::ZxcloudSendMsg SendPubMsg OK Both zxcloud_send bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
          call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
    else
      LogDetailWarn(
          "*zxagent CAgentSendMsg::ZxcloudSendMsg SendPubMsg Warn Both zxcloud_send iRet[%d] bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
          iRet, call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
    return;
  }
  if (iRet == 0)
    LogDetailTo(
        CacheLog(),
        "zxagent stepB CAgentSendMsg::ZxcloudSendMsg SendPubMsg OK Both zxcloud_send bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
        call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
  else
    LogDetailWarnTo(
        CacheLog(),
        "*zxagent stepB CAgentSendMsg::ZxcloudSendMsg SendPubMsg Warn Both zxcloud_send iRet[%d] bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
        iRet, call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
}

void LogCloudTag(const _SendCall& call, int iRet, const CPString& strSendMsg) {
  if (call.bLogCache == 0) {
    if (iRet == 0)
      LogDetail(
          "zxagent CAgentSendMsg::ZxcloudSendMsg SendPubMsg OK CloudTag zxcloud_send bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s] strSendMsg[%s]",
          call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo, strSendMsg);
    else
      LogDetailWarn(
          "*zxagent CAgentSendMsg::ZxcloudSendMsg SendPubMsg Warn CloudTag zxcloud_send iRet[%d] bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s] strSendMsg[%s]",
          iRet, call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo,
          strSendMsg);
    return;
  }
  if (iRet == 0) {
    LogDetailTo(
        CacheLog(),
        "zxagent stepB CAgentSendMsg::ZxcloudSendMsg SendPubMsg OK CloudTag zxcloud_send bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
        call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
    LogSendBody(call, "zxcloud_send", strSendMsg);
  } else {
    LogDetailWarnTo(
        CacheLog(),
        "*zxagent stepB CAgentSendMsg::ZxcloudSendMsg SendPubMsg Warn CloudTag zxcloud_send iRet[%d] bSync[%d] u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s]",
        iRet, call.bSync, call.u64DataId, call.iPriv, call.iMsgType, call.strProduct, call.strCombo);
    LogSendErrorBody(call, "zxcloud_send", strSendMsg);
  }
}

}  // namespace

void SendPubMsg(const _SendCall& call, int iPubmsgReportType, const CPString& strSendMsg) {
  int iPubPriv = 0;
  if (call.iPriv >= 0 && call.iPriv <= 3) {
    iPubPriv = call.iPriv + 10;
  } else {
    LogPriority(call);
    if (call.iMsgType != kSendCloudTags)
      return;
  }
  const EPubMsg eReason = ReasonOf(call.iMsgType, iPubmsgReportType);
  if (eReason == EPubMsg::None)
    return;
  const int iRet =
      static_cast<int>(zxcloud_send(strSendMsg.c_str(), static_cast<int>(strSendMsg.GetLength()), iPubPriv));
  switch (eReason) {
    case EPubMsg::ServerData:
      LogServerData(call, iRet);
      break;
    case EPubMsg::PluginData:
      LogPluginData(call, iRet);
      break;
    case EPubMsg::Both:
      LogBoth(call, iRet);
      break;
    case EPubMsg::CloudTag:
      LogCloudTag(call, iRet, strSendMsg);
      break;
    case EPubMsg::None:
      break;
  }
}
