// A TLS server whose manners the test decides, connection by connection. Behind the handshake it speaks
// enough of both protocols of the cloud link: HTTP requests get status 200 and one text, MQTT packets their
// acknowledgements. On a free port of 127.0.0.1. Any thread may call anything.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/CloudCerts.h"

struct _TlsManners {
  enum class EMode : uint8_t {
    Tls,
    Plain,        // the protocols without TLS
    Garbage,      // answers the first byte with bytes of no protocol
    Close,        // closes on the first byte
    Renegotiate,  // asks for a second handshake as soon as the first is done
  };
  EMode eMode = EMode::Tls;
  _CertFiles cert;
  int iMaxVersion = 0;      // TLS1_2_VERSION and so on; 0: the highest there is
  std::string strCiphers;   // up to TLS 1.2; empty: OpenSSL's choice
  std::string strClientCa;  // asks for client certificates and wants them from this CA
  std::string strHttpBody;
};

class CTestTlsServer {
 public:
  explicit CTestTlsServer(_TlsManners manners);
  ~CTestTlsServer();
  CTestTlsServer(const CTestTlsServer&) = delete;
  CTestTlsServer& operator=(const CTestTlsServer&) = delete;

  uint16_t Port() const { return m_wPort; }
  void SetManners(_TlsManners manners);  // from the next connection on
  void DropAll();                        // closes every connection
  uint32_t Connections() const { return m_uConnections.load(); }
  uint32_t Messages() const { return m_uMessages.load(); }  // requests and packets that were understood
  std::string LastName();  // the server's name as the last client gave it; empty: none
  uint32_t Hellos() const { return m_uHellos.load(); }  // client hellos, those of a second handshake too

 private:
  class CPeer;
  void Accept();
  void Serve(int fd);
  void ServeTls(int fd, const _TlsManners& manners);
  void Talk(CPeer& peer, const std::string& strHttpBody);
  bool TalkHttp(CPeer& peer, const std::string& strHttpBody);
  bool TalkMqtt(CPeer& peer, unsigned char chFirst);

  uint16_t m_wPort = 0;
  int m_fd = -1;
  std::atomic<bool> m_bStop{false};
  std::atomic<uint32_t> m_uConnections{0};
  std::atomic<uint32_t> m_uMessages{0};
  std::atomic<uint32_t> m_uHellos{0};
  std::mutex m_mutex;
  _TlsManners m_manners;
  std::string m_strLastName;
  std::set<int> m_setPeers;
  std::vector<std::thread> m_threads;
  std::thread m_thread;
};
