#include "CloudClient.h"

#include <curl/curl.h>

#include <cerrno>

#include "Table.h"
#include "platform/doc/PJsonParse.h"
#include "platform/os/ZxFile.h"

namespace zxctl {

namespace {

constexpr long kTimeoutMs = 15000;
constexpr size_t kAnswerMax = 64u << 20;

size_t Append(char* pData, size_t uSize, size_t uCount, void* pAnswer) {
  auto* pstr = static_cast<std::string*>(pAnswer);
  if (pstr->size() + uSize * uCount > kAnswerMax)
    return 0;
  pstr->append(pData, uSize * uCount);
  return uSize * uCount;
}

}  // namespace

bool TokenFromFile(const std::string& strFile, std::string& strToken, std::string& strError) {
  CPString strText;
  if (!ZxReadFileText(CPString(strFile), strText)) {
    strError = strFile + ": " + ErrnoText(errno);
    return false;
  }
  strToken = strText.Str();
  while (!strToken.empty() && (strToken.back() == '\n' || strToken.back() == '\r' || strToken.back() == ' '))
    strToken.pop_back();
  return true;
}

bool AddressFromRunDir(const std::string& strRunDir, _CloudAddress& address, std::string& strError) {
  const std::string strFile = strRunDir + "/zxcloudd.json";
  zxtools::CPJsonParse json;
  CPString strUrl, strTokenFile;
  if (!json.LoadFile(CPString(strFile))) {
    strError = strFile + ": " + (errno != 0 ? ErrnoText(errno) : "is not JSON");
    return false;
  }
  zxtools::CPJsonParse::GetValue(json.GetNode("operator_url"), strUrl);
  zxtools::CPJsonParse::GetValue(json.GetNode("token_file"), strTokenFile);
  if (strUrl.IsEmpty() || strTokenFile.IsEmpty()) {
    strError = strFile + ": operator_url or token_file is missing";
    return false;
  }
  address.strUrl = strUrl.Str();
  return TokenFromFile(strTokenFile.Str(), address.strToken, strError);
}

CCloudClient::CCloudClient(_CloudAddress address) : m_address(std::move(address)) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  m_pCurl = curl_easy_init();
}

CCloudClient::~CCloudClient() {
  curl_easy_cleanup(m_pCurl);
  curl_global_cleanup();
}

std::string CCloudClient::Escape(const std::string& str) {
  char* psz = curl_easy_escape(nullptr, str.c_str(), static_cast<int>(str.size()));
  std::string strEscaped = psz != nullptr ? psz : "";
  curl_free(psz);
  return strEscaped;
}

_Answer CCloudClient::Get(const std::string& strPath) {
  return Perform(strPath, nullptr);
}

_Answer CCloudClient::Post(const std::string& strPath, const std::string& strJson) {
  return Perform(strPath, &strJson);
}

_Answer CCloudClient::Perform(const std::string& strPath, const std::string* pstrJson) {
  _Answer answer;
  if (m_pCurl == nullptr) {
    answer.strError = "out of memory";
    return answer;
  }
  curl_easy_reset(m_pCurl);
  curl_slist* pHeaders = curl_slist_append(nullptr, ("Authorization: Bearer " + m_address.strToken).c_str());
  pHeaders = curl_slist_append(pHeaders, "Expect:");
  curl_easy_setopt(m_pCurl, CURLOPT_URL, (m_address.strUrl + strPath).c_str());
  curl_easy_setopt(m_pCurl, CURLOPT_PROXY, "");  // the interface is on this machine
  curl_easy_setopt(m_pCurl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(m_pCurl, CURLOPT_TCP_NODELAY, 1L);
  curl_easy_setopt(m_pCurl, CURLOPT_TIMEOUT_MS, kTimeoutMs);
  curl_easy_setopt(m_pCurl, CURLOPT_WRITEFUNCTION, &Append);
  curl_easy_setopt(m_pCurl, CURLOPT_WRITEDATA, &answer.strBody);
  if (pstrJson != nullptr) {
    pHeaders = curl_slist_append(pHeaders, "Content-Type: application/json");
    curl_easy_setopt(m_pCurl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(pstrJson->size()));
    curl_easy_setopt(m_pCurl, CURLOPT_POSTFIELDS, pstrJson->data());
  }
  curl_easy_setopt(m_pCurl, CURLOPT_HTTPHEADER, pHeaders);
  const CURLcode eCode = curl_easy_perform(m_pCurl);
  long lStatus = 0;
  if (eCode == CURLE_OK)
    curl_easy_getinfo(m_pCurl, CURLINFO_RESPONSE_CODE, &lStatus);
  else
    answer.strError = curl_easy_strerror(eCode);
  answer.iStatus = static_cast<int>(lStatus);
  curl_slist_free_all(pHeaders);
  return answer;
}

}  // namespace zxctl
