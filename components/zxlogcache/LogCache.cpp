#include "LogCache.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>

#include "platform/os/ZxFile.h"
#include "platform/os/ZxThread.h"
#include "platform/os/ZxTime.h"

namespace zxlogcache {
namespace {

constexpr uint32_t kLogCacheType = 20002;
constexpr uint32_t kResultType = 20003;
constexpr uint32_t kSendTimeoutMs = 60000;
constexpr char kAgentGuid[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";
// The result record: 4 bytes zero, result, data id, 16 bytes zero; little-endian.
constexpr size_t kResultBytes = 32;
constexpr size_t kResultAt = 4;
constexpr size_t kDataIdAt = 8;
constexpr uint64_t kLookMs = 2000;  // where notifications do not reach, for example on network file systems

bool Watch(int hEpoll, int hFd) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = hFd;
  return epoll_ctl(hEpoll, EPOLL_CTL_ADD, hFd, &event) == 0;
}

}  // namespace

CLogCache::CLogCache()
    : CComponent(kGuid, "zxlogforward", {kResultType}),
      m_guidAgent(kAgentGuid),
      m_hWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

CLogCache::~CLogCache() {
  OnStop();
  if (m_hWake >= 0)
    close(m_hWake);
}

bool CLogCache::OnStart() {
  CPString strText;
  std::string strError;
  const CPString strFile(Home() + "etc/zxlogcache.json");
  if (!ZxReadFileText(strFile, strText))
    return LogWarnTo(Log(), "*zxlogforward cannot read its configuration strFile[%s] Error[%d]", strFile,
                     errno) != 0;
  if (!ParseSettings(strText.View(), Folder(), RunDir("zxlogcache"), m_settings, strError))
    return LogWarnTo(Log(), "*zxlogforward configuration strFile[%s] error[%s]", strFile, strError) != 0;
  m_hEpoll = epoll_create1(EPOLL_CLOEXEC);
  m_hInputs = epoll_create1(EPOLL_CLOEXEC);
  m_hNotify = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (m_hWake < 0 || m_hEpoll < 0 || m_hInputs < 0 || !Watch(m_hEpoll, m_hWake) ||
      !Watch(m_hEpoll, m_hInputs) || (m_hNotify >= 0 && !Watch(m_hEpoll, m_hNotify))) {
    LogWarnTo(Log(), "*zxlogforward cannot start Error[%d]", errno);
    OnStop();
    return false;
  }
  m_pForward = std::make_unique<CForward>(
      m_settings,
      [this](const _SourceSettings& source, uint64_t u64DataId, const std::string& strBody) {
        unsigned long long ui64ACT = 0;
        const std::string strCache = CacheText(source, u64DataId, strBody);
        return Bus()->AsynSendEx(&m_guidAgent, kLogCacheType, strCache.data(),
                                 static_cast<uint32_t>(strCache.size()), this,
                                 reinterpret_cast<void*>(u64DataId), &ui64ACT, kSendTimeoutMs);
      },
      Log(), static_cast<uint32_t>(ZxGetTickCount()) ^ static_cast<uint32_t>(getpid()));
  m_bStop = false;
  m_thread = std::thread(&CLogCache::Run, this);
  return true;
}

void CLogCache::OnStop() {
  if (m_thread.joinable()) {
    m_bStop = true;
    Wake();
    m_thread.join();
  }
  for (int* phFd : {&m_hEpoll, &m_hInputs, &m_hNotify}) {
    if (*phFd >= 0)
      close(*phFd);
    *phFd = -1;
  }
}

void CLogCache::OnMessage(const GUID& sender, uint32_t, std::string_view data, const CBaton& baton) {
  if (sender != m_guidAgent || data.size() < kResultBytes) {
    LogWarnTo(Log(), "*zxlogforward refused: no upload result from[%s] bytes[%llu]", sender.ToUpper(),
              data.size());
    baton.Reply(sender != m_guidAgent ? kComponentErrSender : kComponentErrText, {});
    return;
  }
  _Event event;
  event.bResult = true;
  std::memcpy(&event.uiStatus, data.data() + kResultAt, sizeof(event.uiStatus));
  std::memcpy(&event.u64DataId, data.data() + kDataIdAt, sizeof(event.u64DataId));
  Put(event);
  baton.Reply(0, {});
}

void CLogCache::SendCallback(unsigned int iRetReply, long, const unsigned char*, unsigned int,
                             unsigned long long, void* pContext) {
  Put({reinterpret_cast<uint64_t>(pContext), iRetReply, false});
}

void CLogCache::Put(const _Event& event) {
  {
    const std::lock_guard lock(m_mutex);
    m_events.push_back(event);
  }
  Wake();
}

void CLogCache::Wake() const {
  const uint64_t u64One = 1;
  (void)!write(m_hWake, &u64One, sizeof(u64One));  // a full counter wakes as well
}

void CLogCache::Run() {
  ZxSetThreadName("zxlogforward");
  m_bPaused = false;
  while (!m_bStop) {
    const uint64_t u64NowMs = ZxGetTickCount();
    try {
      Turn(u64NowMs);
    } catch (const std::exception& e) {  // out of memory; what was read and not stored is still there
      LogErrorTo(Log(), "**zxlogforward what[%s], goes on", e.what());
      m_store.Rollback();
      m_pForward->RolledBack();
      m_u64NextLookMs = u64NowMs + kLookMs;
    }
    Wait(u64NowMs);
  }
  m_sources.clear();
  m_store.Close();
}

void CLogCache::Turn(uint64_t u64NowMs) {
  TakeEvents(u64NowMs);
  if (m_store.IsOpen() || OpenStore()) {
    if (u64NowMs >= m_u64NextLookMs) {
      OpenSockets();
      m_bLookAtFiles = true;
      m_u64NextLookMs = u64NowMs + kLookMs;
    }
    ReadInputs(u64NowMs);
    if (HasWork(u64NowMs))
      Store(u64NowMs);
    for (const auto& pSource : m_sources) {
      for (const auto& pSocket : pSource->sockets) {
        if (pSource->chunks.Bytes() == 0)
          pSocket->Committed();
      }
    }
    m_pForward->Send(m_store, u64NowMs);
  }
  WriteStatus(u64NowMs);
}

void CLogCache::Wait(uint64_t u64NowMs) {
  uint64_t u64Next = m_u64NextLookMs;
  if (!m_store.IsOpen() || m_bStoreSick)
    u64Next = m_bCanLetGo ? std::min(m_u64RetryStoreMs, m_pForward->NextMs(u64NowMs)) : m_u64RetryStoreMs;
  else if (m_bMoreFiles && !m_bPaused)
    u64Next = 0;
  else
    u64Next =
        std::min({u64Next, m_pForward->NextMs(u64NowMs), m_bStatusDue ? m_u64NextStatusMs : UINT64_MAX});
  const uint64_t u64Wait = u64Next > u64NowMs ? std::min<uint64_t>(u64Next - u64NowMs, kLookMs) : 0;
  std::array<epoll_event, 4> events{};
  const int iCount =
      epoll_wait(m_hEpoll, events.data(), static_cast<int>(events.size()), static_cast<int>(u64Wait));
  for (int i = 0; i < iCount; ++i) {
    const int hFd = events[static_cast<size_t>(i)].data.fd;
    alignas(inotify_event) std::array<char, 4096> buffer;
    if (hFd == m_hWake)
      (void)!read(hFd, buffer.data(), sizeof(uint64_t));
    if (hFd == m_hNotify) {
      while (read(hFd, buffer.data(), buffer.size()) > 0) {
      }
      m_bLookAtFiles = true;
    }
  }
}

void CLogCache::TakeEvents(uint64_t u64NowMs) {
  std::vector<_Event> events;
  {
    const std::lock_guard lock(m_mutex);
    events.swap(m_events);
  }
  for (const _Event& event : events) {
    if (event.bResult)
      m_pForward->OnResult(event.u64DataId, static_cast<int32_t>(event.uiStatus), u64NowMs);
    else
      m_pForward->OnReply(event.u64DataId, event.uiStatus, u64NowMs);
  }
}

}  // namespace zxlogcache
