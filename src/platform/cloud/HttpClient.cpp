#include "platform/cloud/HttpClient.h"

#include <curl/curl.h>
#include <fcntl.h>

#include <algorithm>
#include <mutex>
#include <utility>

namespace zxcloud {

namespace {

constexpr int kAborted = -1;
constexpr long kMaxConnections = 4;

void InitCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

bool IsTlsCode(int iCode) {
  switch (iCode) {
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_USE_SSL_FAILED:
      return true;
    default:
      return false;
  }
}

// Connections are not for children that the host starts.
int OnSocket(void*, curl_socket_t fd, curlsocktype) {
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  return CURL_SOCKOPT_OK;
}

}  // namespace

struct CHttpClient::_Curl {
  CURLM* pMulti = nullptr;
  CURL* pEasy = nullptr;
};

// What one request needs while it runs.
struct CHttpClient::_Running {
  const _TlsSettings* pTls = nullptr;
  _TlsVerdict* pVerdict = nullptr;
  _HttpAnswer* pAnswer = nullptr;
  size_t uMaxAnswer = 0;
  bool bTooLarge = false;
  std::string strHost;
  std::string strUrl;
  std::string strError;  // ours, before libcurl was asked
  curl_slist* pHeaders = nullptr;
  char szError[CURL_ERROR_SIZE] = {};

  _Running() = default;
  ~_Running() { curl_slist_free_all(pHeaders); }
  _Running(const _Running&) = delete;
  _Running& operator=(const _Running&) = delete;

  static size_t OnBody(char* pData, size_t uSize, size_t uCount, void* pThis) {
    auto& running = *static_cast<_Running*>(pThis);
    const size_t uBytes = uSize * uCount;
    if (running.pAnswer->strBody.size() + uBytes > running.uMaxAnswer) {
      running.bTooLarge = true;
      return 0;
    }
    running.pAnswer->strBody.append(pData, uBytes);
    return uBytes;
  }

  // Called for every new connection. libcurl checks an HTTPS proxy by itself, against the system's store; its
  // context is known by the highest version, which only the server's names.
  static CURLcode OnSslContext(CURL*, void* pCtx, void* pThis) {
    auto& running = *static_cast<_Running*>(pThis);
    auto* pSslCtx = static_cast<SSL_CTX*>(pCtx);
    if (SSL_CTX_get_max_proto_version(pSslCtx) != TLS1_3_VERSION)
      return CURLE_OK;
    return TlsApply(pSslCtx, *running.pTls, running.strHost, *running.pVerdict) ? CURLE_OK
                                                                                : CURLE_SSL_CONNECT_ERROR;
  }
};

std::string UrlEscape(std::string_view sv) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string strText;
  strText.reserve(sv.size());
  for (const char ch : sv) {
    const bool bPlain = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') ||
                        ch == '-' || ch == '.' || ch == '_' || ch == '~';
    if (bPlain) {
      strText += ch;
      continue;
    }
    const auto uChar = static_cast<unsigned char>(ch);
    strText += '%';
    strText += kHex[uChar >> 4];
    strText += kHex[uChar & 15];
  }
  return strText;
}

std::string _HttpAnswer::Why() const {
  return eError != ENetError::None ? strReason : "status " + std::to_string(iStatus);
}

CHttpClient::CHttpClient(_HttpSettings settings)
    : m_settings(std::move(settings)), m_pCurl(std::make_unique<_Curl>()) {
  InitCurlOnce();
  m_pCurl->pMulti = curl_multi_init();
  m_pCurl->pEasy = curl_easy_init();
  if (m_pCurl->pMulti != nullptr)
    curl_multi_setopt(m_pCurl->pMulti, CURLMOPT_MAXCONNECTS, kMaxConnections);
}

CHttpClient::~CHttpClient() {
  curl_easy_cleanup(m_pCurl->pEasy);
  curl_multi_cleanup(m_pCurl->pMulti);
}

void CHttpClient::Abort() {
  m_bAbort.store(true);
  if (m_pCurl->pMulti != nullptr)
    curl_multi_wakeup(m_pCurl->pMulti);
}

