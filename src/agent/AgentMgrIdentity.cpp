// What Start loads: the merged configuration, the stored settings, and the machine id.
#include "agent/AgentMgr.h"
#include "data/AgentLog.h"
#include "system/AgentSystem.h"

namespace {

constexpr int kTypeOnlyShort = 2;
constexpr int kPollerCycle = 60;  // seconds
constexpr int kPollerCyclePersonal = 10800;
constexpr size_t kBytesPerMegabyte = 1u << 20;

// True when the stored value was replaced. What the machine does not tell any more stays stored.
bool TakeChanged(CPString& strStored, const CPString& strCurrent) {
  if (strCurrent.IsEmpty() || strStored.Compare(strCurrent, 1) == 0)
    return false;
  strStored = strCurrent;
  return true;
}

// True when both lists are known and share no address: the record came here with a copied disk.
bool IsOtherMachine(const CPString& strStoredAllMac, const CPStrList& macList) {
  if (strStoredAllMac.IsEmpty() || macList.IsEmpty())
    return false;
  CPStrList storedList;
  strStoredAllMac.Split(",", storedList, true, true);
  for (const CPString& strMac : macList) {
    if (storedList.FindData(strMac, 0) >= 0)
      return false;
  }
  return true;
}

}  // namespace

bool CAgentMgr::GetConfig() {
  if (!m_AgentData.MergeCheckConfig())
    return LogError("**zxagent CAgentMgr::GetConfig Error MergeCheckConfig") != 0;
  CPString strChannelId;
  CPString strIpartner;
  m_AgentData.ReadConfigChannelId(strChannelId, strIpartner);
  m_AgentSendMsg.SetChannelId(strChannelId, strIpartner);
  int iUploadBudget = 0;
  m_AgentData.ReadConfigUploadBudget(iUploadBudget);
  m_AgentLogMsg.SetBudget(static_cast<size_t>(iUploadBudget) * kBytesPerMegabyte);
  CAgentSystem system(m_strSystemRoot);
  m_AgentSendMsg.SetVersion(system.GetSystemVersion(), system.GetOwnVersion());
  if (!DisposeMid())
    return LogError("**zxagent CAgentMgr::GetConfig Error DisposeMid\n") != 0;
  int iPubmsgReportType = 0;
  m_AgentData.ReadPubmsgReportData(iPubmsgReportType);
  m_AgentSendMsg.SetPubmsgReportType(iPubmsgReportType);
  LoadTermConnect();
  CPString strLbData;
  m_AgentData.ReadLbData(strLbData);
  {
    CCritLock lock(m_csData);
    m_strLbData = strLbData;
  }
  LoadMsgSrvAddrSet();
  return true;
}

void CAgentMgr::LoadTermConnect() {
  int iType = 0;
  int iPollerCycle = kPollerCycle;
  if (m_AgentData.IsPersonalEdition()) {
    iType = kTypeOnlyShort;
    iPollerCycle = kPollerCyclePersonal;
  }
  CPString strTermConnect;
  if (m_AgentData.ReadTermConnectData(strTermConnect))
    m_AgentData.ParseTermConnectData(strTermConnect, iType, iPollerCycle);
  const int bIsOnlyShort = iType == kTypeOnlyShort ? 1 : 0;
  {
    CCritLock lock(m_csStatus);
    m_iPollerCycle = iPollerCycle;
    m_gaugePollCycle.Set(iPollerCycle);
    m_gaugeOnlyShort.Set(bIsOnlyShort);
    m_bIsOnlyShort = bIsOnlyShort;
  }
  LogInfo("zxagent CAgentMgr::GetConfig ReadTermConnect iType[%d] bIsOnlyShort[%d] iPollerCycle[%d]\n", iType,
          bIsOnlyShort, iPollerCycle);
}

