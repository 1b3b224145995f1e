// What went out on the long connection and waits for the cloud to say that it is on disk. A broker's
// acknowledgement frees the window only; an upload is done with the cloud's confirmation. One that stays out
// is sent again: after kConfirmMs, then at growing distances as long as nothing is confirmed, so that a
// broker whose cloud is away does not fill with repeats. What was overtaken is sent again sooner: one
// connection keeps its order, so when something that left kOvertakenMs later is confirmed, the word for what
// left before has been lost. Pure; one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cloud/Outbox.h"

namespace zxcloud {

inline constexpr uint32_t kUnconfirmedMessages = 256;
inline constexpr size_t kUnconfirmedBytes = 8u << 20;
inline constexpr uint64_t kConfirmMs = 30000;
inline constexpr uint64_t kMaxConfirmMs = 600000;
inline constexpr uint64_t kOvertakenMs = 2000;
inline constexpr uint64_t kOvertakenLookMs = 1000;     // looked for at most this often,
inline constexpr uint64_t kOvertakenRepeatMs = 10000;  // and sent again at most this often

class CConfirms {
 public:
  void Use(bool bUse) { m_bUse = bUse; }  // counts for what is sent from here on
  bool InUse() const { return m_bUse; }

  void Limit(_OutRoom& room) const;  // the room of a window, less what is unconfirmed
  void Sent(const _OutItem& item, const void* pConnection, uint64_t u64NowMs);
  bool Waits(uint64_t u64Seq) const { return m_mapSeqs.count(u64Seq) != 0; }
  void Forget(uint64_t u64Seq);  // it goes back to the outbox
  // A message of the cloud: "zx1" LF, then "+<id>" (on disk) or "-<id>" (refused for good) LF for each.
  // fnEach(sequence number, stored) for those that were waiting. False: not of this form; what came before
  // counts.
  template <class F>
  bool Take(std::string_view svPayload, F fnEach) {
    if (!TakeHead(svPayload))
      return false;
    bool bStored = false;
    std::string_view svId;
    while (TakeLine(svPayload, bStored, svId)) {
      const auto it = m_mapIds.find(svId);
      if (it == m_mapIds.end())
        continue;  // confirmed before, or by HTTPS
      const uint64_t u64Seq = it->second;
      Heard(u64Seq);
      Forget(u64Seq);
      fnEach(u64Seq, bStored);
    }
    return svPayload.empty();
  }
  // Everything that waits leaves, in the order of the outbox.
  std::vector<uint64_t> TakeAll();
  std::vector<uint64_t> TakeLate(uint64_t u64NowMs);  // what is due to be sent again
  uint64_t Deadline() const;                          // when to ask for it, or earlier; 0: never

 private:
  struct _Entry {
    std::string strId;
    size_t uBytes = 0;
    uint64_t u64Sent = 0;
    const void* pConnection = nullptr;
  };

  void Heard(uint64_t u64Seq);
  bool IsOvertaken(const _Entry& entry) const;
  static bool TakeHead(std::string_view& svRest);
  static bool TakeLine(std::string_view& svRest, bool& bStored, std::string_view& svId);

  bool m_bUse = false;
  std::map<uint64_t, _Entry> m_mapSeqs;
  std::map<std::string, uint64_t, std::less<>> m_mapIds;
  size_t m_uBytes = 0;
  uint64_t m_u64Due = 0;  // no entry is late before
  uint64_t m_u64Wait = kConfirmMs;
  bool m_bNews = false;                        // something was confirmed since entries were last late
  std::map<const void*, uint64_t> m_mapHeard;  // connection to when the newest that is confirmed had left
  bool m_bHeard = false;                       // that has changed since the last look
  uint64_t m_u64NextLook = 0;
  uint64_t m_u64NextRepeat = 0;  // of what was overtaken
};

}  // namespace zxcloud
