#include "support/TlsServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

namespace {

constexpr int kPollMs = 20;
constexpr unsigned char kTlsHandshake = 0x16;  // the first byte of TLS
constexpr size_t kMaxRequest = 1u << 20;
constexpr char kGarbage[] = "\x7f\x01 no protocol of this world \xff\xfe";

struct CFree {
  void operator()(SSL_CTX* p) const { SSL_CTX_free(p); }
  void operator()(SSL* p) const { SSL_free(p); }
};

// Lets what was sent arrive before the reset that unread bytes would cause.
void EndPolitely(int fd) {
  shutdown(fd, SHUT_WR);
  char ch = 0;
  while (recv(fd, &ch, 1, 0) == 1) {
  }
}

void Must(bool bOk, const char* pszWhat) {
  if (bOk)
    return;
  std::fprintf(stderr, "TLS test server: %s\n", pszWhat);
  std::abort();
}

std::atomic<uint32_t>* Counter(const SSL* pSsl) {
  return static_cast<std::atomic<uint32_t>*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(pSsl)));
}

void OnInfo(const SSL* pSsl, int iWhere, int) {
  if ((iWhere & SSL_CB_LOOP) != 0 && SSL_get_state(pSsl) == TLS_ST_SR_CLNT_HELLO)
    ++*Counter(pSsl);
}

std::unique_ptr<SSL_CTX, CFree> NewContext(const _TlsManners& manners, std::atomic<uint32_t>& uHellos) {
  std::unique_ptr<SSL_CTX, CFree> pCtx(SSL_CTX_new(TLS_server_method()));
  Must(pCtx != nullptr, "context");
  // What a test asks for may be below the machine's policy.
  SSL_CTX_set_security_level(pCtx.get(), 0);
  SSL_CTX_set_max_proto_version(pCtx.get(), manners.iMaxVersion);
  SSL_CTX_set_num_tickets(pCtx.get(), 0);
  SSL_CTX_set_app_data(pCtx.get(), &uHellos);
  SSL_CTX_set_info_callback(pCtx.get(), OnInfo);
  if (!manners.strCiphers.empty())
    Must(SSL_CTX_set_cipher_list(pCtx.get(), manners.strCiphers.c_str()) == 1, "ciphers");
  Must(SSL_CTX_use_certificate_chain_file(pCtx.get(), manners.cert.strCert.c_str()) == 1 &&
           SSL_CTX_use_PrivateKey_file(pCtx.get(), manners.cert.strKey.c_str(), SSL_FILETYPE_PEM) == 1,
       "certificate");
  if (!manners.strClientCa.empty()) {
    Must(SSL_CTX_load_verify_file(pCtx.get(), manners.strClientCa.c_str()) == 1, "client CA");
    SSL_CTX_set_verify(pCtx.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  }
  return pCtx;
}

}  // namespace

// Reads and writes whole pieces, with or without TLS. False: the connection has ended.
class CTestTlsServer::CPeer {
 public:
  CPeer(int fd, SSL* pSsl) : m_fd(fd), m_pSsl(pSsl) {}
  bool Read(void* pTo, size_t uBytes) {
    auto* pch = static_cast<char*>(pTo);
    while (uBytes > 0) {
      const ssize_t iGot =
          m_pSsl != nullptr ? SSL_read(m_pSsl, pch, static_cast<int>(uBytes)) : recv(m_fd, pch, uBytes, 0);
      if (iGot <= 0)
        return false;
      pch += iGot;
      uBytes -= static_cast<size_t>(iGot);
    }
    return true;
  }
  bool Write(const std::string& str) {
    const ssize_t iSent = m_pSsl != nullptr ? SSL_write(m_pSsl, str.data(), static_cast<int>(str.size()))
                                            : send(m_fd, str.data(), str.size(), MSG_NOSIGNAL);
    return iSent == static_cast<ssize_t>(str.size());
  }

 private:
  const int m_fd;
  SSL* const m_pSsl;
};

CTestTlsServer::CTestTlsServer(_TlsManners manners)
    : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), m_manners(std::move(manners)) {
  (void)std::signal(SIGPIPE, SIG_IGN);  // clients of these tests hang up at any moment
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t uLength = sizeof(address);
  Must(m_fd >= 0 && bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
           listen(m_fd, 64) == 0 && getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &uLength) == 0,
       "no port");
  m_wPort = ntohs(address.sin_port);
  m_thread = std::thread([this] { Accept(); });
}

CTestTlsServer::~CTestTlsServer() {
  m_bStop.store(true);
  m_thread.join();
  DropAll();
  for (std::thread& thread : m_threads)
    thread.join();
  close(m_fd);
}

void CTestTlsServer::SetManners(_TlsManners manners) {
  const std::lock_guard lock(m_mutex);
  m_manners = std::move(manners);
}

void CTestTlsServer::DropAll() {
  const std::lock_guard lock(m_mutex);
  for (const int fd : m_setPeers)
    shutdown(fd, SHUT_RDWR);
}

