#include "FleetServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace zxfleet {

namespace {

constexpr int kBacklog = 4096;
constexpr int kMaxEvents = 256;
constexpr int kTurnMs = 10;
constexpr size_t kMaxMessage = 16u << 20;

// The value of a header, or of nothing.
std::string_view HeaderOf(std::string_view svHead, std::string_view svName) {
  const size_t uAt = svHead.find(svName);
  if (uAt == std::string_view::npos)
    return {};
  const std::string_view svRest = svHead.substr(uAt + svName.size());
  return svRest.substr(0, svRest.find('\r'));
}

}  // namespace

// One connection and what has been read and not yet understood, written and not yet sent.
class CFleetServer::CPeer {
 public:
  CPeer(int fdPeer, SSL_CTX* pCtx) : fd(fdPeer), m_pSsl(SSL_new(pCtx)) {
    if (m_pSsl != nullptr)
      SSL_set_fd(m_pSsl, fd);
  }
  ~CPeer() {
    SSL_free(m_pSsl);
    close(fd);
  }
  CPeer(const CPeer&) = delete;
  CPeer& operator=(const CPeer&) = delete;

  // False: the connection has ended.
  bool Receive() {
    if (m_pSsl == nullptr)
      return false;
    char buffer[16384];
    for (;;) {
      ERR_clear_error();
      const int iGot =
          SSL_is_init_finished(m_pSsl) == 0 ? SSL_accept(m_pSsl) : SSL_read(m_pSsl, buffer, sizeof(buffer));
      if (iGot <= 0)
        return Again(iGot);
      if (m_bReady)
        strIn.append(buffer, static_cast<size_t>(iGot));
      m_bReady = true;
    }
  }
  bool Send() {
    while (!strOut.empty()) {
      ERR_clear_error();
      const int iSent = SSL_write(m_pSsl, strOut.data(), static_cast<int>(strOut.size()));
      if (iSent <= 0)
        return Again(iSent);
      strOut.erase(0, static_cast<size_t>(iSent));
    }
    return true;
  }
  bool WantsWrite() const { return !strOut.empty() || m_bWantWrite; }

  const int fd;
  std::string strIn;
  std::string strOut;
  bool bSession = false;

 private:
  bool Again(int iResult) {
    const int iError = SSL_get_error(m_pSsl, iResult);
    m_bWantWrite = iError == SSL_ERROR_WANT_WRITE;
    return m_bWantWrite || iError == SSL_ERROR_WANT_READ;
  }

  SSL* const m_pSsl;
  bool m_bReady = false;
  bool m_bWantWrite = false;
};

CFleetServer::CFleetServer() = default;

CFleetServer::~CFleetServer() {
  Stop();
}

