#include "HostMethods.h"

#include <cjson/cJSON.h>
#include <unistd.h>

#include <exception>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "HostLog.h"
#include "LoadedLibraries.h"
#include "platform/os/ZxGauges.h"
#include "platform/os/ZxTime.h"

namespace {

struct CJsonDelete {
  void operator()(cJSON* pJson) const { cJSON_Delete(pJson); }
};
using TJson = std::unique_ptr<cJSON, CJsonDelete>;

void AddText(cJSON* pObject, const char* pszName, const CPString& str) {
  cJSON_AddStringToObject(pObject, pszName, str.c_str());
}

void AddNumber(cJSON* pObject, const char* pszName, double d) {
  cJSON_AddNumberToObject(pObject, pszName, d);
}

void AddTypes(cJSON* pObject, const char* pszName, const std::vector<uint32_t>& types) {
  cJSON* pArray = cJSON_AddArrayToObject(pObject, pszName);
  for (const uint32_t uiType : types)
    cJSON_AddItemToArray(pArray, cJSON_CreateNumber(uiType));
}

// Length of the UTF-8 sequence at the beginning; 0 when it is none.
size_t Utf8Length(std::string_view sv) {
  const auto byte = [&](size_t u) { return static_cast<unsigned char>(sv[u]); };
  const unsigned uFirst = byte(0);
  if (uFirst < 0x80)
    return 1;
  const size_t uLength = uFirst >= 0xf0 ? 4 : uFirst >= 0xe0 ? 3 : 2;
  if (uFirst < 0xc2 || uFirst > 0xf4 || sv.size() < uLength)
    return 0;
  for (size_t u = 1; u < uLength; ++u) {
    if ((byte(u) & 0xc0) != 0x80)
      return 0;
  }
  const bool bOutside = (uFirst == 0xe0 && byte(1) < 0xa0) || (uFirst == 0xed && byte(1) > 0x9f) ||
                        (uFirst == 0xf0 && byte(1) < 0x90) || (uFirst == 0xf4 && byte(1) > 0x8f);
  return bOutside ? 0 : uLength;
}

// The bus carries UTF-8 only, and a log line or a path may hold anything.
CPString TextOf(const TJson& root) {
  char* psz = cJSON_PrintUnformatted(root.get());
  if (psz == nullptr)
    throw std::bad_alloc();
  std::string str(psz);
  cJSON_free(psz);
  for (size_t u = 0; u < str.size();) {
    const size_t uLength = Utf8Length(std::string_view(str).substr(u));
    if (uLength == 0)
      str[u] = '?';
    u += uLength != 0 ? uLength : 1;
  }
  return str;
}

CPString TimeText(std::time_t tTime) {
  struct tm tmUtc {};
  char szText[32] = {};
  gmtime_r(&tTime, &tmUtc);
  (void)std::strftime(szText, sizeof(szText), "%Y-%m-%dT%H:%M:%SZ", &tmUtc);
  return szText;
}

// Null when the bus has none to give.
TJson BusFigures() {
  uint32_t uiNeeded = 0;
  ZxBusStats(nullptr, 0, &uiNeeded);
  std::string strText;
  do {  // it may grow between two questions
    strText.resize(uiNeeded);
  } while (uiNeeded != 0 && ZxBusStats(strText.data(), uiNeeded, &uiNeeded) == kBusErrTooLong);
  return TJson(uiNeeded != 0 ? cJSON_Parse(strText.c_str()) : nullptr);
}

std::map<std::string, const cJSON*> ByGuid(const TJson& figures, const char* pszList) {
  std::map<std::string, const cJSON*> items;
  const cJSON* pItem = nullptr;
  cJSON_ArrayForEach(pItem, cJSON_GetObjectItemCaseSensitive(figures.get(), pszList)) {
    const char* pszGuid = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(pItem, "guid"));
    if (pszGuid != nullptr)
      items[pszGuid] = pItem;
  }
  return items;
}

// The members of pFrom but its GUID, which pTo has already.
void Merge(cJSON* pTo, const cJSON* pFrom) {
  const cJSON* pMember = nullptr;
  cJSON_ArrayForEach(pMember, pFrom) {
    if (cJSON_HasObjectItem(pTo, pMember->string) == 0)
      cJSON_AddItemToObject(pTo, pMember->string, cJSON_Duplicate(pMember, 1));
  }
}

