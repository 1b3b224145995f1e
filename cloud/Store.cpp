#include "Store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "CloudLog.h"
#include "CloudText.h"
#include "platform/os/ZxThread.h"

namespace zxcloudd {

namespace {

constexpr size_t kGroupMax = 64;
constexpr int kSchemaVersion = 2;

constexpr const char* kSchema = R"(
CREATE TABLE agents(
  mid TEXT PRIMARY KEY, m2 TEXT NOT NULL DEFAULT '', channel TEXT NOT NULL DEFAULT '',
  platform INTEGER NOT NULL DEFAULT 0, local_ip TEXT NOT NULL DEFAULT '', version TEXT NOT NULL DEFAULT '',
  first_seen INTEGER NOT NULL, last_seen INTEGER NOT NULL,
  last_tconf INTEGER NOT NULL DEFAULT 0, last_poll INTEGER NOT NULL DEFAULT 0,
  online INTEGER NOT NULL DEFAULT 0, online_since INTEGER NOT NULL DEFAULT 0,
  uploads INTEGER NOT NULL DEFAULT 0, repeats INTEGER NOT NULL DEFAULT 0,
  kept INTEGER NOT NULL DEFAULT 0, kept_bytes INTEGER NOT NULL DEFAULT 0) WITHOUT ROWID;
CREATE INDEX agents_online ON agents(online) WHERE online = 1;
CREATE TABLE commands(
  seq INTEGER PRIMARY KEY AUTOINCREMENT, id TEXT NOT NULL, mid TEXT NOT NULL, pcid INTEGER NOT NULL,
  command TEXT NOT NULL, body TEXT NOT NULL, via TEXT NOT NULL, state TEXT NOT NULL,
  created INTEGER NOT NULL, offers INTEGER NOT NULL DEFAULT 0, next_offer INTEGER NOT NULL DEFAULT 0,
  finished INTEGER NOT NULL DEFAULT 0, msg_type INTEGER NOT NULL DEFAULT -1,
  events INTEGER NOT NULL DEFAULT 0, UNIQUE(mid, id));
CREATE INDEX commands_id ON commands(id);
CREATE INDEX commands_state ON commands(state, mid, seq);
CREATE INDEX commands_mid ON commands(mid, state, seq);
CREATE TABLE events(
  command INTEGER NOT NULL REFERENCES commands(seq) ON DELETE CASCADE, at INTEGER NOT NULL,
  kind TEXT NOT NULL, detail TEXT NOT NULL);
CREATE INDEX events_command ON events(command);
CREATE TABLE uploads(
  seq INTEGER PRIMARY KEY AUTOINCREMENT, mid TEXT NOT NULL, n INTEGER NOT NULL, message_id TEXT NOT NULL,
  priority INTEGER NOT NULL, via TEXT NOT NULL, kind TEXT NOT NULL, product TEXT NOT NULL,
  combo TEXT NOT NULL, received INTEGER NOT NULL, size INTEGER NOT NULL, body BLOB,
  UNIQUE(mid, message_id));
CREATE UNIQUE INDEX uploads_n ON uploads(mid, n);
CREATE INDEX uploads_kept ON uploads(mid, n) WHERE body IS NOT NULL;
)";

// Bodies move to a table of their own, whose pages come back when the oldest are dropped; listing uploads
// does not read them any more. What an upload is about stands beside it.
constexpr const char* kBodiesApart = R"(
CREATE TABLE bodies(seq INTEGER PRIMARY KEY, body BLOB NOT NULL);
INSERT INTO bodies SELECT seq, body FROM uploads WHERE body IS NOT NULL;
DROP INDEX uploads_kept;
ALTER TABLE uploads RENAME COLUMN kind TO type;
ALTER TABLE uploads ADD COLUMN kind TEXT NOT NULL DEFAULT 'data';
ALTER TABLE uploads ADD COLUMN about TEXT NOT NULL DEFAULT '';
ALTER TABLE uploads ADD COLUMN outcome TEXT NOT NULL DEFAULT '';
ALTER TABLE uploads ADD COLUMN kept INTEGER NOT NULL DEFAULT 0;
UPDATE uploads SET kept = 1 WHERE body IS NOT NULL;
ALTER TABLE uploads DROP COLUMN body;
CREATE INDEX uploads_kept ON uploads(mid, n) WHERE kept = 1;
CREATE INDEX uploads_ids ON uploads(received) WHERE kept = 0;
CREATE INDEX uploads_kind ON uploads(kind, seq);
)";

// Each step brings a database of the version before to its own.
constexpr const char* kUpgrades[] = {
    kSchema,
    kBodiesApart,
};

}  // namespace

CStore::~CStore() {
  Close();
}

