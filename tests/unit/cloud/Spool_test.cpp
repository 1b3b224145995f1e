#include "platform/cloud/Spool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "SpoolRig.h"
#include "platform/cloud/zxcloud.h"

using namespace zxcloud;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAreArray;

namespace {

class CSpoolTest : public ::testing::Test {
 protected:
  CSpoolTest() : m_rig(m_home.Path("zxcloud.db").Str()) { CSpoolLog::Clear(); }
  void Restart() {
    m_rig.Stop();
    m_rig.Start();
  }

  CTempHome m_home;
  CSpoolRig m_rig;
};

std::vector<std::string> Numbered(const std::string& strPrefix, int iFrom, int iTo) {
  std::vector<std::string> list;
  for (int i = iFrom; i < iTo; ++i)
    list.push_back(strPrefix + std::to_string(i));
  return list;
}

}  // namespace

TEST_F(CSpoolTest, Append_IsDeliveredInOrder_AndTheFileIsPrivate) {
  m_rig.Start();
  for (const auto& [pszBody, iPriority] :
       {std::pair{"d", 3}, {"b", 1}, {"a", 0}, {"c", 2}, {"b2", 1}, {"z", 13}})
    ASSERT_EQ(m_rig.Send(pszBody, iPriority), 0u);
  EXPECT_EQ(m_home.Mode("zxcloud.db"), 0600u);
  EXPECT_EQ(m_rig.pSpool->State().u64Depth, 6u);
  EXPECT_THAT(m_rig.Deliver(), ElementsAre("a", "b", "b2", "z", "c", "d"));
  EXPECT_TRUE(EventuallyTrue([&] { return m_rig.pSpool->State().u64Bytes == 0; }));
  EXPECT_EQ(m_rig.pSpool->State().u64Depth, 0u);
}

TEST_F(CSpoolTest, BlockingAndSpooled_LeaveInOneOrder_AndNeitherStarves) {
  m_rig.Start();
  uint64_t u64Seq = 0;
  const auto Blocking = [&](const char* pszBody, int iPriority) {
    ASSERT_TRUE(m_rig.pOutbox->Add(MakeOutItem(++u64Seq, iPriority, "waited", pszBody, true)));
  };
  ASSERT_EQ(m_rig.Send("spooled 1", 2), 0u);
  Blocking("blocking 2", 2);
  ASSERT_EQ(m_rig.Send("spooled 3", 2), 0u);
  Blocking("blocking first", 0);
  ASSERT_EQ(m_rig.Send("other group", 11), 0u);
  Blocking("blocking 4", 2);
  EXPECT_THAT(m_rig.Deliver(), ElementsAre("blocking first", "spooled 1", "blocking 2", "other group",
                                           "spooled 3", "blocking 4"));
  // A flood of the lowest priority does not hold up the highest.
  for (int i = 0; i < 200; ++i)
    ASSERT_EQ(m_rig.Send("flood", 3), 0u);
  ASSERT_EQ(m_rig.Send("urgent", 0), 0u);
  EXPECT_EQ(m_rig.Take()->Body(), "urgent");
}

TEST_F(CSpoolTest, Append_KeepsEveryByteOfTheBody) {
  m_rig.Start();
  std::vector<std::string> listBodies = {std::string("a\0b\n", 4), std::string(1, '\0')};
  for (const size_t u : {1000u, 4070u, 4096u, 5000u, 100000u, 3000000u})
    listBodies.push_back(std::string(u, static_cast<char>('a' + u % 26)));
  for (const std::string& strBody : listBodies)
    ASSERT_EQ(m_rig.Send(strBody), 0u);
  Restart();
  EXPECT_THAT(m_rig.Deliver(), UnorderedElementsAreArray(listBodies));
}

