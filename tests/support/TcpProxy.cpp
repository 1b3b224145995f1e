#include "support/TcpProxy.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <utility>

namespace {

using TClock = std::chrono::steady_clock;
constexpr size_t kMaxWaiting = 256u << 10;  // per direction; more is left to the kernel

sockaddr_in Loopback(uint16_t wPort) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(wPort);
  return address;
}

int Socket() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    std::perror("proxy");
    std::abort();
  }
  return fd;
}

void Prepare(int fd) {
  const int iOn = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
  fcntl(fd, F_SETFL, O_NONBLOCK);
}

}  // namespace

// Side 0 is the client's.
struct CTcpProxy::_Pair {
  struct _Piece {
    TClock::time_point due;
    std::string strData;
  };
  std::array<int, 2> fds{-1, -1};
  std::array<std::deque<_Piece>, 2> waiting;  // to be written to that side
  std::array<size_t, 2> uWaiting{};
  bool bFrozen = false;

  bool IsOpen() const { return fds[0] >= 0; }
  void Close() {
    for (int& fd : fds) {
      if (fd >= 0)
        close(fd);
      fd = -1;
    }
  }
  bool Due(size_t uSide, TClock::time_point now) const {
    return !waiting[uSide].empty() && waiting[uSide].front().due <= now;
  }
};

CTcpProxy::CTcpProxy(uint16_t wTarget) : m_wTarget(wTarget), m_fdListen(Socket()) {
  sockaddr_in address = Loopback(0);
  socklen_t uLength = sizeof(address);
  m_fdWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (m_fdWake < 0 || bind(m_fdListen, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(m_fdListen, 1024) != 0 ||
      getsockname(m_fdListen, reinterpret_cast<sockaddr*>(&address), &uLength) != 0) {
    std::perror("proxy");
    std::abort();
  }
  m_wPort = ntohs(address.sin_port);
  fcntl(m_fdListen, F_SETFL, O_NONBLOCK);
  m_thread = std::thread([this] { Run(); });
}

CTcpProxy::~CTcpProxy() {
  Ask([this] { m_bStop.store(true); });
  m_thread.join();
  for (const auto& pPair : m_pairs)
    pPair->Close();
  close(m_fdListen);
  close(m_fdWake);
}

void CTcpProxy::Ask(const std::function<void()>& fnChange) {
  const std::lock_guard lock(m_mutex);
  fnChange();
  const uint64_t u64One = 1;
  if (write(m_fdWake, &u64One, sizeof(u64One)) < 0)
    std::perror("proxy");
}

void CTcpProxy::Freeze(size_t uConnection) {
  Ask([&] { m_pairs.at(uConnection)->bFrozen = true; });
}

void CTcpProxy::FreezeAll() {
  Ask([this] { m_bFreezeAll = true; });
}

void CTcpProxy::Thaw() {
  Ask([this] {
    m_bFreezeAll = false;
    for (const auto& pPair : m_pairs)
      pPair->bFrozen = false;
  });
}

void CTcpProxy::Cut(size_t uConnection) {
  Ask([&] { m_pairs.at(uConnection)->Close(); });
}

void CTcpProxy::CutAll() {
  Ask([this] {
    for (const auto& pPair : m_pairs)
      pPair->Close();
  });
}

void CTcpProxy::Refuse(bool bRefuse) {
  Ask([&] { m_bRefuse = bRefuse; });
}

void CTcpProxy::Delay(uint32_t dwMs) {
  Ask([&] { m_dwDelayMs = dwMs; });
}

size_t CTcpProxy::Open() {
  const std::lock_guard lock(m_mutex);
  return static_cast<size_t>(
      std::count_if(m_pairs.begin(), m_pairs.end(), [](const auto& pPair) { return pPair->IsOpen(); }));
}

void CTcpProxy::Accept() {
  const int fd = accept4(m_fdListen, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0)
    return;
  ++m_uAttempts;
  auto pPair = std::make_unique<_Pair>();
  pPair->fds = {fd, -1};
  if (!m_bRefuse) {
    pPair->fds[1] = Socket();
    const sockaddr_in address = Loopback(m_wTarget);
    const bool bOk =
        connect(pPair->fds[1], reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    for (const int fdSide : pPair->fds)
      Prepare(fdSide);
    if (!bOk)
      pPair->Close();
  } else {
    pPair->Close();
  }
  m_pairs.push_back(std::move(pPair));
}

// Reads what the side has said for the other, and writes what waits for the side.
void CTcpProxy::Serve(_Pair& pair, int iSide, short sEvents) {
  const auto uSide = static_cast<size_t>(iSide);
  const size_t uOther = 1 - uSide;
  if ((sEvents & (POLLIN | POLLHUP | POLLERR)) != 0 && pair.uWaiting[uOther] < kMaxWaiting) {
    std::string strData(64u << 10, 0);
    const ssize_t iRead = read(pair.fds[uSide], strData.data(), strData.size());
    if (iRead > 0) {
      strData.resize(static_cast<size_t>(iRead));
      pair.uWaiting[uOther] += strData.size();
      pair.waiting[uOther].push_back(
          {TClock::now() + std::chrono::milliseconds(m_dwDelayMs), std::move(strData)});
    } else if (iRead == 0 || errno != EAGAIN) {
      pair.Close();
      return;
    }
  }
  while (pair.Due(uSide, TClock::now())) {
    std::string& strData = pair.waiting[uSide].front().strData;
    const ssize_t iWritten = send(pair.fds[uSide], strData.data(), strData.size(), MSG_NOSIGNAL);
    if (iWritten < 0) {
      if (errno != EAGAIN)
        pair.Close();
      return;
    }
    pair.uWaiting[uSide] -= static_cast<size_t>(iWritten);
    strData.erase(0, static_cast<size_t>(iWritten));
    if (!strData.empty())
      return;
    pair.waiting[uSide].pop_front();
  }
}

void CTcpProxy::Run() {
  while (!m_bStop.load()) {
    std::vector<pollfd> polls{{m_fdWake, POLLIN, 0}, {m_fdListen, POLLIN, 0}};
    std::vector<std::pair<_Pair*, int>> owners;
    int iTimeoutMs = 1000;
    {
      const std::lock_guard lock(m_mutex);
      const auto now = TClock::now();
      for (const auto& pPair : m_pairs) {
        if (!pPair->IsOpen() || pPair->bFrozen || m_bFreezeAll)
          continue;
        for (const int iSide : {0, 1}) {
          const auto uSide = static_cast<size_t>(iSide);
          const bool bRead = pPair->uWaiting[1 - uSide] < kMaxWaiting;
          const bool bWrite = pPair->Due(uSide, now);
          if (!bWrite && !pPair->waiting[uSide].empty())
            iTimeoutMs = 1;
          polls.push_back(
              {pPair->fds[uSide], static_cast<short>((bRead ? POLLIN : 0) | (bWrite ? POLLOUT : 0)), 0});
          owners.emplace_back(pPair.get(), iSide);
        }
      }
    }
    poll(polls.data(), polls.size(), iTimeoutMs);
    const std::lock_guard lock(m_mutex);
    uint64_t u64Count = 0;
    if (read(m_fdWake, &u64Count, sizeof(u64Count)) < 0 && errno != EAGAIN)
      std::perror("proxy");
    if ((polls[1].revents & POLLIN) != 0)
      Accept();
    for (size_t u = 0; u < owners.size(); ++u) {
      const auto& [pPair, iSide] = owners[u];
      if (pPair->IsOpen() && !pPair->bFrozen && !m_bFreezeAll)
        Serve(*pPair, iSide, polls[u + 2].revents);
    }
  }
}
