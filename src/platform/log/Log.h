// Logging front: channels by name, levels, and call sites whose literal is checked at compile time.
//
// Levels: 1 periodic detail and message bodies, 2 normal progress, 3 warning ("*" in front of the text),
// 4 serious error ("**"), 6 trace. A line is written when its level is at or above the channel's threshold
// (default 2, so 1 is the most verbose setting). One line = time, level, process and thread id, the text.
//
// Threads: everything here may be called from any thread. Blocking: a call copies its line to the writer
// thread's bounded queue and waits only when that queue is full. No call is a cancellation point.
// Ownership: a handle belongs to whoever opened it; LogInit/LogUninit pairs of one name share the channel.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "platform/Api.h"
#include "platform/text/PString.h"

struct CLogChannel {
  std::atomic<int> iThreshold{2};  // read by every call site; the rest of a channel lives in the back end
};
using HLog = CLogChannel*;

inline constexpr int kLogDetail = 1;
inline constexpr int kLogInfo = 2;
inline constexpr int kLogWarn = 3;
inline constexpr int kLogError = 4;
inline constexpr int kLogTrace = 6;

// Log files go to strHome + "log/", settings come from strHome + "etc/zxlog.json", which is read again while
// running. Call it before the first LogInit, with a path that ends in "/". Without a home the lines go to
// stderr. ZX_LOG_DIR and ZX_LOG_LEVEL of the environment stand above the files.
ZX_API void LogSetHome(const CPString& strHome);
// Opens the channel: <dir>/<name>.log, rotated by size. Null only when out of memory; a directory that cannot
// be written sends the lines to stderr until it can.
ZX_API HLog LogInit(const char* pszName);
// One threshold for every channel, over settings and environment, until it is 0 again. Out of 0 to 9:
// ignored.
ZX_API void LogForceLevel(int iLevel);
ZX_API void LogUninit(HLog hLog);  // null is allowed; waits until the channel's lines are written
ZX_API void LogPrint(HLog hLog, int iLevel, const char* pszFormat, ...) __attribute__((format(printf, 3, 4)));
ZX_API void LogPrintV(HLog hLog, int iLevel, const char* pszFormat, va_list args)
    __attribute__((format(printf, 3, 0)));
ZX_API void LogPrintStr(HLog hLog, int iLevel, const char* psz);
inline bool LogCheckLevel(HLog hLog, int iLevel) {
  return hLog != nullptr && iLevel >= hLog->iThreshold.load(std::memory_order_relaxed);
}

// Tests see every line that passes its threshold, before it is queued. Called on the logging thread; must not
// log.
class ILogSink {
 public:
  virtual ~ILogSink() = default;
  virtual void OnLine(const char* pszChannel, int iLevel, const char* pszText) = 0;
};
ZX_API ILogSink* LogSetSink(ILogSink* pSink);  // null removes it; returns the previous one

// The host's default logger, for code that runs before any channel is open. The host names the channel that
// receives its lines (SetChannel); without one they go to stderr.
class ZX_API CLogDebug {
 public:
  static CLogDebug& Instance();
  void SetChannel(HLog hLog);
  bool CheckLogLevel(int iLevel) const;
  void LogPrintStr(int iLevel, const char* pszSource, const char* pszFunction, int iLine, const char* psz);
  void LogPrintV(int iLevel, const char* pszSource, const char* pszFunction, int iLine, const char* pszFormat,
                 ...) __attribute__((format(printf, 6, 7)));

 private:
  std::atomic<HLog> m_hLog{nullptr};
};

