// The spool's database file, without a log, after cuts and flipped bits at random: what they did not hit is
// there, and what is lost is told once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <random>

#include "SpoolBytes.h"
#include "SpoolRig.h"
#include "platform/cloud/SpoolCarver.h"

using namespace zxcloud;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

constexpr unsigned kSeed = 20261122;
constexpr int kRecords = 200;
constexpr int kDeleted = 60;  // the oldest: their pages are free
constexpr size_t kFileHeader = 100;

// Its number stands in every piece of it, so that the pages that hold it can be found.
// Made once: every round compares all of them.
const std::string& Body(int i) {
  static std::map<int, std::string> mapBodies;
  std::string& strBody = mapBodies[i];
  if (strBody.empty()) {
    const std::string strMark = "[" + std::to_string(i) + "]";
    const size_t uBytes =
        i % 9 == 0 ? 9000 + static_cast<size_t>(i) * 13 : 100 + static_cast<size_t>(i) * 37 % 1500;
    while (strBody.size() < uBytes)
      strBody += strMark;
  }
  return strBody;
}

int NumberOf(const std::string& strBody) {
  return strBody.empty() || strBody[0] != '[' ? -1 : std::stoi(strBody.substr(1));
}

// What was done to the file: pages from uCut on are gone, some others have changed.
struct _Harm {
  size_t uCut = SIZE_MAX;
  std::set<size_t> setPages;  // from 0

  bool Hit(size_t uPage) const { return setPages.contains(uPage) || (uPage + 1) * kSpoolPageBytes > uCut; }
};

class CSpoolCrash : public ::testing::Test {
 protected:
  CSpoolCrash() : m_random(kSeed) {
    CSpoolLog::Clear();
    std::printf("seed %u\n", kSeed);
    MakeSound();
  }

  void MakeSound() {
    const std::string strFile = m_home.Path("sound.db").Str();
    CSpoolFile file(strFile);
    CSpoolFile::TFound listFound;
    ASSERT_EQ(file.Open(false, listFound), ESpoolResult::Ok);
    for (int i = 1; i <= kRecords; ++i) {
      const std::string strId = "id-" + std::to_string(i);
      const std::string& strBody = Body(i);
      const _SpoolRow row{static_cast<uint64_t>(i), i % 4, 1800000000, strId, strBody};
      std::vector<uint64_t> listDeletes;
      if (i > kRecords - kDeleted)
        listDeletes.push_back(static_cast<uint64_t>(i - (kRecords - kDeleted)));
      ASSERT_EQ(file.Commit({{row, *SpoolSum(row)}}, listDeletes), ESpoolResult::Ok);
    }
    file.Close();
    ASSERT_FALSE(fs::exists(strFile + "-wal") && fs::file_size(strFile + "-wal") != 0);
    m_strSound = Slurp(strFile);
    for (size_t uPage = 0; uPage * kSpoolPageBytes < m_strSound.size(); ++uPage)
      NotePage(uPage);
    zxdb::CSqlite db;
    ASSERT_TRUE(db.Open(strFile));
    bool bOk = false;
    m_uStatePage = static_cast<size_t>(
        db.Query("SELECT rootpage FROM sqlite_master WHERE name='state'").Number(0, bOk) - 1);
    ASSERT_TRUE(bOk);
    m_bHasFree = db.Query("PRAGMA freelist_count").Number(0, bOk) > 0;
    ASSERT_TRUE(bOk && m_bHasFree);
  }
  void NotePage(size_t uPage) {
    const std::string_view sv = std::string_view(m_strSound).substr(uPage * kSpoolPageBytes, kSpoolPageBytes);
    for (int i = kDeleted + 1; i <= kRecords; ++i) {
      const std::string strMark = "[" + std::to_string(i) + "]";
      if (memmem(sv.data(), sv.size(), strMark.data(), strMark.size()) != nullptr)
        m_mapPages[i].insert(uPage);
    }
  }

  size_t Below(size_t uBound) { return static_cast<size_t>(m_random()) % uBound; }
  void Cut(std::string& strDb, _Harm& harm) {
    harm.uCut = Below(strDb.size());
    strDb.resize(harm.uCut);
  }
  void Flip(std::string& strDb, _Harm& harm, size_t uWithin) {
    const size_t uAt = Below(std::min(uWithin, strDb.size()));
    strDb[uAt] = static_cast<char>(strDb[uAt] ^ (1 << Below(8)));
    harm.setPages.insert(uAt / kSpoolPageBytes);
  }

