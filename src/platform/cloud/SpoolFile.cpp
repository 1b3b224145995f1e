#include "platform/cloud/SpoolFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "platform/cloud/SpoolWal.h"

namespace zxcloud {

namespace {

using zxdb::CStatement;
using zxdb::EFailure;
using zxdb::EStep;

constexpr int kCacheKb = 1024;
constexpr int kCheckpointPages = 1000;
constexpr int kGrowBytes = 1 << 20;
constexpr int64_t kLogReserveBytes = int64_t{kCheckpointPages} * (kSpoolPageBytes + 24) + (2 << 20);
constexpr int64_t kTrimPages = 1024;      // fewer free pages are kept for the next records
constexpr size_t kRecordPageShare = 512;  // what a record costs on its page beside its text, at most

constexpr const char* kSchema =
    "CREATE TABLE outbox(id INTEGER PRIMARY KEY, priority INTEGER NOT NULL, created INTEGER NOT NULL,"
    " msgid TEXT NOT NULL, sum INTEGER NOT NULL, body BLOB NOT NULL);"
    "CREATE TABLE state(id INTEGER PRIMARY KEY, waiting INTEGER NOT NULL, floor INTEGER NOT NULL,"
    " generation INTEGER NOT NULL, sum INTEGER NOT NULL);"
    "PRAGMA user_version=1;";
constexpr const char* kInsert = "INSERT INTO outbox(id,priority,created,msgid,sum,body) VALUES(?,?,?,?,?,?)";

_SpoolRow RowOf(const CStatement& row) {
  return {static_cast<uint64_t>(row.Int(0)), static_cast<int>(row.Int(1)), static_cast<uint32_t>(row.Int(2)),
          row.View(3), row.View(5)};
}

bool Sound(const CStatement& row) {
  const int64_t i64Priority = row.Int(1);
  return i64Priority >= 0 && i64Priority <= 13 && PriorityIndex(static_cast<int>(i64Priority)) >= 0 &&
         SpoolSum(RowOf(row)) == row.Int(4);
}

// What SQLite has to find in the fixed part of a file of ours. What it cannot handle there it calls by other
// names than damage: "readonly" for a format of a later version, "unsupported file format", and so on.
bool HeaderDamaged(const std::string& strFile) {
  constexpr size_t kHeader = 100;
  constexpr std::string_view kMagic("SQLite format 3", 16);  // with its NUL
  constexpr std::string_view kFractions("\0\x40\x20\x20", 4);
  char header[kHeader];
  const CFileBytes file(strFile);
  if (file.Size() < kHeader || !file.Read(0, header, kHeader))
    return false;
  const std::string_view sv(header, kHeader);
  const auto Big32 = [&](size_t uAt) {
    uint32_t u = 0;
    for (size_t i = 0; i < 4; ++i)
      u = u << 8 | static_cast<unsigned char>(sv[uAt + i]);
    return u;
  };
  const size_t uPage = Big32(14) & 0xffff;
  return sv.substr(0, kMagic.size()) != kMagic || uPage != kSpoolPageBytes || sv[18] > 2 || sv[18] < 1 ||
         sv[19] > 2 || sv[19] < 1 || sv.substr(20, kFractions.size()) != kFractions || Big32(44) > 4 ||
         Big32(56) > 1;
}

}  // namespace

ESpoolResult CSpoolFile::Fail(const char* pszWhat) {
  const EFailure eFailure = m_db.Failure();
  m_strReason = std::string(pszWhat) + ": " + m_db.Error() + " (" + std::to_string(m_db.Code()) + ")";
  if (eFailure == EFailure::Full)
    return ESpoolResult::Full;
  return eFailure == EFailure::Damaged ? ESpoolResult::Damaged : ESpoolResult::Failed;
}

ESpoolResult CSpoolFile::Open(bool bFull, TFound& listFound) {
  listFound.clear();
  {
    const CFileBytes log(m_strFile + "-wal");
    if (ReadWal(log).Broken()) {
      m_strReason = "log file damaged";
      return ESpoolResult::Damaged;
    }
  }
  ESpoolResult eResult = OpenChecked(bFull, listFound);
  if (eResult == ESpoolResult::Failed && m_db.Failure() == EFailure::Other && HeaderDamaged(m_strFile)) {
    m_strReason.insert(0, "file header damaged, ");
    eResult = ESpoolResult::Damaged;
  }
  m_bOpen = eResult == ESpoolResult::Ok;
  if (!m_bOpen)
    m_db.Close(eResult == ESpoolResult::Damaged);
  return eResult;
}

ESpoolResult CSpoolFile::OpenChecked(bool bFull, TFound& listFound) {
  m_state = {};
  m_u64NewestRow = 0;
  m_bLogReserved = false;
  zxdb::_SqliteOptions options;
  options.bFull = bFull;
  options.bExclusive = true;
  options.bGiveBack = true;
  options.bKeepWal = true;
  options.bErase = false;
  options.bSpill = false;
  options.iCacheKb = kCacheKb;
  options.iCheckpointPages = kCheckpointPages;
  options.bOwnCheckpoint = true;
  if (!m_db.Open(m_strFile, options))
    return Fail("open");
  if (chmod(m_strFile.c_str(), 0600) != 0 && access(m_strFile.c_str(), W_OK) != 0) {
    m_strReason = "not writable";
    return ESpoolResult::Failed;
  }
  ESpoolResult eResult = Schema();
  if (eResult == ESpoolResult::Ok)
    eResult = Scan(listFound);
  // Proves that it can be written, and makes the log file.
  if (eResult == ESpoolResult::Ok)
    eResult = Commit({}, {});
  return eResult;
}

ESpoolResult CSpoolFile::Schema() {
  int64_t i64Version = 0;
  int64_t i64Tables = 0;
  if (!Number("PRAGMA user_version", i64Version) || !Number("SELECT count(*) FROM sqlite_master", i64Tables))
    return Fail("schema");
  if (i64Version == 0 && i64Tables == 0) {
    if (m_db.Exec("BEGIN IMMEDIATE") && m_db.Exec(kSchema) && WriteState({0, 1, 1}) && m_db.Exec("COMMIT"))
      return ESpoolResult::Ok;
    return Undo("create");
  }
  if (i64Version == kSpoolSchemaVersion)
    return ESpoolResult::Ok;
  m_strReason = "version " + std::to_string(i64Version) + " is not known";
  return ESpoolResult::Damaged;
}

ESpoolResult CSpoolFile::Scan(TFound& listFound) {
  {
    CStatement state = m_db.Query("SELECT waiting,floor,generation,sum FROM state WHERE id=1");
    const EStep eStep = state.Step();
    if (eStep == EStep::Error)
      return Fail("state");
    if (eStep == EStep::Row)
      m_state = {static_cast<uint64_t>(state.Int(0)), static_cast<uint64_t>(state.Int(1)),
                 static_cast<uint64_t>(state.Int(2))};
    if (eStep != EStep::Row || SpoolSum(m_state) != state.Int(3)) {
      m_strReason = "state damaged";
      return ESpoolResult::Damaged;
    }
  }
  CStatement rows = m_db.Query("SELECT id,priority,created,msgid,sum,body FROM outbox ORDER BY id");
  size_t uBad = 0;
  m_u64NewestRow = m_state.u64Floor - 1;
  EStep eStep = EStep::Done;
  while ((eStep = rows.Step()) == EStep::Row) {
    if (!Sound(rows)) {
      ++uBad;
      continue;
    }
    const _SpoolRow row = RowOf(rows);
    const size_t uWire = row.svId.size() + row.svBody.size() + 5;
    listFound.emplace_back(SpoolQueue(PriorityIndex(row.iPriority), LaneOf(row.svBody.size())),
                           _SpoolEntry{row.u64Row, static_cast<uint32_t>(uWire), row.uCreatedSec});
    m_u64NewestRow = std::max(m_u64NewestRow, row.u64Row);
  }
  if (eStep == EStep::Error)
    return Fail("read");
  if (uBad == 0 && listFound.size() == m_state.u64Waiting)
    return CheckPages();
  m_strReason = "records expected " + std::to_string(m_state.u64Waiting) + ", sound " +
                std::to_string(listFound.size()) + ", damaged " + std::to_string(uBad);
  return ESpoolResult::Damaged;
}

// A damaged list of free pages shows in no row, and sends the next records over those that are there.
ESpoolResult CSpoolFile::CheckPages() {
  CStatement check = m_db.Query("PRAGMA quick_check(1)");
  if (check.Step() != EStep::Row)
    return Fail("check");
  if (check.View(0) == "ok")
    return ESpoolResult::Ok;
  m_strReason = "pages: " + std::string(check.View(0));
  std::replace(m_strReason.begin(), m_strReason.end(), '\n', ' ');
  return ESpoolResult::Damaged;
}

void CSpoolFile::Close() {
  m_db.Close();
  m_bOpen = false;
}

void CSpoolFile::CloseDamaged() {
  m_db.Close(true);
  m_bOpen = false;
}

bool CSpoolFile::Number(const char* pszSql, int64_t& i64Value) {
  bool bOk = false;
  i64Value = m_db.Query(pszSql).Number(0, bOk);
  return bOk;
}

// The room that this commit may need in the database file, before it is written: moving the log into it can
// then not fail for want of room.
bool CSpoolFile::MakeRoom(const std::vector<_SpoolInsert>& listInserts) {
  int64_t i64Pages = 0;
  int64_t i64Free = 0;
  if (!Number("PRAGMA page_count", i64Pages) || !Number("PRAGMA freelist_count", i64Free))
    return false;
  int64_t i64Need = (i64Pages - i64Free + 16) * kSpoolPageBytes;
  for (const _SpoolInsert& insert : listInserts) {
    const size_t uBytes = insert.row.svBody.size() + kRecordPageShare;
    i64Need += static_cast<int64_t>(uBytes > kSpoolPageBytes / 3 ? uBytes + kSpoolPageBytes : uBytes * 3 / 2);
  }
  return m_db.GrowTo(i64Need, kGrowBytes);
}

// The log file keeps blocks for what a checkpoint and a few deletes need. A file system that cannot reserve
// goes without.
void CSpoolFile::ReserveLog() {
  const int fd = open((m_strFile + "-wal").c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0)
    return;
  m_bLogReserved = fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, kLogReserveBytes) == 0;
  close(fd);
}

