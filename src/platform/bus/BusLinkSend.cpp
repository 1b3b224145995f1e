// What a component sends to other processes.
#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "platform/bus/BusCarrier.h"
#include "platform/bus/BusClock.h"
#include "platform/bus/BusEndpoint.h"
#include "platform/bus/BusErrors.h"
#include "platform/bus/BusLink.h"
#include "platform/bus/BusNames.h"
#include "platform/bus/zxbus.h"

namespace {

// Calls and bytes that the daemon holds for one target. The daemon's own bounds (docs/bus.md) lie behind
// them.
constexpr size_t kWindowCalls = 256;
constexpr size_t kWindowBytes = 8u << 20;
constexpr size_t kWritesPerSend = 16;  // by one component's thread at a time; others may have queued more
// What a flood may write: 4,000 to 8,000 messages per second, as the I/O thread sleeps for whole
// milliseconds.
constexpr size_t kFloodMessages = 1024;
constexpr size_t kPacedWrites = 8;
constexpr uint64_t kPaceNs = kBusNsPerMs;
constexpr uint64_t kNoTimeout = UINT64_MAX;  // deadlines are the component's; the daemon has one of its own

bool IsDead(const CBusItem& item) {
  if (item.eKind != CBusItem::EKind::Message)
    return false;
  const auto& message = static_cast<const CBusMessage&>(item);
  return message.call && message.call->bDone.load(std::memory_order_acquire);
}

}  // namespace

uint32_t CBusLink::Push(std::unique_ptr<CBusMessage> pMessage) {
  const size_t uCost = Cost(pMessage->uiLength);
  uint32_t uiResult = 0;
  {
    CCritLock lock(m_cs);
    if (!m_bUp)
      uiResult = kBusErrGone;
    else if (pMessage->guidTo != GUID() && !m_owners.Has(pMessage->guidTo))
      uiResult = kBusErrNoTarget;
    else if (!Reserve(uCost))
      uiResult = kBusErrBusy;
    if (uiResult == 0) {
      m_uOneWayQueued += pMessage->call ? 0 : 1;
      m_queued.Push(*pMessage.release());
    }
  }
  if (uiResult == kBusErrBusy)
    m_figures.u64Busy.fetch_add(1, std::memory_order_relaxed);
  if (uiResult == 0)
    Write();
  return uiResult;
}

bool CBusLink::Queue(CBusItem& item) {
  {
    CCritLock lock(m_cs);
    if (!m_bUp)
      return false;
    m_queued.Push(item);
  }
  Write();
  return true;
}

void CBusLink::DropBaton(CBusCall& call) {
  call.AddRef();
  if (!Queue(call))
    call.Release();
}

bool CBusLink::Reserve(size_t uBytes) {
  size_t uQueued = m_uQueuedBytes.load(std::memory_order_relaxed);
  do {
    if (uQueued != 0 && uQueued + uBytes > m_uMaxBytes)
      return false;
  } while (!m_uQueuedBytes.compare_exchange_weak(uQueued, uQueued + uBytes, std::memory_order_relaxed));
  return true;
}

bool CBusLink::ReserveReplyBytes(uint32_t uiLength) {
  return uiLength == 0 || Reserve(uiLength);
}

void CBusLink::ReleaseReplyBytes(uint32_t uiLength) {
  Released(uiLength);
}

bool CBusLink::Complete(CBusCall& call, uint32_t uiStatus, long i64MsgType, TBusBytes pReply,
                        uint32_t uiLength) {
  if (call.bDone.exchange(true))
    return false;
  call.uiStatus = uiStatus;
  call.i64ReplyType = i64MsgType;
  call.pReply = std::move(pReply);
  call.uiReplyLength = uiLength;
  call.AddRef();
  if (Queue(call))
    return true;
  call.Release();
  return false;
}

void CBusLink::Refuse(CBusCall& call, uint32_t uiStatus) {
  if (call.bDone.exchange(true))
    return;
  call.bRefused = true;
  call.uiStatus = uiStatus;
  call.AddRef();
  if (!Queue(call))
    call.Release();
}

void CBusLink::TakeQueued() {
  CCritLock lock(m_cs);
  m_ready.Append(m_queued);
  m_uOneWay += std::exchange(m_uOneWayQueued, 0);
}

