#include "send/AgentSendMsg.h"

#include <memory>

#include "data/AgentCodes.h"
#include "data/AgentLog.h"
#include "platform/cloud/zxcloud.h"
#include "platform/os/ZxTime.h"
#include "send/AgentSendCall.h"

namespace {

constexpr int kSendTimeoutMs = 100000;
constexpr char kPollProductId[] = "Ent_veltEPP145433958";  // of the query, not the channel id

// Lengths fit: whatever reaches a send is bounded far below 2 GiB (documents 64 MiB, bus data 8 MiB).
int LengthOf(const CPString& str) {
  return static_cast<int>(str.GetLength());
}

_MainSend SendMain(const _SendCall& call, const CPString& strSendMsg) {
  const uint64_t u64Begin = ZxGetTickCount();
  const uint32_t uiStatus =
      call.bSync != 0
          ? zxcloud_send_sync(strSendMsg.c_str(), LengthOf(strSendMsg), call.iPriv, kSendTimeoutMs)
          : zxcloud_send(strSendMsg.c_str(), LengthOf(strSendMsg), call.iPriv);
  const uint64_t u64End = ZxGetTickCount();
  return {call.bSync != 0 ? "zxcloud_send_sync" : "zxcloud_send", static_cast<int>(uiStatus), 1,
          static_cast<int>(u64End - u64Begin)};
}

}  // namespace

CAgentSendMsg::CAgentSendMsg() : m_hEventResend(ZxCreateEvent()) {
  ZxMsgQueueInit(m_queueResend);
}

CAgentSendMsg::~CAgentSendMsg() {
  ZxMsgRecord record;
  while (ZxGetMsgFromQueue(m_queueResend, record, 0))
    delete static_cast<_ResendData*>(record.pData);
  ZxMsgQueueFini(m_queueResend);
  ZxDestroyEvent(m_hEventResend);
}

int CAgentSendMsg::Init() {
  return 1;
}

int CAgentSendMsg::Uninit() {
  return 1;
}

void CAgentSendMsg::SetMid(const CPString& strMid1, const CPString& strMid2) {
  {
    CCritLock lock(m_csIdentity);
    m_strMid1 = strMid1;
    m_strMid2 = strMid2;
  }
  LogTrace("zxagent CAgentSendMsg::SetMid strMid1[%s] strMid2[%s]", strMid1, strMid2);
}

void CAgentSendMsg::GetMid(CPString& strMid1, CPString& strMid2) {
  CCritLock lock(m_csIdentity);
  strMid1 = m_strMid1;
  strMid2 = m_strMid2;
}

void CAgentSendMsg::SetChannelId(const CPString& strChannelId, const CPString& strIpartner) {
  {
    CCritLock lock(m_csChannel);
    m_strChannelId = strChannelId;
    m_strIpartner = strIpartner;
  }
  LogTrace("zxagent CAgentSendMsg::SetChannelId strChannelId[%s] strIpartner[%s]", strChannelId, strIpartner);
}

void CAgentSendMsg::GetChannelId(CPString& strChannelId, CPString& strIpartner) {
  CCritLock lock(m_csChannel);
  strChannelId = m_strChannelId;
  strIpartner = m_strIpartner;
}

void CAgentSendMsg::SetVersion(const CPString& strSysVer, const CPString& strVersion) {
  {
    CCritLock lock(m_csIdentity);
    m_strSysVer = strSysVer;
    m_strVersion = strVersion;
  }
  LogTrace("zxagent CAgentSendMsg::SetVersion strSysVer[%s] strVersion[%s]", strSysVer, strVersion);
}

void CAgentSendMsg::SetPubmsgReportType(int iPubmsgReportType) {
  m_iPubmsgReportType.store(iPubmsgReportType, std::memory_order_relaxed);
  LogTrace("zxagent CAgentSendMsg::SetPubmsgReportType iPubmsgReportType[%d]", iPubmsgReportType);
}

