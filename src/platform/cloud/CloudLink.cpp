#include "platform/cloud/CloudLink.h"

#include <openssl/rand.h>

#include <algorithm>
#include <cinttypes>
#include <exception>
#include <utility>

#include "platform/cloud/MosquittoTransport.h"
#include "platform/text/PString.h"

namespace zxcloud {

namespace {

constexpr size_t kMaxErrorText = 160;

// Ids of this start never meet those of an earlier one.
std::string NewIdPrefix() {
  uint64_t u64 = 0;
  if (RAND_bytes(reinterpret_cast<unsigned char*>(&u64), sizeof(u64)) != 1)
    u64 = static_cast<uint64_t>(CSystemRandom().Below(UINT32_MAX)) << 32 | CSystemRandom().Below(UINT32_MAX);
  return CPString::Make("%016" PRIx64 "-", u64).Str();
}

// For a line of a log and for the form "key=value" joined by ":".
std::string OneLine(std::string strText) {
  strText.resize(std::min(strText.size(), kMaxErrorText));
  for (char& ch : strText) {
    if (static_cast<unsigned char>(ch) < 0x20 || ch == '=')
      ch = ' ';
  }
  return strText;
}

}  // namespace

// Keeps an address test reachable for Stop.
class CCloudLink::CCheck {
 public:
  CCheck(CCloudLink& owner, IHttpClient& http) : m_owner(owner), m_http(http) {
    CCritLock lock(owner.m_cs);
    owner.m_setChecks.insert(&http);
  }
  ~CCheck() {
    CCritLock lock(m_owner.m_cs);
    m_owner.m_setChecks.erase(&m_http);
  }
  CCheck(const CCheck&) = delete;
  CCheck& operator=(const CCheck&) = delete;

