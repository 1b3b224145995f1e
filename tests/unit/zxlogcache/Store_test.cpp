// The durable store: what is committed is there after a crash, what is not is not.
#include "zxlogcache/Store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <limits>

#include "support/TempHome.h"
#include "zxlogcache/Records.h"

using namespace zxlogcache;
using testing::HasSubstr;

namespace {

constexpr int64_t kWall = 1700000000000;

class LogCacheStore : public testing::Test {
 protected:
  LogCacheStore() { Open(); }

  bool Open(int64_t i64Wall = kWall) {
    const bool bOpen = m_store.Open(File(), i64Wall, m_strAside);
    m_store.SetClock(i64Wall, m_u64Ticks);
    return bOpen;
  }
  std::string File() const { return m_home.Path("store.db").Str(); }
  void Pass(uint64_t u64Ms, int64_t i64Wall = kWall) { m_store.SetClock(i64Wall, m_u64Ticks += u64Ms); }
  int64_t Register(const char* pszName) {
    _SourceSettings source;
    source.strName = pszName;
    source.strGuid = "g";
    source.iPriv = 3;
    source.eBody = EBody::Lines;
    int64_t i64Source = 0;
    EXPECT_TRUE(m_store.Begin() && m_store.Register(source, i64Source) && m_store.Commit());
    return i64Source;
  }
  void Append(int64_t i64Source, const std::string& strRecord) {
    std::string strChunk;
    PackRecord(strRecord, strChunk);
    EXPECT_TRUE(m_store.Begin() && m_store.Append(i64Source, kWall, strChunk, 1) && m_store.Commit());
  }
  bool Form(int64_t i64Source, _Cache& cache, uint32_t uiMax = 1000, bool bSingle = false,
            int64_t i64Linger = 0) {
    bool bFound = false;
    int64_t i64Oldest = 0;
    EXPECT_TRUE(
        m_store.Begin() &&
        m_store.Form(i64Source, uiMax, bSingle, m_store.Now() - i64Linger, cache, bFound, i64Oldest) &&
        m_store.Commit());
    return bFound;
  }
  std::vector<std::string> Records(const _Cache& cache) {
    std::string strChunks;
    int64_t i64Wall = 0;
    std::vector<std::string_view> records;
    EXPECT_TRUE(m_store.Read(cache, strChunks, i64Wall));
    EXPECT_TRUE(UnpackRecords(strChunks, records));
    return {records.begin(), records.end()};
  }

  CTempHome m_home;
  CStore m_store;
  std::string m_strAside;
  uint64_t m_u64Ticks = 1000;
};

using Texts = std::vector<std::string>;

TEST_F(LogCacheStore, File_IsPrivate) {
  EXPECT_EQ(m_home.Mode("store.db"), 0600u);
}

TEST_F(LogCacheStore, Committed_IsThereAgain_WithTheSameDataIds) {
  const int64_t i64A = Register("a"), i64B = Register("b");
  for (const char* psz : {"1", "2", "3"})
    Append(i64A, psz);
  Append(i64B, "other");
  _Cache cache;
  ASSERT_TRUE(Form(i64A, cache, 10));  // two chunks of 5 bytes
  EXPECT_EQ(Records(cache), (Texts{"1", "2"}));
  m_store.Close();
  ASSERT_TRUE(Open());
  EXPECT_EQ(Register("a"), i64A);
  std::vector<_Cache> caches;
  ASSERT_TRUE(m_store.Caches(caches));
  ASSERT_EQ(caches.size(), 1u);
  EXPECT_EQ(caches[0].u64DataId, cache.u64DataId);
  EXPECT_EQ(caches[0].uiRecords, 2u);
  EXPECT_EQ(Records(caches[0]), (Texts{"1", "2"}));
  EXPECT_EQ(m_store.Held().u64Records, 4u);
  _Cache next;
  ASSERT_TRUE(Form(i64A, next));
  EXPECT_EQ(Records(next), (Texts{"3"}));
  EXPECT_GT(next.u64DataId, cache.u64DataId);
  std::map<int64_t, _SourceSettings> sources;
  ASSERT_TRUE(m_store.Sources(sources));
  EXPECT_EQ(sources.at(i64B).strName, "b");
  EXPECT_EQ(sources.at(i64B).iPriv, 3);
  EXPECT_EQ(sources.at(i64B).eBody, EBody::Lines);
}

TEST_F(LogCacheStore, RolledBack_NeverHappened) {
  const int64_t i64A = Register("a");
  Append(i64A, "kept");
  const _Held before = m_store.Held();
  _Cache cache;
  bool bFound = false;
  int64_t i64Oldest = 0;
  std::string strChunk;
  PackRecord("lost", strChunk);
  ASSERT_TRUE(m_store.Begin());
  ASSERT_TRUE(m_store.Append(i64A, kWall, strChunk, 1));
  ASSERT_TRUE(m_store.Form(i64A, 1000, false, m_store.Now(), cache, bFound, i64Oldest));
  ASSERT_TRUE(bFound);
  m_store.Rollback();
  EXPECT_EQ(m_store.Held().u64Bytes, before.u64Bytes);
  ASSERT_TRUE(Form(i64A, cache));
  EXPECT_EQ(Records(cache), (Texts{"kept"}));
}

TEST_F(LogCacheStore, Finished_IsGone) {
  const int64_t i64A = Register("a");
  Append(i64A, "1");
  _Cache cache;
  ASSERT_TRUE(Form(i64A, cache));
  Append(i64A, "2");
  ASSERT_TRUE(m_store.Begin() && m_store.Finish(cache) && m_store.Commit());
  EXPECT_EQ(m_store.Held().u64Records, 1u);
  EXPECT_EQ(m_store.Held().u64Bytes, 5u);
  std::vector<_Cache> caches;
  ASSERT_TRUE(m_store.Caches(caches));
  EXPECT_TRUE(caches.empty());
  m_store.Close();
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Form(i64A, cache));
  EXPECT_EQ(Records(cache), (Texts{"2"}));
}

