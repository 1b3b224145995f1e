// The spool on a small file system of its own that fills up, empties, and becomes read-only.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "SpoolRig.h"
#include "platform/cloud/zxcloud.h"

using namespace zxcloud;

namespace {

constexpr char kDisk[] = "disk";

class CSpoolDisk : public ::testing::Test {
 protected:
  CSpoolDisk() : m_rig(m_home.Path("disk/zxcloud.db").Str()) { CSpoolLog::Clear(); }

  // False: the system permits no mounts, and the test cannot be made.
  bool Mount(const char* pszSize) {
    m_home.MakeDir(kDisk);
    m_bMounted = mount("none", m_home.Path(kDisk).c_str(), "tmpfs", MS_NOSUID | MS_NODEV, pszSize) == 0;
    return m_bMounted;
  }
  void TearDown() override {
    m_rig.Stop();
    if (HasFailure())
      std::printf("%s", CSpoolLog::Text().c_str());
    if (m_bMounted)
      umount2(m_home.Path(kDisk).c_str(), MNT_DETACH);
  }
  void Remount(bool bReadOnly) {
    const unsigned long ulFlags =
        MS_REMOUNT | MS_NOSUID | MS_NODEV | (bReadOnly ? static_cast<unsigned long>(MS_RDONLY) : 0UL);
    ASSERT_EQ(mount("none", m_home.Path(kDisk).c_str(), "tmpfs", ulFlags, nullptr), 0) << strerror(errno);
  }
  uint64_t FreeBytes() {
    struct statvfs info {};
    EXPECT_EQ(statvfs(m_home.Path(kDisk).c_str(), &info), 0);
    return static_cast<uint64_t>(info.f_bavail) * info.f_frsize;
  }
  // Takes every free block of the disk.
  void Fill() {
    std::ofstream file(m_home.Path("disk/other").c_str(), std::ios::binary);
    const std::string strBlock(4096, 'f');
    while (file.write(strBlock.data(), static_cast<std::streamsize>(strBlock.size())).flush()) {
    }
  }

  CTempHome m_home;
  CSpoolRig m_rig;
  bool m_bMounted = false;
};

}  // namespace

#define MOUNT_OR_SKIP(size) \
  if (!Mount(size))         \
  GTEST_SKIP() << "no mounts here: " << strerror(errno)

TEST_F(CSpoolDisk, FullDisk_RefusesNewRecords_DeletesOldOnes_AndRecovers) {
  MOUNT_OR_SKIP("size=16m");
  m_rig.Start();
  size_t uAccepted = 0;
  uint32_t uiResult = 0;
  while ((uiResult = m_rig.Send(std::string(20000, 'a'))) == 0 && uAccepted < 2000)
    ++uAccepted;
  EXPECT_EQ(uiResult, kZxcloudErrFull);
  EXPECT_GT(uAccepted, 100u);
  EXPECT_EQ(CSpoolLog::Count("spool disk full"), 1u);
  EXPECT_EQ(m_rig.pSpool->State().pszMode, std::string("ready"));
  Fill();
  EXPECT_LT(FreeBytes(), 8192u);
  // Without a single free block everything is delivered and deleted.
  EXPECT_EQ(m_rig.Deliver().size(), uAccepted);
  EXPECT_TRUE(EventuallyTrue([&] { return m_rig.pSpool->State().u64Bytes == 0; }));
  m_rig.Stop();
  m_rig.Start();
  EXPECT_TRUE(m_rig.Deliver().empty());
  m_home.Remove("disk/other");
  EXPECT_TRUE(EventuallyTrue([&] { return m_rig.Send(std::string(20000, 'b')) == 0; }));
  EXPECT_EQ(m_rig.Deliver().size(), 1u);
}

TEST_F(CSpoolDisk, FullDisk_LosesNothingThatWasAccepted_OverARestart) {
  MOUNT_OR_SKIP("size=12m");
  m_rig.Start();
  std::set<std::string> setAccepted;
  std::mutex mutex;
  std::vector<std::thread> listThreads;
  for (int i = 0; i < 8; ++i)
    listThreads.emplace_back([&, i] {
      for (int n = 0; n < 500; ++n) {
        const std::string strBody = std::to_string(i) + "-" + std::to_string(n) + std::string(5000, 'c');
        if (m_rig.Send(strBody, n % 4) != 0)
          continue;
        const std::lock_guard lock(mutex);
        setAccepted.insert(strBody);
      }
    });
  for (std::thread& thread : listThreads)
    thread.join();
  EXPECT_LT(setAccepted.size(), 4000u);
  m_rig.Stop();
  m_rig.Start();
  const std::vector<std::string> list = m_rig.Deliver();
  EXPECT_EQ(std::set<std::string>(list.begin(), list.end()), setAccepted);
  EXPECT_EQ(m_rig.pSpool->State().u64Damaged, 0u);
}

TEST_F(CSpoolDisk, FullDisk_AtTheStart_RefusesAndRecovers) {
  MOUNT_OR_SKIP("size=16m");
  Fill();
  m_rig.Start();
  EXPECT_EQ(m_rig.Send("x"), kZxcloudErrFull);
  m_home.Remove("disk/other");
  ASSERT_TRUE(m_rig.WaitMode("ready"));
  EXPECT_EQ(m_rig.Send("y"), 0u);
}

TEST_F(CSpoolDisk, ReadOnlyDisk_RefusesAndRecovers) {
  MOUNT_OR_SKIP("size=16m");
  m_rig.Start();
  ASSERT_EQ(m_rig.Send("before"), 0u);
  m_rig.Stop();
  Remount(true);
  m_rig.Start();
  EXPECT_EQ(m_rig.Send("refused"), kZxcloudErrSpool);
  EXPECT_EQ(CSpoolLog::Count("spool not usable"), 1u);
  Remount(false);
  ASSERT_TRUE(m_rig.WaitMode("ready"));
  ASSERT_EQ(m_rig.Send("after"), 0u);
  EXPECT_THAT(m_rig.Deliver(), testing::ElementsAre("before", "after"));
}
