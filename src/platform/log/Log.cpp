#include "platform/log/Log.h"

#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>

#include "platform/log/LogBackend.h"
#include "platform/log/LogSink.h"
#include "platform/os/ZxNoCancel.h"

namespace zxlog {

namespace {

constexpr size_t kStackTextBytes = 4096;

std::atomic<ILogSink*> s_pSink{nullptr};
std::atomic<uint32_t> s_uInSink{0};

// Hands one text to the sink and to the writer. Keeps errno, because call sites report it and then return.
void Deliver(HLog hLog, int iLevel, std::string_view svText) {
  GiveToSink(static_cast<CBackendChannel*>(hLog)->strName.c_str(), iLevel, svText);
  CLogBackend::Instance().Post(hLog, iLevel, svText);
}

__attribute__((format(printf, 3, 0))) void DeliverFormat(HLog hLog, int iLevel, const char* pszFormat,
                                                         va_list args) {
  const CNoCancel noCancel;
  const int iError = errno;
  try {
    FormatLogText(pszFormat, args, [&](std::string_view svText) { Deliver(hLog, iLevel, svText); });
  } catch (const std::exception&) {
    // Out of memory: the line is lost, the caller goes on.
  }
  errno = iError;
}

}  // namespace

void GiveToSink(const char* pszChannel, int iLevel, std::string_view svText) {
  if (s_pSink.load(std::memory_order_relaxed) == nullptr)
    return;
  ++s_uInSink;
  if (ILogSink* pSink = s_pSink.load(); pSink != nullptr)
    pSink->OnLine(pszChannel, iLevel, std::string(svText).c_str());
  --s_uInSink;
}

void FormatLogText(const char* pszFormat, va_list args,
                   const std::function<void(std::string_view)>& fnDeliver) {
  char szStack[kStackTextBytes];
  va_list again;
  va_copy(again, args);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized) the caller started it
  const int iLength = std::vsnprintf(szStack, sizeof(szStack), pszFormat, args);
  const size_t uLength = iLength > 0 ? static_cast<size_t>(iLength) : 0;
  if (uLength < sizeof(szStack)) {
    va_end(again);
    fnDeliver(iLength < 0 ? std::string_view(pszFormat) : std::string_view(szStack, uLength));
    return;
  }
  const size_t uKept = std::min(uLength, kLogMaxTextBytes);
  std::string strText(uKept, 0);
  std::vsnprintf(strText.data(), uKept + 1, pszFormat, again);
  va_end(again);
  fnDeliver(uKept < uLength ? CutText(strText, uLength) : strText);
}

void Write(HLog hLog, int iLevel, const char* pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // the call site's literal was checked against its
  DeliverFormat(hLog, iLevel, pszFormat, args);       // arguments while it was compiled
#pragma GCC diagnostic pop
  va_end(args);
}

}  // namespace zxlog

void LogSetHome(const CPString& strHome) {
  zxlog::CLogBackend::Instance().SetHome(strHome);
}

HLog LogInit(const char* pszName) {
  const CNoCancel noCancel;
  try {
    return zxlog::CLogBackend::Instance().Open(pszName);
  } catch (const std::exception&) {
    return nullptr;
  }
}

void LogForceLevel(int iLevel) {
  const CNoCancel noCancel;
  zxlog::CLogBackend::Instance().ForceLevel(iLevel);
}

void LogUninit(HLog hLog) {
  const CNoCancel noCancel;
  if (hLog != nullptr)
    zxlog::CLogBackend::Instance().Close(hLog);
}

void LogPrint(HLog hLog, int iLevel, const char* pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  LogPrintV(hLog, iLevel, pszFormat, args);
  va_end(args);
}

void LogPrintV(HLog hLog, int iLevel, const char* pszFormat, va_list args) {
  if (LogCheckLevel(hLog, iLevel) && pszFormat != nullptr)
    zxlog::DeliverFormat(hLog, iLevel, pszFormat, args);
}

void LogPrintStr(HLog hLog, int iLevel, const char* psz) {
  if (!LogCheckLevel(hLog, iLevel) || psz == nullptr)
    return;
  const CNoCancel noCancel;
  const int iError = errno;
  try {
    const std::string_view svText(psz);
    if (svText.size() <= zxlog::kLogMaxTextBytes)
      zxlog::Deliver(hLog, iLevel, svText);
    else
      zxlog::Deliver(hLog, iLevel, zxlog::CutText(svText.substr(0, zxlog::kLogMaxTextBytes), svText.size()));
  } catch (const std::exception&) {
    // Out of memory: the line is lost, the caller goes on.
  }
  errno = iError;
}

ILogSink* LogSetSink(ILogSink* pSink) {
  ILogSink* pOld = zxlog::s_pSink.exchange(pSink);
  // The old sink may be destroyed once this returns, so nobody may be inside it any more.
  while (zxlog::s_uInSink.load() != 0)
    sched_yield();
  return pOld;
}
