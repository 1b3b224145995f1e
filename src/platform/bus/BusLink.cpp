#include "platform/bus/BusLink.h"

#include <exception>
#include <utility>

#include "platform/bus/BusCarrier.h"
#include "platform/bus/BusClock.h"
#include "platform/bus/BusEndpoint.h"
#include "platform/bus/BusErrors.h"
#include "platform/bus/BusNames.h"
#include "platform/bus/zxbus.h"

namespace {

constexpr uint64_t kCloseNs = kBusNsPerSecond;  // for what is queued and for giving the name back
constexpr uint64_t kSyncNs = kBusNsPerSecond;

timespec DueAt(uint64_t u64DueNs) {
  return {static_cast<time_t>(u64DueNs / kBusNsPerSecond), static_cast<long>(u64DueNs % kBusNsPerSecond)};
}

}  // namespace

void CBusLink::CCalls::Add(CBusRef<CBusCall> call) {
  CBusCall* pCall = call.Detach();
  pCall->pNextRemote = nullptr;
  pCall->pPrevRemote = m_pTail;
  (m_pTail != nullptr ? m_pTail->pNextRemote : m_pHead) = pCall;
  m_pTail = pCall;
  ++m_uCount;
}

CBusRef<CBusCall> CBusLink::CCalls::Remove(CBusCall& call) {
  (call.pPrevRemote != nullptr ? call.pPrevRemote->pNextRemote : m_pHead) = call.pNextRemote;
  (call.pNextRemote != nullptr ? call.pNextRemote->pPrevRemote : m_pTail) = call.pPrevRemote;
  --m_uCount;
  return CBusRef<CBusCall>(&call);
}

CBusLink::CBusLink(CBusCarrier& carrier, const std::string& strAddress, const GUID& guid,
                   std::shared_ptr<CBusEndpoint> pEndpoint, size_t uMaxBytes)
    : CBusWire(carrier, strAddress, BusNameOf(guid)),
      m_guid(guid),
      m_pEndpoint(std::move(pEndpoint)),
      m_uMaxBytes(uMaxBytes) {
  pthread_cond_init(&m_condState, nullptr);
}

CBusLink::~CBusLink() {
  pthread_cond_destroy(&m_condState);
}

uint32_t CBusLink::WaitOutcome(uint32_t uiTimeoutMs) {
  const timespec ts = DueAt(BusNowNs() + uiTimeoutMs * kBusNsPerMs);
  CCritLock lock(m_cs);
  while (!m_bUp && m_uiRefused == 0 && !m_bClosed) {
    if (pthread_cond_clockwait(&m_condState, m_cs.Native(), CLOCK_MONOTONIC, &ts) != 0)
      return kBusErrGone;
  }
  return m_bUp ? 0 : m_uiRefused != 0 ? m_uiRefused : uint32_t{kBusErrGone};
}

void CBusLink::TypesChanged(bool bWait) {
  uint64_t u64Asked = 0;
  {
    CCritLock lock(m_cs);
    u64Asked = ++m_u64TypesAsked;
  }
  Kick();
  if (!bWait)
    return;
  const timespec ts = DueAt(BusNowNs() + kSyncNs);
  CCritLock lock(m_cs);
  while (m_bUp && m_u64TypesKnown < u64Asked &&
         pthread_cond_clockwait(&m_condState, m_cs.Native(), CLOCK_MONOTONIC, &ts) == 0) {
  }
}

void CBusLink::Close(bool bWait) {
  m_bClosing.store(true);
  Kick();
  if (!bWait)
    return;
  const timespec ts = DueAt(BusNowNs() + 5 * kCloseNs);
  CCritLock lock(m_cs);
  while (!m_bClosed && pthread_cond_clockwait(&m_condState, m_cs.Native(), CLOCK_MONOTONIC, &ts) == 0) {
  }
}

CBusLink::_State CBusLink::State() {
  CCritLock lock(m_cs);
  return {m_bUp, m_uiRefused, m_uQueuedBytes, m_strUniqueName};
}

void CBusLink::Kick() {
  m_carrier.Ready(shared_from_this());
}

int CBusLink::OnOpened() {
  int iResult = sd_bus_add_filter(Bus(), nullptr, &CBusLink::OnMessage, this);
  if (iResult < 0 || (iResult = sd_bus_add_fallback_vtable(Bus(), nullptr, kBusTypeRoot, kBusInterface,
                                                           Vtable(), &CBusLink::FindObject, this)) < 0)
    return iResult;
  m_bTypesStale = true;
  SyncTypes();
  return sd_bus_add_node_enumerator(Bus(), nullptr, kBusTypeRoot, &CBusLink::ListObjects, this);
}

