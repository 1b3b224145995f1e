// The cloud channel: the library's initialisation, and what its connect, disconnect, configuration and
// address events change.
#include <cstdlib>
#include <exception>

#include "agent/AgentMgr.h"
#include "data/AgentCodes.h"
#include "data/AgentLog.h"
#include "platform/cloud/zxcloud.h"

namespace {

constexpr size_t kOptionBytes = 512;
constexpr uint16_t kPollPort = 8080;  // of a poll address without one

// Flags of the data callback.
constexpr int kDataShort = 1;
constexpr int kDataLong = 2;
constexpr int kDataTconf = 3;
constexpr int kDataPollConnect = 5;

CPString ConnectText(int bOnline, const char* lpszIp, uint16_t wPort) {
  return CPString::Make("{\"onlineflag\":\"%d\",\"ip\":\"%s\",\"port\":\"%d\"}", bOnline,
                        lpszIp == nullptr ? "" : lpszIp, wPort);
}

}  // namespace

// --- Initialisation and release.

uint32_t CAgentMgr::InitInnerZxcloud(int bReInit) {
  LogInfo("zxagent CAgentMgr::InitInnerZxcloud Begin bReInit[%d]", bReInit);
  const CPString strConfPath = m_AgentData.GetConfInnerPath();
  if (strConfPath.IsEmpty())
    return LogFailError(
        kErrNoConfPath,
        "**zxagent CAgentMgr::InitInnerZxcloud Error GetConfPath strConfPath is empty bReInit[%d]", bReInit);
  const CPString strConfigInnerPath = strConfPath + "zxagent.json";
  {
    CCritLock lock(m_csStatus);
    m_bRecvTconf = 0;
  }
  if (bReInit) {
    LogInfo("zxagent CAgentMgr::InitInnerZxcloud zxcloud_uninit begin");
    const uint32_t iRet = zxcloud_uninit();
    if (iRet != 0)
      return LogFailError(kErrCloudUninit,
                          "**zxagent CAgentMgr::InitInnerZxcloud Error zxcloud_uninit iRet[%x]", iRet);
    LogInfo("zxagent CAgentMgr::InitInnerZxcloud zxcloud_uninit OK");
  }
  const CPString strLocalIp = m_AgentData.GetLocalIp();
  int bIsOnlyShort = 0;
  {
    CCritLock lock(m_csStatus);
    m_strLocalIp = strLocalIp;
    bIsOnlyShort = m_bIsOnlyShort;
  }
  const uint32_t uiOptions = SetInitOptions(bIsOnlyShort, bReInit, strLocalIp);
  return uiOptions != 0 ? uiOptions : OpenZxcloud(bIsOnlyShort, bReInit, strConfigInnerPath);
}

uint32_t CAgentMgr::SetInitOptions(int bIsOnlyShort, int bReInit, const CPString& strLocalIp) {
  CPString strMid1;
  CPString strMid2;
  m_AgentSendMsg.GetMid(strMid1, strMid2);
  const int iPlatId = m_AgentData.GetPlatId();

  CPString strKValue = CPString::Make("mid=%s:m2=%s:cloudtcp_disable=%d", strMid1.c_str(), strMid2.c_str(),
                                      bIsOnlyShort ? 1 : 0);
  uint32_t iRet = zxcloud_setopt(strKValue.c_str());
  if (iRet != 0)
    return LogFailError(
        kErrCloudSetopt,
        "**zxagent CAgentMgr::InitInnerZxcloud Error zxcloud_setopt iRet[%x] bIsOnlyShort[%d] bReInit[%d] strKValue[%s]",
        iRet, bIsOnlyShort, bReInit, strKValue);
  LogInfo("zxagent CAgentMgr::InitInnerZxcloud zxcloud_setopt OK bIsOnlyShort[%d] bReInit[%d] strKValue[%s]",
          bIsOnlyShort, bReInit, strKValue);

  const int bIsDisableHb = m_AgentData.IsDisableHb() ? 1 : 0;
  strKValue = CPString::Make("platid=%d:localip=%s:disable_hb=%d", iPlatId, strLocalIp.c_str(), bIsDisableHb);
  iRet = zxcloud_setopt(strKValue.c_str());
  if (iRet != 0)
    return LogFailError(
        kErrCloudSetopt,
        "**zxagent CAgentMgr::InitInnerZxcloud Error zxcloud_setopt hb iRet[%x] bIsOnlyShort[%d] bReInit[%d] strKValue[%s]",
        iRet, bIsOnlyShort, bReInit, strKValue);
  LogInfo(
      "zxagent CAgentMgr::InitInnerZxcloud zxcloud_setopt hb OK iPlatId[%d] strLocalIp[%s] bIsDisableHb[%d] strKValue[%s]",
      iPlatId, strLocalIp, bIsDisableHb, strKValue);
  return 0;
}

