#include "HttpStream.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/os/ZxTime.h"

namespace zxcloudd {

namespace {

void AddressOf(const sockaddr_storage& address, std::string& strIp, int& iPort) {
  char szIp[INET6_ADDRSTRLEN] = "";
  sockaddr_in in4{};
  sockaddr_in6 in6{};
  if (address.ss_family == AF_INET) {
    std::memcpy(&in4, &address, sizeof(in4));
    inet_ntop(AF_INET, &in4.sin_addr, szIp, sizeof(szIp));
    iPort = ntohs(in4.sin_port);
  } else if (address.ss_family == AF_INET6) {
    std::memcpy(&in6, &address, sizeof(in6));
    inet_ntop(AF_INET6, &in6.sin6_addr, szIp, sizeof(szIp));
    iPort = ntohs(in6.sin6_port);
  }
  strIp = szIp;
}

}  // namespace

CHttpStream::CHttpStream(int iSocket, SSL_CTX* pCtx, int iStopFd, const _StreamLimits& limits)
    : m_iSocket(iSocket), m_iStopFd(iStopFd), m_limits(limits), m_u64Started(ZxGetTickCount()) {
  fcntl(iSocket, F_SETFL, fcntl(iSocket, F_GETFL) | O_NONBLOCK);
  if (pCtx == nullptr)
    return;
  m_pSsl = SSL_new(pCtx);
  if (m_pSsl != nullptr)
    SSL_set_fd(m_pSsl, iSocket);
}

CHttpStream::~CHttpStream() {
  if (m_pSsl == nullptr)
    return;
  ERR_clear_error();
  SSL_shutdown(m_pSsl);
  SSL_free(m_pSsl);
}

bool CHttpStream::Handshake() {
  if (m_pSsl == nullptr)
    return true;
  const uint64_t u64Until = ZxGetTickCount() + m_limits.u64HeadMs;
  for (;;) {
    ERR_clear_error();
    const int iResult = SSL_accept(m_pSsl);
    if (iResult == 1)
      return true;
    const EIo eIo = Classify(iResult);
    if (eIo == EIo::Closed || !Wait(eIo, u64Until, true))
      return false;
  }
}

bool CHttpStream::WaitRequest(uint64_t u64IdleMs) {
  // What follows a request that was not read to its end is no request.
  if (m_bBroken)
    return false;
  const bool bHere = m_uAt < m_uEnd || (m_pSsl != nullptr && SSL_pending(m_pSsl) > 0);
  if (!bHere && !Wait(EIo::WantRead, ZxGetTickCount() + u64IdleMs, true))
    return false;
  m_bInHead = m_bLineEmpty = true;
  m_uSpent = 0;
  m_u64Started = ZxGetTickCount();
  return true;
}

void CHttpStream::Linger() {
  if (m_pSsl != nullptr) {
    ERR_clear_error();
    SSL_shutdown(m_pSsl);
  }
  shutdown(m_iSocket, SHUT_WR);
  const uint64_t u64Until = ZxGetTickCount() + m_limits.u64LingerMs;
  while (Wait(EIo::WantRead, u64Until, true)) {
    const ssize_t iGot = recv(m_iSocket, m_buffer.data(), m_buffer.size(), 0);
    if (iGot == 0 || (iGot < 0 && errno != EAGAIN && errno != EINTR))
      return;
  }
}

uint64_t CHttpStream::Deadline() const {
  const uint64_t u64Stall = ZxGetTickCount() + m_limits.u64StallMs;
  return std::min(u64Stall, m_u64Started + (m_bInHead ? m_limits.u64HeadMs : m_limits.u64RequestMs));
}

ssize_t CHttpStream::read(char* pData, size_t uSize) {
  const size_t uBudget = m_bInHead ? m_limits.uHeadBytes : m_limits.uBodyBytes;
  if (m_bBroken || m_uSpent >= uBudget || (m_uAt == m_uEnd && !Fill())) {
    m_bBroken = true;
    return -1;
  }
  const size_t uTake = std::min({uSize, m_uEnd - m_uAt, uBudget - m_uSpent});
  std::memcpy(pData, m_buffer.data() + m_uAt, uTake);
  m_uAt += uTake;
  Spend(pData, uTake);
  return static_cast<ssize_t>(uTake);
}

// The head ends with an empty line; from there the body's budget counts.
void CHttpStream::Spend(const char* pData, size_t uSize) {
  for (size_t u = 0; u < uSize && m_bInHead; ++u) {
    if (pData[u] == '\n' && m_bLineEmpty && m_uSpent + u > 1) {
      m_bInHead = false;
      m_uSpent = 0;
      uSize -= u + 1;
    } else if (pData[u] != '\r') {
      m_bLineEmpty = pData[u] == '\n';
    }
  }
  m_uSpent += uSize;
}

bool CHttpStream::Fill() {
  const uint64_t u64Until = Deadline();
  for (;;) {
    size_t uGot = 0;
    const EIo eIo = ReadSome(m_buffer.data(), m_buffer.size(), uGot);
    if (eIo == EIo::Done) {
      m_uAt = 0;
      m_uEnd = uGot;
      return true;
    }
    if (eIo == EIo::Closed || !Wait(eIo, u64Until, true))
      return false;
  }
}

ssize_t CHttpStream::write(const char* pData, size_t uSize) {
  size_t uDone = 0;
  while (uDone < uSize) {
    size_t uSent = 0;
    const EIo eIo = WriteSome(pData + uDone, uSize - uDone, uSent);
    uDone += uSent;
    if (eIo == EIo::Closed || (eIo != EIo::Done && !Wait(eIo, Deadline(), false)))
      return -1;
  }
  return static_cast<ssize_t>(uSize);
}

CHttpStream::EIo CHttpStream::ReadSome(char* pData, size_t uSize, size_t& uGot) {
  if (m_pSsl != nullptr) {
    ERR_clear_error();
    const int iResult = SSL_read_ex(m_pSsl, pData, uSize, &uGot);
    return iResult == 1 ? EIo::Done : Classify(iResult);
  }
  const ssize_t iGot = recv(m_iSocket, pData, uSize, 0);
  uGot = iGot > 0 ? static_cast<size_t>(iGot) : 0;
  if (iGot > 0)
    return EIo::Done;
  return iGot < 0 && (errno == EAGAIN || errno == EINTR) ? EIo::WantRead : EIo::Closed;
}

CHttpStream::EIo CHttpStream::WriteSome(const char* pData, size_t uSize, size_t& uSent) {
  if (m_pSsl != nullptr) {
    ERR_clear_error();
    const int iResult = SSL_write_ex(m_pSsl, pData, uSize, &uSent);
    return iResult == 1 ? EIo::Done : Classify(iResult);
  }
  const ssize_t iSent = send(m_iSocket, pData, uSize, MSG_NOSIGNAL);
  uSent = iSent > 0 ? static_cast<size_t>(iSent) : 0;
  if (iSent > 0)
    return EIo::Done;
  return iSent < 0 && (errno == EAGAIN || errno == EINTR) ? EIo::WantWrite : EIo::Closed;
}

CHttpStream::EIo CHttpStream::Classify(int iResult) const {
  switch (SSL_get_error(m_pSsl, iResult)) {
    case SSL_ERROR_WANT_READ:
      return EIo::WantRead;
    case SSL_ERROR_WANT_WRITE:
      return EIo::WantWrite;
    default:
      return EIo::Closed;
  }
}

bool CHttpStream::Wait(EIo eWant, uint64_t u64Until, bool bStoppable) const {
  pollfd fds[2] = {{m_iSocket, static_cast<short>(eWant == EIo::WantWrite ? POLLOUT : POLLIN), 0},
                   {m_iStopFd, POLLIN, 0}};
  for (;;) {
    const uint64_t u64Now = ZxGetTickCount();
    if (u64Now >= u64Until)
      return false;
    const int iReady = poll(fds, bStoppable ? 2 : 1, static_cast<int>(u64Until - u64Now));
    if (iReady < 0 && errno != EINTR)
      return false;
    if (iReady > 0)
      return fds[0].revents != 0;
  }
}

void CHttpStream::get_remote_ip_and_port(std::string& strIp, int& iPort) const {
  sockaddr_storage address{};
  socklen_t uLength = sizeof(address);
  getpeername(m_iSocket, reinterpret_cast<sockaddr*>(&address), &uLength);
  AddressOf(address, strIp, iPort);
}

void CHttpStream::get_local_ip_and_port(std::string& strIp, int& iPort) const {
  sockaddr_storage address{};
  socklen_t uLength = sizeof(address);
  getsockname(m_iSocket, reinterpret_cast<sockaddr*>(&address), &uLength);
  AddressOf(address, strIp, iPort);
}

}  // namespace zxcloudd
