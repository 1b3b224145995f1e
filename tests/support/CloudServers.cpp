#include "support/CloudServers.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "support/Waiter.h"

namespace {

[[noreturn]] void Die(const char* pszWhat) {
  std::fprintf(stderr, "test servers: %s\n", pszWhat);
  std::abort();
}

int Listen(uint16_t& wPort) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t uLength = sizeof(address);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(fd, 64) != 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&address), &uLength) != 0)
    Die("no port");
  wPort = ntohs(address.sin_port);
  return fd;
}

bool Reachable(uint16_t wPort) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(wPort);
  const bool bOk = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  close(fd);
  return bOk;
}

}  // namespace

uint16_t FreePort() {
  uint16_t wPort = 0;
  close(Listen(wPort));
  return wPort;
}

CTestBroker::CTestBroker(const std::string& strDir, const _CertFiles& cert, bool bPersistent)
    : m_strDir(strDir), m_cert(cert), m_bPersistent(bPersistent) {
  mkdir(strDir.c_str(), 0755);
  for (int i = 0; i < 10; ++i) {
    m_wTlsPort = FreePort();
    m_wPlainPort = FreePort();
    if (m_wTlsPort != m_wPlainPort && TryStart())
      return;
  }
  Die("mosquitto does not start");
}

CTestBroker::~CTestBroker() {
  Kill();
}

void CTestBroker::WriteConfig() const {
  std::ofstream file(m_strDir + "mosquitto.conf");
  file << "user root\nper_listener_settings false\nallow_anonymous true\nset_tcp_nodelay true\n"
       << "max_queued_messages 0\nmax_inflight_messages 0\npersistence "
       << (m_bPersistent ? "true\npersistence_location " + m_strDir : "false") << "\nlog_dest file "
       << m_strDir << "mosquitto.log\nlistener " << m_wTlsPort << " 127.0.0.1\ncertfile " << m_cert.strCert
       << "\nkeyfile " << m_cert.strKey << "\nlistener " << m_wPlainPort << " 127.0.0.1\n";
}

