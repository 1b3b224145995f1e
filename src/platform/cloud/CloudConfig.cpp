#include "platform/cloud/CloudConfig.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "platform/doc/PJsonParse.h"

namespace zxcloud {

namespace {

using zxtools::CPJsonParse;

constexpr size_t kMinQueueBytes = 64u << 10;
constexpr size_t kMaxQueueBytes = size_t{4} << 30;
constexpr uint32_t kMinSpoolAgeSec = 60;
constexpr uint32_t kMaxSpoolAgeSec = 366 * 86400;
constexpr int kMaxPins = 16;

std::string HomeOf(const std::string& strPath) {
  const size_t uEtc = strPath.rfind("/etc/zxagent/");
  if (uEtc != std::string::npos)
    return strPath.substr(0, uEtc + 1);
  const size_t uSlash = strPath.rfind('/');
  return uSlash == std::string::npos ? std::string() : strPath.substr(0, uSlash + 1);
}

// Beside the settings of the home; a settings file elsewhere has its spool beside itself.
std::string DefaultSpool(const std::string& strPath) {
  constexpr std::string_view kFolder = "/etc/zxagent/";
  const size_t uFolder = strPath.rfind(kFolder);
  if (uFolder != std::string::npos)
    return strPath.substr(0, uFolder + kFolder.size()) + "zxcloud.db";
  return HomeOf(strPath) + "zxcloud.db";
}

// Reads members of one object; a member of the wrong type ends the reading with an error that names it.
class CMembers {
 public:
  CMembers(const cJSON* pObject, std::string& strError) : m_pObject(pObject), m_strError(strError) {}

  bool Text(const char* pszName, std::string& strValue) {
    const cJSON* pItem = Item(pszName);
    if (pItem == nullptr)
      return true;
    if (!cJSON_IsString(pItem))
      return Wrong(pszName, "a text");
    strValue = pItem->valuestring;
    return true;
  }
  bool Flag(const char* pszName, bool& bValue) {
    const cJSON* pItem = Item(pszName);
    if (pItem == nullptr)
      return true;
    if (!cJSON_IsBool(pItem))
      return Wrong(pszName, "true or false");
    bValue = cJSON_IsTrue(pItem) != 0;
    return true;
  }
  bool Bytes(const char* pszName, size_t& uValue) {
    const cJSON* pItem = Item(pszName);
    if (pItem == nullptr)
      return true;
    if (!cJSON_IsNumber(pItem))
      return Wrong(pszName, "a number");
    uValue = static_cast<size_t>(
        std::clamp(pItem->valuedouble, double{kMinQueueBytes}, static_cast<double>(kMaxQueueBytes)));
    return true;
  }
  bool Seconds(const char* pszName, uint32_t uMin, uint32_t uMax, uint32_t& uValue) {
    const cJSON* pItem = Item(pszName);
    if (pItem == nullptr)
      return true;
    if (!cJSON_IsNumber(pItem))
      return Wrong(pszName, "a number");
    uValue = static_cast<uint32_t>(
        std::clamp(pItem->valuedouble, static_cast<double>(uMin), static_cast<double>(uMax)));
    return true;
  }
  bool Sync(const char* pszName, bool& bFull) {
    std::string strValue = bFull ? "full" : "normal";
    if (!Text(pszName, strValue))
      return false;
    bFull = strValue == "full";
    return bFull || strValue == "normal" || Wrong(pszName, "\"full\" or \"normal\"");
  }
  bool Pins(const char* pszName, std::vector<std::string>& list) {
    const cJSON* pArray = Item(pszName);
    if (pArray == nullptr)
      return true;
    if (!cJSON_IsArray(pArray) || cJSON_GetArraySize(pArray) > kMaxPins)
      return Wrong(pszName, "an array of at most 16 pins");
    const cJSON* pPin = nullptr;
    cJSON_ArrayForEach(pPin, pArray) {
      // A misspelt pin must not turn pinning off, so it is an error.
      if (!cJSON_IsString(pPin) || std::string_view(pPin->valuestring).substr(0, 8) != "sha256//")
        return Wrong(pszName, "an array of \"sha256//<base64>\"");
      list.emplace_back(pPin->valuestring);
    }
    return true;
  }

