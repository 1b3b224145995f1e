#include "platform/bus/BusCarrier.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <utility>

#include "platform/bus/BusClock.h"
#include "platform/bus/BusEndpoint.h"
#include "platform/bus/BusRouter.h"
#include "platform/os/ZxThread.h"

namespace {

CZxThreadGroup g_threads;

constexpr uint32_t kDefaultTimeoutMs = 5000;
constexpr size_t kDefaultSendBytes = 16u << 20;
constexpr int kEventsPerWait = 32;
// How long a component's dispatcher may be busy before the I/O thread reads its connection. The longer one is
// for dispatchers that always came back in time.
constexpr uint64_t kSweepNs = 5 * kBusNsPerMs;
constexpr uint64_t kLongestSweepNs = 20 * kBusNsPerMs;

}  // namespace

CBusCarrier& CBusCarrier::Instance() {
  static CBusCarrier* s_pCarrier = new CBusCarrier;
  return *s_pCarrier;
}

CBusCarrier::CBusCarrier() : m_u64SweepNs(kSweepNs) {
  pthread_cond_init(&m_cond, nullptr);
}

uint32_t CBusCarrier::Connect(const ZxBusConnectSettings& settings) {
  std::shared_ptr<CBusControl> pControl;
  {
    CCritLock lock(m_cs);
    if (m_eState != EState::Off)
      return kBusErrInvalid;
    m_eState = EState::Starting;
  }
  const bool bStarted = StartThreads();
  {
    CCritLock lock(m_cs);
    if (!bStarted) {
      m_eState = EState::Off;
      return kBusErrBusy;
    }
    m_strAddress = settings.pszAddress;
    m_uiTimeoutMs = settings.uiTimeoutMs != 0 ? settings.uiTimeoutMs : kDefaultTimeoutMs;
    m_uMaxSendBytes = settings.uiMaxSendBytes != 0 ? settings.uiMaxSendBytes : kDefaultSendBytes;
    m_pfnState = settings.pfnState;
    m_pStateContext = settings.pContext;
    m_bConnected = false;
    m_strLastError.clear();
    pControl = m_pControl = std::make_shared<CBusControl>(*this, m_strAddress, m_pfnHost != nullptr);
    m_eState = EState::On;
  }
  StartWire(pControl);
  for (const auto& [guid, pEndpoint] : CBusRouter::Instance().All())
    MakeLink(pEndpoint, guid);
  const uint32_t uiTimeoutMs = settings.uiTimeoutMs != 0 ? settings.uiTimeoutMs : kDefaultTimeoutMs;
  return WaitConnected(uiTimeoutMs) ? 0 : uint32_t{kBusErrGone};
}

bool CBusCarrier::StartThreads() {
  if (m_iEpoll < 0)
    m_iEpoll = epoll_create1(EPOLL_CLOEXEC);
  if (m_iEvent < 0)
    m_iEvent = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (m_iTimer < 0)
    m_iTimer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  const auto add = [&](int iFd, void* pTag) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = pTag;
    return epoll_ctl(m_iEpoll, EPOLL_CTL_ADD, iFd, &event) == 0 || errno == EEXIST;
  };
  if (m_iEpoll < 0 || m_iEvent < 0 || m_iTimer < 0 || !add(m_iEvent, nullptr) || !add(m_iTimer, &m_iTimer) ||
      !m_helper.Start())
    return false;
  {
    CCritLock lock(m_csReady);
    m_bStopIo = false;
    m_ready.clear();
  }
  if (g_threads.Create(&m_hIo, &IoEntry, this) == 0)
    return true;
  m_helper.Stop();
  return false;
}

void CBusCarrier::Disconnect() {
  std::shared_ptr<CBusControl> pControl;
  std::vector<std::pair<std::shared_ptr<CBusEndpoint>, std::shared_ptr<CBusLink>>> links;
  {
    CCritLock lock(m_cs);
    if (m_eState != EState::On)
      return;
    m_eState = EState::Stopping;
    links.swap(m_links);
    pControl = std::move(m_pControl);
  }
  for (const auto& [pEndpoint, pLink] : links) {
    pEndpoint->DetachLink();
    pLink->Close(false);
  }
  for (const auto& [pEndpoint, pLink] : links)
    pLink->Close(true);
  {
    CCritLock lock(m_csReady);
    m_bStopIo = true;
  }
  pControl->Stop();  // which wakes the thread
  pthread_join(m_hIo, nullptr);
  m_helper.Stop();
  CCritLock lock(m_cs);
  m_bConnected = false;
  m_pfnState = nullptr;
  m_eState = EState::Off;
}