bool CBusLink::WriteSome() noexcept {
  if (Bus() == nullptr)
    return false;
  TakeQueued();
  // A flood is the I/O thread's, which knows when to go on, unless it waits for a socket that was full.
  if (m_bPaced || m_uOneWay > kFloodMessages)
    return !m_bPaced || (m_u64PaceNs == kNever && CanWrite());
  WriteOut(kWritesPerSend);
  return !m_ready.IsEmpty() && IsReady() && CanWrite();
}

// How many messages the I/O thread may write now.
size_t CBusLink::Allowance(uint64_t u64NowNs, bool bClosing) {
  m_bPaced = m_uOneWay > kFloodMessages && !bClosing;
  if (!m_bPaced) {
    m_u64PaceNs = kNever;
    return SIZE_MAX;
  }
  if (m_u64PaceNs != kNever && u64NowNs < m_u64PaceNs)
    return 0;
  const bool bMay = CanWrite();  // otherwise the socket says when
  m_u64PaceNs = bMay ? u64NowNs + kPaceNs : kNever;
  return bMay ? kPacedWrites : 0;
}

void CBusLink::WriteOut(size_t uMost) {
  for (; uMost > 0 && !m_ready.IsEmpty() && IsReady() && CanWrite(); --uMost) {
    CBusItem* pItem = m_ready.Pop();
    if (pItem->eKind == CBusItem::EKind::Message) {
      std::unique_ptr<CBusMessage> pMessage(static_cast<CBusMessage*>(pItem));
      m_uOneWay -= pMessage->call ? 0 : 1;
      WriteMessage(std::move(pMessage));
      continue;
    }
    CBusRef<CBusCall> call(static_cast<CBusCall*>(pItem));
    if (call->pTarget.get() != static_cast<IBusPeer*>(this)) {
      WriteReply(std::move(call));
      continue;
    }
    try {
      WriteCancel(*call);
    } catch (const std::exception&) {  // no memory: the daemon's slot stays until the target answers
    }
  }
}

CBusRemoteTarget& CBusLink::TargetOf(const GUID& guid) {
  CBusRemoteTarget& target = m_targets[guid];
  if (target.strName.empty()) {
    target.guid = guid;
    target.strName = BusNameOf(guid);
  }
  return target;
}

const std::string& CBusLink::PathOf(uint32_t uiType) {
  constexpr size_t kKeepPaths = 1024;
  if (m_paths.size() > kKeepPaths)
    m_paths.clear();
  std::string& strPath = m_paths[uiType];
  if (strPath.empty())
    strPath = BusPathOf(uiType);
  return strPath;
}

bool CBusLink::WindowIsFull(const CBusRemoteTarget& target, uint32_t uiLength) {
  return target.uCalls >= kWindowCalls || (target.uBytes != 0 && target.uBytes + uiLength > kWindowBytes);
}

void CBusLink::WriteMessage(std::unique_ptr<CBusMessage> pMessage) {
  CBusRemoteTarget* pTarget = nullptr;
  try {
    if (pMessage->guidTo == GUID())
      SendBroadcast(*pMessage);  // best effort
    else
      pTarget = &TargetOf(pMessage->guidTo);
  } catch (const std::exception&) {
    if (pMessage->call)
      EndCall(*pMessage->call, kBusErrBusy);
  }
  if (pTarget == nullptr) {
    Released(Cost(pMessage->uiLength));
    return;
  }
  if (pMessage->call)
    pMessage->call->pRemoteTarget = pTarget;
  if (!pTarget->waiting.IsEmpty() || (pMessage->call && WindowIsFull(*pTarget, pMessage->uiLength)))
    pTarget->waiting.Push(*pMessage.release());
  else
    SendNow(*pMessage, *pTarget);
}

void CBusLink::SendNow(CBusMessage& message, CBusRemoteTarget& target) {
  if (!IsDead(message)) {
    int iResult = -ENOMEM;
    try {
      iResult = SendCall(message, target);
    } catch (const std::exception&) {
    }
    if (iResult < 0 && message.call)
      EndCall(*message.call, BusResultOfErrno(iResult));
  }
  Released(Cost(message.uiLength));
}

