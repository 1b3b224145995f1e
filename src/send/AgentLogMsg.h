// Uploads what components hand over (log caches, task-manager results): one queue, 32 workers, each sending
// blocking, so that a slow cloud never stalls the bus. Every outcome is told to the component through the
// manager. Owned by CAgentMgr. Threads: InsertSendMsg from any thread; Init and Uninit on the host's thread.
// The lock guards slot states only. Waiting records are bounded in bytes (SetBudget); beyond it InsertSendMsg
// refuses.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <functional>

#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"
#include "platform/os/ZxGauges.h"
#include "platform/os/ZxMsgQueue.h"
#include "platform/text/PString.h"
#include "send/AgentSendMsg.h"

enum : uint32_t { kUploadLogCache = 1, kUploadTaskMgr = 2 };  // any other kind counts as a log cache

// Deleted by whoever takes it out of the queue.
struct _LogMsgData {
  CPString strProduct;
  CPString strCombo;
  int iPriv = 0;
  int iMsgType = 0;
  unsigned long long u64DataId = 0;
  CPString strMsg;
  uint32_t uiKind = 0;
};

// What a record counts against the budget: everything that the component decides the size of.
inline size_t RecordBytes(const _LogMsgData& data) {
  return sizeof(data) + data.strProduct.GetLength() + data.strCombo.GetLength() + data.strMsg.GetLength();
}

class CAgentLogMsg {
 public:
  static constexpr int kWorkers = 32;

  // Pauses the calling thread.
  using TSleepMs = std::function<void(uint32_t dwMs)>;
  static void SleepMs(uint32_t dwMs);

  // fnSleepMs: the pauses of a stop that waits for its workers; tests may give their own.
  explicit CAgentLogMsg(TSleepMs fnSleepMs = &SleepMs);
  ~CAgentLogMsg();
  CAgentLogMsg(const CAgentLogMsg&) = delete;
  CAgentLogMsg& operator=(const CAgentLogMsg&) = delete;

  // Bytes that waiting records may take (RecordBytes each); default kZxMsgQueueMaxBytes. Any time.
  void SetBudget(size_t uMaxBytes);
  int Init(CAgentSendMsg* pSendMsg);  // borrowed; always 1
  int Uninit();                       // always 1; at most 60 seconds, then workers are cancelled
  // 0 or kErrNoManager (out of memory, or the queue is full: nothing is queued).
  uint32_t InsertSendMsg(const CPString& strProduct, const CPString& strCombo, int iPriv, int iMsgType,
                         unsigned long long u64DataId, CPString strMsg, uint32_t uiKind);
  static void* LogThread(void* pLogData);

 private:
  struct _Slot {
    int iIndex = 0;
    int iStatus = 0;  // 0 not running or asked to stop, 1 running, 2 ended; guarded by the owner's lock
    pthread_t hThreadLogId = 0;
    CAgentLogMsg* pOwner = nullptr;
  };

  void Run(_Slot& slot);
  void SendOne();  // waits for one item, sends it and reports the outcome
  uint32_t Send(const _LogMsgData& data);
  static void Report(const _LogMsgData& data, uint32_t uiResult);
  void WaitEnded();
  bool AllEnded();
  bool CancelWorker(_Slot& slot) TS_EXCLUDES(m_csSlots);  // true: it was still running
  void WaitBegun();
  size_t Drain();  // records dropped
  void CountWaiting(const _LogMsgData& data, int iSign);
  int Status(const _Slot& slot) TS_EXCLUDES(m_csSlots);
  void SetStatus(_Slot& slot, int iStatus) TS_EXCLUDES(m_csSlots);

  const TSleepMs m_fnSleepMs;
  CCritSec m_csSlots;
  ZxMsgQueue m_queue;  // of _LogMsgData; kWakeUp items carry none
  _Slot m_slots[kWorkers];
  CAgentSendMsg* m_pSendMsg = nullptr;

  CZxGauge m_gaugeWaiting{"agent.uploads.waiting"};
  CZxGauge m_gaugeWaitingBytes{"agent.uploads.waiting_bytes"};  // RecordBytes of each
  CZxGauge m_gaugeSending{"agent.uploads.sending"};             // workers inside a blocking send
  CZxGauge m_gaugeRefused{"agent.uploads.refused"};
  CZxGauge m_gaugeSent{"agent.uploads.sent"};
  CZxGauge m_gaugeFailed{"agent.uploads.failed"};
};
