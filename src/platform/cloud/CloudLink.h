// One initialised library: its parts, its threads ("zxcloudio", "zxcloudhttp", "zxcloudspool"), its life.
// Threads: Start and Stop one after another; everything else from any thread while the object lives, also
// during and after Stop (kZxcloudErrState). Stop returns with its threads joined, blocked callers released
// and the callbacks closed; it must not be called from inside a callback.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/cloud/Callbacks.h"
#include "platform/cloud/CloudConfig.h"
#include "platform/cloud/CloudLog.h"
#include "platform/cloud/CloudOptions.h"
#include "platform/cloud/CloudPorts.h"
#include "platform/cloud/CloudThread.h"
#include "platform/cloud/HttpClient.h"
#include "platform/cloud/LinkErrors.h"
#include "platform/cloud/LongLink.h"
#include "platform/cloud/Outbox.h"
#include "platform/cloud/ShortLink.h"
#include "platform/cloud/Spool.h"
#include "platform/cloud/Waiters.h"
#include "platform/cloud/zxcloud.h"
#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"

namespace zxcloud {

class CCloudLink : private IShortPeer {
 public:
  CCloudLink(const zxcloud_record& record, _CloudConfig config, _CloudOptions options,
             const _LinkTimes& times);
  ~CCloudLink() override;
  CCloudLink(const CCloudLink&) = delete;
  CCloudLink& operator=(const CCloudLink&) = delete;

  uint32_t Start();
  void Stop();

  // Waits until it is synced to disk; a cancellation point.
  uint32_t Send(std::string_view svData, int iPriority);
  // Waits for the acknowledgement; a cancellation point.
  uint32_t SendSync(std::string_view svData, int iPriority, uint32_t dwTimeoutMs);
  uint32_t Poll(std::string_view svQuery) { return m_short.Poll(svQuery); }
  // Asks an address for its health on the calling thread.
  uint32_t Check(std::string_view svAddress) TS_EXCLUDES(m_cs);
  void SetOptions(const _CloudOptions& options) TS_EXCLUDES(m_cs);
  std::string State();  // link state and options, one line
  bool InCallback() { return m_callbacks.Inside(); }

 private:
  class CCheck;

  _CloudOptions Options() override TS_EXCLUDES(m_cs);
  void OnTconf(const _TconfAnswer& answer) override TS_EXCLUDES(m_cs);
  bool LongIsUp() override { return m_long.IsUp(); }
  uint64_t LongDownSince() override { return m_long.DownSince(); }
  void WakeLong() override { m_long.Wake(); }

  std::string NewId(uint64_t u64Seq) const;
  void WakeSenders();
  uint32_t Accepts(std::string_view svData, int iPriority) const;
  _HttpSettings HttpSettings() const;
  void ConfigureLong() TS_EXCLUDES(m_cs);

  const _LinkTimes m_times;
  const _CloudConfig m_config;
  const std::string m_strIdPrefix;
  CSystemClock m_clock;
  CSystemRandom m_randomLong;
  CSystemRandom m_randomShort;
  CCallbacks m_callbacks;
  CCloudLog m_log;
  CLinkErrors m_errors;
  COutbox m_outbox;
  CWaiters m_waiters;
  CHttpClient m_http;
  CLongLink m_long;
  CShortLink m_short;
  CSystemWallClock m_wallClock;
  CSpool m_spool;
  CCloudThread m_threadSpool;
  CCloudThread m_threadIo;
  CCloudThread m_threadHttp;
  std::atomic<bool> m_bStopped{false};
  std::atomic<uint64_t> m_u64LastSeq{0};

  CCritSec m_cs;
  _CloudOptions m_options TS_GUARDED_BY(m_cs);
  std::optional<_TconfAnswer> m_tconf TS_GUARDED_BY(m_cs);  // the last one
  std::set<IHttpClient*> m_setChecks TS_GUARDED_BY(m_cs);   // running address tests, to be aborted
};

}  // namespace zxcloud
