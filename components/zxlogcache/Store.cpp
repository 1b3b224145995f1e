#include "Store.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <limits>

using zxdb::CStatement;
using zxdb::EStep;

namespace zxlogcache {
namespace {

constexpr int64_t kSchema = 1;
constexpr int kCheckpointPages = 64;
// What delivered records leave free is given back to the disk, little by little.
constexpr int64_t kFreePages = 256;
constexpr char kShrink[] = "PRAGMA incremental_vacuum(128)";
constexpr char kTables[] =
    "CREATE TABLE IF NOT EXISTS source(id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT UNIQUE NOT NULL,"
    " guid TEXT NOT NULL, product TEXT NOT NULL, combo TEXT NOT NULL, priv INTEGER NOT NULL,"
    " msgtype INTEGER NOT NULL, body INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS chunk(id INTEGER PRIMARY KEY AUTOINCREMENT, source INTEGER NOT NULL,"
    " age INTEGER NOT NULL, wall INTEGER NOT NULL, records INTEGER NOT NULL, bytes INTEGER NOT NULL,"
    " data BLOB NOT NULL);"
    "CREATE INDEX IF NOT EXISTS chunk_of_source ON chunk(source, id);"
    "CREATE TABLE IF NOT EXISTS cache(id INTEGER PRIMARY KEY AUTOINCREMENT, source INTEGER NOT NULL,"
    " first INTEGER NOT NULL, last INTEGER NOT NULL, records INTEGER NOT NULL, bytes INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS file(source INTEGER NOT NULL, path TEXT NOT NULL, device INTEGER NOT NULL,"
    " inode INTEGER NOT NULL, offset INTEGER NOT NULL, head BLOB NOT NULL,"
    " PRIMARY KEY(source, path, device, inode)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS clock(id INTEGER PRIMARY KEY CHECK(id = 1), age INTEGER NOT NULL,"
    " wall INTEGER NOT NULL);"
    "INSERT OR IGNORE INTO clock VALUES(1, 0, 0);";
// Data ids of a new store begin at the time it was made, far from those of any earlier store.
constexpr int kIdsPerMillisecondBits = 10;

constexpr char kOldest[] = "SELECT COALESCE((SELECT age FROM chunk ORDER BY id LIMIT 1), -1)";

// SQLite's numbers are signed; devices and inodes are not.
int64_t Signed(uint64_t u64) {
  return static_cast<int64_t>(u64);
}

}  // namespace

int64_t WallMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

bool CStore::Open(const std::string& strFile, int64_t i64WallMs, std::string& strSetAside) {
  Close();
  strSetAside.clear();
  if (OpenFile(strFile, i64WallMs))
    return true;
  if (m_eFailure != zxdb::EFailure::Damaged)
    return false;
  m_db.Close();
  const std::string strAside = strFile + ".damaged-" + std::to_string(i64WallMs);
  if (rename(strFile.c_str(), strAside.c_str()) != 0)
    return false;
  for (const char* pszSuffix : {"-wal", "-shm"})
    (void)rename((strFile + pszSuffix).c_str(), (strAside + pszSuffix).c_str());
  strSetAside = strAside;
  return OpenFile(strFile, i64WallMs);
}

bool CStore::OpenFile(const std::string& strFile, int64_t i64WallMs) {
  int64_t i64Version = 0;
  // On a full disk it must still be possible to delete: the log of changes is small, its space comes back,
  // and deleted records are not overwritten.
  if (!m_db.Open(strFile, {.bExclusive = true, .iCheckpointPages = kCheckpointPages}) ||
      !m_db.Exec("PRAGMA secure_delete=FAST") || !m_db.Exec("PRAGMA journal_size_limit=1048576") ||
      !Number("PRAGMA user_version", i64Version))
    return Fail();
  if (i64Version == 0) {
    // Takes effect on a file without tables only, and in write-ahead mode only after a rewrite of that file.
    if (!m_db.Exec("PRAGMA auto_vacuum=INCREMENTAL") || !m_db.Exec("VACUUM"))
      return Fail();
    const std::string strSeed = "INSERT INTO sqlite_sequence(name, seq) SELECT 'cache', " +
                                std::to_string(i64WallMs << kIdsPerMillisecondBits) +
                                " WHERE NOT EXISTS(SELECT 1 FROM sqlite_sequence WHERE name = 'cache')";
    if (!m_db.Exec("BEGIN IMMEDIATE") || !m_db.Exec(kTables) || !m_db.Exec(strSeed.c_str()) ||
        !m_db.Exec(("PRAGMA user_version=" + std::to_string(kSchema)).c_str()) || !m_db.Exec("COMMIT"))
      return Fail();
  }
  int64_t i64Age = 0, i64Wall = 0;
  if (!Number("SELECT age FROM clock", i64Age) || !Number("SELECT wall FROM clock", i64Wall) || !Totals())
    return Fail();
  m_i64Now = i64Age + (i64Wall != 0 ? std::max<int64_t>(0, i64WallMs - i64Wall) : 0);
  m_bTicking = false;
  m_bOpen = true;
  return true;
}

bool CStore::Totals() {
  m_held = _Held();
  m_formed.clear();
  int64_t i64Bytes = 0, i64Records = 0;
  if (!Number("SELECT SUM(bytes) FROM chunk", i64Bytes) ||
      !Number("SELECT SUM(records) FROM chunk", i64Records) || !Number(kOldest, m_held.i64OldestAgeMs))
    return Fail();
  m_held.u64Bytes = static_cast<uint64_t>(i64Bytes);
  m_held.u64Records = static_cast<uint64_t>(i64Records);
  CStatement formed = m_db.Query("SELECT source, MAX(last) FROM cache GROUP BY source");
  EStep eStep = formed.Step();
  for (; eStep == EStep::Row; eStep = formed.Step())
    m_formed[formed.Int(0)] = formed.Int(1);
  return eStep == EStep::Done || Fail();
}

bool CStore::Number(const char* pszSql, int64_t& i64Value) {
  bool bOk = false;
  i64Value = m_db.Query(pszSql).Number(0, bOk);
  return bOk;
}

void CStore::Close() {
  if (m_bInside)
    Rollback();
  m_db.Close();
  m_bOpen = false;
}

// Statements that go out of scope behind a failed one wipe out what the engine says about it.
bool CStore::Fail() {
  m_eFailure = m_db.Failure();
  m_strError = m_db.Error();
  return false;
}

bool CStore::Begin() {
  m_before = m_held;
  m_formedBefore = m_formed;
  m_bInside = m_bOpen && m_db.Exec("BEGIN IMMEDIATE");
  return m_bInside || Fail();
}

bool CStore::Commit() {
  {
    CStatement clock = m_db.Query("UPDATE clock SET age = ?, wall = ?");
    if (!clock.Bind(m_i64Now).Bind(m_i64Wall).Run())
      return Fail();
  }
  int64_t i64Free = 0;
  if (!Number("PRAGMA freelist_count", i64Free))
    return Fail();
  if (i64Free > kFreePages && !m_db.Exec(kShrink))
    return Fail();
  if (!Number(kOldest, m_held.i64OldestAgeMs) || !m_db.Exec("COMMIT"))
    return Fail();
  m_bInside = false;
  return true;
}

void CStore::Rollback() {
  if (!m_bInside)
    return;
  m_db.Exec("ROLLBACK");  // fails harmlessly when SQLite has rolled back already
  m_held = m_before;
  m_formed = m_formedBefore;
  m_bInside = false;
}

bool CStore::Register(const _SourceSettings& source, int64_t& i64Source) {
  CStatement put = m_db.Query(
      "INSERT INTO source(name, guid, product, combo, priv, msgtype, body) VALUES(?, ?, ?, ?, ?, ?, ?)"
      " ON CONFLICT(name) DO UPDATE SET guid = excluded.guid, product = excluded.product,"
      " combo = excluded.combo, priv = excluded.priv, msgtype = excluded.msgtype, body = excluded.body");
  put.Bind(source.strName).Bind(source.strGuid).Bind(source.strProduct).Bind(source.strCombo);
  put.Bind(int64_t{source.iPriv}).Bind(int64_t{source.iMsgType}).Bind(static_cast<int64_t>(source.eBody));
  if (!put.Run())
    return Fail();
  bool bOk = false;
  i64Source = m_db.Query("SELECT id FROM source WHERE name = ?").Bind(source.strName).Number(0, bOk);
  return (bOk && i64Source != 0) || Fail();
}

bool CStore::Sources(std::map<int64_t, _SourceSettings>& sources) {
  CStatement all = m_db.Query("SELECT id, name, guid, product, combo, priv, msgtype, body FROM source");
  EStep eStep = all.Step();
  for (; eStep == EStep::Row; eStep = all.Step()) {
    _SourceSettings& source = sources[all.Int(0)];
    source.strName = all.Text(1);
    source.strGuid = all.Text(2);
    source.strProduct = all.Text(3);
    source.strCombo = all.Text(4);
    source.iPriv = static_cast<int>(all.Int(5));
    source.iMsgType = static_cast<int>(all.Int(6));
    source.eBody = static_cast<EBody>(all.Int(7));
  }
  return eStep == EStep::Done || Fail();
}

bool CStore::Append(int64_t i64Source, int64_t i64WallMs, std::string_view chunk, uint32_t uiRecords) {
  CStatement put =
      m_db.Query("INSERT INTO chunk(source, age, wall, records, bytes, data) VALUES(?, ?, ?, ?, ?, ?)");
  put.Bind(i64Source).Bind(m_i64Now).Bind(i64WallMs).Bind(int64_t{uiRecords});
  if (!put.Bind(static_cast<int64_t>(chunk.size())).BindBlob(chunk).Run())
    return Fail();
  m_held.u64Bytes += chunk.size();
  m_held.u64Records += uiRecords;
  return true;
}

bool CStore::Form(int64_t i64Source, uint32_t uiMaxBytes, bool bSingle, int64_t i64Until, _Cache& cache,
                  bool& bFound, int64_t& i64Oldest) {
  bFound = false;
  cache = _Cache();
  bool bFull = false;
  i64Oldest = -1;
  {
    CStatement next =
        m_db.Query("SELECT id, age, records, bytes FROM chunk WHERE source = ? AND id > ? ORDER BY id");
    next.Bind(i64Source).Bind(m_formed[i64Source]);
    EStep eStep = next.Step();
    for (; eStep == EStep::Row && !bFull; eStep = bFull ? eStep : next.Step()) {
      const uint64_t u64Bytes = static_cast<uint64_t>(next.Int(3));
      bFull = cache.i64First != 0 && (bSingle || cache.u64Bytes + u64Bytes > uiMaxBytes);
      if (bFull)
        break;
      if (cache.i64First == 0) {
        cache.i64First = next.Int(0);
        i64Oldest = next.Int(1);
      }
      cache.i64Last = next.Int(0);
      cache.uiRecords += static_cast<uint32_t>(next.Int(2));
      cache.u64Bytes += u64Bytes;
      bFull = bSingle || cache.u64Bytes >= uiMaxBytes;
    }
    if (eStep == EStep::Error)
      return Fail();
  }
  if (cache.i64First == 0 || (!bFull && i64Oldest > i64Until))
    return true;
  CStatement put = m_db.Query("INSERT INTO cache(source, first, last, records, bytes) VALUES(?, ?, ?, ?, ?)");
  put.Bind(i64Source).Bind(cache.i64First).Bind(cache.i64Last);
  if (!put.Bind(int64_t{cache.uiRecords}).Bind(Signed(cache.u64Bytes)).Run())
    return Fail();
  cache.u64DataId = static_cast<uint64_t>(m_db.LastRowId());
  cache.i64Source = i64Source;
  m_formed[i64Source] = cache.i64Last;
  bFound = true;
  return true;
}

bool CStore::Caches(std::vector<_Cache>& caches) {
  CStatement all = m_db.Query("SELECT id, source, first, last, bytes, records FROM cache ORDER BY id");
  EStep eStep = all.Step();
  for (; eStep == EStep::Row; eStep = all.Step())
    caches.push_back({static_cast<uint64_t>(all.Int(0)), all.Int(1), all.Int(2), all.Int(3),
                      static_cast<uint64_t>(all.Int(4)), static_cast<uint32_t>(all.Int(5))});
  return eStep == EStep::Done || Fail();
}

bool CStore::Read(const _Cache& cache, std::string& strChunks, int64_t& i64WallMs) {
  strChunks.clear();
  CStatement all =
      m_db.Query("SELECT wall, data FROM chunk WHERE source = ? AND id BETWEEN ? AND ? ORDER BY id");
  all.Bind(cache.i64Source).Bind(cache.i64First).Bind(cache.i64Last);
  EStep eStep = all.Step();
  for (; eStep == EStep::Row; eStep = all.Step()) {
    if (strChunks.empty())
      i64WallMs = all.Int(0);
    strChunks += all.Text(1);
  }
  return eStep == EStep::Done || Fail();
}

bool CStore::Finish(const _Cache& cache) {
  CStatement chunks = m_db.Query("DELETE FROM chunk WHERE source = ? AND id BETWEEN ? AND ?");
  if (!chunks.Bind(cache.i64Source).Bind(cache.i64First).Bind(cache.i64Last).Run())
    return Fail();
  if (!m_db.Query("DELETE FROM cache WHERE id = ?").Bind(Signed(cache.u64DataId)).Run())
    return Fail();
  m_held.u64Bytes -= std::min(m_held.u64Bytes, cache.u64Bytes);
  m_held.u64Records -= std::min<uint64_t>(m_held.u64Records, cache.uiRecords);
  return true;
}

bool CStore::IsOlder(const _Cache& cache, int64_t i64Before, bool& bOlder) {
  bool bOk = false;
  CStatement last = m_db.Query("SELECT age FROM chunk WHERE id = ?");
  bOlder = last.Bind(cache.i64Last).Number(std::numeric_limits<int64_t>::max(), bOk) < i64Before;
  return bOk || Fail();
}

bool CStore::Drop(uint64_t u64Bytes, int64_t i64Before, uint64_t& u64Records) {
  u64Records = 0;
  std::vector<int64_t> ids;
  uint64_t u64Gone = 0;
  {
    CStatement oldest = m_db.Query(
        "SELECT id, age, records, bytes FROM chunk c WHERE NOT EXISTS"
        "(SELECT 1 FROM cache k WHERE k.source = c.source AND c.id BETWEEN k.first AND k.last) ORDER BY id");
    EStep eStep = oldest.Step();
    for (; eStep == EStep::Row; eStep = oldest.Step()) {
      const bool bOld = i64Before != std::numeric_limits<int64_t>::max() && oldest.Int(1) < i64Before;
      if (!bOld && u64Gone >= u64Bytes)
        break;
      ids.push_back(oldest.Int(0));
      u64Records += static_cast<uint64_t>(oldest.Int(2));
      u64Gone += static_cast<uint64_t>(oldest.Int(3));
    }
    if (eStep == EStep::Error)
      return Fail();
  }
  for (const int64_t i64Id : ids) {
    if (!m_db.Query("DELETE FROM chunk WHERE id = ?").Bind(i64Id).Run())
      return Fail();
  }
  m_held.u64Bytes -= std::min(m_held.u64Bytes, u64Gone);
  m_held.u64Records -= std::min(m_held.u64Records, u64Records);
  return true;
}

bool CStore::Mark(int64_t i64Source, const _FileMark& mark) {
  CStatement put = m_db.Query(
      "INSERT INTO file(source, path, device, inode, offset, head) VALUES(?, ?, ?, ?, ?, ?)"
      " ON CONFLICT DO UPDATE SET offset = excluded.offset, head = excluded.head");
  put.Bind(i64Source).Bind(mark.strPath).Bind(Signed(mark.u64Device)).Bind(Signed(mark.u64Inode));
  return put.Bind(Signed(mark.u64Offset)).BindBlob(mark.strHead).Run() || Fail();
}

bool CStore::Unmark(int64_t i64Source, const _FileMark& mark) {
  CStatement gone = m_db.Query("DELETE FROM file WHERE source = ? AND path = ? AND device = ? AND inode = ?");
  return gone.Bind(i64Source)
      .Bind(mark.strPath)
      .Bind(Signed(mark.u64Device))
      .Bind(Signed(mark.u64Inode))
      .Run();
}

bool CStore::Marks(int64_t i64Source, const std::string& strPath, std::vector<_FileMark>& marks) {
  CStatement all = m_db.Query("SELECT device, inode, offset, head FROM file WHERE source = ? AND path = ?");
  all.Bind(i64Source).Bind(strPath);
  EStep eStep = all.Step();
  for (; eStep == EStep::Row; eStep = all.Step())
    marks.push_back({strPath, static_cast<uint64_t>(all.Int(0)), static_cast<uint64_t>(all.Int(1)),
                     static_cast<uint64_t>(all.Int(2)), all.Text(3)});
  return eStep == EStep::Done || Fail();
}

void CStore::SetClock(int64_t i64WallMs, uint64_t u64Ticks) {
  if (m_bTicking)
    m_i64Now += static_cast<int64_t>(u64Ticks - m_u64Ticks);
  m_bTicking = true;
  m_u64Ticks = u64Ticks;
  m_i64Wall = i64WallMs;
}

_Held CStore::Held() const {
  _Held held = m_held;
  if (held.i64OldestAgeMs >= 0)
    held.i64OldestAgeMs = std::max<int64_t>(0, m_i64Now - held.i64OldestAgeMs);
  return held;
}

}  // namespace zxlogcache
