// The host's side of the bus: its functions, and the calls of the host object.
#include <cstdlib>
#include <cstring>
#include <exception>
#include <utility>

#include "platform/bus/BusCarrier.h"

bool CBusCarrier::RunHostCall(const std::shared_ptr<CBusControl>& pControl, uint64_t u64Call,
                              const char* pszMethod, const char* pszJson, uint32_t uiUid, uint32_t uiPid) {
  return m_helper.Post([this, pControl, u64Call, strMethod = std::string(pszMethod),
                        strJson = std::string(pszJson), uiUid,
                        uiPid] { HostCall(pControl, u64Call, strMethod, strJson, uiUid, uiPid); });
}

void CBusCarrier::HostCall(const std::shared_ptr<CBusControl>& pControl, uint64_t u64Call,
                           const std::string& strMethod, const std::string& strJson, uint32_t uiUid,
                           uint32_t uiPid) {
  PfnZxBusHost pfnHost = nullptr;
  void* pContext = nullptr;
  {
    CCritLock lock(m_cs);
    pfnHost = m_pfnHost;
    pContext = m_pHostContext;
    m_bHostCalled = pfnHost != nullptr;
  }
  std::string strAnswer;
  uint32_t uiResult = kBusErrNoReceiver;
  if (pfnHost != nullptr) {
    ZxBusHostCall call;
    call.pszMethod = strMethod.c_str();
    call.pszJson = strJson.c_str();
    call.uiUid = uiUid;
    call.uiPid = uiPid;
    call.pAnswer = &strAnswer;
    uiResult = pfnHost(&call, pContext);
    CCritLock lock(m_cs);
    m_bHostCalled = false;
    pthread_cond_broadcast(&m_cond);
  }
  pControl->Answer(u64Call, uiResult, std::move(strAnswer));
}

uint32_t CBusCarrier::ServeHost(PfnZxBusHost pfnHost, void* pContext) {
  std::shared_ptr<CBusControl> pOld, pNew;
  {
    CCritLock lock(m_cs);
    const bool bChanges = (m_pfnHost != nullptr) != (pfnHost != nullptr);
    m_pfnHost = pfnHost;
    m_pHostContext = pContext;
    if (bChanges && m_eState == EState::On) {
      pOld = std::move(m_pControl);
      pNew = m_pControl = std::make_shared<CBusControl>(*this, m_strAddress, pfnHost != nullptr);
    }
  }
  if (pOld != nullptr) {
    pOld->Stop();
    StartWire(pNew);
  }
  if (m_helper.IsOwnThread())
    return 0;
  CCritLock lock(m_cs);
  while (m_bHostCalled)
    pthread_cond_wait(&m_cond, m_cs.Native());
  return 0;
}

uint32_t ZxBusConnect(const ZxBusConnectSettings* pSettings) {
  if (pSettings == nullptr || pSettings->uiSize < sizeof(ZxBusConnectSettings) ||
      pSettings->pszAddress == nullptr || *pSettings->pszAddress == 0)
    return kBusErrInvalid;
  try {
    return CBusCarrier::Instance().Connect(*pSettings);
  } catch (const std::exception&) {
    return kBusErrBusy;
  }
}

void ZxBusDisconnect() {
  CBusCarrier::Instance().Disconnect();
}

uint32_t ZxBusStats(char* pszJson, uint32_t uiCapacity, uint32_t* puiNeeded) {
  if (pszJson == nullptr && uiCapacity != 0)
    return kBusErrInvalid;
  try {
    const std::string strJson = CBusCarrier::Instance().Stats();
    const auto uiNeeded = static_cast<uint32_t>(strJson.size() + 1);
    if (puiNeeded != nullptr)
      *puiNeeded = uiNeeded;
    if (uiCapacity < uiNeeded)
      return kBusErrTooLong;
    std::memcpy(pszJson, strJson.c_str(), uiNeeded);
    return 0;
  } catch (const std::exception&) {
    return kBusErrBusy;
  }
}

uint32_t ZxBusServeHost(PfnZxBusHost pfnHost, void* pContext) {
  try {
    return CBusCarrier::Instance().ServeHost(pfnHost, pContext);
  } catch (const std::exception&) {
    return kBusErrBusy;
  }
}

void ZxBusHostAnswer(const ZxBusHostCall* pCall, const char* pszJson) {
  if (pCall == nullptr || pCall->pAnswer == nullptr)
    return;
  try {
    *static_cast<std::string*>(pCall->pAnswer) = pszJson != nullptr ? pszJson : "";
  } catch (const std::exception&) {
    static_cast<std::string*>(pCall->pAnswer)->clear();
  }
}

void ZxBusFree(char* psz) {
  std::free(psz);
}
