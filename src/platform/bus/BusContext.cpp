#include "platform/bus/BusContext.h"

#include <algorithm>
#include <exception>

#include "platform/bus/BusRouter.h"

namespace {

constexpr uint32_t kMaxDispatchers = 64;

uint32_t CheckData(const void* pData, uint32_t uiLength) {
  if (pData == nullptr && uiLength != 0)
    return kBusErrInvalid;
  return uiLength > kBusMaxBytes ? uint32_t{kBusErrTooLong} : 0;
}

// Nothing thrown crosses the interface. What the bus itself can run into is lack of memory: try later.
template <class F>
uint32_t Guarded(F&& call) {
  try {
    return call();
  } catch (const std::exception&) {
    return kBusErrBusy;
  }
}

_BusLimits LimitsOf(const ZxBusSettings* pSettings) {
  _BusLimits limits;
  if (pSettings == nullptr || pSettings->uiSize < sizeof(ZxBusSettings))
    return limits;
  if (pSettings->uiDispatchers != 0)
    limits.uiDispatchers = std::min(pSettings->uiDispatchers, kMaxDispatchers);
  if (pSettings->uiMaxRecords != 0)
    limits.uMaxRecords = std::min<size_t>(pSettings->uiMaxRecords, CBusBatons::kMaxBatons);
  if (pSettings->uiMaxBytes != 0)
    limits.uMaxBytes = pSettings->uiMaxBytes;
  return limits;
}

}  // namespace

CBusContext::CBusContext(const _BusLimits& limits)
    : m_pEndpoint(std::make_shared<CBusEndpoint>(static_cast<IBusContext*>(this), limits)) {}

CBusContext::~CBusContext() {
  m_pEndpoint->Leave();
}

uint32_t CBusContext::Initialize(const GUID* pOwn) {
  if (pOwn == nullptr || *pOwn == GUID())
    return kBusErrInvalid;
  return Guarded([&] { return m_pEndpoint->Join(*pOwn); });
}

void CBusContext::Uninitialize() {
  m_pEndpoint->Leave();
}

uint32_t CBusContext::Receive(uint32_t uiType, IMRReceiveComplete* pReceiver) {
  if (pReceiver == nullptr)
    return kBusErrInvalid;
  return Guarded([&] { return m_pEndpoint->Receive(uiType, pReceiver); });
}

void CBusContext::Unreceive(uint32_t uiType) {
  m_pEndpoint->Unreceive(uiType);
}

uint32_t CBusContext::AsynSendEx(const GUID* pTarget, uint32_t uiType, const void* pData, uint32_t uiLength,
                                 IMRSendComplete* pCallback, void* pContext, unsigned long long* pui64ACT,
                                 uint32_t uiTimeoutMs) {
  if (pTarget == nullptr)
    return kBusErrInvalid;
  if (const uint32_t uiError = CheckData(pData, uiLength))
    return uiError;
  const uint32_t uiTimeout =
      uiTimeoutMs == 0 || uiTimeoutMs > kBusMaxTimeoutMs ? kBusMaxTimeoutMs : uiTimeoutMs;
  return Guarded([&] {
    return m_pEndpoint->Send(CBusRouter::Instance().Find(*pTarget), *pTarget, uiType, pData, uiLength,
                             pCallback, pContext, pui64ACT, uiTimeout);
  });
}

uint32_t CBusContext::BroadcastSend(uint32_t uiType, const void* pData, uint32_t uiLength) {
  if (const uint32_t uiError = CheckData(pData, uiLength))
    return uiError;
  return Guarded([&] {
    return m_pEndpoint->Broadcast(CBusRouter::Instance().AllBut(m_pEndpoint.get()), uiType, pData, uiLength);
  });
}

uint32_t CBusContext::Reply(uint32_t uiStatus, long i64MsgType, const void* pData, uint32_t uiLength,
                            void* pBatonData) {
  if (pBatonData == nullptr)
    return kBusErrInvalid;
  if (const uint32_t uiError = CheckData(pData, uiLength))
    return uiError;
  return Guarded([&] {
    return m_pEndpoint->Reply(uiStatus, i64MsgType, pData, uiLength, reinterpret_cast<uint64_t>(pBatonData));
  });
}

IBusContext* ZxBusCreateContext() {
  return ZxBusCreateContextWith(nullptr);
}

IBusContext* ZxBusCreateContextWith(const ZxBusSettings* pSettings) {
  try {
    return new CBusContext(LimitsOf(pSettings));
  } catch (const std::exception&) {
    return nullptr;
  }
}

void ZxBusDestroyContext(IBusContext* pContext) {
  delete static_cast<CBusContext*>(pContext);
}