void CAgentMgr::LoadMsgSrvAddrSet() {
  CPString strMsgSrvAddrSet;
  CPString strData;
  if (m_AgentData.ReadMsgSrvAddrSetData(strData)) {
    m_AgentData.ParseMsgSrvAddrSetData(strData, strMsgSrvAddrSet);
    LogInfo("zxagent CAgentMgr::GetConfig ParseMsgSrvAddrSetData strMsgSrvAddrSet[%s]\n", strMsgSrvAddrSet);
  }
  unsigned int dwEngineStatus = 0;
  CPString strEngineAddr;
  m_AgentData.ReadEngineAddrStatus(dwEngineStatus, strEngineAddr);
  LogInfo("zxagent CAgentMgr::GetConfig ReadEngineAddrStatus dwEngineStatus[%d] strEngineAddr[%s]\n",
          dwEngineStatus, strEngineAddr);
  CCritLock lock(m_csStatus);
  m_strMsgSrvAddrSet = strMsgSrvAddrSet;
  m_iMsgSrvAddrSetStatus = static_cast<int>(dwEngineStatus);
  m_strEngineAddr = strEngineAddr;
}

int CAgentMgr::DisposeMid() {
  CAgentSystem system(m_strSystemRoot);
  system.SetMidLogCallback(&ZxcloudLogCallback);
  _MidInfoData current;
  const int bSysMid = system.GetSysMid(CPString(), current.strMid1, current.strMid2, current.strMidLastSn,
                                       current.strMidLastDisk, current.strMidLastMac);
  CPStrList macList;
  system.GetAllMac(macList);

  int bSave = 0;
  _MidInfoData stored;
  if (m_AgentData.ReadMid(stored, bSave)) {
    RefreshKnownMid(current, stored, macList, bSave, bSysMid);
  } else {
    if (m_AgentData.ReadOldMid(stored.strMid1, stored.strMid2)) {
      current.strMid1 = stored.strMid1;
      current.strMid2 = stored.strMid2;
    } else if (!bSysMid) {
      return LogError("**zxagent CAgentMgr::DisposeMid Error GetSysMid");
    }
    current.strLastAllMac = macList.ToString(",");
    current.strMidFirstSn = current.strMidLastSn;
    current.strMidFirstDisk = current.strMidLastDisk;
    current.strMidFirstMac = current.strMidLastMac;
    current.strFirstAllMac = current.strLastAllMac;
    m_AgentData.SaveMid(current);
  }
  m_AgentSendMsg.SetMid(current.strMid1, current.strMid2);
  return 1;
}

// Brings the stored record up to date and leaves the ids to use in current.
void CAgentMgr::RefreshKnownMid(_MidInfoData& current, _MidInfoData& stored, const CPStrList& macList,
                                int bSave, int bSysMid) {
  current.strMidFirstSn = stored.strMidFirstSn;
  current.strMidFirstDisk = stored.strMidFirstDisk;
  current.strMidFirstMac = stored.strMidFirstMac;
  current.strFirstAllMac = stored.strFirstAllMac;
  const CPString strAllMac = macList.ToString(",");
  const bool bOtherMachine = IsOtherMachine(stored.strLastAllMac, macList);
  if (bOtherMachine && bSysMid) {
    // The one case in which a machine gets another id.
    current.strLastAllMac = strAllMac;
    m_AgentData.SaveMid(current);
    return;
  }
  if (TakeChanged(stored.strMidLastSn, current.strMidLastSn))
    bSave = 1;
  if (TakeChanged(stored.strMidLastDisk, current.strMidLastDisk))
    bSave = 1;
  if (TakeChanged(stored.strMidLastMac, current.strMidLastMac))
    bSave = 1;
  // Without an id from the machine the stored one stays, and so does its list: a later start still sees
  // that the addresses are foreign.
  if (!bOtherMachine && TakeChanged(stored.strLastAllMac, strAllMac))
    bSave = 1;
  if (bSave)
    m_AgentData.SaveMid(stored);
  current.strMid1 = stored.strMid1;
  current.strMid2 = stored.strMid2;
}
