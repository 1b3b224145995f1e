#include "platform/cloud/SpoolRequests.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace zxcloud {

namespace {

constexpr size_t kGatherFrom = 4;   // fewer are not waited for
constexpr uint64_t kQuietUs = 200;  // nobody has come for so long: nobody will in a moment
constexpr uint64_t kNever = UINT64_MAX;

uint64_t NowUs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

timespec At(uint64_t u64Us) {
  timespec at{};
  at.tv_sec = static_cast<time_t>(u64Us / 1000000);
  at.tv_nsec = static_cast<long>(u64Us % 1000000) * 1000;
  return at;
}

}  // namespace

struct CSpoolRequests::_Group {
  _Group() = default;
  ~_Group() { pthread_cond_destroy(&cond); }
  _Group(const _Group&) = delete;
  _Group& operator=(const _Group&) = delete;

  CCritSec cs;
  pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
};

CSpoolRequests::CSpoolRequests() : m_pGroup(std::make_shared<_Group>()) {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&m_cond, &attr);
  pthread_condattr_destroy(&attr);
}

CSpoolRequests::~CSpoolRequests() {
  pthread_cond_destroy(&m_cond);
}

bool CSpoolRequests::Push(const TRequest& pRequest) {
  CCritLock lock(m_cs);
  if (m_wishes.bStop)
    return false;
  pRequest->pGroup = m_pGroup;
  m_queue.push_back(pRequest);
  if (m_queue.size() >= m_uWakeAt) {
    m_uWakeAt = SIZE_MAX;
    pthread_cond_signal(&m_cond);
  }
  return true;
}

uint32_t CSpoolRequests::Wait(const TRequest& pRequest) {
  struct CGiveUp {
    _Request& request;
    bool bArmed = true;
    ~CGiveUp() {
      if (bArmed)
        request.bCancelled.store(true);
    }
  };
  CGiveUp giveUp{*pRequest};
  _Group& group = *pRequest->pGroup;
  CCritLock lock(group.cs);
  while (!pRequest->bDone)
    pthread_cond_wait(&group.cond, group.cs.Native());
  giveUp.bArmed = false;
  return pRequest->uiResult;
}

void CSpoolRequests::WantBodies() {
  CCritLock lock(m_cs);
  if (!std::exchange(m_wishes.bBodies, true))
    pthread_cond_signal(&m_cond);
}

void CSpoolRequests::WantDeletes() {
  CCritLock lock(m_cs);
  if (!std::exchange(m_wishes.bDeletes, true))
    pthread_cond_signal(&m_cond);
}

void CSpoolRequests::Stop() {
  CCritLock lock(m_cs);
  m_wishes.bStop = true;
  pthread_cond_signal(&m_cond);
}

CSpoolRequests::_Wishes CSpoolRequests::TakeWishes() {
  CCritLock lock(m_cs);
  return std::exchange(m_wishes, _Wishes{m_wishes.bStop, false, false});
}

bool CSpoolRequests::WaitFor(size_t uRequests, uint64_t u64EndUs) {
  const timespec end = At(u64EndUs);
  m_uWakeAt = uRequests;
  const int iError = u64EndUs == kNever ? pthread_cond_wait(&m_cond, m_cs.Native())
                                        : pthread_cond_timedwait(&m_cond, m_cs.Native(), &end);
  m_uWakeAt = SIZE_MAX;
  return iError != ETIMEDOUT;
}

// Those who were just answered send again in a moment, and others have come meanwhile: one commit for all of
// them costs as little as one for half of them.
void CSpoolRequests::Gather(uint64_t u64BoundUs) {
  CCritLock lock(m_cs);
  if (m_uExpected < kGatherFrom)
    return;
  const uint64_t u64EndUs = NowUs() + u64BoundUs;
  for (size_t uBefore = 0; m_queue.size() > uBefore && m_queue.size() < m_uExpected;) {
    uBefore = m_queue.size();
    const uint64_t u64QuietUs = std::min(NowUs() + kQuietUs, u64EndUs);
    while (m_queue.size() < m_uExpected && !m_wishes.bStop && WaitFor(m_uExpected, u64QuietUs)) {
    }
    if (m_wishes.bStop || u64QuietUs == u64EndUs)
      return;
  }
}

void CSpoolRequests::Take(std::vector<TRequest>& list, size_t uRecords, size_t uBytes) {
  size_t uTaken = 0;
  CCritLock lock(m_cs);
  while (!m_queue.empty() && list.size() < uRecords && uTaken < uBytes) {
    uTaken += m_queue.front()->entry.uBytes;
    list.push_back(std::move(m_queue.front()));
    m_queue.pop_front();
  }
  if (uTaken != 0)
    m_pGroup = std::make_shared<_Group>();
}

void CSpoolRequests::Answer(const std::vector<TRequest>& list, uint32_t uiResult) {
  {
    CCritLock lock(m_cs);
    m_uExpected = list.size() + m_queue.size();
  }
  // Those of one group stand together.
  for (auto it = list.begin(); it != list.end();) {
    _Group& group = *(*it)->pGroup;
    {
      CCritLock lock(group.cs);
      for (; it != list.end() && (*it)->pGroup.get() == &group; ++it) {
        (*it)->uiResult = uiResult;
        (*it)->bDone = true;
      }
    }
    pthread_cond_broadcast(&group.cond);
  }
}

bool CSpoolRequests::Empty() {
  CCritLock lock(m_cs);
  return m_queue.empty();
}

void CSpoolRequests::Sleep(uint64_t u64WaitUs) {
  const uint64_t u64EndUs = u64WaitUs == kNever ? kNever : NowUs() + u64WaitUs;
  CCritLock lock(m_cs);
  while (m_queue.empty() && !m_wishes.bStop && !m_wishes.bBodies && !m_wishes.bDeletes) {
    if (!WaitFor(1, u64EndUs))
      return;
  }
}

}  // namespace zxcloud
