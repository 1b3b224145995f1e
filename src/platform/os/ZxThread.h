// Threads of a library that the host may unload. A detached thread cannot be joined, so the library that
// started it must know when the last of its code has left the stack: every thread is started through a
// trampoline that lives in libzxplatform (never unmapped) and is counted in the group of its library.
// After Wait() returned true no thread of the group runs code of that library any more.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "platform/Api.h"

class CZxGauge;

// Constant-initialised; one static instance per library.
class ZX_API CZxThreadGroup {
 public:
  constexpr CZxThreadGroup() = default;
  CZxThreadGroup(const CZxThreadGroup&) = delete;
  CZxThreadGroup& operator=(const CZxThreadGroup&) = delete;

  // As pthread_create with default attributes but a stack of kZxThreadStackBytes; returns its error number.
  // The thread detaches itself (pthread_detach in its entry, as all agent threads do).
  int Create(pthread_t* phThread, void* (*pfnEntry)(void*), void* pArg);
  // Waits until every thread of the group has left its entry function. False on time-out.
  bool Wait(uint32_t dwMs);
  uint32_t Running();
  // Shows the number of running threads from now on; null: nowhere. The gauge outlives the group's threads.
  void SetGauge(CZxGauge* pGauge);

 private:
  static void* Trampoline(void* pStart);
  void Enter();
  void Leave();

  pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t m_cond = PTHREAD_COND_INITIALIZER;
  uint32_t m_uRunning = 0;
  CZxGauge* m_pGauge = nullptr;
};

inline constexpr size_t kZxThreadStackBytes = 512u << 10;

// Names the calling thread (at most 15 characters).
ZX_API void ZxSetThreadName(const char* pszName);

// Marks the calling thread, and those it starts, as working in bulk: woken, it does not interrupt what runs
// but waits for its turn. False (errno): the system does not allow it, or the thread has a policy of its own.
ZX_API bool ZxSetThreadBatch();