cJSON* AddComponent(cJSON* pList, const CPString& strGuid, const CPString& strName, const char* pszKind) {
  cJSON* pObject = cJSON_CreateObject();
  cJSON_AddItemToArray(pList, pObject);
  AddText(pObject, "guid", strGuid);
  AddText(pObject, "name", strName);
  AddText(pObject, "kind", pszKind);
  return pObject;
}

void AddManifest(cJSON* pObject, const _ComponentEntry& entry) {
  AddText(pObject, "user", entry.manifest.strUser);
  if (entry.strRefused.IsEmpty())
    AddNumber(pObject, "user_uid", entry.uid);
  cJSON_AddBoolToObject(pObject, "accepted", entry.strRefused.IsEmpty());
  AddText(pObject, "refused", entry.strRefused);
  AddTypes(pObject, "send", entry.manifest.send);
  AddTypes(pObject, "broadcast", entry.manifest.broadcast);
}

}  // namespace

CHostMethods::CHostMethods(CBusService& bus, CPluginDriver& driver, CPString strHome)
    : m_bus(bus),
      m_driver(driver),
      m_strHome(std::move(strHome)),
      m_u64StartMs(ZxGetTickCount()),
      m_tStart(std::time(nullptr)) {}

uint32_t CHostMethods::Serve(const ZxBusHostCall* pCall, void* pContext) {
  try {
    CPString strAnswer;
    const uint32_t uiResult =
        static_cast<CHostMethods*>(pContext)->Call(pCall->pszMethod, pCall->pszJson, strAnswer);
    ZxBusHostAnswer(pCall, strAnswer.c_str());
    return uiResult;
  } catch (const std::exception& e) {
    LogErrorTo(g_hHostLog, "**zxhost method[%s] failed what[%s]", pCall->pszMethod, e.what());
    return kBusErrBusy;
  }
}

uint32_t CHostMethods::Call(const CPString& strMethod, const CPString& strJson, CPString& strAnswer) {
  if (strMethod == "log_level")
    return LogLevel(strJson, strAnswer);
  if (strMethod == "status")
    strAnswer = Status();
  else if (strMethod == "components")
    strAnswer = Components();
  else
    return kBusErrNoReceiver;
  return 0;
}

CPString CHostMethods::Status() {
  const TJson root(cJSON_CreateObject());
  cJSON* pRoot = root.get();
  AddText(pRoot, "version", ZX_VERSION);
  AddText(pRoot, "home", m_strHome);
  AddNumber(pRoot, "pid", getpid());
  AddNumber(pRoot, "uid", geteuid());
  AddText(pRoot, "started", TimeText(m_tStart));
  AddNumber(pRoot, "uptime_sec", static_cast<double>((ZxGetTickCount() - m_u64StartMs) / 1000));
  AddNumber(pRoot, "log_level", m_iLogLevel);

  bool bAnswered = false;
  cJSON* pPlugins = cJSON_AddArrayToObject(pRoot, "plugins");
  for (const _PluginState& state : m_driver.States(kAnswerMs, bAnswered)) {
    cJSON* pPlugin = cJSON_CreateObject();
    cJSON_AddItemToArray(pPlugins, pPlugin);
    AddText(pPlugin, "name", state.strName);
    AddText(pPlugin, "guid", state.strGuid);
    AddText(pPlugin, "path", state.strPath);
    AddText(pPlugin, "state", state.pszState);
    AddNumber(pPlugin, "status", state.iStatus);
  }
  cJSON_AddBoolToObject(pRoot, "plugins_answer", bAnswered);

  AddText(pRoot, "mid", ReadMachineId());
  cJSON* pLink = cJSON_AddObjectToObject(pRoot, "link");
  for (const auto& [strKey, strValue] : ReadCloudLink())
    AddText(pLink, strKey.c_str(), strValue);

  const _BusSnapshot bus = m_bus.Snapshot();
  cJSON* pBus = cJSON_AddObjectToObject(pRoot, "bus");
  AddText(pBus, "address", bus.strAddress);
  cJSON_AddBoolToObject(pBus, "own_daemon", bus.bOwnDaemon);
  AddNumber(pBus, "daemon_pid", bus.iDaemonPid);
  AddNumber(pBus, "daemon_starts", bus.uiStarts);
  if (bus.iDaemonPid != 0)
    AddNumber(pBus, "daemon_uptime_sec", static_cast<double>((ZxGetTickCount() - bus.u64UpSinceMs) / 1000));
  AddText(pBus, "trouble", bus.strTrouble);
  TJson figures = BusFigures();
  if (figures != nullptr)
    cJSON_AddItemToObject(pBus, "stats", figures.release());

  cJSON* pGauges = cJSON_AddObjectToObject(pRoot, "gauges");
  for (const ZxGaugeValue& gauge : ZxGaugesRead())
    AddNumber(pGauges, gauge.strName.c_str(), static_cast<double>(gauge.i64Value));

  cJSON* pErrors = cJSON_AddArrayToObject(pRoot, "errors");
  for (const _RecentLine& line : RecentLines().Lines()) {
    cJSON* pError = cJSON_CreateObject();
    cJSON_AddItemToArray(pErrors, pError);
    AddText(pError, "time", TimeText(line.tTime));
    AddText(pError, "channel", line.strChannel);
    AddNumber(pError, "level", line.iLevel);
    AddText(pError, "text", line.strText);
  }
  return TextOf(root);
}

