// The agent's own commands: report type, connection mode, client ready, asset collection, message-server
// addresses, maintenance scripts, and policies that the task manager passes back. Work thread, except
// DisposePolicy.
#include <strings.h>

#include <cstring>

#include "agent/AgentCommand.h"
#include "agent/AgentMgr.h"
#include "data/AgentCodes.h"
#include "data/AgentLog.h"
#include "data/AgentTools.h"

namespace {

constexpr int kTypeOnlyShort = 2;
constexpr char kScriptPrefix[] = "runscript";

// Number of the latest policy from the task manager: its own sequence, apart from the cloud's. Work thread
// only.
unsigned long long s_u64PolicyDataId = 0;

// The command's report setting as the sender's bit set; false for a setting that does not exist.
bool ReportTypeOf(int iReportType, int& iPubmsgReportType) {
  constexpr int kTypes[] = {0, 3, 5, 9};
  if (iReportType < 0 || iReportType > 3)
    return false;
  iPubmsgReportType = kTypes[iReportType];
  return true;
}

}  // namespace

int CAgentMgr::DisposeInnerCommand(unsigned long long u64DataId, const CPString& strProduct,
                                   const CPString& strCombo, const CPString& strID,
                                   const CPString& strCommand, const zxtools::CPJsonParse& json,
                                   const char* lpszMsg) {
  uint32_t uiRet = 0;
  if (strCommand.Compare("PubMsgReport", 1) == 0)
    uiRet = DisposePubMsgReport(u64DataId, strID, json);
  else if (strCommand.Compare("term_connect_type", 1) == 0)
    uiRet = DisposeTermConnect(u64DataId, strID, lpszMsg);
  else if (strCommand.Compare("ClientReady", 1) == 0)
    uiRet = DisposeClientReady(u64DataId, strID, lpszMsg);
  else if (strCommand.Compare("assetCollection", 1) == 0)
    uiRet = DisposeAssetCollection(u64DataId, strID, lpszMsg);
  else if (strCommand.Compare("msgsrvaddr", 1) == 0)
    uiRet = DisposeMsgSrvAddrSet(u64DataId, strID, lpszMsg);
  else
    return 0;
  const int bDone = uiRet == 0 ? 1 : 0;
  m_AgentCache.SavePolicyFile(u64DataId, strID, strProduct, strCombo, strCommand, lpszMsg, bDone);
  SendResponseMsg(u64DataId, strProduct, strCombo, strID, bDone != 0 ? kAckDoneByAgent : kAckNotDone, 0);
  return 1;
}

uint32_t CAgentMgr::DisposePubMsgReport(unsigned long long u64DataId, const CPString& strID,
                                        const zxtools::CPJsonParse& json) {
  if (strID.IsEmpty())
    return LogFailError(kErrNoText,
                        "**zxagent CAgentMgr::DisposePubMsgReport Error strID is empty u64DataId[%llx]",
                        u64DataId);
  int iReportType = 0;
  if (zxtools::CPJsonParse::GetIntValue(json.GetNode("Param"), iReportType) == 0)
    return LogFailError(
        kErrReportParam,
        "**zxagent CAgentMgr::DisposePubMsgReport Error wrap_cJSON_GetObjectItem Param u64DataId[%llx] strID[%s]",
        u64DataId, strID);
  int iPubmsgReportType = 0;
  if (!ReportTypeOf(iReportType, iPubmsgReportType))
    return LogFailError(
        kErrReportType,
        "**zxagent CAgentMgr::DisposePubMsgReport Error u64DataId[%llx] iReportType[%d] strID[%s]", u64DataId,
        iReportType, strID);
  if (m_AgentData.SavePubmsgReportData(iPubmsgReportType) == 0)
    return LogFailError(
        kErrReportSave,
        "**zxagent CAgentMgr::DisposePubMsgReport Error SavePubmsgReportData u64DataId[%llx] iPubmsgReportType[%d] iReportType[%d] strID[%s]",
        u64DataId, iPubmsgReportType, iReportType, strID);
  m_AgentSendMsg.SetPubmsgReportType(iPubmsgReportType);
  LogInfo(
      "zxagent CAgentMgr::DisposePubMsgReport OK u64DataId[%llx] iPubmsgReportType[%d] iReportType[%d] strID[%s]",
      u64DataId, iPubmsgReportType, iReportType, strID);
  return 0;
}

