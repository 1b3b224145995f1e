// Work queue, work thread, check thread, and how Start and Stop deal with the agent's threads.
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <new>

#include "agent/AgentMgr.h"
#include "data/AgentLog.h"
#include "data/AgentThreads.h"
#include "platform/os/ZxFile.h"
#include "platform/os/ZxTime.h"

namespace {

constexpr uint32_t kWorkWaitMs = 5000;
constexpr uint32_t kBeginWaitMs = 5000;
constexpr int kStopPasses = 200;
constexpr uint32_t kStopPassMs = 300;
constexpr int kEndPasses = 20;
constexpr uint32_t kEndPassMs = 1;
constexpr size_t kTimeTextBytes = 64;

const char* TextOrEmpty(const char* psz) {
  return psz == nullptr ? "" : psz;
}

}  // namespace

bool CAgentMgr::AddZxcloudCallbackData(uint32_t dwMessage, uint32_t dwFlag, const char* pszData,
                                       int iLength) {
  std::unique_ptr<char[]> pCopy;
  size_t uBytes = 0;
  if (pszData != nullptr) {
    size_t uLength = 0;
    if (iLength == 0)
      uLength = std::strlen(pszData);
    else if (iLength > 0)
      uLength = strnlen(pszData, static_cast<size_t>(iLength));
    errno = EINVAL;
    if (iLength >= 0)
      pCopy.reset(new (std::nothrow) char[uLength + 1]);
    if (pCopy == nullptr)
      return LogWarn(
                 "*zxagent CAgentMgr::AddZxcloudCallbackData Error new iLength[%d] err[%d] dwMessage[%d] dwFlag[%d]",
                 iLength, errno, dwMessage, dwFlag) != 0;
    std::memcpy(pCopy.get(), pszData, uLength);
    pCopy[uLength] = 0;
    uBytes = uLength + 1;
    if (iLength == 0)
      iLength = static_cast<int>(uLength);
  }
  m_gaugeQueue.Add(1);  // before the work thread can take it off again
  if (!ZxMsgQueueInsert(m_queueData, dwMessage, dwFlag, pCopy.get(), uBytes)) {
    const int iError = errno;
    m_gaugeQueue.Add(-1);
    return LogWarn(
               "*zxagent CAgentMgr::AddZxcloudCallbackData Error ZxMsgQueueInsert iLength[%d] err[%d] dwMessage[%d] dwFlag[%d]",
               iLength, iError, dwMessage, dwFlag) != 0;
  }
  (void)pCopy.release();  // the queue's consumer owns it now
  LogDetail(
      "zxagent CAgentMgr::AddZxcloudCallbackData ZxMsgQueueInsert OK iLength[%d] dwMessage[%d] dwFlag[%d] m_queueData[%llu]\n",
      iLength, dwMessage, dwFlag, ZxGetMsgCount(m_queueData));
  return true;
}

// --- Starting and ending the threads.

// Created under the lock, so that the id stands before the thread can look at it or be cancelled by it.
int CAgentMgr::CreateWorkThread() {
  CCritLock lock(m_csStatus);
  m_iWorkStatus = 0;
  pthread_t hThreadId = 0;
  const int iThreadRet = AgentThreads().Create(&hThreadId, &WorkThread, nullptr);
  m_hThreadWorkId = iThreadRet == 0 ? hThreadId : 0;
  return iThreadRet;
}

int CAgentMgr::CreatePollMsgThread() {
  CCritLock lock(m_csStatus);
  m_iPollMsgStatus = 0;
  pthread_t hThreadId = 0;
  const int iThreadRet = AgentThreads().Create(&hThreadId, &PollMsgThread, nullptr);
  m_hThreadPollMsgId = iThreadRet == 0 ? hThreadId : 0;
  return iThreadRet;
}

void CAgentMgr::StartThreads() {
  const int iWorkRet = CreateWorkThread();
  const int iPollMsgRet = CreatePollMsgThread();
  pthread_t hThreadWorkId = 0;
  pthread_t hThreadPollMsgId = 0;
  {
    CCritLock lock(m_csStatus);
    hThreadWorkId = m_hThreadWorkId;
    hThreadPollMsgId = m_hThreadPollMsgId;
  }
  LogInfo("zxagent CAgentMgr::Start pthread_create WorkThread iThreadRet[%d] m_hThreadWorkId[%llu]", iWorkRet,
          hThreadWorkId);
  LogInfo("zxagent CAgentMgr::Start pthread_create PollMsgThread iThreadRet[%d] m_hThreadPollMsgId[%llu]",
          iPollMsgRet, hThreadPollMsgId);
  // A Stop right behind this finds threads that listen to it.
  const uint64_t u64Deadline = ZxGetTickCount() + kBeginWaitMs;
  while (m_hEventBegun != nullptr && !ThreadsBegun()) {
    const uint64_t u64Now = ZxGetTickCount();
    if (u64Now >= u64Deadline)
      break;
    ZxWaitEventTimeout(m_hEventBegun, static_cast<uint32_t>(u64Deadline - u64Now));
  }
}