  // Opens the damaged file as a start would, uses it, and opens it again.
  void Check(const std::string& strDb, const _Harm& harm) {
    const std::string strDir = m_home.Path("r").Str();
    fs::create_directory(strDir);
    Write(strDir + "/zxcloud.db", strDb);
    CSpoolRig rig(strDir + "/zxcloud.db");
    rig.settings.bFull = false;  // no power is cut here, and it saves the disk some work
    rig.Start();
    ASSERT_TRUE(rig.WaitMode("ready")) << CSpoolLog::Text();
    const bool bTold = CheckDelivered(rig, harm);
    EXPECT_EQ(rig.Send("goes on"), 0u);
    rig.Stop();
    rig.Start();
    CheckAfterwards(rig.Deliver(), bTold);
    EXPECT_EQ(rig.pSpool->State().u64Damaged, 0u);
    rig.Stop();
    rig.Start();
    EXPECT_THAT(rig.Deliver(), IsEmpty());
    rig.Stop();
    EXPECT_LE(CSpoolLog::Count("spool damaged, set aside"), 1u);
    CSpoolLog::Clear();
    fs::remove_all(strDir);
  }
  // Some damage shows only when the file is written to. It loses nothing then, and may bring delivered
  // records back.
  static void CheckAfterwards(const std::vector<std::string>& listBodies, bool bTold) {
    size_t uGoesOn = 0;
    for (const std::string& strBody : listBodies) {
      uGoesOn += strBody == "goes on";
      if (strBody == "goes on" || NumberOf(strBody) > 0)
        continue;
      EXPECT_FALSE(std::exchange(bTold, true)) << "told twice";
      EXPECT_THAT(strBody, HasSubstr("\"lost\":0}"));
    }
    EXPECT_EQ(uGoesOn, 1u);
  }
  // True: damage was told.
  bool CheckDelivered(CSpoolRig& rig, const _Harm& harm) {
    std::set<int> setFound;
    std::vector<std::string> listReports;
    for (const std::string& strBody : rig.Deliver()) {
      const int iNumber = NumberOf(strBody);
      if (iNumber < 0) {
        listReports.push_back(strBody);
        continue;
      }
      EXPECT_EQ(strBody, Body(iNumber)) << "not what was sent";
      EXPECT_TRUE(setFound.insert(iNumber).second) << "twice: " << iNumber;
    }
    uint64_t u64Missing = 0;
    for (const auto& [iNumber, setPages] : m_mapPages) {
      if (setFound.contains(iNumber))
        continue;
      ++u64Missing;
      const bool bHit = std::any_of(setPages.begin(), setPages.end(), [&](size_t u) { return harm.Hit(u); });
      EXPECT_TRUE(bHit) << "record " << iNumber << " was not hit and is lost";
    }
    m_u64Missing += u64Missing;
    const uint64_t u64Damaged = rig.pSpool->State().u64Damaged;
    EXPECT_LE(listReports.size(), 1u);
    EXPECT_TRUE(u64Missing == 0 || !listReports.empty()) << u64Missing << " missing and nothing told";
    if (!listReports.empty()) {
      EXPECT_THAT(listReports[0], HasSubstr("\"lost\":" + std::to_string(u64Damaged) + "}"));
    }
    // Delivered records that come back stand for lost ones in the count.
    const bool bBack = std::any_of(setFound.begin(), setFound.end(), [](int i) { return i <= kDeleted; });
    if (!harm.Hit(m_uStatePage) && !bBack) {
      EXPECT_EQ(u64Damaged, u64Missing);
    }
    return !listReports.empty();
  }
  void Rounds(int iRounds, const std::function<void(std::string&, _Harm&)>& fnHarm) {
    for (int i = 0; i < iRounds && !HasFailure(); ++i) {
      SCOPED_TRACE("round " + std::to_string(i));
      std::string strDb = m_strSound;
      _Harm harm;
      fnHarm(strDb, harm);
      Check(strDb, harm);
    }
  }

  CTempHome m_home;
  std::mt19937 m_random;
  std::string m_strSound;
  std::map<int, std::set<size_t>> m_mapPages;  // of each record that was not deleted
  size_t m_uStatePage = 0;
  bool m_bHasFree = false;
  uint64_t m_u64Missing = 0;  // in all rounds
};

TEST_F(CSpoolCrash, Unharmed_IsWhole) {
  Check(m_strSound, {});
  EXPECT_EQ(m_u64Missing, 0u);
}

TEST_F(CSpoolCrash, CutDatabase_LosesWhatIsBehindTheCut) {
  Rounds(60, [this](std::string& strDb, _Harm& harm) { Cut(strDb, harm); });
  EXPECT_GT(m_u64Missing, 60u);
}

TEST_F(CSpoolCrash, CutAtTheBoundaryOfAPage_IsNoticed) {
  Rounds(30, [this](std::string& strDb, _Harm& harm) {
    harm.uCut = Below(strDb.size() / kSpoolPageBytes) * kSpoolPageBytes;
    strDb.resize(harm.uCut);
  });
  EXPECT_GT(m_u64Missing, 30u);
}

TEST_F(CSpoolCrash, FlippedBits_LoseNothingOnOtherPages) {
  Rounds(80, [this](std::string& strDb, _Harm& harm) {
    for (size_t u = Below(8) + 1; u != 0; --u)
      Flip(strDb, harm, strDb.size());
  });
  EXPECT_GT(m_u64Missing, 0u);
}

TEST_F(CSpoolCrash, FlippedBits_InTheFilesHeader_LoseNothing) {
  // One bit of each byte; ZX_EVERY_BIT: all.
  const size_t uEach = getenv("ZX_EVERY_BIT") != nullptr ? 8 : 1;
  size_t uNext = 0;
  Rounds(static_cast<int>(kFileHeader * uEach), [&](std::string& strDb, _Harm& harm) {
    const size_t uAt = uNext / uEach;
    const size_t uBit = uEach == 8 ? uNext % 8 : Below(8);
    strDb[uAt] = static_cast<char>(strDb[uAt] ^ (1 << uBit));
    harm.setPages.insert(0);
    ++uNext;
  });
  EXPECT_EQ(m_u64Missing, 0u);
}

TEST_F(CSpoolCrash, CutAndFlippedBits_Together) {
  Rounds(40, [this](std::string& strDb, _Harm& harm) {
    for (size_t u = Below(4) + 1; u != 0; --u)
      Flip(strDb, harm, strDb.size());
    Cut(strDb, harm);
  });
}

}  // namespace
