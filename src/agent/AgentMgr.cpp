// Life cycle of the manager: construction, start, stop, destruction.
#include "agent/AgentMgr.h"

#include <time.h>

#include <cerrno>
#include <new>
#include <utility>

#include "data/AgentCodes.h"
#include "data/AgentLog.h"
#include "data/AgentThreads.h"
#include "data/AgentTools.h"
#include "receive/AgentReceive.h"

namespace {

constexpr int kDirMode = 0755;
constexpr uint32_t kCloseWaitMs = 5000;  // for threads that are on their last instructions

}  // namespace

constinit std::atomic<CAgentMgr*> CAgentMgr::m_pThis{nullptr};

CAgentMgr* CAgentMgr::Instance() {
  CAgentMgr* pMgr = Current();
  if (pMgr != nullptr)
    return pMgr;
  try {
    pMgr = new (std::nothrow) CAgentMgr;
  } catch (const std::bad_alloc&) {
    return nullptr;  // one of its members
  }
  SetCurrent(pMgr);
  return pMgr;
}

CAgentMgr* CAgentMgr::Current() {
  return m_pThis.load(std::memory_order_acquire);
}

CAgentMgr* CAgentMgr::SetCurrent(CAgentMgr* pMgr) {
  SetAgentHub(pMgr);
  SetAgentQueries(pMgr);
  return m_pThis.exchange(pMgr, std::memory_order_acq_rel);
}

void CAgentMgr::Close() {
  CAgentMgr* pMgr = Current();
  if (pMgr == nullptr)
    return;
  if (pMgr->IsWorking())
    pMgr->Stop();
  SetCurrent(nullptr);
  if (!AgentThreads().Wait(kCloseWaitMs)) {
    LogError("**zxagent CAgentMgr::Close Error threads still run, the manager stays uRunning[%u]",
             AgentThreads().Running());
    return;
  }
  delete pMgr;
}

