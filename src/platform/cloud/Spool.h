// The durable spool: a non-blocking send ends when its record is synced to disk. One thread ("zxcloudspool")
// owns the file; records that wait together share one commit; deletes of what was delivered ride along or
// follow shortly after.
//
// Threads: Run on the spool thread; everything else from any thread. Append blocks until the commit that
// holds its record and is a cancellation point; no lock is held while it waits. The thread blocks on the disk
// and on nothing else.
// Memory: bodies as CSpoolIndex bounds them, 16 bytes per waiting record, and the records of those who wait
// in Append.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cloud/CloudLog.h"
#include "platform/cloud/CloudPorts.h"
#include "platform/cloud/Outbox.h"
#include "platform/cloud/SpoolFile.h"
#include "platform/cloud/SpoolRequests.h"
#include "platform/cloud/SpoolSalvage.h"

namespace zxcloud {

inline constexpr size_t kDefaultSpoolBytes = 64u << 20;
inline constexpr uint32_t kDefaultSpoolAgeSec = 7 * 86400;
inline constexpr int kDamageReportPriority = 13;

struct _SpoolSettings {
  std::string strFile;
  size_t uMaxBytes = kDefaultSpoolBytes;
  uint32_t uMaxAgeSec = kDefaultSpoolAgeSec;
  bool bFull = true;  // synchronous FULL, otherwise NORMAL
};

struct _SpoolTimes {
  uint32_t dwDelete = 200;        // a delivered record is deleted this much later at most
  uint32_t dwReopenFirst = 1000;  // after a failure; doubled up to the last
  uint32_t dwReopenLast = 30000;
  uint32_t dwTrim = 5000;  // idle for this long: memory and disk are given back
  uint32_t dwQuietLog = 60000;
};

class CSpool : public ISpoolWishes {
 public:
  struct _Ports {
    COutbox& outbox;
    IClock& clock;
    IWallClock& wall;
    CCloudLog& log;
    std::function<std::string()> fnId;  // a new message id; any thread
    std::function<void()> fnReady;      // something can be taken from the outbox; any thread
  };
  struct _State {
    const char* pszMode = "opening";  // "ready", "unavailable"
    const char* pszSync = "full";     // "normal"
    uint64_t u64Depth = 0;            // records waiting or under way
    uint64_t u64Bytes = 0;            // what they cost of the bound
    uint64_t u64OldestSec = 0;        // age of the oldest
    uint64_t u64Damaged = 0;          // records lost to damage since the start
    uint64_t u64Refused = 0;          // since the start: for want of room or of a usable file
    uint64_t u64Expired = 0;          // since the start
    std::string Text() const;         // ":spool=...", as zxcloud_getopt shows it
  };

  CSpool(_Ports ports, _SpoolSettings settings, const _SpoolTimes& times = {});
  ~CSpool() override = default;
  CSpool(const CSpool&) = delete;
  CSpool& operator=(const CSpool&) = delete;

  // 0: on disk. kZxcloudErrFull: the bound or the disk; kZxcloudErrSpool: the file cannot be used;
  // kZxcloudErrState: stopped.
  uint32_t Append(std::string_view svBody, int iPriority);
  _State State();

  void Run();
  // One turn, then a wait of at most iMaxWaitMs (-1: no bound). False: stopped, and everything written.
  bool RunOnce(int iMaxWaitMs);
  void Stop() { m_requests.Stop(); }  // Run returns when those who wait have their answers
  void Abandon();                     // after Run, or instead of it: ends those who came too late

  void WantBodies() override { m_requests.WantBodies(); }
  void WantDeletes() override { m_requests.WantDeletes(); }

 private:
  using _Request = CSpoolRequests::_Request;
  using TRequest = CSpoolRequests::TRequest;
  enum class EMode : int { Opening, Ready, Unavailable };

  // Times in milliseconds of the clock; 0: nothing is due.
  struct _Due {
    uint64_t u64Delete = 0;
    uint64_t u64Open = 0;
    uint64_t u64Sweep = 0;
    uint64_t u64Trim = 0;
  };

  int64_t NowSec();
  void Advance(uint32_t uNewestCreatedSec);
  bool Reserve(int iIndex, size_t uCost);
  void Refuse(uint32_t uiResult);

  void Sleep(int iMaxWaitMs);
  uint64_t NextDue() const;

  void EnsureOpen();
  ESpoolResult OpenOrSalvage();
  ESpoolResult Salvage();
  void Opened(const CSpoolFile::TFound& listFound);
  void Unusable(ESpoolResult eResult);
  uint32_t RefusalCode() const;
  void Work();
  void CommitBatch();
  ESpoolResult CommitOnce(std::vector<_SpoolEntry>& listDone, bool bInserts);
  ESpoolResult DeleteInPortions(std::vector<_SpoolEntry>& listDone);
  void Committed(size_t uInserted);
  void LoadBodies();
  bool LoadQueue(int iQueue);
  void Sweep();
  void Trim();
  void ReportRefusals();

  const _Ports m_ports;
  const _SpoolSettings m_settings;
  const _SpoolTimes m_times;
  std::atomic<size_t> m_uBytes{0};
  std::atomic<uint64_t> m_u64Refused{0};
  std::atomic<uint64_t> m_u64Damaged{0};
  std::atomic<uint64_t> m_u64Expired{0};
  std::atomic<bool> m_bRefusalNews{false};
  std::atomic<EMode> m_eMode{EMode::Opening};
  std::atomic<int64_t> m_i64BaseSec;  // the spool's clock at monotonic 0

  CSpoolRequests m_requests;

  // The spool thread's own.
  CSpoolFile m_file;
  std::vector<TRequest> m_listBatch;
  uint64_t m_u64CommitUs = 0;  // what the last commit took
  bool m_bLoad = false;
  _Due m_due;
  uint64_t m_u64LastOpen = 0;
  uint32_t m_dwReopen = 0;
  bool m_bDiskFull = false;    // why the file is not open
  bool m_bFullLogged = false;  // the disk was full
  uint64_t m_u64RefusedReported = 0;
  CQuietPeriod m_quietOpen;
  CQuietPeriod m_quietFull;
  CQuietPeriod m_quietDisk;
  CQuietPeriod m_quietDamage;
};

}  // namespace zxcloud
