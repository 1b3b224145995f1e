// What waits for the cloud: uploads of blocking callers in memory, and what the spool holds on disk, in one
// order. An entry is waiting, or taken by exactly one sender, until it is done. Threads: any. Blocking:
// never.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "platform/cloud/CloudPorts.h"
#include "platform/cloud/OutItem.h"
#include "platform/cloud/SpoolIndex.h"
#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"

namespace zxcloud {

// Room that the taker has. The last part of it is kept for urgent entries (priorities 0 and 10).
struct _OutRoom {
  uint32_t uMessages = 0;         // for urgent ones
  size_t uBytes = 0;              // for urgent ones
  uint32_t uReserveMessages = 0;  // of these, not for the others
  size_t uReserveBytes = 0;
  bool bIdle = false;        // nothing is under way: an entry larger than the room may go
  ELane eLane = ELane::Any;  // only entries of this lane
  bool bWaitedOnly = false;  // only entries that a caller waits for
};

// What an outbox holds, waiting and taken together unless said otherwise.
struct _OutboxState {
  uint64_t u64Waiting = 0;  // entries, without the taken ones
  uint64_t u64Entries = 0;
  uint64_t u64Bytes = 0;
  uint64_t u64OldestMs = 0;  // age of the oldest entry in memory; 0: none
};

class IOutbox {
 public:
  virtual ~IOutbox() = default;
  // Stays in memory: for callers that wait. False: the bound in bytes is reached. A part of it is kept for
  // urgent entries.
  virtual bool Add(std::shared_ptr<_OutItem> pItem) = 0;
  // The next entry for this room, now taken; null when none is ready or the next does not fit. Lower priority
  // number first within 0..3 and within 10..13, oldest first within a priority; the second group gets every
  // fourth turn of a lane while both have entries, so that neither starves. Entries whose bodies are still to
  // be read from the disk are passed by the others; the owner of the spool wakes the senders when they are
  // there.
  virtual TOutItem Take(const _OutRoom& room) = 0;
  virtual void Done(uint64_t u64Seq) = 0;    // delivered or refused for good
  virtual void Return(uint64_t u64Seq) = 0;  // taken, but to be sent again: back to its old place
  // The sender has given up on it: gone when it waits; when it is taken, it will not come back.
  virtual void Cancel(uint64_t u64Seq) = 0;
  virtual size_t Waiting() = 0;  // asks for bodies when there is none
  virtual size_t Bytes() = 0;    // in memory for callers that wait, waiting and taken
  virtual _OutboxState State() = 0;
};

// What the outbox asks of the spool. Called without a lock, on any thread; must not block.
class ISpoolWishes {
 public:
  virtual ~ISpoolWishes() = default;
  virtual void WantBodies() = 0;   // entries wait whose bodies are not in memory
  virtual void WantDeletes() = 0;  // records are done
};

class COutbox : public IOutbox {
 public:
  COutbox(size_t uMaxBytes, IClock& clock);

  // Before any other thread uses the object.
  void SetSpool(ISpoolWishes* pSpool) { m_pSpool = pSpool; }

  bool Add(std::shared_ptr<_OutItem> pItem) override TS_EXCLUDES(m_cs);
  TOutItem Take(const _OutRoom& room) override TS_EXCLUDES(m_cs);
  void Done(uint64_t u64Seq) override TS_EXCLUDES(m_cs);
  void Return(uint64_t u64Seq) override TS_EXCLUDES(m_cs);
  void Cancel(uint64_t u64Seq) override TS_EXCLUDES(m_cs);
  size_t Waiting() override TS_EXCLUDES(m_cs);
  size_t Bytes() override TS_EXCLUDES(m_cs);
  _OutboxState State() override TS_EXCLUDES(m_cs);

  // For the spool; see CSpoolIndex.
  struct _Spooled {
    size_t uWaiting = 0;
    size_t uTaken = 0;
    size_t uBodyBytes = 0;  // in memory, of waiting ones
    std::optional<uint32_t> uOldestSec;
  };
  uint64_t NextRow() { return m_u64NewestRow.fetch_add(1) + 1; }
  void RowsUpTo(uint64_t u64Row);  // numbers up to this are in use
  void AddSpooled(const std::vector<std::pair<_SpoolEntry, TOutItem>>& listItems) TS_EXCLUDES(m_cs);
  _SpoolCount Recover(const std::vector<std::pair<int, _SpoolEntry>>& listFound) TS_EXCLUDES(m_cs);
  _SpoolCount DropUnloaded() TS_EXCLUDES(m_cs);
  std::vector<_SpoolEntry> SwapDone() TS_EXCLUDES(m_cs);
  void BackDone(std::vector<_SpoolEntry> listDone) TS_EXCLUDES(m_cs);
  size_t DoneCount() TS_EXCLUDES(m_cs);
  std::vector<uint64_t> RowsToLoad(int iQueue) TS_EXCLUDES(m_cs);
  void Loaded(int iQueue, TOutItem pItem) TS_EXCLUDES(m_cs);
  void Lost(int iQueue, uint64_t u64Row) TS_EXCLUDES(m_cs);
  size_t Expire(uint32_t uCreatedSec) TS_EXCLUDES(m_cs);
  _Spooled Spooled() TS_EXCLUDES(m_cs);

 private:
  using TQueue = std::map<uint64_t, TOutItem>;
  // Of one priority, by lane and by whether a caller waits.
  using TQueues = std::array<TQueue, 4>;
  struct _Taken {
    TOutItem pItem;
    bool bCancelled = false;
  };
  // Where the oldest entry of a priority stands: in memory or in a queue of the spool; neither: nowhere.
  struct _Head {
    TQueue* pQueue = nullptr;
    int iSpool = -1;
    bool None() const { return pQueue == nullptr && iSpool < 0; }
  };

  TQueue& QueueOf(const _OutItem& item) TS_REQUIRES(m_cs);
  TQueue* OldestInMemory(int iIndex, const _OutRoom& room) TS_REQUIRES(m_cs);
  int OldestSpooled(int iIndex, const _OutRoom& room) TS_REQUIRES(m_cs);
  _Head OldestOf(int iIndex, const _OutRoom& room) TS_REQUIRES(m_cs);
  int FirstOf(int iFrom, const _OutRoom& room) TS_REQUIRES(m_cs);
  int NextPriority(const _OutRoom& room) TS_REQUIRES(m_cs);
  TOutItem TakeNext(const _OutRoom& room) TS_REQUIRES(m_cs);
  TOutItem TakeHead(const _Head& head) TS_REQUIRES(m_cs);

  const size_t m_uMaxBytes;
  IClock& m_clock;
  ISpoolWishes* m_pSpool = nullptr;
  std::atomic<uint64_t> m_u64NewestRow{0};

  CCritSec m_cs;
  std::array<TQueues, kPriorityCount> m_queues TS_GUARDED_BY(m_cs);
  std::map<uint64_t, _Taken> m_mapTaken TS_GUARDED_BY(m_cs);
  CSpoolIndex m_index TS_GUARDED_BY(m_cs);
  size_t m_uBytes TS_GUARDED_BY(m_cs) = 0;
  size_t m_uWaiting TS_GUARDED_BY(m_cs) = 0;
  std::array<uint32_t, 3> m_uTurns TS_GUARDED_BY(m_cs){};  // by lane
};

}  // namespace zxcloud
