// The agent's four log channels and the calls that write to its main one.
// The handles are process-wide: the plug-in object opens and closes the first three (slot Initialize and
// Uninitialize), the manager the fourth. A closed handle is null and swallows its lines. Contract of the
// calls: platform/log/Log.h.
#pragma once

#include <atomic>

#include "platform/log/Log.h"

extern std::atomic<HLog> g_hLogMain;     // "zxagent"
extern std::atomic<HLog> g_hLogFlow;     // "zxagentflow": one notification per received cloud command
extern std::atomic<HLog> g_hLogCache;    // "zxlogcache": log-cache and upload results
extern std::atomic<HLog> g_hLogZxcloud;  // "zxcloud": the cloud library's own lines

template <class... A>
inline void LogDetail(zxlog::TLogText<0, std::type_identity_t<A>...> text, const A&... args) {
  zxlog::Put<0, A...>(g_hLogMain.load(std::memory_order_relaxed), kLogDetail, text, args...);
}
template <class... A>
inline void LogDetailWarn(zxlog::TLogText<1, std::type_identity_t<A>...> text, const A&... args) {
  zxlog::Put<1, A...>(g_hLogMain.load(std::memory_order_relaxed), kLogDetail, text, args...);
}
template <class... A>
inline void LogInfo(zxlog::TLogText<0, std::type_identity_t<A>...> text, const A&... args) {
  zxlog::Put<0, A...>(g_hLogMain.load(std::memory_order_relaxed), kLogInfo, text, args...);
}
template <class... A>
inline void LogTrace(zxlog::TLogText<0, std::type_identity_t<A>...> text, const A&... args) {
  zxlog::Put<0, A...>(g_hLogMain.load(std::memory_order_relaxed), kLogTrace, text, args...);
}
// Warn and return 0 (= failed), so that a refused step is one statement.
template <class... A>
inline int LogWarn(zxlog::TLogText<1, std::type_identity_t<A>...> text, const A&... args) {
  zxlog::Put<1, A...>(g_hLogMain.load(std::memory_order_relaxed), kLogWarn, text, args...);
  return 0;
}
template <class... A>
inline int LogError(zxlog::TLogText<2, std::type_identity_t<A>...> text, const A&... args) {
  zxlog::Put<2, A...>(g_hLogMain.load(std::memory_order_relaxed), kLogError, text, args...);
  return 0;
}
// The same with a result code: "return LogFail(kErrJson, ...)".
template <class... A>
inline uint32_t LogFail(uint32_t uiCode, zxlog::TLogText<1, std::type_identity_t<A>...> text,
                        const A&... args) {
  zxlog::Put<1, A...>(g_hLogMain.load(std::memory_order_relaxed), kLogWarn, text, args...);
  return uiCode;
}
template <class... A>
inline uint32_t LogFailError(uint32_t uiCode, zxlog::TLogText<2, std::type_identity_t<A>...> text,
                             const A&... args) {
  zxlog::Put<2, A...>(g_hLogMain.load(std::memory_order_relaxed), kLogError, text, args...);
  return uiCode;
}