void CBusLink::OnReady() {
  const char* pszUnique = nullptr;
  sd_bus_get_unique_name(Bus(), &pszUnique);
  m_figures.u64Connects.fetch_add(1, std::memory_order_relaxed);
  {
    CCritLock lock(m_cs);
    m_bUp = true;
    m_uiRefused = 0;
    m_strUniqueName = pszUnique != nullptr ? pszUnique : "";
    pthread_cond_broadcast(&m_condState);
  }
  MayServe(!m_bClosing.load());
}

void CBusLink::OnRefused(uint32_t uiResult) {
  bool bNew = false;
  {
    CCritLock lock(m_cs);
    bNew = m_uiRefused != uiResult;
    m_uiRefused = uiResult;
    pthread_cond_broadcast(&m_condState);
  }
  if (bNew)
    m_carrier.Report(kBusStateRefused,
                     std::string(m_guid.ToUpper().c_str()) + ": " + TextOfBusResult(uiResult));
}

void CBusLink::OnLost(const char*) {
  CBusQueue dropped;
  {
    CCritLock lock(m_cs);
    m_bUp = false;
    m_strUniqueName.clear();
    pthread_cond_broadcast(&m_condState);
    dropped.Append(m_ready);
    dropped.Append(m_queued);
    m_uOneWayQueued = 0;
  }
  m_uOneWay = 0;
  m_bPaced = false;
  m_u64PaceNs = kNever;
  for (auto& [uiType, pSlot] : m_matches)
    sd_bus_slot_unref(pSlot);
  m_matches.clear();
  m_uMatchesUnderWay = 0;
  for (auto& [guid, target] : m_targets)
    dropped.Append(target.waiting);
  while (CBusCall* pCall = m_flights.First()) {
    const CBusRef<CBusCall> call = m_flights.Remove(*pCall);
    call->bInFlight = false;
    EndCall(*call, kBusErrGone);
  }
  while (CBusCall* pCall = m_held.First()) {
    if (!pCall->bDone.exchange(true))
      m_pEndpoint->DropBaton(*pCall);
    Unhold(*pCall);
  }
  m_u64HeldDueNs = kNever;
  size_t uReleased = 0;
  while (CBusItem* pItem = dropped.Pop()) {
    if (pItem->eKind == CBusItem::EKind::Completion) {
      const CBusRef<CBusCall> call(static_cast<CBusCall*>(pItem));
      uReleased += call->pTarget.get() == this ? 0 : call->uiReplyLength;
      continue;
    }
    const std::unique_ptr<CBusMessage> pMessage(static_cast<CBusMessage*>(pItem));
    uReleased += Cost(pMessage->uiLength);
    if (pMessage->call)
      EndCall(*pMessage->call, kBusErrGone);
  }
  Released(uReleased);
  m_targets.clear();
}

void CBusLink::OnOwnerGone(const char* pszOwner) {
  DropHeldOf(pszOwner);
}

void CBusLink::Work(uint64_t u64NowNs) {
  const bool bClosing = m_bClosing.load();  // read first: what was queued before it is taken below
  if (bClosing) {
    MayServe(false);
    Unserve();
  }
  TakeQueued();
  if (Bus() != nullptr) {
    SyncTypes();
    WriteOut(Allowance(u64NowNs, bClosing));
    ExpireHeld(u64NowNs);
  }
  if (!bClosing)
    return;
  if (m_u64CloseDueNs == kNever)
    m_u64CloseDueNs = u64NowNs + kCloseNs;
  if (!IsReady() || m_bReleased || u64NowNs >= m_u64CloseDueNs) {
    End("the component left");
    Closed();
    return;
  }
  if (m_bReleasing)
    return;
  for (auto& [guid, target] : m_targets)
    DrainTarget(target);
  if (m_ready.IsEmpty() && CanWrite()) {
    m_bReleasing = true;
    ReleaseName(&OnReleased);
  }
}

void CBusLink::OnUnserved() {
  m_pEndpoint->Interrupt();
}

uint64_t CBusLink::WorkDueNs() {
  if (const CBusCall* pFirst = m_held.First())
    m_u64HeldDueNs = std::min(m_u64HeldDueNs, pFirst->u64DeadlineNs);
  return std::min({m_u64CloseDueNs, m_u64HeldDueNs, m_u64PaceNs});
}

int CBusLink::OnReleased(sd_bus_message*, void* pSelf, sd_bus_error*) {
  static_cast<CBusLink*>(static_cast<CBusWire*>(pSelf))->m_bReleased = true;
  return 1;
}

void CBusLink::Closed() {
  CCritLock lock(m_cs);
  m_bClosed = true;
  pthread_cond_broadcast(&m_condState);
}
