// The calls that one component has received and not answered yet, by handle. A handle names its call for
// ever: it is never given out a second time, so a used or invented one finds nothing.
// Threads: guarded by the lock of the endpoint that owns it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/bus/BusItems.h"

class CBusBatons {
 public:
  static constexpr size_t kMaxBatons = 1u << 20;

  size_t Count() const { return m_slots.size() - m_free.size(); }
  // Makes room, so that the next uCount - Count() calls of Add cannot fail. Throws std::bad_alloc.
  void Reserve(size_t uCount);
  // Handle of the call, never 0; also kept in the call. Needs room.
  uint64_t Add(CBusRef<CBusCall> call);
  CBusCall* Find(uint64_t u64Baton) const;  // null when there is none
  CBusRef<CBusCall> Take(uint64_t u64Baton);
  // The end of a table, in two steps: under the lock the calls forget their handles; then, without it, they
  // are taken out one by one, until none is given. Nothing else may be called in between or afterwards.
  void Disown();
  CBusRef<CBusCall> TakeDisowned();

 private:
  struct _Slot {
    uint64_t u64Baton = 0;
    CBusRef<CBusCall> call;
  };
  static constexpr uint64_t kIndexBits = 20;
  static size_t IndexOf(uint64_t u64Baton) { return u64Baton & ((uint64_t{1} << kIndexBits) - 1); }

  std::vector<_Slot> m_slots;
  std::vector<uint32_t> m_free;
};