std::shared_ptr<CBusLink> CBusCarrier::MakeLink(const std::shared_ptr<CBusEndpoint>& pEndpoint,
                                                const GUID& guid) {
  std::shared_ptr<CBusLink> pLink;
  {
    CCritLock lock(m_cs);
    if (m_eState != EState::On)
      return nullptr;
    pLink = std::make_shared<CBusLink>(*this, m_strAddress, guid, pEndpoint, m_uMaxSendBytes);
    std::erase_if(m_links, [](const auto& entry) { return entry.second->IsClosing(); });
    m_links.emplace_back(pEndpoint, pLink);
  }
  if (!pEndpoint->AttachLink(pLink)) {
    CCritLock lock(m_cs);
    std::erase_if(m_links, [&](const auto& entry) { return entry.second == pLink; });
    return nullptr;
  }
  if (pLink->IsClosing())  // disconnected meanwhile
    pEndpoint->DetachLink();
  StartWire(pLink);
  return pLink;
}

uint32_t CBusCarrier::Attach(const std::shared_ptr<CBusEndpoint>& pEndpoint, const GUID& guid) {
  const std::shared_ptr<CBusLink> pLink = MakeLink(pEndpoint, guid);
  if (pLink == nullptr)
    return 0;
  uint32_t uiTimeoutMs = 0;
  {
    CCritLock lock(m_cs);
    uiTimeoutMs = m_uiTimeoutMs;
  }
  const uint32_t uiResult = pLink->WaitOutcome(uiTimeoutMs);
  return uiResult == kBusErrGone ? 0 : uiResult;
}

bool CBusCarrier::WaitConnected(uint32_t uiTimeoutMs) {
  const uint64_t u64DueNs = BusNowNs() + uiTimeoutMs * kBusNsPerMs;
  const timespec ts{static_cast<time_t>(u64DueNs / kBusNsPerSecond),
                    static_cast<long>(u64DueNs % kBusNsPerSecond)};
  CCritLock lock(m_cs);
  while (!m_bConnected) {
    if (pthread_cond_clockwait(&m_cond, m_cs.Native(), CLOCK_MONOTONIC, &ts) != 0)
      return m_bConnected;
  }
  return true;
}

void CBusCarrier::SetConnected(bool bConnected, const char* pszText) {
  {
    CCritLock lock(m_cs);
    m_bConnected = bConnected;
    if (!bConnected) {
      ++m_u64Losses;
      m_strLastError = pszText;
    }
    pthread_cond_broadcast(&m_cond);
  }
  Report(bConnected ? kBusStateConnected : kBusStateLost, pszText);
}

void CBusCarrier::Report(uint32_t uiState, const std::string& strText) {
  m_helper.Post([this, uiState, strText] {
    PfnZxBusState pfnState = nullptr;
    void* pContext = nullptr;
    {
      CCritLock lock(m_cs);
      if (uiState == kBusStateRefused)
        m_strLastError = strText;
      pfnState = m_pfnState;
      pContext = m_pStateContext;
    }
    if (pfnState != nullptr)
      pfnState(uiState, strText.c_str(), pContext);
  });
}

void CBusCarrier::Ready(std::shared_ptr<CBusWire> pWire) {
  bool bWake = false;
  {
    CCritLock lock(m_csReady);
    bWake = m_ready.empty();
    m_ready.push_back(std::move(pWire));
  }
  if (bWake)
    eventfd_write(m_iEvent, 1);
}

void CBusCarrier::ScheduleSweep() {
  if (!m_bSweepDue.load() && !m_bSweepDue.exchange(true))
    SetSweepTimer();
}

