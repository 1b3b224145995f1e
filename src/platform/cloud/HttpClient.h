// One HTTPS conversation at a time over a kept-alive connection.
//
// IHttpClient is the seam for tests. CHttpClient is libcurl: HTTP/1.1, TLS as TlsPolicy says, proxy, bounded
// answers, no redirects. Threads: one thread calls Do; Abort may come from any. Blocking: Do, up to its
// time-outs; Abort ends a running Do at once and every later one.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cloud/CloudAddress.h"
#include "platform/cloud/TlsPolicy.h"

namespace zxcloud {

enum class ENetError : uint8_t { None, Network, Timeout, Tls, TooLarge, Aborted };

struct _HttpRequest {
  const char* pszMethod = "GET";  // GET or POST
  _CloudAddress address;
  std::string strTarget;  // path and query, already escaped
  std::vector<std::string> listHeaders;
  std::string_view svBody;
  uint32_t dwConnectMs = 5000;
  uint32_t dwTotalMs = 20000;
  size_t uMaxAnswer = 1u << 20;
};

struct _HttpAnswer {
  ENetError eError = ENetError::None;
  std::string strReason;  // of the error
  int iStatus = 0;
  uint32_t uRetryAfterSec = 0;  // 0: not named
  std::string strBody;
  std::string strLocal;  // "host:port" of both ends of the connection
  std::string strRemote;

  bool Ok() const { return eError == ENetError::None && iStatus == 200; }
  std::string Why() const;  // the reason, or the status
};

class IHttpClient {
 public:
  virtual ~IHttpClient() = default;
  virtual _HttpAnswer Do(const _HttpRequest& request) = 0;
  virtual void Abort() = 0;
};

struct _HttpSettings {
  _TlsSettings tls;
  bool bPlainLoopback = false;
  std::string strProxy;  // empty: what the environment says
};

class CHttpClient : public IHttpClient {
 public:
  explicit CHttpClient(_HttpSettings settings);
  ~CHttpClient() override;
  CHttpClient(const CHttpClient&) = delete;
  CHttpClient& operator=(const CHttpClient&) = delete;

  _HttpAnswer Do(const _HttpRequest& request) override;
  void Abort() override;

 private:
  struct _Curl;  // libcurl's handles
  struct _Running;
  bool Prepare(const _HttpRequest& request, _Running& running);
  void PrepareTrust(const _HttpRequest& request, _Running& running);
  int Drive(const _HttpRequest& request);
  void Finish(int iCode, _Running& running, _HttpAnswer& answer);

  const _HttpSettings m_settings;
  _TlsVerdict m_verdict;
  std::unique_ptr<_Curl> m_pCurl;
  std::atomic<bool> m_bAbort{false};
};

// Percent-escapes everything but unreserved characters.
std::string UrlEscape(std::string_view sv);

}  // namespace zxcloud
