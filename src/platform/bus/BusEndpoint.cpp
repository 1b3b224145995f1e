#include "platform/bus/BusEndpoint.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <utility>

#include "platform/bus/BusCarrier.h"
#include "platform/bus/BusClock.h"
#include "platform/bus/BusLink.h"
#include "platform/bus/BusRouter.h"

CBusEndpoint::CBusEndpoint(void* pContext, const _BusLimits& limits)
    : m_pContext(pContext), m_limits(limits), m_slots(limits.uiDispatchers) {
  pthread_cond_init(&m_condWork, nullptr);
  pthread_cond_init(&m_condState, nullptr);
}

CBusEndpoint::~CBusEndpoint() {
  pthread_cond_destroy(&m_condWork);
  pthread_cond_destroy(&m_condState);
  if (m_iWake >= 0)
    close(m_iWake);
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
  {
    CCritLock lock(m_cs);
    m_eState = uiResult == 0 ? EState::In : EState::Out;
  }
  if (uiResult == 0 && (uiResult = CBusCarrier::Instance().Attach(shared_from_this(), guid)) != 0)
    Leave();
  return uiResult;
}

void CBusEndpoint::Leave() {
  bool bLeft = false;
  GUID guid;
  CBusQueue dropped;
  CBusBatons batons;
  std::shared_ptr<CBusLink> pLink;
  EWake eWake = EWake::No;
  {
    CCritLock lock(m_cs);
    if (m_eState == EState::In) {
      bLeft = true;
      m_eState = EState::Leaving;
      guid = m_guid;
      pLink = std::move(m_pLink);
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
      eWake = m_bServing ? EWake::Event : EWake::No;
    }
  }
  Wake(eWake);
  if (bLeft)
    CBusRouter::Instance().Remove(guid);
  while (CBusItem* pItem = dropped.Pop()) {
    const std::unique_ptr<CBusMessage> pMessage(static_cast<CBusMessage*>(pItem));
    RefuseIfAny(pMessage->call, kBusErrGone);
  }
  while (CBusRef<CBusCall> call = batons.TakeDisowned())
    RefuseIfAny(call, kBusErrGone);
  if (pLink != nullptr)
    pLink->Close(!OnOwnDispatcher());
  if (OnOwnDispatcher())
    return;
  CCritLock lock(m_cs);
  ++m_uStateWaiters;
  while (m_eState == EState::Leaving)
    Wait(m_condState, CBusDeadlines::kNever);
  --m_uStateWaiters;
}

uint32_t CBusEndpoint::Receive(uint32_t uiType, IMRReceiveComplete* pReceiver) {
  std::shared_ptr<CBusLink> pLink;
  {
    CCritLock lock(m_cs);
    if (m_eState != EState::In)
      return kBusErrNotInitialized;
    m_receivers[uiType] = pReceiver;
    pLink = m_pLink;
  }
  if (pLink != nullptr)
    pLink->TypesChanged(true);
  return 0;
}

void CBusEndpoint::Unreceive(uint32_t uiType) {
  std::shared_ptr<CBusLink> pLink;
  {
    CCritLock lock(m_cs);
    m_receivers.erase(uiType);
    pLink = m_pLink;
  }
  if (pLink != nullptr)
    pLink->TypesChanged(false);
  CCritLock lock(m_cs);
  SetUnreceiving(true);
  ++m_uStateWaiters;
  while (IsRunning(uiType))
    Wait(m_condState, CBusDeadlines::kNever);
  --m_uStateWaiters;
  SetUnreceiving(false);
}

