#include "platform/db/Sqlite.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zxdb {

CStatement::~CStatement() {
  if (m_pStmt == nullptr)
    return;
  sqlite3_reset(m_pStmt);
  sqlite3_clear_bindings(m_pStmt);
}

CStatement& CStatement::Bind(int64_t i64Value) {
  m_bFailed |= sqlite3_bind_int64(m_pStmt, m_iNext++, i64Value) != SQLITE_OK;
  return *this;
}

CStatement& CStatement::Bind(std::string_view svText) {
  const char* pData = svText.data() != nullptr ? svText.data() : "";
  m_bFailed |= sqlite3_bind_text64(m_pStmt, m_iNext++, pData, svText.size(), SQLITE_TRANSIENT, SQLITE_UTF8) !=
               SQLITE_OK;
  return *this;
}

CStatement& CStatement::BindBlob(std::string_view svData) {
  const char* pData = svData.data() != nullptr ? svData.data() : "";
  m_bFailed |= sqlite3_bind_blob64(m_pStmt, m_iNext++, pData, svData.size(), SQLITE_TRANSIENT) != SQLITE_OK;
  return *this;
}

CStatement& CStatement::BindBlobUncopied(std::string_view svData) {
  const char* pData = svData.data() != nullptr ? svData.data() : "";
  m_bFailed |= sqlite3_bind_blob64(m_pStmt, m_iNext++, pData, svData.size(), SQLITE_STATIC) != SQLITE_OK;
  return *this;
}

void CStatement::Again() {
  if (m_pStmt != nullptr)
    sqlite3_reset(m_pStmt);
  m_iNext = 1;
  m_bFailed = false;
}

EStep CStatement::Step() {
  if (m_pStmt == nullptr || m_bFailed)
    return EStep::Error;
  switch (sqlite3_step(m_pStmt)) {
    case SQLITE_ROW:
      return EStep::Row;
    case SQLITE_DONE:
      return EStep::Done;
    default:
      m_bFailed = true;
      return EStep::Error;
  }
}

int64_t CStatement::Number(int64_t i64Default, bool& bOk) {
  const EStep eStep = Step();
  bOk = eStep != EStep::Error;
  return eStep == EStep::Row ? Int(0) : i64Default;
}

int64_t CStatement::Int(int iColumn) const {
  return sqlite3_column_int64(m_pStmt, iColumn);
}

std::string CStatement::Text(int iColumn) const {
  const void* pData = sqlite3_column_blob(m_pStmt, iColumn);
  const int iBytes = sqlite3_column_bytes(m_pStmt, iColumn);
  return pData != nullptr ? std::string(static_cast<const char*>(pData), static_cast<size_t>(iBytes)) : "";
}

std::string_view CStatement::View(int iColumn) const {
  const void* pData = sqlite3_column_blob(m_pStmt, iColumn);
  const int iBytes = sqlite3_column_bytes(m_pStmt, iColumn);
  return pData != nullptr ? std::string_view(static_cast<const char*>(pData), static_cast<size_t>(iBytes))
                          : std::string_view();
}

CSqlite::~CSqlite() {
  Close(false);
}

