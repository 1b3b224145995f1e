#include <time.h>

#include <cerrno>
#include <exception>

#include "platform/log/Log.h"
#include "platform/log/LogBackend.h"
#include "platform/log/LogSink.h"
#include "platform/os/ZxNoCancel.h"

namespace {

constexpr int kStderrThreshold = kLogInfo;
constexpr const char* kStderrChannel = "";

}  // namespace

CLogDebug& CLogDebug::Instance() {
  static constinit CLogDebug s_logger;
  return s_logger;
}

void CLogDebug::SetChannel(HLog hLog) {
  m_hLog = hLog;
}

bool CLogDebug::CheckLogLevel(int iLevel) const {
  const HLog hLog = m_hLog.load();
  return hLog != nullptr ? LogCheckLevel(hLog, iLevel) : iLevel >= kStderrThreshold;
}

void CLogDebug::LogPrintStr(int iLevel, const char* pszSource, const char* pszFunction, int iLine,
                            const char* psz) {
  if (!CheckLogLevel(iLevel))
    return;
  const CNoCancel noCancel;
  const int iError = errno;
  try {
    const CPString strText = CPString::Make("[%s %s:%d] %s", pszSource, pszFunction, iLine, psz);
    const HLog hLog = m_hLog.load();
    if (hLog != nullptr) {
      ::LogPrintStr(hLog, iLevel, strText.c_str());
    } else {
      zxlog::GiveToSink(kStderrChannel, iLevel, strText.View());
      timespec tsNow{};
      clock_gettime(CLOCK_REALTIME, &tsNow);
      zxlog::WriteStderr(zxlog::FormatLogLine(iLevel, tsNow, zxlog::CurrentThreadId(), strText.View()));
    }
  } catch (const std::exception&) {
    // Out of memory: the line is lost, the caller goes on.
  }
  errno = iError;
}

void CLogDebug::LogPrintV(int iLevel, const char* pszSource, const char* pszFunction, int iLine,
                          const char* pszFormat, ...) {
  if (!CheckLogLevel(iLevel))
    return;
  va_list args;
  va_start(args, pszFormat);
  CPString strText;
  try {
    strText.FormatV(pszFormat, args);
  } catch (const std::exception&) {
    strText.Empty();
  }
  va_end(args);
  LogPrintStr(iLevel, pszSource, pszFunction, iLine, strText.c_str());
}
