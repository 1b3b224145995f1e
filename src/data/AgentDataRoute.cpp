// The command routing table: which components a command goes to. Built from the route file and the installed
// plug-ins, swapped in whole.
#include <cerrno>
#include <vector>

#include "data/AgentData.h"
#include "data/AgentDataJson.h"
#include "data/AgentLog.h"

namespace {

constexpr char kRouteFile[] = "commandroute.json";

struct _RouteElement {
  _GuidProductCombo gpc;
  CPString strCommand;
  CPString strDesc;
};

// 0 when the element is to be skipped. A missing product skips it, a missing combo means any.
int ParseRouteElement(const zxtools::CPJsonParse& json, zxtools::HJsonNode hElement, int i,
                      const CPString& strFile, _RouteElement& element) {
  if (!JsonText(json, hElement, "id", element.gpc.strGuid))
    return LogWarn("*zxagent CAgentData::LoadCommandRoute Warn GetNode id i[%d] strFile[%s]", i, strFile);
  if (!JsonText(json, hElement, "command", element.strCommand))
    return LogWarn("*zxagent CAgentData::LoadCommandRoute Warn GetNode command i[%d] strFile[%s]", i,
                   strFile);
  if (!JsonText(json, hElement, "product", element.gpc.strProduct))
    return LogWarn("*zxagent CAgentData::LoadCommandRoute Warn GetNode product i[%d] strFile[%s]", i,
                   strFile);
  if (!JsonText(json, hElement, "combo", element.gpc.strCombo))
    LogWarn("*zxagent CAgentData::LoadCommandRoute Warn GetNode combo i[%d] strFile[%s]", i, strFile);
  if (!JsonText(json, hElement, "desc", element.strDesc))
    LogWarn("*zxagent CAgentData::LoadCommandRoute Warn GetNode desc i[%d] strFile[%s]", i, strFile);
  return 1;
}

// Empty product and combo route the command of every product.
bool IsRouteFor(const _GuidProductCombo& gpc, const CPString& strProduct, const CPString& strCombo) {
  if (gpc.strProduct.IsEmpty() && gpc.strCombo.IsEmpty())
    return true;
  return gpc.strProduct.CompareNoCase(strProduct) == 0 && gpc.strCombo.CompareNoCase(strCombo) == 0;
}

unsigned int Count(size_t uSize) {
  return static_cast<unsigned int>(uSize);
}

}  // namespace

int CAgentData::LoadCommandRoute(commandRouteMap& mapRoute) {
  const CPString strFile = m_strConfPath + kRouteFile;
  zxtools::CPJsonParse json;
  if (!json.LoadFile(strFile))
    return LogWarn("*zxagent CAgentData::LoadCommandRoute Warn LoadFile Flag[%d] strFile[%s]", errno,
                   strFile);
  const zxtools::HJsonNode hRoute = json.GetNode("commandroute");
  if (hRoute == nullptr)
    return LogWarn("*zxagent CAgentData::LoadCommandRoute Error GetNode commandroute strFile[%s]", strFile);
  std::vector<zxtools::HJsonNode> elements;
  if (!json.GetAllNode(hRoute, elements))
    return LogWarn("*zxagent CAgentData::LoadCommandRoute Error GetAllNode strFile[%s]", strFile);
  for (size_t u = 0; u < elements.size(); ++u) {
    const int i = static_cast<int>(u);
    _RouteElement element;
    if (!ParseRouteElement(json, elements[u], i, strFile, element))
      continue;
    const _GuidProductCombo& gpc = element.gpc;
    const int iCount =
        SetCommandRoute(gpc.strGuid, gpc.strProduct, gpc.strCombo, element.strCommand, mapRoute);
    if (iCount < 1)
      LogWarn(
          "*zxagent CAgentData::LoadCommandRoute Warn SetCommandRoute i[%d] iCount[%d] strGuid[%s] strProduct[%s] strCombo[%s] strCommand[%s] strDesc[%s]",
          i, iCount, gpc.strGuid, gpc.strProduct, gpc.strCombo, element.strCommand, element.strDesc);
    else
      LogInfo(
          "zxagent CAgentData::LoadCommandRoute SetCommandRoute i[%d] iCount[%d] strGuid[%s] strProduct[%s] strCombo[%s] strCommand[%s] strDesc[%s]",
          i, iCount, gpc.strGuid, gpc.strProduct, gpc.strCombo, element.strCommand, element.strDesc);
  }
  LogInfo("zxagent CAgentData::LoadCommandRoute OK commandRouteMap[%u] strFile[%s]\n", Count(mapRoute.size()),
          strFile);
  return 1;
}

int CAgentData::SetCommandRoute(const CPString& strGuid, const CPString& strProduct, const CPString& strCombo,
                                CPString strCommand, commandRouteMap& mapRoute) {
  if (strGuid.IsEmpty() || strCommand.IsEmpty()) {
    LogWarn(
        "*zxagent CAgentData::SetCommandRoute Warn is empty strGuid[%s] strProduct[%s] strCombo[%s] strCommand[%s]",
        strGuid, strProduct, strCombo, strCommand);
    return -1;
  }
  strCommand.ToLower();
  CPStrList commands;
  if (strCommand.Split(",", commands, true, true) < 1)
    return LogWarn(
        "*zxagent CAgentData::SetCommandRoute Warn strCommandList is empty strGuid[%s] strProduct[%s] strCombo[%s] strCommand[%s]",
        strGuid, strProduct, strCombo, strCommand);
  for (const CPString& strName : commands)
    mapRoute[strName].push_back({strGuid, strProduct, strCombo});
  return static_cast<int>(commands.GetCount());
}

