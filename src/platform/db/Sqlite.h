// A thin owner of SQLite handles. One thread per connection. Statements are kept prepared by their text.
// Errors: bool or EStep; CSqlite::Error() has the engine's text, Failure() its kind. Blocks on file I/O.
// Nothing here logs or throws, except std::bad_alloc.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

struct sqlite3;
struct sqlite3_stmt;

namespace zxdb {

enum class EStep { Row, Done, Error };

// Why the last operation failed, as far as a caller acts differently.
enum class EFailure {
  None,
  Full,     // no room on the disk
  Damaged,  // not a database, or malformed
  Busy,     // another process or connection holds it
  Other     // not readable, not writable, I/O error, out of memory
};

struct _SqliteOptions {
  bool bFull = true;        // synchronous FULL: a commit survives a power cut; NORMAL: a crash of the process
  bool bExclusive = false;  // nobody else may open it meanwhile, and no shared-memory file is made
  bool bGiveBack = false;   // of a new file: IncrementalVacuum can return free pages
  bool bKeepWal = false;    // the log file keeps its size; otherwise cut to 16 MiB
  bool bErase = true;       // deleted content is overwritten, which costs a write of each freed page
  bool bSpill = true;       // a transaction larger than the cache may reach the file before its commit
  int iCacheKb = 2000;
  int iCheckpointPages = 1000;
  // Commits leave the log as it is; the owner calls Checkpoint when LogPages has reached iCheckpointPages.
  bool bOwnCheckpoint = false;
};

// A borrowed prepared statement; reset when this object goes away. Bound texts are copied, unless the name
// says otherwise. A failed preparation or binding makes Step answer Error.
class CStatement {
 public:
  explicit CStatement(sqlite3_stmt* pStmt) : m_pStmt(pStmt) {}
  ~CStatement();
  CStatement(const CStatement&) = delete;
  CStatement& operator=(const CStatement&) = delete;

  CStatement& Bind(int64_t i64Value);  // the next parameter
  CStatement& Bind(std::string_view svText);
  CStatement& BindBlob(std::string_view svData);
  CStatement& BindBlobUncopied(std::string_view svData);  // must live until the statement is reset
  EStep Step();
  bool Run() { return Step() == EStep::Done; }  // for statements without rows
  void Again();                                 // reset, so that the parameters can be bound anew
  // The only row's first column, or i64Default without a row; bOk tells an error from "no row".
  int64_t Number(int64_t i64Default, bool& bOk);

  int64_t Int(int iColumn) const;
  std::string Text(int iColumn) const;
  std::string_view View(int iColumn) const;  // valid until the next Step or Again

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

  // Creates the file with mode 0600 when it is not there. Always WAL.
  bool Open(const std::string& strFile, const _SqliteOptions& options = {});
  // bKeepLog: without moving the log file into the database, and both stay as they are.
  void Close(bool bKeepLog = false);
  bool Exec(const char* pszSql);
  CStatement Query(std::string_view svSql);
  int Changes() const;  // of the last statement
  int64_t TotalChanges() const;
  int64_t LastRowId() const;
  bool InTransaction() const;
  int LogPages() const { return m_iLogPages; }  // with bOwnCheckpoint: in the log, as of the last commit
  bool Checkpoint();                            // moves the log into the database
  // Makes the file at least this large now, in steps of the chunk, so that a later write finds its room. A
  // failure counts as a full disk: the system refuses the blocks. Opens the file once more, until Close.
  bool GrowTo(int64_t i64Bytes, int iChunkBytes);
  void ReleaseMemory();  // the page cache
  const char* Error() const;
  EFailure Failure() const;  // of the last operation
  int Code() const;          // the engine's extended code of the last operation

 private:
  // Statements by text without making a text for each look-up.
  struct CHash {
    using is_transparent = void;
    size_t operator()(std::string_view sv) const { return std::hash<std::string_view>()(sv); }
  };

  bool Allocate(int64_t i64Bytes, int iChunkBytes);

  sqlite3* m_pDb = nullptr;
  int m_iLogPages = 0;
  int m_fdGrow = -1;
  int m_iOpenErrno = 0;
  bool m_bNoRoom = false;  // what failed last was GrowTo
  std::unordered_map<std::string, sqlite3_stmt*, CHash, std::equal_to<>> m_mapStatements;
};

}  // namespace zxdb
