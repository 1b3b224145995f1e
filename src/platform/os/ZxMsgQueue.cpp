#include "platform/os/ZxMsgQueue.h"

#include <cerrno>
#include <new>

#include "platform/os/ZxWait.h"

void ZxMsgQueueInit(ZxMsgQueue& queue, size_t uMaxRecords, size_t uMaxBytes) {
  pthread_mutex_init(&queue.mutex, nullptr);
  ZxInitCond(queue.cond);
  queue.items.clear();
  queue.uWaiters = 0;
  queue.uBytes = 0;
  queue.uMaxRecords = uMaxRecords;
  queue.uMaxBytes = uMaxBytes;
}

void ZxMsgQueueSetMaxBytes(ZxMsgQueue& queue, size_t uMaxBytes) {
  CMutexGuard guard(queue.mutex);
  queue.uMaxBytes = uMaxBytes;
}

bool ZxMsgQueueInsert(ZxMsgQueue& queue, uint32_t dwMessage, uint32_t dwFlag, void* pData, size_t uBytes) {
  CMutexGuard guard(queue.mutex);
  if (queue.items.size() >= queue.uMaxRecords || uBytes > queue.uMaxBytes ||
      queue.uBytes > queue.uMaxBytes - uBytes) {
    errno = ENOBUFS;
    return false;
  }
  try {
    queue.items.push_back({{dwMessage, dwFlag, pData, nullptr}, uBytes});
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
  }
  queue.uBytes += uBytes;
  if (queue.uWaiters != 0)
    pthread_cond_signal(&queue.cond);
  return true;
}

bool ZxGetMsgFromQueue(ZxMsgQueue& queue, ZxMsgRecord& record, uint32_t dwMs) {
  CMutexGuard guard(queue.mutex);
  if (queue.items.empty() && dwMs != 0) {
    const timespec tsDeadline = ZxDeadline(dwMs);
    CWaiterCount waiter(queue.uWaiters);
    while (queue.items.empty() &&
           pthread_cond_timedwait(&queue.cond, &queue.mutex, &tsDeadline) != ETIMEDOUT) {
    }
  }
  if (queue.items.empty())
    return false;
  record = queue.items.front().record;
  queue.uBytes -= queue.items.front().uBytes;
  queue.items.pop_front();
  return true;
}

size_t ZxGetMsgCount(ZxMsgQueue& queue) {
  CMutexGuard guard(queue.mutex);
  return queue.items.size();
}

void ZxMsgQueueFini(ZxMsgQueue& queue) {
  pthread_cond_destroy(&queue.cond);
  pthread_mutex_destroy(&queue.mutex);
  std::deque<ZxMsgQueueItem>().swap(queue.items);
  queue.uBytes = 0;
}