uint32_t CAgentMgr::OpenZxcloud(int bIsOnlyShort, int bReInit, const CPString& strConfigInnerPath) {
  CPString strMsgSrvAddrSet;
  int iMsgSrvAddrSetStatus = 0;
  CPString strEngineAddr;
  {
    CCritLock lock(m_csStatus);
    strMsgSrvAddrSet = m_strMsgSrvAddrSet;
    iMsgSrvAddrSetStatus = m_iMsgSrvAddrSetStatus;
    strEngineAddr = m_strEngineAddr;
  }
  if (!strEngineAddr.IsEmpty()) {
    // A refused address is no reason to stay offline.
    const uint32_t iRet = zxcloud_set_otherconnaddr(strEngineAddr.c_str());
    LogInfo("zxagent CAgentMgr::InitInnerZxcloud zxcloud_set_otherconnaddr OK iRet[%x] strEngineAddr[%s]",
            iRet, strEngineAddr);
  }
  CPString strChannelId;
  CPString strIpartner;
  m_AgentSendMsg.GetChannelId(strChannelId, strIpartner);
  const zxcloud_record record{strConfigInnerPath.c_str(), strChannelId.c_str(),    &ZxcloudPushmsgCallback,
                              &ZxcloudTconfCallback,      &ZxcloudConnectCallback, &ZxcloudDisconnectCallback,
                              &ZxcloudLogCallback,        &ZxcloudPollmsgCallback, &ZxcloudDataCallback};
  uint32_t iRet = zxcloud_init(&record);
  if (iRet != 0)
    return LogFailError(
        kErrCloudInit,
        "**zxagent CAgentMgr::InitInnerZxcloud Error zxcloud_init iRet[%x] bIsOnlyShort[%d] bReInit[%d] strConfigInnerPath[%s]",
        iRet, bIsOnlyShort, bReInit, strConfigInnerPath);
  ++m_uZxcloudInits;
  LogInfo(
      "zxagent CAgentMgr::InitInnerZxcloud zxcloud_init OK bIsOnlyShort[%d] bReInit[%d] strConfigInnerPath[%s]",
      bIsOnlyShort, bReInit, strConfigInnerPath);

  char szData[kOptionBytes] = {};
  iRet = zxcloud_getopt(szData, static_cast<int>(kOptionBytes) - 1);
  if (iRet != 0)
    return LogFail(
        kErrCloudGetopt,
        "*zxagent CAgentMgr::InitInnerZxcloud Error zxcloud_getopt iRet[%x] bIsOnlyShort[%d] bReInit[%d]",
        iRet, bIsOnlyShort, bReInit);
  if (iMsgSrvAddrSetStatus == 1 && !strMsgSrvAddrSet.IsEmpty())
    StartCheckThread();
  LogInfo(
      "zxagent CAgentMgr::InitInnerZxcloud End zxcloud_getopt OK bIsOnlyShort[%d] bReInit[%d] szData[%s]\n",
      bIsOnlyShort, bReInit, szData);
  return 0;
}

void* CAgentMgr::InitZxcloudThread(void* pReInit) {
  pthread_detach(pthread_self());
  ZxSetThreadName("zxagentinitcld");
  CAgentMgr* pThis = Current();
  if (pThis == nullptr) {
    LogError("**zxagent CAgentMgr::InitZxcloudThread pThis is NULL");
    return nullptr;
  }
  try {
    pThis->InitInnerZxcloud(static_cast<int>(reinterpret_cast<intptr_t>(pReInit)));
  } catch (const std::exception& e) {
    LogError("**zxagent CAgentMgr::InitZxcloudThread Error what[%s]", e.what());
  }
  return nullptr;
}

