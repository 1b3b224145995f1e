// A spool's files as bytes, for the tests that damage them.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

inline std::string Slurp(const std::string& strFile) {
  std::ifstream file(strFile, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void Write(const std::string& strFile, const std::string& strData) {
  std::ofstream file(strFile, std::ios::binary | std::ios::trunc);
  file << strData;
  ASSERT_TRUE(file.flush().good());
}
