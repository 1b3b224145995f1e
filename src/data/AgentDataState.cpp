// Small state files: what a cloud command sets until the next command of its kind, and the channel.
#include <algorithm>
#include <cerrno>

#include "data/AgentData.h"
#include "data/AgentDataJson.h"
#include "data/AgentLog.h"
#include "data/AgentTools.h"
#include "platform/os/ZxFile.h"

using zxtools::CPJsonParse;
using zxtools::HJsonNode;

namespace {

constexpr int kPollerCycleMin = 60;          // seconds
constexpr int kPollerCyclePersonal = 10800;  // seconds
constexpr char kDefaultChannel[] = "h_home";

}  // namespace

int CAgentData::ReadPubmsgReportData(int& iPubmsgReport) {
  const CPString strFile = m_strConfInnerPath + "pubmsgreport.json";
  CPJsonParse json;
  if (!json.LoadFile(strFile))
    return LogWarn("*zxagent CAgentData::ReadPubmsgReportData Warn LoadFile Flag[%d] strFile[%s]", errno,
                   strFile);
  if (!JsonInt(json, nullptr, "pubmsgreport", iPubmsgReport))
    return LogWarn("*zxagent CAgentData::ReadPubmsgReportData Error GetNode pubmsgreport strFile[%s]",
                   strFile);
  LogInfo("zxagent CAgentData::ReadPubmsgReportData iPubmsgReport[%d] strFile[%s]", iPubmsgReport, strFile);
  return 1;
}

int CAgentData::SavePubmsgReportData(int iPubmsgReport) {
  const CPString strFile = m_strConfInnerPath + "pubmsgreport.json";
  const CPString strFileTmp = strFile + ".tmp";
  CPJsonParse json;
  if (!json.CreateJson())
    return LogWarn("*zxagent CAgentData::SavePubmsgReportData Error CreateJson iPubmsgReport[%d]",
                   iPubmsgReport);
  if (!json.AddNode(nullptr, "pubmsgreport", iPubmsgReport))
    return LogWarn("*zxagent CAgentData::SavePubmsgReportData Error AddNode pubmsgreport iPubmsgReport[%d]",
                   iPubmsgReport);
  if (!json.SaveFile(strFileTmp))
    return LogWarn("*zxagent CAgentData::SavePubmsgReportData Error SaveFile Error[%d] strFileTmp[%s]", errno,
                   strFileTmp);
  if (!MyMoveFile(strFileTmp, strFile))
    return LogWarn(
        "*zxagent CAgentData::SavePubmsgReportData Error MyMoveFile Error[%d] strFileTmp[%s] strFile[%s]",
        errno, strFileTmp, strFile);
  LogInfo("zxagent CAgentData::SavePubmsgReportData OK SaveFile iPubmsgReport[%d] strFile[%s]", iPubmsgReport,
          strFile);
  return 1;
}

int CAgentData::ReadTermConnectData(CPString& strData) {
  const CPString strFile = m_strConfInnerPath + "termconnect.json";
  if (!ZxReadFileText(strFile, strData))
    return LogWarn("*zxagent CAgentData::ReadTermConnectData Warn ZxReadFileData Flag[%d] strFile[%s]", errno,
                   strFile);
  return 1;
}

int CAgentData::SaveTermConnectData(const CPString& strData) {
  const CPString strFile = m_strConfInnerPath + "termconnect.json";
  const CPString strFileTmp = strFile + ".tmp";
  if (!ZxSaveFileData(strFileTmp, strData))
    return LogWarn("*zxagent CAgentData::SaveTermConnectData Error ZxSaveFileData Error[%d] strFileTmp[%s]",
                   errno, strFileTmp);
  if (!MyMoveFile(strFileTmp, strFile))
    return LogWarn(
        "*zxagent CAgentData::SaveTermConnectData Error MyMoveFile Error[%d] strFileTmp[%s] strFile[%s]",
        errno, strFileTmp, strFile);
  return 1;
}

