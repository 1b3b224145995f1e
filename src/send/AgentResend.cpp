// The resend facility of the sender. It is kept dormant: the system drops a failed send and tells the caller.
#include <pthread.h>

#include <chrono>
#include <exception>
#include <memory>
#include <thread>

#include "data/AgentCodes.h"
#include "data/AgentHub.h"
#include "data/AgentLog.h"
#include "platform/os/ZxThread.h"
#include "send/AgentSendMsg.h"

namespace {

constexpr int kStatusRunning = 1;
constexpr int kStatusEnded = 2;
constexpr int kIdleSeconds = 9;
constexpr uint32_t kPauseMs = 1000;
constexpr uint32_t kRecordWaitMs = 5000;

// Without an event (memory was out) the pause only ends by itself.
void Pause(HZxEvent hEvent) {
  if (hEvent != nullptr)
    ZxWaitEventTimeout(hEvent, kPauseMs);
  else
    std::this_thread::sleep_for(std::chrono::milliseconds(kPauseMs));
}

bool IsCloudConnected() {
  IAgentHub* pHub = AgentHub();
  return pHub != nullptr && pHub->IsConnect() != 0;
}

}  // namespace

bool CAgentSendMsg::InsertResendMsg(_ResendData* pData) {
  std::unique_ptr<_ResendData> pOwned(pData);
  if (!ZxMsgQueueInsert(m_queueResend, 0, 0, pData, pData->strMsg.GetLength()))
    return false;
  static_cast<void>(pOwned.release());
  return true;
}

int CAgentSendMsg::GetResendStatus() {
  CCritLock lock(m_csResend);
  return m_iResendStatus;
}

void CAgentSendMsg::SetResendStatus(int iResendStatus) {
  {
    CCritLock lock(m_csResend);
    m_iResendStatus = iResendStatus;
  }
  if (m_hEventResend != nullptr)
    ZxSetEvent(m_hEventResend);
}

void* CAgentSendMsg::ReSendMsgThread(void* pThis) {
  pthread_detach(pthread_self());
  ZxSetThreadName("zxagentresend");
  auto* pSender = static_cast<CAgentSendMsg*>(pThis);
  if (pSender == nullptr) {
    LogError("**zxagent CAgentSendMsg::ReSendMsgThread pThis is NULL");
    return nullptr;
  }
  if (AgentHub() == nullptr) {
    LogError("**zxagent CAgentSendMsg::ReSendMsgThread pAgentMgr is NULL");
    return nullptr;
  }
  LogInfo("zxagent CAgentMgr::ReSendFailSendMsgThread Begin");
  {
    CCritLock lock(pSender->m_csResend);
    pSender->m_iResendStatus = kStatusRunning;
    pSender->m_hThreadResendId = pthread_self();
  }
  try {
    int iIdle = 0;
    while (pSender->GetResendStatus() == kStatusRunning) {
      if (pSender->ResendStep(iIdle))
        Pause(pSender->m_hEventResend);
    }
  } catch (const std::exception& e) {
    LogError("**zxagent CAgentSendMsg::ReSendMsgThread exception what[%s]", e.what());
  }
  CCritLock lock(pSender->m_csResend);
  pSender->m_iResendStatus = kStatusEnded;
  pSender->m_hThreadResendId = 0;
  return nullptr;
}

bool CAgentSendMsg::ResendStep(int& iIdle) {
  if (iIdle <= kIdleSeconds) {
    ++iIdle;
    return true;
  }
  ResendRound();
  iIdle = 0;
  return false;
}

// At most the records that are queued now; a record is sent once and then gone, whatever came of it.
void CAgentSendMsg::ResendRound() {
  const size_t uCount = ZxGetMsgCount(m_queueResend);
  for (size_t i = 0; i < uCount; ++i) {
    ZxMsgRecord record;
    if (!IsCloudConnected() || !ZxGetMsgFromQueue(m_queueResend, record, kRecordWaitMs))
      return;
    const std::unique_ptr<_ResendData> pData(static_cast<_ResendData*>(record.pData));
    if (pData == nullptr)
      continue;
    const uint32_t uiRet = ZxcloudSendMsg(pData->strProduct, pData->strCombo, pData->iPriv, pData->iMsgType,
                                          pData->u64DataId, pData->strMsg, pData->bSync, pData->bLogCache);
    if (uiRet != 0 && uiRet != kErrCloudMsgType)
      return;
  }
}