bool CAgentMgr::ThreadsBegun() {
  CCritLock lock(m_csStatus);
  return (m_hThreadWorkId == 0 || m_iWorkStatus != 0) && (m_hThreadPollMsgId == 0 || m_iPollMsgStatus != 0);
}

bool CAgentMgr::HasThreads() {
  CCritLock lock(m_csStatus);
  return m_hThreadWorkId != 0 || m_hThreadPollMsgId != 0 || m_hThreadCheckId != 0;
}

// A thread that was never created counts as ended.
bool CAgentMgr::ThreadsEnded() {
  CCritLock lock(m_csStatus);
  return (m_hThreadWorkId == 0 || m_iWorkStatus == 2) && (m_hThreadPollMsgId == 0 || m_iPollMsgStatus == 2) &&
         m_hThreadCheckId == 0;
}

int CAgentMgr::WaitThreads() {
  // Idle threads end within a few milliseconds; only a busy one costs a whole pass.
  for (int i = 0; i < kEndPasses && !ThreadsEnded(); ++i)
    SleepMs(kEndPassMs);
  int iCount = 0;
  while (iCount < kStopPasses && !ThreadsEnded()) {
    ++iCount;
    m_fnSleepMs(kStopPassMs);
  }
  return iCount;
}

// A status or id that says "ended" is written by the thread itself under the lock, so a thread cancelled
// here, under the same lock, still exists.
void CAgentMgr::CancelThreads() {
  pthread_t hThreadWorkId = 0;
  pthread_t hThreadPollMsgId = 0;
  pthread_t hThreadCheckId = 0;
  {
    CCritLock lock(m_csStatus);
    if (m_hThreadWorkId != 0 && m_iWorkStatus != 2) {
      hThreadWorkId = m_hThreadWorkId;
      pthread_cancel(hThreadWorkId);
    }
    if (m_hThreadPollMsgId != 0 && m_iPollMsgStatus != 2) {
      hThreadPollMsgId = m_hThreadPollMsgId;
      pthread_cancel(hThreadPollMsgId);
    }
    if (m_hThreadCheckId != 0) {
      hThreadCheckId = m_hThreadCheckId;
      pthread_cancel(hThreadCheckId);
    }
    m_hThreadWorkId = 0;
    m_hThreadPollMsgId = 0;
    m_hThreadCheckId = 0;
  }
  if (hThreadWorkId != 0)
    LogWarn("*zxagent CAgentMgr::Stop Warn thread need kill work threadid[%llu]", hThreadWorkId);
  if (hThreadPollMsgId != 0)
    LogWarn("*zxagent CAgentMgr::Stop Warn thread need kill pollmsg threadid[%llu]", hThreadPollMsgId);
  if (hThreadCheckId != 0)
    LogWarn("*zxagent CAgentMgr::Stop Warn thread need kill check threadid[%llu]", hThreadCheckId);
}

// Wakes all threads, waits for them and cancels those that stay; the number of passes waited.
int CAgentMgr::EndThreads() {
  {
    CCritLock lock(m_csStatus);
    if (m_iWorkStatus != 2)
      m_iWorkStatus = 0;
    if (m_iPollMsgStatus != 2)
      m_iPollMsgStatus = 0;
  }
  AddZxcloudCallbackData(kWorkWake, 0, nullptr, 0);
  if (m_hEventPollMsg != nullptr)
    ZxSetEvent(m_hEventPollMsg);
  if (m_hEventCheck != nullptr)
    ZxSetEvent(m_hEventCheck);
  if (!HasThreads())
    return 0;
  const int iCount = WaitThreads();
  CancelThreads();
  return iCount;
}

// --- Work thread.

void* CAgentMgr::WorkThread(void*) {
  pthread_detach(pthread_self());
  ZxSetThreadName("zxagentwork");
  CAgentMgr* pThis = Current();
  if (pThis == nullptr) {
    LogError("**zxagent CAgentMgr::WorkThread pThis is NULL");
    return nullptr;
  }
  pThis->WorkLoop();
  return nullptr;
}

void CAgentMgr::WorkLoop() {
  LogInfo("zxagent CAgentMgr::WorkThread Begin");
  int iWorkStatus = 1;
  {
    CCritLock lock(m_csStatus);
    m_iWorkStatus = iWorkStatus;
  }
  if (m_hEventBegun != nullptr)
    ZxSetEvent(m_hEventBegun);
  while (iWorkStatus == 1) {
    ZxMsgRecord record;
    if (ZxGetMsgFromQueue(m_queueData, record, kWorkWaitMs))
      HandleRecord(record);
    CCritLock lock(m_csStatus);
    iWorkStatus = m_iWorkStatus;
  }
  {
    CCritLock lock(m_csStatus);
    m_iWorkStatus = 2;
  }
  LogInfo("zxagent CAgentMgr::WorkThread End");
}

