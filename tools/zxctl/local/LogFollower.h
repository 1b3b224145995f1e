// New lines of a home's logs as they are written, through rotation. One thread. Blocks on files only; the
// caller polls Descriptor for readability and then calls Read.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "zxctl/LogTrace.h"

namespace zxctl {

class CLogFollower {
 public:
  explicit CLogFollower(std::string strHome);
  ~CLogFollower();
  CLogFollower(const CLogFollower&) = delete;
  CLogFollower& operator=(const CLogFollower&) = delete;

  bool Open();  // false with errno set; begins at the ends of the logs as they are now
  int Descriptor() const { return m_fdNotify; }
  // What has come since the last call, oldest first.
  std::vector<_LogRecord> Read();

 private:
  struct _Place {
    uint64_t u64Inode = 0;
    int64_t i64Offset = 0;
    std::string strRest;  // of a line whose end is not there yet
  };
  void ReadLog(const std::string& strName, bool bSkip, std::vector<_LogRecord>& listRecords);

  bool Watch() const;

  const std::string m_strHome;
  int m_fdNotify = -1;
  std::map<std::string, _Place> m_places;
};

}  // namespace zxctl
