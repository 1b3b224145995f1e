// The long connection at work: one I/O thread that resolves, dials, sends within the window, hands pushed
// commands straight to the push callback, and watches for dead peers. What to do next is decided by
// CLinkMachine; how bytes travel by IMqttTransport.
//
// Threads: Run/RunOnce on the I/O thread; the methods marked "any thread" from anywhere. Idle cost: the
// thread sleeps until the next keep-alive step (a quarter of the keep-alive).
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cloud/Callbacks.h"
#include "platform/cloud/CloudLog.h"
#include "platform/cloud/CloudPorts.h"
#include "platform/cloud/LinkMachine.h"
#include "platform/cloud/MqttTransport.h"
#include "platform/cloud/Outbox.h"
#include "platform/cloud/Resolver.h"
#include "platform/cloud/Waiters.h"
#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"

namespace zxcloud {

inline constexpr uint32_t kWindowMessages = 64;
inline constexpr size_t kWindowBytes = 4u << 20;
inline constexpr uint32_t kReserveMessages = 8;  // of the window, for urgent entries
inline constexpr size_t kReserveBytes = 256u << 10;
inline constexpr size_t kMaxPushBytes = 1u << 20;

struct _LongSettings {
  std::vector<_CloudAddress> listAddresses;  // empty: no long connection
  std::string strMid;                        // counts from the next attempt on, as does the keep-alive
  int iKeepAliveSec = 30;
  uint32_t uSpreadSec = 60;
};

// The business number at the end of a push topic: 1 to 9 digits behind strPrefix. -1: not a push topic.
int PushNumber(std::string_view svTopic, std::string_view svPrefix);

class CLongLink : private ILinkActions, private IMqttEvents {
 public:
  struct _Ports {
    const _LinkTimes& times;
    IClock& clock;
    IRandom& random;
    IOutbox& outbox;
    CWaiters& waiters;
    CCallbacks& callbacks;
    CCloudLog& log;
    std::function<void()> fnDown;  // the connection is not up: others may take over what waits
  };
  using TTransports = std::function<std::unique_ptr<IMqttTransport>(IMqttEvents&)>;

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
  std::string UpAddress() TS_EXCLUDES(m_cs);               // any thread

  void Run();
  // One turn: acts on what is due, then waits for at most iMaxWaitMs (-1: no bound). False: stopped.
  bool RunOnce(int iMaxWaitMs);

 private:
  struct _UnderWay {
    uint64_t u64Seq = 0;
    size_t uBytes = 0;
  };
  struct _Failure {
    EMqttFailure eKind = EMqttFailure::Network;
    std::string strReason;
  };

  void Dial(const _CloudAddress& address) override;
  void Hangup() override;
  void LinkUp(const _CloudAddress& address) override;
  void LinkDown(const std::string& strReason) override;
  void LinkWaits(const std::string& strReasons, uint32_t dwDelayMs) override;

  void OnTcpUp() override;
  void OnConnack() override;
  void OnSubscribed() override;
  void OnClosed(EMqttFailure eFailure, const std::string& strReason) override;
  void OnAck(uint64_t u64Token) override;
  void OnPush(std::string_view svTopic, std::string_view svPayload) override;

  bool RenewEpoll();
  void TakeSettings() TS_EXCLUDES(m_cs);
  void TakeLookup();
  void OpenNextIp();
  void ReportFailure();
  void Tick();
  uint64_t AckDeadline() const;
  void CheckAckAge();
  void Pump();
  void ReturnAll();
  int WaitMs(int iMaxWaitMs) const;
  void SyncInterest();
  void WaitAndHandle(int iWaitMs);
  void MarkDown();

  const _Ports m_ports;
  const std::shared_ptr<CWakeup> m_pWakeup;
  CResolver m_resolver;
  const std::unique_ptr<IMqttTransport> m_pTransport;
  CLinkMachine m_machine;
  std::atomic<bool> m_bStop{false};
  std::atomic<bool> m_bUp{false};
  std::atomic<uint64_t> m_u64Down{0};

  CCritSec m_cs;
  std::optional<_LongSettings> m_newSettings TS_GUARDED_BY(m_cs);
  std::string m_strUpAddress TS_GUARDED_BY(m_cs);

  // The I/O thread's own.
  int m_fdEpoll = -1;
  int m_fdWatched = -1;
  uint32_t m_uInterest = 0;
  _LongSettings m_settings;
  std::string m_strPushPrefix;
  std::string m_strUpPrefix;
  _CloudAddress m_dialled;
  bool m_bResolving = false;
  bool m_bTcpUp = false;
  std::string m_strIp;                 // of the last attempt
  std::vector<std::string> m_listIps;  // still to be tried for m_dialled
  std::optional<_Failure> m_failure;   // to be reported outside the machine's own call
  uint64_t m_u64NextTick = 0;
  std::vector<_UnderWay> m_listUnderWay;  // in the order of sending; short, so searched
  size_t m_uBytesUnderWay = 0;
  uint64_t m_u64Progress = 0;  // when the window was last empty or an acknowledgement came
  std::string m_strPush;       // the pushed text with its NUL; kept for its capacity
  std::string m_strTopic;
  CQuietPeriod m_quiet;
};

}  // namespace zxcloud
