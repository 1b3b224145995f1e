#include "CloudText.h"

#include <sys/random.h>
#include <time.h>

#include <cerrno>
#include <charconv>
#include <cstring>

namespace zxcloudd {

namespace {

bool IsName(std::string_view sv, size_t uMax) {
  if (sv.empty() || sv.size() > uMax)
    return false;
  for (const char ch : sv) {
    const bool bAlnum = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9');
    if (!bAlnum && ch != '.' && ch != '_' && ch != '-')
      return false;
  }
  return true;
}

}  // namespace

bool IsMid(std::string_view sv) {
  return IsName(sv, kMidMax);
}

bool IsMessageId(std::string_view sv) {
  return IsName(sv, kMessageIdMax);
}

bool IsCommandId(std::string_view sv) {
  if (sv.empty() || sv.size() > kCommandIdMax)
    return false;
  for (const char ch : sv) {
    if (static_cast<unsigned char>(ch) < 0x20 || ch == 0x7f || ch == '"' || ch == '\\')
      return false;
  }
  return true;
}

bool IsPriority(int iPriority) {
  return (iPriority >= 0 && iPriority <= 3) || (iPriority >= 10 && iPriority <= 13);
}

bool ParseNumber(std::string_view sv, int64_t i64Min, int64_t i64Max, int64_t& i64Value) {
  if (sv.empty() || sv.front() < '0' || sv.front() > '9')
    return false;
  int64_t i64 = 0;
  const auto result = std::from_chars(sv.data(), sv.data() + sv.size(), i64);
  if (result.ec != std::errc() || result.ptr != sv.data() + sv.size() || i64 < i64Min || i64 > i64Max)
    return false;
  i64Value = i64;
  return true;
}

std::string_view Trim(std::string_view sv) {
  constexpr std::string_view kBlank = " \t\r\n";
  const size_t uFirst = sv.find_first_not_of(kBlank);
  if (uFirst == std::string_view::npos)
    return {};
  return sv.substr(uFirst, sv.find_last_not_of(kBlank) - uFirst + 1);
}

int64_t NowMs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::string ErrnoText(int iError) {
  const char* psz = strerrordesc_np(iError);
  return psz != nullptr ? psz : "error " + std::to_string(iError);
}

std::string RandomHex(size_t uBytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string strRaw(uBytes, '\0');
  for (size_t uDone = 0; uDone < uBytes;) {
    const ssize_t iGot = getrandom(strRaw.data() + uDone, uBytes - uDone, 0);
    if (iGot > 0)
      uDone += static_cast<size_t>(iGot);
    else if (errno != EINTR)
      break;  // cannot happen with a length of 256 or less once the pool is ready
  }
  std::string strHex;
  strHex.reserve(uBytes * 2);
  for (const char ch : strRaw) {
    strHex += kHex[static_cast<unsigned char>(ch) >> 4];
    strHex += kHex[static_cast<unsigned char>(ch) & 15];
  }
  return strHex;
}

}  // namespace zxcloudd
