#include "platform/cloud/LongLink.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace zxcloud {

namespace {

constexpr int kMaxEvents = 4;
constexpr size_t kMaxNumberDigits = 9;
constexpr size_t kSlowBytesPerMs = 16;

}  // namespace

int PushNumber(std::string_view svTopic, std::string_view svPrefix) {
  if (svTopic.substr(0, svPrefix.size()) != svPrefix)
    return -1;
  svTopic.remove_prefix(svPrefix.size());
  if (svTopic.empty() || svTopic.size() > kMaxNumberDigits)
    return -1;
  int iNumber = 0;
  for (const char ch : svTopic) {
    if (ch < '0' || ch > '9')
      return -1;
    iNumber = iNumber * 10 + (ch - '0');
  }
  return iNumber;
}

CLongLink::CLongLink(_Ports ports, const TTransports& fnTransport, CResolver::TResolve pfnResolve)
    : m_ports(std::move(ports)),
      m_pWakeup(std::make_shared<CWakeup>()),
      m_resolver(m_pWakeup, pfnResolve),
      m_pTransport(fnTransport(*this)),
      m_machine(m_ports.times, m_ports.clock, m_ports.random, *this),
      m_quiet(m_ports.times.dwQuietLog) {
  m_listUnderWay.reserve(kWindowMessages);
}

CLongLink::~CLongLink() {
  if (m_fdEpoll >= 0)
    close(m_fdEpoll);
}

bool CLongLink::Init() {
  return m_pWakeup->Descriptor() >= 0 && RenewEpoll();
}

// Each connection has an epoll of its own: a socket that a forked child still holds stays registered when we
// close it, and its events would come under a number that is another socket's by then.
bool CLongLink::RenewEpoll() {
  if (m_fdEpoll >= 0)
    close(m_fdEpoll);
  m_fdWatched = -1;
  m_fdEpoll = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = m_pWakeup->Descriptor();
  return m_fdEpoll >= 0 && epoll_ctl(m_fdEpoll, EPOLL_CTL_ADD, m_pWakeup->Descriptor(), &event) == 0;
}

void CLongLink::Configure(_LongSettings settings) {
  if (!settings.listAddresses.empty() && m_u64Down.load() == 0)
    MarkDown();
  {
    CCritLock lock(m_cs);
    m_newSettings = std::move(settings);
  }
  Wake();
}

void CLongLink::Stop() {
  m_bStop.store(true);
  Wake();
}

std::string CLongLink::UpAddress() {
  CCritLock lock(m_cs);
  return m_strUpAddress;
}

void CLongLink::MarkDown() {
  m_u64Down.store(std::max<uint64_t>(m_ports.clock.NowMs(), 1));
}

void CLongLink::Run() {
  while (RunOnce(-1)) {
  }
  // The outbox keeps what was under way until the library object goes.
  m_pTransport->Close(true);
  m_bUp.store(false);
}

bool CLongLink::RunOnce(int iMaxWaitMs) {
  if (m_bStop.load())
    return false;
  TakeSettings();
  TakeLookup();
  ReportFailure();
  m_machine.OnTime();
  Tick();
  CheckAckAge();
  Pump();
  SyncInterest();
  WaitAndHandle(WaitMs(iMaxWaitMs));
  return !m_bStop.load();
}

void CLongLink::TakeSettings() {
  std::optional<_LongSettings> settings;
  {
    CCritLock lock(m_cs);
    settings.swap(m_newSettings);
  }
  if (!settings.has_value())
    return;
  m_settings = *std::move(settings);
  m_machine.SetAddresses(m_settings.listAddresses, m_settings.uSpreadSec);
  if (m_settings.listAddresses.empty()) {
    m_u64Down.store(0);
    m_ports.fnDown();
  }
}

void CLongLink::Dial(const _CloudAddress& address) {
  m_dialled = address;
  m_listIps.clear();
  m_bResolving = false;
  std::string strError;
  if (IsIpLiteral(address.strHost)) {
    m_listIps.push_back(address.strHost);
    OpenNextIp();
  } else if (m_resolver.Ask(address.strHost, strError)) {
    m_bResolving = true;
  } else {
    m_failure = _Failure{EMqttFailure::Network, strError};
  }
}

void CLongLink::TakeLookup() {
  if (!m_bResolving)
    return;
  std::string strError;
  switch (m_resolver.Take(m_listIps, strError)) {
    case CResolver::EAnswer::None:
      return;
    case CResolver::EAnswer::Found:
      m_bResolving = false;
      m_machine.OnStage(ELinkStage::Dial);
      OpenNextIp();
      return;
    case CResolver::EAnswer::Failed:
      m_bResolving = false;
      m_failure = _Failure{EMqttFailure::Network, strError};
      return;
  }
}