namespace zxlog {

// What one printf conversion accepts; the text's conversions are checked against the call's argument types.
enum class EArg { Text, Int32, Int64, Pointer, Double, Bad };

template <class T>
consteval EArg ArgKind() {
  using U = std::remove_cvref_t<std::decay_t<T>>;
  if constexpr (std::is_same_v<U, CPString> || std::is_same_v<U, std::string> ||
                std::is_same_v<U, const char*> || std::is_same_v<U, char*>)
    return EArg::Text;
  else if constexpr (std::is_pointer_v<U> || std::is_null_pointer_v<U>)
    return EArg::Pointer;
  else if constexpr (std::is_floating_point_v<U>)
    return EArg::Double;
  else if constexpr (std::is_enum_v<U> || std::is_integral_v<U>)
    return sizeof(U) <= 4 ? EArg::Int32 : EArg::Int64;
  else
    return EArg::Bad;
}

template <size_t N>
consteval bool CheckFormat(const char* psz, const EArg (&kinds)[N], size_t uCount) {
  size_t uArg = 0;
  for (; *psz != 0; ++psz) {
    if (*psz != '%')
      continue;
    ++psz;
    if (*psz == '%')
      continue;
    while (*psz == '0' || *psz == '-' || (*psz >= '1' && *psz <= '9') || *psz == '.')
      ++psz;
    int iLong = 0;
    while (*psz == 'l' || *psz == 'h') {
      iLong += *psz == 'l' ? 1 : 0;
      ++psz;
    }
    if (uArg >= uCount)
      return false;
    const EArg eKind = kinds[uArg++];
    switch (*psz) {
      case 's':
        if (eKind != EArg::Text)
          return false;
        break;
      case 'p':
        if (eKind != EArg::Pointer && eKind != EArg::Text)
          return false;
        break;
      case 'd':
      case 'u':
      case 'x':
      case 'X':
        if (eKind != (iLong > 0 ? EArg::Int64 : EArg::Int32))
          return false;
        break;
      case 'f':
        if (eKind != EArg::Double)
          return false;
        break;
      default:
        return false;
    }
  }
  return uArg == uCount;
}

consteval int Stars(const char* psz) {
  int iStars = 0;
  while (psz[iStars] == '*')
    ++iStars;
  return iStars;
}

// Deliberately neither constexpr nor defined: reached only while a bad literal is being compiled.
void ErrorTextDoesNotMatchArguments();
void ErrorStarsDoNotMatchLevel();

// A literal with its level and argument types. iStars is the number of "*" that the level asks for.
template <int iStars, class... A>
struct TLogText {
  const char* psz;
  template <size_t N>
  consteval TLogText(const char (&szText)[N]) : psz(szText) {  // NOLINT(google-explicit-constructor)
    constexpr EArg kinds[sizeof...(A) + 1] = {ArgKind<A>()..., EArg::Bad};
    if (!CheckFormat(szText, kinds, sizeof...(A)))
      ErrorTextDoesNotMatchArguments();
    if (Stars(szText) != iStars)
      ErrorStarsDoNotMatchLevel();
  }
};

// What goes through the variadic back end for each argument.
inline const char* Pass(const CPString& str) {
  return str.c_str();
}
inline const char* Pass(const std::string& str) {
  return str.c_str();
}
inline const char* Pass(const char* psz) {
  return psz;
}  // null: printf's "(null)" for %s, zero for %p
template <class T>
auto Pass(const T& value) {
  if constexpr ((std::is_enum_v<T> || std::is_integral_v<T>)&&sizeof(T) <= 4)
    return static_cast<int>(value);
  else if constexpr (std::is_enum_v<T> || std::is_integral_v<T>)
    return static_cast<unsigned long long>(value);
  else
    return value;
}

ZX_API void Write(HLog hLog, int iLevel, const char* pszFormat, ...);

template <int iStars, class... A>
inline void Put(HLog hLog, int iLevel, TLogText<iStars, A...> text, const A&... args) {
  if (LogCheckLevel(hLog, iLevel))
    Write(hLog, iLevel, text.psz, Pass(args)...);
}

}  // namespace zxlog

// Call sites name the channel; LogWarnTo/LogErrorTo return 0, so that a refused step is one statement.
template <class... A>
inline void LogDetailTo(HLog h, zxlog::TLogText<0, std::type_identity_t<A>...> text, const A&... args) {
  zxlog::Put<0, A...>(h, kLogDetail, text, args...);
}
// A warning that stays at the detail level.
template <class... A>
inline void LogDetailWarnTo(HLog h, zxlog::TLogText<1, std::type_identity_t<A>...> text, const A&... args) {
  zxlog::Put<1, A...>(h, kLogDetail, text, args...);
}
template <class... A>
inline void LogInfoTo(HLog h, zxlog::TLogText<0, std::type_identity_t<A>...> text, const A&... args) {
  zxlog::Put<0, A...>(h, kLogInfo, text, args...);
}
template <class... A>
inline void LogTraceTo(HLog h, zxlog::TLogText<0, std::type_identity_t<A>...> text, const A&... args) {
  zxlog::Put<0, A...>(h, kLogTrace, text, args...);
}
template <class... A>
inline int LogWarnTo(HLog h, zxlog::TLogText<1, std::type_identity_t<A>...> text, const A&... args) {
  zxlog::Put<1, A...>(h, kLogWarn, text, args...);
  return 0;
}
template <class... A>
inline int LogErrorTo(HLog h, zxlog::TLogText<2, std::type_identity_t<A>...> text, const A&... args) {
  zxlog::Put<2, A...>(h, kLogError, text, args...);
  return 0;
}