bool CSpoolFile::Insert(const std::vector<_SpoolInsert>& listInserts) {
  if (listInserts.empty())
    return true;
  CStatement insert = m_db.Query(kInsert);
  for (const _SpoolInsert& one : listInserts) {
    insert.Again();
    insert.Bind(static_cast<int64_t>(one.row.u64Row))
        .Bind(int64_t{one.row.iPriority})
        .Bind(int64_t{one.row.uCreatedSec})
        .Bind(one.row.svId)
        .Bind(one.i64Sum)
        .BindBlobUncopied(one.row.svBody);
    if (!insert.Run())
      return false;
  }
  return true;
}

// Rows leave in the order in which they came for the most part, so runs are deleted as one.
bool CSpoolFile::Delete(std::vector<uint64_t>& listDeletes, uint64_t& u64Deleted) {
  std::sort(listDeletes.begin(), listDeletes.end());
  u64Deleted = 0;
  for (size_t u = 0; u < listDeletes.size();) {
    size_t uEnd = u + 1;
    while (uEnd < listDeletes.size() && listDeletes[uEnd] <= listDeletes[uEnd - 1] + 1)
      ++uEnd;
    CStatement run = m_db.Query("DELETE FROM outbox WHERE id BETWEEN ? AND ?");
    run.Bind(static_cast<int64_t>(listDeletes[u])).Bind(static_cast<int64_t>(listDeletes[uEnd - 1]));
    if (!run.Run())
      return false;
    u64Deleted += static_cast<uint64_t>(m_db.Changes());
    u = uEnd;
  }
  return true;
}

