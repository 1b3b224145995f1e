// The far side of the cloud link for tests: a real mosquitto broker, and an HTTPS service whose answers the
// test decides. Both on free ports of 127.0.0.1; the test talks to the broker as the cloud does.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/CloudCerts.h"

// A port that was free a moment ago.
uint16_t FreePort();

class CTestBroker {
 public:
  // strDir ends in "/" and is the broker's own. Aborts the test program when mosquitto cannot be started.
  // bPersistent: sessions outlive Stop and Start.
  CTestBroker(const std::string& strDir, const _CertFiles& cert, bool bPersistent = false);
  ~CTestBroker();
  CTestBroker(const CTestBroker&) = delete;
  CTestBroker& operator=(const CTestBroker&) = delete;

  uint16_t TlsPort() const { return m_wTlsPort; }      // for the agent
  uint16_t PlainPort() const { return m_wPlainPort; }  // for the cloud's side and for plain-text tests
  void Kill();                                         // as power loss; does nothing when it is down
  void Stop();                                         // in good order
  void Freeze();  // accepts and answers nothing, but keeps its connections
  void Start();   // again, on the same ports

 private:
  bool TryStart();
  void End(int iSignal);
  void WriteConfig() const;

  const std::string m_strDir;
  const _CertFiles m_cert;
  const bool m_bPersistent;
  uint16_t m_wTlsPort = 0;
  uint16_t m_wPlainPort = 0;
  pid_t m_iPid = -1;
};

// The cloud's own MQTT client.
class CTestSubscriber {
 public:
  struct _Message {
    std::string strTopic;
    std::string strPayload;
    bool bRetained = false;
  };
  CTestSubscriber(uint16_t wPort, const std::string& strTopic);
  ~CTestSubscriber();
  CTestSubscriber(const CTestSubscriber&) = delete;
  CTestSubscriber& operator=(const CTestSubscriber&) = delete;

  bool Wait(const std::function<bool(const std::vector<_Message>&)>& fnEnough, uint32_t dwMs = 10000);
  void Publish(const std::string& strTopic, const std::string& strPayload);

 private:
  struct _State;
  void Loop();

  std::unique_ptr<_State> m_pState;
  std::atomic<bool> m_bStop{false};
  std::thread m_thread;
};

struct _TestRequest {
  std::string strMethod;
  std::string strPath;
  std::string strBody;
  std::map<std::string, std::string> headers;  // names in lower case
  std::map<std::string, std::string> query;
};
struct _TestReply {
  int iStatus = 200;
  std::string strBody;
  std::map<std::string, std::string> headers;
};

class CTestHttps {
 public:
  using TAnswer = std::function<_TestReply(const _TestRequest&)>;
  // Null certificate: plain HTTP.
  explicit CTestHttps(const _CertFiles* pCert, bool bOldProtocol = false);
  ~CTestHttps();
  CTestHttps(const CTestHttps&) = delete;
  CTestHttps& operator=(const CTestHttps&) = delete;

  uint16_t Port() const { return m_wPort; }
  std::string Address() const { return "127.0.0.1:" + std::to_string(m_wPort); }
  // Answers of a path from now on; 404 without one, except /v1/health, which answers 200. May block.
  void Answer(const std::string& strPath, TAnswer fnAnswer);
  std::vector<_TestRequest> Requests(const std::string& strPath);
  bool WaitRequests(const std::string& strPath, size_t uCount, uint32_t dwMs = 10000);

 private:
  struct _Server;
  std::unique_ptr<_Server> m_pServer;
  uint16_t m_wPort = 0;
  std::mutex m_mutex;
  std::condition_variable m_cond;
  std::map<std::string, TAnswer> m_answers;
  std::vector<_TestRequest> m_requests;
  std::thread m_thread;
};

// Accepts connections and never says a word.
class CTestDumbServer {
 public:
  CTestDumbServer();
  ~CTestDumbServer();
  CTestDumbServer(const CTestDumbServer&) = delete;
  CTestDumbServer& operator=(const CTestDumbServer&) = delete;
  uint16_t Port() const { return m_wPort; }

 private:
  uint16_t m_wPort = 0;
  int m_fd = -1;  // listening; the kernel accepts into its backlog
};
