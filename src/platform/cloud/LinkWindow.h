// What one connection has under way: sent, not yet acknowledged. Bounded in messages and bytes, with a part
// kept for urgent entries. Pure; one thread per object.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/cloud/Outbox.h"

namespace zxcloud {

struct _WindowSize {
  uint32_t uMessages = 0;
  size_t uBytes = 0;
  uint32_t uReserveMessages = 0;  // of the messages, for urgent entries
  size_t uReserveBytes = 0;
};

// Commands' connection: whatever stands in front of an acknowledgement is at most this much.
inline constexpr _WindowSize kCommandWindow{64, 256u << 10, 8, 32u << 10};
inline constexpr _WindowSize kBulkWindow{64, 4u << 20, 8, 256u << 10};

class CLinkWindow {
 public:
  CLinkWindow() { m_list.reserve(kBulkWindow.uMessages); }

  _OutRoom Room(const _WindowSize& size) const {
    _OutRoom room;
    room.bIdle = m_list.empty();
    room.uMessages = size.uMessages - std::min(size.uMessages, static_cast<uint32_t>(m_list.size()));
    room.uBytes = size.uBytes - std::min(size.uBytes, m_uBytes);
    room.uReserveMessages = size.uReserveMessages;
    room.uReserveBytes = size.uReserveBytes;
    return room;
  }
  void Sent(uint64_t u64Seq, size_t uBytes, uint64_t u64NowMs) {
    if (m_list.empty())
      m_u64Progress = u64NowMs;
    m_list.push_back({u64Seq, uBytes});
    m_uBytes += uBytes;
  }
  // False: not under way.
  bool Acknowledged(uint64_t u64Seq, uint64_t u64NowMs) {
    const auto it =
        std::find_if(m_list.begin(), m_list.end(), [&](const _Entry& one) { return one.u64Seq == u64Seq; });
    if (it == m_list.end())
      return false;
    m_uBytes -= it->uBytes;
    m_list.erase(it);
    m_u64Progress = u64NowMs;
    return true;
  }
  // Empties it.
  template <class F>
  void GiveBack(F fnEach) {
    for (const _Entry& one : m_list)
      fnEach(one.u64Seq);
    m_list.clear();
    m_uBytes = 0;
  }
  bool Empty() const { return m_list.empty(); }
  size_t Bytes() const { return m_uBytes; }
  uint64_t Progress() const { return m_u64Progress; }  // when it was last empty or an acknowledgement came

 private:
  struct _Entry {
    uint64_t u64Seq = 0;
    size_t uBytes = 0;
  };

  std::vector<_Entry> m_list;  // in the order of sending, which is that of the acknowledgements; short
  size_t m_uBytes = 0;
  uint64_t m_u64Progress = 0;
};

}  // namespace zxcloud