int CBusLink::SendCall(CBusMessage& message, CBusRemoteTarget& target) {
  sd_bus_message* pRaw = nullptr;
  int iResult = sd_bus_message_new_method_call(Bus(), &pRaw, target.strName.c_str(),
                                               PathOf(message.uiType).c_str(), kBusInterface, "Send");
  const TBusMessage wire(pRaw);
  if (iResult < 0 || (iResult = sd_bus_message_set_auto_start(pRaw, 0)) < 0 ||
      (iResult = sd_bus_message_append_array(pRaw, 'y', message.Data(), message.uiLength)) < 0)
    return iResult;
  if (!message.call) {
    if ((iResult = sd_bus_message_set_expect_reply(pRaw, 0)) >= 0)
      iResult = sd_bus_send(Bus(), pRaw, nullptr);
  } else {
    CBusCall& call = *message.call;
    iResult = sd_bus_call_async(Bus(), nullptr, pRaw, &OnReply, &call, kNoTimeout);
    if (iResult >= 0) {
      sd_bus_message_get_cookie(pRaw, &call.u64Serial);
      call.bInFlight = true;
      call.uiRemoteBytes = message.uiLength;
      ++target.uCalls;
      target.uBytes += message.uiLength;
      m_flights.Add(message.call);
    }
  }
  if (iResult >= 0) {
    m_figures.u64Sent.fetch_add(1, std::memory_order_relaxed);
    m_figures.u64SentBytes.fetch_add(message.uiLength, std::memory_order_relaxed);
  }
  return iResult;
}

int CBusLink::SendBroadcast(const CBusMessage& message) {
  sd_bus_message* pRaw = nullptr;
  int iResult =
      sd_bus_message_new_signal(Bus(), &pRaw, PathOf(message.uiType).c_str(), kBusInterface, "Broadcast");
  const TBusMessage wire(pRaw);
  if (iResult < 0 || (iResult = sd_bus_message_append_array(pRaw, 'y', message.Data(), message.uiLength)) < 0)
    return iResult;
  m_figures.u64Sent.fetch_add(1, std::memory_order_relaxed);
  m_figures.u64SentBytes.fetch_add(message.uiLength, std::memory_order_relaxed);
  return sd_bus_send(Bus(), pRaw, nullptr);
}

void CBusLink::WriteError(sd_bus_message* pCall, uint32_t uiResult) {
  const sd_bus_error error{ErrorOfBusResult(uiResult), TextOfBusResult(uiResult), 0};
  sd_bus_reply_method_error(pCall, &error);
}

void CBusLink::WriteReply(CBusRef<CBusCall> call) {
  Released(call->uiReplyLength);
  sd_bus_message* pCall = call->pRemoteMessage;
  if (pCall == nullptr)
    return;
  if (call->bRefused) {
    WriteError(pCall, call->uiStatus);
  } else {
    sd_bus_message* pRaw = nullptr;
    const int iResult = sd_bus_message_new_method_return(pCall, &pRaw);
    const TBusMessage wire(pRaw);
    if (iResult < 0 ||
        sd_bus_message_append(pRaw, "iu", static_cast<int32_t>(call->uiStatus),
                              static_cast<uint32_t>(call->i64ReplyType)) < 0 ||
        sd_bus_message_append_array(pRaw, 'y', call->Reply(), call->uiReplyLength) < 0 ||
        sd_bus_send(Bus(), pRaw, nullptr) < 0)
      WriteError(pCall, kBusErrBusy);
  }
  Unhold(*call);
}

// The sender gave up. The other side is told, so that its baton ends and the daemon's slot for the reply is
// free again; until then the call counts in the target's window.
void CBusLink::WriteCancel(CBusCall& call) {
  DropDead(m_ready);
  if (call.pRemoteTarget == nullptr)
    return;
  if (!call.bInFlight) {
    DrainTarget(*call.pRemoteTarget);
    return;
  }
  sd_bus_message* pRaw = nullptr;
  const int iResult = sd_bus_message_new_method_call(Bus(), &pRaw, call.pRemoteTarget->strName.c_str(),
                                                     PathOf(call.uiType).c_str(), kBusInterface, "Cancel");
  const TBusMessage wire(pRaw);
  if (iResult >= 0 && sd_bus_message_append(pRaw, "u", static_cast<uint32_t>(call.u64Serial)) >= 0 &&
      sd_bus_message_set_auto_start(pRaw, 0) >= 0 && sd_bus_message_set_expect_reply(pRaw, 0) >= 0)
    sd_bus_send(Bus(), pRaw, nullptr);
}

