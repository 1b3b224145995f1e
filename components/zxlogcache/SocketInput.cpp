#include "SocketInput.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

namespace zxlogcache {
namespace {

constexpr size_t kReadBytes = 64u << 10;
constexpr int kBacklog = 64;
constexpr int kEvents = 32;

sockaddr_un AddressOf(const std::string& strPath) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

// Whether somebody serves this path; a leftover file refuses the connection.
bool IsServed(const sockaddr_un& address, int iType) {
  const int hProbe = socket(AF_UNIX, iType | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (hProbe < 0)
    return false;
  const bool bServed =
      connect(hProbe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 || errno == EAGAIN;
  close(hProbe);
  return bServed;
}

bool RemoveLeftover(const std::string& strPath, const sockaddr_un& address, int iType) {
  struct stat st {};
  if (lstat(strPath.c_str(), &st) != 0)
    return errno == ENOENT;
  if (!S_ISSOCK(st.st_mode) || IsServed(address, iType)) {
    errno = EADDRINUSE;
    return false;
  }
  return unlink(strPath.c_str()) == 0;
}

}  // namespace

CSocketInput::CSocketInput(const _SocketSettings& settings, uint32_t uiMaxRecord, uint32_t uiMaxClients,
                           HLog hLog)
    : m_settings(settings), m_uiMaxRecord(uiMaxRecord), m_uiMaxClients(uiMaxClients), m_hLog(hLog) {}

CSocketInput::~CSocketInput() {
  for (const auto& entry : m_clients)
    close(entry.first);
  if (m_hEpoll >= 0)
    close(m_hEpoll);
  if (m_hListen < 0)
    return;
  close(m_hListen);
  unlink(m_settings.strPath.c_str());
}

bool CSocketInput::Open() {
  const int iType = m_settings.bStream ? SOCK_STREAM : SOCK_DGRAM;
  const sockaddr_un address = AddressOf(m_settings.strPath);
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(m_settings.strPath).parent_path(), error);
  if (!RemoveLeftover(m_settings.strPath, address, iType))
    return false;
  const int hSocket = socket(AF_UNIX, iType | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (hSocket < 0)
    return false;
  const int iOn = 1;
  // The mode of the socket is that of the file that bind makes, less the umask, which is the process's and
  // stays as it is: nobody slips in between bind and chmod.
  (void)fchmod(hSocket, m_settings.mode);
  const bool bNamed =
      m_settings.bStream || setsockopt(hSocket, SOL_SOCKET, SO_PASSCRED, &iOn, sizeof(iOn)) == 0;
  const bool bBound =
      bNamed && bind(hSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  m_hEpoll =
      bBound && chmod(m_settings.strPath.c_str(), m_settings.mode) == 0 ? epoll_create1(EPOLL_CLOEXEC) : -1;
  const bool bReady =
      m_hEpoll >= 0 && (!m_settings.bStream || listen(hSocket, kBacklog) == 0) && Watch(hSocket);
  if (bReady) {
    m_hListen = hSocket;
    m_bTold = false;
    return true;
  }
  const int iError = errno;
  close(hSocket);
  if (bBound)
    unlink(m_settings.strPath.c_str());
  if (m_hEpoll >= 0)
    close(m_hEpoll);
  m_hEpoll = -1;
  errno = iError;
  return false;
}

bool CSocketInput::Watch(int hFd) const {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = hFd;
  return epoll_ctl(m_hEpoll, EPOLL_CTL_ADD, hFd, &event) == 0;
}

void CSocketInput::Ready(CChunks& chunks, uint64_t u64Budget) {
  std::array<epoll_event, kEvents> events{};
  const int iCount = epoll_wait(m_hEpoll, events.data(), kEvents, 0);
  for (int i = 0; i < iCount && chunks.Bytes() < u64Budget; ++i) {
    const int hFd = events[static_cast<size_t>(i)].data.fd;
    if (hFd == m_hListen) {
      m_settings.bStream ? Accept() : ReadDatagrams(chunks, u64Budget);
      continue;
    }
    const auto it = m_clients.find(hFd);
    if (it != m_clients.end() && !ReadClient(hFd, it->second, chunks))
      CloseClient(hFd);
  }
}

bool CSocketInput::Allowed(uid_t uid) const {
  for (const uid_t allowed : m_settings.uids) {
    if (allowed == uid)
      return true;
  }
  return m_settings.uids.empty();
}

void CSocketInput::Refuse(const char* pszWhy, uint64_t u64Value) {
  // The first of many tells it all; the count stands in the status file.
  if (m_u64Refused++ == 0)
    LogWarnTo(m_hLog, "*zxlogforward input refused strPath[%s] why[%s] value[%llu]", m_settings.strPath,
              pszWhy, u64Value);
}

void CSocketInput::Accept() {
  for (;;) {
    const int hClient = accept4(m_hListen, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (hClient < 0)
      return;
    ucred peer{};
    socklen_t uiLength = sizeof(peer);
    const bool bKnown = getsockopt(hClient, SOL_SOCKET, SO_PEERCRED, &peer, &uiLength) == 0;
    const bool bRoom = m_clients.size() < m_uiMaxClients;
    if (bKnown && bRoom && Allowed(peer.uid) && Watch(hClient)) {
      m_clients.emplace(hClient, _Client(CFramer(m_settings.eFraming, m_uiMaxRecord)));
      continue;
    }
    Refuse(bRoom ? "user" : "clients", bRoom ? peer.uid : m_clients.size());
    close(hClient);
  }
}

void CSocketInput::ReadDatagrams(CChunks& chunks, uint64_t u64Budget) {
  std::string strBuffer(m_uiMaxRecord + 1, '\0');
  while (chunks.Bytes() < u64Budget && ReadDatagram(strBuffer, chunks)) {
  }
}

bool CSocketInput::ReadDatagram(std::string& strBuffer, CChunks& chunks) {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
  iovec part{strBuffer.data(), strBuffer.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  const ssize_t iBytes = recvmsg(m_hListen, &message, MSG_DONTWAIT);
  if (iBytes < 0)
    return errno == EINTR;
  ucred peer{};
  peer.uid = static_cast<uid_t>(-1);
  for (cmsghdr* pHeader = CMSG_FIRSTHDR(&message); pHeader != nullptr;
       pHeader = CMSG_NXTHDR(&message, pHeader)) {
    if (pHeader->cmsg_level == SOL_SOCKET && pHeader->cmsg_type == SCM_CREDENTIALS)
      std::memcpy(&peer, CMSG_DATA(pHeader), sizeof(peer));
  }
  std::string_view record(strBuffer.data(), static_cast<size_t>(iBytes));
  if (!record.empty() && record.back() == '\n')
    record.remove_suffix(1);
  if (!Allowed(peer.uid))
    Refuse("user", peer.uid);
  else if (record.size() > m_uiMaxRecord || (message.msg_flags & MSG_TRUNC) != 0)
    Refuse("bytes", record.size());
  else
    chunks.Add(record);
  return true;
}

bool CSocketInput::ReadClient(int hClient, _Client& client, CChunks& chunks) {
  std::array<char, kReadBytes> buffer;
  const ssize_t iBytes = recv(hClient, buffer.data(), buffer.size(), 0);
  if (iBytes < 0)
    return errno == EAGAIN || errno == EINTR;
  const uint64_t u64Before = chunks.Records();
  bool bReadable = true;
  if (iBytes > 0)
    bReadable = client.framer.Feed({buffer.data(), static_cast<size_t>(iBytes)}, chunks);
  if (iBytes == 0)
    bReadable = client.framer.Finish(chunks);
  if (!bReadable)
    Refuse("framing", static_cast<uint64_t>(iBytes));
  client.u64Taken += chunks.Records() - u64Before;
  client.bEnd = iBytes == 0 || !bReadable;
  if (!client.bEnd)
    return true;
  epoll_ctl(m_hEpoll, EPOLL_CTL_DEL, hClient, nullptr);  // its end would be reported again and again
  return m_settings.bAck && client.u64Taken > client.u64Stored;
}

void CSocketInput::Committed() {
  if (!m_settings.bAck)
    return;
  std::vector<int> gone;
  for (auto& [hClient, client] : m_clients) {
    if (!Answer(hClient, client) || (client.bEnd && client.u64Stored == client.u64Taken))
      gone.push_back(hClient);
  }
  for (const int hClient : gone)
    CloseClient(hClient);
}

bool CSocketInput::Answer(int hClient, _Client& client) const {
  if (client.u64Stored == client.u64Taken)
    return true;
  const std::string strAnswer = "ok " + std::to_string(client.u64Taken) + "\n";
  const ssize_t iBytes = send(hClient, strAnswer.data(), strAnswer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (iBytes == static_cast<ssize_t>(strAnswer.size()))
    client.u64Stored = client.u64Taken;
  return iBytes == static_cast<ssize_t>(strAnswer.size()) || (iBytes < 0 && errno == EAGAIN);
}

void CSocketInput::CloseClient(int hClient) {
  m_clients.erase(hClient);
  close(hClient);
}

}  // namespace zxlogcache
