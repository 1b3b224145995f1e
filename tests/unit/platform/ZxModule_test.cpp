#include "platform/os/ZxModule.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/os/ZxEvent.h"

namespace {

int s_iOwnStatic = 0;

std::string Resolved(const char* pszPath) {
  char szPath[PATH_MAX] = {};
  return realpath(pszPath, szPath) != nullptr ? szPath : "";
}

TEST(ZxModule_test, Path_IsTheProgram_ForItsOwnStatic) {
  char szPath[PATH_MAX] = {};
  ASSERT_TRUE(ZxGetModuleFilePath(&s_iOwnStatic, szPath, sizeof(szPath) - 1));
  EXPECT_EQ(Resolved(szPath), Resolved("/proc/self/exe"));
}

TEST(ZxModule_test, Path_IsTheLibrary_ForAFunctionInIt) {
  char szPath[PATH_MAX] = {};
  ASSERT_TRUE(ZxGetModuleFilePath(reinterpret_cast<const void*>(&ZxCreateEvent), szPath, sizeof(szPath) - 1));
  EXPECT_NE(std::string(szPath).find("libzxplatform.so"), std::string::npos) << szPath;
}

TEST(ZxModule_test, Path_FitsACapacityWithoutTheNul) {
  char szPath[PATH_MAX] = {};
  ASSERT_TRUE(ZxGetModuleFilePath(&s_iOwnStatic, szPath, sizeof(szPath) - 1));
  const size_t uLength = std::strlen(szPath);

  std::memset(szPath, 0, sizeof(szPath));
  EXPECT_TRUE(ZxGetModuleFilePath(&s_iOwnStatic, szPath, uLength));
  EXPECT_EQ(std::strlen(szPath), uLength);

  std::memset(szPath, 0, sizeof(szPath));
  errno = 0;
  EXPECT_FALSE(ZxGetModuleFilePath(&s_iOwnStatic, szPath, uLength - 1));
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_STREQ(szPath, "");
}

TEST(ZxModule_test, Path_IsUnknown_ForAHeapAddress) {
  char szPath[64] = {};
  const auto pHeap = std::make_unique<char>();
  errno = 0;
  EXPECT_FALSE(ZxGetModuleFilePath(pHeap.get(), szPath, sizeof(szPath) - 1));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(ZxGetModuleFilePath(nullptr, szPath, sizeof(szPath) - 1));
}

TEST(ZxModule_test, Path_Fails_WithoutABuffer) {
  errno = 0;
  EXPECT_FALSE(ZxGetModuleFilePath(&s_iOwnStatic, nullptr, 10));
  EXPECT_EQ(errno, EINVAL);
}

}  // namespace
