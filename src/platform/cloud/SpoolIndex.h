// The order of what is spooled: one queue per priority and lane, oldest first, of entries without their
// bodies; bodies only for a first part of each queue. Memory: 16 bytes per waiting record, bodies as bounded
// below. No lock: guarded by its owner. Blocking: never.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "platform/cloud/OutItem.h"

namespace zxcloud {

inline constexpr size_t kFreshBytes = 4u << 20;    // bodies kept of what was just accepted
inline constexpr size_t kAheadBytes = 1u << 20;    // bodies read ahead, per queue
inline constexpr size_t kAheadEntries = 256;       // the same in records
inline constexpr size_t kAheadLowEntries = 96;     // more is read when fewer than this are left
inline constexpr size_t kItemOverhead = 256;       // what an entry costs beside its text
inline constexpr uint64_t kSpoolBit = 1ull << 63;  // of _OutItem::u64Seq: the rest is the row

// One queue per priority and lane.
inline constexpr int kSpoolQueues = kPriorityCount * 2;
inline int SpoolQueue(int iIndex, ELane eLane) {
  return iIndex * 2 + (eLane == ELane::Bulk ? 1 : 0);
}

struct _SpoolEntry {
  uint64_t u64Row = 0;
  uint32_t uBytes = 0;  // of the wire form
  uint32_t uCreatedSec = 0;

  size_t Cost() const { return uBytes + kItemOverhead; }
};

struct _SpoolCount {
  size_t uRecords = 0;
  size_t uCost = 0;
};

class CSpoolIndex {
 public:
  // A committed record. Its body is kept while the queue has all of its bodies and there is room.
  void Add(int iQueue, const _SpoolEntry& entry, TOutItem pItem);
  // Records found in the file, in any order; those known already (waiting, taken, to be deleted) are left
  // out. Returns what was new.
  _SpoolCount Recover(const std::vector<std::pair<int, _SpoolEntry>>& listFound);
  // Forgets waiting entries without a body: the file cannot be read at the moment. Returns what went.
  _SpoolCount DropUnloaded();

  bool Empty(int iQueue) const { return Queue(iQueue).entries.empty(); }
  const _SpoolEntry& Front(int iQueue) const { return Queue(iQueue).entries.front(); }
  bool FrontLoaded(int iQueue) const { return !Queue(iQueue).bodies.empty(); }
  TOutItem Take(int iQueue);  // the front, which is loaded
  bool WantsBodies() const;   // they run low in a queue

  void Done(uint64_t u64Row);    // taken, and to be deleted
  void Return(uint64_t u64Row);  // taken, back to its place
  std::vector<_SpoolEntry> SwapDone();
  void BackDone(std::vector<_SpoolEntry> listDone);  // could not be deleted
  size_t DoneCount() const { return m_listDone.size(); }

  // Rows whose bodies come next.
  std::vector<uint64_t> RowsToLoad(int iQueue) const;
  void Loaded(int iQueue, TOutItem pItem);
  void Lost(int iQueue, uint64_t u64Row);  // its body is damaged: to be deleted
  // Waiting entries created at or before this are to be deleted; their number.
  size_t Expire(uint32_t uCreatedSec);

  size_t Waiting() const { return m_uWaiting; }
  size_t Ready() const { return m_uReady; }  // of these, with bodies
  size_t Taken() const { return m_mapTaken.size(); }
  size_t BodyBytes() const { return m_uBodyBytes; }
  size_t Cost() const { return m_uCost; }     // of waiting and taken ones, in the terms of the bound
  std::optional<uint32_t> OldestSec() const;  // of all that is not done

 private:
  // bodies[i] belongs to entries[i]; bodies is never longer.
  struct _Queue {
    std::deque<_SpoolEntry> entries;
    std::deque<TOutItem> bodies;
    size_t uBodyBytes = 0;
  };
  struct _Taken {
    int iQueue = 0;
    _SpoolEntry entry;
    TOutItem pItem;
  };

  const _Queue& Queue(int iQueue) const { return m_queues[static_cast<size_t>(iQueue)]; }
  _Queue& Queue(int iQueue) { return m_queues[static_cast<size_t>(iQueue)]; }
  void PushBody(_Queue& queue, size_t uAt, TOutItem pItem);
  void PopBody(_Queue& queue, size_t uAt);
  void EraseAt(_Queue& queue, size_t uAt);
  void KeepLoadedPrefix(_Queue& queue, size_t uCount);

  std::array<_Queue, kSpoolQueues> m_queues;
  std::map<uint64_t, _Taken> m_mapTaken;
  std::vector<_SpoolEntry> m_listDone;
  size_t m_uWaiting = 0;
  size_t m_uReady = 0;
  size_t m_uBodyBytes = 0;
  size_t m_uCost = 0;
};

}  // namespace zxcloud
