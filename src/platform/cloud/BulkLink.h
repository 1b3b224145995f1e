// The connection for bulk data: follows the commands' connection to the same address, keeps no session, and
// is made anew by itself when it alone is lost. While it is not up for a moment what is meant for it waits;
// after that it goes with the commands. Everything on the I/O thread, except where marked.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/cloud/CloudLog.h"
#include "platform/cloud/LinkConnection.h"
#include "platform/cloud/LinkMachine.h"

namespace zxcloud {

class CBulkLink : private ILinkActions {
 public:
  struct _Ports {
    const _LinkTimes& times;
    IClock& clock;
    IRandom& random;
    IOutbox& outbox;
    CWaiters& waiters;
    CConfirms& confirms;
    CCloudLog& log;
  };
  CBulkLink(const _Ports& ports, const TTransports& fnTransport);
  CBulkLink(const CBulkLink&) = delete;
  CBulkLink& operator=(const CBulkLink&) = delete;

  // The commands' connection is up there. open: as for that one, with its own client id and without
  // subscription and status.
  void Follow(const _CloudAddress& address, _MqttOpen open, const std::string& strUpPrefix);
  void Leave(bool bPolite);  // the commands' connection is not up any more

  void SetRetryMax(uint32_t uRetryMaxSec) { m_machine.SetRetryMax(uRetryMaxSec); }

  bool IsUp() const { return m_bUp.load(); }  // any thread
  // It is not up and what is meant for it is not to wait any longer.
  bool IsMissed() const;
  CLinkConnection& Connection() { return m_connection; }
  void OnTime();  // acts on what has become due
  void ReportFailure();
  uint64_t Deadline() const;  // 0: none

 private:
  void Dial(const _CloudAddress& address) override;
  void Hangup() override;
  void LinkUp(const _CloudAddress& address) override;
  void LinkDown(const std::string& strReason) override;
  void LinkWaits(const std::string& strReasons, uint32_t dwDelayMs) override;

  const _Ports m_ports;
  CLinkMachine m_machine;
  CLinkConnection m_connection;
  std::atomic<bool> m_bUp{false};
  bool m_bFollows = false;
  bool m_bMissLogged = false;
  uint64_t m_u64Down = 0;
  _MqttOpen m_open;
  std::string m_strUpPrefix;
  std::string m_strReason;
  std::string m_strLogged;  // the reason of the last line
  CQuietReasons m_quiet;
};

}  // namespace zxcloud
