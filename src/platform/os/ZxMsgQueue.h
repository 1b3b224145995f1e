// Message queue: first-in first-out, bounded in records and in bytes. A full queue refuses the insert, so
// the caller learns it and nothing is dropped silently. Records own nothing here: pData belongs to whoever
// takes the record out, and on a refused insert it stays with the caller.
// Threads: any number of producers and consumers. ZxGetMsgFromQueue is a cancellation point.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <deque>

#include "platform/Api.h"

struct ZxMsgRecord {
  uint32_t dwMessage = 0;
  uint32_t dwFlag = 0;
  void* pData = nullptr;
  void* pReserved = nullptr;  // never set by the agent
};

struct ZxMsgQueueItem {
  ZxMsgRecord record;
  size_t uBytes = 0;
};

struct ZxMsgQueue {
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  std::deque<ZxMsgQueueItem> items;
  size_t uWaiters = 0;
  size_t uBytes = 0;
  size_t uMaxRecords = 0;
  size_t uMaxBytes = 0;
};

inline constexpr size_t kZxMsgQueueMaxRecords = 65536;
inline constexpr size_t kZxMsgQueueMaxBytes = 64u << 20;

ZX_API void ZxMsgQueueInit(ZxMsgQueue& queue, size_t uMaxRecords = kZxMsgQueueMaxRecords,
                           size_t uMaxBytes = kZxMsgQueueMaxBytes);
// Replaces the byte bound. What already waits stays, also when it is more.
ZX_API void ZxMsgQueueSetMaxBytes(ZxMsgQueue& queue, size_t uMaxBytes);
// uBytes is what the record's data counts against the byte bound. False: full (errno ENOBUFS) or out of
// memory.
ZX_API bool ZxMsgQueueInsert(ZxMsgQueue& queue, uint32_t dwMessage, uint32_t dwFlag, void* pData,
                             size_t uBytes = 0);
// False on time-out; dwMs 0 does not wait.
ZX_API bool ZxGetMsgFromQueue(ZxMsgQueue& queue, ZxMsgRecord& record, uint32_t dwMs);
ZX_API size_t ZxGetMsgCount(ZxMsgQueue& queue);
ZX_API void ZxMsgQueueFini(ZxMsgQueue& queue);  // drain it first: records left in it are not freed