bool CAgentMgr::UninitZxcloud() {
  LogInfo("zxagent CAgentMgr::UninitZxcloud zxcloud_uninit Begin");
  const uint32_t iRet = zxcloud_uninit();
  if (iRet != 0)
    return LogError("**zxagent CAgentMgr::UninitZxcloud Error zxcloud_uninit iRet[%d]", iRet) != 0;
  LogInfo("zxagent CAgentMgr::UninitZxcloud zxcloud_uninit End OK");
  return true;
}

int CAgentMgr::SetZxcloudAllowDebug(int bAllowDebug) {
  LogInfo("zxagent CAgentMgr::SetZxcloudAllowDebug zxcloud_setopt Begin bAllowDebug[%d]", bAllowDebug);
  const CPString strKValue = CPString::Make("allowdebug=%d", bAllowDebug ? 1 : 0);
  const uint32_t iRet = zxcloud_setopt(strKValue.c_str());
  if (iRet != 0)
    LogWarn(
        "*zxagent CAgentMgr::SetZxcloudAllowDebug Error zxcloud_setopt iRet[%x] bAllowDebug[%d] strKValue[%s]",
        iRet, bAllowDebug, strKValue);
  else
    LogInfo("zxagent CAgentMgr::SetZxcloudAllowDebug zxcloud_setopt End OK bAllowDebug[%d] strKValue[%s]",
            bAllowDebug, strKValue);
  return 0;
}

// --- Connection events.

bool CAgentMgr::ZxcloudConnect(const char* lpszIp, uint16_t wPort, int bPollMsg) {
  if (m_pCompCtx == nullptr)
    return LogWarn(
               "*zxagent CAgentMgr::ZxcloudConnect Error m_pCompCtx is NULL bPollMsg[%d] lpszIp[%s] wPort[%d]",
               bPollMsg, lpszIp == nullptr ? "null" : lpszIp, wPort) != 0;
  m_AgentData.SetZxCloudConnectStatus(1);
  const CPString strMsg = ConnectText(1, lpszIp, wPort);
  {
    CCritLock lock(m_csConnect);
    m_strConnectData = strMsg;
    if (!bPollMsg) {
      m_bIsConnect = 1;
      m_gaugeConnected.Set(1);
    }
  }
  LogTrace("zxagent CAgentMgr::ZxcloudConnect Begin BroadcastSend bPollMsg[%d] strMsg[%s]", bPollMsg, strMsg);
  const uint32_t iRet = m_pCompCtx->BroadcastSend(AGENT_MSG_BST_CONNECT, strMsg.c_str(),
                                                  static_cast<uint32_t>(strMsg.GetLength()));
  if (iRet != 0)
    return LogWarn("*zxagent CAgentMgr::ZxcloudConnect Error iRet[%x] bPollMsg[%d] strMsg[%s]\n", iRet,
                   bPollMsg, strMsg) != 0;
  LogTrace("zxagent CAgentMgr::ZxcloudConnect End BroadcastSend bPollMsg[%d] strMsg[%s]\n", bPollMsg, strMsg);
  return true;
}

bool CAgentMgr::ZxcloudDisconnect() {
  if (m_pCompCtx == nullptr)
    return LogWarn("*zxagent CAgentMgr::ZxcloudDisconnect Error m_pCompCtx is NULL") != 0;
  m_AgentData.SetZxCloudConnectStatus(0);
  const CPString strMsg = ConnectText(0, nullptr, 0);
  {
    CCritLock lock(m_csConnect);
    m_strConnectData = strMsg;
    m_bIsConnect = 0;
    m_gaugeConnected.Set(0);
  }
  LogTrace("zxagent CAgentMgr::ZxcloudDisconnect Begin BroadcastSend");
  const uint32_t iRet = m_pCompCtx->BroadcastSend(AGENT_MSG_BST_DISCONNECT, strMsg.c_str(),
                                                  static_cast<uint32_t>(strMsg.GetLength()));
  if (iRet != 0)
    return LogWarn("*zxagent CAgentMgr::ZxcloudDisconnect Error iRet[%x]\n", iRet) != 0;
  LogTrace("zxagent CAgentMgr::ZxcloudDisconnect End BroadcastSend\n");
  return true;
}

