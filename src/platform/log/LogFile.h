// One channel's file: opened when the first line comes, rotated by size, replaced by stderr while it cannot
// be written. Private to the platform library; used by the log writer thread only. Blocks on file I/O.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace zxlog {

inline constexpr uint32_t kLogRetryMs = 500;          // between attempts to write a failing file again
inline constexpr uint32_t kLogNoticeMs = 60000;       // between notices that it still fails
inline constexpr uint32_t kLogStderrLinesMax = 1000;  // lines to stderr per notice interval

void WriteStderr(std::string_view sv);

class CLogFile {
 public:
  CLogFile();
  ~CLogFile();
  CLogFile(const CLogFile&) = delete;
  CLogFile& operator=(const CLogFile&) = delete;

  // Where the lines go from now on; an empty directory means stderr, without limit.
  void Configure(const std::string& strDir, const std::string& strName, uint64_t u64MaxBytes, int iMaxFiles);
  // Takes one line with its newline. Commit brings what was written since the last one to the file; false
  // means that at least one of these lines did not get there and all of them are to be given to Divert.
  void Write(const std::string& strLine);
  bool Commit();
  void Divert(const std::string& strLine);  // to stderr, limited
  void Close();

 private:
  class CSink;
  bool Open();
  void Fail(int iError, const char* pszWhat);
  void Recovered();
  void Notice(const std::string& strText);

  std::string m_strDir;
  std::string m_strPath;
  uint64_t m_u64MaxBytes = 0;
  int m_iMaxFiles = 0;
  std::unique_ptr<CSink> m_pSink;
  bool m_bBatchFailed = false;
  uint64_t m_u64RetryAt = 0;
  uint64_t m_u64NoticeAt = 0;
  bool m_bNoticed = false;  // stderr was told that the file fails, and not yet that it works again
  uint32_t m_uDiverted = 0;
  uint32_t m_uLeftOut = 0;
};

}  // namespace zxlog