uint32_t CBusEndpoint::Send(std::shared_ptr<CBusEndpoint> pLocal, const GUID& guidTarget, uint32_t uiType,
                            const void* pData, uint32_t uiLength, IMRSendComplete* pCallback, void* pContext,
                            unsigned long long* pui64ACT, uint32_t uiTimeoutMs) {
  const unsigned long long ui64ACT = NextBusToken();
  if (pui64ACT != nullptr)
    *pui64ACT = ui64ACT;
  std::unique_ptr<CBusMessage> pMessage;
  CBusRef<CBusCall> call;
  if (pCallback != nullptr) {
    pMessage = CBusRequest::New(pData, uiLength);
    call = pMessage->call;
    call->pSender = shared_from_this();
    call->pCallback = pCallback;
    call->pContext = pContext;
    call->ui64ACT = ui64ACT;
    call->uiType = uiType;
    call->uiTimeoutMs = uiTimeoutMs;
  } else {
    pMessage = std::make_unique<CBusMessage>();
    pMessage->uiLength = uiLength;
    pMessage->pOwn = CopyBytes(pData, uiLength);
  }
  pMessage->guidTo = guidTarget;
  pMessage->uiType = uiType;
  std::shared_ptr<IBusPeer> pTarget = std::move(pLocal);
  const uint64_t u64NowNs = call ? BusNowNs() : 0;
  EWake eWake = EWake::No;
  {
    CCritLock lock(m_cs);
    if (m_eState != EState::In)
      return kBusErrNotInitialized;
    if (pTarget == nullptr && (pTarget = m_pLink) == nullptr)
      return kBusErrNoTarget;
    pMessage->guidFrom = m_guid;
    if (call) {
      if (m_deadlines.Count() >= m_limits.uMaxRecords)
        return kBusErrBusy;
      call->pTarget = pTarget;
      const uint64_t u64OldNs = m_deadlines.EarliestNs();
      m_deadlines.Insert(call, u64NowNs);
      if (m_deadlines.EarliestNs() < u64OldNs)
        eWake = TakeWaker();
    }
  }
  Wake(eWake);
  const uint32_t uiResult = pTarget->Push(std::move(pMessage));
  // A call that has ended meanwhile (deadline, own Leave) has its completion: then it counts as accepted.
  return uiResult != 0 && (!call || Withdraw(*call)) ? uiResult : 0;
}

uint32_t CBusEndpoint::Broadcast(const std::vector<std::shared_ptr<CBusEndpoint>>& targets, uint32_t uiType,
                                 const void* pData, uint32_t uiLength) {
  GUID guidFrom;
  std::shared_ptr<CBusLink> pLink;
  {
    CCritLock lock(m_cs);
    if (m_eState != EState::In)
      return kBusErrNotInitialized;
    guidFrom = m_guid;
    pLink = m_pLink;
  }
  CBusRef<CBusPayload> payload(new CBusPayload);
  payload->pData = CopyBytes(pData, uiLength);
  const auto push = [&](IBusPeer& target) {
    auto pMessage = std::make_unique<CBusMessage>();
    pMessage->guidFrom = guidFrom;
    pMessage->uiType = uiType;
    pMessage->uiLength = uiLength;
    pMessage->payload = payload;
    target.Push(std::move(pMessage));  // best effort: a full or departed receiver loses it
  };
  for (const auto& pTarget : targets)
    push(*pTarget);
  if (pLink != nullptr)
    push(*pLink);
  return 0;
}

uint32_t CBusEndpoint::Reply(uint32_t uiStatus, long i64MsgType, const void* pData, uint32_t uiLength,
                             uint64_t u64Baton) {
  const bool bInline = uiLength <= CBusCall::kInlineReplyBytes;
  TBusBytes pReply = bInline ? nullptr : CopyBytes(pData, uiLength);
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
  if (bInline && uiLength != 0)
    std::memcpy(call->aReply, pData, uiLength);
  IBusPeer& sender = *call->pSender;
  if (sender.Complete(*call, uiStatus, i64MsgType, std::move(pReply), uiLength))
    return 0;
  sender.ReleaseReplyBytes(uiLength);
  return kBusErrInvalid;
}

uint32_t CBusEndpoint::Push(std::unique_ptr<CBusMessage> pMessage) {
  EWake eWake = EWake::No;
  {
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
    Queue(*pMessage.release());
    eWake = TakeWaker();
  }
  Wake(eWake);
  return 0;
}

