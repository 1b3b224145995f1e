// Aligned tables and times for people.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zxctl {

// Columns as wide as their widest cell (counted in characters, not bytes), two blanks between them; the last
// column is not padded. Control characters in cells are shown as "?", so that nothing a machine sent can
// steer a terminal.
std::string FormatTable(const std::vector<std::vector<std::string>>& listRows);
std::string Shorten(const std::string& str, size_t uMax);  // at most uMax characters, "..." where it was cut
std::string ClockText(int64_t i64Ms);                      // local "HH:MM:SS.mmm"; "-" for 0
std::string DateText(int64_t i64Ms);                       // local date before it; "-" for 0
std::string AgoText(int64_t i64Ms, int64_t i64Now);        // "12 s ago"; "-" for 0

std::string ErrnoText(int iError);  // "No such file or directory"

}  // namespace zxctl
