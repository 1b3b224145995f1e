// What other processes send to a component.
#include <cstdlib>
#include <cstring>
#include <exception>
#include <utility>

#include "platform/bus/BusCarrier.h"
#include "platform/bus/BusClock.h"
#include "platform/bus/BusEndpoint.h"
#include "platform/bus/BusErrors.h"
#include "platform/bus/BusLink.h"
#include "platform/bus/BusNames.h"
#include "platform/bus/BusRouter.h"
#include "platform/bus/zxbus.h"

namespace {

// A baton's life when its sender does not tell of its time-out: the longest there is.
constexpr uint64_t kBatonNs = kBusMaxTimeoutMs * kBusNsPerMs;

int RefuseWith(sd_bus_error* pError, uint32_t uiResult) {
  return sd_bus_error_set_const(pError, ErrorOfBusResult(uiResult), TextOfBusResult(uiResult));
}

}  // namespace

const sd_bus_vtable* CBusLink::Vtable() {
  static const sd_bus_vtable s_vtable[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD_WITH_ARGS("Send", SD_BUS_ARGS("ay", data),
                              SD_BUS_RESULT("i", status, "u", type, "ay", data), &CBusLink::OnSend,
                              SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_METHOD_WITH_ARGS("Cancel", SD_BUS_ARGS("u", serial), SD_BUS_NO_RESULT, &CBusLink::OnCancel,
                              SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_METHOD_NO_REPLY),
      SD_BUS_SIGNAL_WITH_ARGS("Broadcast", SD_BUS_ARGS("ay", data), 0),
      SD_BUS_VTABLE_END,
  };
  return s_vtable;
}

int CBusLink::FindObject(sd_bus*, const char* pszPath, const char*, void* pSelf, void** ppFound,
                         sd_bus_error*) {
  uint32_t uiType = 0;
  if (!TypeOfBusPath(pszPath, uiType) || !static_cast<CBusLink*>(pSelf)->m_pEndpoint->HasReceiver(uiType))
    return 0;
  *ppFound = pSelf;
  return 1;
}

int CBusLink::ListObjects(sd_bus*, const char*, void* pSelf, char*** pppszNodes, sd_bus_error*) {
  const CBusLink& self = *static_cast<CBusLink*>(pSelf);
  // sd-bus frees the list and its texts.
  auto** ppszNodes = static_cast<char**>(std::calloc(self.m_matches.size() + 1, sizeof(char*)));
  if (ppszNodes == nullptr)
    return -ENOMEM;
  size_t uCount = 0;
  for (const auto& [uiType, pSlot] : self.m_matches)
    ppszNodes[uCount++] = strdup(BusPathOf(uiType).c_str());
  *pppszNodes = ppszNodes;
  return 0;
}

bool CBusLink::SenderOf(sd_bus_message* pMessage, GUID& guid) {
  const char* pszSender = sd_bus_message_get_sender(pMessage);
  bool bKnown = false;
  if (pszSender != nullptr) {
    CCritLock lock(m_cs);
    bKnown = m_owners.GuidOf(pszSender, guid);
  }
  if (!bKnown)
    m_figures.u64Denied.fetch_add(1, std::memory_order_relaxed);
  return bKnown;
}

// Messages of components are taken before sd-bus looks for objects and subscriptions, which costs more than
// all the rest of it. Whatever is out of the ordinary goes that way, too.
int CBusLink::OnMessage(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError) {
  uint32_t uiType = 0;
  const bool bCall = sd_bus_message_is_method_call(pMessage, kBusInterface, "Send") > 0;
  if ((!bCall && sd_bus_message_is_signal(pMessage, kBusInterface, "Broadcast") <= 0) ||
      !TypeOfBusPath(sd_bus_message_get_path(pMessage), uiType) ||
      sd_bus_message_has_signature(pMessage, "ay") <= 0 ||
      !static_cast<CBusLink*>(pSelf)->m_pEndpoint->HasReceiver(uiType))
    return 0;
  return bCall ? OnSend(pMessage, pSelf, pError)
               : (OnBroadcast(pMessage, static_cast<CBusWire*>(static_cast<CBusLink*>(pSelf)), pError), 1);
}

int CBusLink::OnSend(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError) {
  auto& self = *static_cast<CBusLink*>(pSelf);
  GUID guidFrom;
  // A component of this process is reached by memory: whoever says its name here took it from outside.
  if (!self.SenderOf(pMessage, guidFrom) || CBusRouter::Instance().Find(guidFrom) != nullptr)
    return RefuseWith(pError, kBusErrDenied);
  uint32_t uiResult = kBusErrBusy;
  try {
    uiResult = self.Deliver(pMessage, guidFrom, sd_bus_message_get_expect_reply(pMessage) > 0);
  } catch (const std::exception&) {
  }
  if (uiResult == 0)
    return 1;
  self.m_figures.u64Refused.fetch_add(1, std::memory_order_relaxed);
  return RefuseWith(pError, uiResult);
}

uint32_t CBusLink::Deliver(sd_bus_message* pMessage, const GUID& guidFrom, bool bWithReply) {
  const void* pData = nullptr;
  size_t uLength = 0;
  auto pItem = std::make_unique<CBusMessage>();
  if (!TypeOfBusPath(sd_bus_message_get_path(pMessage), pItem->uiType) ||
      sd_bus_message_read_array(pMessage, 'y', &pData, &uLength) < 0 || uLength > kBusMaxBytes)
    return kBusErrInvalid;
  pItem->guidFrom = guidFrom;
  pItem->uiLength = static_cast<uint32_t>(uLength);
  pItem->pOwn = CopyBytes(pData, pItem->uiLength);
  m_figures.u64Received.fetch_add(1, std::memory_order_relaxed);
  m_figures.u64ReceivedBytes.fetch_add(uLength, std::memory_order_relaxed);
  if (!bWithReply)
    return m_pEndpoint->Push(std::move(pItem));

  const CBusRef<CBusCall> call(new CBusCall);
  call->pSender = std::static_pointer_cast<CBusLink>(shared_from_this());
  call->pTarget = m_pEndpoint;
  call->ui64ACT = NextBusToken();
  call->uiType = pItem->uiType;
  call->u64DeadlineNs = BusNowNs() + kBatonNs;
  sd_bus_message_get_cookie(pMessage, &call->u64Serial);
  m_heldBySerial.emplace(call->u64Serial, call.Get());
  call->pRemoteMessage = sd_bus_message_ref(pMessage);
  m_held.Add(call);
  pItem->call = call;
  const uint32_t uiResult = m_pEndpoint->Push(std::move(pItem));
  if (uiResult != 0) {
    call->bDone.store(true);
    Unhold(*call);
  }
  return uiResult;
}

int CBusLink::OnBroadcast(sd_bus_message* pMessage, void* pSelf, sd_bus_error*) {
  auto& self = *static_cast<CBusLink*>(static_cast<CBusWire*>(pSelf));
  GUID guidFrom;
  // Those of this process came by memory already.
  if (sd_bus_message_has_signature(pMessage, "ay") <= 0 || !self.SenderOf(pMessage, guidFrom) ||
      CBusRouter::Instance().Find(guidFrom) != nullptr)
    return 0;
  uint32_t uiResult = kBusErrBusy;
  try {
    uiResult = self.Deliver(pMessage, guidFrom, false);
  } catch (const std::exception&) {
  }
  if (uiResult != 0)
    self.m_figures.u64Refused.fetch_add(1, std::memory_order_relaxed);
  return 0;
}

int CBusLink::OnCancel(sd_bus_message* pMessage, void* pSelf, sd_bus_error*) {
  auto& self = *static_cast<CBusLink*>(pSelf);
  uint32_t uiSerial = 0;
  const char* pszSender = sd_bus_message_get_sender(pMessage);
  if (pszSender == nullptr || sd_bus_message_read(pMessage, "u", &uiSerial) <= 0)
    return 1;
  const auto [itBegin, itEnd] = self.m_heldBySerial.equal_range(uiSerial);
  for (auto it = itBegin; it != itEnd; ++it) {
    if (std::strcmp(sd_bus_message_get_sender(it->second->pRemoteMessage), pszSender) != 0)
      continue;
    self.GiveUp(*it->second, kBusErrNoReply);
    break;
  }
  return 1;
}

void CBusLink::GiveUp(CBusCall& call, uint32_t uiResult) {
  if (call.bDone.exchange(true))
    return;  // the answer is on its way through the queue
  m_pEndpoint->DropBaton(call);
  WriteError(call.pRemoteMessage, uiResult);
  Unhold(call);
}

void CBusLink::ExpireHeld(uint64_t u64NowNs) {
  if (u64NowNs < m_u64HeldDueNs)
    return;
  m_u64HeldDueNs = kNever;
  CBusCall* pNext = nullptr;
  for (CBusCall* pCall = m_held.First(); pCall != nullptr && pCall->u64DeadlineNs <= u64NowNs;
       pCall = pNext) {
    pNext = pCall->pNextRemote;
    pCall->u64DeadlineNs = kNever;
    GiveUp(*pCall, kBusErrNoReply);
  }
}

void CBusLink::DropHeldOf(const char* pszOwner) {
  CBusCall* pNext = nullptr;
  for (CBusCall* pCall = m_held.First(); pCall != nullptr; pCall = pNext) {
    pNext = pCall->pNextRemote;
    if (std::strcmp(sd_bus_message_get_sender(pCall->pRemoteMessage), pszOwner) == 0)
      GiveUp(*pCall, kBusErrNoReply);
  }
}

void CBusLink::Unhold(CBusCall& call) {
  const auto [itBegin, itEnd] = m_heldBySerial.equal_range(call.u64Serial);
  for (auto it = itBegin; it != itEnd; ++it) {
    if (it->second == &call) {
      m_heldBySerial.erase(it);
      break;
    }
  }
  sd_bus_message_unref(std::exchange(call.pRemoteMessage, nullptr));
  const CBusRef<CBusCall> owned = m_held.Remove(call);
}

void CBusLink::SyncTypes() {
  uint64_t u64Asked = 0;
  {
    CCritLock lock(m_cs);
    u64Asked = m_u64TypesAsked;
  }
  if (m_u64TypesSent == u64Asked && !std::exchange(m_bTypesStale, false))
    return;
  m_u64TypesSent = u64Asked;
  Unserve();  // whoever changed them waits for the daemon's word, maybe on the very thread that serves
  std::set<uint32_t> wanted;
  for (const uint32_t uiType : m_pEndpoint->Types())
    wanted.insert(uiType);
  for (auto it = m_matches.begin(); it != m_matches.end();) {
    if (wanted.erase(it->first) != 0) {
      ++it;
      continue;
    }
    sd_bus_slot_unref(it->second);
    it = m_matches.erase(it);
  }
  for (const uint32_t uiType : wanted) {
    const std::string strMatch = std::string("type='signal',interface='") + kBusInterface +
                                 "',member='Broadcast',path='" + BusPathOf(uiType) + "'";
    sd_bus_slot* pSlot = nullptr;
    if (sd_bus_add_match_async(Bus(), &pSlot, strMatch.c_str(), &OnBroadcast, &OnTypeMatchAdded,
                               static_cast<CBusWire*>(this)) < 0)
      continue;
    m_matches.emplace(uiType, pSlot);
    ++m_uMatchesUnderWay;
  }
  if (m_uMatchesUnderWay == 0)
    TypesKnown();
}

int CBusLink::OnTypeMatchAdded(sd_bus_message* pMessage, void* pSelf, sd_bus_error* pError) {
  auto& self = *static_cast<CBusLink*>(static_cast<CBusWire*>(pSelf));
  if (--self.m_uMatchesUnderWay == 0)
    self.TypesKnown();
  return OnMatchAdded(pMessage, pSelf, pError);
}

void CBusLink::TypesKnown() {
  CCritLock lock(m_cs);
  m_u64TypesKnown = m_u64TypesSent;
  pthread_cond_broadcast(&m_condState);
}
