#include "send/AgentLogMsg.h"

#include <cerrno>
#include <ctime>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "data/AgentCodes.h"
#include "data/AgentHub.h"
#include "data/AgentLog.h"
#include "data/AgentThreads.h"
#include "platform/os/ZxThread.h"

namespace {

enum : uint32_t { kSendRecord = 0, kWakeUp = 2 };
constexpr uint32_t kWaitMs = 5000;
constexpr int kStopPasses = 200;
constexpr uint32_t kStopPassMs = 300;
constexpr int kBeginPasses = 1000;
constexpr int kEndPasses = 20;
constexpr uint32_t kBeginPassMs = 1;

// Counts one for a scope, also when the send inside it is cancelled.
class CGaugeScope {
 public:
  explicit CGaugeScope(CZxGauge& gauge) : m_gauge(gauge) { m_gauge.Add(1); }
  ~CGaugeScope() { m_gauge.Add(-1); }
  CGaugeScope(const CGaugeScope&) = delete;
  CGaugeScope& operator=(const CGaugeScope&) = delete;

 private:
  CZxGauge& m_gauge;
};

}  // namespace

void CAgentLogMsg::SleepMs(uint32_t dwMs) {
  timespec ts{static_cast<time_t>(dwMs / 1000), static_cast<long>(dwMs % 1000) * 1000000};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

CAgentLogMsg::CAgentLogMsg(TSleepMs fnSleepMs) : m_fnSleepMs(std::move(fnSleepMs)) {
  ZxMsgQueueInit(m_queue);
}

CAgentLogMsg::~CAgentLogMsg() {
  Drain();
  ZxMsgQueueFini(m_queue);
}

void CAgentLogMsg::SetBudget(size_t uMaxBytes) {
  ZxMsgQueueSetMaxBytes(m_queue, uMaxBytes);
}

int CAgentLogMsg::Init(CAgentSendMsg* pSendMsg) {
  m_pSendMsg = pSendMsg;
  for (int i = 0; i < kWorkers; ++i) {
    _Slot& slot = m_slots[i];
    if (slot.hThreadLogId != 0)
      continue;  // a host that starts twice keeps the workers it has
    slot.iIndex = i;
    slot.hThreadLogId = 0;
    slot.pOwner = this;
    SetStatus(slot, 0);
    const int iThreadRet = AgentThreads().Create(&slot.hThreadLogId, &CAgentLogMsg::LogThread, &slot);
    if (iThreadRet != 0)
      slot.hThreadLogId = 0;
    LogInfo("zxagent CAgentLogMsg::Init pthread_create LogThread i[%d] iThreadRet[%d] hThreadLogId[%llu]", i,
            iThreadRet, slot.hThreadLogId);
  }
  WaitBegun();
  LogInfo("zxagent CAgentLogMsg::Init OK");
  return 1;
}

// A worker sets its own status when it begins; one that Uninit overtook would set "running" over "stop".
void CAgentLogMsg::WaitBegun() {
  for (int iPass = 0; iPass < kBeginPasses; ++iPass) {
    bool bBegun = true;
    for (const _Slot& slot : m_slots)
      bBegun = bBegun && (slot.hThreadLogId == 0 || Status(slot) != 0);
    if (bBegun)
      return;
    SleepMs(kBeginPassMs);
  }
}

uint32_t CAgentLogMsg::InsertSendMsg(const CPString& strProduct, const CPString& strCombo, int iPriv,
                                     int iMsgType, unsigned long long u64DataId, CPString strMsg,
                                     uint32_t uiKind) {
  const HLog hLog = g_hLogCache.load(std::memory_order_relaxed);
  std::unique_ptr<_LogMsgData> pData(new (std::nothrow) _LogMsgData);
  if (pData == nullptr) {
    m_gaugeRefused.Add(1);
    LogWarnTo(
        hLog,
        "*zxagent Error InsertSendMsg new Error u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s] strMsg[%s]",
        u64DataId, iPriv, iMsgType, strProduct, strCombo, strMsg);
    return kErrNoManager;
  }
  pData->strProduct = strProduct;
  pData->strCombo = strCombo;
  pData->iPriv = iPriv;
  pData->iMsgType = iMsgType;
  pData->u64DataId = u64DataId;
  pData->strMsg = std::move(strMsg);
  pData->uiKind = uiKind;
  CountWaiting(*pData, 1);  // before a worker can take it out again
  if (!ZxMsgQueueInsert(m_queue, kSendRecord, 0, pData.get(), RecordBytes(*pData))) {
    CountWaiting(*pData, -1);
    m_gaugeRefused.Add(1);
    LogWarnTo(
        hLog,
        "*zxagent Error InsertSendMsg insert queue Error u64DataId[%llx] iPriv[%d] iMsgType[%d] strProduct[%s] strCombo[%s] strMsg[%s]",
        u64DataId, iPriv, iMsgType, strProduct, strCombo, pData->strMsg);
    return kErrNoManager;
  }
  (void)pData.release();
  return 0;
}

void* CAgentLogMsg::LogThread(void* pLogData) {
  pthread_detach(pthread_self());
  auto* pSlot = static_cast<_Slot*>(pLogData);
  if (pSlot == nullptr) {
    LogWarn("*zxagent CAgentLogMsg::LogThread pLogData is NULL");
    return nullptr;
  }
  ZxSetThreadName(CPString::Make("zxagentlog%02d", pSlot->iIndex + 1).c_str());
  // Else each acknowledgement stops the link's thread, which has the next ones at hand. Worth nothing to
  // report: where it is refused uploads only cost more.
  (void)ZxSetThreadBatch();
  LogInfo("zxagent CAgentLogMsg::LogThread Begin iIndex[%d]", pSlot->iIndex);
  CAgentLogMsg* pOwner = pSlot->pOwner;
  if (pOwner == nullptr || pOwner->m_pSendMsg == nullptr) {
    if (pOwner != nullptr)
      pOwner->SetStatus(*pSlot, 2);
    else
      pSlot->iStatus = 2;
    LogInfo("zxagent CAgentLogMsg::LogThread pAgentLogMsg is NULL iIndex[%d]", pSlot->iIndex);
    return nullptr;
  }
  if (AgentHub() == nullptr) {
    pOwner->SetStatus(*pSlot, 2);
    LogError("**zxagent CAgentLogMsg::LogThread pAgentMgr is NULL iIndex[%d]", pSlot->iIndex);
    return nullptr;
  }
  pOwner->SetStatus(*pSlot, 1);
  pOwner->Run(*pSlot);
  return nullptr;
}

void CAgentLogMsg::Run(_Slot& slot) {
  while (Status(slot) == 1) {
    try {
      SendOne();
    } catch (const std::exception& e) {
      LogError("**zxagent CAgentLogMsg::LogThread Error what[%s] iIndex[%d]", e.what(), slot.iIndex);
    }
  }
  LogInfo("zxagent CAgentLogMsg::LogThread End iIndex[%d]", slot.iIndex);
  SetStatus(slot, 2);
}

void CAgentLogMsg::SendOne() {
  ZxMsgRecord record;
  if (!ZxGetMsgFromQueue(m_queue, record, kWaitMs) || record.pData == nullptr)
    return;
  const std::unique_ptr<_LogMsgData> pData(static_cast<_LogMsgData*>(record.pData));
  CountWaiting(*pData, -1);
  uint32_t uiResult = 0;
  {
    const CGaugeScope sending(m_gaugeSending);
    uiResult = Send(*pData);
  }
  (uiResult == 0 ? m_gaugeSent : m_gaugeFailed).Add(1);
  Report(*pData, uiResult);
}

// The component learns of a send that memory did not suffice for, as of any other failure.
uint32_t CAgentLogMsg::Send(const _LogMsgData& data) {
  try {
    return m_pSendMsg->ZxcloudSendMsg(data.strProduct, data.strCombo, data.iPriv, data.iMsgType,
                                      data.u64DataId, data.strMsg, 1, 1);
  } catch (const std::exception& e) {
    return LogFailError(kErrNoManager, "**zxagent CAgentLogMsg::Send Error what[%s] u64DataId[%llx]",
                        e.what(), data.u64DataId);
  }
}

void CAgentLogMsg::Report(const _LogMsgData& data, uint32_t uiResult) {
  IAgentHub* pHub = AgentHub();
  if (pHub == nullptr)
    return;
  const int iResult = static_cast<int>(uiResult);
  if (data.uiKind == kUploadTaskMgr)
    pHub->SendTaskMgrResult(iResult, data.u64DataId, data.iPriv, data.iMsgType, data.strProduct,
                            data.strCombo);
  else
    pHub->SendLogCacheResult(iResult, data.u64DataId, data.iPriv, data.iMsgType, data.strProduct,
                             data.strCombo);
}

int CAgentLogMsg::Uninit() {
  for (_Slot& slot : m_slots) {
    const CCritLock lock(m_csSlots);
    if (slot.iStatus != 2)
      slot.iStatus = 0;
  }
  for (int i = 0; i < kWorkers; ++i)
    ZxMsgQueueInsert(m_queue, kWakeUp, 0, nullptr);
  WaitEnded();
  const auto uSending = static_cast<size_t>(m_gaugeSending.Value());  // cancelled in the next step
  for (_Slot& slot : m_slots) {
    const pthread_t hThreadLogId = slot.hThreadLogId;
    if (CancelWorker(slot))
      LogWarn("*zxagent CAgentLogMsg::Uninit Warn thread need kill i[%d] threadid[%llu]", slot.iIndex,
              hThreadLogId);
  }
  const size_t uCount = Drain() + uSending;
  if (uCount != 0)
    LogWarn("*zxagent CAgentLogMsg::Uninit Warn accepted and not sent uCount[%llu] uSending[%llu]", uCount,
            uSending);
  return 1;
}

// A worker writes its last status under the lock, so one that has not written it still exists.
bool CAgentLogMsg::CancelWorker(_Slot& slot) {
  const CCritLock lock(m_csSlots);
  const pthread_t hThreadLogId = std::exchange(slot.hThreadLogId, 0);
  if (hThreadLogId == 0 || slot.iStatus == 2)
    return false;
  pthread_cancel(hThreadLogId);
  return true;
}

// Slots that never had a thread count as ended.
bool CAgentLogMsg::AllEnded() {
  for (const _Slot& slot : m_slots) {
    if (slot.hThreadLogId != 0 && Status(slot) != 2)
      return false;
  }
  return true;
}

void CAgentLogMsg::WaitEnded() {
  // Idle workers end within a few milliseconds; only a busy one costs a whole pass.
  for (int i = 0; i < kEndPasses && !AllEnded(); ++i)
    SleepMs(kBeginPassMs);
  for (int iPass = 0; iPass < kStopPasses && !AllEnded(); ++iPass)
    m_fnSleepMs(kStopPassMs);
}

size_t CAgentLogMsg::Drain() {
  size_t uDropped = 0;
  ZxMsgRecord record;
  while (ZxGetMsgFromQueue(m_queue, record, 0)) {
    if (record.pData == nullptr)
      continue;
    const std::unique_ptr<_LogMsgData> pData(static_cast<_LogMsgData*>(record.pData));
    CountWaiting(*pData, -1);
    ++uDropped;
  }
  return uDropped;
}

void CAgentLogMsg::CountWaiting(const _LogMsgData& data, int iSign) {
  m_gaugeWaiting.Add(iSign);
  m_gaugeWaitingBytes.Add(iSign * static_cast<int64_t>(RecordBytes(data)));
}

int CAgentLogMsg::Status(const _Slot& slot) {
  const CCritLock lock(m_csSlots);
  return slot.iStatus;
}

void CAgentLogMsg::SetStatus(_Slot& slot, int iStatus) {
  const CCritLock lock(m_csSlots);
  slot.iStatus = iStatus;
}