void CHttpClient::PrepareTrust(const _HttpRequest& request, _Running& running) {
  CURL* pEasy = m_pCurl->pEasy;
  curl_easy_setopt(
      pEasy, CURLOPT_SSLVERSION,
      static_cast<long>(CURL_SSLVERSION_TLSv1_2) | static_cast<long>(CURL_SSLVERSION_MAX_TLSv1_3));
  curl_easy_setopt(pEasy, CURLOPT_PROXY_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  curl_easy_setopt(pEasy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(pEasy, CURLOPT_SSL_VERIFYHOST, 2L);
  // Files are ours to load, at every connection: libcurl keeps what it has read for a day, and a resumed
  // session would not look at the certificate again.
  curl_easy_setopt(pEasy, CURLOPT_CAINFO, nullptr);
  curl_easy_setopt(pEasy, CURLOPT_CAPATH, nullptr);
  curl_easy_setopt(pEasy, CURLOPT_CA_CACHE_TIMEOUT, 0L);
  curl_easy_setopt(pEasy, CURLOPT_SSL_SESSIONID_CACHE, 0L);
  curl_easy_setopt(pEasy, CURLOPT_SSL_CTX_FUNCTION, &_Running::OnSslContext);
  curl_easy_setopt(pEasy, CURLOPT_SSL_CTX_DATA, &running);
  // Loopback never goes through a proxy: plain text must not leave the machine.
  if (request.address.bPlain || IsLoopback(request.address.strHost))
    curl_easy_setopt(pEasy, CURLOPT_PROXY, "");
  else if (!m_settings.strProxy.empty())
    curl_easy_setopt(pEasy, CURLOPT_PROXY, m_settings.strProxy.c_str());
  curl_easy_setopt(pEasy, CURLOPT_ERRORBUFFER, running.szError);
}

bool CHttpClient::Prepare(const _HttpRequest& request, _Running& running) {
  CURL* pEasy = m_pCurl->pEasy;
  if (pEasy == nullptr || m_pCurl->pMulti == nullptr) {
    running.strError = "out of memory";
    return false;
  }
  if (request.address.bPlain && !(m_settings.bPlainLoopback && IsLoopback(request.address.strHost))) {
    running.strError = "plain text is not permitted to this address";
    return false;
  }
  curl_easy_reset(pEasy);  // keeps the connections
  running.strUrl =
      (request.address.bPlain ? "http://" : "https://") + request.address.Text() + request.strTarget;
  curl_easy_setopt(pEasy, CURLOPT_URL, running.strUrl.c_str());
  curl_easy_setopt(pEasy, CURLOPT_PROTOCOLS_STR, request.address.bPlain ? "http" : "https");
  curl_easy_setopt(pEasy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(pEasy, CURLOPT_NOSIGNAL, 1L);
  // A stop must not wait for a name server.
  curl_easy_setopt(pEasy, CURLOPT_QUICK_EXIT, 1L);
  curl_easy_setopt(pEasy, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(pEasy, CURLOPT_SOCKOPTFUNCTION, OnSocket);
  curl_easy_setopt(pEasy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.dwConnectMs));
  curl_easy_setopt(pEasy, CURLOPT_TIMEOUT_MS, static_cast<long>(request.dwTotalMs));
  PrepareTrust(request, running);
  // Without this, libcurl holds large bodies back for a "100 Continue".
  running.pHeaders = curl_slist_append(running.pHeaders, "Expect:");
  for (const std::string& strHeader : request.listHeaders)
    running.pHeaders = curl_slist_append(running.pHeaders, strHeader.c_str());
  curl_easy_setopt(pEasy, CURLOPT_HTTPHEADER, running.pHeaders);
  if (std::string_view(request.pszMethod) == "POST") {
    curl_easy_setopt(pEasy, CURLOPT_POST, 1L);
    curl_easy_setopt(pEasy, CURLOPT_POSTFIELDS,
                     request.svBody.data() == nullptr ? "" : request.svBody.data());
    curl_easy_setopt(pEasy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.svBody.size()));
  }
  curl_easy_setopt(pEasy, CURLOPT_WRITEFUNCTION, &_Running::OnBody);
  curl_easy_setopt(pEasy, CURLOPT_WRITEDATA, &running);
  running.strHost = request.address.strHost;
  running.uMaxAnswer = request.uMaxAnswer;
  return true;
}

// A CURLcode, or kAborted.
int CHttpClient::Drive(const _HttpRequest& request) {
  if (curl_multi_add_handle(m_pCurl->pMulti, m_pCurl->pEasy) != CURLM_OK)
    return CURLE_FAILED_INIT;
  int iCode = kAborted;
  int iRunning = 1;
  while (!m_bAbort.load()) {
    if (curl_multi_perform(m_pCurl->pMulti, &iRunning) != CURLM_OK) {
      iCode = CURLE_RECV_ERROR;
      break;
    }
    if (iRunning == 0) {
      int iLeft = 0;
      const CURLMsg* pMessage = curl_multi_info_read(m_pCurl->pMulti, &iLeft);
      iCode = pMessage != nullptr ? static_cast<int>(pMessage->data.result) : int{CURLE_RECV_ERROR};
      break;
    }
    curl_multi_poll(m_pCurl->pMulti, nullptr, 0,
                    static_cast<int>(std::min<uint32_t>(request.dwTotalMs, 1000)), nullptr);
  }
  curl_multi_remove_handle(m_pCurl->pMulti, m_pCurl->pEasy);
  return iCode;
}

void CHttpClient::Finish(int iCode, _Running& running, _HttpAnswer& answer) {
  CURL* pEasy = m_pCurl->pEasy;
  if (iCode != CURLE_OK) {
    answer.eError = iCode == kAborted                        ? ENetError::Aborted
                    : running.bTooLarge                      ? ENetError::TooLarge
                    : IsTlsCode(iCode) || m_verdict.Failed() ? ENetError::Tls
                    : iCode == CURLE_OPERATION_TIMEDOUT      ? ENetError::Timeout
                                                             : ENetError::Network;
    const std::string strText = running.szError[0] != 0 ? running.szError
                                : iCode == kAborted     ? "stopped"
                                                        : curl_easy_strerror(static_cast<CURLcode>(iCode));
    answer.strReason = running.bTooLarge                 ? "answer is too large"
                       : answer.eError == ENetError::Tls ? TlsReason(m_verdict, running.strHost, strText)
                                                         : strText;
    answer.strBody.clear();
    return;
  }
  long lStatus = 0;
  curl_off_t iRetryAfter = 0;
  char* pszLocal = nullptr;
  char* pszRemote = nullptr;
  long lLocal = 0;
  long lRemote = 0;
  curl_easy_getinfo(pEasy, CURLINFO_RESPONSE_CODE, &lStatus);
  curl_easy_getinfo(pEasy, CURLINFO_RETRY_AFTER, &iRetryAfter);
  curl_easy_getinfo(pEasy, CURLINFO_LOCAL_IP, &pszLocal);
  curl_easy_getinfo(pEasy, CURLINFO_LOCAL_PORT, &lLocal);
  curl_easy_getinfo(pEasy, CURLINFO_PRIMARY_IP, &pszRemote);
  curl_easy_getinfo(pEasy, CURLINFO_PRIMARY_PORT, &lRemote);
  answer.iStatus = static_cast<int>(lStatus);
  answer.uRetryAfterSec = static_cast<uint32_t>(std::clamp<curl_off_t>(iRetryAfter, 0, 86400));
  if (pszLocal != nullptr)
    answer.strLocal = HostPort(pszLocal, static_cast<uint16_t>(lLocal));
  if (pszRemote != nullptr)
    answer.strRemote = HostPort(pszRemote, static_cast<uint16_t>(lRemote));
}

_HttpAnswer CHttpClient::Do(const _HttpRequest& request) {
  _HttpAnswer answer;
  _Running running;
  running.pAnswer = &answer;
  running.pTls = &m_settings.tls;
  running.pVerdict = &m_verdict;
  m_verdict.Reset();
  if (m_bAbort.load()) {
    answer.eError = ENetError::Aborted;
    answer.strReason = "stopped";
    return answer;
  }
  if (!Prepare(request, running)) {
    answer.eError = ENetError::Tls;
    answer.strReason = running.strError;
    return answer;
  }
  Finish(Drive(request), running, answer);
  // The handle must not point into this frame while it waits for its next request.
  curl_easy_setopt(m_pCurl->pEasy, CURLOPT_ERRORBUFFER, nullptr);
  curl_easy_setopt(m_pCurl->pEasy, CURLOPT_HTTPHEADER, nullptr);
  return answer;
}

}  // namespace zxcloud
