#include "platform/cloud/LinkConnection.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace zxcloud {

namespace {

constexpr size_t kSlowBytesPerMs = 16;
constexpr size_t kTurnBytes = 64u << 10;  // the other connection has its turn after this much
// The library pings after the keep-alive, looked at every quarter of it; the answer has this much more.
constexpr uint64_t kPingAnswerMs = 15000;

}  // namespace

CLinkConnection::CLinkConnection(_Ports ports, const TTransports& fnTransport)
    : m_ports(std::move(ports)), m_pTransport(fnTransport(*this)) {}

void CLinkConnection::Open(const _MqttOpen& open, const std::string& strUpPrefix) {
  Close(false);
  m_bTcpUp = false;
  m_iKeepAliveSec = open.iKeepAliveSec;
  m_strUpPrefix = strUpPrefix;
  _LinkFailure failure;
  if (m_pTransport->Open(open, failure.eKind, failure.strReason))
    m_bNewSocket = true;
  else
    m_failure = std::move(failure);
}

void CLinkConnection::Close(bool bPolite) {
  m_bReady = false;
  m_failure.reset();
  m_pTransport->Close(bPolite);
  m_window.GiveBack([this](uint64_t u64Seq) {
    m_ports.confirms.Forget(u64Seq);
    m_ports.outbox.Return(u64Seq);
  });
}

void CLinkConnection::Fail(EMqttFailure eKind, const std::string& strReason) {
  m_bReady = false;
  m_pTransport->Close(false);
  m_failure = _LinkFailure{eKind, strReason};
}

std::optional<_LinkFailure> CLinkConnection::TakeFailure() {
  return std::exchange(m_failure, std::nullopt);
}

void CLinkConnection::OnTcpUp() {
  m_bTcpUp = true;
  m_ports.machine.OnStage(ELinkStage::Connack);
}

void CLinkConnection::OnConnack() {
  m_ports.machine.OnStage(ELinkStage::Ready);
}

void CLinkConnection::OnSubscribed() {
  m_bReady = true;
  m_u64Alive = m_ports.clock.NowMs();
  m_ports.machine.OnReady();
}

void CLinkConnection::OnClosed(EMqttFailure eFailure, const std::string& strReason) {
  m_bReady = false;
  m_failure = _LinkFailure{eFailure, strReason};
}

void CLinkConnection::OnAck(uint64_t u64Token) {
  // Where the cloud confirms, the broker's word frees the window only.
  if (!m_window.Acknowledged(u64Token, m_ports.clock.NowMs()) || m_ports.confirms.Waits(u64Token))
    return;
  m_ports.outbox.Done(u64Token);
  m_ports.waiters.Complete(u64Token, 0);
}

void CLinkConnection::Confirmed(uint64_t u64Seq) {
  m_window.Acknowledged(u64Seq, m_ports.clock.NowMs());
}

void CLinkConnection::OnPush(std::string_view svTopic, std::string_view svPayload) {
  if (m_ports.fnPush)
    m_ports.fnPush(svTopic, svPayload);
}

void CLinkConnection::OnAlive() {
  m_u64Alive = m_ports.clock.NowMs();
}

bool CLinkConnection::Publish(const _OutItem& item) {
  m_window.Sent(item.u64Seq, item.Bytes(), m_ports.clock.NowMs());
  m_ports.confirms.Sent(item, this, m_ports.clock.NowMs());
  m_strTopic.assign(m_strUpPrefix).append(std::to_string(item.iPriority));
  return m_pTransport->Publish(item.u64Seq, m_strTopic, item.strWire);
}

// While the socket is full nothing more is handed over: it would wait in the library, twice in memory and
// out of reach of what is more urgent.
bool CLinkConnection::Pump(const _WindowSize& size, ELane eLane, CDrainRate& drain) {
  size_t uSent = 0;
  while (m_bReady && uSent < kTurnBytes && !m_pTransport->WantWrite()) {
    _OutRoom room = m_window.Room(size);
    m_ports.confirms.Limit(room);
    if (room.uMessages == 0)
      break;
    room.eLane = eLane;
    room.bWaitedOnly = drain.Limits() && !drain.Admits(m_ports.clock.NowMs());
    const TOutItem pItem = m_ports.outbox.Take(room);
    if (pItem == nullptr)
      break;
    if (!pItem->bWaited)
      drain.Took(pItem->Bytes());
    uSent += pItem->Bytes();
    if (!Publish(*pItem))
      break;
  }
  if (uSent != 0)
    m_pTransport->OnIo(false, false, false);
  return m_bReady && uSent >= kTurnBytes && !m_pTransport->WantWrite();
}

void CLinkConnection::Tick() {
  if (m_bReady)
    m_pTransport->OnTick();
}

// What is under way must be answered in a time that a slow line still keeps.
void CLinkConnection::CheckLife() {
  if (!m_bReady || m_ports.clock.NowMs() < LifeDeadline())
    return;
  const bool bAckAge = !m_window.Empty() && m_ports.clock.NowMs() >= m_window.Progress() +
                                                                         m_ports.times.dwAckAge +
                                                                         m_window.Bytes() / kSlowBytesPerMs;
  if (bAckAge)
    Fail(EMqttFailure::Network, "sent messages stay unacknowledged");
  else if (LifeDeadline() != 0)
    Fail(EMqttFailure::Network, "no sign of life from the far side");
}

uint64_t CLinkConnection::LifeDeadline() const {
  if (!m_bReady)
    return 0;
  uint64_t u64Due = 0;
  if (m_iKeepAliveSec > 0)
    u64Due = m_u64Alive + static_cast<uint64_t>(m_iKeepAliveSec) * 1250 + kPingAnswerMs;
  if (!m_window.Empty()) {
    const uint64_t u64Ack = m_window.Progress() + m_ports.times.dwAckAge + m_window.Bytes() / kSlowBytesPerMs;
    u64Due = u64Due == 0 ? u64Ack : std::min(u64Due, u64Ack);
  }
  return u64Due;
}

void CLinkConnection::Watch(int fdEpoll, uint32_t uTag) {
  m_bNewSocket = false;
  const int fd = m_pTransport->Descriptor();
  if (fd < 0)
    return;
  epoll_event event{};
  event.events = EPOLLIN | (m_pTransport->WantWrite() ? EPOLLOUT : 0u);
  event.data.u32 = uTag;
  if (fd == m_fdWatched && event.events == m_uInterest)
    return;
  if (epoll_ctl(fdEpoll, fd == m_fdWatched ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &event) != 0) {
    Fail(EMqttFailure::Network, strerrordesc_np(errno));
    return;
  }
  m_fdWatched = fd;
  m_uInterest = event.events;
}

void CLinkConnection::OnIo(uint32_t uEvents) {
  m_pTransport->OnIo((uEvents & EPOLLIN) != 0, (uEvents & EPOLLOUT) != 0,
                     (uEvents & (EPOLLERR | EPOLLHUP)) != 0);
}

}  // namespace zxcloud
