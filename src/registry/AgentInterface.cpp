#include "registry/AgentInterface.h"

#include <cstdlib>
#include <memory>
#include <vector>

#include "data/AgentLog.h"
#include "data/AgentTools.h"
#include "platform/doc/PJsonParse.h"
#include "registry/DornConfigProxy.h"

namespace {

constexpr int kStatusLoaded = 1;

struct CHeldValue : CConfigValue {
  CHeldValue() = default;
  ~CHeldValue() { std::free(pData); }
  CHeldValue(const CHeldValue&) = delete;
  CHeldValue& operator=(const CHeldValue&) = delete;

  CPString Text() const { return iTag == kCfgTagText ? static_cast<const char*>(pData) : nullptr; }
};

int GetText(const zxtools::CPJsonParse& json, zxtools::HJsonNode hParent, const char* pszName,
            CPString& strValue) {
  const zxtools::HJsonNode hNode = json.GetNode(hParent, pszName);
  return hNode != nullptr ? zxtools::CPJsonParse::GetValue(hNode, strValue) : 0;
}

// Whether the element's status says that the plug-in is loaded. strData is for the log only.
int IsLoaded(const zxtools::CPJsonParse& json, zxtools::HJsonNode hElement, int i, int bGetAll,
             const CPString& strData) {
  const zxtools::HJsonNode hStatus = json.GetNode(hElement, "status");
  int iStatus = 0;
  if (hStatus == nullptr || !zxtools::CPJsonParse::GetIntValue(hStatus, iStatus))
    return LogWarn(
        "*zxagent CAgentData::ParseAllPluginInfo Warn GetNode status i[%d] bGetAll[%d] strData[%s]", i,
        bGetAll, strData);
  if (iStatus != kStatusLoaded)
    return LogWarn(
        "*zxagent CAgentData::ParseAllPluginInfo Warn not load iStatus[%d] i[%d] bGetAll[%d] strData[%s]",
        iStatus, i, bGetAll, strData);
  return 1;
}

// One element of the list into gpc; 0 when it does not count.
int ParseElement(const zxtools::CPJsonParse& json, zxtools::HJsonNode hElement, int i, int bGetAll,
                 const CPString& strData, _GuidProductCombo& gpc) {
  if (!GetText(json, hElement, "id", gpc.strGuid))
    return LogWarn("*zxagent CAgentData::ParsePluginInfo Warn GetNode id i[%d] bGetAll[%d] strData[%s]", i,
                   bGetAll, strData);
  if (!GetText(json, hElement, "product", gpc.strProduct))
    return LogWarn("*zxagent CAgentData::ParsePluginInfo Warn GetNode product i[%d] bGetAll[%d] strData[%s]",
                   i, bGetAll, strData);
  if (!GetText(json, hElement, "combo", gpc.strCombo))
    return LogWarn("*zxagent CAgentData::ParseAllPluginInfo Warn GetNode combo i[%d] bGetAll[%d] strData[%s]",
                   i, bGetAll, strData);
  return bGetAll != 0 || IsLoaded(json, hElement, i, bGetAll, strData) ? 1 : 0;
}

}  // namespace

int CAgentInterface::Init(CPString strHomePath) {
  if (strHomePath.IsEmpty())
    return LogError("**zxagent CAgentInterface::Init Error strHomePath is empty");
  m_strHomePath = strHomePath;
  const std::shared_ptr<CDornConfigProxy> pDornConfigProxy = CDornConfigProxy::Create();
  if (pDornConfigProxy == nullptr)
    return LogError("**zxagent CAgentInterface::Init Error pDornConfigProxy is NULL");
  CPString strError;
  const int iRet = pDornConfigProxy->Init(strHomePath, strError);
  if (iRet != kCfgOk)
    return LogError("**zxagent CAgentInterface::Init Error init Error[%d][%s] strInstallDir[%s]", iRet,
                    strError, strHomePath);
  LogInfo("zxagent CAgentInterface::Init OK strHomePath[%s]", strHomePath);
  return 1;
}

int CAgentInterface::Uninit() {
  if (!CDornConfigProxy::Destroy())
    return LogError("**zxagent CAgentInterface::Uninit Error pDornConfigProxy is NULL");
  LogInfo("zxagent CAgentInterface::Uninit OK");
  return 1;
}

int CAgentInterface::GetPluginInfo(int bGetAll, std::list<_GuidProductCombo>& list) {
  const std::shared_ptr<CDornConfigProxy> pDornConfigProxy = CDornConfigProxy::Instance();
  if (pDornConfigProxy == nullptr)
    return LogError("**zxagent CAgentInterface::GetPluginInfo Error pDornConfigProxy is NULL bGetAll[%d]",
                    bGetAll);
  CHeldValue valueOut;
  CHeldValue valueIn;
  const int iRet = pDornConfigProxy->GetConfig(kCfgItemPlugins, &valueOut, &valueIn, 0);
  if (iRet != kCfgOk)
    return LogError("**zxagent CAgentInterface::GetPluginInfo Error GetConfig cfgRet[%d] bGetAll[%d]", iRet,
                    bGetAll);
  const CPString strData = valueOut.Text();
  if (!ParsePluginInfo(bGetAll, strData, list))
    return LogError("**zxagent CAgentInterface::GetPluginInfo Error ParsePluginInfo bGetAll[%d] strData[%s]",
                    bGetAll, CAgentTools::RefusedText(strData));
  LogInfo("zxagent CAgentInterface::GetPluginInfo OK ParsePluginInfo bGetAll[%d] gpcList[%d] strData[%s]\n",
          bGetAll, static_cast<int>(list.size()), strData);
  return 1;
}

int CAgentInterface::ParsePluginInfo(int bGetAll, const CPString& strData,
                                     std::list<_GuidProductCombo>& list) {
  if (strData.IsEmpty())
    return LogWarn("*zxagent CAgentData::ParsePluginInfo Warn strData is empty bGetAll[%d]", bGetAll);
  const CPString strShown = CAgentTools::RefusedText(strData);
  zxtools::CPJsonParse json;
  if (!json.LoadBuffer(strData.data(), strData.GetLength()))
    return LogWarn("*zxagent CAgentData::ParsePluginInfo Warn LoadBuffer bGetAll[%d] strData[%s]", bGetAll,
                   strShown);
  const zxtools::HJsonNode hList = json.GetNode("list");
  if (hList == nullptr)
    return LogWarn("*zxagent CAgentData::ParsePluginInfo Error GetNode list bGetAll[%d] strData[%s]", bGetAll,
                   strShown);
  std::vector<zxtools::HJsonNode> elements;
  if (!json.GetAllNode(hList, elements))
    return LogWarn("*zxagent CAgentData::ParsePluginInfo Error GetAllNode bGetAll[%d] strData[%s]", bGetAll,
                   strShown);
  int i = 0;
  for (const zxtools::HJsonNode hElement : elements) {
    _GuidProductCombo gpc;
    if (ParseElement(json, hElement, i, bGetAll, strShown, gpc)) {
      LogInfo("zxagent CAgentData::ParsePluginInfo i[%d] bGetAll[%d] strGuid[%s] strProduct[%s] strCombo[%s]",
              i, bGetAll, gpc.strGuid, gpc.strProduct, gpc.strCombo);
      list.push_back(std::move(gpc));
    }
    ++i;
  }
  return 1;
}
