#include "platform/bus/BusWire.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/bus/BusCarrier.h"
#include "platform/bus/BusClock.h"
#include "platform/bus/BusErrors.h"
#include "platform/bus/BusNames.h"
#include "platform/bus/zxbus.h"

namespace {

constexpr uint64_t kFirstPauseNs = 50 * kBusNsPerMs;
constexpr uint64_t kLongestPauseNs = 2 * kBusNsPerSecond;
constexpr uint64_t kSetupNs = 5 * kBusNsPerSecond;  // from connecting to the granted name
constexpr int kMessagesPerTurn = 64;                // then the other connections have their turn
constexpr uint64_t kNoTimeout = UINT64_MAX;

// Answers of RequestName.
constexpr uint32_t kNamePrimaryOwner = 1;
constexpr uint32_t kNameAlreadyOwner = 4;

CBusWire* Self(void* pSelf) {
  return static_cast<CBusWire*>(pSelf);
}

}  // namespace

CBusWire::CBusWire(CBusCarrier& carrier, std::string strAddress, std::string strOwnName)
    : m_carrier(carrier), m_strAddress(std::move(strAddress)), m_strOwnName(std::move(strOwnName)) {}

CBusWire::~CBusWire() {
  if (m_pBus != nullptr)
    sd_bus_close_unref(m_pBus);
}

void CBusWire::Turn(uint64_t u64NowNs) {
  if (m_bEnded)
    return;
  m_turn.Take();
  TurnHeld(u64NowNs);
  Publish(true);
  GiveTurn();
}

void CBusWire::TurnHeld(uint64_t u64NowNs) {
  if (m_bStop.load()) {
    End("stopped");
    return;
  }
  if (m_pBus == nullptr && u64NowNs >= m_u64RetryNs)
    Open(u64NowNs);
  Work(u64NowNs);
  if (Process(kMessagesPerTurn) && m_eServe.load() == EServe::No)
    m_carrier.Ready(shared_from_this());
  if (m_pBus != nullptr && u64NowNs >= m_u64SetupDueNs)
    Fail("the daemon does not answer");
  if (m_pBus != nullptr && !m_strFailure.empty())
    Shut(std::exchange(m_strFailure, std::string()).c_str());
  if (m_pBus == nullptr)
    return;
  Work(u64NowNs);
  if (m_pBus != nullptr)
    Watch();
}

// True: so many were there, and there may be more.
bool CBusWire::Process(int iMost) {
  for (; m_pBus != nullptr && m_strFailure.empty(); --iMost) {
    if (iMost == 0)
      return true;
    const int iResult = sd_bus_process(m_pBus, nullptr);
    if (iResult < 0 || sd_bus_is_open(m_pBus) <= 0)
      Fail(iResult < 0 ? std::strerror(-iResult) : "the daemon closed the connection");
    if (iResult <= 0)
      break;
  }
  return false;
}

// The I/O thread sleeps until the time that was published last. What it works out itself is exact; others
// only ever bring it forward, and wake it then.
void CBusWire::Publish(bool bExact) {
  uint64_t u64DueNs = kNever;
  if (!m_bEnded && m_pBus == nullptr) {
    u64DueNs = std::min(m_u64RetryNs, WorkDueNs());
  } else if (!m_bEnded) {
    uint64_t u64Us = UINT64_MAX;
    if (sd_bus_get_timeout(m_pBus, &u64Us) < 0 || u64Us > UINT64_MAX / 1000)
      u64Us = UINT64_MAX / 1000;
    u64DueNs = std::min({u64Us * 1000, m_u64SetupDueNs, WorkDueNs()});
  }
  if (bExact) {
    m_u64DueNs.store(u64DueNs);
  } else if (u64DueNs < m_u64DueNs.load()) {
    m_u64DueNs.store(u64DueNs);
    m_carrier.Ready(shared_from_this());
  }
}

void CBusWire::Stop() {
  m_bStop.store(true);
  m_carrier.Ready(shared_from_this());
}

bool CBusWire::HasPeer(const GUID& guid) {
  CCritLock lock(m_cs);
  return m_owners.Has(guid);
}

std::vector<std::pair<GUID, std::string>> CBusWire::Peers() {
  CCritLock lock(m_cs);
  return m_owners.All();
}

bool CBusWire::CanWrite() const {
  uint64_t u64Queued = 0;
  return m_pBus != nullptr && sd_bus_get_n_queued_write(m_pBus, &u64Queued) >= 0 && u64Queued == 0;
}

