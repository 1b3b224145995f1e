// What a test says about folders and files. Paths are absolute; a failure is a gtest failure.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

// Everything below strRoot but directories, relative to it, sorted. A missing directory holds nothing.
inline std::vector<std::string> FilesBelow(const std::string& strRoot) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(strRoot, error))
    if (entry.is_symlink() || !entry.is_directory())
      files.push_back(entry.path().lexically_relative(strRoot).string());
  std::sort(files.begin(), files.end());
  return files;
}

inline void SetFileTime(const std::string& strFile, int64_t i64Seconds) {
  const timespec times[2] = {{static_cast<time_t>(i64Seconds), 0}, {static_cast<time_t>(i64Seconds), 0}};
  EXPECT_EQ(utimensat(AT_FDCWD, strFile.c_str(), times, 0), 0) << strFile;
}

inline int64_t FileTime(const std::string& strFile) {
  struct stat st {};
  EXPECT_EQ(stat(strFile.c_str(), &st), 0) << strFile;
  return st.st_mtime;
}

// No file of the process grows beyond a size while this lives: writing more fails with EFBIG.
class CFileSizeLimit {
 public:
  explicit CFileSizeLimit(rlim_t uBytes) : m_pfnBefore(std::signal(SIGXFSZ, SIG_IGN)) {
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &m_before), 0);
    const rlimit limit{uBytes, m_before.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  ~CFileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &m_before);
    std::signal(SIGXFSZ, m_pfnBefore);
  }
  CFileSizeLimit(const CFileSizeLimit&) = delete;
  CFileSizeLimit& operator=(const CFileSizeLimit&) = delete;

 private:
  void (*m_pfnBefore)(int);
  rlimit m_before{};
};

// Texts that must never become a path component.
inline std::vector<std::string> HostileNames() {
  return {"",
          ".",
          "..",
          "/",
          "../x",
          "../../etc/x",
          "../../../../../../../../tmp/zxhostile",
          "/tmp/zxhostile",
          "a/b",
          "a/",
          std::string("a\0b", 3),
          std::string(300, 'n')};
}
