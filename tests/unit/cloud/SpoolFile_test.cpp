// The spool's file by itself: its log and the room that it makes for itself.
#include "platform/cloud/SpoolFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>

#include "platform/db/Sqlite.h"
#include "support/TempHome.h"

using namespace zxcloud;

namespace {

class CSpoolFileTest : public ::testing::Test {
 protected:
  CSpoolFileTest() : m_strFile(m_home.Path("zxcloud.db").Str()), m_file(m_strFile) {
    CSpoolFile::TFound listFound;
    EXPECT_EQ(m_file.Open(false, listFound), ESpoolResult::Ok) << m_file.Reason();
  }
  void Write(const std::string& strBody) {
    const _SpoolRow row{++m_u64Row, 1, 1800000000, "id-1", strBody};
    ASSERT_EQ(m_file.Commit({{row, *SpoolSum(row)}}, {}), ESpoolResult::Ok) << m_file.Reason();
  }
  int64_t Size(const std::string& strFile) {
    struct stat info {};
    return stat(strFile.c_str(), &info) == 0 ? info.st_size : -1;
  }

  CTempHome m_home;
  const std::string m_strFile;
  CSpoolFile m_file;
  uint64_t m_u64Row = 0;
};

}  // namespace

TEST_F(CSpoolFileTest, Log_StaysWithinItsBound_WhetherAnybodySettlesOrNot) {
  const std::string strBody(200000, 'b');
  for (const bool bSettle : {true, false}) {
    int64_t i64Most = 0;
    for (int i = 0; i < 100; ++i) {
      Write(strBody);
      if (bSettle)
        m_file.Settle();
      i64Most = std::max(i64Most, Size(m_strFile + "-wal"));
    }
    EXPECT_GT(i64Most, 1 << 20);
    EXPECT_LT(i64Most, 6 << 20);
  }
  EXPECT_GT(Size(m_strFile), 200 * 200000);  // what the log held is in the database
}

TEST_F(CSpoolFileTest, Database_HasTheRoomOfACommitBeforeItIsNeeded) {
  for (int i = 0; i < 20; ++i) {
    Write(std::string(300000, 'c'));
    // Nothing may have reached it yet but the room; its blocks are real.
    struct stat info {};
    ASSERT_EQ(stat(m_strFile.c_str(), &info), 0);
    EXPECT_GE(info.st_size, (i + 1) * 300000);
    EXPECT_GE(info.st_blocks * 512, info.st_size);
    EXPECT_EQ(info.st_size % (1 << 20), 0);
  }
}

TEST(Sqlite, OwnCheckpoint_LeavesTheLogToItsOwner) {
  CTempHome home;
  zxdb::_SqliteOptions options;
  options.bExclusive = true;
  options.iCheckpointPages = 10;
  options.bOwnCheckpoint = true;
  zxdb::CSqlite db;
  ASSERT_TRUE(db.Open(home.Path("own.db").Str(), options)) << db.Error();
  ASSERT_TRUE(db.Exec("CREATE TABLE t(id INTEGER PRIMARY KEY, body BLOB)"));
  const std::string strBody(4096, 'x');
  for (int i = 0; i < 50; ++i)
    ASSERT_TRUE(db.Query("INSERT INTO t(body) VALUES(?)").BindBlob(strBody).Run());
  EXPECT_GT(db.LogPages(), 50);
  ASSERT_TRUE(db.Checkpoint());
  EXPECT_EQ(db.LogPages(), 0);
  ASSERT_TRUE(db.Query("INSERT INTO t(body) VALUES(?)").BindBlob(strBody).Run());
  EXPECT_GT(db.LogPages(), 0);
  EXPECT_LT(db.LogPages(), 50);  // the log has begun anew
}
