#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "DataFixture.h"
#include "FileFaults.h"

namespace {

using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class MoveFile : public CLogFixture {
 protected:
  std::string Path(const char* pszName) const { return m_strDir + pszName; }
  CStore m_data{m_strDir + "root"};
};

TEST_F(MoveFile, MyMoveFile_ReplacesTarget) {
  WriteFile("src", "new");
  WriteFile("dst", "old");
  EXPECT_EQ(m_data.MyMoveFile(CPString(Path("src")), CPString(Path("dst"))), 1);
  EXPECT_EQ(ReadFile("dst"), "new");
  EXPECT_FALSE(Exists("src"));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(MoveFile, MyMoveFile_CopiesAndRemoves_WhenRenameIsRefused) {
  WriteFile("src", "new");
  WriteFile("dst", "old");
  const CRenameFault fault(Path("dst"), EXDEV, 1);
  EXPECT_EQ(m_data.MyMoveFile(CPString(Path("src")), CPString(Path("dst"))), 1);
  EXPECT_EQ(ReadFile("dst"), "new");
  EXPECT_FALSE(Exists("src"));
  EXPECT_THAT(Lines(), ::testing::ElementsAre("*zxagent CAgentData::MyMoveFile Error rename iRet[-1][" +
                                              std::to_string(EXDEV) + "] strSrcFile[" + Path("src") +
                                              "] strDstFile[" + Path("dst") + "]"));
}

TEST_F(MoveFile, MyMoveFile_CopiesAcrossFileSystems) {
  struct stat stHome {};
  struct stat stOther {};
  if (stat("/dev/shm", &stOther) != 0 || access("/dev/shm", W_OK) != 0 ||
      stat(m_strDir.c_str(), &stHome) != 0 || stHome.st_dev == stOther.st_dev)
    GTEST_SKIP() << "needs a second file system at /dev/shm";
  const std::string strDst = "/dev/shm/zxagent_move_" + std::to_string(getpid());
  WriteFile("src", "new");
  EXPECT_EQ(m_data.MyMoveFile(CPString(Path("src")), CPString(strDst)), 1);
  EXPECT_TRUE(std::filesystem::exists(strDst));
  EXPECT_FALSE(Exists("src"));
  std::filesystem::remove(strDst);
}

// Nobody can remove a file of /proc, and it lies on another file system.
TEST_F(MoveFile, MyMoveFile_Succeeds_WhenSourceCannotBeRemoved) {
  EXPECT_EQ(m_data.MyMoveFile("/proc/version", CPString(Path("dst"))), 1);
  EXPECT_THAT(ReadFile("dst"), StartsWith("Linux"));
  EXPECT_THAT(Lines(), Contains(StartsWith("*zxagent CAgentData::MyMoveFile Error remove iRet[-1][")));
}

TEST_F(MoveFile, MyMoveFile_Fails_WhenSourceIsMissing) {
  WriteFile("dst", "old");
  EXPECT_EQ(m_data.MyMoveFile(CPString(Path("src")), CPString(Path("dst"))), 0);
  EXPECT_EQ(ReadFile("dst"), "old");
  EXPECT_EQ(Lines().back(), "*zxagent CAgentData::MyMoveFile Error ZxCopyFile Error[" +
                                std::to_string(ENOENT) + "] strSrcFile[" + Path("src") + "] strDstFile[" +
                                Path("dst") + "]");
}

TEST_F(MoveFile, MyMoveFile_KeepsSource_WhenTargetDirectoryIsMissing) {
  WriteFile("src", "new");
  EXPECT_EQ(m_data.MyMoveFile(CPString(Path("src")), CPString(Path("absent/dst"))), 0);
  EXPECT_EQ(ReadFile("src"), "new");
}

}  // namespace
