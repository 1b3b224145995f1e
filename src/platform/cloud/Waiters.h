// Callers that wait for an answer, keyed by a number that is known before the work is handed over; so an
// answer can never come too early. A waiter survives reconnects: it ends with its answer, at its deadline, or
// when the library stops. Threads: any. Wait is a cancellation point; a cancelled caller leaves no trace.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <map>

#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"

namespace zxcloud {

class CWaiters {
 public:
  // One waiting caller, on its stack.
  class CWaiter {
   public:
    CWaiter(CWaiters& owner, uint64_t u64Key);
    ~CWaiter();
    CWaiter(const CWaiter&) = delete;
    CWaiter& operator=(const CWaiter&) = delete;

    // The answer, uiTimeoutCode when none came within dwMs, or the code of the stop.
    uint32_t Wait(uint32_t dwMs, uint32_t uiTimeoutCode);

   private:
    friend class CWaiters;
    CWaiters& m_owner;
    const uint64_t m_u64Key;
    pthread_cond_t m_cond;
    bool m_bDone = false;  // guarded by m_owner.m_cs
    uint32_t m_uiResult = 0;
  };

  void Complete(uint64_t u64Key, uint32_t uiResult) TS_EXCLUDES(m_cs);
  // Ends all waiters, and every later one at once, with this code.
  void Stop(uint32_t uiResult) TS_EXCLUDES(m_cs);

 private:
  CCritSec m_cs;
  std::map<uint64_t, CWaiter*> m_map TS_GUARDED_BY(m_cs);
  bool m_bStopped TS_GUARDED_BY(m_cs) = false;
  uint32_t m_uiStopCode TS_GUARDED_BY(m_cs) = 0;
};

}  // namespace zxcloud
