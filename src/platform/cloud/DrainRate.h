// How fast what has piled up may go after the far side has come back, so that a returning fleet does not
// flatten its cloud: a modest rate at first that doubles every ten seconds. A message counts once for every
// 16 KiB begun; a second's worth may go at once. Pure: no clock, no thread of its own; one thread per object.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zxcloud {

class CDrainRate {
 public:
  // uPerSec 0: no limit.
  void Begin(uint32_t uPerSec, uint64_t u64NowMs);
  void End() { m_uBase = 0; }  // nothing has piled up any more
  bool Limits() const { return m_uBase != 0; }

  bool Admits(uint64_t u64NowMs);
  void Took(size_t uBytes);
  // When to ask again after a refusal; a little later than the next message's time, so that a slow drain is
  // no wake-up per message.
  uint64_t NextMs() const;

 private:
  uint64_t Rate(uint64_t u64NowMs) const;

  uint32_t m_uBase = 0;
  uint64_t m_u64Begin = 0;
  uint64_t m_u64At = 0;      // the allowance is as of this time
  int64_t m_i64Allowed = 0;  // thousandths of a message; below 0 after a large one
};

}  // namespace zxcloud
