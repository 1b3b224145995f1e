#include "platform/os/ZxEvent.h"

#include <cerrno>
#include <new>

#include "platform/os/ZxWait.h"

struct ZxEvent {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t cond;
  bool bSet = false;
};

HZxEvent ZxCreateEvent() {
  auto* pEvent = new (std::nothrow) ZxEvent;
  if (pEvent != nullptr && !ZxInitCond(pEvent->cond)) {
    delete pEvent;
    return nullptr;
  }
  return pEvent;
}

void ZxSetEvent(HZxEvent hEvent) {
  // Signalled under the lock: whoever waited may destroy the event as soon as it got the lock.
  CMutexGuard guard(hEvent->mutex);
  if (!hEvent->bSet) {
    hEvent->bSet = true;
    pthread_cond_signal(&hEvent->cond);
  }
}

void ZxWaitEvent(HZxEvent hEvent) {
  CMutexGuard guard(hEvent->mutex);
  while (!hEvent->bSet)
    pthread_cond_wait(&hEvent->cond, &hEvent->mutex);
  hEvent->bSet = false;
}

bool ZxWaitEventTimeout(HZxEvent hEvent, uint32_t dwMs) {
  CMutexGuard guard(hEvent->mutex);
  if (!hEvent->bSet && dwMs != 0) {
    const timespec tsDeadline = ZxDeadline(dwMs);
    while (!hEvent->bSet && pthread_cond_timedwait(&hEvent->cond, &hEvent->mutex, &tsDeadline) != ETIMEDOUT) {
    }
  }
  const bool bSet = hEvent->bSet;
  hEvent->bSet = false;
  return bSet;
}

void ZxDestroyEvent(HZxEvent hEvent) {
  if (hEvent == nullptr)
    return;
  pthread_cond_destroy(&hEvent->cond);
  pthread_mutex_destroy(&hEvent->mutex);
  delete hEvent;
}
