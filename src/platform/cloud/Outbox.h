// What waits for the cloud, and the message format around it.
//
// IOutbox is the seam behind which a durable spool can take the place of memory. An entry is waiting, or
// taken by exactly one sender, until it is done. Threads: any. Blocking: never.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "platform/cloud/CloudPorts.h"
#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"

namespace zxcloud {

inline constexpr int kPriorityCount = 8;
// 0..3 and 10..13 as 0..7; -1 for anything else.
int PriorityIndex(int iPriority);

// Which connection carries an upload: its size alone decides, so that an acknowledgement never stands behind
// bulk data, whatever the priority of either.
enum class ELane : uint8_t { Command, Bulk, Any };
inline constexpr size_t kCommandBytes = 4096;  // a body up to this goes with the commands
inline ELane LaneOf(size_t uBodyBytes) {
  return uBodyBytes <= kCommandBytes ? ELane::Command : ELane::Bulk;
}

// One upload. The wire form of the long connection is "zx1 <id>" LF body; HTTPS sends the body alone.
struct _OutItem {
  uint64_t u64Seq = 0;
  int iPriority = 0;
  std::string strId;
  std::string strWire;
  size_t uBody = 0;       // offset of the body in strWire
  bool bWaited = false;   // a caller waits for its acknowledgement
  uint64_t u64Added = 0;  // milliseconds of the outbox's clock; set by it

  std::string_view Body() const { return std::string_view(strWire).substr(uBody); }
  size_t Bytes() const { return strWire.size(); }
};
using TOutItem = std::shared_ptr<const _OutItem>;

// Made by one thread and then handed over; only the outbox that takes it still writes to it.
std::shared_ptr<_OutItem> MakeOutItem(uint64_t u64Seq, int iPriority, std::string strId,
                                      std::string_view svBody, bool bWaited = false);

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
  uint64_t u64OldestMs = 0;  // age of the oldest entry; 0: none
};

class IOutbox {
 public:
  virtual ~IOutbox() = default;
  // False: the bound in bytes is reached. A part of it is kept for urgent entries.
  virtual bool Add(std::shared_ptr<_OutItem> pItem) = 0;
  // The next entry for this room, now taken; null when none waits or the next does not fit. Lower priority
  // number first within 0..3 and within 10..13, oldest first within a priority; the second group gets every
  // fourth turn of a lane while both have entries, so that neither starves.
  virtual TOutItem Take(const _OutRoom& room) = 0;
  virtual void Done(uint64_t u64Seq) = 0;    // delivered or refused for good
  virtual void Return(uint64_t u64Seq) = 0;  // taken, but to be sent again: back to its old place
  // The sender has given up on it: gone when it waits; when it is taken, it will not come back.
  virtual void Cancel(uint64_t u64Seq) = 0;
  virtual size_t Waiting() = 0;
  virtual size_t Bytes() = 0;  // waiting and taken
  virtual _OutboxState State() = 0;
};

class CMemoryOutbox : public IOutbox {
 public:
  CMemoryOutbox(size_t uMaxBytes, IClock& clock);

  bool Add(std::shared_ptr<_OutItem> pItem) override TS_EXCLUDES(m_cs);
  TOutItem Take(const _OutRoom& room) override TS_EXCLUDES(m_cs);
  void Done(uint64_t u64Seq) override TS_EXCLUDES(m_cs);
  void Return(uint64_t u64Seq) override TS_EXCLUDES(m_cs);
  void Cancel(uint64_t u64Seq) override TS_EXCLUDES(m_cs);
  size_t Waiting() override TS_EXCLUDES(m_cs);
  size_t Bytes() override TS_EXCLUDES(m_cs);
  _OutboxState State() override TS_EXCLUDES(m_cs);

 private:
  using TQueue = std::map<uint64_t, TOutItem>;
  // Of one priority, by lane and by whether a caller waits.
  using TQueues = std::array<TQueue, 4>;
  struct _Taken {
    TOutItem pItem;
    bool bCancelled = false;
  };

  TQueue& QueueOf(const _OutItem& item) TS_REQUIRES(m_cs);
  TQueue* OldestOf(int iIndex, const _OutRoom& room) TS_REQUIRES(m_cs);
  int FirstOf(int iFrom, const _OutRoom& room) TS_REQUIRES(m_cs);
  int NextPriority(const _OutRoom& room) TS_REQUIRES(m_cs);

  const size_t m_uMaxBytes;
  IClock& m_clock;
  CCritSec m_cs;
  std::array<TQueues, kPriorityCount> m_queues TS_GUARDED_BY(m_cs);
  std::map<uint64_t, _Taken> m_mapTaken TS_GUARDED_BY(m_cs);
  size_t m_uBytes TS_GUARDED_BY(m_cs) = 0;
  size_t m_uWaiting TS_GUARDED_BY(m_cs) = 0;
  std::array<uint32_t, 3> m_uTurns TS_GUARDED_BY(m_cs){};  // by lane
};

}  // namespace zxcloud
