// One HTTP or HTTPS listener with a thread pool. Requests reach one handler; its answer goes back.
//
// What is bounded before the handler sees it: paths and methods that the handler does not know are refused
// without reading the body; a body above the limit ends the request with 413; compressed and multipart
// bodies are refused (415), because their size is only known after unpacking; head, time and idle connections
// are bounded by the stream (HttpStream.h); connections beyond the bound are closed without a word.
// Threads: the handler runs on the listener's pool. Start and Stop from one thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "CloudConfig.h"
#include "CloudService.h"

namespace zxcloudd {

struct _HttpRequest {
  bool bPost = false;
  std::string strPath, strBody;
  std::string strCertName;  // common name of the client's certificate; empty without
  std::function<std::string(const char*)> fnHeader, fnQuery;
};

struct _HttpOptions {
  _Address listen;
  std::string strCertFile, strKeyFile, strClientCaFile;  // without strCertFile: plain HTTP
  int iThreads = 4;
  int iConnections = 64;  // served and waiting for a thread; further ones are closed at once
  int iIdleSec = 5;
  size_t uMaxBodyBytes = 1 << 20;
  std::vector<std::string> listGet, listPost;  // known paths; one that ends in "/" stands for all below it
};

class CHttpServer {
 public:
  using THandler = std::function<_Reply(const _HttpRequest&)>;

  CHttpServer();
  ~CHttpServer();
  CHttpServer(const CHttpServer&) = delete;
  CHttpServer& operator=(const CHttpServer&) = delete;

  // Listens and serves. On failure strError says why.
  bool Start(const _HttpOptions& options, THandler handler, std::string& strError);
  // Refuses new connections, ends kept ones, waits for requests that a handler has.
  void Stop();
  int Port() const { return m_iPort; }

 private:
  struct Impl;
  std::unique_ptr<Impl> m_pImpl;
  int m_iPort = 0;
};

}  // namespace zxcloudd