void CLongLink::OpenNextIp() {
  m_bTcpUp = false;
  _MqttOpen open;
  open.strIp = m_listIps.front();
  m_listIps.erase(m_listIps.begin());
  m_strIp = open.strIp;
  open.strHost = m_dialled.strHost;
  open.wPort = m_dialled.wPort;
  open.bPlain = m_dialled.bPlain;
  open.strClientId = m_settings.strMid;
  open.iKeepAliveSec = m_settings.iKeepAliveSec;
  const std::string strBase = "zx/v1/" + m_settings.strMid;
  m_strPushPrefix = strBase + "/push/";
  m_strUpPrefix = strBase + "/up/";
  open.strSubscribe = m_strPushPrefix + "+";
  open.strStatusTopic = strBase + "/status";
  _Failure failure;
  m_pTransport->Close(false);
  if (!RenewEpoll())
    m_failure = _Failure{EMqttFailure::Network, "out of descriptors"};
  else if (!m_pTransport->Open(open, failure.eKind, failure.strReason))
    m_failure = std::move(failure);
}

// Events of the machine come from here and not from inside its actions.
void CLongLink::ReportFailure() {
  while (m_failure.has_value()) {
    const _Failure failure = *std::exchange(m_failure, std::nullopt);
    m_ports.log.LogDetail("zxcloud connection ended addr[%s] ip[%s] kind[%d] reason[%s]", m_dialled.Text(),
                          m_strIp, failure.eKind, failure.strReason);
    if (!m_bTcpUp && failure.eKind == EMqttFailure::Network && !m_listIps.empty()) {
      m_machine.OnStage(ELinkStage::Dial);
      OpenNextIp();
    } else if (failure.eKind == EMqttFailure::Refused) {
      m_machine.OnRefused(failure.strReason);
    } else {
      m_machine.OnFailed(failure.strReason);
    }
  }
}

void CLongLink::Hangup() {
  m_ports.log.LogDetail("zxcloud connection given up addr[%s] ip[%s]", m_dialled.Text(), m_strIp);
  m_bResolving = false;
  m_failure.reset();
  m_pTransport->Close(false);
  ReturnAll();
}

void CLongLink::OnTcpUp() {
  m_bTcpUp = true;
  m_machine.OnStage(ELinkStage::Connack);
}

void CLongLink::OnConnack() {
  m_machine.OnStage(ELinkStage::Ready);
}

void CLongLink::OnSubscribed() {
  m_machine.OnReady();
}

void CLongLink::OnClosed(EMqttFailure eFailure, const std::string& strReason) {
  m_failure = _Failure{eFailure, strReason};
}

void CLongLink::LinkUp(const _CloudAddress& address) {
  const std::string strLocal = m_pTransport->LocalEnd();
  const std::string strRemote = HostPort(m_pTransport->RemoteIp(), m_pTransport->RemotePort());
  {
    CCritLock lock(m_cs);
    m_strUpAddress = address.Text();
  }
  m_u64NextTick = m_ports.clock.NowMs() + m_pTransport->TickMs();
  m_quiet.Reset();
  m_bUp.store(true);
  m_ports.log.LogInfo("zxcloud long connection up addr[%s] local[%s] remote[%s]", address.Text(), strLocal,
                      strRemote);
  m_ports.callbacks.Data(EData::Long, strLocal + ";" + strRemote);
  m_ports.callbacks.Connect(m_pTransport->RemoteIp(), m_pTransport->RemotePort());
}

void CLongLink::LinkDown(const std::string& strReason) {
  m_bUp.store(false);
  MarkDown();
  {
    CCritLock lock(m_cs);
    m_strUpAddress.clear();
  }
  m_pTransport->Close(false);
  ReturnAll();
  m_quiet.Due(m_ports.clock.NowMs());
  m_ports.log.LogWarn("*zxcloud long connection lost addr[%s] reason[%s]", m_machine.Current().Text(),
                      strReason);
  m_ports.callbacks.Disconnect();
  m_ports.fnDown();
}

void CLongLink::LinkWaits(const std::string& strReasons, uint32_t dwDelayMs) {
  if (m_quiet.Due(m_ports.clock.NowMs()))
    m_ports.log.LogWarn("*zxcloud long connection not up, next attempt in ms[%u] reasons[%s]", dwDelayMs,
                        strReasons);
  m_ports.fnDown();
}

void CLongLink::Tick() {
  const uint32_t dwTick = m_pTransport->TickMs();
  if (!m_bUp.load() || dwTick == 0 || m_ports.clock.NowMs() < m_u64NextTick)
    return;
  m_u64NextTick = m_ports.clock.NowMs() + dwTick;
  m_pTransport->OnTick();
  ReportFailure();
}

// What is under way must be answered in a time that a slow line still keeps.
uint64_t CLongLink::AckDeadline() const {
  return m_u64Progress + m_ports.times.dwAckAge + m_uBytesUnderWay / kSlowBytesPerMs;
}

void CLongLink::CheckAckAge() {
  if (m_listUnderWay.empty() || m_ports.clock.NowMs() < AckDeadline())
    return;
  m_pTransport->Close(false);
  m_machine.OnFailed("sent messages stay unacknowledged");
}

