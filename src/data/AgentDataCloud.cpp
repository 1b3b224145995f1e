// The cloud record, its file zxcloud.json, and the local address derived from it.
#include <cerrno>

#include "data/AgentData.h"
#include "data/AgentDataJson.h"
#include "data/AgentLog.h"

using zxtools::CPJsonParse;

namespace {

constexpr char kLoopback[] = "127.0.0.1";

// Fields before the first missing key keep their new values.
int ReadRecord(const CPJsonParse& json, const CPString& strFile, _ZxCloudData& data) {
  if (!JsonText(json, nullptr, "shortaddrlocal", data.strShortAddrLocal))
    return LogWarn("*zxagent CAgentData::ReadZxCloudData Error GetNode shortaddrlocal strFile[%s]", strFile);
  if (!JsonText(json, nullptr, "shortaddrremote", data.strShortAddrRemote))
    return LogWarn("*zxagent CAgentData::ReadZxCloudData Error GetNode shortaddrremote strFile[%s]", strFile);
  if (!JsonText(json, nullptr, "longaddrlocal", data.strLongAddrLocal))
    return LogWarn("*zxagent CAgentData::ReadZxCloudData Error GetNode longaddrlocal strFile[%s]", strFile);
  if (!JsonText(json, nullptr, "longaddrremote", data.strLongAddrRemote))
    return LogWarn("*zxagent CAgentData::ReadZxCloudData Error GetNode longaddrremote strFile[%s]", strFile);
  CPString strStatus;
  if (JsonText(json, nullptr, "connectstatus", strStatus))
    data.bConnectStatus = strStatus != "0" ? 1 : 0;
  JsonText(json, nullptr, "tconfaddr", data.strTconfAddr);
  JsonText(json, nullptr, "lbaddr", data.strLbAddr);
  LogInfo(
      "zxagent CAgentData::ReadZxCloudData strLbAddr[%s] strTconfAddr[%s] strShortAddrLocal[%s] strShortAddrRemote[%s] strLongAddrLocal[%s] strLongAddrRemote[%s] bConnectStatus[%d] strFile[%s]",
      data.strLbAddr, data.strTconfAddr, data.strShortAddrLocal, data.strShortAddrRemote,
      data.strLongAddrLocal, data.strLongAddrRemote, data.bConnectStatus, strFile);
  return 1;
}

int WriteRecord(CPJsonParse& json, const _ZxCloudData& data) {
  if (!json.CreateJson())
    return LogWarn("*zxagent CAgentData::SaveZxCloudData Error CreateJson");
  if (!json.AddNode(nullptr, "lbaddr", data.strLbAddr))
    return LogWarn("*zxagent CAgentData::SaveZxCloudData Error AddNode lbaddr strLbAddr[%s]", data.strLbAddr);
  if (!json.AddNode(nullptr, "tconfaddr", data.strTconfAddr))
    return LogWarn("*zxagent CAgentData::SaveZxCloudData Error AddNode tconfaddr strTconfAddr[%s]",
                   data.strTconfAddr);
  if (!json.AddNode(nullptr, "shortaddrlocal", data.strShortAddrLocal))
    return LogWarn("*zxagent CAgentData::SaveZxCloudData Error AddNode shortaddrlocal strShortAddrLocal[%s]",
                   data.strShortAddrLocal);
  if (!json.AddNode(nullptr, "shortaddrremote", data.strShortAddrRemote))
    return LogWarn(
        "*zxagent CAgentData::SaveZxCloudData Error AddNode shortaddrremote strShortAddrRemote[%s]",
        data.strShortAddrRemote);
  if (!json.AddNode(nullptr, "longaddrlocal", data.strLongAddrLocal))
    return LogWarn("*zxagent CAgentData::SaveZxCloudData Error AddNode longaddrlocal strLongAddrLocal[%s]",
                   data.strLongAddrLocal);
  if (!json.AddNode(nullptr, "longaddrremote", data.strLongAddrRemote))
    return LogWarn("*zxagent CAgentData::SaveZxCloudData Error AddNode longaddrremote strLongAddrRemote[%s]",
                   data.strLongAddrRemote);
  if (!json.AddNode(nullptr, "connectstatus", data.bConnectStatus ? "1" : "0"))
    return LogWarn("*zxagent CAgentData::SaveZxCloudData Error AddNode connectstatus bConnectStatus[%d]",
                   data.bConnectStatus);
  return 1;
}

}  // namespace

_ZxCloudData CAgentData::GetZxCloudData() {
  CCritLock lock(m_csCloud);
  return m_ZxCloudData;
}

int CAgentData::ReadZxCloudData() {
  const CPString strFile = m_strConfPath + "zxcloud.json";
  _ZxCloudData data = GetZxCloudData();
  int iRet = 0;
  CPJsonParse json;
  if (json.LoadFile(strFile))
    iRet = ReadRecord(json, strFile, data);
  else
    LogWarn("*zxagent CAgentData::ReadZxCloudData Error LoadFile Error[%d] strFile[%s]", errno, strFile);
  // A freshly started agent is not connected until the channel says so, whatever the file remembers.
  data.bConnectStatus = 0;
  {
    CCritLock lock(m_csCloud);
    m_ZxCloudData = data;
  }
  SaveZxCloudData();
  return iRet;
}

