#include "cloud/Store.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "CloudFixture.h"

namespace zxcloudd {
namespace {

int64_t Count(CStore& store, const char* pszSql) {
  int64_t i64 = -1;
  store.Run([&](CSqlite& db) {
    bool bOk = false;
    i64 = db.Query(pszSql).Number(-1, bOk);
    return bOk;
  });
  return i64;
}

class CStore_ : public CStoreTest {};

TEST_F(CStore_, FilesArePrivate) {
  EXPECT_EQ(m_home.Mode("state"), 0700u);
  EXPECT_EQ(m_home.Mode("state/zxcloudd.db"), 0600u);
}

TEST_F(CStore_, Open_RefusesASecondDaemon) {
  CStore other;
  std::string strError;
  EXPECT_FALSE(other.Open(StateDir(), strError));
  EXPECT_THAT(strError, testing::HasSubstr("in use"));
}

TEST_F(CStore_, Open_NamesADirectoryThatCannotBeMade) {
  CStore other;
  std::string strError;
  EXPECT_FALSE(other.Open(m_home.Path("none/deep").Str(), strError));
  EXPECT_THAT(strError, testing::HasSubstr("No such file"));
}

TEST_F(CStore_, Open_RefusesAFileThatIsNoDatabase) {
  m_pStore->Close();
  m_home.Remove("state/zxcloudd.db-wal");
  m_home.WriteFile("state/zxcloudd.db", CPString(std::string(8192, 'x')));
  CStore other;
  std::string strError;
  EXPECT_FALSE(other.Open(StateDir(), strError));
  EXPECT_THAT(strError, testing::HasSubstr("not a database"));
}

TEST_F(CStore_, Open_RefusesANewerSchema) {
  ASSERT_TRUE(Run([](CSqlite& db) { return db.Exec("PRAGMA user_version=99"); }));
  m_pStore->Close();
  CStore other;
  std::string strError;
  EXPECT_FALSE(other.Open(StateDir(), strError));
  EXPECT_THAT(strError, testing::HasSubstr("newer"));
}

// A database as version 1 wrote it, with one body kept and one dropped.
TEST_F(CStore_, Open_TakesOverTheUploadsOfVersionOne) {
  m_pStore->Close();
  for (const char* psz : {"state/zxcloudd.db", "state/zxcloudd.db-wal", "state/zxcloudd.db-shm"})
    m_home.Remove(psz);
  {
    CSqlite db;
    ASSERT_TRUE(db.Open(StateDir() + "/zxcloudd.db"));
    ASSERT_TRUE(db.Exec(
        "CREATE TABLE agents(mid TEXT PRIMARY KEY, m2 TEXT NOT NULL DEFAULT '', channel TEXT NOT NULL DEFAULT '', "
        "platform INTEGER NOT NULL DEFAULT 0, local_ip TEXT NOT NULL DEFAULT '', version TEXT NOT NULL DEFAULT '', "
        "first_seen INTEGER NOT NULL, last_seen INTEGER NOT NULL, last_tconf INTEGER NOT NULL DEFAULT 0, last_poll "
        "INTEGER NOT NULL DEFAULT 0, online INTEGER NOT NULL DEFAULT 0, online_since INTEGER NOT NULL DEFAULT 0, "
        "uploads INTEGER NOT NULL DEFAULT 0, repeats INTEGER NOT NULL DEFAULT 0, kept INTEGER NOT NULL DEFAULT 0, "
        "kept_bytes INTEGER NOT NULL DEFAULT 0) WITHOUT ROWID;"
        "CREATE TABLE uploads(seq INTEGER PRIMARY KEY AUTOINCREMENT, mid TEXT NOT NULL, n INTEGER NOT NULL, "
        "message_id TEXT NOT NULL, priority INTEGER NOT NULL, via TEXT NOT NULL, kind TEXT NOT NULL, product TEXT "
        "NOT NULL, combo TEXT NOT NULL, received INTEGER NOT NULL, size INTEGER NOT NULL, body BLOB, UNIQUE(mid, "
        "message_id));"
        "CREATE UNIQUE INDEX uploads_n ON uploads(mid, n);"
        "CREATE INDEX uploads_kept ON uploads(mid, n) WHERE body IS NOT NULL;"
        "INSERT INTO agents(mid, first_seen, last_seen, uploads, kept, kept_bytes) VALUES('m', 1, 1, 2, 1, 4);"
        "INSERT INTO uploads VALUES(1, 'm', 1, 'a', 2, 'mqtt', 'plugin', 'p', 'c', 5, 3, NULL);"
        "INSERT INTO uploads VALUES(2, 'm', 2, 'b', 2, 'mqtt', 'server', 'p', 'c', 6, 4, 'body');"
        "PRAGMA user_version=1"));
  }
  ASSERT_NO_FATAL_FAILURE(Reopen());
  std::vector<_UploadRow> listUploads;
  _UploadFilter filter;
  filter.i64BodyMax = 100;
  ASSERT_TRUE(Run([&](CSqlite& db) { return CUploadTable::List(db, filter, listUploads); }));
  ASSERT_EQ(listUploads.size(), 2u);
  EXPECT_FALSE(listUploads[0].bKept);
  EXPECT_EQ(listUploads[0].strMessageId, "a");
  EXPECT_EQ(listUploads[1].strType, "server");
  EXPECT_EQ(listUploads[1].strKind, "data");
  EXPECT_EQ(listUploads[1].strBody, "body");
}

TEST_F(CStore_, SetMaxBytes_MakesCommitsFail_AsOnAFullDisk) {
  ASSERT_TRUE(m_pStore->SetMaxBytes(1 << 20));
  const std::string strBig(2 << 20, 'x');
  EXPECT_FALSE(Run([&](CSqlite& db) { return db.Query("UPDATE agents SET version=?").Bind(strBig).Run(); }));
  EXPECT_FALSE(m_pStore->Healthy());
  ASSERT_TRUE(m_pStore->SetMaxBytes(64 << 20));
  EXPECT_TRUE(Run([&](CSqlite& db) { return db.Query("UPDATE agents SET version=?").Bind(strBig).Run(); }));
}

TEST_F(CStore_, Run_FailedJobLeavesNothing_OthersOfTheGroupStay) {
  std::vector<std::thread> listThreads;
  std::atomic<int> iDone{0};
  for (int i = 0; i < 32; ++i) {
    listThreads.emplace_back([&, i] {
      const std::string strMid = "m" + std::to_string(i);
      const bool bGood = i % 2 == 0;
      const bool bResult = Run([&](CSqlite& db) {
        bool bFull = false;
        return CAgentTable::Seen(db, strMid, 1, 1000, bFull) && bGood;
      });
      EXPECT_EQ(bResult, bGood);
      iDone += bResult ? 1 : 0;
    });
  }
  for (std::thread& thread : listThreads)
    thread.join();
  EXPECT_EQ(iDone, 16);
  EXPECT_EQ(Count(*m_pStore, "SELECT COUNT(*) FROM agents WHERE mid LIKE 'm%'"), 16);
}

TEST_F(CStore_, Run_ExceptionInAJobIsAFailure) {
  EXPECT_FALSE(Run([](CSqlite&) -> bool { throw std::runtime_error("x"); }));
  EXPECT_FALSE(m_pStore->Healthy());
  EXPECT_EQ(Count(*m_pStore, "SELECT COUNT(*) FROM agents"), 1);
  EXPECT_FALSE(m_pStore->Healthy()) << "reading proves nothing";
  EXPECT_TRUE(Run([](CSqlite& db) { return db.Exec("UPDATE agents SET last_seen = 5"); }));
  EXPECT_TRUE(m_pStore->Healthy());
}

TEST_F(CStore_, Run_AfterCloseFails) {
  m_pStore->Close();
  EXPECT_FALSE(Run([](CSqlite&) { return true; }));
  EXPECT_FALSE(m_pStore->Healthy());
}

TEST_F(CStore_, Healthy_IsFalseWhileCommitsFail_AndRecovers) {
  // The database may not grow any more: SQLite answers as on a full disk.
  ASSERT_TRUE(Run([](CSqlite& db) {
    bool bOk = false;
    const int64_t i64Pages = db.Query("PRAGMA page_count").Number(0, bOk);
    return bOk &&
           db.Query(("PRAGMA max_page_count=" + std::to_string(i64Pages)).c_str()).Step() == EStep::Row;
  }));
  const std::string strBig(200000, 'x');
  const auto write = [&](CSqlite& db) {
    return db.Query("UPDATE agents SET version=? WHERE mid=?").Bind(strBig).Bind(kMid).Run();
  };
  EXPECT_FALSE(Run(write));
  EXPECT_FALSE(m_pStore->Healthy());
  ASSERT_TRUE(
      Run([](CSqlite& db) { return db.Query("PRAGMA max_page_count=1000000").Step() == EStep::Row; }));
  EXPECT_TRUE(Run(write));
  EXPECT_TRUE(m_pStore->Healthy());
}

TEST_F(CStore_, Reopen_KeepsWhatWasCommitted) {
  Reopen();
  EXPECT_EQ(Count(*m_pStore, "SELECT COUNT(*) FROM agents"), 1);
}

// A child commits one agent after the other and says so on a pipe, until it is killed with -9; everything it
// said must be there.
TEST_F(CStore_, Kill_LosesNothingThatWasCommitted) {
  m_pStore->Close();
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t iChild = fork();
  ASSERT_GE(iChild, 0);
  if (iChild == 0) {
    CStore store;
    std::string strError;
    if (!store.Open(StateDir(), strError))
      _exit(1);
    for (int i = 0;; ++i) {
      const bool bDone = store.Run([&](CSqlite& db) {
        bool bFull = false;
        return CAgentTable::Seen(db, "k" + std::to_string(i), 1, 1000000, bFull);
      });
      if (!bDone || write(fds[1], &i, sizeof(i)) != sizeof(i))
        _exit(1);
    }
  }
  close(fds[1]);
  int iLast = -1;
  while (iLast < 50 && read(fds[0], &iLast, sizeof(iLast)) == sizeof(iLast)) {
  }
  kill(iChild, SIGKILL);
  while (read(fds[0], &iLast, sizeof(iLast)) == sizeof(iLast)) {
  }
  close(fds[0]);
  int iStatus = 0;
  ASSERT_EQ(waitpid(iChild, &iStatus, 0), iChild);
  ASSERT_TRUE(WIFSIGNALED(iStatus));
  Reopen();
  EXPECT_GE(Count(*m_pStore, "SELECT COUNT(*) FROM agents WHERE mid LIKE 'k%'"), iLast + 1);
}

}  // namespace
}  // namespace zxcloudd