TEST_F(LogCacheStore, File_ShrinksWhenRecordsGo) {
  const int64_t i64A = Register("a");
  for (int i = 0; i < 100; ++i)
    Append(i64A, std::string(100000, 'x'));
  const auto fnBytes = [this] { return std::filesystem::file_size(File()); };
  const uint64_t u64Full = fnBytes();
  EXPECT_GT(u64Full, 9000000u);
  uint64_t u64Records = 0;
  ASSERT_TRUE(m_store.Begin() && m_store.Drop(1u << 30, std::numeric_limits<int64_t>::max(), u64Records) &&
              m_store.Commit());
  for (int i = 0; i < 40; ++i)
    ASSERT_TRUE(m_store.Begin() && m_store.Commit());
  m_store.Close();
  EXPECT_LT(fnBytes(), u64Full / 4);
}

TEST_F(LogCacheStore, Form_WaitsForTheLingerTime_UnlessFull) {
  const int64_t i64A = Register("a");
  Append(i64A, "1");
  _Cache cache;
  EXPECT_FALSE(Form(i64A, cache, 1000, false, 500));
  Pass(499);
  EXPECT_FALSE(Form(i64A, cache, 1000, false, 500));
  Pass(1);
  EXPECT_TRUE(Form(i64A, cache, 1000, false, 500));
  Append(i64A, "123456");
  EXPECT_TRUE(Form(i64A, cache, 10, false, 500));
  EXPECT_FALSE(Form(i64A, cache, 10, false, 0));
}

TEST_F(LogCacheStore, Form_TakesOneChunkAtATime_WhenSingle) {
  const int64_t i64A = Register("a");
  Append(i64A, "1");
  Append(i64A, "2");
  _Cache cache;
  ASSERT_TRUE(Form(i64A, cache, 1000, true, 100000));
  EXPECT_EQ(Records(cache), (Texts{"1"}));
  ASSERT_TRUE(Form(i64A, cache, 1000, true, 100000));
  EXPECT_EQ(Records(cache), (Texts{"2"}));
}

TEST_F(LogCacheStore, Drop_TakesTheOldest_ThatAreInNoLogCache) {
  const int64_t i64A = Register("a"), i64B = Register("b");
  Append(i64A, "a1");
  _Cache cache;
  ASSERT_TRUE(Form(i64A, cache));
  Append(i64B, "b1");
  Append(i64A, "a2");
  Append(i64B, "b2");
  uint64_t u64Records = 0;
  ASSERT_TRUE(m_store.Begin() && m_store.Drop(7, std::numeric_limits<int64_t>::max(), u64Records) &&
              m_store.Commit());
  EXPECT_EQ(u64Records, 2u);
  EXPECT_EQ(m_store.Held().u64Records, 2u);
  EXPECT_EQ(Records(cache), (Texts{"a1"}));
  ASSERT_TRUE(Form(i64B, cache));
  EXPECT_EQ(Records(cache), (Texts{"b2"}));
}

