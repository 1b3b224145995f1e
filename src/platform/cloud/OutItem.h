// One upload on its way, its priority, and the message format around it. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace zxcloud {

inline constexpr int kPriorityCount = 8;
inline constexpr int kPriorityGroup = 4;  // 0..3 and 10..13
// 0..3 and 10..13 as 0..7; -1 for anything else.
int PriorityIndex(int iPriority);
int PriorityOf(int iIndex);
// Priorities 0 and 10: a part of every bound is kept for them.
inline bool IsUrgent(int iIndex) {
  return iIndex % kPriorityGroup == 0;
}

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
  uint64_t u64Stamp = 0;  // the newest spooled row when it came; set by the outbox

  std::string_view Body() const { return std::string_view(strWire).substr(uBody); }
  size_t Bytes() const { return strWire.size(); }
};
using TOutItem = std::shared_ptr<const _OutItem>;

// Made by one thread and then handed over; only the outbox or the spool that takes it still writes to it.
std::shared_ptr<_OutItem> MakeOutItem(uint64_t u64Seq, int iPriority, std::string strId,
                                      std::string_view svBody, bool bWaited = false);

}  // namespace zxcloud
