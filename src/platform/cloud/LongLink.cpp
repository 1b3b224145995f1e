#include "platform/cloud/LongLink.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/cloud/zxcloud.h"

namespace zxcloud {

namespace {

constexpr int kMaxEvents = 4;
constexpr size_t kMaxNumberDigits = 9;
// What an event of the epoll belongs to.
enum : uint32_t { kTagWakeup, kTagCommand, kTagBulk, kTagCount };

constexpr char kBulkSuffix[] = "-up";  // behind the machine id: the client id of bulk data

std::string TopicBase(const std::string& strMid) {
  return "zx/v1/" + strMid;
}

std::string UpPrefix(const std::string& strMid) {
  return TopicBase(strMid) + "/up/";
}

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
      m_machine(m_ports.times, m_ports.clock, m_ports.random, *this),
      m_command(
          {m_ports.times, m_ports.clock, m_ports.outbox, m_ports.waiters, m_confirms, m_machine,
           [this](std::string_view svTopic, std::string_view svPayload) { OnPush(svTopic, svPayload); }},
          fnTransport),
      m_bulk({m_ports.times, m_ports.clock, m_ports.random, m_ports.outbox, m_ports.waiters, m_confirms,
              m_ports.log},
             fnTransport),
      m_quiet(m_ports.times.dwQuietLog) {}

CLongLink::~CLongLink() {
  if (m_fdEpoll >= 0)
    close(m_fdEpoll);
}

bool CLongLink::Init() {
  return m_pWakeup->Descriptor() >= 0 && RenewEpoll();
}

// No socket that is gone stays watched: one that a forked child still holds stays registered when we close
// it, and its events would come for ever.
bool CLongLink::RenewEpoll() {
  if (m_fdEpoll >= 0)
    close(m_fdEpoll);
  m_command.Forget();
  m_bulk.Connection().Forget();
  m_fdEpoll = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u32 = kTagWakeup;
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

_LongStatus CLongLink::Status() {
  const bool bBulkUp = m_bulk.IsUp();
  CCritLock lock(m_cs);
  return {m_strUpAddress, bBulkUp, m_u64Ups > 0 ? m_u64Ups - 1 : 0};
}

void CLongLink::MarkDown() {
  m_u64Down.store(std::max<uint64_t>(m_ports.clock.NowMs(), 1));
}

void CLongLink::Run() {
  while (RunOnce(-1)) {
  }
  // The outbox keeps what was under way until the library object goes.
  m_bulk.Leave(true);
  m_command.Close(true);
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
  m_command.CheckLife();
  ReportFailure();
  SendAgain(m_confirms.TakeLate(m_ports.clock.NowMs()));
  m_bulk.OnTime();
  const bool bMore = Pump();
  Watch();
  WaitAndHandle(bMore ? 0 : WaitMs(iMaxWaitMs));
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
  if (!m_settings.bConfirm) {
    m_confirms.Use(false);
    SendAgain(m_confirms.TakeAll());
  }
  m_machine.SetRetryMax(m_settings.uRetryMaxSec);
  m_bulk.SetRetryMax(m_settings.uRetryMaxSec);
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
    m_command.Fail(EMqttFailure::Network, strError);
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
      m_command.Fail(EMqttFailure::Network, strError);
      return;
  }
}

_MqttOpen CLongLink::OpenOf(const std::string& strIp) const {
  _MqttOpen open;
  open.strIp = strIp;
  open.strHost = m_dialled.strHost;
  open.wPort = m_dialled.wPort;
  open.bPlain = m_dialled.bPlain;
  open.iKeepAliveSec = m_settings.iKeepAliveSec;
  return open;
}

void CLongLink::OpenNextIp() {
  m_strIp = m_listIps.front();
  m_listIps.erase(m_listIps.begin());
  m_strMid = m_settings.strMid;
  m_strPushPrefix = TopicBase(m_strMid) + "/push/";
  _MqttOpen open = OpenOf(m_strIp);
  open.strClientId = m_strMid;
  open.strSubscribe = m_strPushPrefix + "+";
  m_strAckTopic = TopicBase(m_strMid) + "/ack";
  m_confirms.Use(m_settings.bConfirm);
  if (m_settings.bConfirm)
    open.strAlsoSubscribe = m_strAckTopic;
  open.strStatusTopic = TopicBase(m_strMid) + "/status";
  m_command.Open(open, UpPrefix(m_strMid));
}

void CLongLink::FollowWithBulk(const _CloudAddress& address) {
  if (!m_settings.bBulkLink)
    return;
  _MqttOpen open = OpenOf(m_strIp);
  open.strClientId = m_strMid + kBulkSuffix;
  m_bulk.Follow(address, std::move(open), UpPrefix(m_strMid));
}

// Events of the machine come from here and not from inside its actions.
void CLongLink::ReportFailure() {
  while (const auto failure = m_command.TakeFailure()) {
    m_ports.log.LogDetail("zxcloud connection ended addr[%s] ip[%s] kind[%d] reason[%s]", m_dialled.Text(),
                          m_strIp, failure->eKind, failure->strReason);
    if (!m_command.TcpUp() && failure->eKind == EMqttFailure::Network && !m_listIps.empty()) {
      m_machine.OnStage(ELinkStage::Dial);
      OpenNextIp();
    } else if (failure->eKind == EMqttFailure::Refused) {
      m_machine.OnRefused(failure->strReason);
    } else {
      m_machine.OnFailed(failure->strReason);
    }
  }
}

void CLongLink::Hangup() {
  m_ports.log.LogDetail("zxcloud connection given up addr[%s] ip[%s]", m_dialled.Text(), m_strIp);
  m_bResolving = false;
  m_bulk.Leave(false);
  m_command.Close(false);
  SendAgain(m_confirms.TakeAll());
}

void CLongLink::LinkUp(const _CloudAddress& address) {
  const IMqttTransport& transport = m_command.Transport();
  const std::string strLocal = transport.LocalEnd();
  const std::string strRemote = HostPort(transport.RemoteIp(), transport.RemotePort());
  {
    CCritLock lock(m_cs);
    m_strUpAddress = address.Text();
    ++m_u64Ups;
  }
  m_u64NextTick = m_ports.clock.NowMs() + m_command.TickMs();
  // Fresh work is not a backlog.
  m_drain.Begin(m_ports.outbox.State().u64Waiting == 0 ? 0 : m_settings.uDrainPerSec, m_ports.clock.NowMs());
  m_quiet.Reset();
  m_bUp.store(true);
  m_ports.log.LogInfo("zxcloud long connection up addr[%s] local[%s] remote[%s]", address.Text(), strLocal,
                      strRemote);
  FollowWithBulk(address);
  m_ports.callbacks.Data(EData::Long, strLocal + ";" + strRemote);
  m_ports.callbacks.Connect(transport.RemoteIp(), transport.RemotePort());
}

void CLongLink::LinkDown(const std::string& strReason) {
  m_bUp.store(false);
  MarkDown();
  {
    CCritLock lock(m_cs);
    m_strUpAddress.clear();
  }
  m_bulk.Leave(false);
  m_command.Close(false);
  SendAgain(m_confirms.TakeAll());
  const std::string strTold = m_machine.Current().Text() + ": " + strReason;
  m_ports.errors.Note(strTold);
  m_quiet.Due(m_ports.clock.NowMs(), strTold);
  m_ports.log.LogWarn("*zxcloud long connection lost addr[%s] reason[%s]", m_machine.Current().Text(),
                      strReason);
  m_ports.callbacks.Disconnect();
  m_ports.fnDown();
}

void CLongLink::LinkWaits(const std::string& strReasons, uint32_t dwDelayMs) {
  m_ports.errors.Note(strReasons);
  if (m_quiet.Due(m_ports.clock.NowMs(), strReasons))
    m_ports.log.LogWarn("*zxcloud long connection not up, next attempt in ms[%u] reasons[%s]", dwDelayMs,
                        strReasons);
  m_ports.fnDown();
}

// One wake-up for the keep-alive of both connections.
void CLongLink::Tick() {
  const uint32_t dwTick = m_command.TickMs();
  if (!m_bUp.load() || dwTick == 0 || m_ports.clock.NowMs() < m_u64NextTick)
    return;
  m_u64NextTick = m_ports.clock.NowMs() + dwTick;
  m_command.Tick();
  m_bulk.Connection().Tick();
}

// True: there is more to send than one turn allows.
bool CLongLink::Pump() {
  if (!m_bUp.load())
    return false;
  const bool bAlone = m_bulk.IsMissed();
  bool bMore =
      m_command.Pump(bAlone ? kBulkWindow : kCommandWindow, bAlone ? ELane::Any : ELane::Command, m_drain);
  bMore = m_bulk.Connection().Pump(kBulkWindow, ELane::Bulk, m_drain) || bMore;
  if (m_drain.Limits() && m_ports.outbox.State().u64Waiting == 0)
    m_drain.End();
  ReportFailure();
  m_bulk.ReportFailure();
  return bMore;
}

void CLongLink::OnPush(std::string_view svTopic, std::string_view svPayload) {
  if (svTopic == m_strAckTopic)
    return OnConfirms(svPayload);
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

// On disk at the cloud, or refused by it for good: either way it is done.
void CLongLink::OnConfirms(std::string_view svPayload) {
  const bool bWhole = m_confirms.Take(svPayload, [this](uint64_t u64Seq, bool bStored) {
    m_command.Confirmed(u64Seq);
    m_bulk.Connection().Confirmed(u64Seq);
    m_ports.outbox.Done(u64Seq);
    m_ports.waiters.Complete(u64Seq, bStored ? 0u : uint32_t{kZxcloudErrRefused});
    if (!bStored)
      m_ports.log.LogWarn("*zxcloud upload refused by the cloud for good seq[%llu]", u64Seq);
  });
  if (!bWhole)
    m_ports.log.LogWarn("*zxcloud confirmation not understood length[%u]",
                        static_cast<uint32_t>(svPayload.size()));
}

// A confirmation that is missing may be lost, or the upload itself: the cloud drops what it has.
void CLongLink::SendAgain(const std::vector<uint64_t>& listSeqs) {
  for (const uint64_t u64Seq : listSeqs) {
    m_command.Confirmed(u64Seq);
    m_bulk.Connection().Confirmed(u64Seq);
    m_ports.outbox.Return(u64Seq);
  }
}

int CLongLink::WaitMs(int iMaxWaitMs) {
  if (m_command.HasFailure() || m_bulk.Connection().HasFailure())
    return 0;
  const uint64_t u64Now = m_ports.clock.NowMs();
  uint64_t u64Due = m_machine.Deadline();
  const auto Earlier = [&u64Due](uint64_t u64Other) {
    if (u64Other != 0)
      u64Due = u64Due == 0 ? u64Other : std::min(u64Due, u64Other);
  };
  if (m_bUp.load() && m_command.TickMs() != 0)
    Earlier(m_u64NextTick);
  Earlier(m_command.LifeDeadline());
  Earlier(m_bulk.Deadline());
  Earlier(m_confirms.Deadline());
  if (m_bUp.load() && m_drain.Limits() && !m_drain.Admits(u64Now))
    Earlier(m_drain.NextMs());
  if (u64Due == 0)
    return iMaxWaitMs;
  const int iWait = u64Due <= u64Now ? 0 : static_cast<int>(std::min<uint64_t>(u64Due - u64Now, 3600000));
  return iMaxWaitMs < 0 ? iWait : std::min(iWait, iMaxWaitMs);
}

void CLongLink::Watch() {
  if ((m_command.IsStale() || m_bulk.Connection().IsStale()) && !RenewEpoll()) {
    m_bulk.Leave(false);
    m_command.Fail(EMqttFailure::Network, "out of descriptors");
    return;
  }
  m_command.Watch(m_fdEpoll, kTagCommand);
  m_bulk.Connection().Watch(m_fdEpoll, kTagBulk);
}

void CLongLink::WaitAndHandle(int iWaitMs) {
  epoll_event events[kMaxEvents];
  const bool bFailed = m_command.HasFailure() || m_bulk.Connection().HasFailure();
  const bool bMayWait = m_pWakeup->BeginWait() && !bFailed;
  const int iCount = epoll_wait(m_fdEpoll, events, kMaxEvents, bMayWait ? iWaitMs : 0);
  uint32_t uEvents[kTagCount] = {};
  for (int i = 0; i < iCount; ++i)
    uEvents[events[i].data.u32] = events[i].events;
  m_pWakeup->EndWait(uEvents[kTagWakeup] != 0);
  if (uEvents[kTagCommand] != 0) {
    m_command.OnIo(uEvents[kTagCommand]);
    ReportFailure();
  }
  if (uEvents[kTagBulk] != 0)
    m_bulk.Connection().OnIo(uEvents[kTagBulk]);
  ReportFailure();
  m_bulk.ReportFailure();
}

}  // namespace zxcloud