void CBusWire::Open(uint64_t u64NowNs) {
  m_u64PauseNs = std::clamp(m_u64PauseNs * 2, kFirstPauseNs, kLongestPauseNs);
  m_u64SetupDueNs = u64NowNs + kSetupNs;
  const int iResult = Begin();
  if (iResult < 0)
    Shut(std::strerror(-iResult));
}

int CBusWire::Begin() {
  int iResult = sd_bus_new(&m_pBus);
  if (iResult < 0 || (iResult = sd_bus_set_address(m_pBus, m_strAddress.c_str())) < 0 ||
      (iResult = sd_bus_set_bus_client(m_pBus, 1)) < 0 || (iResult = sd_bus_negotiate_fds(m_pBus, 0)) < 0 ||
      (iResult = sd_bus_start(m_pBus)) < 0)
    return iResult;
  m_iFd = sd_bus_get_fd(m_pBus);
  if (m_iFd < 0)
    return std::exchange(m_iFd, -1);
  m_uiEvents = EPOLLIN | EPOLLOUT;
  if (!m_carrier.AddFd(m_iFd, m_uiEvents, this)) {
    m_iFd = -1;
    return -errno;
  }
  // First the subscription, then the question: no owner can slip through between them.
  const std::string strMatch = std::string("type='signal',sender='") + kDaemonName + "',interface='" +
                               kDaemonInterface + "',member='NameOwnerChanged',arg0namespace='" +
                               kBusNameSpace + "'";
  if ((iResult = sd_bus_add_match_async(m_pBus, nullptr, strMatch.c_str(), &OnOwnerChanged, &OnMatchAdded,
                                        this)) < 0 ||
      (iResult = OnOpened()) < 0)
    return iResult;
  return Call(kDaemonName, kDaemonPath, kDaemonInterface, "ListNames", &OnNames, nullptr, nullptr);
}

int CBusWire::Call(const char* pszDestination, const char* pszPath, const char* pszInterface,
                   const char* pszMember, sd_bus_message_handler_t pfnReply, uint64_t* pu64Serial,
                   const char* pszText) {
  sd_bus_message* pRaw = nullptr;
  int iResult =
      sd_bus_message_new_method_call(m_pBus, &pRaw, pszDestination, pszPath, pszInterface, pszMember);
  const TBusMessage message(pRaw);
  if (iResult < 0 || (pszText != nullptr && (iResult = sd_bus_message_append(pRaw, "s", pszText)) < 0))
    return iResult;
  iResult = sd_bus_call_async(m_pBus, nullptr, pRaw, pfnReply, this, kNoTimeout);
  if (iResult >= 0 && pu64Serial != nullptr)
    sd_bus_message_get_cookie(pRaw, pu64Serial);
  return iResult;
}

void CBusWire::Watch() {
  const int iEvents = sd_bus_get_events(m_pBus);
  const uint32_t uiEvents = (m_eServe.load() == EServe::No ? EPOLLIN : 0u) |
                            (iEvents >= 0 && (iEvents & EPOLLOUT) != 0 ? EPOLLOUT : 0u);
  if (uiEvents == m_uiEvents)
    return;
  m_uiEvents = uiEvents;
  m_carrier.ChangeFd(m_iFd, uiEvents, this);
}

void CBusWire::Fail(const char* pszReason) {
  if (m_strFailure.empty())
    m_strFailure = pszReason;
}

void CBusWire::Shut(const char* pszReason) {
  m_bReady = false;
  m_asked.clear();
  m_strFailure.clear();
  m_u64SetupDueNs = kNever;
  m_u64RetryNs = BusNowNs() + m_u64PauseNs;
  m_bMayServe.store(false);
  m_eServe.store(EServe::No);
  {
    CCritLock lock(m_cs);
    m_owners.Clear();
  }
  OnLost(pszReason);
  if (m_iFd >= 0)
    m_carrier.RemoveFd(std::exchange(m_iFd, -1));
  if (m_pBus != nullptr)
    sd_bus_close_unref(std::exchange(m_pBus, nullptr));
  OnUnserved();  // a thread that waits for it would keep the socket open
}

void CBusWire::End(const char* pszReason) {
  m_bEnded = true;
  Shut(pszReason);
}

int CBusWire::OnMatchAdded(sd_bus_message* pMessage, void* pSelf, sd_bus_error*) {
  if (const sd_bus_error* pError = sd_bus_message_get_error(pMessage))
    Self(pSelf)->Fail(pError->message != nullptr ? pError->message : pError->name);
  return 1;
}