bool CSpoolFile::WriteState(const _SpoolStateRow& state) {
  const std::optional<int64_t> sum = SpoolSum(state);
  CStatement write =
      m_db.Query("INSERT OR REPLACE INTO state(id,waiting,floor,generation,sum) VALUES(1,?,?,?,?)");
  write.Bind(static_cast<int64_t>(state.u64Waiting))
      .Bind(static_cast<int64_t>(state.u64Floor))
      .Bind(static_cast<int64_t>(state.u64Generation))
      .Bind(sum.value_or(0));
  return sum.has_value() && write.Run();
}

ESpoolResult CSpoolFile::Write(const std::vector<_SpoolInsert>& listInserts,
                               std::vector<uint64_t>& listDeletes) {
  _SpoolStateRow state = m_state;
  uint64_t u64Newest = m_u64NewestRow;
  for (const _SpoolInsert& one : listInserts)
    u64Newest = std::max(u64Newest, one.row.u64Row);
  uint64_t u64Deleted = 0;
  int64_t i64Oldest = 0;
  Settle();
  if ((!listInserts.empty() && !MakeRoom(listInserts)) || !m_db.Query("BEGIN IMMEDIATE").Run())
    return Undo("begin");
  if (!Insert(listInserts) || !Delete(listDeletes, u64Deleted) ||
      !Number("SELECT min(id) FROM outbox", i64Oldest))
    return Undo("write");
  state.u64Waiting += listInserts.size() - std::min(u64Deleted, state.u64Waiting + listInserts.size());
  state.u64Floor = i64Oldest != 0 ? static_cast<uint64_t>(i64Oldest) : u64Newest + 1;
  ++state.u64Generation;
  if (!WriteState(state) || !m_db.Query("COMMIT").Run())
    return Undo("commit");
  m_state = state;
  m_u64NewestRow = u64Newest;
  if (!m_bLogReserved)
    ReserveLog();
  return ESpoolResult::Ok;
}