void CLongLink::Pump() {
  if (!m_bUp.load())
    return;
  bool bOpen = true;
  while (bOpen) {
    _OutRoom room;
    room.bIdle = m_listUnderWay.empty();
    room.uMessages = kWindowMessages - static_cast<uint32_t>(m_listUnderWay.size());
    room.uBytes = kWindowBytes - std::min(kWindowBytes, m_uBytesUnderWay);
    room.uReserveMessages = kReserveMessages;
    room.uReserveBytes = kReserveBytes;
    const TOutItem pItem = m_ports.outbox.Take(room);
    if (pItem == nullptr)
      return;
    if (room.bIdle)
      m_u64Progress = m_ports.clock.NowMs();
    m_listUnderWay.push_back({pItem->u64Seq, pItem->Bytes()});
    m_uBytesUnderWay += pItem->Bytes();
    m_strTopic.assign(m_strUpPrefix).append(std::to_string(pItem->iPriority));
    bOpen = m_pTransport->Publish(pItem->u64Seq, m_strTopic, pItem->strWire);
  }
  m_pTransport->OnIo(false, false, false);
  ReportFailure();
}

void CLongLink::OnAck(uint64_t u64Token) {
  const auto it = std::find_if(m_listUnderWay.begin(), m_listUnderWay.end(),
                               [&](const _UnderWay& entry) { return entry.u64Seq == u64Token; });
  if (it == m_listUnderWay.end())
    return;
  m_uBytesUnderWay -= it->uBytes;
  m_listUnderWay.erase(it);
  m_u64Progress = m_ports.clock.NowMs();
  m_ports.outbox.Done(u64Token);
  m_ports.waiters.Complete(u64Token, 0);
}

void CLongLink::OnPush(std::string_view svTopic, std::string_view svPayload) {
  const int iNumber = PushNumber(svTopic, m_strPushPrefix);
  if (iNumber < 0 || svPayload.size() > kMaxPushBytes || svPayload.find('\0') != std::string_view::npos) {
    m_ports.log.LogWarn("*zxcloud push refused topic length[%u] number[%d] length[%u]",
                        static_cast<uint32_t>(svTopic.size()), iNumber,
                        static_cast<uint32_t>(svPayload.size()));
    return;
  }
  m_strPush.assign(svPayload);
  m_ports.callbacks.Push(iNumber, m_strPush.c_str());
}

void CLongLink::ReturnAll() {
  for (const _UnderWay& entry : m_listUnderWay)
    m_ports.outbox.Return(entry.u64Seq);
  m_listUnderWay.clear();
  m_uBytesUnderWay = 0;
}

int CLongLink::WaitMs(int iMaxWaitMs) const {
  if (m_failure.has_value())
    return 0;
  uint64_t u64Due = m_machine.Deadline();
  const auto Earlier = [&u64Due](uint64_t u64Other) {
    u64Due = u64Due == 0 || u64Other < u64Due ? u64Other : u64Due;
  };
  if (m_bUp.load() && m_pTransport->TickMs() != 0)
    Earlier(m_u64NextTick);
  if (!m_listUnderWay.empty())
    Earlier(AckDeadline());
  if (u64Due == 0)
    return iMaxWaitMs;
  const uint64_t u64Now = m_ports.clock.NowMs();
  const int iWait = u64Due <= u64Now ? 0 : static_cast<int>(std::min<uint64_t>(u64Due - u64Now, 3600000));
  return iMaxWaitMs < 0 ? iWait : std::min(iWait, iMaxWaitMs);
}

void CLongLink::SyncInterest() {
  const int fd = m_pTransport->Descriptor();
  if (fd < 0) {
    m_fdWatched = -1;
    return;
  }
  epoll_event event{};
  event.events = EPOLLIN | (m_pTransport->WantWrite() ? EPOLLOUT : 0u);
  event.data.fd = fd;
  if (fd == m_fdWatched && event.events == m_uInterest)
    return;
  const int iWhat = fd == m_fdWatched ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  if (epoll_ctl(m_fdEpoll, iWhat, fd, &event) != 0) {
    m_pTransport->Close(false);
    m_failure = _Failure{EMqttFailure::Network, strerrordesc_np(errno)};
    return;
  }
  m_fdWatched = fd;
  m_uInterest = event.events;
}

void CLongLink::WaitAndHandle(int iWaitMs) {
  epoll_event events[kMaxEvents];
  const int iCount = epoll_wait(m_fdEpoll, events, kMaxEvents, m_failure.has_value() ? 0 : iWaitMs);
  for (int i = 0; i < iCount; ++i) {
    if (events[i].data.fd == m_pWakeup->Descriptor()) {
      m_pWakeup->Clear();
      continue;
    }
    const uint32_t uEvents = events[i].events;
    m_pTransport->OnIo((uEvents & EPOLLIN) != 0, (uEvents & EPOLLOUT) != 0,
                       (uEvents & (EPOLLERR | EPOLLHUP)) != 0);
  }
  ReportFailure();
}

}  // namespace zxcloud