TEST_F(CSpoolTest, Restart_SendsAgainWhatWasNotAcknowledged_WithItsId) {
  m_rig.Start();
  for (const std::string& str : Numbered("m", 0, 10))
    ASSERT_EQ(m_rig.Send(str), 0u);
  const TOutItem pFirst = m_rig.Take();
  const TOutItem pSecond = m_rig.Take();
  m_rig.pOutbox->Done(pFirst->u64Seq);
  Restart();  // the second was under way
  ASSERT_EQ(m_rig.Send("new"), 0u);
  std::vector<std::string> listWanted = Numbered("m", 1, 10);
  listWanted.push_back("new");
  EXPECT_EQ(m_rig.Deliver(), listWanted);
  EXPECT_EQ(m_rig.listIds.front(), pSecond->strId);
  EXPECT_EQ(std::set<std::string>(m_rig.listIds.begin(), m_rig.listIds.end()).size(), m_rig.listIds.size());
  Restart();
  EXPECT_THAT(m_rig.Deliver(), IsEmpty());
}

TEST_F(CSpoolTest, Return_BringsARecordBackToItsPlace) {
  m_rig.Start();
  for (const std::string& str : Numbered("m", 0, 4))
    ASSERT_EQ(m_rig.Send(str), 0u);
  const TOutItem pFirst = m_rig.Take();
  const TOutItem pSecond = m_rig.Take();
  m_rig.pOutbox->Return(pSecond->u64Seq);
  m_rig.pOutbox->Return(pFirst->u64Seq);
  EXPECT_THAT(m_rig.Deliver(), ElementsAre("m0", "m1", "m2", "m3"));
}

TEST_F(CSpoolTest, Append_FromManyThreads_SharesCommits) {
  m_rig.Start();
  constexpr int kThreads = 32;
  constexpr int kEach = 50;
  std::vector<std::thread> listThreads;
  std::atomic<int> iFailed{0};
  for (int i = 0; i < kThreads; ++i)
    listThreads.emplace_back([&, i] {
      for (const std::string& str : Numbered("t" + std::to_string(i) + "-", 0, kEach))
        iFailed += m_rig.Send(str) != 0;
    });
  for (std::thread& thread : listThreads)
    thread.join();
  EXPECT_EQ(iFailed.load(), 0);
  EXPECT_LT(m_rig.ready.Count(), static_cast<uint32_t>(kThreads * kEach));  // one per commit
  Restart();
  std::vector<std::string> list = m_rig.Deliver();
  EXPECT_EQ(list.size(), size_t{kThreads} * kEach);
  // Each sender's own order is kept.
  std::map<std::string, int> mapLast;
  for (const std::string& str : list) {
    const size_t uDash = str.find('-');
    const int iNumber = std::stoi(str.substr(uDash + 1));
    EXPECT_EQ(mapLast[str.substr(0, uDash)]++, iNumber);
  }
}

TEST_F(CSpoolTest, Append_IsOnDiskBeforeItReturns) {
  m_rig.Start();
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(m_rig.Send("body " + std::to_string(i)), 0u);
    // What a crash would leave now.
    const std::string strCopy = m_home.Path("copy" + CPString::Make("%d", i)).Str();
    std::filesystem::copy_file(m_rig.settings.strFile, strCopy);
    std::filesystem::copy_file(m_rig.settings.strFile + "-wal", strCopy + "-wal");
    CSpoolFile file(strCopy);
    CSpoolFile::TFound listFound;
    ASSERT_EQ(file.Open(true, listFound), ESpoolResult::Ok) << file.Reason();
    EXPECT_EQ(listFound.size(), static_cast<size_t>(i) + 1);
  }
}

TEST_F(CSpoolTest, Bound_RefusesBulkFirst_CountsAndRecovers) {
  m_rig.settings.uMaxBytes = 100000;
  m_rig.Start();
  const std::string strBody(1000, 'x');
  uint32_t uiResult = 0;
  while ((uiResult = m_rig.Send(strBody, 3)) == 0) {
  }
  EXPECT_EQ(uiResult, kZxcloudErrFull);
  EXPECT_EQ(m_rig.Send(strBody, 13), kZxcloudErrFull);
  EXPECT_EQ(m_rig.Send(strBody, 0), 0u);  // a part is kept for urgent ones
  EXPECT_LE(m_rig.pSpool->State().u64Bytes, 100000u);
  EXPECT_EQ(m_rig.pSpool->State().u64Refused, 2u);
  EXPECT_TRUE(EventuallyTrue([&] { return CSpoolLog::Count("spool refused records") == 1; }));
  EXPECT_THAT(m_rig.Deliver(), testing::Not(IsEmpty()));
  EXPECT_TRUE(EventuallyTrue([&] { return m_rig.Send(strBody, 3) == 0; }));
}