ESpoolResult CSpoolFile::Commit(const std::vector<_SpoolInsert>& listInserts,
                                std::vector<uint64_t> listDeletes) {
  return Write(listInserts, listDeletes);
}

// One that fails leaves everything in the log, where it is as safe; the next commit tells that the log is
// long.
void CSpoolFile::Settle() {
  if (m_db.LogPages() >= kCheckpointPages)
    m_db.Checkpoint();
}

// Nothing of a failed transaction may stay in the log where it could be taken for one: the log begins anew.
ESpoolResult CSpoolFile::Undo(const char* pszWhat) {
  const ESpoolResult eResult = Fail(pszWhat);
  if (m_db.InTransaction())
    m_db.Exec("ROLLBACK");
  if (eResult != ESpoolResult::Full)
    return eResult;
  CStatement restart = m_db.Query("PRAGMA wal_checkpoint(RESTART)");
  const bool bDone = restart.Step() == EStep::Row && restart.Int(0) == 0;
  return bDone ? ESpoolResult::Full : ESpoolResult::Failed;
}

ESpoolResult CSpoolFile::Read(uint64_t u64Row, TOutItem& pItem) {
  pItem.reset();
  CStatement row = m_db.Query("SELECT id,priority,created,msgid,sum,body FROM outbox WHERE id=?");
  row.Bind(static_cast<int64_t>(u64Row));
  const EStep eStep = row.Step();
  if (eStep == EStep::Error)
    return Fail("read");
  if (eStep == EStep::Row && Sound(row)) {
    const _SpoolRow found = RowOf(row);
    pItem = MakeOutItem(kSpoolBit | u64Row, found.iPriority, std::string(found.svId), found.svBody);
  }
  return ESpoolResult::Ok;
}

void CSpoolFile::Trim() {
  int64_t i64Free = 0;
  if (Number("PRAGMA freelist_count", i64Free) && i64Free > kTrimPages) {
    m_db.Exec("PRAGMA incremental_vacuum");
    m_db.Exec("PRAGMA wal_checkpoint(PASSIVE)");
  }
  m_db.ReleaseMemory();
}

}  // namespace zxcloud
