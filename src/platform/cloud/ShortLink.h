// The short connection at work: one HTTP thread that fetches the terminal configuration and keeps it fresh,
// carries polls for their callers, and uploads what waits while no long connection is up.
//
// Threads: Run/RunOnce on the HTTP thread; the methods marked "any thread" from anywhere.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cloud/Backoff.h"
#include "platform/cloud/Callbacks.h"
#include "platform/cloud/CloudLog.h"
#include "platform/cloud/CloudOptions.h"
#include "platform/cloud/CloudPorts.h"
#include "platform/cloud/DrainRate.h"
#include "platform/cloud/HttpClient.h"
#include "platform/cloud/LinkErrors.h"
#include "platform/cloud/Outbox.h"
#include "platform/cloud/TconfAnswer.h"
#include "platform/cloud/Waiters.h"
#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"
#include "platform/os/ZxEvent.h"

namespace zxcloud {

inline constexpr size_t kMaxPollJobs = 16;
inline constexpr size_t kMaxPollAnswer = 16u << 20;

// What the short link asks of the rest of the library. Called on the HTTP thread.
class IShortPeer {
 public:
  virtual ~IShortPeer() = default;
  virtual _CloudOptions Options() = 0;
  virtual void OnTconf(const _TconfAnswer& answer) = 0;  // after the callbacks have been told
  virtual bool LongIsUp() = 0;
  virtual uint64_t LongDownSince() = 0;  // 0: no long connection is expected
  virtual void WakeLong() = 0;           // something waits again
};

// The error code for an answer that is not a success.
uint32_t ErrorOf(const _HttpAnswer& answer);

class CShortLink {
 public:
  struct _Ports {
    const _LinkTimes& times;
    IClock& clock;
    IRandom& random;
    IOutbox& outbox;
    CWaiters& waiters;  // of blocking sends
    CCallbacks& callbacks;
    CCloudLog& log;
    CLinkErrors& errors;
    IHttpClient& http;
    IShortPeer& peer;
  };
  struct _Settings {
    std::vector<_CloudAddress> listTconf;
    std::string strChannelId;
    bool bPlainLoopback = false;
    uint32_t uRetryMaxSec = kMaxRetrySec;  // until a terminal configuration says its own
  };

  CShortLink(const _Ports& ports, _Settings settings);
  ~CShortLink();
  CShortLink(const CShortLink&) = delete;
  CShortLink& operator=(const CShortLink&) = delete;

  bool Init();  // false: out of memory
  // Any thread; waits for the answer for at most times.dwPoll. A cancellation point.
  uint32_t Poll(std::string_view svQuery);
  void Wake();       // any thread: there may be something to do
  void OnOptions();  // any thread: the options have changed
  void Stop();       // any thread: Run returns, callers of Poll too; the owner aborts the HTTP client
  size_t MaxMessage() const { return m_uMaxMessage.load(); }  // any thread

  void Run();
  // At most one piece of work. How long to sleep before the next one, in ms; 0: there is more.
  uint32_t RunOnce();

 private:
  struct _PollJob {
    uint64_t u64Key = 0;
    std::string strQuery;
    uint64_t u64Deadline = 0;
  };

  bool TakeJob(_PollJob& job) TS_EXCLUDES(m_cs);
  void DoPoll(const _PollJob& job);
  void SetRetryMax(uint32_t uRetryMaxSec);
  void DoTconf();
  _HttpAnswer AskTconf(const _CloudAddress& address, const _CloudOptions& options) const;
  void TconfArrived(const _CloudAddress& address, const _HttpAnswer& answer, _TconfAnswer parsed);
  void ProbeShort();
  bool UploadDue(uint64_t u64Now, uint32_t& dwWait);
  uint64_t GraceEnd();
  bool DoUpload();
  void Uploaded(const _OutItem& item);
  void UploadFailed(const _OutItem& item, const _HttpAnswer& answer);
  _HttpAnswer ToShort(const _HttpRequest& request);
  void NoteError(const _HttpAnswer& answer);
  std::string Told(const _HttpAnswer& answer) const;
  void ReportEnds(const _HttpAnswer& answer);
  _HttpRequest Request(const char* pszMethod, const char* pszTarget, const _CloudOptions& options) const;

  const _Ports m_ports;
  const _Settings m_settings;
  HZxEvent m_hEvent = nullptr;
  std::atomic<bool> m_bStop{false};
  std::atomic<bool> m_bOptionsChanged{false};
  std::atomic<size_t> m_uMaxMessage{kDefaultMaxMessage};

  CWaiters m_pollWaiters;
  CCritSec m_cs;
  std::deque<_PollJob> m_jobs TS_GUARDED_BY(m_cs);
  uint64_t m_u64LastKey TS_GUARDED_BY(m_cs) = 0;
  bool m_bShortKnown TS_GUARDED_BY(m_cs) = false;

  // The HTTP thread's own.
  CBackoff m_backoffTconf;
  CBackoff m_backoffUpload;
  uint64_t m_u64TconfDue = 0;  // at once
  uint64_t m_u64UploadNext = 0;
  uint64_t m_u64GraceOf = 0;  // the loss of the long connection that m_dwGrace was drawn for
  uint32_t m_dwGrace = 0;
  uint32_t m_uDrainPerSec = 0;
  CDrainRate m_drain;  // of what piled up while uploads failed
  bool m_bMidMissing = false;
  size_t m_uTconf = 0;  // index of the address that answered last
  size_t m_uShort = 0;
  std::vector<_CloudAddress> m_listShort;
  std::string m_strEnds;       // as last reported
  bool m_bPollProved = false;  // reported since init or the last failure
  CQuietReasons m_quietTconf;
  CQuietReasons m_quietPoll;
  CQuietReasons m_quietUpload;
};

}  // namespace zxcloud
