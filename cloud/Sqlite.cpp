#include "Sqlite.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

namespace zxcloudd {

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

CSqlite::~CSqlite() {
  Close();
}

bool CSqlite::Open(const std::string& strFile) {
  const int iFd = open(strFile.c_str(), O_CREAT | O_RDWR | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (iFd < 0)
    return false;
  close(iFd);
  constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(strFile.c_str(), &m_pDb, kFlags, nullptr) != SQLITE_OK)
    return false;
  sqlite3_busy_timeout(m_pDb, 2000);
  return Exec("PRAGMA journal_mode=WAL") && Exec("PRAGMA synchronous=FULL") &&
         Exec("PRAGMA foreign_keys=ON") && Exec("PRAGMA journal_size_limit=16777216");
}

void CSqlite::Close() {
  for (const auto& entry : m_mapStatements)
    sqlite3_finalize(entry.second);
  m_mapStatements.clear();
  sqlite3_close(m_pDb);
  m_pDb = nullptr;
}

bool CSqlite::Exec(const char* pszSql) {
  return sqlite3_exec(m_pDb, pszSql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

CStatement CSqlite::Query(const char* pszSql) {
  const auto it = m_mapStatements.find(pszSql);
  if (it != m_mapStatements.end())
    return CStatement(it->second);
  sqlite3_stmt* pStmt = nullptr;
  if (sqlite3_prepare_v3(m_pDb, pszSql, -1, SQLITE_PREPARE_PERSISTENT, &pStmt, nullptr) != SQLITE_OK)
    return CStatement(nullptr);
  m_mapStatements.emplace(pszSql, pStmt);
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

const char* CSqlite::Error() const {
  return m_pDb != nullptr ? sqlite3_errmsg(m_pDb) : "cannot create the file";
}

}  // namespace zxcloudd
