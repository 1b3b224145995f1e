#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "platform/os/ZxFile.h"
#include "support/TempHome.h"
#include "support/Waiter.h"

namespace {

class ZxFileCopy_test : public ::testing::Test {
 protected:
  size_t EntriesIn(const CPString& strRelative) {
    size_t uCount = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator(m_home.Path(strRelative).Str()))
      ++uCount;
    return uCount;
  }

  CTempHome m_home;
};

TEST_F(ZxFileCopy_test, Copy_TakesContentAndMode) {
  const CPString strData(std::string(200000, 'x') + std::string("\0y", 2));
  m_home.WriteFile("src", strData, 0640);
  EXPECT_TRUE(ZxCopyFile(m_home.Path("src"), m_home.Path("dst"), 1));
  EXPECT_TRUE(m_home.ReadFile("dst") == strData);
  EXPECT_EQ(m_home.Mode("dst"), 0640u);
  EXPECT_TRUE(m_home.Exists("src"));
}

TEST_F(ZxFileCopy_test, Copy_KeepsAnExistingTarget_WhenAsked) {
  m_home.WriteFile("src", "new");
  m_home.WriteFile("dst", "old", 0600);
  errno = 0;
  EXPECT_FALSE(ZxCopyFile(m_home.Path("src"), m_home.Path("dst"), 1));
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(m_home.ReadFile("dst"), CPString("old"));
  EXPECT_EQ(m_home.Mode("dst"), 0600u);
  EXPECT_EQ(EntriesIn(""), 2u);
}

TEST_F(ZxFileCopy_test, Copy_ReplacesAnExistingTarget_Otherwise) {
  m_home.WriteFile("src", "new", 0600);
  m_home.WriteFile("dst", "old", 0644);
  EXPECT_TRUE(ZxCopyFile(m_home.Path("src"), m_home.Path("dst"), 0));
  EXPECT_EQ(m_home.ReadFile("dst"), CPString("new"));
  EXPECT_EQ(m_home.Mode("dst"), 0600u);
  EXPECT_EQ(EntriesIn(""), 2u);
}

TEST_F(ZxFileCopy_test, Copy_WorksOntoItself) {
  m_home.WriteFile("f", "text");
  EXPECT_TRUE(ZxCopyFile(m_home.Path("f"), m_home.Path("f"), 0));
  EXPECT_EQ(m_home.ReadFile("f"), CPString("text"));
}

TEST_F(ZxFileCopy_test, Copy_Fails_AndLeavesNothingBehind) {
  m_home.WriteFile("src", "x");
  m_home.MakeDir("dir");
  EXPECT_FALSE(ZxCopyFile(m_home.Path("missing"), m_home.Path("dst"), 0));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(ZxCopyFile(m_home.Path("dir"), m_home.Path("dst"), 0));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(ZxCopyFile(m_home.Path("src"), m_home.Path("no/dst"), 0));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(ZxCopyFile(m_home.Path("src"), m_home.Path("src/dst"), 0));
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_FALSE(ZxCopyFile(m_home.Path("src"), m_home.Path("dir"), 0));
  EXPECT_EQ(errno, EISDIR);
  EXPECT_FALSE(m_home.Exists("dst"));
  EXPECT_EQ(EntriesIn(""), 2u);
}

TEST_F(ZxFileCopy_test, Copy_KeepsTheOldTarget_WhenTheDiskIsFull) {
  m_home.WriteFile("src", CPString(std::string(5000, 'x')));
  m_home.WriteFile("dst", "old");
  struct sigaction ignore {};
  struct sigaction old {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(SIGXFSZ, &ignore, &old), 0);
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit small{1000, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const bool bCopied = ZxCopyFile(m_home.Path("src"), m_home.Path("dst"), 0);
  const int iError = errno;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  ASSERT_EQ(sigaction(SIGXFSZ, &old, nullptr), 0);
  EXPECT_FALSE(bCopied);
  EXPECT_EQ(iError, EFBIG);
  EXPECT_EQ(m_home.ReadFile("dst"), CPString("old"));
  EXPECT_EQ(EntriesIn(""), 2u);
}

TEST_F(ZxFileCopy_test, SyncedRename_ReplacesTheTarget) {
  m_home.WriteFile("f.tmp", "new");
  m_home.WriteFile("f", "old");
  EXPECT_TRUE(ZxSyncedRename(m_home.Path("f.tmp"), m_home.Path("f")));
  EXPECT_EQ(m_home.ReadFile("f"), CPString("new"));
  EXPECT_FALSE(m_home.Exists("f.tmp"));
}

TEST_F(ZxFileCopy_test, SyncedRename_ReportsWhatFailed) {
  errno = 0;
  EXPECT_FALSE(ZxSyncedRename(m_home.Path("missing"), m_home.Path("f")));
  EXPECT_EQ(errno, ENOENT);
  m_home.WriteFile("f", "x");
  errno = 0;
  EXPECT_FALSE(ZxSyncedRename(m_home.Path("f"), m_home.Path("no/g")));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(m_home.ReadFile("f"), CPString("x"));
}

// Cancellation that is pending during a file operation acts behind it: the file is complete and closed.
TEST_F(ZxFileCopy_test, Operations_CompleteOnACancelledThread) {
  struct CArg {
    const CTempHome* pHome;
    CEventWaiter cancelled;
    CEventWaiter done;
  } arg{&m_home, {}, {}};
  pthread_t hThread{};
  ASSERT_EQ(pthread_create(
                &hThread, nullptr,
                [](void* pArg) -> void* {
                  auto* p = static_cast<CArg*>(pArg);
                  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
                  p->cancelled.Wait();
                  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
                  ZxSaveFileData(p->pHome->Path("f"), "complete");
                  ZxCopyFile(p->pHome->Path("f"), p->pHome->Path("g"), 0);
                  ZxSyncedRename(p->pHome->Path("g"), p->pHome->Path("h"));
                  p->done.Set();
                  pthread_testcancel();
                  return nullptr;
                },
                &arg),
            0);
  ASSERT_EQ(pthread_cancel(hThread), 0);
  arg.cancelled.Set();
  void* pResult = nullptr;
  ASSERT_EQ(pthread_join(hThread, &pResult), 0);
  EXPECT_EQ(pResult, PTHREAD_CANCELED);
  EXPECT_EQ(arg.done.Count(), 1u);
  EXPECT_EQ(m_home.ReadFile("h"), CPString("complete"));
}

}  // namespace
