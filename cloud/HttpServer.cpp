#include "HttpServer.h"

#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "HttpStream.h"
#include "platform/os/ZxThread.h"

namespace zxcloudd {

namespace {

bool Knows(const std::vector<std::string>& listPaths, const std::string& strPath) {
  return std::any_of(listPaths.begin(), listPaths.end(), [&](const std::string& strKnown) {
    return strKnown == strPath || (strKnown.back() == '/' && strPath.size() > strKnown.size() &&
                                   strPath.compare(0, strKnown.size(), strKnown) == 0);
  });
}

void SendReply(const _Reply& reply, httplib::Response& res) {
  res.status = reply.iStatus;
  if (reply.iRetryAfterSec > 0)
    res.set_header("Retry-After", std::to_string(reply.iRetryAfterSec));
  res.set_content(reply.strBody, reply.pszType);
}

void SendError(int iStatus, const char* pszWhy, httplib::Response& res) {
  res.status = iStatus;
  res.set_content(std::string("{\"error\":\"") + pszWhy + "\"}", "application/json");
}

std::string CertName(const SSL* pSsl) {
  X509* pCert = pSsl != nullptr ? SSL_get1_peer_certificate(pSsl) : nullptr;
  if (pCert == nullptr)
    return {};
  char szName[256] = "";
  const int iLength =
      X509_NAME_get_text_by_NID(X509_get_subject_name(pCert), NID_commonName, szName, sizeof(szName));
  X509_free(pCert);
  return iLength > 0 ? std::string(szName, static_cast<size_t>(iLength)) : "";
}

bool SetupTls(SSL_CTX& ctx, const _HttpOptions& options) {
  SSL_CTX_set_min_proto_version(&ctx, TLS1_2_VERSION);
  SSL_CTX_set_options(&ctx, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
  if (SSL_CTX_use_certificate_chain_file(&ctx, options.strCertFile.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(&ctx, options.strKeyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(&ctx) != 1)
    return false;
  if (options.strClientCaFile.empty())
    return true;
  static const unsigned char kSessionContext[] = "zxcloudd";
  SSL_CTX_set_session_id_context(&ctx, kSessionContext, sizeof(kSessionContext) - 1);
  SSL_CTX_set_verify(&ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  return SSL_CTX_load_verify_file(&ctx, options.strClientCaFile.c_str()) == 1;
}

_HttpRequest MakeRequest(const httplib::Request& req) {
  _HttpRequest request;
  request.bPost = req.method == "POST";
  request.strPath = req.path;
  request.strCertName = CertName(req.ssl);
  request.fnHeader = [&req](const char* pszName) { return req.get_header_value(pszName); };
  request.fnQuery = [&req](const char* pszName) { return req.get_param_value(pszName); };
  return request;
}

// Set by a handler that answers without having read the body: what follows on the connection is no request.
// The library runs a connection's handlers on the thread that serves the connection.
thread_local bool t_bCloseConnection = false;

// Set while the listening thread hands over a connection that is one too many.
thread_local bool t_bTooMany = false;

// The library's pool, but what waits for a thread is bounded, and with it the descriptors that strangers can
// take.
class CBoundedPool : public httplib::TaskQueue {
 public:
  CBoundedPool(int iThreads, int iConnections)
      : m_pool(static_cast<size_t>(iThreads)), m_iMax(std::max(iThreads, iConnections)) {}

  void enqueue(std::function<void()> fn) override {
    if (m_iCount.load() >= m_iMax) {
      t_bTooMany = true;
      fn();
      t_bTooMany = false;
      return;
    }
    ++m_iCount;
    m_pool.enqueue([this, fn = std::move(fn)] {
      fn();
      --m_iCount;
    });
  }
  void shutdown() override { m_pool.shutdown(); }

 private:
  httplib::ThreadPool m_pool;
  const int m_iMax;
  std::atomic<int> m_iCount{0};
};

struct _FreeTls {
  void operator()(SSL_CTX* pCtx) const { SSL_CTX_free(pCtx); }
};

// The library's server over our own stream.
class CListener : public httplib::Server {
 public:
  std::unique_ptr<SSL_CTX, _FreeTls> m_pCtx;  // null: plain HTTP
  int m_iStopFd = -1;
  int m_iIdleSec = 5;
  _StreamLimits m_limits;

 private:
  bool process_and_close_socket(socket_t sock) override {
    bool bDone = false;
    if (!t_bTooMany) {
      CHttpStream stream(sock, m_pCtx.get(), m_iStopFd, m_limits);
      t_bCloseConnection = false;
      if (m_pCtx == nullptr || stream.Ssl() != nullptr)
        bDone = Serve(stream);
      if (t_bCloseConnection)
        stream.Linger();
    }
    shutdown(sock, SHUT_RDWR);
    close(sock);
    return bDone;
  }

  bool Serve(CHttpStream& stream) {
    bool bDone = stream.Handshake();
    for (bool bClosed = false; bDone && !bClosed; bClosed = bClosed || t_bCloseConnection) {
      if (!stream.WaitRequest(static_cast<uint64_t>(m_iIdleSec) * 1000))
        return true;
      t_bCloseConnection = false;
      bDone = process_request(stream, false, bClosed, [&](httplib::Request& req) { req.ssl = stream.Ssl(); });
    }
    return bDone;
  }
};

}  // namespace

struct CHttpServer::Impl {
  CListener listener;
  std::thread thread;
  _HttpOptions options;
  THandler handler;

  ~Impl() {
    if (listener.m_iStopFd >= 0)
      close(listener.m_iStopFd);
  }

  // Answers here, without reading a body, whatever no handler should see.
  bool Refuse(const httplib::Request& req, httplib::Response& res) const {
    const bool bGet = req.method == "GET", bPost = req.method == "POST";
    const bool bKnown = Knows(options.listGet, req.path) || Knows(options.listPost, req.path);
    if (!bKnown)
      SendError(404, "no such path", res);
    else if (!(bGet && Knows(options.listGet, req.path)) && !(bPost && Knows(options.listPost, req.path)))
      SendError(405, "not this method", res);
    else if (bPost && (req.has_header("Content-Encoding") || req.is_multipart_form_data()))
      SendError(415, "neither compressed nor multipart bodies", res);
    else
      return false;
    if (!bGet)
      CloseAfter(res);
    return true;
  }

  static void CloseAfter(httplib::Response& res) {
    t_bCloseConnection = true;
    res.set_header("Connection", "close");
  }

  void Get(const httplib::Request& req, httplib::Response& res) const {
    SendReply(handler(MakeRequest(req)), res);
  }

  void Post(const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& reader) const {
    _HttpRequest request = MakeRequest(req);
    bool bTooLarge = false;
    const bool bRead = reader([&](const char* pData, size_t uLength) {
      bTooLarge = request.strBody.size() + uLength > options.uMaxBodyBytes;
      if (!bTooLarge)
        request.strBody.append(pData, uLength);
      return !bTooLarge;
    });
    if (bTooLarge || !bRead)
      CloseAfter(res);
    if (bTooLarge || res.status == 413)
      return SendError(413, "the body is too large", res);
    if (!bRead)
      return SendError(400, "the body is broken", res);
    SendReply(handler(request), res);
  }

  void Configure() {
    CListener& server = listener;
    server.m_iIdleSec = options.iIdleSec;
    // Chunks may be as small as one byte of content in six.
    server.m_limits.uBodyBytes = options.uMaxBodyBytes * 6 + 1024;
    server.new_task_queue = [this] { return new CBoundedPool(options.iThreads, options.iConnections); };
    // The library's default shares the port with whoever else asks for it.
    server.set_socket_options([](socket_t sock) {
      const int iYes = 1;
      setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &iYes, sizeof(iYes));
    });
    server.set_tcp_nodelay(true);
    server.set_payload_max_length(options.uMaxBodyBytes);
    server.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
      if (Refuse(req, res))
        return httplib::Server::HandlerResponse::Handled;
      if (req.method == "GET") {
        Get(req, res);
        return httplib::Server::HandlerResponse::Handled;
      }
      return httplib::Server::HandlerResponse::Unhandled;
    });
    for (const std::string& strPath : options.listPost) {
      server.Post(strPath, [this](const httplib::Request& req, httplib::Response& res,
                                  const httplib::ContentReader& reader) { Post(req, res, reader); });
    }
    server.set_exception_handler([](const httplib::Request&, httplib::Response& res,
                                    const std::exception_ptr&) { SendError(500, "internal error", res); });
  }
};

CHttpServer::CHttpServer() = default;

CHttpServer::~CHttpServer() {
  Stop();
}

bool CHttpServer::Start(const _HttpOptions& options, THandler handler, std::string& strError) {
  m_pImpl = std::make_unique<Impl>();
  m_pImpl->options = options;
  m_pImpl->handler = std::move(handler);
  CListener& server = m_pImpl->listener;
  server.m_iStopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (!options.strCertFile.empty())
    server.m_pCtx.reset(SSL_CTX_new(TLS_server_method()));
  if (server.m_pCtx != nullptr && !SetupTls(*server.m_pCtx, options)) {
    strError = "certificate, key or client CA cannot be used: " + options.strCertFile;
    m_pImpl.reset();
    return false;
  }
  if (server.m_iStopFd < 0 || (!options.strCertFile.empty() && server.m_pCtx == nullptr)) {
    strError = "out of resources for " + AddressText(options.listen);
    m_pImpl.reset();
    return false;
  }
  m_pImpl->Configure();
  const int iPort = options.listen.iPort;
  m_iPort = iPort == 0 ? server.bind_to_any_port(options.listen.strHost)
                       : (server.bind_to_port(options.listen.strHost, iPort) ? iPort : -1);
  if (m_iPort <= 0) {
    strError = "cannot listen on " + AddressText(options.listen);
    m_pImpl.reset();
    return false;
  }
  m_pImpl->thread = std::thread([&server] {
    ZxSetThreadName("zxcloudhttp");
    server.listen_after_bind();
  });
  while (!server.is_running())
    std::this_thread::yield();
  return true;
}

void CHttpServer::Stop() {
  if (m_pImpl == nullptr)
    return;
  const uint64_t u64One = 1;
  if (write(m_pImpl->listener.m_iStopFd, &u64One, sizeof(u64One)) < 0)
    return;  // cannot happen: nobody else writes to it
  m_pImpl->listener.stop();
  m_pImpl->thread.join();
  m_pImpl.reset();
  m_iPort = 0;
}

}  // namespace zxcloudd
