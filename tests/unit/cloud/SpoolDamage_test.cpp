// What a crash, a cut and flipped bytes leave of the spool.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <random>

#include "SpoolBytes.h"
#include "SpoolRig.h"
#include "platform/cloud/SpoolCarver.h"
#include "platform/cloud/zxcloud.h"

using namespace zxcloud;
namespace fs = std::filesystem;

namespace {

// The files of a spool as they stand at one moment.
struct _Snapshot {
  std::string strDb;
  std::string strLog;
  std::set<std::string> setBodies;  // what is in it
};

class CSpoolDamage : public ::testing::Test {
 protected:
  CSpoolDamage() : m_strFile(m_home.Path("zxcloud.db").Str()) { CSpoolLog::Clear(); }

  static std::string Body(int i) {
    return "body " + std::to_string(i) + " " + std::string(static_cast<size_t>(300 + i * 37 % 900), 'x');
  }
  // A snapshot after each commit: records come, and some leave.
  std::vector<_Snapshot> Record(int iCount) {
    std::vector<_Snapshot> list;
    CSpoolFile file(m_strFile);
    CSpoolFile::TFound listFound;
    EXPECT_EQ(file.Open(true, listFound), ESpoolResult::Ok) << file.Reason();
    std::set<std::string> setBodies;
    std::map<uint64_t, std::string> mapRows;
    for (int i = 0; i < iCount; ++i) {
      const std::string strId = "id-" + std::to_string(i);
      mapRows[static_cast<uint64_t>(i) + 1] = Body(i);
      const _SpoolRow row{static_cast<uint64_t>(i) + 1, i % 4, 1800000000, strId, mapRows.rbegin()->second};
      std::vector<uint64_t> listDeletes;
      if (i % 3 == 2)
        listDeletes.push_back(static_cast<uint64_t>(i) / 3 + 1);
      setBodies.insert(Body(i));
      for (const uint64_t u64Row : listDeletes)
        setBodies.erase(mapRows[u64Row]);
      EXPECT_EQ(file.Commit({{row, *SpoolSum(row)}}, listDeletes), ESpoolResult::Ok) << file.Reason();
      list.push_back({Slurp(m_strFile), Slurp(m_strFile + "-wal"), setBodies});
    }
    file.Close();
    return list;
  }
  struct _Outcome {
    std::set<std::string> setBodies;
    uint64_t u64Damaged = 0;
    size_t uReports = 0;
  };
  // Opens the files as a new start would, and takes everything.
  _Outcome Reopen(const std::string& strDb, const std::string& strLog) {
    const std::string strDir = m_home.Path(CPString::Make("r%d", ++m_iDirs)).Str();
    fs::create_directory(strDir);
    Write(strDir + "/zxcloud.db", strDb);
    Write(strDir + "/zxcloud.db-wal", strLog);
    CSpoolRig rig(strDir + "/zxcloud.db");
    rig.settings.bFull = false;  // no power is cut here, and it saves the disk some work
    rig.Start();
    EXPECT_TRUE(rig.WaitMode("ready"));
    _Outcome outcome;
    for (const std::string& strBody : rig.Deliver()) {
      if (strBody.find("\"zxcloud\":\"spool_damaged\"") != std::string::npos)
        ++outcome.uReports;
      else
        EXPECT_TRUE(outcome.setBodies.insert(strBody).second) << "twice: " << strBody.substr(0, 12);
    }
    outcome.u64Damaged = rig.pSpool->State().u64Damaged;
    EXPECT_EQ(rig.Send("goes on"), 0u);
    rig.Stop();
    fs::remove_all(strDir);
    return outcome;
  }

  CTempHome m_home;
  const std::string m_strFile;
  int m_iDirs = 0;
};

size_t MissingOf(const std::set<std::string>& setWanted, const std::set<std::string>& setFound) {
  return static_cast<size_t>(std::count_if(setWanted.begin(), setWanted.end(),
                                           [&](const auto& str) { return !setFound.contains(str); }));
}

}  // namespace

TEST_F(CSpoolDamage, Crash_AfterAnyCommit_LosesNothing) {
  for (const _Snapshot& snapshot : Record(40)) {
    const _Outcome outcome = Reopen(snapshot.strDb, snapshot.strLog);
    EXPECT_EQ(outcome.setBodies, snapshot.setBodies);
    EXPECT_EQ(outcome.u64Damaged + outcome.uReports, 0u);
  }
}

