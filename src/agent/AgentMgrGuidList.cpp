// The routing table as a list of GUIDs for the task manager.
#include <cerrno>
#include <cstring>

#include "agent/AgentMgr.h"
#include "data/AgentCodes.h"
#include "data/AgentLog.h"
#include "platform/doc/PJsonParse.h"
#include "platform/os/ZxFile.h"
#include "send/AgentCallback.h"

namespace {

constexpr char kGuidListFile[] = "zxpagentpcguid.json";

// False when memory is out.
bool AddCommands(zxtools::CPJsonParse& json, zxtools::HJsonNode hCommand, const commandRouteMap& mapRoute) {
  for (const auto& [strCommand, entries] : mapRoute) {
    const zxtools::HJsonNode hEntries = json.AddNodeArray(hCommand, strCommand.c_str());
    if (hEntries == nullptr)
      return false;
    for (const _GuidProductCombo& entry : entries) {
      const zxtools::HJsonNode hEntry = json.InsertObjectToArray(hEntries);
      if (hEntry == nullptr || !json.AddNode(hEntry, "guid", entry.strGuid) ||
          !json.AddNode(hEntry, "productcombo", entry.strProduct + "/" + entry.strCombo))
        return false;
    }
  }
  return true;
}

// A key that several components share is left out: the task manager could not tell them apart by it.
bool AddProductCombos(zxtools::CPJsonParse& json, zxtools::HJsonNode hProductCombo,
                      const productComboToGuidMap& mapPcGuid) {
  for (const auto& [strKey, guids] : mapPcGuid) {
    if (guids.GetCount() != 1) {
      LogWarn("*zxagent CAgentMgr::GetTaskmgrGuidList Warn p/c[%s] GuidList[%d]", strKey,
              static_cast<int>(guids.GetCount()));
      continue;
    }
    if (!json.AddNode(hProductCombo, strKey.c_str(), guids.GetAt(0)))
      return false;
  }
  return true;
}

}  // namespace

int CAgentMgr::ZxagentGuidData(const char* lpszData) {
  if (lpszData == nullptr || lpszData[0] == 0)
    return 0;
  if (m_pCompCtx == nullptr)
    return LogWarn("*zxagent CAgentMgr::ZxagentGuidData Error m_pCompCtx is NULL lpszData[%s]\n", lpszData);
  unsigned long long ui64ACT = 0;
  const uint32_t uiRet = m_pCompCtx->AsynSendEx(
      &m_guidTaskMgr, AGENT_MSG_ASYNC_GUIDLIST, lpszData, static_cast<uint32_t>(std::strlen(lpszData)),
      &CAgentAsynCallback::m_AgentAsynCallback, nullptr, &ui64ACT, kBusTimeoutMs);
  if (uiRet != 0)
    return LogWarn("*zxagent CAgentMgr::ZxagentGuidData Error iRet[%x] lpszData[%s]\n", uiRet, lpszData);
  LogInfo("zxagent CAgentMgr::ZxagentGuidData End AsynSendEx ui64ACT[%llx] lpszData[%s]\n", ui64ACT,
          lpszData);
  return 1;
}

int CAgentMgr::GetTaskmgrGuidList(CPString& strJson) {
  if (m_pCompCtx == nullptr)
    return LogError("**zxagent CAgentMgr::GetTaskmgrGuidList Error m_pCompCtx is NULL");
  commandRouteMap mapRoute;
  productComboToGuidMap mapPcGuid;
  m_AgentData.GetCommandProductMap(mapRoute, mapPcGuid);

  zxtools::CPJsonParse json;
  if (!json.CreateJson())
    return LogWarn("*zxagent CAgentMgr::GetTaskmgrGuidList Warn CreateJson");
  const zxtools::HJsonNode hCommand = json.AddNodeObject(nullptr, "command");
  if (hCommand == nullptr || !AddCommands(json, hCommand, mapRoute))
    return LogWarn("*zxagent CAgentMgr::GetTaskmgrGuidList Warn AddNodeObject command");
  const zxtools::HJsonNode hProductCombo = json.AddNodeObject(nullptr, "productcombo");
  if (hProductCombo == nullptr || !AddProductCombos(json, hProductCombo, mapPcGuid))
    return LogWarn("*zxagent CAgentMgr::GetTaskmgrGuidList Warn AddNodeObject productcombo");
  if (!json.GetJsonStr(strJson))
    return LogWarn("*zxagent CAgentMgr::GetTaskmgrGuidList Warn GetJsonStr");

  const CPString strFile = m_strAgentPath + kGuidListFile;
  if (!strJson.IsEmpty() && !ZxSaveFileData(strFile, strJson))
    LogWarn("*zxagent CAgentMgr::GetTaskmgrGuidList Warn ZxSaveFileData Error[%d] strFile[%s]", errno,
            strFile);
  return 1;
}

int CAgentMgr::SendGuidList2Taskmgr() {
  CPString strJson;
  if (!GetTaskmgrGuidList(strJson))
    return LogWarn("*zxagent CAgentMgr::SendGuidList2Taskmgr Warn GetTaskmgrGuidList");
  // A refused insert has said so.
  if (!AddZxcloudCallbackData(kWorkGuidList, 0, strJson.c_str(), 0))
    return 0;
  LogInfo("zxagent CAgentMgr::SendGuidList2Taskmgr End OK strJson[%s]", strJson);
  return 1;
}

uint32_t CAgentMgr::NotifyAuthChange() {
  LogInfo("zxagent CAgentMgr::NotifyAuthChange Begin");
  if (!m_AgentData.ReLoadCommandGuid())
    return LogFail(kErrGeneral, "*zxagent CAgentMgr::NotifyAuthChange Warn LoadCommandGuid");
  SendGuidList2Taskmgr();
  LogInfo("zxagent CAgentMgr::NotifyAuthChange End OK");
  return 0;
}
