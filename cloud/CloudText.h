// Pure helpers of the reference cloud: what ids look like, numbers, clocks, random texts.
// Threads: any. Nothing here logs or throws, except std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zxcloudd {

inline constexpr size_t kMidMax = 128;
inline constexpr size_t kMessageIdMax = 64;
inline constexpr size_t kCommandIdMax = 200;

// A machine id: 1 to 128 characters of [A-Za-z0-9._-], because it stands in topics.
bool IsMid(std::string_view sv);
// The name of one upload: 1 to 64 characters of [A-Za-z0-9._-].
bool IsMessageId(std::string_view sv);
// The id of one command: 1 to 200 bytes without control characters, quotes and backslashes. The agent's
// acknowledgement carries the id unescaped inside JSON, so such an id could never be recognised again.
bool IsCommandId(std::string_view sv);
// 0 to 3, and 10 to 13 for the second send of public messages.
bool IsPriority(int iPriority);

// The whole text as a decimal number without sign; false when it is anything else or outside the range.
bool ParseNumber(std::string_view sv, int64_t i64Min, int64_t i64Max, int64_t& i64Value);
// The text without blanks, tabs and line ends at both ends.
std::string_view Trim(std::string_view sv);

int64_t NowMs();                    // wall clock, milliseconds since the epoch
std::string ErrnoText(int iError);  // "No such file or directory"
// uBytes random bytes of the kernel as lower-case hexadecimal text.
std::string RandomHex(size_t uBytes);

}  // namespace zxcloudd
