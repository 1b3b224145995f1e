// The dispatcher threads of an endpoint.
#include <sched.h>

#include <cinttypes>
#include <cstdio>
#include <exception>
#include <utility>

#include "platform/bus/BusClock.h"
#include "platform/bus/BusEndpoint.h"
#include "platform/bus/BusLink.h"
#include "platform/bus/BusPause.h"
#include "platform/log/Log.h"
#include "platform/os/ZxThread.h"

namespace {

CZxThreadGroup g_threads;

// The endpoint whose dispatcher the calling thread is, and which of its dispatchers.
thread_local const CBusEndpoint* t_pEndpoint = nullptr;
thread_local size_t t_uSlot = 0;

// Under load the clock is read once in so many steps; an idle dispatcher reads it before it waits.
constexpr uint32_t kStepsPerClock = 32;
constexpr uint32_t kMostCompletions = 32;  // taken from the queue at a time

struct _DispatcherStart {
  std::shared_ptr<CBusEndpoint> pEndpoint;
  size_t uSlot;
  char szName[16];
};

}  // namespace

bool CBusEndpoint::OnOwnDispatcher() const {
  return t_pEndpoint == this;
}

bool CBusEndpoint::IsRunning(uint32_t uiType) {
  for (size_t i = 0; i < m_slots.size(); ++i) {
    const _Slot& slot = m_slots[i];
    const bool bOwn = OnOwnDispatcher() && t_uSlot == i;
    if (!bOwn && slot.bReceiving && !slot.bUnreceiving && slot.uiType == uiType)
      return true;
  }
  return false;
}

void CBusEndpoint::SetUnreceiving(bool bUnreceiving) {
  if (!OnOwnDispatcher())
    return;
  m_slots[t_uSlot].bUnreceiving = bUnreceiving;
  if (bUnreceiving && m_uStateWaiters > 0)
    pthread_cond_broadcast(&m_condState);
}

bool CBusEndpoint::StartDispatcher(size_t uSlot, const GUID& guid) {
  std::unique_ptr<_DispatcherStart> pStart(new (std::nothrow)
                                               _DispatcherStart{shared_from_this(), uSlot, {}});
  if (pStart == nullptr)
    return false;
  std::snprintf(pStart->szName, sizeof(pStart->szName), "zxbus.%08" PRIx32, guid.Data1);
  pthread_t hThread{};
  if (g_threads.Create(&hThread, &DispatcherEntry, pStart.get()) != 0)
    return false;
  (void)pStart.release();  // the thread owns it now
  return true;
}

bool CBusEndpoint::StartDispatchers() {
  GUID guid;
  {
    CCritLock lock(m_cs);
    m_uDispatchers = m_slots.size();
    guid = m_guid;
  }
  for (size_t i = 0; i < m_limits.uiDispatchers; ++i) {
    if (StartDispatcher(i, guid))
      continue;
    // The threads that did start see the state and end; the last of them, or this one, closes it.
    CCritLock lock(m_cs);
    m_uDispatchers -= m_slots.size() - i;
    m_eState = m_uDispatchers == 0 ? EState::Out : EState::Leaving;
    pthread_cond_broadcast(&m_condWork);
    return false;
  }
  return true;
}

void* CBusEndpoint::DispatcherEntry(void* pStart) {
  const std::unique_ptr<_DispatcherStart> start(static_cast<_DispatcherStart*>(pStart));
  pthread_detach(pthread_self());
  ZxSetThreadName(start->szName);
  t_pEndpoint = start->pEndpoint.get();
  t_uSlot = start->uSlot;
  start->pEndpoint->Dispatch(start->uSlot);
  t_pEndpoint = nullptr;
  return nullptr;
}

void CBusEndpoint::Dispatch(size_t uSlot) {
  CBusPause pause;
  for (;;) {
    _Work work;
    if (!NextWork(uSlot, pause, work))
      break;
    Run(work);
  }
  CCritLock lock(m_cs);
  if (--m_uDispatchers == 0)
    m_eState = EState::Out;
  pthread_cond_broadcast(&m_condState);
}

bool CBusEndpoint::NextWork(size_t uSlot, CBusPause& pause, _Work& work) {
  std::shared_ptr<CBusLink> pLink;
  for (bool bMayServe = true;;) {
    ENext eNext = ENext::Again;
    uint64_t u64DueNs = 0;
    {
      CCritLock lock(m_cs);
      eNext = TryNextWork(uSlot, pause, bMayServe, work);
      if (eNext == ENext::Serve) {
        pLink = m_pLink;
        u64DueNs = m_deadlines.EarliestNs();
      }
    }
    if (eNext == ENext::Work || eNext == ENext::Leave)
      return eNext == ENext::Work;
    bMayServe = true;
    if (eNext == ENext::Look)
      Look(work.u64LookUntilNs);
    else if (eNext == ENext::Serve)
      bMayServe = pLink->Serve(m_iWake, u64DueNs);  // not: one wait without it
  }
}

void CBusEndpoint::Look(uint64_t u64UntilNs) const {
  do {
    sched_yield();
  } while (!m_bQueued.load(std::memory_order_relaxed) && BusNowNs() < u64UntilNs);
}

