// The long connection at work: one I/O thread that resolves, dials, sends within the windows, hands pushed
// commands straight to the push callback, and watches for dead peers. Two MQTT connections to the same
// address: commands, status and small messages on one, which is "the" connection for everybody outside; bulk
// data on the other (CBulkLink). What to do next is decided by CLinkMachine; how bytes travel by
// IMqttTransport.
//
// Threads: Run/RunOnce on the I/O thread; the methods marked "any thread" from anywhere. Idle cost: the
// thread sleeps until the next keep-alive step of both (a quarter of the keep-alive).
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cloud/Backoff.h"
#include "platform/cloud/BulkLink.h"
#include "platform/cloud/Callbacks.h"
#include "platform/cloud/CloudLog.h"
#include "platform/cloud/CloudPorts.h"
#include "platform/cloud/DrainRate.h"
#include "platform/cloud/LinkConnection.h"
#include "platform/cloud/LinkErrors.h"
#include "platform/cloud/LinkMachine.h"
#include "platform/cloud/MqttTransport.h"
#include "platform/cloud/Outbox.h"
#include "platform/cloud/Resolver.h"
#include "platform/cloud/Waiters.h"
#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"

namespace zxcloud {

inline constexpr size_t kMaxPushBytes = 1u << 20;
inline constexpr uint32_t kDefaultDrainPerSec = 100;

struct _LongSettings {
  std::vector<_CloudAddress> listAddresses;  // empty: no long connection
  std::string strMid;                        // counts from the next attempt on, as does the keep-alive
  int iKeepAliveSec = 30;
  uint32_t uSpreadSec = 60;
  uint32_t uDrainPerSec = kDefaultDrainPerSec;
  bool bBulkLink = true;  // a connection of its own for bulk data
  bool bConfirm = false;  // the cloud confirms uploads; counts from the next connection on, its end at once
  uint32_t uRetryMaxSec = kMaxRetrySec;
};

struct _LongStatus {
  std::string strUpAddress;  // empty: not up
  bool bBulkUp = false;
  uint64_t u64Reconnects = 0;  // connections after the first one
};

// The business number at the end of a push topic: 1 to 9 digits behind strPrefix. -1: not a push topic.
int PushNumber(std::string_view svTopic, std::string_view svPrefix);

class CLongLink : private ILinkActions {
 public:
  struct _Ports {
    const _LinkTimes& times;
    IClock& clock;
    IRandom& random;
    IOutbox& outbox;
    CWaiters& waiters;
    CCallbacks& callbacks;
    CCloudLog& log;
    CLinkErrors& errors;
    std::function<void()> fnDown;  // the connection is not up: others may take over what waits
  };

  // Asks fnTransport for the commands' transport first, then for that of bulk data.
  CLongLink(_Ports ports, const TTransports& fnTransport, CResolver::TResolve pfnResolve = ResolveHost);
  ~CLongLink() override;
  CLongLink(const CLongLink&) = delete;
  CLongLink& operator=(const CLongLink&) = delete;

  bool Init();                                               // false: out of descriptors
  void Configure(_LongSettings settings) TS_EXCLUDES(m_cs);  // any thread
  void Wake() { m_pWakeup->Signal(); }                       // any thread: there may be something to send
  void Stop();  // any thread: Run returns; the machine is marked offline, no callback
  bool IsUp() const { return m_bUp.load(); }               // any thread
  uint64_t DownSince() const { return m_u64Down.load(); }  // any thread; 0: never was expected to be up
  _LongStatus Status() TS_EXCLUDES(m_cs);                  // any thread

  void Run();
  // One turn: acts on what is due, then waits for at most iMaxWaitMs (-1: no bound). False: stopped.
  bool RunOnce(int iMaxWaitMs);

 private:
  void Dial(const _CloudAddress& address) override;
  void Hangup() override;
  void LinkUp(const _CloudAddress& address) override;
  void LinkDown(const std::string& strReason) override;
  void LinkWaits(const std::string& strReasons, uint32_t dwDelayMs) override;

  void OnPush(std::string_view svTopic, std::string_view svPayload);
  void OnConfirms(std::string_view svPayload);
  void SendAgain(const std::vector<uint64_t>& listSeqs);

  bool RenewEpoll();
  void TakeSettings() TS_EXCLUDES(m_cs);
  void TakeLookup();
  void OpenNextIp();
  _MqttOpen OpenOf(const std::string& strIp) const;
  void FollowWithBulk(const _CloudAddress& address);
  void ReportFailure();
  void Tick();
  bool Pump();
  int WaitMs(int iMaxWaitMs);
  void Watch();
  void WaitAndHandle(int iWaitMs);
  void MarkDown();

  const _Ports m_ports;
  const std::shared_ptr<CWakeup> m_pWakeup;
  CResolver m_resolver;
  CLinkMachine m_machine;
  CConfirms m_confirms;
  CLinkConnection m_command;
  CBulkLink m_bulk;
  std::atomic<bool> m_bStop{false};
  std::atomic<bool> m_bUp{false};
  std::atomic<uint64_t> m_u64Down{0};

  CCritSec m_cs;
  std::optional<_LongSettings> m_newSettings TS_GUARDED_BY(m_cs);
  std::string m_strUpAddress TS_GUARDED_BY(m_cs);
  uint64_t m_u64Ups TS_GUARDED_BY(m_cs) = 0;

  // The I/O thread's own.
  int m_fdEpoll = -1;
  _LongSettings m_settings;
  std::string m_strMid;  // of the last attempt
  std::string m_strPushPrefix;
  std::string m_strAckTopic;
  _CloudAddress m_dialled;
  bool m_bResolving = false;
  std::string m_strIp;                 // of the last attempt
  std::vector<std::string> m_listIps;  // still to be tried for m_dialled
  uint64_t m_u64NextTick = 0;
  CDrainRate m_drain;
  std::string m_strPush;  // the pushed text with its NUL; kept for its capacity
  CQuietReasons m_quiet;
};

}  // namespace zxcloud
