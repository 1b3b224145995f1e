// The context that a component sees: checks arguments, finds the target, and keeps exceptions inside.
// Threads: any.
#pragma once

#include <memory>

#include "platform/bus/BusEndpoint.h"
#include "platform/bus/zxbus.h"

class CBusContext final : public IBusContext {
 public:
  explicit CBusContext(const _BusLimits& limits);
  ~CBusContext();
  CBusContext(const CBusContext&) = delete;
  CBusContext& operator=(const CBusContext&) = delete;

  uint32_t Initialize(const GUID* pOwn) override;
  void Uninitialize() override;
  uint32_t Receive(uint32_t uiType, IMRReceiveComplete* pReceiver) override;
  void Unreceive(uint32_t uiType) override;
  uint32_t AsynSendEx(const GUID* pTarget, uint32_t uiType, const void* pData, uint32_t uiLength,
                      IMRSendComplete* pCallback, void* pContext, unsigned long long* pui64ACT,
                      uint32_t uiTimeoutMs) override;
  uint32_t BroadcastSend(uint32_t uiType, const void* pData, uint32_t uiLength) override;
  uint32_t Reply(uint32_t uiStatus, long i64MsgType, const void* pData, uint32_t uiLength,
                 void* pBatonData) override;

 private:
  const std::shared_ptr<CBusEndpoint> m_pEndpoint;
};
