#include "platform/cloud/Waiters.h"

#include <time.h>

#include <cerrno>

namespace zxcloud {

CWaiters::CWaiter::CWaiter(CWaiters& owner, uint64_t u64Key) : m_owner(owner), m_u64Key(u64Key) {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&m_cond, &attr);
  pthread_condattr_destroy(&attr);
  CCritLock lock(m_owner.m_cs);
  m_owner.m_map[u64Key] = this;
}

CWaiters::CWaiter::~CWaiter() {
  {
    CCritLock lock(m_owner.m_cs);
    m_owner.m_map.erase(m_u64Key);
  }
  pthread_cond_destroy(&m_cond);
}

uint32_t CWaiters::CWaiter::Wait(uint32_t dwMs, uint32_t uiTimeoutCode) {
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += dwMs / 1000;
  deadline.tv_nsec += static_cast<long>(dwMs % 1000) * 1000000;
  if (deadline.tv_nsec >= 1000000000) {
    deadline.tv_nsec -= 1000000000;
    ++deadline.tv_sec;
  }
  CCritLock lock(m_owner.m_cs);
  while (!m_bDone) {
    if (m_owner.m_bStopped)
      return m_owner.m_uiStopCode;
    if (pthread_cond_timedwait(&m_cond, m_owner.m_cs.Native(), &deadline) == ETIMEDOUT && !m_bDone)
      return m_owner.m_bStopped ? m_owner.m_uiStopCode : uiTimeoutCode;
  }
  return m_uiResult;
}

void CWaiters::Complete(uint64_t u64Key, uint32_t uiResult) {
  CCritLock lock(m_cs);
  const auto it = m_map.find(u64Key);
  if (it == m_map.end() || it->second->m_bDone)
    return;
  it->second->m_bDone = true;
  it->second->m_uiResult = uiResult;
  pthread_cond_signal(&it->second->m_cond);
}

void CWaiters::Stop(uint32_t uiResult) {
  CCritLock lock(m_cs);
  m_bStopped = true;
  m_uiStopCode = uiResult;
  for (const auto& [u64Key, pWaiter] : m_map)
    pthread_cond_signal(&pWaiter->m_cond);
}

}  // namespace zxcloud
