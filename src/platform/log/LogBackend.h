// Back end of the log: channels by name, one bounded queue, one writer thread. The thread exists while at
// least one channel is open. Private to the platform library.
// Threads: everything may be called from any thread, with cancellation held back by the caller. Blocking:
// Post waits while the queue is full; Open and Close wait for each other, Close for the writer. A line is in
// its file kLogGatherMs after it was posted, sooner when many come.
#pragma once

#include <pthread.h>
#include <sys/types.h>
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/log/Log.h"
#include "platform/log/LogConfig.h"
#include "platform/log/LogFile.h"
#include "platform/os/ZxCritSec.h"

namespace zxlog {

inline constexpr size_t kLogMaxTextBytes = 64u << 10;  // a longer text is cut, with a mark
inline constexpr size_t kLogQueueLines = 512;
inline constexpr size_t kLogQueueBytes = 1u << 20;
inline constexpr size_t kLogGatherLines = kLogQueueLines / 2;  // this many do not wait for more
inline constexpr size_t kLogGatherBytes = 64u << 10;
inline constexpr uint32_t kLogGatherMs = 10;
inline constexpr uint32_t kLogConfigCheckMs = 5000;

// Time, level, process and thread id in front of the text, a newline behind it.
std::string FormatLogLine(int iLevel, const timespec& tsTime, pid_t iThread, std::string_view svText);
pid_t CurrentThreadId();
// "...[cut, N bytes]" behind the part that is kept.
std::string CutText(std::string_view svKept, size_t uFullLength);

// A channel lives as long as the process: a call site may still hold the handle of a closed one.
struct CBackendChannel : CLogChannel {
  explicit CBackendChannel(std::string strChannelName) : strName(std::move(strChannelName)) {}
  const std::string strName;
  uint32_t uOpen = 0;       // under the back end's lock
  bool bCloseFile = false;  // under the back end's lock: the last user is gone
  CLogFile file;            // writer thread
};

struct CLogLine {
  CBackendChannel* pChannel = nullptr;
  int iLevel = 0;
  timespec tsTime{};
  pid_t iThread = 0;
  std::string strText;
};

class CLogBackend {
 public:
  static CLogBackend& Instance();

  void SetHome(const CPString& strHome);
  void ForceLevel(int iLevel) TS_EXCLUDES(m_cs);
  HLog Open(const char* pszName);
  void Close(HLog hLog);
  void Post(HLog hLog, int iLevel, std::string_view svText);

 private:
  class CTurn;
  using TBatch = std::vector<CLogLine>;

  CLogBackend();
  ~CLogBackend() = default;

  void BeginTurn() TS_EXCLUDES(m_cs);
  void EndTurn() TS_EXCLUDES(m_cs);
  bool StartWriter();
  static void* WriterEntry(void* pBackend);
  void WriterLoop() TS_EXCLUDES(m_cs);
  bool TakeBatch(TBatch& batch) TS_EXCLUDES(m_cs);
  bool BatchIsDue() const TS_REQUIRES(m_cs);
  void Gather() TS_REQUIRES(m_cs);
  void WriteBatch(TBatch& batch) TS_EXCLUDES(m_cs);
  void CloseFiles() TS_EXCLUDES(m_cs);
  void CheckConfig() TS_EXCLUDES(m_cs);
  void LoadSettings() TS_EXCLUDES(m_cs);
  void WaitWritten() TS_EXCLUDES(m_cs);
  int ThresholdOf(const std::string& strChannel) const TS_REQUIRES(m_cs);

  CCritSec m_cs;
  pthread_cond_t m_condWork;  // the writer waits here
  pthread_cond_t m_condRoom;  // Post waits here while the queue is full
  pthread_cond_t m_condDone;  // Close waits here for its lines
  pthread_cond_t m_condTurn;  // Open and Close wait here for each other

  std::map<std::string, std::unique_ptr<CBackendChannel>> m_channels TS_GUARDED_BY(m_cs);
  TBatch m_queue TS_GUARDED_BY(m_cs);
  size_t m_uQueueBytes TS_GUARDED_BY(m_cs) = 0;
  uint64_t m_u64Posted TS_GUARDED_BY(m_cs) = 0;
  uint64_t m_u64Written TS_GUARDED_BY(m_cs) = 0;
  uint32_t m_uOpenChannels TS_GUARDED_BY(m_cs) = 0;
  bool m_bWriterWaits TS_GUARDED_BY(m_cs) = false;
  bool m_bWriterGathers TS_GUARDED_BY(m_cs) = false;
  uint32_t m_uDoneWaiters TS_GUARDED_BY(m_cs) = 0;
  uint32_t m_uRoomWaiters TS_GUARDED_BY(m_cs) = 0;
  bool m_bWriter TS_GUARDED_BY(m_cs) = false;
  bool m_bStop TS_GUARDED_BY(m_cs) = false;
  bool m_bTurn TS_GUARDED_BY(m_cs) = false;
  bool m_bCloseFiles TS_GUARDED_BY(m_cs) = false;
  std::string m_strHome TS_GUARDED_BY(m_cs);
  bool m_bSettingsStale TS_GUARDED_BY(m_cs) = true;
  std::shared_ptr<const CLogSettings> m_pSettings TS_GUARDED_BY(m_cs);
  CLogConfigStamp m_stamp TS_GUARDED_BY(m_cs);
  int m_iForcedLevel TS_GUARDED_BY(m_cs) = 0;  // 0: the settings count

  pthread_t m_hWriter{};            // whoever has the turn
  uint64_t m_u64ConfigCheckAt = 0;  // writer thread
};

}  // namespace zxlog
