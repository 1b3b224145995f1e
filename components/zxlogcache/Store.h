// The forwarder's durable store: records that were taken and not yet reported as uploaded, the log caches
// formed of them, and how far each followed file was read. One SQLite file (WAL, synced commits, mode 0600).
//
// Records are kept in chunks: what one source got between two commits. A log cache is a run of whole chunks
// of one source under a data id that never changes, so that a repeat is recognisable.
//
// One thread. Changes count only after Commit; after a failed step the caller calls Rollback and the store is
// as before Begin. Nothing here logs; Error() has the reason. Blocks on the disk.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Settings.h"
#include "platform/db/Sqlite.h"

namespace zxlogcache {

struct _Cache {
  uint64_t u64DataId = 0;
  int64_t i64Source = 0;
  int64_t i64First = 0;  // chunks of the source, both included
  int64_t i64Last = 0;
  uint64_t u64Bytes = 0;
  uint32_t uiRecords = 0;
};

// Where reading of a file stopped. A file is known by device, inode and its first bytes, because an inode
// is soon used again.
struct _FileMark {
  std::string strPath;
  uint64_t u64Device = 0;
  uint64_t u64Inode = 0;
  uint64_t u64Offset = 0;
  std::string strHead;
};

struct _Held {
  uint64_t u64Bytes = 0;
  uint64_t u64Records = 0;
  int64_t i64OldestAgeMs = -1;  // -1: nothing held
};

int64_t WallMs();  // the time of day, as the store is told it

class CStore {
 public:
  // Creates what is missing. A file that is no database of ours is set aside under a name with ".damaged-"
  // and a new one is begun; strSetAside is then that name. False: the directory or disk does not allow it.
  bool Open(const std::string& strFile, int64_t i64WallMs, std::string& strSetAside);
  void Close();
  bool IsOpen() const { return m_bOpen; }
  // Of the last operation that failed.
  const std::string& Error() const { return m_strError; }
  bool IsDiskFull() const { return m_eFailure == zxdb::EFailure::Full; }
  bool IsDamaged() const { return m_eFailure == zxdb::EFailure::Damaged; }

  bool Begin();
  bool Commit();
  void Rollback();

  // The number of a source, by its name; what it is called on the way to the cloud is stored with it, so that
  // what a source left behind is still sent when it stands no more in the configuration.
  bool Register(const _SourceSettings& source, int64_t& i64Source);
  bool Sources(std::map<int64_t, _SourceSettings>& sources);

  bool Append(int64_t i64Source, int64_t i64WallMs, std::string_view chunk, uint32_t uiRecords);
  // The next log cache of a source behind its last one: whole chunks up to uiMaxBytes (at least one chunk).
  // bFound is false when no chunk waits, or fewer bytes than uiMaxBytes wait and the oldest of them came
  // after i64Until (the store's own time); i64Oldest is then when that one came, -1 without any.
  bool Form(int64_t i64Source, uint32_t uiMaxBytes, bool bSingle, int64_t i64Until, _Cache& cache,
            bool& bFound, int64_t& i64Oldest);
  bool Caches(std::vector<_Cache>& caches);  // formed and not finished, oldest first
  bool Read(const _Cache& cache, std::string& strChunks, int64_t& i64WallMs);
  bool Finish(const _Cache& cache);  // delivered or given up: its chunks go
  // Whether all of it came before i64Before (the store's time).
  bool IsOlder(const _Cache& cache, int64_t i64Before, bool& bOlder);
  // Drops whole chunks, oldest first, that are in no log cache, until uBytes are gone or the next is younger
  // than i64Before (the store's time; INT64_MAX: by bytes alone, 0 bytes: by age alone).
  bool Drop(uint64_t u64Bytes, int64_t i64Before, uint64_t& u64Records);

  bool Mark(int64_t i64Source, const _FileMark& mark);
  bool Unmark(int64_t i64Source, const _FileMark& mark);
  bool Marks(int64_t i64Source, const std::string& strPath, std::vector<_FileMark>& marks);

  // The store's own time in milliseconds: goes on while the machine is off, never back, and does not follow a
  // clock that jumps while the forwarder runs. u64Ticks is a monotonic clock.
  void SetClock(int64_t i64WallMs, uint64_t u64Ticks);
  int64_t Now() const { return m_i64Now; }
  _Held Held() const;

 private:
  bool OpenFile(const std::string& strFile, int64_t i64WallMs);
  bool Totals();
  bool Fail();
  bool Number(const char* pszSql, int64_t& i64Value);

  zxdb::CSqlite m_db;
  zxdb::EFailure m_eFailure = zxdb::EFailure::None;
  std::string m_strError;
  bool m_bOpen = false;
  bool m_bInside = false;
  int64_t m_i64Now = 0;
  int64_t m_i64Wall = 0;
  uint64_t m_u64Ticks = 0;
  bool m_bTicking = false;
  _Held m_held;
  _Held m_before;                             // of Begin
  std::map<int64_t, int64_t> m_formed;        // source: its last chunk that is in a log cache
  std::map<int64_t, int64_t> m_formedBefore;  // of Begin
};

}  // namespace zxlogcache
