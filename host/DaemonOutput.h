// What a child process writes to its error output, as lines for a log: cut to a length, without control
// characters, and no more than a bounded number per time, because the bus daemon writes one line per refused
// message and any component can have messages refused. Pure; one thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class CDaemonOutput {
 public:
  static constexpr size_t kMaxLine = 1024;  // bytes; the rest of a longer line is dropped
  static constexpr uint32_t kBurst = 20;    // lines at once
  static constexpr uint32_t kPerMinute = 30;

  // Lines that may be logged now; u64NowMs is monotonic. A line without its end waits for it.
  std::vector<std::string> Feed(std::string_view svData, uint64_t u64NowMs);
  // What is left without a line end.
  std::vector<std::string> Finish(uint64_t u64NowMs);
  // Lines that were dropped since the last call, once logging has room again; else 0.
  uint64_t TakeDropped(uint64_t u64NowMs);

 private:
  void EndLine(std::vector<std::string>& lines, uint64_t u64NowMs);
  void Refill(uint64_t u64NowMs);

  std::string m_strLine;
  bool m_bAny = false;  // the current line has had a byte
  uint64_t m_u64RefilledMs = 0;
  uint64_t m_u64Credit = uint64_t{kBurst} * 60000;  // in 1/60000 of a line
  uint64_t m_u64Dropped = 0;
};
