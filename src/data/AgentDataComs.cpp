// The per-client component files, loaded on request of other modules of the deployment.
#include <cjson/cJSON.h>

#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

#include "data/AgentData.h"
#include "data/AgentLog.h"
#include "platform/os/ZxFile.h"

namespace {

constexpr char kComsClientPath[] = "etc/coms/client/";
constexpr char kComsClientFile[] = "/config.json";
constexpr char kComsStatus[] = "1";
constexpr size_t kComsFileMax = 4u << 20;  // bounds what the parser builds; a client's file has a few KiB

struct CJsonDelete {
  void operator()(cJSON* pJson) const { cJSON_Delete(pJson); }
};
using CJsonPtr = std::unique_ptr<cJSON, CJsonDelete>;

// 0 (with a warning) when the element has no such text.
int GetText(const cJSON* pElement, const char* pszKey, int i, const CPString& strFile, CPString& strValue) {
  const char* psz = cJSON_GetStringValue(cJSON_GetObjectItem(pElement, pszKey));
  if (psz == nullptr)
    return LogWarn(
        "*zxagent CAgentData::LoadComsClientConfig Warn wrap_cJSON_GetObjectItem %s i[%d] strFile[%s]",
        pszKey, i, strFile);
  strValue = psz;
  return 1;
}

// 0 when the element does not count. Beyond the two ids everything may be missing.
int ParseComsPlugin(const cJSON* pElement, int i, const CPString& strFile, _ComboConfig& config) {
  if (!GetText(pElement, "id", i, strFile, config.strPluginId) ||
      !GetText(pElement, "uuid", i, strFile, config.strUuid))
    return 0;
  GetText(pElement, "product", i, strFile, config.strProduct);
  GetText(pElement, "combo", i, strFile, config.strCombo);
  GetText(pElement, "version", i, strFile, config.strVersion);
  GetText(pElement, "name", i, strFile, config.strName);
  config.strStatus = kComsStatus;
  return 1;
}

}  // namespace

int CAgentData::LoadComsFile(std::list<_GuidProductCombo>& gpcList) {
  const CPString strConfigPath = m_strHomePath + kComsClientPath;
  LogInfo("zxagent CAgentData::LoadComsFile strConfigPath[%s]", strConfigPath);
  std::error_code ec;
  std::filesystem::directory_iterator it(strConfigPath.Str(), ec);
  if (ec)
    return LogWarn("*zxagent CAgentData::LoadComsFile Warn opendir err[%d] strConfigPath[%s]", ec.value(),
                   strConfigPath);
  int iRet = 0;
  for (; !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
    std::error_code ecType;
    if (it->symlink_status(ecType).type() != std::filesystem::file_type::directory)
      continue;
    const CPString strName = it->path().filename().string();
    const CPString strComsClientFile = strConfigPath + strName + kComsClientFile;
    if (LoadComsClientConfig(strComsClientFile, gpcList) > 0) {
      iRet = 1;
      LogInfo("zxagent CAgentData::LoadComsFile OK LoadComsClientConfig d_name[%s] strComsClientFile[%s]",
              strName, strComsClientFile);
    } else {
      LogWarn("*zxagent CAgentData::LoadComsFile Error LoadComsClientConfig strComsClientFile[%s]",
              strComsClientFile);
    }
  }
  LogInfo("zxagent CAgentData::LoadComsFile OK gpcList[%d] strConfigPath[%s]",
          static_cast<int>(gpcList.size()), strConfigPath);
  return iRet;
}

int CAgentData::LoadComsClientConfig(const CPString& strFile, std::list<_GuidProductCombo>& gpcList) {
  CPString strData;
  if (!ZxReadFileText(strFile, strData))
    return LogWarn("*zxagent CAgentData::LoadComsClientConfig Error ZxReadFileData strFile[%s]", strFile);
  const CJsonPtr pJson(strData.GetLength() <= kComsFileMax
                           ? cJSON_ParseWithLength(strData.data(), strData.GetLength())
                           : nullptr);
  if (!pJson)
    return LogWarn("*zxagent CAgentData::LoadComsClientConfig Error wrap_cJSON_Parse strFile[%s]", strFile);
  const cJSON* pPlugins = cJSON_GetObjectItem(pJson.get(), "plugins");
  if (!cJSON_IsArray(pPlugins))
    return LogWarn(
        "*zxagent CAgentData::LoadComsClientConfig Error wrap_cJSON_GetObjectItem plugins strFile[%s]",
        strFile);
  int i = 0;
  const cJSON* pElement = nullptr;
  cJSON_ArrayForEach(pElement, pPlugins) {
    _ComboConfig config;
    if (!ParseComsPlugin(pElement, i++, strFile, config))
      continue;
    gpcList.push_back({config.strPluginId, config.strProduct, config.strCombo});
    const CPString strKey = ProductComboKey(config.strProduct, config.strCombo);
    int iSize = 0;
    {
      const CCritLock lock(m_csCombo);
      m_ComboCfgMap[strKey].push_back(config);
      iSize = static_cast<int>(m_ComboCfgMap.size());
    }
    LogInfo(
        "zxagent LoadComsClientConfig parse coms files Product[%s] Combo[%s] PluginID[%s] PluginName[%s] version[%s] status[%s] m_ComboCfgMap size[%d]",
        config.strProduct, config.strCombo, config.strPluginId, config.strName, config.strVersion,
        config.strStatus, iSize);
  }
  return i;
}

int CAgentData::GetComboConfigListByProductCombo(const CPString& strKey, std::list<_ComboConfig>& list) {
  const CPString strLower = strKey.Lower();
  const CCritLock lock(m_csCombo);
  const auto it = m_ComboCfgMap.find(strLower);
  if (it == m_ComboCfgMap.end())
    return 0;
  list = it->second;
  return 1;
}
