#include "platform/bus/BusEndpoint.h"

#include <sys/random.h>

#include <exception>
#include <utility>

#include "platform/bus/BusClock.h"
#include "platform/bus/BusRouter.h"
#include "platform/os/ZxTime.h"

namespace {

// Also the part that makes baton handles unique, so it never repeats in a process.
// Starts at a random place, so that a handle derived from a token cannot be told from outside.
unsigned long long FirstToken() {
  unsigned long long ui64Random = 0;
  if (getrandom(&ui64Random, sizeof(ui64Random), GRND_NONBLOCK) != sizeof(ui64Random))
    ui64Random = ZxGetTickCount() << 24;
  return ui64Random >> 24;  // 40 bits, so that a handle, which is the token shifted by 20, keeps all of them
}

unsigned long long NextToken() {
  static std::atomic<unsigned long long> s_ui64LastACT{FirstToken()};
  return s_ui64LastACT.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace

CBusEndpoint::CBusEndpoint(void* pContext, const _BusLimits& limits)
    : m_pContext(pContext), m_limits(limits), m_slots(limits.uiDispatchers) {
  pthread_cond_init(&m_condWork, nullptr);
  pthread_cond_init(&m_condState, nullptr);
}

CBusEndpoint::~CBusEndpoint() {
  pthread_cond_destroy(&m_condWork);
  pthread_cond_destroy(&m_condState);
}

void CBusEndpoint::Wait(pthread_cond_t& cond, uint64_t u64DeadlineNs) {
  if (u64DeadlineNs == CBusDeadlines::kNever) {
    pthread_cond_wait(&cond, m_cs.Native());
    return;
  }
  const timespec ts{static_cast<time_t>(u64DeadlineNs / kBusNsPerSecond),
                    static_cast<long>(u64DeadlineNs % kBusNsPerSecond)};
  pthread_cond_clockwait(&cond, m_cs.Native(), CLOCK_MONOTONIC, &ts);
}

uint32_t CBusEndpoint::Join(const GUID& guid) {
  {
    CCritLock lock(m_cs);
    while (m_eState == EState::Leaving) {
      if (OnOwnDispatcher())
        return kBusErrBusy;
      ++m_uStateWaiters;
      Wait(m_condState, CBusDeadlines::kNever);
      --m_uStateWaiters;
    }
    if (m_eState != EState::Out)
      return kBusErrInvalid;
    m_eState = EState::Joining;
    m_guid = guid;
  }
  uint32_t uiResult = kBusErrBusy;
  try {
    uiResult = CBusRouter::Instance().Add(guid, shared_from_this()) ? 0 : static_cast<uint32_t>(kBusErrTaken);
  } catch (const std::bad_alloc&) {
  }
  if (uiResult == 0 && !StartDispatchers()) {  // which has set the state
    CBusRouter::Instance().Remove(guid);
    return kBusErrBusy;
  }
  CCritLock lock(m_cs);
  m_eState = uiResult == 0 ? EState::In : EState::Out;
  return uiResult;
}

void CBusEndpoint::Leave() {
  bool bLeft = false;
  GUID guid;
  CBusQueue dropped;
  CBusBatons batons;
  {
    CCritLock lock(m_cs);
    if (m_eState == EState::In) {
      bLeft = true;
      m_eState = EState::Leaving;
      guid = m_guid;
      m_receivers.clear();
      // Messages go, completions stay: they are owed to the component.
      CBusQueue owed;
      while (CBusItem* pItem = m_queue.Pop())
        (pItem->eKind == CBusItem::EKind::Message ? dropped : owed).Push(*pItem);
      m_queue = owed;
      m_uQueuedMessages = 0;
      m_uQueuedBytes = 0;
      std::swap(batons, m_batons);
      batons.Disown();
      while (CBusRef<CBusCall> call = m_deadlines.PopAny())
        End(std::move(call), kBusErrAborted);
      pthread_cond_broadcast(&m_condWork);
    }
  }
  if (bLeft)
    CBusRouter::Instance().Remove(guid);
  while (CBusItem* pItem = dropped.Pop()) {
    const std::unique_ptr<CBusMessage> pMessage(static_cast<CBusMessage*>(pItem));
    Refuse(std::move(pMessage->call), kBusErrGone);
  }
  while (CBusRef<CBusCall> call = batons.TakeDisowned())
    Refuse(std::move(call), kBusErrGone);
  if (OnOwnDispatcher())
    return;
  CCritLock lock(m_cs);
  ++m_uStateWaiters;
  while (m_eState == EState::Leaving)
    Wait(m_condState, CBusDeadlines::kNever);
  --m_uStateWaiters;
}

uint32_t CBusEndpoint::Receive(uint32_t uiType, IMRReceiveComplete* pReceiver) {
  CCritLock lock(m_cs);
  if (m_eState != EState::In)
    return kBusErrNotInitialized;
  m_receivers[uiType] = pReceiver;
  return 0;
}

void CBusEndpoint::Unreceive(uint32_t uiType) {
  CCritLock lock(m_cs);
  m_receivers.erase(uiType);
  SetUnreceiving(true);
  ++m_uStateWaiters;
  while (IsRunning(uiType))
    Wait(m_condState, CBusDeadlines::kNever);
  --m_uStateWaiters;
  SetUnreceiving(false);
}

uint32_t CBusEndpoint::Send(std::shared_ptr<CBusEndpoint> pTarget, uint32_t uiType, const void* pData,
                            uint32_t uiLength, IMRSendComplete* pCallback, void* pContext,
                            unsigned long long* pui64ACT, uint32_t uiTimeoutMs) {
  auto pMessage = std::make_unique<CBusMessage>();
  pMessage->uiType = uiType;
  pMessage->uiLength = uiLength;
  const unsigned long long ui64ACT = NextToken();
  if (pui64ACT != nullptr)
    *pui64ACT = ui64ACT;

  CBusRef<CBusCall> call;
  if (pTarget != nullptr) {
    pMessage->pOwn = CopyBytes(pData, uiLength);
    if (pCallback != nullptr) {
      call = CBusRef<CBusCall>(new CBusCall);
      call->pSender = shared_from_this();
      call->pTarget = pTarget;
      call->pCallback = pCallback;
      call->pContext = pContext;
      call->ui64ACT = ui64ACT;
      call->uiType = uiType;
      call->uiTimeoutMs = uiTimeoutMs;
      pMessage->call = call;
    }
  }
  const uint64_t u64NowNs = call ? BusNowNs() : 0;
  {
    CCritLock lock(m_cs);
    if (m_eState != EState::In)
      return kBusErrNotInitialized;
    if (pTarget == nullptr)
      return kBusErrNoTarget;
    pMessage->guidFrom = m_guid;
    if (call) {
      if (m_deadlines.Count() >= m_limits.uMaxRecords)
        return kBusErrBusy;
      const uint64_t u64OldNs = m_deadlines.EarliestNs();
      m_deadlines.Insert(call, u64NowNs);
      if (m_deadlines.EarliestNs() < u64OldNs && m_uIdle > 0)
        pthread_cond_signal(&m_condWork);
    }
  }
  const uint32_t uiResult = pTarget->Push(std::move(pMessage));
  // A call that has ended meanwhile (deadline, own Leave) has its completion: then it counts as accepted.
  return uiResult != 0 && (!call || Withdraw(*call)) ? uiResult : 0;
}

uint32_t CBusEndpoint::Broadcast(const std::vector<std::shared_ptr<CBusEndpoint>>& targets, uint32_t uiType,
                                 const void* pData, uint32_t uiLength) {
  GUID guidFrom;
  {
    CCritLock lock(m_cs);
    if (m_eState != EState::In)
      return kBusErrNotInitialized;
    guidFrom = m_guid;
  }
  CBusRef<CBusPayload> payload(new CBusPayload);
  payload->pData = CopyBytes(pData, uiLength);
  for (const auto& pTarget : targets) {
    auto pMessage = std::make_unique<CBusMessage>();
    pMessage->guidFrom = guidFrom;
    pMessage->uiType = uiType;
    pMessage->uiLength = uiLength;
    pMessage->payload = payload;
    pTarget->Push(std::move(pMessage));  // best effort: a full or departed receiver loses it
  }
  return 0;
}

uint32_t CBusEndpoint::Reply(uint32_t uiStatus, long i64MsgType, const void* pData, uint32_t uiLength,
                             uint64_t u64Baton) {
  TBusBytes pReply = CopyBytes(pData, uiLength);
  CBusRef<CBusCall> call;
  {
    CCritLock lock(m_cs);
    if (m_eState != EState::In)
      return kBusErrNotInitialized;
    const CBusCall* pCall = m_batons.Find(u64Baton);
    if (pCall == nullptr)
      return kBusErrInvalid;
    if (!pCall->pSender->ReserveReplyBytes(uiLength))
      return kBusErrBusy;  // the baton stays: the component may try again
    call = m_batons.Take(u64Baton);
  }
  CBusEndpoint& sender = *call->pSender;
  if (sender.Complete(*call, uiStatus, i64MsgType, std::move(pReply), uiLength))
    return 0;
  sender.m_uReplyBytes.fetch_sub(uiLength, std::memory_order_relaxed);
  return kBusErrInvalid;
}

uint32_t CBusEndpoint::Push(std::unique_ptr<CBusMessage> pMessage) {
  CCritLock lock(m_cs);
  if (m_eState != EState::In)
    return kBusErrNoTarget;
  if (m_receivers.count(pMessage->uiType) == 0)
    return kBusErrNoReceiver;
  const size_t uRecords = m_uQueuedMessages + m_batons.Count();
  if (uRecords >= m_limits.uMaxRecords || m_uQueuedBytes + Cost(pMessage->uiLength) > m_limits.uMaxBytes)
    return kBusErrBusy;
  if (pMessage->call) {
    try {
      m_batons.Reserve(uRecords + 1);
    } catch (const std::exception&) {
      return kBusErrBusy;
    }
  }
  ++m_uQueuedMessages;
  m_uQueuedBytes += Cost(pMessage->uiLength);
  m_queue.Push(*pMessage.release());
  if (m_uIdle > 0)
    pthread_cond_signal(&m_condWork);
  return 0;
}

void CBusEndpoint::DropBaton(CBusCall& call) {
  CBusRef<CBusCall> dropped;  // released behind the lock
  CCritLock lock(m_cs);
  dropped = m_batons.Take(call.u64Baton);
}

bool CBusEndpoint::ReserveReplyBytes(uint32_t uiLength) {
  size_t uBytes = m_uReplyBytes.load(std::memory_order_relaxed);
  do {
    if (uiLength != 0 && uBytes + uiLength > m_limits.uMaxBytes)
      return false;
  } while (!m_uReplyBytes.compare_exchange_weak(uBytes, uBytes + uiLength, std::memory_order_relaxed));
  return true;
}

bool CBusEndpoint::Complete(CBusCall& call, uint32_t uiStatus, long i64MsgType, TBusBytes pReply,
                            uint32_t uiLength) {
  CCritLock lock(m_cs);
  if (call.bDone.load(std::memory_order_relaxed))
    return false;
  CBusRef<CBusCall> owned = m_deadlines.Remove(call);
  call.bDone.store(true, std::memory_order_release);
  call.uiStatus = uiStatus;
  call.i64ReplyType = i64MsgType;
  call.pReply = std::move(pReply);
  call.uiReplyLength = uiLength;
  m_queue.Push(*owned.Detach());
  if (m_uIdle > 0)
    pthread_cond_signal(&m_condWork);
  return true;
}

bool CBusEndpoint::Withdraw(CBusCall& call) {
  CBusRef<CBusCall> owned;  // released behind the lock
  CCritLock lock(m_cs);
  if (call.bDone.load(std::memory_order_relaxed))
    return false;
  call.bDone.store(true, std::memory_order_release);
  owned = m_deadlines.Remove(call);
  return true;
}

void CBusEndpoint::Refuse(CBusRef<CBusCall> call, uint32_t uiStatus) {
  if (call)
    call->pSender->Complete(*call, uiStatus, static_cast<long>(call->uiType), nullptr, 0);
}