void CAgentMgr::SleepMs(uint32_t dwMs) {
  timespec ts{static_cast<time_t>(dwMs / 1000), static_cast<long>(dwMs % 1000) * 1000000};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

CAgentMgr::CAgentMgr(CPString strSystemRoot, TSleepMs fnSleepMs)
    : m_guidTaskMgr(kTaskMgrGuid),
      m_strSystemRoot(std::move(strSystemRoot)),
      m_fnSleepMs(std::move(fnSleepMs)),
      m_AgentData(m_strSystemRoot),
      m_AgentLogMsg(m_fnSleepMs),
      m_AgentMaint(m_fnSleepMs) {
  ZxMsgQueueInit(m_queueData);
  m_hEventPollMsg = ZxCreateEvent();
  m_hEventCheck = ZxCreateEvent();
  m_hEventBegun = ZxCreateEvent();
  LogUninit(g_hLogZxcloud.exchange(LogInit("zxcloud")));
}

CAgentMgr::~CAgentMgr() {
  LogUninit(g_hLogZxcloud.exchange(nullptr));
  ZxDestroyEvent(std::exchange(m_hEventBegun, nullptr));
  ZxDestroyEvent(std::exchange(m_hEventCheck, nullptr));
  ZxDestroyEvent(std::exchange(m_hEventPollMsg, nullptr));
  ZxMsgRecord record;
  while (ZxGetMsgFromQueue(m_queueData, record, 0))
    delete[] static_cast<char*>(record.pData);
  ZxMsgQueueFini(m_queueData);
}

bool CAgentMgr::Init() {
  return Init(CAgentTools::GetHomePath());
}

bool CAgentMgr::Init(CPString strHomePath) {
  LogInfo("zxagent CAgentMgr::Init Begin 20250815 11.00");
  // Without a home the later steps report the missing paths themselves.
  if (strHomePath.IsEmpty()) {
    LogWarn("*zxagent CAgentMgr::Init Error strHomePath is empty");
  } else {
    m_strHomePath = std::move(strHomePath);
    m_strAgentPath = m_strHomePath + "data/zxagent/maint/";
    if (!CAgentTools::CreateDirectory(m_strAgentPath, kDirMode))
      LogWarn("*zxagent CAgentMgr::Init Error CreateDirectory m_strAgentPath[%s] Error[%d]", m_strAgentPath,
              errno);
    LogInfo("zxagent CAgentMgr::Init m_strHomePath[%s] m_strAgentPath[%s]", m_strHomePath, m_strAgentPath);
  }
  LogInfo("zxagent CAgentMgr::Init End");
  return true;
}

void CAgentMgr::SetCtx(void* pCompCtx) {
  m_pCompCtx = static_cast<IBusContext*>(pCompCtx);
  LogInfo("zxagent CAgentMgr::SetCtx m_pCompCtx[%p]", pCompCtx);
}

bool CAgentMgr::InitCompCtx() {
  if (m_pCompCtx == nullptr)
    return LogError("**zxagent CAgentMgr::InitCompCtx Error m_pCompCtx is NULL") != 0;
  const GUID guidAgent(kAgentGuid);
  const uint32_t iRet = m_pCompCtx->Initialize(&guidAgent);
  if (iRet != 0)
    LogWarn("*zxagent CAgentMgr::InitCompCtx Warn Initialize iRet[%x]", iRet);
  RegisterReceiver();
  LogInfo("zxagent CAgentMgr::InitCompCtx OK\n");
  return true;
}

// Registration failures never fail the start.
void CAgentMgr::RegisterReceiver() {
  const auto fnReceive = [this](uint32_t uiType) {
    return m_pCompCtx->Receive(uiType, &CAgentReceive::m_AgentReceive);
  };
  if (const uint32_t iRet = fnReceive(AGENT_MSG_SYNC_LOGCACHE); iRet != 0)
    LogWarn("*zxagent CAgentMgr::InitCompCtx Warn Receive AGENT_MSG_SYNC_LOGCACHE iRet[%x]", iRet);
  if (const uint32_t iRet = fnReceive(AGENT_MSG_SYNC_SETCONNECT); iRet != 0)
    LogWarn("*zxagent CAgentMgr::InitCompCtx Warn Receive AGENT_MSG_SYNC_SETCONNECT iRet[%x]", iRet);
  if (const uint32_t iRet = fnReceive(AGENT_MSG_SYNC_GETCONNECT); iRet != 0)
    LogWarn("*zxagent CAgentMgr::InitCompCtx Warn Receive AGENT_MSG_SYNC_GETCONNECT iRet[%x]", iRet);
  if (const uint32_t iRet = fnReceive(AGENT_MSG_SYNC_TESTCONNECT); iRet != 0)
    LogWarn("*zxagent CAgentMgr::InitCompCtx Warn Receive AGENT_MSG_SYNC_TESTCONNECT iRet[%x]", iRet);
  if (const uint32_t iRet = fnReceive(AGENT_MSG_SYNC_GETCLIENTREADY); iRet != 0)
    LogWarn("*zxagent CAgentMgr::InitCompCtx Warn Receive AGENT_MSG_SYNC_GETCLIENTREADY iRet[%x]", iRet);
  if (const uint32_t iRet = fnReceive(KBUS_MSG_TYPE_BST_AUTH_EVENT); iRet != 0)
    LogWarn("*zxagent CAgentMgr::InitCompCtx Warn Receive KBUS_MSG_TYPE_BST_AUTH_EVENT iRet[%x]", iRet);
  if (const uint32_t iRet = fnReceive(AGENT_MSG_SYNC_GETPLUGINGUID); iRet != 0)
    LogWarn("*zxagent CAgentMgr::InitCompCtx Warn Receive AGENT_MSG_SYNC_GETPLUGINGUID iRet[%x]", iRet);
  if (const uint32_t iRet = fnReceive(AGENT_MSG_ASYNC_SENDTEMPLATE); iRet != 0)
    LogWarn("*zxagent CAgentMgr::InitCompCtx Warn Receive AGENT_MSG_ASYNC_SENDTEMPLATE iRet[%x]", iRet);
  if (const uint32_t iRet = fnReceive(TASKMGR_MSG_TYPE_ASYNC); iRet != 0)
    LogWarn("*zxagent CAgentMgr::InitCompCtx Warn Receive TASKMGR_MSG_TYPE_ASYNC iRet[%x]", iRet);
}

void CAgentMgr::UnregisterReceiver() {
  constexpr uint32_t kTypes[] = {
      TASKMGR_MSG_TYPE_ASYNC,     AGENT_MSG_ASYNC_SENDTEMPLATE,  AGENT_MSG_SYNC_GETPLUGINGUID,
      AGENT_MSG_SYNC_LOGCACHE,    AGENT_MSG_SYNC_SETCONNECT,     AGENT_MSG_SYNC_GETCONNECT,
      AGENT_MSG_SYNC_TESTCONNECT, AGENT_MSG_SYNC_GETCLIENTREADY, KBUS_MSG_TYPE_BST_AUTH_EVENT};
  if (m_pCompCtx == nullptr)
    return;
  for (const uint32_t uiType : kTypes)
    m_pCompCtx->Unreceive(uiType);
}

bool CAgentMgr::Start() {
  LogInfo("zxagent CAgentMgr::Start Begin [%s] 2024-11-30 13:50", "Linux Release");
  // The store is read without locks once the threads run.
  if (HasThreads()) {
    LogWarn("*zxagent CAgentMgr::Start Warn already started");
    return true;
  }
  SetWork(1);
  if (!m_AgentData.Init(m_strHomePath))
    return LogError("**zxagent CAgentMgr::Start Error Init Error") != 0;
  if (!GetConfig())
    return LogError("**zxagent CAgentMgr::Start Error GetConfig Error") != 0;
  if (!InitCompCtx())
    return LogError("**zxagent CAgentMgr::Start Error InitCompCtx Error") != 0;
  m_AgentSendMsg.Init();
  m_AgentCache.Init(m_strHomePath);
  m_AgentLogMsg.Init(&m_AgentSendMsg);
  m_AgentMaint.Init(m_strHomePath);
  m_AgentAsset.Init(m_strHomePath);
  const uint32_t iRet = InitZxcloud(0);
  if (iRet != 0) {
    // The host sees a started agent; the channel stays down until somebody initialises it again.
    LogError("**zxagent CAgentMgr::Start Error InitZxcloud iRet[%x]", iRet);
    return true;
  }
  StartThreads();
  SendGuidList2Taskmgr();
  AddZxcloudCallbackData(kWorkEngineAddr, 0, nullptr, 0);
  LogInfo("zxagent CAgentMgr::Start End");
  return true;
}

bool CAgentMgr::Stop() {
  LogInfo("zxagent CAgentMgr::Stop Begin");
  SetWork(0);
  UnregisterReceiver();
  LogInfo("zxagent CAgentMgr::Stop m_pCompCtx Unreceive");
  const int bLogMsg = m_AgentLogMsg.Uninit();
  LogInfo("zxagent CAgentMgr::Stop m_AgentLogMsg.Uninit bStatus[%d]", bLogMsg);
  const int bMaint = m_AgentMaint.Uninit();
  LogInfo("zxagent CAgentMgr::Stop m_AgentMaint.Uninit bStatus[%d]", bMaint);
  const int bSendMsg = m_AgentSendMsg.Uninit();
  LogInfo("zxagent CAgentMgr::Stop m_AgentSendMsg.Uninit bStatus[%d]", bSendMsg);
  const uint32_t uZxcloudInits = m_uZxcloudInits.load();
  const bool bZxcloud = UninitZxcloud();
  LogInfo("zxagent CAgentMgr::Stop UninitZxcloud bStatus[%d]", bZxcloud);
  const int iCount = EndThreads();
  // A poll or check thread may have been in the middle of a re-initialisation.
  if (m_uZxcloudInits.load() != uZxcloudInits)
    UninitZxcloud();
  LogInfo("zxagent CAgentMgr::Stop work pollmsg thread iCount[%d]", iCount);
  const int bData = m_AgentData.Uninit();
  LogInfo("zxagent CAgentMgr::Stop Uninit bStatus[%d]", bData);
  if (m_pCompCtx != nullptr)
    m_pCompCtx->Uninitialize();
  LogInfo("zxagent CAgentMgr::Stop End");
  return true;
}

void CAgentMgr::SetWork(int bWork) {
  CCritLock lock(m_csStatus);
  m_bWork = bWork;
}

int CAgentMgr::IsWorking() {
  CCritLock lock(m_csStatus);
  return m_bWork;
}
