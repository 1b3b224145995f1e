#include "platform/cloud/TconfAnswer.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <utility>

#include "platform/cloud/Backoff.h"
#include "platform/doc/PJsonParse.h"

namespace zxcloud {

namespace {

bool Text(const cJSON* pRoot, const char* pszName, std::string& strValue, std::string& strError) {
  const cJSON* pItem = cJSON_GetObjectItemCaseSensitive(pRoot, pszName);
  if (pItem == nullptr)
    return true;
  if (!cJSON_IsString(pItem)) {
    strError = std::string("member ") + pszName + " is no text";
    return false;
  }
  strValue = pItem->valuestring;
  return true;
}

template <class T>
bool Number(const cJSON* pRoot, const char* pszName, double dMin, double dMax, T& value,
            std::string& strError) {
  const cJSON* pItem = cJSON_GetObjectItemCaseSensitive(pRoot, pszName);
  if (pItem == nullptr)
    return true;
  if (!cJSON_IsNumber(pItem)) {
    strError = std::string("member ") + pszName + " is no number";
    return false;
  }
  value = static_cast<T>(std::clamp(pItem->valuedouble, dMin, dMax));
  return true;
}

bool Addresses(const cJSON* pRoot, const char* pszName, uint16_t wPort, bool bPlainAllowed,
               std::vector<_CloudAddress>& list, std::string& strError) {
  std::string strText;
  if (!Text(pRoot, pszName, strText, strError))
    return false;
  list = ParseAddressList(strText, wPort, bPlainAllowed);
  if (list.empty() && !strText.empty()) {
    strError = std::string("no usable address in member ") + pszName;
    return false;
  }
  return true;
}

}  // namespace

bool ParseTconf(std::string_view svText, bool bPlainAllowed, _TconfAnswer& answer, std::string& strError) {
  zxtools::CPJsonParse json;
  if (svText.size() > kMaxTconfBytes || json.LoadBuffer(svText.data(), svText.size()) == 0 ||
      !cJSON_IsObject(json.GetRoot())) {
    strError = "not a JSON object";
    return false;
  }
  const cJSON* pRoot = json.GetRoot();
  _TconfAnswer parsed;
  int iVersion = 0;
  if (!Number(pRoot, "v", 0, 1000000, iVersion, strError))
    return false;
  if (iVersion != 1) {
    strError = "version " + std::to_string(iVersion) + " is not known";
    return false;
  }
  if (!Text(pRoot, "pcid", parsed.strPcid, strError) || !Text(pRoot, "lb", parsed.strLb, strError) ||
      !Addresses(pRoot, "short", kHttpsPort, bPlainAllowed, parsed.listShort, strError) ||
      !Addresses(pRoot, "long", kMqttsPort, bPlainAllowed, parsed.listLong, strError) ||
      !Number(pRoot, "keepalive_sec", 10, 600, parsed.iKeepAliveSec, strError) ||
      !Number(pRoot, "spread_sec", 0, 600, parsed.uSpreadSec, strError) ||
      !Number(pRoot, "retry_max_sec", kLeastRetrySec, kMaxRetrySec, parsed.uRetryMaxSec, strError) ||
      !Number(pRoot, "refresh_sec", 60, 86400, parsed.uRefreshSec, strError) ||
      !Number(pRoot, "drain_per_sec", 0, 1000000, parsed.uDrainPerSec, strError) ||
      !Number(pRoot, "connections", 1, 2, parsed.uConnections, strError) ||
      !Number(pRoot, "confirm", 0, 1, parsed.uConfirm, strError) ||
      !Number(pRoot, "max_message_bytes", 1024, 256u << 20, parsed.uMaxMessage, strError))
    return false;
  answer = std::move(parsed);
  return true;
}

}  // namespace zxcloud
