// The smaller address files: custom cloud address, working copy, load-balancer data, engine addresses.
#include <sys/stat.h>

#include <cerrno>

#include "data/AgentData.h"
#include "data/AgentDataJson.h"
#include "data/AgentLog.h"
#include "platform/os/ZxFile.h"

using zxtools::CPJsonParse;
using zxtools::HJsonNode;

namespace {

int PutLbConf(CPJsonParse& json, const CPString& strAddr, const CPString& strFile) {
  HJsonNode hConf = json.GetNode("lbconf");
  if (hConf == nullptr) {
    LogWarn("*zxagent CAgentData::UpdateCloudAddr Error GetNode lbconf strAddr[%s] strFile[%s]", strAddr,
            strFile);
    hConf = json.AddNodeObject(nullptr, "lbconf");
    if (hConf == nullptr)
      return LogWarn(
          "*zxagent CAgentData::UpdateCloudAddr Error AddNodeObject lbconf strAddr[%s] strFile[%s]", strAddr,
          strFile);
  }
  if (json.GetNode(hConf, "lbconf_url") != nullptr) {
    if (!json.ReplaceNode(hConf, "lbconf_url", strAddr))
      return LogWarn(
          "*zxagent CAgentData::UpdateCloudAddr Error ReplaceNode lbconf_url strAddr[%s] strFile[%s]",
          strAddr, strFile);
  } else if (!json.AddNode(hConf, "lbconf_url", strAddr)) {
    return LogWarn("*zxagent CAgentData::UpdateCloudAddr Error AddNode lbconf_url strAddr[%s] strFile[%s]",
                   strAddr, strFile);
  }
  return 1;
}

int PutTconf(CPJsonParse& json, const CPString& strAddr, const CPString& strFile) {
  HJsonNode hConf = json.GetNode("tconf");
  if (hConf == nullptr) {
    LogWarn("*zxagent CAgentData::UpdateCloudAddr Error GetNode tconf strAddr[%s] strFile[%s]", strAddr,
            strFile);
    hConf = json.AddNodeObject(nullptr, "tconf");
    if (hConf == nullptr)
      return LogWarn("*zxagent CAgentData::UpdateCloudAddr Error AddNodeObject tconf strAddr[%s] strFile[%s]",
                     strAddr, strFile);
  }
  if (json.GetNode(hConf, "tconf_url") != nullptr) {
    if (!json.ReplaceNode(hConf, "tconf_url", strAddr))
      return LogWarn(
          "*zxagent CAgentData::UpdateCloudAddr Error ReplaceNode tconf_url strAddr[%s] strFile[%s]", strAddr,
          strFile);
  } else if (!json.AddNode(hConf, "tconf_url", strAddr)) {
    return LogWarn("*zxagent CAgentData::UpdateCloudAddr Error AddNode tconf_url strAddr[%s] strFile[%s]",
                   strAddr, strFile);
  }
  return 1;
}

int PutScanConf(CPJsonParse& json, const CPString& strAddr, const CPString& strFile) {
  HJsonNode hConf = json.GetNode("scanconf");
  if (hConf == nullptr) {
    LogWarn("*zxagent CAgentData::UpdateCloudAddr Error GetNode scanconf strAddr[%s] strFile[%s]", strAddr,
            strFile);
    hConf = json.AddNodeObject(nullptr, "scanconf");
    if (hConf == nullptr)
      return LogWarn(
          "*zxagent CAgentData::UpdateCloudAddr Error AddNodeObject scanconf strAddr[%s] strFile[%s]",
          strAddr, strFile);
  }
  if (json.GetNode(hConf, "scanconf_url") != nullptr) {
    if (!json.ReplaceNode(hConf, "scanconf_url", strAddr))
      return LogWarn(
          "*zxagent CAgentData::UpdateCloudAddr Error ReplaceNode scanconf_url strAddr[%s] strFile[%s]",
          strAddr, strFile);
  } else if (!json.AddNode(hConf, "scanconf_url", strAddr)) {
    return LogWarn("*zxagent CAgentData::UpdateCloudAddr Error AddNode scanconf_url strAddr[%s] strFile[%s]",
                   strAddr, strFile);
  }
  return 1;
}

// The working copy has the mode of the deployed file, which may be there for its owner only (it can hold the
// credentials of a proxy); rewriting it keeps that.
bool IsPrivateFile(const CPString& strFile) {
  struct stat st {};
  return stat(strFile.c_str(), &st) == 0 && (st.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

bool AddAddrArray(CPJsonParse& json, const CPStrList& list) {
  const HJsonNode hArray = json.AddNodeArray(nullptr, "allengineaddr");
  if (hArray == nullptr)
    return false;
  for (const CPString& strAddr : list) {
    if (!json.InsertItemToArray(hArray, strAddr))
      return false;
  }
  return true;
}

}  // namespace

int CAgentData::ReadCustomCloudAddr(CPString& strAddr) {
  const CPString strFile = m_strConfInnerPath + "customcloud.json";
  CPJsonParse json;
  if (!json.LoadFile(strFile))
    return LogWarn("*zxagent CAgentData::ReadCustomCloudAddr Warn LoadFile Flag[%d] strFile[%s]", errno,
                   strFile);
  if (!JsonText(json, nullptr, "customcloudaddr", strAddr))
    return LogWarn("*zxagent CAgentData::ReadCustomCloudAddr Error GetNode customcloudaddr strFile[%s]",
                   strFile);
  LogInfo("zxagent CAgentData::ReadCustomCloudAddr strAddr[%s]", strAddr);
  return 1;
}

int CAgentData::SaveCustomCloudAddr(const CPString& strAddr) {
  if (strAddr.IsEmpty())
    return LogWarn("*zxagent CAgentData::SaveCustomCloudAddr Error strAddr is empty");
  const CPString strFile = m_strConfInnerPath + "customcloud.json";
  const CPString strFileTmp = strFile + ".tmp";
  CPJsonParse json;
  if (!json.CreateJson())
    return LogWarn("*zxagent CAgentData::SaveCustomCloudAddr Error CreateJson strAddr[%s]", strAddr);
  if (!json.AddNode(nullptr, "customcloudaddr", strAddr))
    return LogWarn("*zxagent CAgentData::SaveCustomCloudAddr Error AddNode customcloudaddr strAddr[%s]",
                   strAddr);
  if (!json.SaveFile(strFileTmp))
    return LogWarn(
        "*zxagent CAgentData::SaveCustomCloudAddr Error SaveFile Error[%d] strAddr[%s] strFileTmp[%s]", errno,
        strAddr, strFileTmp);
  if (!MyMoveFile(strFileTmp, strFile))
    return LogWarn(
        "*zxagent CAgentData::SaveCustomCloudAddr Error MyMoveFile Error[%d] strFileTmp[%s] strFile[%s]",
        errno, strFileTmp, strFile);
  LogInfo("zxagent CAgentData::SaveCustomCloudAddr OK SaveFile strAddr[%s] strFile[%s]", strAddr, strFile);
  return 1;
}

int CAgentData::UpdateCloudAddr(const CPString& strAddr) {
  if (strAddr.IsEmpty())
    return LogWarn("*zxagent CAgentData::UpdateCloudAddr Error strAddr is empty");
  const CPString strFile = m_strConfInnerPath + "zxagent.json";
  const CPString strFileTmp = strFile + ".tmp";
  CPJsonParse json;
  if (!json.LoadFile(strFile))
    return LogWarn("*zxagent CAgentData::UpdateCloudAddr Error LoadFile Error[%d] strAddr[%s] strFile[%s]",
                   errno, strAddr, strFile);
  if (!m_bDisableHb && !PutLbConf(json, strAddr, strFile))
    return 0;
  if (!PutTconf(json, strAddr, strFile) || !PutScanConf(json, strAddr, strFile))
    return 0;
  if (!json.SaveFile(strFileTmp, IsPrivateFile(strFile)))
    return LogWarn("*zxagent CAgentData::UpdateCloudAddr Error SaveFile Error[%d] strAddr[%s] strFileTmp[%s]",
                   errno, strAddr, strFileTmp);
  if (!MyMoveFile(strFileTmp, strFile))
    return LogWarn(
        "*zxagent CAgentData::UpdateCloudAddr Error MyMoveFile Error[%d] strFileTmp[%s] strFile[%s]", errno,
        strFileTmp, strFile);
  if (m_bDisableHb)
    SetZxCloudTconfAddr(strAddr);
  else
    SetZxCloudLbAddr(strAddr);
  LogInfo("zxagent CAgentData::UpdateCloudAddr OK SaveFile strAddr[%s] strFile[%s]", strAddr, strFile);
  return 1;
}

int CAgentData::ReadAgentAddr(CPString& strAddr) {
  const CPString strFile = m_strConfInnerPath + "zxagent.json";
  CPJsonParse json;
  if (!json.LoadFile(strFile))
    return LogWarn("*zxagent CAgentData::ReadAgentAddr Error LoadFile Error[%d] strFile[%s]", errno, strFile);
  int bIsLbConf = 0;
  HJsonNode hConf = nullptr;
  if (!m_bDisableHb) {
    hConf = json.GetNode("lbconf");
    if (hConf != nullptr)
      bIsLbConf = 1;
    else
      LogWarn("*zxagent CAgentData::ReadAgentAddr Error GetNode lbconf strFile[%s]", strFile);
  }
  if (!bIsLbConf) {
    hConf = json.GetNode("tconf");
    if (hConf == nullptr)
      return LogWarn("*zxagent CAgentData::ReadAgentAddr Error GetNode tconf strFile[%s]", strFile);
  }
  if (!JsonText(json, hConf, bIsLbConf ? "lbconf_url" : "tconf_url", strAddr))
    return LogWarn("*zxagent CAgentData::ReadAgentAddr Error GetNode url bIsLbConf[%d] strFile[%s]",
                   bIsLbConf, strFile);
  if (strAddr.IsEmpty())
    return LogWarn("*zxagent CAgentData::ReadAgentAddr Error strAddr is empty bIsLbConf[%d] strFile[%s]",
                   bIsLbConf, strFile);
  return 1;
}

int CAgentData::ReadLbData(CPString& strData) {
  const CPString strFile = m_strConfPath + "lbdata.json";
  if (!ZxReadFileText(strFile, strData))
    return LogWarn("*zxagent CAgentData::ReadLbData ReadFileData Warn[%d] strFile[%s]", errno, strFile);
  return 1;
}

int CAgentData::SaveLbData(const CPString& strData) {
  const CPString strFile = m_strConfPath + "lbdata.json";
  const CPString strFileTmp = strFile + ".tmp";
  if (!ZxSaveFileData(strFileTmp, strData))
    return LogWarn("*zxagent CAgentData::SaveLbData Error SaveFileData Error[%d] strFileTmp[%s]", errno,
                   strFileTmp);
  if (!MyMoveFile(strFileTmp, strFile))
    return LogWarn("*zxagent CAgentData::SaveLbData Error MyMoveFile Error[%d] strFileTmp[%s] strFile[%s]",
                   errno, strFileTmp, strFile);
  return 1;
}

int CAgentData::ReadEngineAddrStatus(unsigned int& dwStatus, CPString& strAddr) {
  const CPString strFile = m_strConfInnerPath + "engineaddr.json";
  CPJsonParse json;
  if (!json.LoadFile(strFile))
    return LogWarn("*zxagent CAgentData::ReadEngineAddrStatus Warn LoadFile strFile[%s]", strFile);
  int iStatus = 0;
  if (!JsonInt(json, nullptr, "enginestatus", iStatus))
    return LogWarn("*zxagent CAgentData::ReadEngineAddrStatus Error GetNode enginestatus strFile[%s]",
                   strFile);
  dwStatus = static_cast<unsigned int>(iStatus);  // delivered even when the address is missing
  if (!JsonText(json, nullptr, "engineaddr", strAddr))
    return LogWarn("*zxagent CAgentData::ReadEngineAddrStatus Error GetNode engineaddr strFile[%s]", strFile);
  return 1;
}

int CAgentData::SaveEngineAddrStatus(unsigned int dwStatus, const CPString& strAddr) {
  const CPString strFile = m_strConfInnerPath + "engineaddr.json";
  const CPString strFileTmp = strFile + ".tmp";
  CPJsonParse json;
  if (!json.CreateJson())
    return LogWarn("*zxagent CAgentData::SaveEngineAddrStatus Error CreateJson");
  if (!json.AddNode(nullptr, "enginestatus", static_cast<int>(dwStatus)))
    return LogWarn("*zxagent CAgentData::SaveEngineAddrStatus Error AddNode dwStatus[%d]", dwStatus);
  if (!json.AddNode(nullptr, "engineaddr", strAddr))
    return LogWarn("*zxagent CAgentData::SaveEngineAddrStatus Error AddNode strAddr[%s]", strAddr);
  if (!json.SaveFile(strFileTmp))
    return LogWarn("*zxagent CAgentData::SaveEngineAddrStatus Error ZxSaveFileData Error[%d] strFileTmp[%s]",
                   errno, strFileTmp);
  if (!MyMoveFile(strFileTmp, strFile))
    return LogWarn(
        "*zxagent CAgentData::SaveEngineAddrStatus Error MyMoveFile Error[%d] strFileTmp[%s] strFile[%s]",
        errno, strFileTmp, strFile);
  return 1;
}

void CAgentData::ReadAllEngineAddr(CPStrSet& addrSet) {
  CPString strAddr;
  if (ReadAgentAddr(strAddr))
    addrSet.Insert(strAddr);

  CPString strData;
  CPString strMsgSrvAddr;
  if (ReadMsgSrvAddrSetData(strData) && ParseMsgSrvAddrSetData(strData, strMsgSrvAddr)) {
    CPStrList list;
    strMsgSrvAddr.Split(",", list, true, false);
    for (const CPString& strItem : list)
      addrSet.Insert(strItem);
  }

  CPString strCustomAddr;
  if (ReadCustomCloudAddr(strCustomAddr))
    addrSet.Insert(strCustomAddr);  // also when it is empty
}

int CAgentData::SaveAllEngineAddr(const CPStrSet& addrSet, CPString& strJson) {
  const CPString strFile = m_strConfPath + "allengineaddr.json";
  const CPString strFileTmp = strFile + ".tmp";
  CPStrList list;
  addrSet.ToString(",").Split(",", list, true, false);
  CPJsonParse json;
  if (!json.CreateJson())
    return LogWarn("*zxagent CAgentData::SaveAllEngineAddr Warn CreateJson");
  if (!AddAddrArray(json, list))
    return LogWarn("*zxagent CAgentData::SaveAllEngineAddr Error AddNodeArray allengineaddr strAddrList[%d]",
                   static_cast<int>(list.GetCount()));
  CPString strText;  // before the save: a failure leaves the file as it was
  if (!json.GetJsonStr(strText))
    return LogWarn("*zxagent CAgentData::SaveAllEngineAddr Error GetJsonStr strAddrList[%d]",
                   static_cast<int>(list.GetCount()));
  if (!json.SaveFile(strFileTmp))
    return LogWarn("*zxagent CAgentData::SaveAllEngineAddr Error SaveFile Error[%d] strFileTmp[%s]", errno,
                   strFileTmp);
  if (!MyMoveFile(strFileTmp, strFile))
    return LogWarn(
        "*zxagent CAgentData::SaveAllEngineAddr Error MyMoveFile Error[%d] strFileTmp[%s] strFile[%s]", errno,
        strFileTmp, strFile);
  strJson = strText;
  return 1;
}

int CAgentData::UpdateDbAddr() {
  const CPString strAddr = m_strConfPath.IsEmpty() ? CPString() : m_strConfPath + "zxcloud.db";
  if (strAddr.IsEmpty())
    return LogWarn("*zxagent CAgentData::UpdateDbAddr Error strAddr is empty");
  const CPString strFile = m_strConfInnerPath + "zxagent.json";
  CPJsonParse json;
  if (!json.LoadFile(strFile))
    return LogWarn("*zxagent CAgentData::UpdateDbAddr Error LoadFile Error[%d] strAddr[%s] strFile[%s]",
                   errno, strAddr, strFile);
  const HJsonNode hConf = json.GetNode("zxcloudconf");
  if (hConf == nullptr)  // the text names another object; readers of the log match it as it is
    return LogWarn("*zxagent CAgentData::UpdateDbAddr Error GetNode tconf strAddr[%s] strFile[%s]", strAddr,
                   strFile);
  if (json.GetNode(hConf, "db_path") != nullptr) {
    if (!json.ReplaceNode(hConf, "db_path", strAddr))
      return LogWarn("*zxagent CAgentData::UpdateDbAddr Error ReplaceNode db_path strAddr[%s] strFile[%s]",
                     strAddr, strFile);
  } else if (!json.AddNode(hConf, "db_path", strAddr)) {
    return LogWarn("*zxagent CAgentData::UpdateDbAddr Error AddNode db_path strAddr[%s] strFile[%s]", strAddr,
                   strFile);
  }
  // The one writer of the store that saves in place, without a temporary file.
  if (!json.SaveFile(strFile, IsPrivateFile(strFile)))
    return LogWarn("*zxagent CAgentData::UpdateDbAddr Error SaveFile Error[%d] strAddr[%s] strFile[%s]",
                   errno, strAddr, strFile);
  LogInfo("zxagent CAgentData::UpdateDbAddr OK SaveFile strAddr[%s] strFile[%s]", strAddr, strFile);
  return 1;
}