void CBusEndpoint::Queue(CBusItem& item) {
  m_queue.Push(item);
  m_bQueued.store(true, std::memory_order_relaxed);
}

CBusEndpoint::EWake CBusEndpoint::TakeWaker() {
  if (m_uIdle <= m_uWaking || (m_bServing && OnOwnDispatcher()))
    return EWake::No;
  ++m_uWaking;
  return m_bServing ? EWake::Event : EWake::Signal;
}

void CBusEndpoint::Wake(EWake eWake) {
  if (eWake == EWake::Signal)
    pthread_cond_signal(&m_condWork);
  else if (eWake == EWake::Event)
    eventfd_write(m_iWake, 1);
}

void CBusEndpoint::Interrupt() {
  bool bServing = false;
  {
    CCritLock lock(m_cs);
    bServing = m_bServing && !OnOwnDispatcher();
  }
  if (bServing)
    eventfd_write(m_iWake, 1);
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

void CBusEndpoint::ReleaseReplyBytes(uint32_t uiLength) {
  m_uReplyBytes.fetch_sub(uiLength, std::memory_order_relaxed);
}

bool CBusEndpoint::Complete(CBusCall& call, uint32_t uiStatus, long i64MsgType, TBusBytes pReply,
                            uint32_t uiLength) {
  EWake eWake = EWake::No;
  {
    CCritLock lock(m_cs);
    if (call.bDone.load(std::memory_order_relaxed))
      return false;
    CBusRef<CBusCall> owned = m_deadlines.Remove(call);
    call.bDone.store(true, std::memory_order_release);
    call.uiStatus = uiStatus;
    call.i64ReplyType = i64MsgType;
    call.pReply = std::move(pReply);
    call.uiReplyLength = uiLength;
    Queue(*owned.Detach());
    eWake = TakeWaker();
  }
  Wake(eWake);
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

void CBusEndpoint::Refuse(CBusCall& call, uint32_t uiStatus) {
  Complete(call, uiStatus, static_cast<long>(call.uiType), nullptr, 0);
}

void CBusEndpoint::RefuseIfAny(const CBusRef<CBusCall>& call, uint32_t uiStatus) {
  if (call)
    call->pSender->Refuse(*call, uiStatus);
}

bool CBusEndpoint::AttachLink(const std::shared_ptr<CBusLink>& pLink) {
  int iWake = m_limits.uiDispatchers == 1 ? eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC) : -1;
  bool bAttached = false;
  {
    CCritLock lock(m_cs);
    bAttached = m_pLink == nullptr && (m_eState == EState::In || m_eState == EState::Joining);
    if (bAttached)
      m_pLink = pLink;
    if (bAttached && m_iWake < 0)
      m_iWake = std::exchange(iWake, -1);
  }
  if (iWake >= 0)
    close(iWake);
  return bAttached;
}

std::shared_ptr<CBusLink> CBusEndpoint::DetachLink() {
  CCritLock lock(m_cs);
  return std::move(m_pLink);
}

std::shared_ptr<CBusLink> CBusEndpoint::Link() {
  CCritLock lock(m_cs);
  return m_pLink;
}

std::vector<uint32_t> CBusEndpoint::Types() {
  std::vector<uint32_t> types;
  CCritLock lock(m_cs);
  types.reserve(m_receivers.size());
  for (const auto& [uiType, pReceiver] : m_receivers)
    types.push_back(uiType);
  return types;
}

bool CBusEndpoint::HasReceiver(uint32_t uiType) {
  CCritLock lock(m_cs);
  return m_receivers.count(uiType) != 0;
}

CBusEndpoint::_Depths CBusEndpoint::Depths() {
  CCritLock lock(m_cs);
  return {m_uQueuedMessages, m_uQueuedBytes, m_batons.Count(), m_deadlines.Count()};
}
