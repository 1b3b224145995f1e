#include "plugin/AgentPluginObj.h"

#include <dlfcn.h>

#include <exception>

#include "agent/AgentMgr.h"
#include "data/AgentLog.h"
#include "data/AgentThreads.h"
#include "data/AgentTools.h"
#include "platform/os/ZxModule.h"

namespace {

enum : int { kStatusInitialized = 1, kStatusStarted = 2, kStatusStopped = 3, kStatusUninitialized = 4 };

constexpr uint32_t kThreadsWaitMs = 5000;
constexpr size_t kModulePathBytes = 4096;

void OpenChannel(std::atomic<HLog>& hLog, const char* pszName) {
  LogUninit(hLog.exchange(LogInit(pszName)));  // a host that initialises twice closes once
}

void CloseChannel(std::atomic<HLog>& hLog) {
  LogUninit(hLog.exchange(nullptr));
}

// Runs one step; what it throws ends here.
template <class F>
void Guarded(const char* pszStep, const F& fnStep) {
  try {
    fnStep();
  } catch (const std::exception& e) {
    LogError("**zxagent CAgentPluginObj Error pszStep[%s] what[%s]", pszStep, e.what());
  }
}

// The host may unmap this library once Uninitialize has returned. A thread that is still inside it keeps it
// mapped: a leak is better than a crash of the host.
void KeepMappedWhileThreadsRun() {
  if (AgentThreads().Wait(kThreadsWaitMs))
    return;
  char szPath[kModulePathBytes] = {};
  void* hLib = nullptr;
  if (ZxGetModuleFilePath(reinterpret_cast<const void*>(&KeepMappedWhileThreadsRun), szPath,
                          sizeof(szPath) - 1))
    hLib = dlopen(szPath, RTLD_NOW | RTLD_NOLOAD);
  LogError("**zxagent CAgentPluginObj::Uninitialize Error threads still run uRunning[%u] hLib[%p] szPath[%s]",
           AgentThreads().Running(), hLib, szPath);
}

}  // namespace

constinit std::atomic<int> CAgentPluginObj::m_iStatus{0};

CAgentPluginObj::CAgentPluginObj()
    : CPluginObj{&Initialize, &Uninitialize, &Start, &Stop, &GetStatus, &GetCtx, &SetCtx, &Info} {}

int CAgentPluginObj::Initialize(void* pInitParam) {
  Guarded("LogSetHome", [] {
    const CPString strHomePath = CAgentTools::GetHomePath();
    if (!strHomePath.IsEmpty())
      LogSetHome(strHomePath);
  });
  OpenChannel(g_hLogMain, "zxagent");
  OpenChannel(g_hLogFlow, "zxagentflow");
  OpenChannel(g_hLogCache, "zxlogcache");
  if (pInitParam == nullptr) {
    LogError("**zxagent CAgentPluginObj::Initialize Error pInitParam is NULL");
    return -1;
  }
  LogTrace("zxagent CAgentPluginObj::Initialize Begin");
  Guarded("Initialize", [] {
    CAgentMgr* pAgentMgr = CAgentMgr::Instance();
    if (pAgentMgr == nullptr)
      LogError("**zxagent CAgentPluginObj::Initialize Error pAgentMgr is NULL");
    else if (pAgentMgr->Init())
      LogTrace("zxagent CAgentPluginObj::Initialize End Init OK\n");
    else
      LogError("**zxagent CAgentPluginObj::Initialize Error Init Error\n");
  });
  m_iStatus = kStatusInitialized;
  return 0;
}

void CAgentPluginObj::Uninitialize() {
  LogTrace("zxagent CAgentPluginObj::Uninitialize Begin");
  Guarded("Uninitialize", [] {
    CAgentMgr::Close();
    KeepMappedWhileThreadsRun();
  });
  m_iStatus = kStatusUninitialized;
  LogTrace("zxagent CAgentPluginObj::Uninitialize End\n");
  CloseChannel(g_hLogCache);
  CloseChannel(g_hLogFlow);
  CloseChannel(g_hLogMain);
}

int CAgentPluginObj::Start() {
  LogTrace("zxagent CAgentPluginObj::Start Begin");
  Guarded("Start", [] {
    CAgentMgr* pAgentMgr = CAgentMgr::Instance();
    if (pAgentMgr == nullptr)
      LogError("**zxagent CAgentPluginObj::Start Error pAgentMgr is NULL");
    else if (pAgentMgr->Start())
      LogTrace("zxagent CAgentPluginObj::Start End Start OK\n");
    else
      LogError("**zxagent CAgentPluginObj::Start Error Start Error\n");
  });
  m_iStatus = kStatusStarted;
  return 0;
}

int CAgentPluginObj::Stop() {
  LogTrace("zxagent CAgentPluginObj::Stop Begin");
  Guarded("Stop", [] {
    CAgentMgr* pAgentMgr = CAgentMgr::Instance();
    if (pAgentMgr == nullptr)
      LogError("**zxagent CAgentPluginObj::Stop Error pAgentMgr is NULL");
    else if (pAgentMgr->Stop())
      LogTrace("zxagent CAgentPluginObj::Stop End Stop OK\n");
    else
      LogError("**zxagent CAgentPluginObj::Stop Error Stop Error\n");
  });
  m_iStatus = kStatusStopped;
  return 0;
}

int CAgentPluginObj::GetStatus() {
  return m_iStatus;
}

int CAgentPluginObj::GetCtx(void*) {
  return 0;
}

void CAgentPluginObj::SetCtx(void* pData) {
  if (pData == nullptr) {
    LogError("**zxagent CAgentPluginObj::SetCtx Error pData is NULL");
    return;
  }
  LogTrace("zxagent CAgentPluginObj::SetCtx Begin pData[%p]", pData);
  CAgentMgr* pAgentMgr = CAgentMgr::Instance();
  if (pAgentMgr == nullptr) {
    LogError("**zxagent CAgentPluginObj::SetCtx Error pAgentMgr is NULL");
    return;
  }
  pAgentMgr->SetCtx(pData);
  LogTrace("zxagent CAgentPluginObj::SetCtx End pData[%p]\n", pData);
}

int CAgentPluginObj::Info(void* pData) {
  return pData == nullptr ? -1 : 0;
}
