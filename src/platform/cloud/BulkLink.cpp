#include "platform/cloud/BulkLink.h"

#include <algorithm>
#include <utility>

namespace zxcloud {

CBulkLink::CBulkLink(const _Ports& ports, const TTransports& fnTransport)
    : m_ports(ports),
      m_machine(m_ports.times, m_ports.clock, m_ports.random, *this),
      m_connection({m_ports.times, m_ports.clock, m_ports.outbox, m_ports.waiters, m_ports.confirms,
                    m_machine, nullptr},
                   fnTransport),
      m_quiet(m_ports.times.dwQuietLog) {}

void CBulkLink::Follow(const _CloudAddress& address, _MqttOpen open, const std::string& strUpPrefix) {
  Leave(false);
  m_open = std::move(open);
  m_strUpPrefix = strUpPrefix;
  m_bFollows = true;
  m_u64Down = m_ports.clock.NowMs();
  m_strReason = "no connection yet";
  m_machine.SetAddresses({address}, 0);
}

void CBulkLink::Leave(bool bPolite) {
  m_bFollows = false;
  m_bMissLogged = false;
  if (bPolite)
    m_connection.Close(true);
  m_machine.SetAddresses({}, 0);
  m_connection.Close(false);
  m_bUp.store(false);
}

bool CBulkLink::IsMissed() const {
  return !m_bFollows || (!m_bUp.load() && m_ports.clock.NowMs() >= m_u64Down + m_ports.times.dwUploadGrace);
}

void CBulkLink::OnTime() {
  m_machine.OnTime();
  m_connection.CheckLife();
  ReportFailure();
  if (!m_bFollows || !IsMissed() || (m_bMissLogged && m_strReason == m_strLogged))
    return;
  m_bMissLogged = true;
  m_strLogged = m_strReason;
  if (m_quiet.Due(m_ports.clock.NowMs(), m_strReason))
    m_ports.log.LogWarn("*zxcloud upload connection not up, uploads go with the commands addr[%s] reason[%s]",
                        m_machine.Current().Text(), m_strReason);
}

void CBulkLink::ReportFailure() {
  while (const auto failure = m_connection.TakeFailure()) {
    m_ports.log.LogDetail("zxcloud upload connection ended addr[%s] kind[%d] reason[%s]",
                          m_machine.Current().Text(), failure->eKind, failure->strReason);
    m_strReason = failure->strReason;
    if (failure->eKind == EMqttFailure::Refused)
      m_machine.OnRefused(failure->strReason);
    else
      m_machine.OnFailed(failure->strReason);
  }
}

uint64_t CBulkLink::Deadline() const {
  uint64_t u64Due = m_machine.Deadline();
  const auto Earlier = [&u64Due](uint64_t u64Other) {
    if (u64Other != 0)
      u64Due = u64Due == 0 ? u64Other : std::min(u64Due, u64Other);
  };
  Earlier(m_connection.LifeDeadline());
  if (m_bFollows && !m_bUp.load() && !m_bMissLogged)
    Earlier(m_u64Down + m_ports.times.dwUploadGrace);
  return u64Due;
}

void CBulkLink::Dial(const _CloudAddress&) {
  m_connection.Open(m_open, m_strUpPrefix);
}

void CBulkLink::Hangup() {
  m_strReason = "no answer within the time-out";
  m_connection.Close(false);
}

void CBulkLink::LinkUp(const _CloudAddress& address) {
  m_bUp.store(true);
  if (std::exchange(m_bMissLogged, false))
    m_ports.log.LogInfo("zxcloud upload connection up again addr[%s] local[%s]", address.Text(),
                        m_connection.Transport().LocalEnd());
  else
    m_ports.log.LogDetail("zxcloud upload connection up addr[%s] local[%s]", address.Text(),
                          m_connection.Transport().LocalEnd());
}

void CBulkLink::LinkDown(const std::string&) {
  m_bUp.store(false);
  m_u64Down = m_ports.clock.NowMs();
  m_connection.Close(false);
}

void CBulkLink::LinkWaits(const std::string&, uint32_t) {}

}  // namespace zxcloud