// A log that ends in the middle of a commit: that commit never was, those before it are whole.
TEST_F(CSpoolDamage, Cut_OfTheLog_KeepsEveryCommitBeforeTheCut) {
  const std::vector<_Snapshot> list = Record(30);
  std::mt19937 random(7);
  for (int i = 0; i < 25; ++i) {
    const size_t uFrom = random() % (list.size() - 1);
    const _Snapshot& before = list[uFrom];
    const _Snapshot& after = list[uFrom + 1];
    if (after.strLog.size() <= before.strLog.size())
      continue;
    const size_t uCut = before.strLog.size() + random() % (after.strLog.size() - before.strLog.size());
    const _Outcome outcome = Reopen(after.strDb, after.strLog.substr(0, uCut));
    EXPECT_EQ(outcome.setBodies, before.setBodies);
    EXPECT_EQ(outcome.u64Damaged + outcome.uReports, 0u) << "an unfinished commit is no damage";
  }
}

TEST_F(CSpoolDamage, FlippedByte_LosesOnlyWhatItHit_AndSaysHowMuch) {
  const std::vector<_Snapshot> list = Record(40);
  std::mt19937 random(11);
  for (int i = 0; i < 60; ++i) {
    _Snapshot snapshot = list[list.size() - 1 - random() % 5];
    std::string& strHit = random() % 3 == 0 ? snapshot.strDb : snapshot.strLog;
    const size_t uAt = random() % strHit.size();
    strHit[uAt] = static_cast<char>(strHit[uAt] ^ (1 << random() % 8));
    const _Outcome outcome = Reopen(snapshot.strDb, snapshot.strLog);
    const size_t uMissing = MissingOf(snapshot.setBodies, outcome.setBodies);
    SCOPED_TRACE("byte " + std::to_string(uAt) +
                 (&strHit == &snapshot.strDb ? " of the database" : " of the log"));
    EXPECT_LE(uMissing, 13u);  // the records of one page at most
    EXPECT_LE(outcome.u64Damaged, uMissing);
    EXPECT_EQ(outcome.uReports > 0, CSpoolLog::Count("spool damaged, set aside") > 0);
    CSpoolLog::Clear();
  }
}

TEST_F(CSpoolDamage, FlippedByte_InABody_LosesThatRecordAlone) {
  const _Snapshot snapshot = Record(40).back();
  // Everything in one file, without a log.
  const std::string strDir = m_home.Path("whole").Str();
  fs::create_directory(strDir);
  Write(strDir + "/zxcloud.db", snapshot.strDb);
  Write(strDir + "/zxcloud.db-wal", snapshot.strLog);
  {
    CSpoolFile file(strDir + "/zxcloud.db");
    CSpoolFile::TFound listFound;
    ASSERT_EQ(file.Open(true, listFound), ESpoolResult::Ok);
    file.Close();
  }
  const std::string strWhole = Slurp(strDir + "/zxcloud.db");
  for (const int i : {20, 27, 39}) {
    std::string strDb = strWhole;
    const size_t uAt = strDb.find("body " + std::to_string(i) + " ");
    ASSERT_NE(uAt, std::string::npos);
    strDb[uAt + 30] = 'y';
    const _Outcome outcome = Reopen(strDb, "");
    EXPECT_EQ(MissingOf(snapshot.setBodies, outcome.setBodies), 1u);
    EXPECT_FALSE(outcome.setBodies.contains(Body(i)));
    EXPECT_EQ(outcome.u64Damaged, 1u);
    EXPECT_EQ(outcome.uReports, 1u);
  }
}

TEST_F(CSpoolDamage, DamagedHeader_SavesEveryRecord) {
  const _Snapshot snapshot = Record(40).back();
  std::string strDb = snapshot.strDb;
  std::fill_n(strDb.begin(), std::min<size_t>(strDb.size(), 100), 'Z');
  std::string strLog = snapshot.strLog;
  for (const bool bLogToo : {false, true}) {
    if (bLogToo)
      std::fill_n(strLog.begin(), 32, 'Z');
    const _Outcome outcome = Reopen(strDb, strLog);
    EXPECT_EQ(MissingOf(snapshot.setBodies, outcome.setBodies), 0u) << bLogToo;
    EXPECT_EQ(outcome.u64Damaged, 0u);
  }
}

TEST_F(CSpoolDamage, NotADatabase_IsSetAside_BoundedInNumber_AndReportedOnce) {
  for (int i = 0; i < 6; ++i) {
    Write(m_strFile, "this is no database, number " + std::to_string(i));
    CSpoolRig rig(m_strFile);
    rig.wall.i64Now += i;
    rig.Start();
    ASSERT_TRUE(rig.WaitMode("ready"));
    const std::vector<std::string> list = rig.Deliver();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_NE(list[0].find("\"lost\":0"), std::string::npos) << list[0];
    rig.Stop();
    rig.Start();
    EXPECT_TRUE(rig.Deliver().empty());  // not again
  }
  size_t uAside = 0;
  for (const auto& entry : fs::directory_iterator(m_home.Root().Str()))
    uAside += entry.path().string().find(".damaged-") != std::string::npos;
  EXPECT_EQ(uAside, kDamagedKept);
}

