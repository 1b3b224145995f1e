#include "platform/os/ZxThread.h"

#include <sched.h>
#include <signal.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <new>

#include "platform/os/ZxGauges.h"
#include "platform/os/ZxWait.h"

#if defined(__SANITIZE_ADDRESS__)
extern "C" void __asan_handle_no_return();
#endif

#if defined(__has_feature)
#define ZX_HAS_FEATURE(x) __has_feature(x)
#else
#define ZX_HAS_FEATURE(x) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || ZX_HAS_FEATURE(address_sanitizer) || \
    ZX_HAS_FEATURE(thread_sanitizer)
#define ZX_DEFAULT_STACK 1  // instrumented frames need the default size
#else
#define ZX_DEFAULT_STACK 0
#endif

namespace {

struct ThreadStart {
  CZxThreadGroup* pGroup;
  void* (*pfnEntry)(void*);
  void* pArg;
};

// Signals belong to the host's own threads, except those that a fault raises in the thread itself: blocked,
// they would end the process without its crash handling.
void FillBlockedSignals(sigset_t& set) {
  sigfillset(&set);
  for (const int iSignal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
    sigdelset(&set, iSignal);
}

bool SetStackSize(pthread_attr_t& attr) {
  return ZX_DEFAULT_STACK != 0 || pthread_attr_setstacksize(&attr, kZxThreadStackBytes) == 0;
}

int StartThread(pthread_t* phThread, void* (*pfnTrampoline)(void*), void* pStart) {
  pthread_attr_t attr;
  const int iError = pthread_attr_init(&attr);
  if (iError != 0)
    return iError;
  int iResult = EINVAL;
  if (SetStackSize(attr)) {
    sigset_t setBlocked;
    sigset_t setOld;
    FillBlockedSignals(setBlocked);
    pthread_sigmask(SIG_SETMASK, &setBlocked, &setOld);
    iResult = pthread_create(phThread, &attr, pfnTrampoline, pStart);
    pthread_sigmask(SIG_SETMASK, &setOld, nullptr);
  }
  pthread_attr_destroy(&attr);
  return iResult;
}

}  // namespace

int CZxThreadGroup::Create(pthread_t* phThread, void* (*pfnEntry)(void*), void* pArg) {
  auto* pStart = new (std::nothrow) ThreadStart{this, pfnEntry, pArg};
  if (pStart == nullptr)
    return ENOMEM;
  Enter();
  const int iResult = StartThread(phThread, &Trampoline, pStart);
  if (iResult != 0) {
    Leave();
    delete pStart;
  }
  return iResult;
}

void* CZxThreadGroup::Trampoline(void* pStart) {
  // Leaves the group when the entry returned and also when a cancellation has unwound the entry's frames.
  struct CMember {
    CZxThreadGroup* pGroup;
    ~CMember() {
#if defined(__SANITIZE_ADDRESS__)
      __asan_handle_no_return();  // it does not see a cancellation unwind the frames below
#endif
      pGroup->Leave();
    }
  };
  const ThreadStart start = *static_cast<ThreadStart*>(pStart);
  delete static_cast<ThreadStart*>(pStart);
  CMember member{start.pGroup};
  return start.pfnEntry(start.pArg);
}

void CZxThreadGroup::Enter() {
  CMutexGuard guard(m_mutex);
  ++m_uRunning;
  if (m_pGauge != nullptr)
    m_pGauge->Set(m_uRunning);
}

void CZxThreadGroup::Leave() {
  CMutexGuard guard(m_mutex);
  --m_uRunning;
  if (m_pGauge != nullptr)
    m_pGauge->Set(m_uRunning);
  if (m_uRunning == 0)
    pthread_cond_broadcast(&m_cond);
}

bool CZxThreadGroup::Wait(uint32_t dwMs) {
  const timespec tsDeadline = ZxDeadline(dwMs);
  CMutexGuard guard(m_mutex);
  while (m_uRunning != 0) {
    if (pthread_cond_clockwait(&m_cond, &m_mutex, CLOCK_MONOTONIC, &tsDeadline) == ETIMEDOUT)
      return m_uRunning == 0;
  }
  return true;
}

uint32_t CZxThreadGroup::Running() {
  CMutexGuard guard(m_mutex);
  return m_uRunning;
}

void CZxThreadGroup::SetGauge(CZxGauge* pGauge) {
  CMutexGuard guard(m_mutex);
  m_pGauge = pGauge;
  if (m_pGauge != nullptr)
    m_pGauge->Set(m_uRunning);
}

void ZxSetThreadName(const char* pszName) {
  char szName[16] = {};
  std::strncpy(szName, pszName, sizeof(szName) - 1);
  pthread_setname_np(pthread_self(), szName);
}

bool ZxSetThreadBatch() {
  if (sched_getscheduler(0) != SCHED_OTHER) {
    errno = EPERM;
    return false;
  }
  const sched_param param{};
  return sched_setscheduler(0, SCHED_BATCH, &param) == 0;
}