// pszKey null: the tag variant. Field order and fixed fields are part of the cloud's protocol; values stand
// in it as they are.
CPString CAgentSendMsg::FormatHeader(const _SendCall& call, const char* pszKey, const CPString& strMsg,
                                     const CPString& strTags) {
  CPString strChannelId;
  CPString strIpartner;
  GetChannelId(strChannelId, strIpartner);
  CPString strMid1;
  CPString strMid2;
  CPString strSysVer;
  CPString strVersion;
  {
    CCritLock lock(m_csIdentity);
    strMid1 = m_strMid1;
    strMid2 = m_strMid2;
    strSysVer = m_strSysVer;
    strVersion = m_strVersion;
  }
  CPString strHeader;
  if (pszKey == nullptr) {
    strHeader.Format(
        "<mid=%s><m2=%s><v=2><product=%s><combo=%s><ipartner=%s><pa=linux><pid=%s><sysver=%s><version=%s><PCPluginVersion=1.0.0.2005>",
        strMid1.c_str(), strMid2.c_str(), call.strProduct.c_str(), call.strCombo.c_str(), strIpartner.c_str(),
        strChannelId.c_str(), strSysVer.c_str(), strVersion.c_str());
    strHeader += strTags;
  } else {
    strHeader.Format(
        "<mid=%s><m2=%s><v=2><product=%s><combo=%s><ipartner=%s><pa=linux><pid=%s><sysver=%s><version=%s><%s=%s><PCPluginVersion=1.0.0.2005>",
        strMid1.c_str(), strMid2.c_str(), call.strProduct.c_str(), call.strCombo.c_str(), strIpartner.c_str(),
        strChannelId.c_str(), strSysVer.c_str(), strVersion.c_str(), pszKey, strMsg.c_str());
  }
  return strHeader;
}

uint32_t CAgentSendMsg::ZxcloudSendMsg(const CPString& strProduct, const CPString& strCombo, int iPriv,
                                       int iMsgType, unsigned long long u64DataId, const CPString& strMsg,
                                       int bSync, int bLogCache) {
  const _SendCall call{strProduct, strCombo, iPriv, iMsgType, u64DataId, bSync, bLogCache};
  const char* pszKey = nullptr;
  CPString strTags;
  switch (iMsgType) {
    case kSendServerData:
      pszKey = "PCServerJasonData";
      break;
    case kSendPluginData:
      pszKey = "PCPluginJasonData";
      break;
    case kSendCloudTags: {
      const uint32_t uiRet = GetCloudTag(strMsg, strTags);
      if (uiRet != 0) {
        LogTagError(call, strMsg);
        return uiRet;
      }
      break;
    }
    default:
      LogTypeError(call, strMsg);
      return kErrCloudMsgType;
  }

  const CPString strSendMsg = FormatHeader(call, pszKey, strMsg, strTags);
  if (iMsgType == kSendCloudTags) {
    SendPubMsg(call, m_iPubmsgReportType.load(std::memory_order_relaxed), strSendMsg);
    return 0;
  }
  const _MainSend main = SendMain(call, strSendMsg);
  if (main.iStatus != 0) {
    LogMainError(call, main, strSendMsg);
    return bSync != 0 ? kErrCloudSendSync : kErrCloudSend;
  }
  const int iPubmsgReportType = m_iPubmsgReportType.load(std::memory_order_relaxed);
  LogMainOk(call, main, iPubmsgReportType, strSendMsg);
  if ((iPubmsgReportType & kReportEnabled) != 0)
    SendPubMsg(call, iPubmsgReportType, strSendMsg);
  return 0;
}

uint32_t CAgentSendMsg::ZxcloudPollMessage(int bVerbose, const CPString& strBusinessId) {
  CPString strMid1;
  CPString strMid2;
  GetMid(strMid1, strMid2);
  CPString strPollMsg;
  strPollMsg.Format(
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
      "<message>\n"
      "\t<product>veltsafe</product>\n"
      "\t<combo>Unknown</combo>\n"
      "\t<uv>1</uv>\n"
      "\t<client_ver>1.0.0.2631</client_ver>\n"
      "\t<mid>%s</mid>\n"
      "\t<m2>%s</m2>\n"
      "\t<pid>%s</pid>\n"
      "\t<push_msg_query>\n"
      "\t\t<pre_push_timestamp>0</pre_push_timestamp>\n"
      "\t\t<business_id>\n"
      "\t\t\t%s\n"
      "\t\t</business_id>\n"
      "\t\t<recv_id_set>2023022114220864213579</recv_id_set>\n"
      "\t</push_msg_query>\n"
      "</message>",
      strMid1.c_str(), strMid2.c_str(), kPollProductId, strBusinessId.c_str());
  if (zxcloud_send_pollmsg(strPollMsg.c_str(), LengthOf(strPollMsg)) != 0) {
    // The line shows the agent's code, whatever the library said.
    return LogFail(
        kErrCloudSend,
        "*zxagent pollmsg Error ZxcloudPollMessage zxcloud_send_pollmsg iStatus[%x] strPollMsg[%s]",
        static_cast<uint32_t>(kErrCloudSend), strPollMsg);
  }
  const HLog hLog = g_hLogMain.load(std::memory_order_relaxed);
  LogPrint(hLog, bVerbose != 0 ? kLogInfo : kLogDetail,
           "zxagent pollmsg OK ZxcloudPollMessage zxcloud_send_pollmsg strPollMsg[%s]", strPollMsg.c_str());
  return 0;
}
