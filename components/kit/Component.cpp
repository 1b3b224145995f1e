#include "kit/Component.h"

#include <exception>
#include <utility>

uint32_t CBaton::Reply(uint32_t uiStatus, std::string_view data) const {
  if (pHandle == nullptr)
    return 0;
  return pBus->Reply(uiStatus, i64MsgType, data.data(), static_cast<uint32_t>(data.size()), pHandle);
}

CComponent::CComponent(const char* pszGuid, const char* pszChannel, std::vector<uint32_t> types)
    : m_pszGuid(pszGuid), m_pszChannel(pszChannel), m_types(std::move(types)) {}

CComponent::~CComponent() {
  LogUninit(m_hLog);
}

void CComponent::Initialize(std::string strHome) {
  m_strHome = std::move(strHome);
  if (m_hLog == nullptr)
    m_hLog = LogInit(m_pszChannel);
}

int CComponent::Start() {
  if (m_pBus == nullptr)
    return LogWarnTo(m_hLog, "*component guid[%s] has no bus context", m_pszGuid) - 1;
  const GUID guid(m_pszGuid);
  uint32_t uiRet = m_pBus->Initialize(&guid);
  if (uiRet != 0)
    return LogWarnTo(m_hLog, "*component guid[%s] cannot join the bus iRet[%x]", m_pszGuid, uiRet) - 1;
  for (const uint32_t uiType : m_types) {
    if (uiRet == 0)
      uiRet = m_pBus->Receive(uiType, this);
  }
  if (uiRet != 0)
    LogWarnTo(m_hLog, "*component guid[%s] cannot receive its types iRet[%x]", m_pszGuid, uiRet);
  if (uiRet == 0 && OnStart()) {
    LogInfoTo(m_hLog, "component guid[%s] started home[%s]", m_pszGuid, m_strHome);
    return 0;
  }
  m_pBus->Uninitialize();
  return -1;
}

int CComponent::Stop() {
  OnStop();
  if (m_pBus != nullptr)
    m_pBus->Uninitialize();  // no message and no completion comes behind this
  LogInfoTo(m_hLog, "component guid[%s] stopped", m_pszGuid);
  return 0;
}

void CComponent::ReceiveCallback(const GUID& recvGuid, long i64MsgType, const unsigned char* pData,
                                 unsigned int uiDataLength, void* pBatonData, void* pContext) {
  const CBaton baton{static_cast<IBusContext*>(pContext), pBatonData, i64MsgType};
  const std::string_view data(reinterpret_cast<const char*>(pData), pData == nullptr ? 0 : uiDataLength);
  try {
    OnMessage(recvGuid, static_cast<uint32_t>(i64MsgType), data, baton);
  } catch (const std::exception& e) {
    LogErrorTo(m_hLog, "**component guid[%s] what[%s] i64MsgType[%lld]", m_pszGuid, e.what(), i64MsgType);
    baton.Reply(kComponentErrFailed, {});
  }
}