TEST_F(CSpoolTest, Backlog_IsReadFromTheFile_InOrder_WithLittleInMemory) {
  m_rig.Start();
  std::vector<std::thread> listThreads;
  constexpr int kThreads = 16;
  for (int i = 0; i < kThreads; ++i)
    listThreads.emplace_back([&] {
      for (int n = 0; n < 100; ++n)
        EXPECT_EQ(m_rig.Send(std::string(8000, 'x')), 0u);
    });
  for (std::thread& thread : listThreads)
    thread.join();
  EXPECT_LE(m_rig.pOutbox->Spooled().uBodyBytes, kFreshBytes);
  ASSERT_EQ(m_rig.Send("last"), 0u);
  uint64_t u64Last = 0;
  size_t uCount = 0;
  while (const TOutItem pItem = m_rig.Take()) {
    // Two lanes have two queues; each is in order.
    if (pItem->Body().size() > kCommandBytes) {
      EXPECT_GT(pItem->u64Seq, u64Last);
      u64Last = pItem->u64Seq;
    }
    EXPECT_LE(m_rig.pOutbox->Spooled().uBodyBytes, kFreshBytes + kAheadBytes * 2);
    m_rig.pOutbox->Done(pItem->u64Seq);
    ++uCount;
  }
  EXPECT_EQ(uCount, size_t{kThreads} * 100 + 1);
}

TEST_F(CSpoolTest, Age_ExpiresByTheSpoolsOwnClock) {
  m_rig.settings.uMaxAgeSec = 3600;
  m_rig.Start();
  ASSERT_EQ(m_rig.Send("old"), 0u);
  ASSERT_EQ(m_rig.Send("old2", 10), 0u);
  m_rig.wall.i64Now += 10 * 86400;  // a step of the machine's clock makes nothing older
  m_rig.clock.u64Shift += 1800 * 1000;
  ASSERT_EQ(m_rig.Send("young"), 0u);
  EXPECT_EQ(m_rig.pSpool->State().u64Expired, 0u);
  EXPECT_GE(m_rig.pSpool->State().u64OldestSec, 1800u);
  m_rig.clock.u64Shift += 1900 * 1000;
  ASSERT_EQ(m_rig.Send("younger"), 0u);  // wakes the thread
  EXPECT_TRUE(EventuallyTrue([&] { return m_rig.pSpool->State().u64Expired == 2; }));
  EXPECT_TRUE(EventuallyTrue([] { return CSpoolLog::Count("records expired[2]") == 1; }));
  EXPECT_THAT(m_rig.Deliver(), ElementsAre("young", "younger"));
}

TEST_F(CSpoolTest, Age_CountsTheTimeBetweenStarts_NotAClockThatWentBack) {
  m_rig.settings.uMaxAgeSec = 3600;
  m_rig.Start();
  ASSERT_EQ(m_rig.Send("one"), 0u);
  m_rig.Stop();
  m_rig.wall.i64Now -= 86400;
  m_rig.Start();
  ASSERT_TRUE(m_rig.WaitMode("ready"));
  EXPECT_EQ(m_rig.pSpool->State().u64Depth, 1u);
  EXPECT_LE(m_rig.pSpool->State().u64OldestSec, 60u);
  m_rig.Stop();
  m_rig.wall.i64Now += 2 * 86400;
  m_rig.Start();
  EXPECT_TRUE(EventuallyTrue([&] { return m_rig.pSpool->State().u64Expired == 1; }));
  EXPECT_THAT(m_rig.Deliver(), IsEmpty());
}

