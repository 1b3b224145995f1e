#include "support/FakeBus.h"

#include <algorithm>
#include <thread>

namespace {

std::string Bytes(const void* pData, uint32_t uiLength) {
  return pData == nullptr ? std::string() : std::string(static_cast<const char*>(pData), uiLength);
}

void RunCompletion(const _BusCall& call, uint32_t uiStatus, const std::string& strResponse) {
  std::thread([&] {
    call.pCallback->SendCallback(uiStatus, static_cast<long>(call.uiType),
                                 reinterpret_cast<const unsigned char*>(strResponse.data()),
                                 static_cast<unsigned int>(strResponse.size()), call.ui64ACT, call.pContext);
  }).join();
}

}  // namespace

void CFakeBus::SetResult(EBusCall eCall, uint32_t uiResult) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_results[eCall] = uiResult;
}

void CFakeBus::SetResult(EBusCall eCall, uint32_t uiType, uint32_t uiResult) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_typeResults[{eCall, uiType}] = uiResult;
}

void CFakeBus::CompleteAtOnce(uint32_t uiStatus, const std::string& strResponse) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_complete.emplace(uiStatus, strResponse);
}

void CFakeBus::SetHook(std::function<void(const _BusCall&)> hook) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_hook = std::move(hook);
}

std::vector<_BusCall> CFakeBus::Calls() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_calls;
}

std::vector<_BusCall> CFakeBus::Calls(EBusCall eCall) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::vector<_BusCall> calls;
  std::copy_if(m_calls.begin(), m_calls.end(), std::back_inserter(calls),
               [eCall](const _BusCall& call) { return call.eCall == eCall; });
  return calls;
}

size_t CFakeBus::Count(EBusCall eCall) const {
  return Calls(eCall).size();
}

bool CFakeBus::WaitCount(EBusCall eCall, size_t uCount, std::chrono::milliseconds deadline) const {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_cond.wait_for(lock, deadline, [&] {
    return static_cast<size_t>(std::count_if(m_calls.begin(), m_calls.end(), [eCall](const _BusCall& call) {
             return call.eCall == eCall;
           })) >= uCount;
  });
}

IMRReceiveComplete* CFakeBus::Receiver(uint32_t uiType) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  const auto it = m_receivers.find(uiType);
  return it == m_receivers.end() ? nullptr : it->second;
}

void CFakeBus::Complete(const _BusCall& call, uint32_t uiStatus, const std::string& strResponse) {
  if (call.pCallback != nullptr)
    RunCompletion(call, uiStatus, strResponse);
}

std::optional<CFakeBus::_Reply> CFakeBus::Deliver(const GUID& guidSender, uint32_t uiType,
                                                  const std::string& strData, bool bWantReply) {
  IMRReceiveComplete* pReceiver = Receiver(uiType);
  if (pReceiver == nullptr)
    return std::nullopt;
  char baton = 0;  // its address is the baton
  std::thread([&] {
    pReceiver->ReceiveCallback(guidSender, static_cast<long>(uiType),
                               reinterpret_cast<const unsigned char*>(strData.data()),
                               static_cast<unsigned int>(strData.size()), bWantReply ? &baton : nullptr,
                               static_cast<IBusContext*>(this));
  }).join();
  std::lock_guard<std::mutex> lock(m_mutex);
  const auto it = m_replies.find(&baton);
  if (it == m_replies.end())
    return std::nullopt;
  _Reply reply = it->second;
  m_replies.erase(it);
  return reply;
}

uint32_t CFakeBus::Record(const _BusCall& call) {
  std::function<void(const _BusCall&)> hook;
  uint32_t uiResult = 0;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.push_back(call);
    m_cond.notify_all();
    hook = m_hook;
    const auto it = m_typeResults.find({call.eCall, call.uiType});
    uiResult = it != m_typeResults.end() ? it->second : m_results[call.eCall];
  }
  if (hook)
    hook(call);
  return uiResult;
}

uint32_t CFakeBus::Initialize(const GUID* pOwn) {
  _BusCall call;
  call.guid = pOwn == nullptr ? GUID() : *pOwn;
  return Record(call);
}

void CFakeBus::Uninitialize() {
  _BusCall call;
  call.eCall = EBusCall::Uninitialize;
  Record(call);
}

uint32_t CFakeBus::Receive(uint32_t uiType, IMRReceiveComplete* pReceiver) {
  _BusCall call;
  call.eCall = EBusCall::Receive;
  call.uiType = uiType;
  const uint32_t uiResult = Record(call);
  if (uiResult == 0) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_receivers[uiType] = pReceiver;
  }
  return uiResult;
}

void CFakeBus::Unreceive(uint32_t uiType) {
  _BusCall call;
  call.eCall = EBusCall::Unreceive;
  call.uiType = uiType;
  Record(call);
  std::lock_guard<std::mutex> lock(m_mutex);
  m_receivers.erase(uiType);
}

uint32_t CFakeBus::AsynSendEx(const GUID* pTarget, uint32_t uiType, const void* pData, uint32_t uiLength,
                              IMRSendComplete* pCallback, void* pContext, unsigned long long* pui64ACT,
                              uint32_t uiTimeoutMs) {
  _BusCall call;
  call.eCall = EBusCall::AsynSendEx;
  call.guid = pTarget == nullptr ? GUID() : *pTarget;
  call.uiType = uiType;
  call.strData = Bytes(pData, uiLength);
  call.pCallback = pCallback;
  call.pContext = pContext;
  call.uiTimeoutMs = uiTimeoutMs;
  std::optional<std::pair<uint32_t, std::string>> complete;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    call.ui64ACT = ++m_ui64LastACT;
    complete = m_complete;
  }
  if (pui64ACT != nullptr)
    *pui64ACT = call.ui64ACT;
  const uint32_t uiResult = Record(call);
  if (uiResult == 0 && complete && pCallback != nullptr)
    RunCompletion(call, complete->first, complete->second);
  return uiResult;
}

uint32_t CFakeBus::BroadcastSend(uint32_t uiType, const void* pData, uint32_t uiLength) {
  _BusCall call;
  call.eCall = EBusCall::BroadcastSend;
  call.uiType = uiType;
  call.strData = Bytes(pData, uiLength);
  return Record(call);
}

uint32_t CFakeBus::Reply(uint32_t uiStatus, long i64MsgType, const void* pData, uint32_t uiLength,
                         void* pBatonData) {
  _BusCall call;
  call.eCall = EBusCall::Reply;
  call.uiType = uiStatus;
  call.strData = Bytes(pData, uiLength);
  call.pBatonData = pBatonData;
  call.i64MsgType = i64MsgType;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_replies[pBatonData] = {uiStatus, i64MsgType, call.strData};
  }
  return Record(call);
}