int CBusWire::OnNames(sd_bus_message* pMessage, void* pSelf, sd_bus_error*) {
  CBusWire& self = *Self(pSelf);
  if (const sd_bus_error* pError = sd_bus_message_get_error(pMessage)) {
    self.Fail(pError->message != nullptr ? pError->message : pError->name);
    return 1;
  }
  if (sd_bus_message_enter_container(pMessage, 'a', "s") < 0) {
    self.Fail("the daemon's list of names cannot be read");
    return 1;
  }
  const char* pszName = nullptr;
  while (sd_bus_message_read(pMessage, "s", &pszName) > 0) {
    GUID guid;
    uint64_t u64Serial = 0;
    if (!GuidOfBusName(pszName, guid))
      continue;
    if (self.Call(kDaemonName, kDaemonPath, kDaemonInterface, "GetNameOwner", &OnOwner, &u64Serial, pszName) <
        0) {
      self.Fail("the owners of the names cannot be asked for");
      return 1;
    }
    self.m_asked.emplace(u64Serial, guid);
  }
  if (self.m_asked.empty())
    self.AskName();
  return 1;
}

int CBusWire::OnOwner(sd_bus_message* pMessage, void* pSelf, sd_bus_error*) {
  CBusWire& self = *Self(pSelf);
  uint64_t u64Serial = 0;
  sd_bus_message_get_reply_cookie(pMessage, &u64Serial);
  const auto it = self.m_asked.find(u64Serial);
  if (it == self.m_asked.end())
    return 1;
  const char* pszOwner = nullptr;
  if (sd_bus_message_is_method_error(pMessage, nullptr) == 0 &&
      sd_bus_message_read(pMessage, "s", &pszOwner) > 0)
    self.SetOwner(it->second, pszOwner);
  self.m_asked.erase(it);
  if (self.m_asked.empty())
    self.AskName();
  return 1;
}

int CBusWire::OnOwnerChanged(sd_bus_message* pMessage, void* pSelf, sd_bus_error*) {
  const char* pszName = nullptr;
  const char* pszOld = nullptr;
  const char* pszNew = nullptr;
  const char* pszSender = sd_bus_message_get_sender(pMessage);
  GUID guid;
  if (pszSender == nullptr || std::strcmp(pszSender, kDaemonName) != 0 ||
      sd_bus_message_read(pMessage, "sss", &pszName, &pszOld, &pszNew) <= 0 || !GuidOfBusName(pszName, guid))
    return 0;
  Self(pSelf)->SetOwner(guid, pszNew);
  if (*pszOld != 0)
    Self(pSelf)->OnOwnerGone(pszOld);
  return 0;
}

void CBusWire::SetOwner(const GUID& guid, const char* pszOwner) {
  {
    CCritLock lock(m_cs);
    m_owners.Set(guid, pszOwner);
  }
  if (*pszOwner != 0)
    OnOwnerNew(pszOwner);
}

void CBusWire::AskName() {
  int iResult = 0;
  if (m_strOwnName.empty()) {
    m_bReady = true;
    m_u64PauseNs = 0;
    m_u64SetupDueNs = kNever;
    OnReady();
  } else if ((iResult = sd_bus_request_name_async(m_pBus, nullptr, m_strOwnName.c_str(), 0, &OnNameAnswer,
                                                  this)) < 0) {
    Fail(std::strerror(-iResult));
  }
}

int CBusWire::OnNameAnswer(sd_bus_message* pMessage, void* pSelf, sd_bus_error*) {
  CBusWire& self = *Self(pSelf);
  uint32_t uiAnswer = 0;
  if (sd_bus_message_is_method_error(pMessage, nullptr) == 0)
    sd_bus_message_read(pMessage, "u", &uiAnswer);
  if (uiAnswer == kNamePrimaryOwner || uiAnswer == kNameAlreadyOwner) {
    self.m_bReady = true;
    self.m_u64PauseNs = 0;
    self.m_u64SetupDueNs = kNever;
    self.OnReady();
    return 1;
  }
  uint32_t uiResult = kBusErrTaken;
  if (const sd_bus_error* pError = sd_bus_message_get_error(pMessage))
    uiResult = BusResultOfError(pError->name);
  self.m_u64PauseNs = kLongestPauseNs;
  self.OnRefused(uiResult);
  self.Fail(TextOfBusResult(uiResult));
  return 1;
}

void CBusWire::ReleaseName(sd_bus_message_handler_t pfnReleased) {
  if (sd_bus_release_name_async(m_pBus, nullptr, m_strOwnName.c_str(), pfnReleased, this) < 0)
    Fail("the name cannot be given back");
}
