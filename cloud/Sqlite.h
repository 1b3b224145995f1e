// A thin owner of SQLite handles. One thread per connection. Statements are kept prepared by their text.
// Errors: bool or EStep; CSqlite::Error() has the engine's text. Nothing here logs or throws, except
// std::bad_alloc.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

struct sqlite3;
struct sqlite3_stmt;

namespace zxcloudd {

enum class EStep { Row, Done, Error };

// A borrowed prepared statement; reset when this object goes away. Bound texts are copied.
// A failed preparation or binding makes Step answer Error.
class CStatement {
 public:
  explicit CStatement(sqlite3_stmt* pStmt) : m_pStmt(pStmt) {}
  ~CStatement();
  CStatement(const CStatement&) = delete;
  CStatement& operator=(const CStatement&) = delete;

  CStatement& Bind(int64_t i64Value);  // the next parameter
  CStatement& Bind(std::string_view svText);
  CStatement& BindBlob(std::string_view svData);
  EStep Step();
  bool Run() { return Step() == EStep::Done; }  // for statements without rows
  // The only row's first column, or i64Default without a row; bOk tells an error from "no row".
  int64_t Number(int64_t i64Default, bool& bOk);

  int64_t Int(int iColumn) const;
  std::string Text(int iColumn) const;

 private:
  sqlite3_stmt* m_pStmt;
  int m_iNext = 1;
  bool m_bFailed = false;
};

class CSqlite {
 public:
  CSqlite() = default;
  ~CSqlite();
  CSqlite(const CSqlite&) = delete;
  CSqlite& operator=(const CSqlite&) = delete;

  // Creates the file with mode 0600 when it is not there. WAL, synchronous FULL.
  bool Open(const std::string& strFile);
  void Close();
  bool Exec(const char* pszSql);
  CStatement Query(const char* pszSql);
  int Changes() const;  // of the last statement
  int64_t TotalChanges() const;
  int64_t LastRowId() const;
  const char* Error() const;

 private:
  sqlite3* m_pDb = nullptr;
  std::unordered_map<std::string, sqlite3_stmt*> m_mapStatements;
};

}  // namespace zxcloudd
