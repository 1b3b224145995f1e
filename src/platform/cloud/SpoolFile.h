// The spool's file: an SQLite database in WAL mode that one process holds at a time. Rows carry checksums; a
// row of its own says how many there are, so that a loss is noticed. Room is reserved in both files ahead of
// its use, so that records can be deleted on a full disk.
// One thread at a time. Everything blocks on the disk. Nothing here logs; the reason is kept as a text.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/cloud/OutItem.h"
#include "platform/cloud/SpoolIndex.h"
#include "platform/cloud/SpoolRecord.h"
#include "platform/db/Sqlite.h"

namespace zxcloud {

enum class ESpoolResult {
  Ok,
  Full,     // no room on the disk: what was asked did not happen, the rest goes on
  Damaged,  // the file is to be set aside
  Failed    // not readable or writable at the moment; reopen later
};

struct _SpoolInsert {
  _SpoolRow row;
  int64_t i64Sum = 0;
};

class CSpoolFile {
 public:
  using TFound = std::vector<std::pair<int, _SpoolEntry>>;

  explicit CSpoolFile(std::string strFile) : m_strFile(std::move(strFile)) {}

  // Creates what is missing, proves that the file can be written, reads every row. A damaged file stays
  // closed.
  ESpoolResult Open(bool bFull, TFound& listFound);
  bool IsOpen() const { return m_bOpen; }
  void Close();
  // For a file that is to be set aside: its log stays beside it.
  void CloseDamaged();

  // One synced transaction: all of it or nothing.
  ESpoolResult Commit(const std::vector<_SpoolInsert>& listInserts, std::vector<uint64_t> listDeletes);
  // Moves a log that has become long into the database. The next commit does it when nobody has; it is apart
  // so that nobody waits for it whose record is on disk.
  void Settle();
  // Null with Ok: the row is not there, or its checksum is wrong.
  ESpoolResult Read(uint64_t u64Row, TOutItem& pItem);
  // Returns unused pages to the disk and memory to the process.
  void Trim();

  uint64_t NewestRow() const { return m_u64NewestRow; }
  uint64_t Waiting() const { return m_state.u64Waiting; }
  const std::string& Reason() const { return m_strReason; }  // of the last result that is not Ok
  const std::string& File() const { return m_strFile; }

 private:
  ESpoolResult Fail(const char* pszWhat);
  ESpoolResult OpenChecked(bool bFull, TFound& listFound);
  ESpoolResult Schema();
  ESpoolResult Scan(TFound& listFound);
  ESpoolResult CheckPages();
  ESpoolResult Write(const std::vector<_SpoolInsert>& listInserts, std::vector<uint64_t>& listDeletes);
  bool Insert(const std::vector<_SpoolInsert>& listInserts);
  bool Delete(std::vector<uint64_t>& listDeletes, uint64_t& u64Deleted);
  bool WriteState(const _SpoolStateRow& state);
  bool Number(const char* pszSql, int64_t& i64Value);
  bool MakeRoom(const std::vector<_SpoolInsert>& listInserts);
  void ReserveLog();
  ESpoolResult Undo(const char* pszWhat);

  const std::string m_strFile;
  zxdb::CSqlite m_db;
  bool m_bOpen = false;
  bool m_bLogReserved = false;
  uint64_t m_u64NewestRow = 0;
  _SpoolStateRow m_state;
  std::string m_strReason;
};

}  // namespace zxcloud