void CTestTlsServer::Accept() {
  while (!m_bStop.load()) {
    pollfd one{m_fd, POLLIN, 0};
    if (poll(&one, 1, kPollMs) <= 0)
      continue;
    const int fd = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
      continue;
    ++m_uConnections;
    {
      const std::lock_guard lock(m_mutex);
      m_setPeers.insert(fd);
    }
    m_threads.emplace_back([this, fd] { Serve(fd); });
  }
}

void CTestTlsServer::Serve(int fd) {
  _TlsManners manners;
  {
    const std::lock_guard lock(m_mutex);
    manners = m_manners;
  }
  char ch = 0;
  if (manners.eMode == _TlsManners::EMode::Plain) {
    CPeer peer(fd, nullptr);
    Talk(peer, manners.strHttpBody);
    EndPolitely(fd);
  } else if (manners.eMode == _TlsManners::EMode::Garbage) {
    if (recv(fd, &ch, 1, 0) == 1)
      send(fd, kGarbage, sizeof(kGarbage), MSG_NOSIGNAL);
    while (recv(fd, &ch, 1, 0) == 1) {
    }
  } else if (manners.eMode == _TlsManners::EMode::Close) {
    recv(fd, &ch, 1, MSG_PEEK);
  } else {
    ServeTls(fd, manners);
  }
  const std::lock_guard lock(m_mutex);
  m_setPeers.erase(fd);
  close(fd);
}

void CTestTlsServer::ServeTls(int fd, const _TlsManners& manners) {
  const auto pCtx = NewContext(manners, m_uHellos);
  const std::unique_ptr<SSL, CFree> pSsl(SSL_new(pCtx.get()));
  Must(pSsl != nullptr && SSL_set_fd(pSsl.get(), fd) == 1, "connection");
  bool bOk = SSL_accept(pSsl.get()) == 1;
  {
    const char* pszName = SSL_get_servername(pSsl.get(), TLSEXT_NAMETYPE_host_name);
    const std::lock_guard lock(m_mutex);
    m_strLastName = pszName != nullptr ? pszName : "";
  }
  if (bOk && manners.eMode == _TlsManners::EMode::Renegotiate)
    bOk = SSL_renegotiate(pSsl.get()) == 1 && SSL_do_handshake(pSsl.get()) == 1;
  CPeer peer(fd, pSsl.get());
  if (bOk)
    Talk(peer, manners.strHttpBody);
  EndPolitely(fd);
}

void CTestTlsServer::Talk(CPeer& peer, const std::string& strHttpBody) {
  unsigned char chFirst = 0;
  bool bOn = true;
  while (bOn && peer.Read(&chFirst, 1)) {
    const bool bHttp = chFirst == 'G' || chFirst == 'P';
    if (chFirst == kTlsHandshake) {
      peer.Write("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n");
      return;
    }
    bOn = bHttp ? TalkHttp(peer, strHttpBody) : TalkMqtt(peer, chFirst);
  }
}

bool CTestTlsServer::TalkHttp(CPeer& peer, const std::string& strHttpBody) {
  std::string strHead;
  char ch = 0;
  while (strHead.size() < kMaxRequest && strHead.find("\r\n\r\n") == std::string::npos) {
    if (!peer.Read(&ch, 1))
      return false;
    strHead += ch;
  }
  static constexpr char kLength[] = "Content-Length: ";
  const size_t uLength = strHead.find(kLength);
  const size_t uBody =
      uLength == std::string::npos ? 0 : std::strtoul(&strHead[uLength + sizeof(kLength) - 1], nullptr, 10);
  std::string strBody(uBody, 0);
  if (uBody > kMaxRequest || !peer.Read(strBody.data(), uBody))
    return false;
  ++m_uMessages;
  return peer.Write("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(strHttpBody.size()) + "\r\n\r\n" +
                    strHttpBody);
}

bool CTestTlsServer::TalkMqtt(CPeer& peer, unsigned char chFirst) {
  size_t uLength = 0;
  for (unsigned uShift = 0;; uShift += 7) {
    unsigned char ch = 0;
    if (uShift > 21 || !peer.Read(&ch, 1))
      return false;
    uLength |= static_cast<size_t>(ch & 127) << uShift;
    if ((ch & 128) == 0)
      break;
  }
  std::string strPacket(uLength, 0);
  if (uLength > kMaxRequest || !peer.Read(strPacket.data(), uLength))
    return false;
  switch (chFirst >> 4) {
    case 1:  // CONNECT
      ++m_uMessages;
      return peer.Write(std::string("\x20\x02\x00\x00", 4));
    case 3: {  // PUBLISH: the id stands behind the topic
      ++m_uMessages;
      if ((chFirst & 6) == 0 || uLength < 2)
        return true;
      const size_t uTopic =
          static_cast<unsigned char>(strPacket[0]) * 256u + static_cast<unsigned char>(strPacket[1]);
      return uTopic + 4 <= uLength && peer.Write("\x40\x02" + strPacket.substr(uTopic + 2, 2));
    }
    case 8:  // SUBSCRIBE
      return uLength >= 2 && peer.Write("\x90\x03" + strPacket.substr(0, 2) + "\x01");
    case 12:  // PINGREQ
      return peer.Write(std::string("\xd0\x00", 2));
    default:
      return false;
  }
}

std::string CTestTlsServer::LastName() {
  const std::lock_guard lock(m_mutex);
  return m_strLastName;
}