uint32_t CAgentMgr::DisposeTermConnect(unsigned long long u64DataId, const CPString& strID,
                                       const char* lpszMsg) {
  if (strID.IsEmpty())
    return LogFailError(kErrNoText,
                        "**zxagent CAgentMgr::DisposeTermConnect Error strID is empty u64DataId[%llx]",
                        u64DataId);
  if (lpszMsg == nullptr)
    return LogFailError(
        kErrNoText, "**zxagent CAgentMgr::DisposeTermConnect Error lpszMsg is NULL u64DataId[%llx] strID[%s]",
        u64DataId, strID);
  int iType = 0;
  int iPollerCycle = 0;
  if (m_AgentData.ParseTermConnectData(lpszMsg, iType, iPollerCycle) == 0)
    return LogFailError(
        kErrCommandParse,
        "**zxagent CAgentMgr::DisposeTermConnect Error ParseTermConnectData u64DataId[%llx] strID[%s] lpszMsg[%s]",
        u64DataId, strID, CAgentTools::RefusedText(lpszMsg));
  if (m_AgentData.SaveTermConnectData(lpszMsg) == 0)
    return LogFailError(
        kErrCommandSave,
        "**zxagent CAgentMgr::DisposeTermConnect Error SaveTermConnectData u64DataId[%llx] strID[%s] lpszMsg[%s]",
        u64DataId, strID, lpszMsg);
  const int bIsOnlyShort = iType == kTypeOnlyShort ? 1 : 0;
  int bOld = 0;
  {
    const CCritLock lock(m_csStatus);
    bOld = m_bIsOnlyShort;
    m_bIsOnlyShort = bIsOnlyShort;
    m_iPollerCycle = iPollerCycle;
    m_gaugePollCycle.Set(iPollerCycle);
    m_gaugeOnlyShort.Set(bIsOnlyShort);
  }
  if (bOld == bIsOnlyShort) {
    LogInfo(
        "zxagent CAgentMgr::DisposeTermConnect OK not change u64DataId[%llx] m_bIsOnlyShort[%d] m_iPollerCycle[%d] lpszMsg[%s]",
        u64DataId, bIsOnlyShort, iPollerCycle, lpszMsg);
    return 0;
  }
  const uint32_t iRet = InitZxcloud(1);
  LogInfo(
      "zxagent CAgentMgr::DisposeTermConnect OK change u64DataId[%llx] iRet[%d] m_bIsOnlyShort[%d] m_iPollerCycle[%d] lpszMsg[%s]",
      u64DataId, iRet, bIsOnlyShort, iPollerCycle, lpszMsg);
  return 0;
}

uint32_t CAgentMgr::DisposeClientReady(unsigned long long u64DataId, const CPString& strID,
                                       const char* lpszMsg) {
  if (strID.IsEmpty())
    return LogFailError(kErrNoText,
                        "**zxagent CAgentMgr::DisposeClientReady Error strID is empty u64DataId[%llx]",
                        u64DataId);
  if (lpszMsg == nullptr)
    return LogFailError(kErrNoText,
                        "**zxagent CAgentMgr::DisposeClientReady Error lpszMsg is NULL u64DataId[%llx]",
                        u64DataId);
  const CPString strClientReady(lpszMsg);
  {
    const CCritLock lock(m_csData);
    m_strClientReady = strClientReady;
  }
  LogInfo("zxagent CAgentMgr::DisposeClientReady Begin BroadcastSend strClientReady[%s]", strClientReady);
  if (m_pCompCtx == nullptr)
    return LogFail(kErrNoBusContext,
                   "*zxagent CAgentMgr::DisposeClientReady Error m_pCompCtx is NULL strClientReady[%s]",
                   strClientReady);
  const uint32_t iRet = m_pCompCtx->BroadcastSend(AGENT_MSG_BST_CLIENTREADY, strClientReady.data(),
                                                  static_cast<uint32_t>(strClientReady.GetLength()));
  if (iRet != 0)
    return LogFail(iRet, "*zxagent CAgentMgr::DisposeClientReady Error iRet[%x] strClientReady[%s]", iRet,
                   strClientReady);
  LogInfo("zxagent CAgentMgr::DisposeClientReady End BroadcastSend strClientReady[%s]", strClientReady);
  return 0;
}

uint32_t CAgentMgr::DisposeAssetCollection(unsigned long long u64DataId, const CPString& strID,
                                           const char* lpszMsg) {
  if (strID.IsEmpty())
    return LogFailError(kErrNoText,
                        "**zxagent CAgentMgr::DisposeAssetCollection Error strID is empty u64DataId[%llx]",
                        u64DataId);
  if (lpszMsg == nullptr)
    return LogFailError(kErrNoText,
                        "**zxagent CAgentMgr::DisposeAssetCollection Error lpszMsg is NULL u64DataId[%llx]",
                        u64DataId);
  return m_AgentAsset.ParseAssetPolicy(u64DataId, strID, lpszMsg) != 0 ? 0
                                                                       : static_cast<uint32_t>(kErrGeneral);
}