bool CTestBroker::TryStart() {
  WriteConfig();
  const std::string strConfig = m_strDir + "mosquitto.conf";
  const pid_t iParent = getpid();
  m_iPid = fork();
  if (m_iPid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != iParent)
      _exit(126);
    for (const char* pszProgram : {"/usr/sbin/mosquitto", "/usr/local/sbin/mosquitto"})
      execl(pszProgram, "mosquitto", "-c", strConfig.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  // Its own exit means that a port was taken meanwhile.
  bool bExited = false;
  const bool bUp = EventuallyTrue([&] {
    bExited = waitpid(m_iPid, nullptr, WNOHANG) == m_iPid;
    return bExited || (Reachable(m_wTlsPort) && Reachable(m_wPlainPort));
  });
  if (bExited)
    m_iPid = -1;
  return bUp && !bExited;
}

void CTestBroker::End(int iSignal) {
  if (m_iPid <= 0)
    return;
  kill(m_iPid, iSignal);
  waitpid(m_iPid, nullptr, 0);
  m_iPid = -1;
}

void CTestBroker::Kill() {
  End(SIGKILL);
}

void CTestBroker::Stop() {
  End(SIGTERM);
}

void CTestBroker::Freeze() {
  kill(m_iPid, SIGSTOP);
}

void CTestBroker::Start() {
  for (int i = 0; i < 10; ++i) {
    if (TryStart())
      return;
  }
  Die("mosquitto does not start again");
}

struct CTestSubscriber::_State {
  mosquitto* pMosq = nullptr;
  std::string strTopic;
  std::mutex mutex;
  std::condition_variable cond;
  std::vector<_Message> messages;
  bool bSubscribed = false;
  std::vector<std::pair<std::string, std::string>> outgoing;
};

CTestSubscriber::CTestSubscriber(uint16_t wPort, const std::string& strTopic)
    : m_pState(std::make_unique<_State>()) {
  mosquitto_lib_init();
  _State& state = *m_pState;
  state.strTopic = strTopic;
  state.pMosq = mosquitto_new(nullptr, true, &state);
  mosquitto_int_option(state.pMosq, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_subscribe_callback_set(state.pMosq, [](mosquitto*, void* pState, int, int, const int*) {
    auto& self = *static_cast<_State*>(pState);
    const std::lock_guard lock(self.mutex);
    self.bSubscribed = true;
    self.cond.notify_all();
  });
  mosquitto_message_callback_set(state.pMosq, [](mosquitto*, void* pState, const mosquitto_message* p) {
    auto& self = *static_cast<_State*>(pState);
    const std::lock_guard lock(self.mutex);
    self.messages.push_back(
        {p->topic, std::string(static_cast<const char*>(p->payload), static_cast<size_t>(p->payloadlen)),
         p->retain});
    self.cond.notify_all();
  });
  if (mosquitto_connect(state.pMosq, "127.0.0.1", wPort, 60) != MOSQ_ERR_SUCCESS)
    Die("subscriber does not connect");
  mosquitto_subscribe(state.pMosq, nullptr, strTopic.c_str(), 1);
  m_thread = std::thread([this] { Loop(); });
  std::unique_lock lock(state.mutex);
  if (!state.cond.wait_for(lock, std::chrono::seconds(10), [&] { return state.bSubscribed; }))
    Die("subscriber does not subscribe");
}

CTestSubscriber::~CTestSubscriber() {
  m_bStop.store(true);
  m_thread.join();
  mosquitto_destroy(m_pState->pMosq);
}

void CTestSubscriber::Loop() {
  while (!m_bStop.load()) {
    std::vector<std::pair<std::string, std::string>> outgoing;
    {
      const std::lock_guard lock(m_pState->mutex);
      outgoing.swap(m_pState->outgoing);
    }
    for (const auto& [strTopic, strPayload] : outgoing)
      mosquitto_publish(m_pState->pMosq, nullptr, strTopic.c_str(), static_cast<int>(strPayload.size()),
                        strPayload.data(), 1, false);
    if (mosquitto_loop(m_pState->pMosq, 5, 1) != MOSQ_ERR_SUCCESS)
      mosquitto_reconnect(m_pState->pMosq);
  }
}

bool CTestSubscriber::Wait(const std::function<bool(const std::vector<_Message>&)>& fnEnough, uint32_t dwMs) {
  std::unique_lock lock(m_pState->mutex);
  return m_pState->cond.wait_for(lock, std::chrono::milliseconds(dwMs),
                                 [&] { return fnEnough(m_pState->messages); });
}

void CTestSubscriber::Publish(const std::string& strTopic, const std::string& strPayload) {
  const std::lock_guard lock(m_pState->mutex);
  m_pState->outgoing.emplace_back(strTopic, strPayload);
}

struct CTestHttps::_Server {
  std::unique_ptr<httplib::Server> pHttp;
};

CTestHttps::CTestHttps(const _CertFiles* pCert, bool bOldProtocol) : m_pServer(std::make_unique<_Server>()) {
  if (pCert == nullptr) {
    m_pServer->pHttp = std::make_unique<httplib::Server>();
  } else if (bOldProtocol) {
    m_pServer->pHttp = std::make_unique<httplib::SSLServer>([pCert](SSL_CTX& context) {
      SSL_CTX_set_security_level(&context, 0);
      SSL_CTX_set_max_proto_version(&context, TLS1_1_VERSION);
      return SSL_CTX_use_certificate_chain_file(&context, pCert->strCert.c_str()) == 1 &&
             SSL_CTX_use_PrivateKey_file(&context, pCert->strKey.c_str(), SSL_FILETYPE_PEM) == 1;
    });
  } else {
    m_pServer->pHttp = std::make_unique<httplib::SSLServer>(pCert->strCert.c_str(), pCert->strKey.c_str());
  }
  const auto fnHandler = [this](const httplib::Request& req, httplib::Response& res) {
    _TestRequest request{req.method, req.path, req.body, {}, {}};
    for (const auto& [strName, strValue] : req.headers) {
      std::string strLower = strName;
      std::transform(strLower.begin(), strLower.end(), strLower.begin(),
                     [](unsigned char ch) { return static_cast<char>(std::tolower(ch)); });
      request.headers[strLower] = strValue;
    }
    for (const auto& [strName, strValue] : req.params)
      request.query[strName] = strValue;
    TAnswer fnAnswer;
    {
      const std::lock_guard lock(m_mutex);
      m_requests.push_back(request);
      if (const auto it = m_answers.find(req.path); it != m_answers.end())
        fnAnswer = it->second;
      m_cond.notify_all();
    }
    _TestReply reply{req.path == "/v1/health" ? 200 : 404, "", {}};
    if (fnAnswer)
      reply = fnAnswer(request);
    res.status = reply.iStatus;
    for (const auto& [strName, strValue] : reply.headers)
      res.set_header(strName, strValue);
    res.set_content(reply.strBody, "application/octet-stream");
  };
  m_pServer->pHttp->Get(".*", fnHandler);
  m_pServer->pHttp->Post(".*", fnHandler);
  m_pServer->pHttp->new_task_queue = [] { return new httplib::ThreadPool(8); };
  const int iPort = m_pServer->pHttp->bind_to_any_port("127.0.0.1");
  if (iPort <= 0)
    Die("no port for HTTPS");
  m_wPort = static_cast<uint16_t>(iPort);
  m_thread = std::thread([this] { m_pServer->pHttp->listen_after_bind(); });
  if (!EventuallyTrue([this] { return m_pServer->pHttp->is_running(); }))
    Die("HTTPS does not run");
}

CTestHttps::~CTestHttps() {
  m_pServer->pHttp->stop();
  m_thread.join();
}

void CTestHttps::Answer(const std::string& strPath, TAnswer fnAnswer) {
  const std::lock_guard lock(m_mutex);
  m_answers[strPath] = std::move(fnAnswer);
}

std::vector<_TestRequest> CTestHttps::Requests(const std::string& strPath) {
  const std::lock_guard lock(m_mutex);
  std::vector<_TestRequest> list;
  for (const _TestRequest& request : m_requests) {
    if (request.strPath == strPath)
      list.push_back(request);
  }
  return list;
}

bool CTestHttps::WaitRequests(const std::string& strPath, size_t uCount, uint32_t dwMs) {
  std::unique_lock lock(m_mutex);
  return m_cond.wait_for(lock, std::chrono::milliseconds(dwMs), [&] {
    return static_cast<size_t>(std::count_if(m_requests.begin(), m_requests.end(),
                                             [&](const _TestRequest& r) { return r.strPath == strPath; })) >=
           uCount;
  });
}

CTestDumbServer::CTestDumbServer() : m_fd(Listen(m_wPort)) {}

CTestDumbServer::~CTestDumbServer() {
  close(m_fd);
}