int CAgentData::ParseTermConnectData(const CPString& strData, int& iType, int& iPollerCycle) {
  if (strData.IsEmpty())
    return LogWarn("*zxagent CAgentData::ParseTermConnectData Error strData is empty");
  CPJsonParse json;
  if (!json.LoadBuffer(strData.data(), strData.GetLength()))
    return LogWarn("*zxagent CAgentData::ParseTermConnectData Error LoadBuffer strData[%s]",
                   CAgentTools::RefusedText(strData));
  const HJsonNode hParam = json.GetNode("Param");
  if (hParam == nullptr)
    return LogWarn("*zxagent CAgentData::ParseTermConnectData Error GetNode Param strData[%s]",
                   CAgentTools::RefusedText(strData));
  if (!JsonInt(json, hParam, "type", iType))
    return LogWarn("*zxagent CAgentData::ParseTermConnectData Error GetNode type strData[%s]",
                   CAgentTools::RefusedText(strData));
  if (JsonInt(json, hParam, "poller_cycle", iPollerCycle)) {
    if (iPollerCycle < kPollerCycleMin)
      iPollerCycle = kPollerCycleMin;
  } else {
    LogWarn("*zxagent CAgentData::ParseTermConnectData Warn GetNode poller_cycle strData[%s]", strData);
    iPollerCycle = IsPersonalEdition() ? kPollerCyclePersonal : kPollerCycleMin;
  }
  LogInfo("zxagent CAgentData::ParseTermConnectData OK iType[%d] iPollerCycle[%d] strData[%s]", iType,
          iPollerCycle, strData);
  return 1;
}

int CAgentData::ReadMsgSrvAddrSetData(CPString& strData) {
  const CPString strFile = m_strConfInnerPath + "msgsrvaddrset.json";
  if (!ZxReadFileText(strFile, strData))
    return LogWarn("*zxagent CAgentData::ReadMsgSrvAddrSetData Warn ZxReadFileData Flag[%d] strFile[%s]",
                   errno, strFile);
  return 1;
}

int CAgentData::SaveMsgSrvAddrSetData(const CPString& strData) {
  const CPString strFile = m_strConfInnerPath + "msgsrvaddrset.json";
  const CPString strFileTmp = strFile + ".tmp";
  if (!ZxSaveFileData(strFileTmp, strData))
    return LogWarn("*zxagent CAgentData::SaveMsgSrvAddrSetData Error ZxSaveFileData Error[%d] strFileTmp[%s]",
                   errno, strFileTmp);
  if (!MyMoveFile(strFileTmp, strFile))
    return LogWarn(
        "*zxagent CAgentData::SaveMsgSrvAddrSetData Error MyMoveFile Error[%d] strFileTmp[%s] strFile[%s]",
        errno, strFileTmp, strFile);
  return 1;
}

int CAgentData::ParseMsgSrvAddrSetData(const CPString& strData, CPString& strAddr) {
  if (strData.IsEmpty())
    return LogWarn("*zxagent CAgentData::ParseMsgSrvAddrSetData Error strData is empty");
  CPJsonParse json;
  if (!json.LoadBuffer(strData.data(), strData.GetLength()))
    return LogWarn("*zxagent CAgentData::ParseMsgSrvAddrSetData Error LoadBuffer strData[%s]",
                   CAgentTools::RefusedText(strData));
  const HJsonNode hParam = json.GetNode("Param");
  if (hParam == nullptr)
    return LogWarn("*zxagent CAgentData::ParseMsgSrvAddrSetData Error GetNode Param strData[%s]",
                   CAgentTools::RefusedText(strData));
  std::vector<HJsonNode> list;
  if (!json.GetAllNode(hParam, list))
    return LogWarn("*zxagent CAgentData::ParseMsgSrvAddrSetData Error GetAllNode strData[%s]",
                   CAgentTools::RefusedText(strData));
  int i = -1;
  for (const HJsonNode hChild : list) {
    ++i;
    CPString strChildAddr;
    if (!JsonText(json, hChild, "addr", strChildAddr)) {
      LogWarn("*zxagent CAgentData::ParseMsgSrvAddrSetData Warn GetNode addr i[%d] strData[%s]", i,
              CAgentTools::RefusedText(strData));
      continue;
    }
    strAddr += strChildAddr;
    strAddr += ',';
    CPString strType;  // told in the log only: an address counts whatever its type
    if (JsonText(json, hChild, "type", strType))
      LogInfo("zxagent CAgentData::ParseMsgSrvAddrSetData i[%d] strChildAddr[%s] strType[%s]", i,
              strChildAddr, strType);
    else
      LogWarn("*zxagent CAgentData::ParseMsgSrvAddrSetData Warn GetNode type i[%d] strData[%s]", i,
              CAgentTools::RefusedText(strData));
  }
  strAddr.TrimRight(',');
  LogInfo("zxagent CAgentData::ParseMsgSrvAddrSetData OK strAddr[%s] strData[%s]", strAddr, strData);
  return 1;
}

