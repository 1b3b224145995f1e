// Senders that wait until their records are on disk, and whatever else the spool's thread is asked to do.
// Those whose records come together wait on one condition, so that one call wakes all of them.
//
// Threads: Push, Wait, WantBodies, WantDeletes and Stop from any thread; the rest on the spool's thread. Wait
// blocks until the answer and is a cancellation point; no lock is held while anybody waits.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "platform/cloud/OutItem.h"
#include "platform/cloud/SpoolIndex.h"
#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"

namespace zxcloud {

class CSpoolRequests {
 public:
  struct _Group;
  // One waiting sender. Shared, as a cancelled sender goes at once.
  struct _Request {
    std::shared_ptr<_OutItem> pItem;
    _SpoolEntry entry;
    int64_t i64Sum = 0;
    std::atomic<bool> bCancelled{false};  // the sender has gone: nobody waits for an answer

   private:
    friend class CSpoolRequests;
    std::shared_ptr<_Group> pGroup;
    bool bDone = false;  // this and the result are guarded by the group's lock
    uint32_t uiResult = 0;
  };
  using TRequest = std::shared_ptr<_Request>;

  struct _Wishes {
    bool bStop = false;
    bool bBodies = false;
    bool bDeletes = false;
  };

  CSpoolRequests();
  ~CSpoolRequests();
  CSpoolRequests(const CSpoolRequests&) = delete;
  CSpoolRequests& operator=(const CSpoolRequests&) = delete;

  bool Push(const TRequest& pRequest) TS_EXCLUDES(m_cs);  // false: stopped
  // The answer to what was pushed. A sender that is cancelled takes its record along when it has not been
  // written yet.
  static uint32_t Wait(const TRequest& pRequest);
  void WantBodies() TS_EXCLUDES(m_cs);
  void WantDeletes() TS_EXCLUDES(m_cs);
  void Stop() TS_EXCLUDES(m_cs);

  _Wishes TakeWishes() TS_EXCLUDES(m_cs);  // the stop stays
  // Waits for at most u64BoundUs, as long as more senders come, until as many are there as were answered or
  // have been waiting the last time.
  void Gather(uint64_t u64BoundUs) TS_EXCLUDES(m_cs);
  // The oldest, appended, until there are so many of them or so many bytes.
  void Take(std::vector<TRequest>& list, size_t uRecords, size_t uBytes) TS_EXCLUDES(m_cs);
  void Answer(const std::vector<TRequest>& list, uint32_t uiResult) TS_EXCLUDES(m_cs);
  bool Empty() TS_EXCLUDES(m_cs);
  // Until there is a request or a wish, for at most u64WaitUs; UINT64_MAX: no bound.
  void Sleep(uint64_t u64WaitUs) TS_EXCLUDES(m_cs);

 private:
  // Until so many wait. False: the time has passed.
  bool WaitFor(size_t uRequests, uint64_t u64EndUs) TS_REQUIRES(m_cs);

  CCritSec m_cs;
  pthread_cond_t m_cond;
  std::deque<TRequest> m_queue TS_GUARDED_BY(m_cs);
  std::shared_ptr<_Group> m_pGroup TS_GUARDED_BY(m_cs);  // of those who come now
  size_t m_uWakeAt TS_GUARDED_BY(m_cs) = SIZE_MAX;       // so many requests end the thread's wait
  _Wishes m_wishes TS_GUARDED_BY(m_cs);
  size_t m_uExpected TS_GUARDED_BY(m_cs) = 0;  // who may come again in a moment, and who is there already
};

}  // namespace zxcloud
