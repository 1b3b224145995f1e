#include "platform/cloud/ShortLink.h"

#include <algorithm>
#include <utility>

namespace zxcloud {

namespace {

constexpr uint32_t kIdleMs = 3600000;
constexpr uint32_t kNotReadyMs = 1000;  // a wake-up comes when it is ready
constexpr uint32_t kRefreshJitterPart = 10;
constexpr size_t kUploadBytesPerMs = 64;  // slower than this is taken for a dead peer

// Ephemeral ports change with every connection and say nothing.
std::string EndsKey(const _HttpAnswer& answer) {
  return answer.strLocal.substr(0, answer.strLocal.rfind(':')) + ";" + answer.strRemote;
}

// Refused for good: 4xx except time-out and "too many".
bool IsFinal(const _HttpAnswer& answer) {
  return answer.eError == ENetError::None && answer.iStatus >= 400 && answer.iStatus < 500 &&
         answer.iStatus != 408 && answer.iStatus != 429;
}

bool TryNextAddress(const _HttpAnswer& answer) {
  return answer.eError == ENetError::None ? answer.iStatus >= 500 : answer.eError != ENetError::Aborted;
}

}  // namespace

uint32_t ErrorOf(const _HttpAnswer& answer) {
  switch (answer.eError) {
    case ENetError::None:
      return kZxcloudErrRefused;
    case ENetError::Tls:
      return kZxcloudErrTls;
    case ENetError::Timeout:
      return kZxcloudErrTimeout;
    case ENetError::Aborted:
      return kZxcloudErrState;
    case ENetError::Network:
    case ENetError::TooLarge:
      break;
  }
  return kZxcloudErrNetwork;
}

CShortLink::CShortLink(const _Ports& ports, _Settings settings)
    : m_ports(ports),
      m_settings(std::move(settings)),
      m_backoffTconf(ports.times.dwBackoffBase, ports.times.dwBackoffCap, ports.random),
      m_backoffUpload(ports.times.dwBackoffBase, ports.times.dwBackoffCap, ports.random),
      m_quietTconf(ports.times.dwQuietLog),
      m_quietPoll(ports.times.dwQuietLog),
      m_quietUpload(ports.times.dwQuietLog) {
  SetRetryMax(m_settings.uRetryMaxSec);
}

CShortLink::~CShortLink() {
  ZxDestroyEvent(m_hEvent);
}

bool CShortLink::Init() {
  m_hEvent = ZxCreateEvent();
  return m_hEvent != nullptr;
}

void CShortLink::Wake() {
  ZxSetEvent(m_hEvent);
}

void CShortLink::OnOptions() {
  m_bOptionsChanged.store(true);
  Wake();
}

void CShortLink::Stop() {
  m_bStop.store(true);
  m_pollWaiters.Stop(kZxcloudErrState);
  Wake();
}

void CShortLink::Run() {
  while (!m_bStop.load()) {
    if (const uint32_t dwWait = RunOnce(); dwWait != 0 && !m_bStop.load())
      ZxWaitEventTimeout(m_hEvent, dwWait);
  }
}

uint32_t CShortLink::RunOnce() {
  if (m_bStop.load())
    return kIdleMs;
  if (_PollJob job; TakeJob(job)) {
    DoPoll(job);
    return 0;
  }
  if (m_bOptionsChanged.exchange(false) && m_bMidMissing)
    m_u64TconfDue = 0;
  const uint64_t u64Now = m_ports.clock.NowMs();
  if (u64Now >= m_u64TconfDue) {
    DoTconf();
    return 0;
  }
  uint32_t dwWait = static_cast<uint32_t>(std::min<uint64_t>(m_u64TconfDue - u64Now, kIdleMs));
  if (UploadDue(u64Now, dwWait)) {
    return DoUpload() ? 0 : kNotReadyMs;
  }
  return dwWait;
}

void CShortLink::SetRetryMax(uint32_t uRetryMaxSec) {
  m_backoffTconf.SetWidest(uRetryMaxSec * 1000);
  m_backoffUpload.SetWidest(uRetryMaxSec * 1000);
}

_HttpRequest CShortLink::Request(const char* pszMethod, const char* pszTarget,
                                 const _CloudOptions& options) const {
  _HttpRequest request;
  request.pszMethod = pszMethod;
  request.strTarget = pszTarget;
  request.listHeaders.push_back("X-Zx-Mid: " + options.strMid);
  request.dwConnectMs = m_ports.times.dwHttpConnect;
  request.dwTotalMs = m_ports.times.dwHttpTotal;
  return request;
}

// Terminal configuration.

_HttpAnswer CShortLink::AskTconf(const _CloudAddress& address, const _CloudOptions& options) const {
  _HttpRequest request = Request("GET", "/v1/tconf?v=1", options);
  request.address = address;
  request.strTarget += "&mid=" + UrlEscape(options.strMid) + "&m2=" + UrlEscape(options.strMid2) +
                       "&pid=" + UrlEscape(m_settings.strChannelId) +
                       "&platid=" + UrlEscape(options.strPlatId) +
                       "&localip=" + UrlEscape(options.strLocalIp);
  request.uMaxAnswer = kMaxTconfBytes;
  return m_ports.http.Do(request);
}

void CShortLink::DoTconf() {
  const _CloudOptions options = m_ports.peer.Options();
  m_bMidMissing = !IsMid(options.strMid);
  if (m_bMidMissing) {
    m_u64TconfDue = m_ports.clock.NowMs() + kIdleMs;  // setting one ends this wait
    if (m_quietTconf.Due(m_ports.clock.NowMs(), "no usable machine id"))
      m_ports.log.LogWarn("*zxcloud no connection without a usable machine id mid length[%u]",
                          static_cast<uint32_t>(options.strMid.size()));
    return;
  }
  std::string strReasons;
  uint32_t uRetryAfter = 0;
  for (size_t i = 0; i < m_settings.listTconf.size(); ++i) {
    const size_t uIndex = (m_uTconf + i) % m_settings.listTconf.size();
    const _CloudAddress& address = m_settings.listTconf[uIndex];
    const _HttpAnswer answer = AskTconf(address, options);
    if (answer.eError == ENetError::Aborted)
      return;
    std::string strReason = answer.Why();
    _TconfAnswer parsed;
    if (answer.Ok() && ParseTconf(answer.strBody, m_settings.bPlainLoopback, parsed, strReason)) {
      m_uTconf = uIndex;
      TconfArrived(address, answer, std::move(parsed));
      return;
    }
    uRetryAfter = std::max(uRetryAfter, answer.uRetryAfterSec);
    strReasons += (i == 0 ? "" : "; ") + address.Text() + ": " + strReason;
  }
  const uint32_t dwDelay = DelayAfter(m_backoffTconf.Next(), uRetryAfter, m_ports.random);
  m_u64TconfDue = m_ports.clock.NowMs() + std::max(dwDelay, 1u);
  m_ports.errors.Note(strReasons);
  if (m_quietTconf.Due(m_ports.clock.NowMs(), strReasons))
    m_ports.log.LogWarn("*zxcloud no terminal configuration, next attempt in ms[%u] reasons[%s]", dwDelay,
                        strReasons);
}

void CShortLink::TconfArrived(const _CloudAddress& address, const _HttpAnswer& answer, _TconfAnswer parsed) {
  m_backoffTconf.Reset();
  m_quietTconf.Reset();
  const uint32_t dwRefresh = parsed.uRefreshSec * 1000;
  // A fleet that started together does not ask together for ever.
  m_u64TconfDue = m_ports.clock.NowMs() + dwRefresh - m_ports.random.Below(dwRefresh / kRefreshJitterPart);
  m_uMaxMessage.store(parsed.uMaxMessage);
  m_uDrainPerSec = parsed.uDrainPerSec;
  SetRetryMax(parsed.uRetryMaxSec != 0 ? parsed.uRetryMaxSec : m_settings.uRetryMaxSec);
  const bool bOwnService = parsed.listShort.empty() || parsed.listShort.front() == address;
  std::vector<_CloudAddress> listShort =
      parsed.listShort.empty() ? std::vector<_CloudAddress>{address} : parsed.listShort;
  if (listShort != m_listShort) {
    m_listShort = std::move(listShort);
    m_uShort = 0;
  }
  {
    CCritLock lock(m_cs);
    m_bShortKnown = true;
  }
  m_ports.log.LogInfo("zxcloud terminal configuration from addr[%s] short[%u] long[%u] refresh[%u]",
                      address.Text(), static_cast<uint32_t>(m_listShort.size()),
                      static_cast<uint32_t>(parsed.listLong.size()), parsed.uRefreshSec);
  m_ports.callbacks.Data(EData::Tconf, address.Text());
  m_ports.callbacks.Tconf(parsed.strPcid);
  m_ports.peer.OnTconf(parsed);
  if (bOwnService)
    ReportEnds(answer);
  else
    ProbeShort();
}

// Opens the short connection, so that its ends are known before the first poll.
void CShortLink::ProbeShort() {
  const _HttpAnswer answer = ToShort(Request("GET", "/v1/health", m_ports.peer.Options()));
  if (answer.eError == ENetError::Aborted)
    return;
  NoteError(answer);
  if (answer.Ok())
    m_quietPoll.Reset();
  else if (m_quietPoll.Due(m_ports.clock.NowMs(), Told(answer)))
    m_ports.log.LogWarn("*zxcloud short connection not up addr[%s] reason[%s]", m_listShort[m_uShort].Text(),
                        answer.Why());
}

// One request to the short service, through its addresses until one answers.
_HttpAnswer CShortLink::ToShort(const _HttpRequest& request) {
  _HttpRequest own = request;
  _HttpAnswer answer;
  for (size_t i = 0; i < m_listShort.size(); ++i) {
    own.address = m_listShort[m_uShort];
    answer = m_ports.http.Do(own);
    if (answer.Ok())
      ReportEnds(answer);
    if (!TryNextAddress(answer))
      return answer;
    m_uShort = (m_uShort + 1) % m_listShort.size();
  }
  return answer;
}

void CShortLink::NoteError(const _HttpAnswer& answer) {
  if (!answer.Ok() && answer.eError != ENetError::Aborted)
    m_ports.errors.Note(Told(answer));
}

std::string CShortLink::Told(const _HttpAnswer& answer) const {
  return m_listShort[m_uShort].Text() + ": " + answer.Why();
}

void CShortLink::ReportEnds(const _HttpAnswer& answer) {
  std::string strKey = EndsKey(answer);
  if (answer.strLocal.empty() || answer.strRemote.empty() || strKey == m_strEnds)
    return;
  m_strEnds = std::move(strKey);
  m_ports.callbacks.Data(EData::Short, answer.strLocal + ";" + answer.strRemote);
}

// Polls.

uint32_t CShortLink::Poll(std::string_view svQuery) {
  uint64_t u64Key = 0;
  {
    CCritLock lock(m_cs);
    if (!m_bShortKnown)
      return kZxcloudErrNetwork;
    if (m_jobs.size() >= kMaxPollJobs)
      return kZxcloudErrFull;
    u64Key = ++m_u64LastKey;
  }
  CWaiters::CWaiter waiter(m_pollWaiters, u64Key);
  _PollJob job{u64Key, std::string(svQuery), m_ports.clock.NowMs() + m_ports.times.dwPoll};
  {
    CCritLock lock(m_cs);
    m_jobs.push_back(std::move(job));
  }
  Wake();
  return waiter.Wait(m_ports.times.dwPoll, kZxcloudErrTimeout);
}

bool CShortLink::TakeJob(_PollJob& job) {
  CCritLock lock(m_cs);
  while (!m_jobs.empty()) {
    job = std::move(m_jobs.front());
    m_jobs.pop_front();
    if (m_ports.clock.NowMs() < job.u64Deadline)
      return true;
  }
  return false;
}

void CShortLink::DoPoll(const _PollJob& job) {
  _HttpRequest request = Request("POST", "/v1/poll", m_ports.peer.Options());
  request.listHeaders.push_back("Content-Type: application/xml");
  request.svBody = job.strQuery;
  request.uMaxAnswer = kMaxPollAnswer;
  const _HttpAnswer answer = ToShort(request);
  if (!answer.Ok()) {
    m_bPollProved = false;
    NoteError(answer);
    if (answer.eError != ENetError::Aborted && m_quietPoll.Due(m_ports.clock.NowMs(), Told(answer)))
      m_ports.log.LogWarn("*zxcloud poll failed addr[%s] reason[%s]", m_listShort[m_uShort].Text(),
                          answer.Why());
    m_pollWaiters.Complete(job.u64Key, ErrorOf(answer));
    return;
  }
  m_quietPoll.Reset();
  if (!std::exchange(m_bPollProved, true))
    m_ports.callbacks.Data(EData::Poll, answer.strRemote);
  if (!answer.strBody.empty())
    m_ports.callbacks.Poll(answer.strBody);
  m_pollWaiters.Complete(job.u64Key, 0);
}

// Uploads while the long connection is not up.

// When uploads need wait for the long connection no more; 0: none is expected. The whole fleet loses a broker
// in one moment and must not turn to HTTPS in one: the wait is drawn anew for each loss.
uint64_t CShortLink::GraceEnd() {
  const uint64_t u64Down = m_ports.peer.LongDownSince();
  if (u64Down == 0)
    return 0;
  if (std::exchange(m_u64GraceOf, u64Down) != u64Down)
    m_dwGrace = m_ports.times.dwUploadGrace + m_ports.random.Below(m_ports.times.dwUploadGrace + 1);
  return u64Down + m_dwGrace;
}

bool CShortLink::UploadDue(uint64_t u64Now, uint32_t& dwWait) {
  if (m_listShort.empty() || m_ports.peer.LongIsUp() || m_ports.outbox.Waiting() == 0)
    return false;
  const uint64_t u64Due = std::max(GraceEnd(), m_u64UploadNext);
  if (u64Now >= u64Due)
    return true;
  dwWait = static_cast<uint32_t>(std::min<uint64_t>(dwWait, u64Due - u64Now));
  return false;
}

// False: what waits is still to be read from the disk.
bool CShortLink::DoUpload() {
  _OutRoom room;
  room.uMessages = 1;
  room.bIdle = true;
  room.bWaitedOnly = m_drain.Limits() && !m_drain.Admits(m_ports.clock.NowMs());
  const TOutItem pItem = m_ports.outbox.Take(room);
  if (pItem == nullptr) {
    if (room.bWaitedOnly)
      m_u64UploadNext = m_drain.NextMs();
    return room.bWaitedOnly;
  }
  _HttpRequest request = Request("POST", "/v1/upload", m_ports.peer.Options());
  request.listHeaders.push_back("Content-Type: application/octet-stream");
  request.listHeaders.push_back("X-Zx-Priority: " + std::to_string(pItem->iPriority));
  request.listHeaders.push_back("X-Zx-Id: " + pItem->strId);
  request.svBody = pItem->Body();
  request.dwTotalMs += static_cast<uint32_t>(pItem->Body().size() / kUploadBytesPerMs);
  const _HttpAnswer answer = ToShort(request);
  if (!answer.Ok()) {
    UploadFailed(*pItem, answer);
    return true;
  }
  Uploaded(*pItem);
  return true;
}

void CShortLink::Uploaded(const _OutItem& item) {
  const bool bReturned = m_backoffUpload.Failures() > 0;
  m_backoffUpload.Reset();
  m_quietUpload.Reset();
  m_ports.outbox.Done(item.u64Seq);
  m_ports.waiters.Complete(item.u64Seq, 0);
  if (bReturned)
    m_drain.Begin(m_uDrainPerSec, m_ports.clock.NowMs());
  if (!item.bWaited)
    m_drain.Took(item.Bytes());
  if (m_drain.Limits() && m_ports.outbox.State().u64Waiting == 0)
    m_drain.End();
}

void CShortLink::UploadFailed(const _OutItem& item, const _HttpAnswer& answer) {
  if (IsFinal(answer)) {
    m_ports.log.LogWarn("*zxcloud upload refused for good id[%s] priority[%d] status[%d] bytes[%u]",
                        item.strId, item.iPriority, answer.iStatus,
                        static_cast<uint32_t>(item.Body().size()));
    m_ports.outbox.Done(item.u64Seq);
    m_ports.waiters.Complete(item.u64Seq, kZxcloudErrRefused);
    return;
  }
  m_ports.outbox.Return(item.u64Seq);
  m_ports.peer.WakeLong();  // it may have come up meanwhile
  if (answer.eError == ENetError::Aborted)
    return;
  const uint32_t dwDelay = DelayAfter(m_backoffUpload.Next(), answer.uRetryAfterSec, m_ports.random);
  m_u64UploadNext = m_ports.clock.NowMs() + std::max(dwDelay, 1u);
  NoteError(answer);
  if (m_quietUpload.Due(m_ports.clock.NowMs(), Told(answer)))
    m_ports.log.LogWarn("*zxcloud upload failed addr[%s] reason[%s] next attempt in ms[%u]",
                        m_listShort[m_uShort].Text(), answer.Why(), dwDelay);
}

}  // namespace zxcloud