TEST_F(LogCacheStore, Age_CountsTheTimeSwitchedOff_AndNoJumps) {
  const int64_t i64A = Register("a");
  Append(i64A, "1");
  Pass(1000, kWall + 86400000ll * 365);  // the clock jumps by a year
  EXPECT_EQ(m_store.Held().i64OldestAgeMs, 1000);
  Pass(1000, kWall - 86400000ll);
  EXPECT_EQ(m_store.Held().i64OldestAgeMs, 2000);
  Append(i64A, "2");
  m_store.Close();
  ASSERT_TRUE(Open(kWall - 86400000ll + 5000));
  EXPECT_EQ(m_store.Held().i64OldestAgeMs, 7000);
  m_store.Close();
  ASSERT_TRUE(Open(1000));  // a machine without a clock battery
  EXPECT_EQ(m_store.Held().i64OldestAgeMs, 2000);
  uint64_t u64Records = 0;
  ASSERT_TRUE(m_store.Begin() && m_store.Drop(0, m_store.Now() - 1000, u64Records) && m_store.Commit());
  EXPECT_EQ(u64Records, 1u);
}

TEST_F(LogCacheStore, Marks_AreKeptPerFile) {
  const int64_t i64A = Register("a");
  const std::string strHead("h\0d", 3);
  const _FileMark one{"/x", 1, std::numeric_limits<uint64_t>::max(), 10, strHead}, two{"/x", 1, 2, 20, ""};
  ASSERT_TRUE(m_store.Begin() && m_store.Mark(i64A, one) && m_store.Mark(i64A, two) &&
              m_store.Mark(i64A, two) && m_store.Commit());
  std::vector<_FileMark> marks;
  ASSERT_TRUE(m_store.Marks(i64A, "/x", marks));
  ASSERT_EQ(marks.size(), 2u);
  const _FileMark& big = marks[0].u64Inode == 2 ? marks[1] : marks[0];
  EXPECT_EQ(big.u64Inode, one.u64Inode);
  EXPECT_EQ(big.strHead, strHead);
  ASSERT_TRUE(m_store.Begin() && m_store.Unmark(i64A, one) && m_store.Commit());
  marks.clear();
  ASSERT_TRUE(m_store.Marks(i64A, "/x", marks));
  EXPECT_EQ(marks.size(), 1u);
}

TEST_F(LogCacheStore, DamagedFile_IsSetAside_AndTheStoreGoesOn) {
  m_store.Close();
  m_home.WriteFile("store.db", CPString(std::string(8192, 'x')));
  ASSERT_TRUE(Open(kWall + 5));
  EXPECT_THAT(m_strAside, HasSubstr("store.db.damaged-" + std::to_string(kWall + 5)));
  EXPECT_TRUE(m_home.Exists(CPString("store.db.damaged-") + std::to_string(kWall + 5).c_str()));
  const int64_t i64A = Register("a");
  Append(i64A, "1");
  _Cache cache;
  ASSERT_TRUE(Form(i64A, cache));
  EXPECT_GT(cache.u64DataId, static_cast<uint64_t>(kWall)) << "an id that an earlier store may have used";
}

TEST_F(LogCacheStore, SecondOwner_IsRefused_AndHarmsNothing) {
  const int64_t i64A = Register("a");
  Append(i64A, "1");
  CStore second;
  std::string strAside;
  EXPECT_FALSE(second.Open(File(), kWall, strAside));
  EXPECT_EQ(strAside, "");
  Append(i64A, "2");
  EXPECT_EQ(m_store.Held().u64Records, 2u);
}

TEST_F(LogCacheStore, MissingDirectory_IsAnError) {
  CStore other;
  std::string strAside;
  EXPECT_FALSE(other.Open(m_home.Path("no/such/store.db").Str(), kWall, strAside));
  EXPECT_NE(other.Error(), "");
}

}  // namespace
