#include "platform/log/LogFile.h"

#include <fcntl.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>

#include "platform/os/ZxTime.h"

namespace zxlog {

namespace {

constexpr mode_t kLogDirMode = 0700;
constexpr mode_t kLogParentMode = 0755;
constexpr mode_t kLogFileMode = 0640;

// strDir ends in "/".
bool MakeDirectory(const std::string& strDir) {
  struct stat st {};
  if (stat(strDir.c_str(), &st) == 0)
    return true;
  for (size_t u = strDir.find('/', 1); u != std::string::npos; u = strDir.find('/', u + 1)) {
    const bool bLast = u + 1 == strDir.size();
    if (mkdir(strDir.substr(0, u).c_str(), bLast ? kLogDirMode : kLogParentMode) != 0 && errno != EEXIST)
      return false;
  }
  return true;
}

// Creates the file with its mode and ends a line that a crash or a full disk has left unfinished.
bool PrepareFile(const std::string& strPath) {
  const int iFd = open(strPath.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, kLogFileMode);
  if (iFd < 0)
    return false;
  struct stat st {};
  char chLast = '\n';
  bool bOk = fstat(iFd, &st) == 0;
  if (bOk && st.st_size > 0 && pread(iFd, &chLast, 1, st.st_size - 1) == 1 && chLast != '\n')
    bOk = write(iFd, "\n", 1) == 1;
  const int iError = errno;
  close(iFd);
  errno = iError;
  return bOk;
}

spdlog::file_event_handlers FileHandlers() {
  spdlog::file_event_handlers handlers;
  handlers.after_open = [](const spdlog::filename_t&, std::FILE* pFile) {
    const int iFd = fileno(pFile);
    fcntl(iFd, F_SETFD, FD_CLOEXEC);
    fchmod(iFd, kLogFileMode);
  };
  return handlers;
}

}  // namespace

void WriteStderr(std::string_view sv) {
  while (!sv.empty()) {
    const ssize_t iWritten = write(STDERR_FILENO, sv.data(), sv.size());
    if (iWritten < 0 && errno == EINTR)
      continue;
    if (iWritten <= 0)
      return;  // nowhere left to complain
    sv.remove_prefix(static_cast<size_t>(iWritten));
  }
}

class CLogFile::CSink {
 public:
  CSink(const std::string& strPath, uint64_t u64MaxBytes, int iMaxFiles)
      : m_sink(strPath, u64MaxBytes, static_cast<size_t>(iMaxFiles - 1), false, FileHandlers()) {
    m_sink.set_formatter(
        std::make_unique<spdlog::pattern_formatter>("%v", spdlog::pattern_time_type::local, std::string()));
  }
  void Write(const std::string& strLine) {
    m_sink.log(spdlog::details::log_msg(spdlog::string_view_t(), spdlog::level::info,
                                        spdlog::string_view_t(strLine.data(), strLine.size())));
  }
  void Flush() { m_sink.flush(); }

 private:
  spdlog::sinks::rotating_file_sink_st m_sink;
};

CLogFile::CLogFile() = default;

CLogFile::~CLogFile() = default;

void CLogFile::Configure(const std::string& strDir, const std::string& strName, uint64_t u64MaxBytes,
                         int iMaxFiles) {
  const std::string strPath = strDir.empty() ? std::string() : strDir + strName + ".log";
  if (strPath == m_strPath && u64MaxBytes == m_u64MaxBytes && iMaxFiles == m_iMaxFiles)
    return;
  Close();
  m_strDir = strDir;
  m_strPath = strPath;
  m_u64MaxBytes = u64MaxBytes;
  m_iMaxFiles = iMaxFiles;
  m_u64RetryAt = 0;
  m_u64NoticeAt = 0;
  m_bNoticed = false;
  m_uDiverted = 0;
  m_uLeftOut = 0;
}

void CLogFile::Write(const std::string& strLine) {
  if (m_strPath.empty()) {
    WriteStderr(strLine);
    return;
  }
  if (m_bBatchFailed || !Open()) {
    m_bBatchFailed = true;
    return;
  }
  errno = 0;
  try {
    m_pSink->Write(strLine);
  } catch (const std::exception& e) {
    Fail(errno, e.what());
  }
}

bool CLogFile::Commit() {
  errno = 0;
  try {
    if (m_pSink != nullptr)
      m_pSink->Flush();
  } catch (const std::exception& e) {
    Fail(errno, e.what());
  }
  const bool bOk = !m_bBatchFailed;
  m_bBatchFailed = false;
  if (bOk && m_bNoticed)
    Recovered();
  return bOk;
}

void CLogFile::Divert(const std::string& strLine) {
  if (m_uDiverted >= kLogStderrLinesMax) {
    ++m_uLeftOut;
    return;
  }
  ++m_uDiverted;
  WriteStderr(strLine);
}

void CLogFile::Close() {
  m_pSink.reset();
}

bool CLogFile::Open() {
  if (m_pSink != nullptr)
    return true;
  if (ZxGetTickCount() < m_u64RetryAt)
    return false;
  errno = 0;
  if (!MakeDirectory(m_strDir) || !PrepareFile(m_strPath)) {
    Fail(errno, "cannot be opened");
    return false;
  }
  try {
    m_pSink = std::make_unique<CSink>(m_strPath, m_u64MaxBytes, m_iMaxFiles);
  } catch (const std::exception& e) {
    Fail(errno, e.what());
    return false;
  }
  return true;
}

// The file is closed, which drops what it could not take; opening it again is the test whether it works.
void CLogFile::Fail(int iError, const char* pszWhat) {
  m_pSink.reset();
  m_bBatchFailed = true;
  const uint64_t u64Now = ZxGetTickCount();
  m_u64RetryAt = u64Now + kLogRetryMs;
  if (u64Now < m_u64NoticeAt)
    return;
  const char* pszError = iError != 0 ? strerrordesc_np(iError) : nullptr;
  Notice(std::string(" fails (") + (pszError != nullptr ? pszError : pszWhat) + "), its lines go to stderr");
  m_u64NoticeAt = u64Now + kLogNoticeMs;
  m_bNoticed = true;
}

void CLogFile::Recovered() {
  Notice(" is written again");
  m_bNoticed = false;
}

void CLogFile::Notice(const std::string& strText) {
  std::string strNotice = "zxlog: " + m_strPath + strText;
  if (m_uLeftOut != 0)
    strNotice += "; " + std::to_string(m_uLeftOut) + " lines before were left out";
  WriteStderr(strNotice + "\n");
  m_uDiverted = 0;
  m_uLeftOut = 0;
}

}  // namespace zxlog