bool CFleetServer::OpenDoor(_Door& door) {
  door.fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int iOn = 1;
  setsockopt(door.fd, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(door.wPort);
  socklen_t uLength = sizeof(address);
  if (door.fd < 0 || bind(door.fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(door.fd, kBacklog) != 0 ||
      getsockname(door.fd, reinterpret_cast<sockaddr*>(&address), &uLength) != 0)
    return false;
  door.wPort = ntohs(address.sin_port);
  Watch(door.fd, false, true);
  return true;
}

void CFleetServer::CloseDoor(_Door& door) {
  if (door.fd >= 0)
    close(door.fd);
  door.fd = -1;
}

bool CFleetServer::Start(const _FleetCert& cert, std::string& strError) {
  m_pCtx.reset(SSL_CTX_new(TLS_server_method()));
  if (m_pCtx == nullptr || SSL_CTX_use_certificate_chain_file(m_pCtx.get(), cert.strCert.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(m_pCtx.get(), cert.strKey.c_str(), SSL_FILETYPE_PEM) != 1) {
    strError = "certificate " + cert.strCert + " is not usable";
    return false;
  }
  SSL_CTX_set_mode(m_pCtx.get(), SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                                     SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  m_fdEpoll = epoll_create1(EPOLL_CLOEXEC);
  if (m_fdEpoll < 0 || !OpenDoor(m_doors[0]) || !OpenDoor(m_doors[1])) {
    strError = std::string("no port: ") + strerrordesc_np(errno);
    return false;
  }
  m_thread = std::thread([this] {
    pthread_setname_np(pthread_self(), "zxfleetsrv");
    Run();
  });
  return true;
}

void CFleetServer::Stop() {
  m_bStop.store(true);
  if (m_thread.joinable())
    m_thread.join();
  m_peers.clear();
  for (_Door& door : m_doors)
    CloseDoor(door);
  if (m_fdEpoll >= 0)
    close(m_fdEpoll);
  m_fdEpoll = -1;
}

void CFleetServer::SetAway(bool bAway) {
  m_bWantAway.store(bAway);
  const timespec turn{0, kTurnMs * 1000000L};
  while (m_bAway.load() != bAway && !m_bStop.load())
    nanosleep(&turn, nullptr);
}

void CFleetServer::TurnAway(bool bAway) {
  if (bAway) {
    m_peers.clear();
    m_uSessions.store(0);
  }
  for (_Door& door : m_doors) {
    if (bAway)
      CloseDoor(door);
    else if (!OpenDoor(door))
      return;  // the port is still taken: again at the next turn
  }
  m_bAway.store(bAway);
}

void CFleetServer::Run() {
  epoll_event events[kMaxEvents];
  while (!m_bStop.load()) {
    if (m_bWantAway.load() != m_bAway.load())
      TurnAway(m_bWantAway.load());
    const int iCount = epoll_wait(m_fdEpoll, events, kMaxEvents, kTurnMs);
    for (int i = 0; i < iCount; ++i) {
      const int fd = events[i].data.fd;
      if (fd == m_doors[0].fd || fd == m_doors[1].fd)
        Accept(fd == m_doors[0].fd ? m_doors[0] : m_doors[1]);
      else
        Handle(fd, events[i].events);
    }
  }
}

void CFleetServer::Watch(int fd, bool bWrite, bool bNew) {
  epoll_event event{};
  event.events = EPOLLIN | (bWrite ? EPOLLOUT : 0u);
  event.data.fd = fd;
  epoll_ctl(m_fdEpoll, bNew ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &event);
}

void CFleetServer::Accept(_Door& door) {
  for (;;) {
    const int fd = accept4(door.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0)
      return;
    const int iOn = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
    {
      const std::lock_guard lock(m_mutex);
      door.listKnocks.push_back(m_clock.NowMs());
    }
    m_peers[fd] = std::make_unique<CPeer>(fd, m_pCtx.get());
    Watch(fd, false, true);
  }
}

void CFleetServer::Handle(int fd, uint32_t uEvents) {
  const auto it = m_peers.find(fd);
  if (it == m_peers.end())
    return;
  CPeer& peer = *it->second;
  bool bOn = (uEvents & (EPOLLERR | EPOLLHUP)) == 0 && peer.Receive();
  // What came before the end still counts.
  const bool bUnderstood = Understand(peer);
  bOn = bOn && bUnderstood && peer.Send();
  if (bOn) {
    Watch(fd, peer.WantsWrite(), false);
    return;
  }
  m_uSessions -= peer.bSession ? 1 : 0;
  m_peers.erase(it);
}

bool CFleetServer::Understand(CPeer& peer) {
  size_t uBefore = 0;
  bool bOn = true;
  do {
    uBefore = peer.strIn.size();
    if (uBefore == 0)
      break;
    const bool bHttp = peer.strIn.front() == 'G' || peer.strIn.front() == 'P';
    bOn = peer.strIn.size() <= kMaxMessage && (bHttp ? UnderstandHttp(peer) : UnderstandMqtt(peer));
  } while (bOn && peer.strIn.size() < uBefore);
  return bOn;
}

bool CFleetServer::UnderstandHttp(CPeer& peer) {
  const size_t uEnd = peer.strIn.find("\r\n\r\n");
  if (uEnd == std::string::npos)
    return true;
  const std::string_view svHead = std::string_view(peer.strIn).substr(0, uEnd + 2);
  const std::string strLength(HeaderOf(svHead, "Content-Length: "));
  const size_t uBody = std::strtoul(strLength.c_str(), nullptr, 10);
  if (uBody > kMaxMessage)
    return false;
  if (peer.strIn.size() < uEnd + 4 + uBody)
    return true;
  if (const std::string_view svId = HeaderOf(svHead, "X-Zx-Id: "); !svId.empty())
    NoteUpload(std::string(svId));
  const std::string strBody = svHead.substr(0, 13) == "GET /v1/tconf" ? m_strTconf : "";
  peer.strIn.erase(0, uEnd + 4 + uBody);
  peer.strOut +=
      "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(strBody.size()) + "\r\n\r\n" + strBody;
  return true;
}

bool CFleetServer::UnderstandMqtt(CPeer& peer) {
  const auto Byte = [&](size_t u) { return static_cast<unsigned char>(peer.strIn[u]); };
  size_t uLength = 0;
  size_t uAt = 1;
  for (unsigned uShift = 0;; uShift += 7, ++uAt) {
    if (uAt >= peer.strIn.size())
      return true;
    if (uShift > 21)
      return false;
    uLength |= static_cast<size_t>(Byte(uAt) & 127) << uShift;
    if ((Byte(uAt) & 128) == 0)
      break;
  }
  ++uAt;
  if (peer.strIn.size() < uAt + uLength)
    return true;
  const std::string strBody = peer.strIn.substr(uAt, uLength);
  const unsigned char chFirst = Byte(0);
  peer.strIn.erase(0, uAt + uLength);
  switch (chFirst >> 4) {
    case 1:  // CONNECT
      m_uSessions += peer.bSession ? 0 : 1;
      peer.bSession = true;
      peer.strOut += std::string("\x20\x02\x00\x00", 4);
      return true;
    case 3: {  // PUBLISH: the id stands behind the topic, the upload's own id on the payload's first line
      if (strBody.size() < 2)
        return false;
      const size_t uTopic =
          static_cast<unsigned char>(strBody[0]) * 256u + static_cast<unsigned char>(strBody[1]);
      if ((chFirst & 6) == 0)
        return true;
      if (uTopic + 4 > strBody.size())
        return false;
      const std::string_view svPayload = std::string_view(strBody).substr(uTopic + 4);
      if (svPayload.substr(0, 4) == "zx1 ")
        NoteUpload(std::string(svPayload.substr(4, svPayload.find('\n') - 4)));
      peer.strOut += "\x40\x02" + strBody.substr(uTopic + 2, 2);
      return true;
    }
    case 8:  // SUBSCRIBE
      peer.strOut += "\x90\x03" + strBody.substr(0, 2) + "\x01";
      return strBody.size() >= 2;
    case 12:  // PINGREQ
      peer.strOut += std::string("\xd0\x00", 2);
      return true;
    default:
      return false;
  }
}

void CFleetServer::NoteUpload(const std::string& strId) {
  const std::lock_guard lock(m_mutex);
  m_setUploads.insert(strId);
}

std::vector<uint64_t> CFleetServer::Knocks(EDoor eDoor) {
  const std::lock_guard lock(m_mutex);
  return m_doors[static_cast<size_t>(eDoor)].listKnocks;
}

uint64_t CFleetServer::Uploads() {
  const std::lock_guard lock(m_mutex);
  return m_setUploads.size();
}

}  // namespace zxfleet