 private:
  const cJSON* Item(const char* pszName) const {
    return cJSON_GetObjectItemCaseSensitive(m_pObject, pszName);
  }
  bool Wrong(const char* pszName, const char* pszWanted) {
    m_strError = std::string("member ") + pszName + " must be " + pszWanted;
    return false;
  }

  const cJSON* m_pObject;
  std::string& m_strError;
};

void MakeAbsolute(const std::string& strHome, std::string& strFile) {
  if (!strFile.empty() && strFile.front() != '/')
    strFile.insert(0, strHome);
}

bool ReadLinkSettings(CPJsonParse& json, const std::string& strHome, _CloudConfig& config,
                      std::string& strError) {
  const cJSON* pObject = json.GetNode("zxcloudconf");
  if (pObject == nullptr)
    return true;
  CMembers members(pObject, strError);
  _TlsSettings& tls = config.tls;
  if (!members.Text("ca_file", tls.strCaFile) || !members.Text("ca_path", tls.strCaPath) ||
      !members.Text("crl_file", tls.strCrlFile) || !members.Text("cert_file", tls.strCertFile) ||
      !members.Text("key_file", tls.strKeyFile) || !members.Text("proxy", config.strProxy) ||
      !members.Text("db_path", config.spool.strFile) ||
      !members.Bytes("spool_bytes", config.spool.uMaxBytes) ||
      !members.Seconds("spool_age_sec", kMinSpoolAgeSec, kMaxSpoolAgeSec, config.spool.uMaxAgeSec) ||
      !members.Seconds("retry_max_sec", kLeastRetrySec, kMaxRetrySec, config.uRetryMaxSec) ||
      !members.Sync("spool_sync", config.spool.bFull) ||
      !members.Flag("plaintext_loopback", config.bPlainLoopback) ||
      !members.Bytes("max_queue_bytes", config.uMaxQueueBytes) || !members.Pins("pins", tls.listPins))
    return false;
  for (std::string* pFile : {&tls.strCaFile, &tls.strCaPath, &tls.strCrlFile, &tls.strCertFile,
                             &tls.strKeyFile, &config.spool.strFile})
    MakeAbsolute(strHome, *pFile);
  if (tls.strCertFile.empty() != tls.strKeyFile.empty()) {
    strError = "cert_file and key_file belong together";
    return false;
  }
  return true;
}

}  // namespace

bool LoadCloudConfig(const std::string& strPath, const std::string& strOther, _CloudConfig& config,
                     std::string& strError) {
  CPJsonParse json;
  if (json.LoadFile(strPath) == 0) {
    const int iError = errno;
    strError = iError != 0 ? std::string("not readable: ") + strerrordesc_np(iError) : "not a JSON document";
    return false;
  }
  _CloudConfig loaded;
  if (!ReadLinkSettings(json, HomeOf(strPath), loaded, strError))
    return false;
  if (loaded.spool.strFile.empty())
    loaded.spool.strFile = DefaultSpool(strPath);
  std::string strUrl;
  if (const cJSON* pTconf = json.GetNode("tconf");
      pTconf != nullptr && !CMembers(pTconf, strError).Text("tconf_url", strUrl))
    return false;
  loaded.listTconf = ParseAddressList(strUrl, kHttpsPort, loaded.bPlainLoopback);
  for (_CloudAddress& address : ParseAddressList(strOther, kHttpsPort, loaded.bPlainLoopback)) {
    if (std::find(loaded.listTconf.begin(), loaded.listTconf.end(), address) == loaded.listTconf.end())
      loaded.listTconf.push_back(std::move(address));
  }
  if (loaded.listTconf.empty()) {
    strError = "no usable address in tconf_url [" + strUrl + "]";
    return false;
  }
  config = std::move(loaded);
  return true;
}

}  // namespace zxcloud
