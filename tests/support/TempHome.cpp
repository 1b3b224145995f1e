#include "support/TempHome.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

CTempHome::CTempHome() {
  std::string strTemplate = (fs::temp_directory_path() / "zxtest.XXXXXX").string();
  if (mkdtemp(strTemplate.data()) == nullptr) {
    std::perror("CTempHome");
    std::abort();
  }
  m_strRoot = CPString(strTemplate + "/");
}

CTempHome::~CTempHome() {
  std::error_code error;
  fs::remove_all(m_strRoot.Str(), error);
}

CPString CTempHome::Path(const CPString& strRelative) const {
  return m_strRoot + strRelative;
}

void CTempHome::MakeDir(const CPString& strRelative, mode_t mode) const {
  std::error_code error;
  fs::create_directories(Path(strRelative).Str(), error);
  EXPECT_FALSE(error) << strRelative.c_str() << ": " << error.message();
  EXPECT_EQ(chmod(Path(strRelative).c_str(), mode), 0) << strRelative.c_str();
}

void CTempHome::WriteFile(const CPString& strRelative, const CPString& strData, mode_t mode) const {
  const fs::path path(Path(strRelative).Str());
  std::error_code error;
  fs::create_directories(path.parent_path(), error);
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(strData.data(), static_cast<std::streamsize>(strData.GetLength()));
  file.close();
  EXPECT_TRUE(file) << "cannot write " << path;
  EXPECT_EQ(chmod(path.c_str(), mode), 0) << path;
}

CPString CTempHome::ReadFile(const CPString& strRelative) const {
  std::ifstream file(Path(strRelative).Str(), std::ios::binary);
  EXPECT_TRUE(file.is_open()) << "cannot read " << strRelative.c_str();
  return CPString(std::string{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()});
}

bool CTempHome::Exists(const CPString& strRelative) const {
  struct stat st {};
  return lstat(Path(strRelative).c_str(), &st) == 0;
}

mode_t CTempHome::Mode(const CPString& strRelative) const {
  struct stat st {};
  return lstat(Path(strRelative).c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

void CTempHome::Remove(const CPString& strRelative) const {
  std::error_code error;
  fs::remove_all(Path(strRelative).Str(), error);
  EXPECT_FALSE(error) << strRelative.c_str() << ": " << error.message();
}
