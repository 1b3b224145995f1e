// One followed file: complete lines as they are appended, through rotation by rename (the old file is read to
// its end first, also when that happened while nobody read) and by truncation. Where reading stopped belongs
// to the store and is written together with the records, so no line is lost or taken twice by a crash.
//
// One thread. Poll reads files and never waits for a writer.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "Records.h"
#include "Settings.h"
#include "Store.h"
#include "platform/log/Log.h"

namespace zxlogcache {

class CFileInput {
 public:
  CFileInput(const _FileSettings& settings, uint32_t uiMaxRecord, HLog hLog);
  ~CFileInput();
  CFileInput(const CFileInput&) = delete;
  CFileInput& operator=(const CFileInput&) = delete;

  const std::string& Path() const { return m_settings.strPath; }
  // Once, before the first Poll: where earlier lives stopped.
  void Resume(const std::vector<_FileMark>& marks);
  // Reads what is new up to the budget. True: there may be more at once. u64NowMs: a monotonic clock.
  bool Poll(CChunks& chunks, uint64_t u64Budget, uint64_t u64NowMs);

  // What has to go to the store together with the chunks; Committed forgets it.
  const std::vector<_FileMark>& Changed() const { return m_changed; }
  const std::vector<_FileMark>& Ended() const { return m_ended; }
  void Committed();

 private:
  struct _Open {
    int hFd = -1;
    _FileMark mark;
    uint64_t u64QuietSinceMs = 0;  // of a rotated file: nothing new since then
    bool bQuiet = false;
  };

  void OpenCurrent();
  void FindRotated(const _FileMark& mark);
  bool Adopt(const std::string& strPath, const _FileMark& mark);
  bool Read(_Open& file, CChunks& chunks, uint64_t u64Budget);
  void CheckTruncated(_Open& file, uint64_t u64Size);
  void Note(const _Open& file);
  void End(_Open& file);

  const _FileSettings m_settings;
  const uint32_t m_uiMaxRecord;
  const HLog m_hLog;
  std::list<_Open> m_open;  // oldest first; the last one stands under the path, the others were renamed
  std::vector<_FileMark> m_known;  // of earlier lives, not found yet
  std::vector<_FileMark> m_changed;
  std::vector<_FileMark> m_ended;
  std::vector<char> m_buffer;
  bool m_bFirst = true;
};

}  // namespace zxlogcache
