// Critical section: a non-recursive lock. Rules for all of them: never nested, never held over I/O,
// callbacks or logging. Debug builds count the locks a thread holds and abort on the second one.
// Waiting for a lock is no cancellation point.
#pragma once

#include <pthread.h>

#include "platform/Api.h"
#include "platform/os/ThreadSafety.h"

class TS_CAPABILITY("mutex") ZX_API CCritSec {
 public:
  CCritSec();
  ~CCritSec();
  CCritSec(const CCritSec&) = delete;
  CCritSec& operator=(const CCritSec&) = delete;

  void Lock() TS_ACQUIRE();
  void Unlock() TS_RELEASE();
  pthread_mutex_t* Native() { return &m_mutex; }

 private:
  pthread_mutex_t m_mutex;
};

class TS_SCOPED_CAPABILITY CCritLock {
 public:
  explicit CCritLock(CCritSec& cs) TS_ACQUIRE(cs) : m_cs(cs) { m_cs.Lock(); }
  ~CCritLock() TS_RELEASE() { m_cs.Unlock(); }
  CCritLock(const CCritLock&) = delete;
  CCritLock& operator=(const CCritLock&) = delete;

 private:
  CCritSec& m_cs;
};