int CAgentData::SetGuidProductCombo(const CPString& strGuid, const CPString& strProduct,
                                    const CPString& strCombo, productComboToGuidMap& mapPcGuid,
                                    guidToProductComboMap& mapGuidPc) {
  if (strGuid.IsEmpty() || strProduct.IsEmpty() || strCombo.IsEmpty())
    return LogWarn(
        "*zxagent CAgentData::SetGuidProductCombo Warn Product Combo is empty strGuid[%s] strProduct[%s] strCombo[%s]",
        strGuid, strProduct, strCombo);
  mapPcGuid[ProductComboKey(strProduct, strCombo)].AddTail(strGuid);
  mapGuidPc[GUID(strGuid.c_str())] = {strProduct, strCombo};
  LogInfo("zxagent CAgentData::SetGuidProductCombo strGuid[%s] strProduct[%s] strCombo[%s]", strGuid,
          strProduct, strCombo);
  return 1;
}

int CAgentData::LoadCommandGuid(commandRouteMap& mapRoute, productComboToGuidMap& mapPcGuid,
                                guidToProductComboMap& mapGuidPc) {
  if (!LoadCommandRoute(mapRoute))
    LogWarn("*zxagent CAgentData::LoadCommandGuid Warn LoadCommandRoute");
  std::list<_GuidProductCombo> gpcList;
  if (!m_AgentInterface.GetAllGuidProductCombo(gpcList))
    LogError("**zxagent CAgentData::LoadCommandGuid Error GetAllGuidProductCombo");
  int iRet = 0;
  for (const _GuidProductCombo& gpc : gpcList)
    iRet |= SetGuidProductCombo(gpc.strGuid, gpc.strProduct, gpc.strCombo, mapPcGuid, mapGuidPc);
  LogInfo(
      "zxagent CAgentData::LoadCommandGuid OK commandRouteMap[%u] productComboToGuidMap[%u] guidToProductComboMap[%u]\n",
      Count(mapRoute.size()), Count(mapPcGuid.size()), Count(mapGuidPc.size()));
  return iRet;
}

int CAgentData::ReLoadCommandGuid() {
  // What is swapped out is freed behind the lock.
  commandRouteMap mapRoute;
  productComboToGuidMap mapPcGuid;
  guidToProductComboMap mapGuidPc;
  const int iRet = LoadCommandGuid(mapRoute, mapPcGuid, mapGuidPc);
  if (iRet == 0) {
    LogInfo(
        "zxagent CAgentData::ReLoadCommandGuid LoadCommandGuid fail commandRouteMap[%u] productComboToGuidMap[%u] guidToProductComboMap[%u]",
        Count(mapRoute.size()), Count(mapPcGuid.size()), Count(mapGuidPc.size()));
    return iRet;
  }
  const CCritLock lock(m_csRoute);
  m_commandRouteMap.swap(mapRoute);
  m_productComboToGuidMap.swap(mapPcGuid);
  m_guidToProductComboMap.swap(mapGuidPc);
  return iRet;
}

int CAgentData::GetCommandGuid(unsigned long long u64DataId, const CPString& strProduct,
                               const CPString& strCombo, CPString strCommand, CPStrList& guidList) {
  if (!strCommand.IsEmpty()) {
    strCommand.ToLower();
    const CCritLock lock(m_csRoute);
    const auto it = m_commandRouteMap.find(strCommand);
    if (it != m_commandRouteMap.end()) {
      for (const _GuidProductCombo& gpc : it->second) {
        if (IsRouteFor(gpc, strProduct, strCombo))
          guidList.AddTail(gpc.strGuid);
      }
    }
    if (!guidList.IsEmpty())
      return 1;
  }
  const CPString strKey = ProductComboKey(strProduct, strCombo);
  {
    const CCritLock lock(m_csRoute);
    const auto it = m_productComboToGuidMap.find(strKey);
    if (it == m_productComboToGuidMap.end())
      return 0;
    guidList = it->second;
  }
  if (guidList.GetCount() == 1)
    return 1;
  return LogWarn(
      "*zxagent pushmsg Error multiple combos found u64DataId[%llx]strProduct[%s] strCombo[%s] strCommand[%s] strGuidList[%d][%s]",
      u64DataId, strProduct, strCombo, strCommand, static_cast<int>(guidList.GetCount()),
      guidList.ToString(","));
}

void CAgentData::GetCommandProductMap(commandRouteMap& mapRoute, productComboToGuidMap& mapPcGuid) {
  const CCritLock lock(m_csRoute);
  mapRoute = m_commandRouteMap;
  mapPcGuid = m_productComboToGuidMap;
}