bool CSqlite::Open(const std::string& strFile, const _SqliteOptions& options) {
  m_iOpenErrno = 0;
  m_bNoRoom = false;
  // A file that is there is not opened: closing it again would drop the locks of this process on it.
  const int iFd = open(strFile.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (iFd >= 0)
    close(iFd);
  struct stat info {};
  if (iFd < 0 && errno != EEXIST)
    m_iOpenErrno = errno;
  else if (lstat(strFile.c_str(), &info) != 0)
    m_iOpenErrno = errno;
  else if (!S_ISREG(info.st_mode))
    m_iOpenErrno = S_ISLNK(info.st_mode) ? ELOOP : EINVAL;
  if (m_iOpenErrno != 0)
    return false;
  constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(strFile.c_str(), &m_pDb, kFlags, nullptr) != SQLITE_OK)
    return false;
  sqlite3_extended_result_codes(m_pDb, 1);
  sqlite3_busy_timeout(m_pDb, options.bExclusive ? 0 : 2000);
  const auto Number = [this](const char* pszPragma, int iValue) {
    return Exec((std::string("PRAGMA ") + pszPragma + "=" + std::to_string(iValue)).c_str());
  };
  // How the file is laid out counts before its first page is written.
  const bool bOpen =
      (!options.bGiveBack || Exec("PRAGMA auto_vacuum=INCREMENTAL")) &&
      (!options.bExclusive || Exec("PRAGMA locking_mode=EXCLUSIVE")) && Exec("PRAGMA journal_mode=WAL") &&
      Exec(options.bFull ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL") &&
      Exec("PRAGMA foreign_keys=ON") && Number("journal_size_limit", options.bKeepWal ? -1 : 16777216) &&
      (options.bErase || Exec("PRAGMA secure_delete=OFF")) &&
      (options.bSpill || Exec("PRAGMA cache_spill=OFF")) && Number("cache_size", -options.iCacheKb) &&
      Number("wal_autocheckpoint", options.iCheckpointPages);
  m_iLogPages = 0;
  // Takes the place of the engine's own hook, which would move the log before the commit returns.
  if (bOpen && options.bOwnCheckpoint)
    sqlite3_wal_hook(
        m_pDb,
        [](void* pThis, sqlite3*, const char*, int iPages) {
          static_cast<CSqlite*>(pThis)->m_iLogPages = iPages;
          return SQLITE_OK;
        },
        this);
  return bOpen;
}

bool CSqlite::Checkpoint() {
  m_iLogPages = 0;
  return sqlite3_wal_checkpoint_v2(m_pDb, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr) == SQLITE_OK;
}

void CSqlite::Close(bool bKeepLog) {
  if (bKeepLog && m_pDb != nullptr)
    sqlite3_db_config(m_pDb, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  for (const auto& entry : m_mapStatements)
    sqlite3_finalize(entry.second);
  m_mapStatements.clear();
  sqlite3_close(m_pDb);
  m_pDb = nullptr;
  // Only now, as this drops the locks of this process on the file.
  if (m_fdGrow >= 0)
    close(m_fdGrow);
  m_fdGrow = -1;
}

bool CSqlite::Exec(const char* pszSql) {
  return sqlite3_exec(m_pDb, pszSql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

CStatement CSqlite::Query(std::string_view svSql) {
  const auto it = m_mapStatements.find(svSql);
  if (it != m_mapStatements.end())
    return CStatement(it->second);
  sqlite3_stmt* pStmt = nullptr;
  if (sqlite3_prepare_v3(m_pDb, svSql.data(), static_cast<int>(svSql.size()), SQLITE_PREPARE_PERSISTENT,
                         &pStmt, nullptr) != SQLITE_OK)
    return CStatement(nullptr);
  m_mapStatements.emplace(svSql, pStmt);
  return CStatement(pStmt);
}

int CSqlite::Changes() const {
  return sqlite3_changes(m_pDb);
}

int64_t CSqlite::TotalChanges() const {
  return sqlite3_total_changes64(m_pDb);
}

int64_t CSqlite::LastRowId() const {
  return sqlite3_last_insert_rowid(m_pDb);
}

bool CSqlite::InTransaction() const {
  return m_pDb != nullptr && sqlite3_get_autocommit(m_pDb) == 0;
}

// Whole blocks at once; the engine writes a byte into each of them. What cannot be done here is left to it.
bool CSqlite::Allocate(int64_t i64Bytes, int iChunkBytes) {
  const char* pszFile = sqlite3_db_filename(m_pDb, "main");
  if (m_fdGrow < 0 && pszFile != nullptr)
    m_fdGrow = open(pszFile, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
  struct stat info {};
  if (m_fdGrow < 0 || fstat(m_fdGrow, &info) != 0 || info.st_size >= i64Bytes)
    return true;
  const int64_t i64End = (i64Bytes + iChunkBytes - 1) / iChunkBytes * iChunkBytes;
  return fallocate(m_fdGrow, 0, info.st_size, i64End - info.st_size) == 0 ||
         (errno != ENOSPC && errno != EDQUOT);
}

bool CSqlite::GrowTo(int64_t i64Bytes, int iChunkBytes) {
  sqlite3_int64 i64Size = i64Bytes;
  m_bNoRoom = !Allocate(i64Bytes, iChunkBytes) ||
              sqlite3_file_control(m_pDb, "main", SQLITE_FCNTL_CHUNK_SIZE, &iChunkBytes) != SQLITE_OK ||
              sqlite3_file_control(m_pDb, "main", SQLITE_FCNTL_SIZE_HINT, &i64Size) != SQLITE_OK;
  return !m_bNoRoom;
}

void CSqlite::ReleaseMemory() {
  sqlite3_db_release_memory(m_pDb);
}

const char* CSqlite::Error() const {
  if (m_bNoRoom)
    return "no room for the file to grow";
  return m_iOpenErrno != 0 ? strerrordesc_np(m_iOpenErrno) : sqlite3_errmsg(m_pDb);
}

int CSqlite::Code() const {
  return m_pDb != nullptr ? sqlite3_extended_errcode(m_pDb) : SQLITE_CANTOPEN;
}

EFailure CSqlite::Failure() const {
  if (m_bNoRoom)
    return EFailure::Full;
  if (m_iOpenErrno != 0)
    return m_iOpenErrno == ENOSPC || m_iOpenErrno == EDQUOT ? EFailure::Full : EFailure::Other;
  const int iCode = Code();
  switch (iCode & 0xff) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
      return EFailure::None;
    case SQLITE_FULL:
      return EFailure::Full;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return EFailure::Damaged;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return EFailure::Busy;
    case SQLITE_IOERR: {
      const int iErrno = sqlite3_system_errno(m_pDb);
      return iErrno == ENOSPC || iErrno == EDQUOT ? EFailure::Full : EFailure::Other;
    }
    default:
      return EFailure::Other;
  }
}

}  // namespace zxdb