CPString CHostMethods::Components() {
  const TJson root(cJSON_CreateObject());
  cJSON* pList = cJSON_AddArrayToObject(root.get(), "components");
  const TJson figures = BusFigures();
  auto inProcess = ByGuid(figures, "components");
  auto peers = ByGuid(figures, "peers");
  const auto take = [](std::map<std::string, const cJSON*>& items, const CPString& strGuid) {
    const auto node = items.extract(strGuid.Str());
    return node.empty() ? nullptr : node.mapped();
  };

  bool bAnswered = false;
  for (const _PluginState& state : m_driver.States(0, bAnswered)) {
    GUID guid;
    const CPString strGuid = ParseGuidText(state.strGuid.View(), guid) ? guid.ToUpper() : state.strGuid;
    cJSON* pObject = AddComponent(pList, strGuid, state.strName, "plug-in");
    AddText(pObject, "state", state.pszState);
    const cJSON* pFigures = take(inProcess, strGuid);
    cJSON_AddBoolToObject(pObject, "joined", pFigures != nullptr);
    Merge(pObject, pFigures);
  }
  for (const auto& [strGuid, pFigures] : inProcess) {  // further GUIDs of plug-ins
    cJSON* pObject = AddComponent(pList, strGuid, "", "plug-in");
    cJSON_AddBoolToObject(pObject, "joined", 1);
    Merge(pObject, pFigures);
  }
  const _BusSnapshot bus = m_bus.Snapshot();
  for (const _ComponentEntry& entry : bus.pComponents->entries) {
    if (!entry.manifest.bExternal && !entry.bWarning)
      continue;
    for (const GUID& guid : entry.manifest.guids.empty() ? std::vector<GUID>(1) : entry.manifest.guids) {
      const CPString strGuid = guid != GUID() ? guid.ToUpper() : CPString();
      cJSON* pObject = AddComponent(pList, strGuid, entry.strName, "process");
      AddManifest(pObject, entry);
      const cJSON* pFigures = entry.strRefused.IsEmpty() ? take(peers, strGuid) : nullptr;
      cJSON_AddBoolToObject(pObject, "joined", pFigures != nullptr);
      Merge(pObject, pFigures);
    }
  }
  for (const auto& [strGuid, pFigures] : peers) {  // root, or the host's own user, without a manifest
    cJSON* pObject = AddComponent(pList, strGuid, "", "process");
    cJSON_AddBoolToObject(pObject, "joined", 1);
    Merge(pObject, pFigures);
  }
  AddText(root.get(), "trouble", bus.pComponents->strError);
  return TextOf(root);
}

// {"level":n}: 1 to 9 for every channel until further notice, 0 back to the settings.
uint32_t CHostMethods::LogLevel(const CPString& strJson, CPString& strAnswer) {
  const TJson root(cJSON_ParseWithLength(strJson.data(), strJson.GetLength()));
  const cJSON* pLevel = cJSON_GetObjectItemCaseSensitive(root.get(), "level");
  const double d = cJSON_IsNumber(pLevel) != 0 ? pLevel->valuedouble : -1;
  if (!(d >= 0 && d <= 9) || d != static_cast<int>(d)) {
    strAnswer = "wanted: {\"level\": 0 to 9}";
    return kBusErrInvalid;
  }
  m_iLogLevel = static_cast<int>(d);
  LogForceLevel(m_iLogLevel);
  LogInfoTo(g_hHostLog, "zxhost log_level[%d] for every channel, 0 is as configured", m_iLogLevel);
  strAnswer = CPString::Make("{\"level\":%d}", m_iLogLevel);
  return 0;
}