int CAgentMgr::ReconnectZxcloud() {
  LogInfo("zxagent CAgentMgr::ReconnectZxcloud Begin");
  int bIsOnlyShort = 0;
  {
    CCritLock lock(m_csStatus);
    bIsOnlyShort = m_bIsOnlyShort;
    if (bIsOnlyShort)
      m_bRecvTconf = 0;
  }
  if (!bIsOnlyShort) {
    LogInfo("zxagent CAgentMgr::ReconnectZxcloud is not onlyshort");
    return 0;
  }
  ZxcloudDisconnect();
  LogInfo("zxagent CAgentMgr::ReconnectZxcloud ZxcloudDisconnect OK");
  return 0;
}

bool CAgentMgr::ZxcloudTconf(const char* lpszData) {
  if (lpszData == nullptr)
    return LogWarn("*zxagent CAgentMgr::ZxcloudTconf Warn lpszData is NULL") != 0;
  const uint32_t iRet = m_AgentData.SetPcidData(lpszData, 1);
  if (iRet != 0)
    return LogWarn("*zxagent CAgentMgr::ZxcloudTconf Error iRet[%x]\n", iRet) != 0;
  {
    CCritLock lock(m_csStatus);
    m_bRecvTconf = 1;
  }
  LogTrace("zxagent CAgentMgr::ZxcloudTconf OK\n");
  return true;
}

// --- Addresses that the library reports.

bool CAgentMgr::ZxcloudData(int iFlag, const char* lpszMsg) {
  if (lpszMsg == nullptr)
    return LogWarn("*zxagent CAgentMgr::ZxcloudData Error lpszMsg is NULL iFlag[%d]", iFlag) != 0;
  const CPString strMsg(lpszMsg);
  if (iFlag == kDataPollConnect) {
    m_AgentData.UpdateZxCloudLongAddrByShortAddr();
    const size_t uColon = strMsg.ReverseFind(':');
    const CPString strIp = strMsg.Left(uColon);  // npos takes the whole text
    const uint16_t wPort = uColon == CPString::npos
                               ? kPollPort
                               : static_cast<uint16_t>(std::strtoul(lpszMsg + uColon + 1, nullptr, 10));
    ZxcloudConnect(strIp.c_str(), wPort, 1);
    LogTrace("zxagent CAgentMgr::ZxcloudData OK DMF_POLLMSG_CONNECT strIp[%s] wPort[%d] lpszMsg[%s]\n", strIp,
             wPort, lpszMsg);
    return false;
  }
  if (iFlag == kDataTconf) {
    if (!m_AgentData.SetZxCloudTconfAddr(strMsg))
      return LogWarn("*zxagent CAgentMgr::ZxcloudData Error SetZxCloudTconfAddr strTconfAddr[%s]\n",
                     strMsg) != 0;
    LogTrace("zxagent CAgentMgr::ZxcloudData OK SetZxCloudTconfAddr strTconfAddr[%s]\n", strMsg);
    return true;
  }
  if (iFlag != kDataShort && iFlag != kDataLong)
    return LogWarn("*zxagent CAgentMgr::ZxcloudData Error iFlag[%d] lpszMsg[%s]\n", iFlag, lpszMsg) != 0;
  const size_t uSeparator = strMsg.Find(";");
  if (uSeparator == CPString::npos)
    return LogWarn("*zxagent CAgentMgr::ZxcloudData Error not find iFlag[%d] lpszMsg[%s]\n", iFlag,
                   lpszMsg) != 0;
  const CPString strLocal = strMsg.Left(uSeparator);
  const CPString strRemote = strMsg.Mid(uSeparator + 1);
  return iFlag == kDataShort ? ZxcloudShortAddr(strLocal, strRemote) : ZxcloudLongAddr(strLocal, strRemote);
}

bool CAgentMgr::ZxcloudShortAddr(const CPString& strLocal, const CPString& strRemote) {
  if (!m_AgentData.SetZxCloudShortAddr(strLocal, strRemote))
    return LogWarn("*zxagent CAgentMgr::ZxcloudData Error SetZxCloudShortAddr LocalAddr[%s] RemoteAddr[%s]\n",
                   strLocal, strRemote) != 0;
  LogTrace("zxagent CAgentMgr::ZxcloudData OK SetZxCloudShortAddr LocalAddr[%s] RemoteAddr[%s]\n", strLocal,
           strRemote);
  SetLocalIp(strLocal);
  int bIsOnlyShort = 0;
  {
    CCritLock lock(m_csStatus);
    bIsOnlyShort = m_bIsOnlyShort;
  }
  if (bIsOnlyShort)
    m_AgentData.UpdateZxCloudLongAddrByShortAddr();
  return true;
}