TEST_F(CSpoolDamage, UnknownVersion_IsSetAside) {
  {
    zxdb::CSqlite db;
    ASSERT_TRUE(db.Open(m_strFile));
    ASSERT_TRUE(db.Exec("CREATE TABLE other(x); PRAGMA user_version=77"));
  }
  CSpoolRig rig(m_strFile);
  rig.Start();
  EXPECT_EQ(rig.Send("works"), 0u);
  EXPECT_EQ(CSpoolLog::Count("version 77 is not known"), 1u);
}

TEST_F(CSpoolDamage, Salvage_CutShort_IsCompletedAtTheNextStart) {
  const _Snapshot snapshot = Record(20).back();
  Write(m_strFile, snapshot.strDb);
  Write(m_strFile + "-wal", snapshot.strLog);
  // The state between the two renames: the new file is whole, the old one still has its place.
  fs::copy_file(m_strFile, m_strFile + ".whole");
  fs::copy_file(m_strFile + "-wal", m_strFile + ".whole-wal");
  {
    CSpoolFile whole(m_strFile + ".whole");
    CSpoolFile::TFound listFound;
    ASSERT_EQ(whole.Open(true, listFound), ESpoolResult::Ok);
    whole.Close();
  }
  CSpoolRig rig(m_strFile);
  rig.Start();
  const std::vector<std::string> list = rig.Deliver();
  EXPECT_EQ(std::set<std::string>(list.begin(), list.end()), snapshot.setBodies);
  EXPECT_FALSE(fs::exists(m_strFile + ".whole"));
}

TEST_F(CSpoolDamage, Kill_InTheMiddleOfSends_DeliversEverythingThatWasAccepted) {
  for (int iRound = 0; iRound < 3; ++iRound) {
    // One byte per accepted message, shared with the child.
    constexpr size_t kMax = 200000;
    auto* pAccepted = static_cast<unsigned char*>(
        mmap(nullptr, kMax, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pAccepted, MAP_FAILED);
    auto* pCount = static_cast<std::atomic<uint32_t>*>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(static_cast<void*>(pCount), MAP_FAILED);
    const pid_t iChild = fork();
    ASSERT_GE(iChild, 0);
    if (iChild == 0) {
      CSpoolRig rig(m_strFile);
      rig.Start();
      std::atomic<uint32_t> uNext{0};
      std::vector<std::thread> listThreads;
      for (int i = 0; i < 8; ++i)
        listThreads.emplace_back([&] {
          for (uint32_t u = uNext++; u < kMax; u = uNext++) {
            const std::string strBody =
                std::to_string(iRound) + ":" + std::to_string(u) + ":" + std::string(u % 2000, 'k');
            if (rig.Send(strBody) != 0)
              _exit(3);
            pAccepted[u] = 1;
            pCount->fetch_add(1);
          }
        });
      for (std::thread& thread : listThreads)
        thread.join();
      _exit(4);
    }
    ASSERT_TRUE(EventuallyTrue([&] { return pCount->load() > 300; }, 30000));
    ASSERT_EQ(kill(iChild, SIGKILL), 0);
    int iStatus = 0;
    ASSERT_EQ(waitpid(iChild, &iStatus, 0), iChild);
    ASSERT_TRUE(WIFSIGNALED(iStatus)) << iStatus;
    CSpoolRig rig(m_strFile);
    rig.Start();
    ASSERT_TRUE(rig.WaitMode("ready"));
    std::set<uint32_t> setDelivered;
    for (const std::string& strBody : rig.Deliver()) {
      const size_t uColon = strBody.find(':');
      const uint32_t uNumber = static_cast<uint32_t>(std::stoul(strBody.substr(uColon + 1)));
      EXPECT_TRUE(setDelivered.insert(uNumber).second);
      EXPECT_EQ(strBody.substr(0, uColon), std::to_string(iRound));
    }
    size_t uLost = 0;
    for (uint32_t u = 0; u < kMax; ++u)
      uLost += pAccepted[u] == 1 && !setDelivered.contains(u);
    EXPECT_EQ(uLost, 0u);
    EXPECT_EQ(rig.pSpool->State().u64Damaged, 0u);
    munmap(pAccepted, kMax);
    munmap(pCount, 4096);
  }
}