int CAgentData::SaveZxCloudData() {
  const CPString strFile = m_strConfPath + "zxcloud.json";
  const CPString strFileTmp = strFile + ".tmp";
  const _ZxCloudData data = GetZxCloudData();
  CPJsonParse json;
  if (!WriteRecord(json, data))
    return 0;
  if (!json.SaveFile(strFileTmp))
    return LogWarn("*zxagent CAgentData::SaveZxCloudData Error SaveFile Error[%d] strFileTmp[%s]", errno,
                   strFileTmp);
  if (!MyMoveFile(strFileTmp, strFile))
    return LogWarn(
        "*zxagent CAgentData::SaveZxCloudData Error MyMoveFile Error[%d] strFileTmp[%s] strFile[%s]", errno,
        strFileTmp, strFile);
  LogInfo(
      "zxagent CAgentData::SaveZxCloudData OK SaveFile strTconfAddr[%s] strShortAddrLocal[%s] strShortAddrRemote[%s] longaddrlocal[%s] strLongAddrRemote[%s] bConnectStatus[%d] strFile[%s]\n",
      data.strTconfAddr, data.strShortAddrLocal, data.strShortAddrRemote, data.strLongAddrLocal,
      data.strLongAddrRemote, data.bConnectStatus, strFile);
  return 1;
}

int CAgentData::SetZxCloudShortAddr(const CPString& strLocal, const CPString& strRemote) {
  {
    CCritLock lock(m_csCloud);
    m_ZxCloudData.strShortAddrLocal = strLocal;
    m_ZxCloudData.strShortAddrRemote = strRemote;
  }
  return SaveZxCloudData();
}

int CAgentData::SetZxCloudLongAddr(const CPString& strLocal, const CPString& strRemote) {
  {
    CCritLock lock(m_csCloud);
    m_ZxCloudData.strLongAddrLocal = strLocal;
    m_ZxCloudData.strLongAddrRemote = strRemote;
  }
  return SaveZxCloudData();
}

int CAgentData::SetZxCloudConnectStatus(int bStatus) {
  {
    CCritLock lock(m_csCloud);
    if (m_ZxCloudData.bConnectStatus == bStatus)
      return 1;
    m_ZxCloudData.bConnectStatus = bStatus;
  }
  return SaveZxCloudData();
}

int CAgentData::SetZxCloudTconfAddr(const CPString& strAddr) {
  {
    CCritLock lock(m_csCloud);
    if (m_ZxCloudData.strTconfAddr == strAddr)
      return 1;
    m_ZxCloudData.strTconfAddr = strAddr;
  }
  return SaveZxCloudData();
}

int CAgentData::SetZxCloudLbAddr(const CPString& strAddr) {
  {
    CCritLock lock(m_csCloud);
    if (m_ZxCloudData.strLbAddr == strAddr)
      return 1;
    m_ZxCloudData.strLbAddr = strAddr;
  }
  return SaveZxCloudData();
}

int CAgentData::UpdateZxCloudLongAddrByShortAddr() {
  CPString strAddrLocal;
  CPString strAddrRemote;
  {
    CCritLock lock(m_csCloud);
    strAddrLocal = m_ZxCloudData.strShortAddrLocal;
    strAddrRemote = m_ZxCloudData.strShortAddrRemote;
    m_ZxCloudData.strLongAddrLocal = strAddrLocal;
    m_ZxCloudData.strLongAddrRemote = strAddrRemote;
  }
  LogInfo("zxagent CAgentData::UpdateZxCloudLongAddrByShortAddr strAddrLocal[%s] strAddrRemote[%s]",
          strAddrLocal, strAddrRemote);
  return SaveZxCloudData();
}

void CAgentData::FindLocalIp(CPString& strLocalIp) {
  const _ZxCloudData data = GetZxCloudData();
  if (!data.strShortAddrLocal.IsEmpty()) {
    strLocalIp = data.strShortAddrLocal;
    if (CutPort(strLocalIp)) {
      LogInfo("zxagent CAgentData::GetLocalIp strShortAddrLocal strLocalIp[%s]", strLocalIp);
      return;
    }
  }
  if (!data.strLongAddrLocal.IsEmpty()) {
    strLocalIp = data.strLongAddrLocal;
    if (CutPort(strLocalIp)) {
      LogInfo("zxagent CAgentData::GetLocalIp strLongAddrLocal strLocalIp[%s]", strLocalIp);
      return;
    }
  }
  std::vector<_InterfaceAddr> list;
  if (!m_pfnListInterfaces(list) || !HasOutsideInterface(list))
    return;
  // The interfaces only decide that the machine is on a network; the address shown is the long connection's.
  strLocalIp = data.strLongAddrLocal;
  LogInfo("zxagent CAgentData::GetLocalIp socket ifr_addr strLocalIp[%s]", strLocalIp);
}

CPString CAgentData::GetLocalIp() {
  CPString strLocalIp;
  if (IsPersonalEdition())
    strLocalIp = kLoopback;
  else
    FindLocalIp(strLocalIp);
  if (strLocalIp.IsEmpty())
    strLocalIp = kLoopback;
  LogInfo("zxagent CAgentData::GetLocalIp strLocalIp[%s]", strLocalIp);
  return strLocalIp;
}
