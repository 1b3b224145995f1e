#include "Table.h"

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace zxctl {

namespace {

std::string Clean(const std::string& str) {
  std::string strClean = str;
  for (char& ch : strClean) {
    if (static_cast<unsigned char>(ch) < 0x20 || ch == 0x7f)
      ch = '?';
  }
  return strClean;
}

size_t Width(const std::string& str) {
  return static_cast<size_t>(std::count_if(str.begin(), str.end(), [](char ch) {
    return (static_cast<unsigned char>(ch) & 0xc0) != 0x80;  // not a continuation byte of UTF-8
  }));
}

}  // namespace

std::string FormatTable(const std::vector<std::vector<std::string>>& listRows) {
  std::vector<size_t> listWidths;
  for (const auto& row : listRows) {
    listWidths.resize(std::max(listWidths.size(), row.size()));
    for (size_t u = 0; u < row.size(); ++u)
      listWidths[u] = std::max(listWidths[u], Width(row[u]));
  }
  std::string str;
  for (const auto& row : listRows) {
    for (size_t u = 0; u < row.size(); ++u) {
      str += Clean(row[u]);
      if (u + 1 < row.size())
        str.append(listWidths[u] - Width(row[u]) + 2, ' ');
    }
    str += '\n';
  }
  return str;
}

std::string Shorten(const std::string& str, size_t uMax) {
  size_t uChars = 0, uCut = str.size();
  for (size_t u = 0; u < str.size(); ++u) {
    if ((static_cast<unsigned char>(str[u]) & 0xc0) == 0x80)
      continue;
    if (uChars + 3 == uMax)
      uCut = u;
    if (++uChars > uMax)
      return str.substr(0, uCut) + "...";
  }
  return str;
}

std::string ClockText(int64_t i64Ms) {
  if (i64Ms == 0)
    return "-";
  const time_t tSec = static_cast<time_t>(i64Ms / 1000);
  struct tm tmLocal {};
  localtime_r(&tSec, &tmLocal);
  char sz[32];
  std::snprintf(sz, sizeof(sz), "%02d:%02d:%02d.%03d", tmLocal.tm_hour, tmLocal.tm_min, tmLocal.tm_sec,
                static_cast<int>(i64Ms % 1000));
  return sz;
}

std::string DateText(int64_t i64Ms) {
  if (i64Ms == 0)
    return "-";
  const time_t tSec = static_cast<time_t>(i64Ms / 1000);
  struct tm tmLocal {};
  localtime_r(&tSec, &tmLocal);
  char sz[32];
  strftime(sz, sizeof(sz), "%Y-%m-%d ", &tmLocal);
  return sz + ClockText(i64Ms);
}

std::string AgoText(int64_t i64Ms, int64_t i64Now) {
  if (i64Ms == 0)
    return "-";
  const int64_t i64Sec = std::max<int64_t>(0, (i64Now - i64Ms) / 1000);
  if (i64Sec < 120)
    return std::to_string(i64Sec) + " s ago";
  if (i64Sec < 7200)
    return std::to_string(i64Sec / 60) + " min ago";
  return i64Sec < 172800 ? std::to_string(i64Sec / 3600) + " h ago"
                         : std::to_string(i64Sec / 86400) + " d ago";
}

std::string ErrnoText(int iError) {
  const char* psz = strerrordesc_np(iError);
  return psz != nullptr ? psz : "error " + std::to_string(iError);
}

}  // namespace zxctl