void CBusCarrier::SetSweepTimer() const {
  itimerspec due{};
  due.it_value.tv_nsec = static_cast<long>(m_u64SweepNs.load());
  timerfd_settime(m_iTimer, 0, &due, nullptr);
}

void CBusCarrier::Sweep() {
  eventfd_t count = 0;
  eventfd_read(m_iTimer, &count);
  m_bSweepDue.store(false);  // first: who goes away from here on asks again
  bool bAgain = false;
  bool bLively = false;
  for (const auto& pWire : m_wires) {
    const CBusWire::ESweep eSweep = pWire->Sweep();
    bAgain = bAgain || eSweep == CBusWire::ESweep::Again;
    bLively = bLively || eSweep != CBusWire::ESweep::Quiet;
  }
  m_u64SweepNs.store(bLively ? std::min(2 * m_u64SweepNs.load(), kLongestSweepNs) : kSweepNs);
  if (bAgain)
    ScheduleSweep();
}

bool CBusCarrier::AddFd(int iFd, uint32_t uiEvents, CBusWire* pWire) const {
  epoll_event event{};
  event.events = uiEvents;
  event.data.ptr = pWire;
  return epoll_ctl(m_iEpoll, EPOLL_CTL_ADD, iFd, &event) == 0;
}

void CBusCarrier::ChangeFd(int iFd, uint32_t uiEvents, CBusWire* pWire) const {
  epoll_event event{};
  event.events = uiEvents;
  event.data.ptr = pWire;
  epoll_ctl(m_iEpoll, EPOLL_CTL_MOD, iFd, &event);
}

void CBusCarrier::RemoveFd(int iFd) const {
  epoll_ctl(m_iEpoll, EPOLL_CTL_DEL, iFd, nullptr);
}

void* CBusCarrier::IoEntry(void* pSelf) {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  ZxSetThreadName("zxbusio");
  static_cast<CBusCarrier*>(pSelf)->Io();
  return nullptr;
}

void CBusCarrier::Io() {
  epoll_event events[kEventsPerWait];
  for (;;) {
    const int iCount = epoll_wait(m_iEpoll, events, kEventsPerWait, WaitMs());
    const uint64_t u64NowNs = BusNowNs();
    for (int i = 0; i < iCount; ++i) {
      if (events[i].data.ptr == &m_iTimer) {
        Sweep();
        continue;
      }
      if (events[i].data.ptr != nullptr) {
        static_cast<CBusWire*>(events[i].data.ptr)->Turn(u64NowNs);
        continue;
      }
      eventfd_t count = 0;
      eventfd_read(m_iEvent, &count);
    }
    TurnReady();
    TurnDue();
    DropEnded();
    CCritLock lock(m_csReady);
    if (m_bStopIo && m_wires.empty() && m_ready.empty())
      return;
  }
}

int CBusCarrier::WaitMs() {
  uint64_t u64DueNs = CBusWire::kNever;
  for (const auto& pWire : m_wires)
    u64DueNs = std::min(u64DueNs, pWire->NextNs());
  if (u64DueNs == CBusWire::kNever)
    return -1;
  const uint64_t u64NowNs = BusNowNs();
  if (u64DueNs <= u64NowNs)
    return 0;
  return static_cast<int>(std::min<uint64_t>((u64DueNs - u64NowNs) / kBusNsPerMs + 1, 60000));
}

void CBusCarrier::TurnReady() {
  std::vector<std::shared_ptr<CBusWire>> ready;
  {
    CCritLock lock(m_csReady);
    ready.swap(m_ready);
  }
  for (auto& pWire : ready) {
    if (!pWire->HasEnded() && std::find(m_wires.begin(), m_wires.end(), pWire) == m_wires.end())
      m_wires.push_back(pWire);
    pWire->Turn(BusNowNs());
  }
}

void CBusCarrier::TurnDue() {
  const uint64_t u64NowNs = BusNowNs();
  for (const auto& pWire : m_wires) {
    if (pWire->NextNs() <= u64NowNs)
      pWire->Turn(u64NowNs);
  }
}

void CBusCarrier::DropEnded() {
  std::erase_if(m_wires, [](const auto& pWire) { return pWire->HasEnded(); });
}
