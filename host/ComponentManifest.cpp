#include "ComponentManifest.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cmath>
#include <memory>

namespace {

struct CJsonDelete {
  void operator()(cJSON* pJson) const { cJSON_Delete(pJson); }
};

bool IsHex(char ch) {
  return (ch >= '0' && ch <= '9') || (ch >= 'a' && ch <= 'f') || (ch >= 'A' && ch <= 'F');
}

bool AddGuid(const cJSON* pNode, const char* pszWhat, std::vector<GUID>& guids, CPString& strError) {
  const char* pszText = cJSON_GetStringValue(pNode);
  GUID guid;
  if (pszText == nullptr || !ParseGuidText(pszText, guid)) {
    strError = CPString(pszWhat) + " is no GUID";
    return false;
  }
  if (std::find(guids.begin(), guids.end(), guid) == guids.end())
    guids.push_back(guid);
  if (guids.size() <= kManifestMaxGuids)
    return true;
  strError = "too many GUIDs";
  return false;
}

// "bus"."guid" when it is there; else what the plug-in list names.
bool ReadGuids(const cJSON* pRoot, const cJSON* pBus, std::vector<GUID>& guids, CPString& strError) {
  const cJSON* pGuid = cJSON_GetObjectItemCaseSensitive(pBus, "guid");
  if (pGuid != nullptr)
    return AddGuid(pGuid, "\"guid\"", guids, strError);
  const cJSON* pPlugin = nullptr;
  cJSON_ArrayForEach(pPlugin, cJSON_GetObjectItemCaseSensitive(pRoot, "plugins")) {
    if (!AddGuid(cJSON_GetObjectItemCaseSensitive(pPlugin, "id"), "an \"id\"", guids, strError))
      return false;
  }
  if (guids.empty())
    strError = "no GUID";
  return !guids.empty();
}

bool ReadTypes(const cJSON* pBus, const char* pszName, std::vector<uint32_t>& types, CPString& strError) {
  const cJSON* pList = cJSON_GetObjectItemCaseSensitive(pBus, pszName);
  if (pList == nullptr)
    return true;
  if (cJSON_IsArray(pList) == 0) {
    strError = CPString::Make("\"%s\" is no list", pszName);
    return false;
  }
  const cJSON* pType = nullptr;
  cJSON_ArrayForEach(pType, pList) {
    const double d = cJSON_IsNumber(pType) != 0 ? pType->valuedouble : -1;
    if (!(d >= 0 && d <= UINT32_MAX) || d != std::floor(d)) {
      strError = CPString::Make("\"%s\" holds something that is no message type", pszName);
      return false;
    }
    types.push_back(static_cast<uint32_t>(d));
  }
  std::sort(types.begin(), types.end());
  types.erase(std::unique(types.begin(), types.end()), types.end());
  if (types.size() <= kManifestMaxTypes)
    return true;
  strError = CPString::Make("\"%s\" holds too many types", pszName);
  return false;
}

bool ReadBus(const cJSON* pRoot, const cJSON* pBus, _ComponentManifest& manifest, CPString& strError) {
  if (cJSON_IsObject(pBus) == 0) {
    strError = "\"bus\" is no object";
    return false;
  }
  const char* pszUser = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(pBus, "user"));
  if (pszUser == nullptr || !IsUserName(pszUser)) {
    strError = "\"user\" is no user name";
    return false;
  }
  manifest.strUser = pszUser;
  return ReadGuids(pRoot, pBus, manifest.guids, strError) &&
         ReadTypes(pBus, "send", manifest.send, strError) &&
         ReadTypes(pBus, "broadcast", manifest.broadcast, strError);
}

}  // namespace

bool ParseGuidText(std::string_view svText, GUID& guid) {
  if (svText.size() == 38 && svText.front() == '{' && svText.back() == '}')
    svText = svText.substr(1, 36);
  if (svText.size() != 36)
    return false;
  for (size_t i = 0; i < svText.size(); ++i) {
    const bool bDash = i == 8 || i == 13 || i == 18 || i == 23;
    if (bDash ? svText[i] != '-' : !IsHex(svText[i]))
      return false;
  }
  guid = GUID(std::string(svText).c_str());
  return guid != GUID();
}

bool IsUserName(std::string_view svText) {
  if (svText.empty() || svText.size() > kUserNameMaxBytes || svText[0] == '-' ||
      (svText[0] >= '0' && svText[0] <= '9'))
    return false;
  return std::all_of(svText.begin(), svText.end(), [](char ch) {
    return (ch >= 'a' && ch <= 'z') || (ch >= '0' && ch <= '9') || ch == '_' || ch == '-';
  });
}

bool ParseManifest(std::string_view svText, _ComponentManifest& manifest, CPString& strError) {
  manifest = _ComponentManifest();
  if (svText.size() > kManifestMaxBytes) {
    strError = "too long";
    return false;
  }
  // A NUL would end the document, or a text in it, for one reader and not for another.
  const bool bNul =
      svText.find('\0') != std::string_view::npos || svText.find("\\u0000") != std::string_view::npos;
  const std::unique_ptr<cJSON, CJsonDelete> root(bNul ? nullptr
                                                      : cJSON_ParseWithLength(svText.data(), svText.size()));
  if (cJSON_IsObject(root.get()) == 0) {
    strError = "not a JSON object";
    return false;
  }
  const cJSON* pBus = cJSON_GetObjectItemCaseSensitive(root.get(), "bus");
  manifest.bExternal = pBus != nullptr;
  return pBus == nullptr || ReadBus(root.get(), pBus, manifest, strError);
}