TEST_F(CSpoolTest, Cancel_OfASender_LeavesTheSpoolWorking) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer no longer sees the atomics of a thread that is being cancelled";
#endif
  m_rig.settings.strFile = m_home.Path("missing/zxcloud.db").Str();
  m_rig.Start();
  ASSERT_TRUE(m_rig.WaitMode("unavailable"));
  std::atomic<bool> bEnd{false};
  struct _Sender {
    CSpoolRig& rig;
    std::atomic<bool>& bEnd;
  } sender{m_rig, bEnd};
  std::vector<pthread_t> listThreads(8);
  for (pthread_t& thread : listThreads)
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* p) -> void* {
                    const auto* pSender = static_cast<_Sender*>(p);
                    while (!pSender->bEnd.load())
                      pSender->rig.Send("cancelled");
                    return nullptr;
                  },
                  &sender),
              0);
  m_home.MakeDir("missing");
  ASSERT_TRUE(m_rig.WaitMode("ready"));
  ASSERT_TRUE(EventuallyTrue([&] { return m_rig.pSpool->State().u64Depth > 100; }));
  for (const pthread_t thread : listThreads)
    ASSERT_EQ(pthread_cancel(thread), 0);
  for (const pthread_t thread : listThreads) {
    void* pResult = nullptr;
    ASSERT_EQ(pthread_join(thread, &pResult), 0);
    EXPECT_EQ(pResult, PTHREAD_CANCELED);
  }
  EXPECT_EQ(m_rig.Send("after", 0), 0u);
  EXPECT_EQ(m_rig.Take()->Body(), "after");
}

TEST_F(CSpoolTest, MissingDirectory_RefusesAndRecoversByItself) {
  m_rig.settings.strFile = m_home.Path("later/zxcloud.db").Str();
  m_rig.Start();
  EXPECT_EQ(m_rig.Send("x"), kZxcloudErrSpool);
  EXPECT_EQ(std::string(m_rig.pSpool->State().pszMode), "unavailable");
  EXPECT_EQ(CSpoolLog::Count("spool not usable"), 1u);
  m_home.MakeDir("later");
  ASSERT_TRUE(m_rig.WaitMode("ready"));
  EXPECT_EQ(m_rig.Send("y"), 0u);
  EXPECT_THAT(m_rig.Deliver(), ElementsAre("y"));
  EXPECT_EQ(m_rig.pSpool->State().u64Refused, 1u);
}

TEST_F(CSpoolTest, OneSpoolPerFile) {
  m_rig.Start();
  ASSERT_EQ(m_rig.Send("mine"), 0u);
  CSpoolRig other(m_rig.settings.strFile);
  other.Start();
  EXPECT_EQ(other.Send("theirs"), kZxcloudErrSpool);
  EXPECT_THAT(m_rig.Deliver(), ElementsAre("mine"));
  m_rig.Stop();
  ASSERT_TRUE(other.WaitMode("ready"));
  EXPECT_EQ(other.Send("theirs"), 0u);
}

TEST_F(CSpoolTest, Stop_AnswersThoseWhoWait_AndRefusesLaterOnes) {
  m_rig.Start();
  std::atomic<int> iAccepted{0};
  std::vector<std::thread> listThreads;
  for (int i = 0; i < 8; ++i)
    listThreads.emplace_back([&] {
      while (m_rig.Send("x") == 0)
        ++iAccepted;
    });
  ASSERT_TRUE(EventuallyTrue([&] { return iAccepted.load() > 50; }));
  m_rig.Stop();
  for (std::thread& thread : listThreads)
    thread.join();
  EXPECT_EQ(m_rig.Send("late"), kZxcloudErrState);
  m_rig.Start();
  EXPECT_EQ(m_rig.Deliver().size(), static_cast<size_t>(iAccepted.load()));
}

TEST_F(CSpoolTest, SyncNormal_IsShown_AndKeepsRecordsOverARestart) {
  m_rig.settings.bFull = false;
  m_rig.Start();
  ASSERT_EQ(m_rig.Send("kept"), 0u);
  EXPECT_NE(m_rig.pSpool->State().Text().find(":spoolsync=normal:spooldepth=1:"), std::string::npos);
  Restart();
  EXPECT_THAT(m_rig.Deliver(), ElementsAre("kept"));
}