bool CAgentMgr::ZxcloudLongAddr(const CPString& strLocal, const CPString& strRemote) {
  if (!m_AgentData.SetZxCloudLongAddr(strLocal, strRemote))
    return LogWarn("*zxagent CAgentMgr::ZxcloudData Error SetZxCloudLongAddr LocalAddr[%s] RemoteAddr[%s]\n",
                   strLocal, strRemote) != 0;
  LogTrace("zxagent CAgentMgr::ZxcloudData OK SetZxCloudLongAddr LocalAddr[%s] RemoteAddr[%s]\n", strLocal,
           strRemote);
  return true;
}

void CAgentMgr::SetLocalIp(CPString strAddr) {
  if (m_AgentData.IsPersonalEdition()) {
    LogInfo("zxagent CAgentMgr::SetLocalIp is PersonalEditionstrLocalIp[%s]", strAddr);
    return;
  }
  const CPString strLocalIpNew = strAddr.Left(strAddr.ReverseFind(':'));  // without a port: the whole text
  CPString strLocalIp;
  {
    CCritLock lock(m_csStatus);
    strLocalIp = m_strLocalIp;
  }
  if (strLocalIpNew == strLocalIp) {
    LogInfo("zxagent CAgentMgr::SetLocalIp same localip strLocalIpNew[%s] strLocalIp[%s]", strLocalIpNew,
            strLocalIp);
    return;
  }
  {
    CCritLock lock(m_csStatus);
    m_strLocalIp = strLocalIpNew;
  }
  const CPString strKValue = CPString::Make("localip=%s", strLocalIpNew.c_str());
  const uint32_t iRet = zxcloud_setopt(strKValue.c_str());
  if (iRet != 0)
    LogError("**zxagent CAgentMgr::SetLocalIp Error zxcloud_setopt iRet[%x] strLocalIpNew[%s] strKValue[%s]",
             iRet, strLocalIpNew, strKValue);
  else
    LogInfo("zxagent CAgentMgr::SetLocalIp zxcloud_setopt OK strLocalIpNew[%s] strKValue[%s]", strLocalIpNew,
            strKValue);
}

bool CAgentMgr::ZxcloudLbData(CPString strLbData) {
  if (strLbData.IsEmpty())
    return LogWarn("*zxagent CAgentMgr::ZxcloudLbData Error strLbData is empty\n") != 0;
  if (!m_AgentData.SaveLbData(strLbData))
    LogWarn("*zxagent CAgentMgr::ZxcloudLbData Error SaveLbData strLbData[%s]\n", strLbData);
  {
    CCritLock lock(m_csData);
    m_strLbData = strLbData;
  }
  if (m_pCompCtx == nullptr)
    return LogWarn("*zxagent CAgentMgr::ZxcloudLbData Error m_pCompCtx is NULL strLbData[%s]\n", strLbData) !=
           0;
  LogTrace("zxagent CAgentMgr::ZxcloudLbData Begin BroadcastSend strLbData[%s]", strLbData);
  const uint32_t iRet = m_pCompCtx->BroadcastSend(AGENT_MSG_BST_LBDATA, strLbData.c_str(),
                                                  static_cast<uint32_t>(strLbData.GetLength()));
  if (iRet != 0)
    return LogWarn("*zxagent CAgentMgr::ZxcloudLbData Error iRet[%x] strLbData[%s]\n", iRet, strLbData) != 0;
  LogTrace("zxagent CAgentMgr::ZxcloudLbData End BroadcastSend strLbData[%s]\n", strLbData);
  return true;
}

// --- What the bus receiver asks for.

CPString CAgentMgr::GetConnectData() {
  CCritLock lock(m_csConnect);
  return m_strConnectData;
}

CPString CAgentMgr::GetClientReady() {
  CCritLock lock(m_csData);
  return m_strClientReady;
}

CPString CAgentMgr::GetLbData() {
  CCritLock lock(m_csData);
  return m_strLbData;
}

int CAgentMgr::IsConnect() {
  CCritLock lock(m_csConnect);
  return m_bIsConnect;
}
