// A spool's files as bytes, for the tests that damage them.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

// Empty when there is none. At once: byte by byte costs seconds under a sanitizer.
inline std::string Slurp(const std::string& strFile) {
  std::error_code error;
  const auto uSize = std::filesystem::file_size(strFile, error);
  std::string strData(error ? 0 : uSize, '\0');
  std::ifstream file(strFile, std::ios::binary);
  file.read(strData.data(), static_cast<std::streamsize>(strData.size()));
  strData.resize(static_cast<size_t>(file.gcount()));
  return strData;
}

inline void Write(const std::string& strFile, const std::string& strData) {
  std::ofstream file(strFile, std::ios::binary | std::ios::trunc);
  file << strData;
  ASSERT_TRUE(file.flush().good());
}
