#include "platform/os/ZxFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "support/TempHome.h"

namespace {

const CPString kNulName("a\0b", 3);

class ZxFile_test : public ::testing::Test {
 protected:
  int ReadError(const CPString& strFile) {
    char* pData = nullptr;
    size_t uLength = 1;
    errno = 0;
    EXPECT_FALSE(ZxReadFileData(strFile, pData, uLength));
    const int iError = errno;
    EXPECT_EQ(pData, nullptr);
    EXPECT_EQ(uLength, 0u);
    return iError;
  }

  CTempHome m_home;
};

TEST_F(ZxFile_test, Read_GivesTheBytesAndANul) {
  m_home.WriteFile("f", CPString("a\0b\n", 4));
  char* pData = nullptr;
  size_t uLength = 0;
  ASSERT_TRUE(ZxReadFileData(m_home.Path("f"), pData, uLength));
  EXPECT_EQ(uLength, 4u);
  EXPECT_EQ(std::memcmp(pData, "a\0b\n\0", 5), 0);
  ZxReleaseFileData(pData);
  ZxReleaseFileData(nullptr);
}

TEST_F(ZxFile_test, Read_GivesAnEmptyText_ForAnEmptyFile) {
  m_home.WriteFile("f", "");
  char* pData = nullptr;
  size_t uLength = 9;
  ASSERT_TRUE(ZxReadFileData(m_home.Path("f"), pData, uLength));
  EXPECT_EQ(uLength, 0u);
  ASSERT_NE(pData, nullptr);
  EXPECT_EQ(pData[0], 0);
  ZxReleaseFileData(pData);
}

TEST_F(ZxFile_test, Read_GoesToTheEnd_WhenTheSizeIsNotKnownBefore) {
  CPString strStatus;
  ASSERT_TRUE(ZxReadFileText("/proc/self/status", strStatus));  // reports size 0
  EXPECT_NE(strStatus.Find("Threads:"), CPString::npos);
}

TEST_F(ZxFile_test, Read_TakesALargeFile) {
  const CPString strData(std::string((3u << 20) + 7, 'x'));
  m_home.WriteFile("f", strData);
  CPString strRead;
  ASSERT_TRUE(ZxReadFileText(m_home.Path("f"), strRead));
  EXPECT_TRUE(strRead == strData);
}

TEST_F(ZxFile_test, Read_RefusesWhatIsNoRegularFile) {
  EXPECT_EQ(ReadError(m_home.Path("missing")), ENOENT);
  EXPECT_EQ(ReadError(m_home.Root()), EINVAL);
  ASSERT_EQ(mkfifo(m_home.Path("fifo").c_str(), 0600), 0);
  EXPECT_EQ(ReadError(m_home.Path("fifo")), EINVAL);
  EXPECT_EQ(ReadError("/dev/null"), EINVAL);
  m_home.WriteFile("a", "x");
  EXPECT_EQ(ReadError(m_home.Path(kNulName)), EINVAL);
}

TEST_F(ZxFile_test, Read_RefusesATooLargeFile) {
  m_home.WriteFile("f", "");
  ASSERT_EQ(truncate(m_home.Path("f").c_str(), static_cast<off_t>(kZxFileMaxBytes) + 1), 0);
  EXPECT_EQ(ReadError(m_home.Path("f")), EFBIG);
}

TEST_F(ZxFile_test, ReadText_EmptiesItsResult_WhenItFails) {
  CPString strData("old");
  EXPECT_FALSE(ZxReadFileText(m_home.Path("missing"), strData));
  EXPECT_TRUE(strData.IsEmpty());
}

TEST_F(ZxFile_test, Save_WritesAllBytes_WithMode0644) {
  const mode_t old = umask(077);
  EXPECT_TRUE(ZxSaveFileData(m_home.Path("f"), CPString("a\0b", 3)));
  umask(old);
  EXPECT_EQ(m_home.ReadFile("f"), CPString("a\0b", 3));
  EXPECT_EQ(m_home.Mode("f"), 0644u);
}

TEST_F(ZxFile_test, Save_ReplacesContentAndMode) {
  m_home.WriteFile("f", "a much longer old text", 0666);
  EXPECT_TRUE(ZxSaveFileData(m_home.Path("f"), "new", true));
  EXPECT_EQ(m_home.ReadFile("f"), CPString("new"));
  EXPECT_EQ(m_home.Mode("f"), 0600u);
  EXPECT_TRUE(ZxSaveFileData(m_home.Path("f"), "public"));
  EXPECT_EQ(m_home.Mode("f"), 0644u);
}

TEST_F(ZxFile_test, Save_Fails_WhereNoFileCanBe) {
  errno = 0;
  EXPECT_FALSE(ZxSaveFileData(m_home.Root(), "x"));
  EXPECT_EQ(errno, EISDIR);
  m_home.WriteFile("plain", "x");
  errno = 0;
  EXPECT_FALSE(ZxSaveFileData(m_home.Path("plain/below"), "x"));
  EXPECT_EQ(errno, ENOTDIR);
  errno = 0;
  EXPECT_FALSE(ZxSaveFileData(m_home.Path("no/such/dir"), "x"));
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_FALSE(ZxSaveFileData(m_home.Path(kNulName), "x"));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(m_home.Exists("a"));
}

TEST_F(ZxFile_test, Save_ReportsAWriteError) {
  struct sigaction ignore {};
  struct sigaction old {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(SIGXFSZ, &ignore, &old), 0);
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit small{100, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  errno = 0;
  const bool bSaved = ZxSaveFileData(m_home.Path("f"), CPString(std::string(200, 'x')));
  const int iError = errno;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  ASSERT_EQ(sigaction(SIGXFSZ, &old, nullptr), 0);
  EXPECT_FALSE(bSaved);
  EXPECT_EQ(iError, EFBIG);
}

TEST_F(ZxFile_test, Existed_FollowsTheFileSystem) {
  m_home.WriteFile("f", "");
  EXPECT_TRUE(ZxIsFileExisted(m_home.Path("f")));
  EXPECT_TRUE(ZxIsFileExisted(m_home.Root()));
  EXPECT_FALSE(ZxIsFileExisted(m_home.Path("g")));
  EXPECT_FALSE(ZxIsFileExisted(""));
  EXPECT_FALSE(ZxIsFileExisted(m_home.Path(CPString("f\0g", 3))));
}

TEST_F(ZxFile_test, GetFileAttr_GivesSizeAndTime) {
  m_home.WriteFile("f", "12345");
  const timespec times[2] = {{1700000000, 0}, {1700000001, 999}};
  ASSERT_EQ(utimensat(AT_FDCWD, m_home.Path("f").c_str(), times, 0), 0);
  uint64_t u64Size = 0;
  uint32_t dwTime = 0;
  EXPECT_TRUE(ZxGetFileAttr(m_home.Path("f"), u64Size, dwTime));
  EXPECT_EQ(u64Size, 5u);
  EXPECT_EQ(dwTime, 1700000001u);
}

TEST_F(ZxFile_test, GetFileAttr_GivesZeros_WhenItFails) {
  uint64_t u64Size = 1;
  uint32_t dwTime = 1;
  errno = 0;
  EXPECT_FALSE(ZxGetFileAttr(m_home.Path("missing"), u64Size, dwTime));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(u64Size, 0u);
  EXPECT_EQ(dwTime, 0u);
}

TEST_F(ZxFile_test, Operations_LeaveNoDescriptorOpen) {
  const int iBefore = dup(0);
  ASSERT_GE(iBefore, 0);
  close(iBefore);
  CPString strData;
  EXPECT_TRUE(ZxSaveFileData(m_home.Path("f"), "x"));
  EXPECT_TRUE(ZxReadFileText(m_home.Path("f"), strData));
  EXPECT_FALSE(ZxReadFileText(m_home.Root(), strData));
  EXPECT_FALSE(ZxSaveFileData(m_home.Root(), "x"));
  EXPECT_TRUE(ZxCopyFile(m_home.Path("f"), m_home.Path("g"), 0));
  EXPECT_FALSE(ZxCopyFile(m_home.Path("f"), m_home.Path("no/g"), 0));
  EXPECT_TRUE(ZxSyncedRename(m_home.Path("g"), m_home.Path("h")));
  const int iAfter = dup(0);
  EXPECT_EQ(iAfter, iBefore);
  close(iAfter);
}

TEST_F(ZxFile_test, IsDirectoryOrLink_BelievesTheListing_AndAsksWhenItDoesNotTell) {
  m_home.WriteFile("file", "");
  m_home.MakeDir("dir");
  ASSERT_EQ(symlink(m_home.Path("file").c_str(), m_home.Path("link").c_str()), 0);
  ASSERT_EQ(symlink(m_home.Path("nowhere").c_str(), m_home.Path("dangling").c_str()), 0);
  EXPECT_TRUE(ZxIsDirectoryOrLink(m_home.Path("file"), DT_DIR));
  EXPECT_TRUE(ZxIsDirectoryOrLink(m_home.Path("file"), DT_LNK));
  EXPECT_FALSE(ZxIsDirectoryOrLink(m_home.Path("dir"), DT_REG));
  EXPECT_FALSE(ZxIsDirectoryOrLink(m_home.Path("dir"), DT_FIFO));
  EXPECT_TRUE(ZxIsDirectoryOrLink(m_home.Path("dir"), DT_UNKNOWN));
  EXPECT_TRUE(ZxIsDirectoryOrLink(m_home.Path("link"), DT_UNKNOWN));
  EXPECT_TRUE(ZxIsDirectoryOrLink(m_home.Path("dangling"), DT_UNKNOWN));
  EXPECT_FALSE(ZxIsDirectoryOrLink(m_home.Path("file"), DT_UNKNOWN));
  EXPECT_FALSE(ZxIsDirectoryOrLink(m_home.Path("gone"), DT_UNKNOWN));
}

}  // namespace
