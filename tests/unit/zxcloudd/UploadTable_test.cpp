// What of the uploads is kept, and for how long a repeat is recognised.
#include <gmock/gmock.h>

#include "CloudFixture.h"

namespace zxcloudd {
namespace {

constexpr int64_t kDayMs = 86400000;
constexpr int64_t kNow = 1000 * kDayMs;

class CUploads : public CStoreTest {
 protected:
  bool Insert(const std::string& strId, int64_t i64Now, const std::string& strBody = "x",
              const std::string& strMid = kMid) {
    const std::string strUpload = UploadText(strBody, strMid);
    _UploadHeader header;
    _NewUpload upload;
    upload.svMid = strMid;
    upload.svMessageId = strId;
    upload.svUpload = strUpload;
    bool bRepeat = false;
    EXPECT_TRUE(ParseUpload(strUpload, header));
    EXPECT_TRUE(Run([&](CSqlite& db) {
      bool bFull = false;
      return CAgentTable::Seen(db, strMid, i64Now, 100, bFull) &&
             CUploadTable::Insert(db, upload, header, m_limits, i64Now, bRepeat);
    }));
    return !bRepeat;
  }
  void InsertMany(int iCount, int64_t i64Now, const std::string& strBody, const std::string& strMid = kMid) {
    const std::string strUpload = UploadText(strBody, strMid);
    _UploadHeader header;
    ASSERT_TRUE(ParseUpload(strUpload, header));
    ASSERT_TRUE(Run([&](CSqlite& db) {
      bool bFull = false, bRepeat = false;
      if (!CAgentTable::Seen(db, strMid, i64Now, 100, bFull))
        return false;
      for (int i = 0; i < iCount; ++i) {
        const std::string strId = "n-" + std::to_string(m_iMade++);
        if (!CUploadTable::Insert(db, {strMid, strId, strUpload}, header, m_limits, i64Now, bRepeat))
          return false;
      }
      return true;
    }));
  }
  void Housekeep(int64_t i64Now) {
    ASSERT_TRUE(Run([&](CSqlite& db) { return CUploadTable::Housekeep(db, m_limits, i64Now); }));
  }
  int64_t Number(const std::string& strSql) {
    int64_t i64 = -1;
    Run([&](CSqlite& db) {
      bool bOk = false;
      i64 = db.Query(strSql.c_str()).Number(-1, bOk);
      return bOk;
    });
    return i64;
  }
  int64_t UsedBytes() {
    return (Number("PRAGMA page_count") - Number("PRAGMA freelist_count")) * Number("PRAGMA page_size");
  }

  _LimitConfig m_limits;
  int m_iMade = 0;
};

TEST_F(CUploads, Ids_AreForgottenByAge_ButNeverTheNewest) {
  m_limits.iUploadsPerAgent = 10;
  m_limits.iUploadIdDays = 30;
  InsertMany(kUploadIdsAlways + 500, kNow, "x");
  Housekeep(kNow + 29 * kDayMs);
  EXPECT_EQ(Number("SELECT COUNT(*) FROM uploads"), kUploadIdsAlways + 500);
  Housekeep(kNow + 31 * kDayMs);
  EXPECT_EQ(Number("SELECT COUNT(*) FROM uploads"), kUploadIdsAlways);
  EXPECT_FALSE(Insert("n-500", kNow + 31 * kDayMs)) << "the oldest of the newest";
  EXPECT_TRUE(Insert("n-499", kNow + 31 * kDayMs));
}

TEST_F(CUploads, Ids_SurviveAJumpOfTheClock) {
  m_limits.iUploadsPerAgent = 1;
  for (int i = 0; i < 50; ++i)
    EXPECT_TRUE(Insert("id-" + std::to_string(i), kNow));
  Housekeep(kNow + 36500 * kDayMs);
  Housekeep(0);
  for (int i = 0; i < 50; ++i)
    EXPECT_FALSE(Insert("id-" + std::to_string(i), 0)) << i;
}

TEST_F(CUploads, Store_StaysBelowItsBound_AndTheLoudestMachinePays) {
  m_limits.i64StoreBytes = 4 << 20;
  m_limits.iUploadsPerAgent = 1 << 20;
  InsertMany(20, kNow, std::string(1000, 'q'), "quiet");
  for (int i = 0; i < 30; ++i) {
    InsertMany(300, kNow, std::string(1000, 'x'));
    Housekeep(kNow);
    ASSERT_LE(UsedBytes(), m_limits.i64StoreBytes);
  }
  EXPECT_EQ(Number("SELECT kept FROM agents WHERE mid='quiet'"), 20);
  EXPECT_LT(Number("SELECT kept FROM agents WHERE mid<>'quiet'"), 4000);
  EXPECT_EQ(Number("SELECT COUNT(*) FROM uploads"), 9020) << "the ids are remembered longer";
  EXPECT_EQ(Number("SELECT SUM(kept) FROM agents"), Number("SELECT COUNT(*) FROM bodies"));
  EXPECT_EQ(Number("SELECT SUM(kept_bytes) FROM agents"), Number("SELECT SUM(length(body)) FROM bodies"));
}

TEST_F(CUploads, Store_ForgetsTheOldestIds_WhenNoBodyIsLeftToDrop) {
  m_limits.i64StoreBytes = 1 << 20;
  m_limits.iUploadsPerAgent = 0;
  m_limits.iUploadIdsPerAgent = 1 << 20;
  for (int i = 0; i < 20; ++i) {
    InsertMany(1000, kNow + i, "x");
    Housekeep(kNow + i);
  }
  EXPECT_LE(UsedBytes(), m_limits.i64StoreBytes);
  EXPECT_GT(Number("SELECT COUNT(*) FROM uploads"), 500);
  EXPECT_FALSE(Insert("n-19999", kNow + 20)) << "the newest is known";
}

}  // namespace
}  // namespace zxcloudd
