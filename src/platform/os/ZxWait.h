// Waiting on a pthread condition with the monotonic clock; private to the platform library.
#pragma once

#include <pthread.h>
#include <time.h>

#include <cstdint>

inline constexpr long kNsPerMs = 1000000;
inline constexpr long kNsPerSecond = 1000000000;

inline timespec ZxDeadline(uint32_t dwMs) {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  ts.tv_sec += static_cast<time_t>(dwMs / 1000);
  ts.tv_nsec += static_cast<long>(dwMs % 1000) * kNsPerMs;
  if (ts.tv_nsec >= kNsPerSecond) {
    ts.tv_nsec -= kNsPerSecond;
    ++ts.tv_sec;
  }
  return ts;
}

// A condition whose timed waits take ZxDeadline values. False when the system is out of resources.
inline bool ZxInitCond(pthread_cond_t& cond) {
  pthread_condattr_t attr;
  if (pthread_condattr_init(&attr) != 0)
    return false;
  const bool bOk =
      pthread_condattr_setclock(&attr, CLOCK_MONOTONIC) == 0 && pthread_cond_init(&cond, &attr) == 0;
  pthread_condattr_destroy(&attr);
  return bOk;
}

// Releases the mutex also when a cancelled wait unwinds the stack.
class CMutexGuard {
 public:
  explicit CMutexGuard(pthread_mutex_t& mutex) : m_mutex(mutex) { pthread_mutex_lock(&m_mutex); }
  ~CMutexGuard() { pthread_mutex_unlock(&m_mutex); }
  CMutexGuard(const CMutexGuard&) = delete;
  CMutexGuard& operator=(const CMutexGuard&) = delete;

 private:
  pthread_mutex_t& m_mutex;
};

// Counts the calling thread among the waiters of a condition, also when its wait is cancelled.
class CWaiterCount {
 public:
  explicit CWaiterCount(size_t& uWaiters) : m_uWaiters(uWaiters) { ++m_uWaiters; }
  ~CWaiterCount() { --m_uWaiters; }
  CWaiterCount(const CWaiterCount&) = delete;
  CWaiterCount& operator=(const CWaiterCount&) = delete;

 private:
  size_t& m_uWaiters;
};