CBusEndpoint::ENext CBusEndpoint::TryNextWork(size_t uSlot, CBusPause& pause, bool bMayServe, _Work& work) {
  if (m_slots[uSlot].bReceiving) {
    m_slots[uSlot].bReceiving = false;
    if (m_uStateWaiters > 0)
      pthread_cond_broadcast(&m_condState);
  }
  if (std::exchange(m_bServing, false))
    NoLongerIdle();
  if (m_deadlines.EarliestNs() != CBusDeadlines::kNever &&
      (m_queue.IsEmpty() || m_uiSinceClock >= kStepsPerClock))
    QueueDue();
  if (TakeWork(uSlot, pause, work))
    return ENext::Work;
  m_bQueued.store(false, std::memory_order_relaxed);
  if (m_eState == EState::Leaving)
    return ENext::Leave;
  if ((work.u64LookUntilNs = pause.LookUntilNs(BusNowNs())) != 0)
    return ENext::Look;
  ++m_uIdle;
  if (bMayServe && m_pLink != nullptr && m_iWake >= 0) {
    m_bServing = true;
    return ENext::Serve;
  }
  Wait(m_condWork, m_deadlines.EarliestNs());
  NoLongerIdle();
  return ENext::Again;
}

void CBusEndpoint::NoLongerIdle() {
  --m_uIdle;
  if (m_uWaking > 0)
    --m_uWaking;
}

void CBusEndpoint::QueueDue() {
  m_uiSinceClock = 0;
  const uint64_t u64NowNs = BusNowNs();
  while (CBusRef<CBusCall> call = m_deadlines.PopDue(u64NowNs))
    End(std::move(call), kBusErrTimeout);
}

void CBusEndpoint::End(CBusRef<CBusCall> call, uint32_t uiStatus) {
  call->bDone.store(true, std::memory_order_release);
  call->uiStatus = uiStatus;
  call->i64ReplyType = static_cast<long>(call->uiType);
  call->bBatonMayLive = true;
  Queue(*call.Detach());
  if (TakeWaker() == EWake::Signal)
    pthread_cond_signal(&m_condWork);
}

bool CBusEndpoint::TakeWork(size_t uSlot, CBusPause& pause, _Work& work) {
  const IBusPeer* const pLink = m_pLink.get();
  // Several dispatchers share what there is one by one.
  const uint32_t uiMost = m_slots.size() == 1 ? kMostCompletions : 1;
  uint32_t uiTaken = 0;
  bool bNear = false;
  for (CBusItem* pHead = m_queue.Head(); pHead != nullptr && uiTaken < uiMost; pHead = m_queue.Head()) {
    if (pHead->eKind == CBusItem::EKind::Message)
      break;
    bNear = bNear || static_cast<CBusCall*>(pHead)->pTarget.get() != pLink;
    work.completions.Push(*m_queue.Pop());
    ++uiTaken;
  }
  if (uiTaken == 0 && !m_queue.IsEmpty()) {
    TakeMessage(static_cast<CBusMessage*>(m_queue.Pop()), uSlot, work);
    bNear = work.pMessage->call && work.pMessage->call->pSender.get() != pLink;
    uiTaken = 1;
  }
  m_uiSinceClock += uiTaken;
  pause.CountSteps(uiTaken, bNear);
  return uiTaken != 0;
}

void CBusEndpoint::TakeMessage(CBusMessage* pMessage, size_t uSlot, _Work& work) {
  work.pMessage.reset(pMessage);
  --m_uQueuedMessages;
  m_uQueuedBytes -= Cost(pMessage->uiLength);
  const auto it = m_receivers.find(pMessage->uiType);
  if (it == m_receivers.end())
    return;
  work.pReceiver = it->second;
  m_slots[uSlot] = {true, false, pMessage->uiType};
  // Late messages are still delivered, but nobody waits for an answer.
  if (pMessage->call && !pMessage->call->bDone.load(std::memory_order_acquire))
    work.u64Baton = m_batons.Add(pMessage->call);
}

void CBusEndpoint::Run(_Work& work) {
  while (CBusItem* pItem = work.completions.Pop()) {
    const CBusRef<CBusCall> call(static_cast<CBusCall*>(pItem));
    RunCompletion(*call);
  }
  if (work.pMessage == nullptr)
    return;
  if (work.pReceiver == nullptr)
    RefuseIfAny(work.pMessage->call, kBusErrNoReceiver);
  else
    RunReceiver(work);
}

void CBusEndpoint::RunReceiver(const _Work& work) {
  const CBusMessage& message = *work.pMessage;
  try {
    work.pReceiver->ReceiveCallback(message.guidFrom, static_cast<long>(message.uiType), message.Data(),
                                    message.uiLength, reinterpret_cast<void*>(work.u64Baton), m_pContext);
  } catch (const std::exception& e) {
    CLogDebug::Instance().LogPrintV(kLogError, "zxbus", __func__, __LINE__,
                                    "**zxbus receiver threw uiType[%u] what[%s]", message.uiType, e.what());
  }
}

void CBusEndpoint::RunCompletion(CBusCall& call) {
  m_uReplyBytes.fetch_sub(call.uiReplyLength, std::memory_order_relaxed);
  if (call.bBatonMayLive)
    call.pTarget->DropBaton(call);
  try {
    call.pCallback->SendCallback(call.uiStatus, call.i64ReplyType, call.Reply(), call.uiReplyLength,
                                 call.ui64ACT, call.pContext);
  } catch (const std::exception& e) {
    CLogDebug::Instance().LogPrintV(kLogError, "zxbus", __func__, __LINE__,
                                    "**zxbus completion threw ui64ACT[%llx] what[%s]", call.ui64ACT,
                                    e.what());
  }
}