uint32_t CAgentMgr::DisposeMsgSrvAddrSet(unsigned long long u64DataId, const CPString& strID,
                                         const char* lpszMsg) {
  if (strID.IsEmpty())
    return LogFailError(kErrNoText,
                        "**zxagent CAgentMgr::DisposeMsgSrvAddrSet Error strID is empty u64DataId[%llx]",
                        u64DataId);
  if (lpszMsg == nullptr)
    return LogFailError(
        kErrNoText,
        "**zxagent CAgentMgr::DisposeMsgSrvAddrSet Error lpszMsg is NULL u64DataId[%llx] strID[%s]",
        u64DataId, strID);
  CPString strAddrSet;
  if (m_AgentData.ParseMsgSrvAddrSetData(lpszMsg, strAddrSet) == 0)
    return LogFailError(
        kErrCommandParse,
        "**zxagent CAgentMgr::DisposeMsgSrvAddrSet Error ParseMsgSrvAddrSetData u64DataId[%llx] strID[%s] lpszMsg[%s]",
        u64DataId, strID, CAgentTools::RefusedText(lpszMsg));
  if (m_AgentData.SaveMsgSrvAddrSetData(lpszMsg) == 0)
    return LogFailError(
        kErrCommandSave,
        "**zxagent CAgentMgr::DisposeMsgSrvAddrSet Error SaveMsgSrvAddrSetData u64DataId[%llx] strID[%s] lpszMsg[%s]",
        u64DataId, strID, lpszMsg);
  AddZxcloudCallbackData(kWorkEngineAddr, 0, nullptr, 0);
  CPString strEngineAddr;
  {
    const CCritLock lock(m_csStatus);
    m_strMsgSrvAddrSet = strAddrSet;
    m_iMsgSrvAddrSetStatus = 1;
    strEngineAddr = m_strEngineAddr;
  }
  m_AgentData.SaveEngineAddrStatus(1, strEngineAddr);
  StartCheckThread();
  return 0;
}

int CAgentMgr::DisposeMaintCommand(unsigned long long u64DataId, const CPString& strProduct,
                                   const CPString& strCombo, const CPString& strID,
                                   const CPString& strCommand, const char* lpszMsg) {
  constexpr size_t kPrefixLength = sizeof(kScriptPrefix) - 1;
  if (strncasecmp(strCommand.c_str(), kScriptPrefix, kPrefixLength) != 0)
    return 0;
  const int iRet = m_AgentMaint.ForwardMsg(u64DataId, strCommand, strID, lpszMsg);
  if (iRet == 0)
    return 0;
  m_AgentCache.SavePolicyFile(u64DataId, strID, strProduct, strCombo, strCommand, lpszMsg, 1);
  SendResponseMsg(u64DataId, strProduct, strCombo, strID, kAckDoneByAgent, 0);
  return iRet;
}

bool CAgentMgr::DisposePolicy(const char* str) {
  return AddZxcloudCallbackData(kWorkPolicy, 0, str, 0);
}

uint32_t CAgentMgr::DisposeTaskmgrPolicy(const char* lpszMsg) {
  if (lpszMsg == nullptr)
    return kErrNoText;
  LogInfo("zxagent CAgentMgr::DisposeTaskmgrPolicy lpszMsg[%s]", lpszMsg);
  zxtools::CPJsonParse json;
  if (json.LoadBuffer(lpszMsg) == 0)
    return LogFail(kErrJson, "*zxagent CAgentMgr::DisposeTaskmgrPolicy Error LoadBuffer iLength[%llu]",
                   std::strlen(lpszMsg));
  CPString strID;
  if (zxtools::CPJsonParse::GetValue(json.GetNode("ID"), strID) == 0)
    return LogFail(kErrJsonNoId, "*zxagent CAgentMgr::DisposeTaskmgrPolicy Error GetNode ID iLength[%llu]",
                   std::strlen(lpszMsg));
  if (strID.IsEmpty() || strID.GetLength() > kIdMaxBytes)
    return LogFail(kErrJsonIdLength, "*zxagent CAgentMgr::DisposeTaskmgrPolicy Error strID iLength[%llu]",
                   strID.GetLength());
  const CPString strCommand = CommandOf(json);
  if (strCommand.IsEmpty())
    return LogFail(kErrGeneral,
                   "*zxagent CAgentMgr::DisposeTaskmgrPolicy Error strCommand is empty strID[%s]", strID);
  const unsigned long long u64DataId = ++s_u64PolicyDataId;
  if (strCommand.Compare("assetCollection", 1) == 0)
    return DisposeAssetCollection(u64DataId, strID, lpszMsg);
  return LogFail(
      kErrGeneral,
      "*zxagent CAgentMgr::DisposeTaskmgrPolicy Error unknown u64DataId[%llx] strID[%s] strCommand[%s]",
      u64DataId, strID, strCommand);
}