bool CStore::Open(const std::string& strDir, std::string& strError) {
  if (mkdir(strDir.c_str(), 0700) != 0 && errno != EEXIST) {
    strError = strDir + ": " + ErrnoText(errno);
    return false;
  }
  m_iLockFd = open((strDir + "/zxcloudd.lock").c_str(), O_CREAT | O_RDWR | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (m_iLockFd < 0 || flock(m_iLockFd, LOCK_EX | LOCK_NB) != 0) {
    strError = strDir + (errno == EWOULDBLOCK ? " is in use by another zxcloudd"
                                              : std::string("/zxcloudd.lock: ") + ErrnoText(errno));
    Close();
    return false;
  }
  const std::string strFile = strDir + "/zxcloudd.db";
  if (!m_db.Open(strFile) || !CreateSchema(strError)) {
    strError = strFile + ": " + (strError.empty() ? m_db.Error() : strError);
    Close();
    return false;
  }
  m_hWork = ZxCreateEvent();
  {
    CCritLock lock(m_csQueue);
    m_bClosed = false;
  }
  m_bHealthy = true;
  m_thread = std::thread(&CStore::Loop, this);
  return true;
}

bool CStore::SetMaxBytes(int64_t i64Bytes) {
  return Run([i64Bytes](CSqlite& db) {
    bool bOk = false;
    const int64_t i64Page = db.Query("PRAGMA page_size").Number(4096, bOk);
    return bOk && db.Exec(("PRAGMA max_page_count=" + std::to_string(i64Bytes / i64Page)).c_str());
  });
}

bool CStore::CreateSchema(std::string& strError) {
  int64_t i64Version = 0;
  bool bOk = false;
  {
    CStatement version = m_db.Query("PRAGMA user_version");
    i64Version = version.Number(0, bOk);
  }
  if (!bOk)
    return false;
  if (i64Version > kSchemaVersion) {
    strError = "was written by a newer zxcloudd";
    return false;
  }
  if (i64Version == kSchemaVersion)
    return true;
  bOk = m_db.Exec("BEGIN IMMEDIATE");
  for (int64_t i64 = i64Version; bOk && i64 < kSchemaVersion; ++i64)
    bOk = m_db.Exec(kUpgrades[i64]);
  return bOk && m_db.Exec(("PRAGMA user_version=" + std::to_string(kSchemaVersion)).c_str()) &&
         m_db.Exec("COMMIT");
}

void CStore::Close() {
  {
    CCritLock lock(m_csQueue);
    m_bClosed = true;
  }
  if (m_thread.joinable()) {
    ZxSetEvent(m_hWork);
    m_thread.join();
  }
  ZxDestroyEvent(m_hWork);
  m_hWork = nullptr;
  m_db.Close();
  if (m_iLockFd >= 0)
    close(m_iLockFd);
  m_iLockFd = -1;
  m_bHealthy = false;
}

bool CStore::Run(const TJob& job) {
  _Job entry{&job, ZxCreateEvent()};
  if (entry.hDone == nullptr)
    return false;
  bool bQueued = false;
  {
    CCritLock lock(m_csQueue);
    if (!m_bClosed) {
      m_listQueue.push_back(&entry);
      bQueued = true;
    }
  }
  if (bQueued) {
    ZxSetEvent(m_hWork);
    ZxWaitEvent(entry.hDone);
  }
  ZxDestroyEvent(entry.hDone);
  return entry.bResult;
}

void CStore::Loop() {
  ZxSetThreadName("zxcloudstore");
  for (bool bClosed = false; !bClosed;) {
    ZxWaitEvent(m_hWork);
    for (std::deque<_Job*> listJobs;; listJobs.clear()) {
      {
        CCritLock lock(m_csQueue);
        while (!m_listQueue.empty() && listJobs.size() < kGroupMax) {
          listJobs.push_back(m_listQueue.front());
          m_listQueue.pop_front();
        }
        bClosed = m_bClosed;
      }
      if (listJobs.empty())
        break;
      RunGroup(listJobs);
    }
  }
}

void CStore::RunGroup(const std::deque<_Job*>& listJobs) {
  std::string strError;
  const int64_t i64Before = m_db.TotalChanges();
  bool bOk = m_db.Exec("BEGIN IMMEDIATE");
  for (_Job* pJob : listJobs)
    bOk = bOk && RunOne(*pJob, strError);
  bOk = bOk && m_db.Exec("COMMIT");
  if (!bOk) {
    strError = m_db.Error();
    m_db.Exec("ROLLBACK");
  }
  // Reading proves nothing about the disk.
  const bool bHealthy = strError.empty() && (m_bHealthy || m_db.TotalChanges() != i64Before);
  if (m_bHealthy.exchange(bHealthy) != bHealthy) {
    if (bHealthy)
      LogInfoTo(CloudLog(), "zxcloudd store works again");
    else
      LogErrorTo(CloudLog(), "**zxcloudd store failed, what it refuses comes again error[%s]", strError);
  }
  for (_Job* pJob : listJobs) {
    pJob->bResult = pJob->bResult && bOk;
    ZxSetEvent(pJob->hDone);
  }
}

// False when the transaction itself is broken; a job that fails alone is undone alone and leaves strError.
bool CStore::RunOne(_Job& job, std::string& strError) {
  if (!m_db.Exec("SAVEPOINT job"))
    return false;
  try {
    job.bResult = (*job.pJob)(m_db);
    if (!job.bResult)
      strError = m_db.Error();
  } catch (const std::exception& e) {
    job.bResult = false;
    strError = e.what();
  }
  if (!job.bResult && !m_db.Exec("ROLLBACK TO job"))
    return false;
  return m_db.Exec("RELEASE job");
}

}  // namespace zxcloudd
