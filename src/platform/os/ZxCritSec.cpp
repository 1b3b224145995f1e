#include "platform/os/ZxCritSec.h"

#include <cstdio>
#include <cstdlib>

#ifndef NDEBUG
namespace {

thread_local int t_iHeld = 0;

void CountLock() {
  if (t_iHeld != 0) {
    std::fputs("CCritSec: this thread already holds a critical section; they are never nested\n", stderr);
    std::abort();
  }
  ++t_iHeld;
}

void CountUnlock() {
  if (t_iHeld != 1) {
    std::fputs("CCritSec: unlocked by a thread that does not hold it\n", stderr);
    std::abort();
  }
  --t_iHeld;
}

}  // namespace
#else
namespace {

void CountLock() {}
void CountUnlock() {}

}  // namespace
#endif

// Held for look-ups only, so whoever finds it taken on another processor gets it sooner by trying a moment
// longer than by going to sleep.
CCritSec::CCritSec() {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ADAPTIVE_NP);
  pthread_mutex_init(&m_mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

CCritSec::~CCritSec() {
  pthread_mutex_destroy(&m_mutex);
}

void CCritSec::Lock() TS_NO_ANALYSIS {
  CountLock();
  pthread_mutex_lock(&m_mutex);
}

void CCritSec::Unlock() TS_NO_ANALYSIS {
  CountUnlock();
  pthread_mutex_unlock(&m_mutex);
}