void CBusLink::DropDead(CBusQueue& queue) {
  size_t uReleased = 0;
  while (queue.Head() != nullptr && IsDead(*queue.Head())) {
    const std::unique_ptr<CBusMessage> pMessage(static_cast<CBusMessage*>(queue.Pop()));
    uReleased += Cost(pMessage->uiLength);
  }
  if (uReleased != 0)
    Released(uReleased);
}

void CBusLink::DrainTarget(CBusRemoteTarget& target) {
  for (;;) {
    DropDead(target.waiting);
    auto* pHead = static_cast<CBusMessage*>(target.waiting.Head());
    if (pHead == nullptr || (pHead->call && WindowIsFull(target, pHead->uiLength)))
      return;
    target.waiting.Pop();
    const std::unique_ptr<CBusMessage> pMessage(pHead);
    SendNow(*pMessage, target);
  }
}

void CBusLink::EndCall(CBusCall& call, uint32_t uiResult) {
  call.pSender->Refuse(call, uiResult);
}

int CBusLink::OnReply(sd_bus_message* pMessage, void* pCall, sd_bus_error*) {
  auto& call = *static_cast<CBusCall*>(pCall);
  auto& self = *static_cast<CBusLink*>(call.pTarget.get());
  try {
    self.Answered(call, pMessage);
  } catch (const std::exception&) {
    self.EndCall(call, kBusErrBusy);
  }
  return 1;
}

// A daemon with a lax policy lets anybody answer anything; the serial alone is no proof.
bool CBusLink::MayAnswer(sd_bus_message* pMessage, const GUID& guidTarget) {
  const char* pszSender = sd_bus_message_get_sender(pMessage);
  if (pszSender == nullptr || *pszSender != ':')
    return true;  // the daemon's own word, or the connection's end
  GUID guid;
  CCritLock lock(m_cs);
  return m_owners.GuidOf(pszSender, guid) && guid == guidTarget;
}

void CBusLink::Answered(CBusCall& call, sd_bus_message* pMessage) {
  if (!call.bInFlight)
    return;
  const CBusRef<CBusCall> owned = m_flights.Remove(call);
  call.bInFlight = false;
  CBusRemoteTarget& target = *call.pRemoteTarget;
  --target.uCalls;
  target.uBytes -= call.uiRemoteBytes;

  int32_t iStatus = 0;
  uint32_t uiType = 0;
  const void* pData = nullptr;
  size_t uLength = 0;
  if (!MayAnswer(pMessage, target.guid)) {
    m_figures.u64Denied.fetch_add(1, std::memory_order_relaxed);
    EndCall(call, kBusErrDenied);
  } else if (const sd_bus_error* pError = sd_bus_message_get_error(pMessage)) {
    EndCall(call, BusResultOfError(pError->name));
  } else if (sd_bus_message_has_signature(pMessage, "iuay") <= 0 ||
             sd_bus_message_read(pMessage, "iu", &iStatus, &uiType) <= 0 ||
             sd_bus_message_read_array(pMessage, 'y', &pData, &uLength) < 0 || uLength > kBusMaxBytes) {
    EndCall(call, kBusErrInvalid);
  } else if (const auto uiLength = static_cast<uint32_t>(uLength);
             !call.pSender->ReserveReplyBytes(uiLength)) {
    EndCall(call, kBusErrBusy);
  } else {
    TBusBytes bytes;
    try {
      bytes = CopyBytes(pData, uiLength);
    } catch (const std::bad_alloc&) {
      call.pSender->ReleaseReplyBytes(uiLength);
      throw;
    }
    if (!call.pSender->Complete(call, static_cast<uint32_t>(iStatus), static_cast<long>(uiType),
                                std::move(bytes), uiLength))
      call.pSender->ReleaseReplyBytes(uiLength);
  }
  DrainTarget(target);
}