void CAgentMgr::HandleRecord(const ZxMsgRecord& record) {
  const std::unique_ptr<char[]> pData(static_cast<char*>(record.pData));
  m_gaugeQueue.Add(-1);
  try {
    DispatchWork(record);
  } catch (const std::exception& e) {
    LogError("**zxagent CAgentMgr::WorkThread Error what[%s] dwMessage[%u] dwFlag[%u]", e.what(),
             record.dwMessage, record.dwFlag);
  }
}

void CAgentMgr::DispatchWork(const ZxMsgRecord& record) {
  char szTime[kTimeTextBytes] = {};
  ZxGetCurrentFmtTime(szTime, sizeof(szTime));
  // Maintenance reads the latest event of each kind from its record file. For kinds without one the path
  // stays the bare directory, and saving to it fails without effect.
  CPString strFile = m_strAgentPath;
  CPString strContent;
  const char* pszData = static_cast<const char*>(record.pData);
  const int iFlag = static_cast<int>(record.dwFlag);
  switch (record.dwMessage) {
    case kWorkTconf:
      strFile += "tconf";
      strContent.Format("%s,%s", szTime, TextOrEmpty(pszData));
      ZxcloudTconf(pszData);
      break;
    case kWorkConnect: {
      const uint16_t wPort = static_cast<uint16_t>(record.dwFlag);
      strFile += "connect";
      strContent.Format("%s,%s:%d", szTime, TextOrEmpty(pszData), wPort);
      ZxcloudConnect(pszData, wPort, 0);
      break;
    }
    case kWorkDisconnect:
      strFile += "disconnect";
      strContent.Format("%s", szTime);
      ZxcloudDisconnect();
      break;
    case kWorkPushmsg:
      ZxcloudPushmsg(iFlag, pszData);
      break;
    case kWorkPollmsg:
      ZxcloudPollmsg(iFlag, pszData);
      break;
    case kWorkData:
      strFile += CPString::Make("clouddata_%d", iFlag);
      strContent.Format("%s,%s", szTime, TextOrEmpty(pszData));
      ZxcloudData(iFlag, pszData);
      break;
    case kWorkGuidList:
      ZxagentGuidData(pszData);
      break;
    case kWorkEngineAddr:
      SendEngineAddr();
      break;
    case kWorkPolicy:
      DisposeTaskmgrPolicy(pszData);
      break;
    default:  // a wake-up, or a kind of another version
      break;
  }
  if (!strFile.IsEmpty())
    ZxSaveFileData(strFile, strContent);
}

// --- Check thread.

bool CAgentMgr::StartCheckThread() {
  // Signalled first: a running thread wakes at once, a new one finds the event set and runs one pass.
  if (m_hEventCheck != nullptr)
    ZxSetEvent(m_hEventCheck);
  int iThreadRet = 0;
  {
    CCritLock lock(m_csStatus);
    if (m_hThreadCheckId == 0) {
      pthread_t hThreadId = 0;
      iThreadRet = AgentThreads().Create(&hThreadId, &CheckTconfThread, nullptr);
      m_hThreadCheckId = iThreadRet == 0 ? hThreadId : 0;
    }
  }
  if (iThreadRet != 0)
    LogWarn("*zxagent CAgentMgr::StartCheckThread Error pthread_create iThreadRet[%d]", iThreadRet);
  return true;
}

void* CAgentMgr::CheckTconfThread(void*) {
  pthread_detach(pthread_self());
  ZxSetThreadName("zxagentcheck");
  CAgentMgr* pThis = Current();
  if (pThis == nullptr) {
    LogError("**zxagent CAgentMgr::CheckTconfThread pThis is NULL");
    return nullptr;
  }
  pThis->CheckLoop();
  return nullptr;
}

void CAgentMgr::CheckLoop() {
  LogInfo("zxagent CAgentMgr::CheckTconfThread Begin");
  while (IsWorking()) {
    if (m_hEventCheck == nullptr) {
      LogWarn("*zxagent CAgentMgr::CheckTconfThread m_hEventCheck is NULL");
      break;
    }
    ZxWaitEvent(m_hEventCheck);
    if (!IsWorking())
      break;
    try {
      if (ReMsgSrvAddrSet())
        InitZxcloud(1);
    } catch (const std::exception& e) {
      LogError("**zxagent CAgentMgr::CheckTconfThread Error what[%s]", e.what());
    }
  }
  {
    CCritLock lock(m_csStatus);
    m_hThreadCheckId = 0;
  }
  LogInfo("zxagent CAgentMgr::CheckTconfThread End");
}
