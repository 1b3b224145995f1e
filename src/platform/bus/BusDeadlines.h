// The calls of one sender that wait for a reply, by deadline. Senders use few different time-outs, and calls
// with the same time-out fall due in the order of sending: one list per time-out makes insert and remove
// constant, and the earliest deadline is at the head of one of them.
// Threads: guarded by the lock of the endpoint that owns it. Holds one reference to each call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

#include "platform/bus/BusItems.h"

struct CBusDeadlineList {
  CBusCall* pHead = nullptr;
  CBusCall* pTail = nullptr;
};

class CBusDeadlines {
 public:
  static constexpr uint64_t kNever = UINT64_MAX;

  size_t Count() const { return m_uCount; }
  // Never later than the earliest deadline. It may lag behind calls that were removed, so that a sender with
  // one call at a time does not have to wake its dispatcher for each; PopDue brings it up to date.
  uint64_t EarliestNs() const { return m_u64EarliestNs; }

  // The deadline is u64NowNs + the call's time-out. Throws std::bad_alloc; then nothing changed.
  void Insert(const CBusRef<CBusCall>& call, uint64_t u64NowNs);
  // Takes the call out again and hands its reference back.
  CBusRef<CBusCall> Remove(CBusCall& call);
  // The next call due at u64NowNs, or none. Call until it gives none.
  CBusRef<CBusCall> PopDue(uint64_t u64NowNs);
  CBusRef<CBusCall> PopAny();

 private:
  static constexpr size_t kKeepLists = 32;  // empty lists up to here stay for the next call

  std::map<uint32_t, CBusDeadlineList> m_lists;
  size_t m_uCount = 0;
  uint64_t m_u64EarliestNs = kNever;
};