int CAgentData::ReadConfigChannelId(CPString& strChannelId, CPString& strIpartner) {
  strChannelId = kDefaultChannel;
  strIpartner = kDefaultChannel;
  const CPString strFile = m_strConfInnerPath + "zxagent.json";
  CPJsonParse json;
  if (!json.LoadFile(strFile)) {
    LogWarn("*zxagent CAgentData::ReadConfigChannelId Error LoadFile Error[%d] strFile[%s]", errno, strFile);
    return ReadConfigPid(strChannelId);
  }
  const HJsonNode hAgent = json.GetNode("zxagent");
  if (hAgent == nullptr) {
    LogWarn("*zxagent CAgentData::ReadConfigChannelId Warn GetNode zxagent strFile[%s]", strFile);
    return ReadConfigPid(strChannelId);
  }
  JsonText(json, hAgent, "channel", strChannelId);
  JsonText(json, hAgent, "pin", strIpartner);
  LogInfo("zxagent CAgentData::ReadConfigChannelId strChannelId[%s] strIpartner[%s] strFile[%s]",
          strChannelId, strIpartner, strFile);
  return 1;
}

int CAgentData::ReadConfigUploadBudget(int& iMegabytes) {
  iMegabytes = kUploadBudgetMb;
  const CPString strFile = m_strConfInnerPath + "zxagent.json";
  CPJsonParse json;
  if (!json.LoadFile(strFile))
    return 0;  // told by whoever reads the channel from the same file
  const HJsonNode hAgent = json.GetNode("zxagent");
  int iConfigured = 0;
  if (hAgent == nullptr || !JsonInt(json, hAgent, "upload_budget_mb", iConfigured))
    return 0;
  iMegabytes = std::clamp(iConfigured, 1, kUploadBudgetMaxMb);
  if (iMegabytes != iConfigured)
    LogWarn("*zxagent CAgentData::ReadConfigUploadBudget Warn iConfigured[%d] iMegabytes[%d] strFile[%s]",
            iConfigured, iMegabytes, strFile);
  else
    LogInfo("zxagent CAgentData::ReadConfigUploadBudget iMegabytes[%d] strFile[%s]", iMegabytes, strFile);
  return 1;
}

int CAgentData::ReadConfigPid(CPString& strPid) {
  const CPString strFile = m_strHomePath + "etc/productinfo.json";
  CPJsonParse json;
  if (!json.LoadFile(strFile))
    return LogWarn("*zxagent CAgentData::ReadConfigPid Error LoadFile Error[%d] strFile[%s]", errno, strFile);
  CPString strValue;
  if (!JsonText(json, nullptr, "pid", strValue))
    return LogWarn("*zxagent CAgentData::ReadConfigPid Error GetNode pid strFile[%s]", strFile);
  if (strValue.IsEmpty())
    return LogWarn("*zxagent CAgentData::ReadConfigPid Error strPid is empty strFile[%s]", strFile);
  strPid = strValue;
  LogInfo("zxagent CAgentData::ReadConfigPid strPid[%s] strFile[%s]", strPid, strFile);
  return 1;
}