 private:
  CCloudLink& m_owner;
  IHttpClient& m_http;
};

CCloudLink::CCloudLink(const zxcloud_record& record, _CloudConfig config, _CloudOptions options,
                       const _LinkTimes& times)
    : m_times(times),
      m_config(std::move(config)),
      m_strIdPrefix(NewIdPrefix()),
      m_callbacks(record),
      m_log(m_callbacks),
      m_outbox(m_config.uMaxQueueBytes, m_clock),
      m_http(HttpSettings()),
      m_long({m_times, m_clock, m_randomLong, m_outbox, m_waiters, m_callbacks, m_log, m_errors,
              [this] { m_short.Wake(); }},
             [this](IMqttEvents& events) {
               return std::make_unique<CMosquittoTransport>(m_config.tls, events);
             }),
      m_short(
          {m_times, m_clock, m_randomShort, m_outbox, m_waiters, m_callbacks, m_log, m_errors, m_http, *this},
          {m_config.listTconf, record.channel_id == nullptr ? "" : record.channel_id, m_config.bPlainLoopback,
           m_config.uRetryMaxSec}),
      m_spool({m_outbox, m_clock, m_wallClock, m_log, [this] { return NewId(++m_u64LastSeq); },
               [this] { WakeSenders(); }},
              m_config.spool),
      m_options(std::move(options)) {
  m_outbox.SetSpool(&m_spool);
  m_log.SetDebug(m_options.bAllowDebug);
}

CCloudLink::~CCloudLink() {
  Stop();
}

_HttpSettings CCloudLink::HttpSettings() const {
  return {m_config.tls, m_config.bPlainLoopback, m_config.strProxy};
}

uint32_t CCloudLink::Start() {
  if (!m_long.Init() || !m_short.Init()) {
    m_log.LogError("**zxcloud start failed: out of descriptors or memory");
    return kZxcloudErrState;
  }
  // A thread that dies of an exception would take the host with it.
  const auto Guarded = [this](auto fnBody) {
    return [this, fnBody] {
      try {
        fnBody();
      } catch (const std::exception& e) {
        m_log.LogError("**zxcloud thread ended by an exception what[%s]", e.what());
      }
    };
  };
  int iError = m_threadSpool.Start("zxcloudspool", Guarded([this] { m_spool.Run(); }));
  if (iError == 0)
    iError = m_threadIo.Start("zxcloudio", Guarded([this] { m_long.Run(); }));
  if (iError == 0)
    iError = m_threadHttp.Start("zxcloudhttp", Guarded([this] { m_short.Run(); }));
  if (iError != 0) {
    m_log.LogError("**zxcloud thread not started error[%d]", iError);
    Stop();
    return kZxcloudErrState;
  }
  return 0;
}

void CCloudLink::Stop() {
  m_bStopped.store(true);
  m_waiters.Stop(kZxcloudErrState);
  m_http.Abort();
  {
    CCritLock lock(m_cs);
    for (IHttpClient* pHttp : m_setChecks)
      pHttp->Abort();
  }
  m_short.Stop();
  m_long.Stop();
  m_threadHttp.Join();
  m_threadIo.Join();
  // After those who deliver, so that what they delivered is deleted.
  m_spool.Stop();
  m_threadSpool.Join();
  m_spool.Abandon();
  m_callbacks.Close();
}

uint32_t CCloudLink::Accepts(std::string_view svData, int iPriority) const {
  if (m_bStopped.load())
    return kZxcloudErrState;
  if (PriorityIndex(iPriority) < 0)
    return kZxcloudErrArgument;
  return svData.size() > m_short.MaxMessage() ? uint32_t{kZxcloudErrTooLong} : 0;
}

std::string CCloudLink::NewId(uint64_t u64Seq) const {
  return m_strIdPrefix + CPString::Make("%" PRIx64, u64Seq).Str();
}

void CCloudLink::WakeSenders() {
  if (m_long.IsUp())
    m_long.Wake();
  else
    m_short.Wake();
}

uint32_t CCloudLink::Send(std::string_view svData, int iPriority) {
  if (const uint32_t uiError = Accepts(svData, iPriority); uiError != 0)
    return uiError;
  return m_spool.Append(svData, iPriority);
}

uint32_t CCloudLink::SendSync(std::string_view svData, int iPriority, uint32_t dwTimeoutMs) {
  if (const uint32_t uiError = Accepts(svData, iPriority); uiError != 0)
    return uiError;
  // Not sent once nobody waits for it any more, also when the caller's thread is cancelled.
  struct CGiveUp {
    IOutbox& outbox;
    uint64_t u64Seq;
    bool bArmed = true;
    ~CGiveUp() {
      if (bArmed)
        outbox.Cancel(u64Seq);
    }
  };
  const uint64_t u64Seq = ++m_u64LastSeq;
  CWaiters::CWaiter waiter(m_waiters, u64Seq);
  if (!m_outbox.Add(MakeOutItem(u64Seq, iPriority, NewId(u64Seq), svData, true)))
    return kZxcloudErrFull;
  CGiveUp giveUp{m_outbox, u64Seq};
  WakeSenders();
  const uint32_t uiResult = waiter.Wait(dwTimeoutMs, kZxcloudErrTimeout);
  giveUp.bArmed = uiResult == kZxcloudErrTimeout || uiResult == kZxcloudErrState;
  return uiResult;
}

uint32_t CCloudLink::Check(std::string_view svAddress) {
  const auto listAddresses = ParseAddressList(svAddress, kHttpsPort, m_config.bPlainLoopback);
  if (listAddresses.empty())
    return kZxcloudErrArgument;
  CHttpClient http(HttpSettings());
  const CCheck check(*this, http);
  const uint64_t u64End = m_clock.NowMs() + m_times.dwTconfCheck;
  uint32_t uiResult = kZxcloudErrTimeout;
  for (const _CloudAddress& address : listAddresses) {
    const uint64_t u64Now = m_clock.NowMs();
    if (m_bStopped.load() || u64Now >= u64End)
      return m_bStopped.load() ? uint32_t{kZxcloudErrState} : uiResult;
    _HttpRequest request;
    request.address = address;
    request.strTarget = "/v1/health";
    request.dwTotalMs = static_cast<uint32_t>(u64End - u64Now);
    request.dwConnectMs = std::min(m_times.dwHttpConnect, request.dwTotalMs);
    const _HttpAnswer answer = http.Do(request);
    if (answer.Ok())
      return 0;
    uiResult = ErrorOf(answer);
    m_log.LogWarn("*zxcloud address test failed addr[%s] reason[%s]", address.Text(), answer.Why());
  }
  return uiResult;
}

void CCloudLink::SetOptions(const _CloudOptions& options) {
  {
    CCritLock lock(m_cs);
    m_options = options;
  }
  m_log.SetDebug(options.bAllowDebug);
  m_short.OnOptions();
  ConfigureLong();
}

_CloudOptions CCloudLink::Options() {
  CCritLock lock(m_cs);
  return m_options;
}

void CCloudLink::OnTconf(const _TconfAnswer& answer) {
  {
    CCritLock lock(m_cs);
    m_tconf = answer;
  }
  ConfigureLong();
}

// What the cloud and the options say together; counts from the next connection on, except an end of it.
void CCloudLink::ConfigureLong() {
  _LongSettings settings;
  {
    CCritLock lock(m_cs);
    if (!m_tconf.has_value())
      return;
    if (!m_options.bTcpDisable && IsMid(m_options.strMid))
      settings.listAddresses = m_tconf->listLong;
    settings.strMid = m_options.strMid;
    settings.iKeepAliveSec = m_options.bHbDisable ? 0 : m_tconf->iKeepAliveSec;
    settings.uSpreadSec = m_tconf->uSpreadSec;
    settings.uRetryMaxSec = m_tconf->uRetryMaxSec != 0 ? m_tconf->uRetryMaxSec : m_config.uRetryMaxSec;
    settings.uDrainPerSec = m_tconf->uDrainPerSec;
    settings.bBulkLink = m_tconf->uConnections > 1;
    settings.bConfirm = m_tconf->uConfirm != 0;
  }
  m_long.Configure(std::move(settings));
}

std::string CCloudLink::State() {
  const _LongStatus longState = m_long.Status();
  const _OutboxState outState = m_outbox.State();
  const auto UpDown = [](bool bUp) { return bUp ? "up" : "down"; };
  std::string strText =
      std::string("link=") + UpDown(!longState.strUpAddress.empty()) + ":longaddr=" + longState.strUpAddress +
      ":bulk=" + UpDown(longState.bBulkUp) + ":reconnects=" + std::to_string(longState.u64Reconnects) +
      ":waiting=" + std::to_string(outState.u64Waiting) + ":entries=" + std::to_string(outState.u64Entries) +
      ":bytes=" + std::to_string(outState.u64Bytes) + ":oldest_ms=" + std::to_string(outState.u64OldestMs) +
      m_spool.State().Text() + ":" + Options().Text();
  if (const std::string strError = m_errors.Last(); !strError.empty())
    strText += ":lasterror=" + OneLine(strError);
  return strText;
}

}  // namespace zxcloud
