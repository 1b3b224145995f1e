#include "PluginDriver.h"

#include <utility>

#include "HostLog.h"
#include "platform/os/ZxThread.h"
#include "platform/os/ZxWait.h"

CPluginDriver::CPluginDriver(const _HostConfig& config, CPString strHome)
    : m_config(config), m_strHome(std::move(strHome)) {
  ZxInitCond(m_condAnswered);
  for (const _PluginEntry& entry : m_config.plugins) {
    _PluginState state;
    state.strName = entry.strName;
    state.strPath = entry.strPath;
    state.strGuid = entry.strGuid;
    m_states.push_back(state);
  }
}

CPluginDriver::~CPluginDriver() {
  m_thread.Join();
  pthread_cond_destroy(&m_condAnswered);
}

CPluginDriver::EPhase CPluginDriver::Phase() {
  CCritLock lock(m_cs);
  return m_ePhase;
}

size_t CPluginDriver::Started() {
  CCritLock lock(m_cs);
  return m_uStarted;
}

uint32_t CPluginDriver::Answered() {
  CCritLock lock(m_cs);
  return m_uiAnswered;
}

bool CPluginDriver::IsStopRequested() {
  CCritLock lock(m_cs);
  return m_bStop;
}

void CPluginDriver::SetPhase(EPhase ePhase) {
  {
    CCritLock lock(m_cs);
    m_ePhase = ePhase;
  }
  m_thread.Signal();
}

void CPluginDriver::RequestStop() {
  CCritLock lock(m_cs);
  m_bStop = true;
  pthread_cond_signal(&m_cond);
}

void CPluginDriver::RequestTick() {
  CCritLock lock(m_cs);
  m_bTick = true;
  pthread_cond_signal(&m_cond);
}

void CPluginDriver::SetState(size_t uIndex, const char* pszState, int iStatus) {
  CCritLock lock(m_cs);
  m_states[uIndex].pszState = pszState;
  m_states[uIndex].iStatus = iStatus;
}

std::vector<_PluginState> CPluginDriver::States(uint32_t uiWaitMs, bool& bAnswered) {
  const timespec tsDeadline = ZxDeadline(uiWaitMs);
  CCritLock lock(m_cs);
  const uint32_t uiBefore = m_uiAnswered;
  m_bTick = true;
  pthread_cond_signal(&m_cond);
  while (m_uiAnswered == uiBefore &&
         pthread_cond_timedwait(&m_condAnswered, m_cs.Native(), &tsDeadline) != ETIMEDOUT) {
  }
  bAnswered = m_uiAnswered != uiBefore;
  return m_states;
}

void CPluginDriver::Run() {
  ZxSetThreadName("zxhost.plugins");
  StartAll();
  if (Started() != 0) {
    SetPhase(EPhase::Running);
    WaitForStop();
  }
  StopAll();
  SetPhase(EPhase::Stopped);
}

void CPluginDriver::StartAll() {
  for (size_t i = 0; i < m_config.plugins.size(); ++i) {
    const _PluginEntry& entry = m_config.plugins[i];
    if (IsStopRequested())
      return;
    auto pPlugin = std::make_unique<CPlugin>(entry, m_strHome, m_note);
    if (!pPlugin->Load() || !pPlugin->Start()) {
      LogWarnTo(g_hHostLog, "*zxhost plugin[%s] left out, the others go on", entry.strName);
      SetState(i, "failed", 0);
      continue;
    }
    SetState(i, "running", 0);
    m_plugins.push_back({i, std::move(pPlugin)});
    CCritLock lock(m_cs);
    ++m_uStarted;
  }
}

void CPluginDriver::WaitForStop() {
  for (;;) {
    {
      CCritLock lock(m_cs);
      while (!m_bStop && !m_bTick)
        pthread_cond_wait(&m_cond, m_cs.Native());
      if (m_bStop)
        return;
      m_bTick = false;
    }
    for (const auto& [uIndex, pPlugin] : m_plugins)
      SetState(uIndex, "running", pPlugin->Status());
    {
      CCritLock lock(m_cs);
      ++m_uiAnswered;
      pthread_cond_broadcast(&m_condAnswered);
    }
    m_thread.Signal();
  }
}

void CPluginDriver::StopAll() {
  // All are stopped before the first is unloaded: until then they may still talk to each other.
  for (auto it = m_plugins.rbegin(); it != m_plugins.rend(); ++it) {
    it->second->Stop();
    SetState(it->first, "stopped", 0);
  }
  while (!m_plugins.empty()) {
    m_plugins.back().second->Unload();
    m_plugins.pop_back();
  }
}
