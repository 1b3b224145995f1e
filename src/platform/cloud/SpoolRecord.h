// What the spool keeps of one upload, and the checksum that every stored row carries. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace zxcloud {

inline constexpr int kSpoolPageBytes = 4096;
inline constexpr int kSpoolSchemaVersion = 1;
inline constexpr uint32_t kMaxSpoolBody = 64u << 20;  // nothing larger was ever written

// One row of "outbox" as it is read; the texts belong to whoever hands it out.
struct _SpoolRow {
  uint64_t u64Row = 0;
  int iPriority = 0;
  uint32_t uCreatedSec = 0;  // of the spool's clock
  std::string_view svId;
  std::string_view svBody;
};

// The one row of "state": what must be in the file, so that a loss can be counted.
struct _SpoolStateRow {
  uint64_t u64Waiting = 0;     // rows of "outbox"
  uint64_t u64Floor = 0;       // rows below are gone
  uint64_t u64Generation = 0;  // one more with every commit
};

// The first 64 bits of a SHA-256 over every field but the row's number, as SQLite stores them. Nothing when
// the digest failed.
std::optional<int64_t> SpoolSum(const _SpoolRow& row);
std::optional<int64_t> SpoolSum(const _SpoolStateRow& state);

}  // namespace zxcloud
