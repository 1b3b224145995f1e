#include "platform/cloud/MosquittoTransport.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <mutex>

#include "platform/cloud/CloudAddress.h"

namespace zxcloud {

namespace {

constexpr int kQos = 1;
constexpr int kLibraryWindow = 128;  // above our own window, so that ours is the one that counts
constexpr int kPacketsPerTurn = 64;
constexpr int kReadsPerTurn = 1024;
constexpr unsigned kUserTimeoutMs = 30000;
// Of the kernel, without a wake-up of ours: a host that is gone is found within 25 + 30 s, whatever the
// keep-alive of the protocol.
constexpr int kProbeIdleSec = 25;
constexpr int kProbeIntervalSec = 10;
constexpr char kOnline[] = "{\"online\":1}";
constexpr char kOffline[] = "{\"online\":0}";

void InitLibraryOnce() {
  static std::once_flag once;
  std::call_once(once, [] { mosquitto_lib_init(); });
}

const char* ConnackText(int iCode) {
  switch (iCode) {
    case 1:
      return "the broker does not speak MQTT 3.1.1";
    case 2:
      return "the broker refuses the client identifier";
    case 3:
      return "the broker is not available";
    case 4:
      return "the broker refuses the credentials";
    case 5:
      return "the broker does not authorise this client";
    default:
      return "the broker refuses with an unknown code";
  }
}

}  // namespace

CMosquittoTransport::CMosquittoTransport(const _TlsSettings& tls, IMqttEvents& events)
    : m_tls(tls), m_events(events) {
  InitLibraryOnce();
}

CMosquittoTransport::~CMosquittoTransport() {
  CMosquittoTransport::Close(false);
}

bool CMosquittoTransport::Configure(std::string& strError) {
  mosquitto* p = m_pMosq.get();
  mosquitto_connect_callback_set(p, OnConnect);
  mosquitto_subscribe_callback_set(p, OnSubscribe);
  mosquitto_publish_callback_set(p, OnPublish);
  mosquitto_message_callback_set(p, OnMessage);
  mosquitto_log_callback_set(p, OnLog);
  mosquitto_max_inflight_messages_set(p, kLibraryWindow);
  int iResult = mosquitto_int_option(p, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
  if (iResult == MOSQ_ERR_SUCCESS)
    iResult = mosquitto_int_option(p, MOSQ_OPT_TCP_NODELAY, 1);
  if (iResult == MOSQ_ERR_SUCCESS && !m_open.strStatusTopic.empty())
    iResult =
        mosquitto_will_set(p, m_open.strStatusTopic.c_str(), sizeof(kOffline) - 1, kOffline, kQos, true);
  if (iResult == MOSQ_ERR_SUCCESS && m_pCtx != nullptr) {
    iResult = mosquitto_int_option(p, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0);
    if (iResult == MOSQ_ERR_SUCCESS)
      iResult = mosquitto_void_option(p, MOSQ_OPT_SSL_CTX, m_pCtx.get());
  }
  if (iResult != MOSQ_ERR_SUCCESS)
    strError = mosquitto_strerror(iResult);
  return iResult == MOSQ_ERR_SUCCESS;
}

bool CMosquittoTransport::Open(const _MqttOpen& open, EMqttFailure& eFailure, std::string& strError) {
  Close(false);
  m_open = open;
  m_strTlsText.clear();
  m_verdict.Reset();
  eFailure = EMqttFailure::Tls;
  if (open.bPlain && !IsLoopback(open.strIp)) {
    strError = "plain text is not permitted to this address";
    return false;
  }
  if (!open.bPlain) {
    m_pCtx = TlsNewContext(m_tls, open.strHost, m_verdict, strError);
    if (m_pCtx == nullptr)
      return false;
  }
  eFailure = EMqttFailure::Network;
  m_pMosq.reset(mosquitto_new(open.strClientId.c_str(), open.strSubscribe.empty(), this));
  if (m_pMosq == nullptr) {
    strError = "out of memory";
    return false;
  }
  if (!Configure(strError)) {
    Close(false);
    return false;
  }
  m_bClosed = false;
  errno = 0;
  const int iResult =
      mosquitto_connect_async(m_pMosq.get(), open.strIp.c_str(), open.wPort, open.iKeepAliveSec);
  if (iResult > 0 || mosquitto_socket(m_pMosq.get()) < 0) {
    Ended(iResult, errno);
    eFailure = m_eFailure;
    strError = m_strReason;
    Close(false);
    return false;
  }
  m_iOpenErrno = errno == EINPROGRESS || errno == EAGAIN ? 0 : errno;
  TuneSocket();
  return true;
}

void CMosquittoTransport::TuneSocket() const {
  const int fd = Descriptor();
  const int iOn = 1;
  // The library leaves it to children that the host starts.
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  // Found dead by the kernel when data or probes stay unanswered this long.
  setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &kUserTimeoutMs, sizeof(kUserTimeoutMs));
  setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &iOn, sizeof(iOn));
  setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &kProbeIdleSec, sizeof(kProbeIdleSec));
  setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &kProbeIntervalSec, sizeof(kProbeIntervalSec));
}

void CMosquittoTransport::Close(bool bPolite) {
  if (m_pMosq != nullptr && !m_bClosed && bPolite && m_bSubscribed) {
    if (!m_open.strStatusTopic.empty())
      mosquitto_publish(m_pMosq.get(), nullptr, m_open.strStatusTopic.c_str(), sizeof(kOffline) - 1, kOffline,
                        0, true);
    mosquitto_disconnect(m_pMosq.get());
  }
  m_bClosed = true;
  m_pMosq.reset();
  m_pCtx.reset();
  m_acks.Clear();
  m_bTcpUp = m_bSubscribed = m_bConnackNews = m_bSubscribedNews = m_bClosedNews = false;
  m_iConnack = m_iSubscribeId = -1;
}

int CMosquittoTransport::Descriptor() const {
  return m_pMosq == nullptr || m_bClosed ? -1 : mosquitto_socket(m_pMosq.get());
}

bool CMosquittoTransport::Handshaking() const {
  const SSL* pSsl = static_cast<SSL*>(mosquitto_ssl_get(m_pMosq.get()));
  return pSsl != nullptr && SSL_in_init(pSsl) != 0;
}

bool CMosquittoTransport::WantWrite() const {
  if (Descriptor() < 0)
    return false;
  if (!m_bTcpUp)
    return true;
  // The CONNECT packet waits behind the handshake; asking for writability then would spin.
  if (Handshaking())
    return SSL_want_write(static_cast<SSL*>(mosquitto_ssl_get(m_pMosq.get())));
  return mosquitto_want_write(m_pMosq.get());
}

// Of a connection that is being made. The library may have met the error before us, and a socket tells it
// once; what is left then is that there is no peer.
int CMosquittoTransport::SocketError() const {
  int iError = 0;
  socklen_t uLength = sizeof(iError);
  if (getsockopt(Descriptor(), SOL_SOCKET, SO_ERROR, &iError, &uLength) != 0)
    return errno;
  sockaddr_storage address{};
  uLength = sizeof(address);
  if (iError == 0 && getpeername(Descriptor(), reinterpret_cast<sockaddr*>(&address), &uLength) != 0)
    iError = m_iOpenErrno != 0 ? m_iOpenErrno : errno;
  return iError;
}

// The library takes a connection that ends during the handshake for one that is still busy.
bool CMosquittoTransport::EndedInHandshake(bool bError) const {
  char ch = 0;
  return Descriptor() >= 0 && Handshaking() &&
         (bError || recv(Descriptor(), &ch, 1, MSG_PEEK | MSG_DONTWAIT) == 0);
}

// Reads until nothing is left that the socket will not announce again: TLS may hold whole packets back.
int CMosquittoTransport::Read() {
  int iResult = MOSQ_ERR_SUCCESS;
  for (int i = 0; i < kReadsPerTurn; ++i) {
    errno = 0;  // the library looks at what an earlier call has left there
    iResult = mosquitto_loop_read(m_pMosq.get(), kPacketsPerTurn);
    const SSL* pSsl = static_cast<SSL*>(mosquitto_ssl_get(m_pMosq.get()));
    if (iResult != MOSQ_ERR_SUCCESS || pSsl == nullptr || SSL_pending(pSsl) == 0)
      break;
  }
  return iResult;
}

void CMosquittoTransport::OnIo(bool bReadable, bool bWritable, bool bError) {
  if (Descriptor() < 0) {
    Deliver();
    return;
  }
  if (!m_bTcpUp) {
    if (!bWritable && !bError)
      return;
    if (const int iError = SocketError(); iError != 0) {
      Ended(MOSQ_ERR_ERRNO, iError);
      Deliver();
      return;
    }
    m_bTcpUp = true;
    m_events.OnTcpUp();
  }
  if (bReadable || bWritable)
    m_events.OnAlive();
  int iResult = MOSQ_ERR_SUCCESS;
  const bool bHandshake = Handshaking();
  if (bReadable || bError || bHandshake)
    iResult = Read();  // also what carries the handshake on
  if (iResult == MOSQ_ERR_SUCCESS && Descriptor() >= 0 && !Handshaking() &&
      (bWritable || mosquitto_want_write(m_pMosq.get()))) {
    errno = 0;
    iResult = mosquitto_loop_write(m_pMosq.get(), kPacketsPerTurn);
  }
  if (iResult == MOSQ_ERR_SUCCESS && bHandshake && EndedInHandshake(bError))
    iResult = MOSQ_ERR_CONN_LOST;
  if (iResult != MOSQ_ERR_SUCCESS || (Descriptor() < 0 && !m_bClosed))
    Ended(iResult, errno);
  Deliver();
}

void CMosquittoTransport::OnTick() {
  // A ping behind data that waits would be late and count as unanswered.
  if (Descriptor() < 0 || m_open.iKeepAliveSec == 0 || !m_bTcpUp || WantWrite())
    return;
  errno = 0;
  const int iResult = mosquitto_loop_misc(m_pMosq.get());
  if (iResult != MOSQ_ERR_SUCCESS)
    Ended(iResult, errno);
  Deliver();
}

uint32_t CMosquittoTransport::TickMs() const {
  // The library counts in whole seconds and pings when the keep-alive has passed in silence; at a quarter of
  // it the ping stays within the one and a half times that a broker allows.
  return static_cast<uint32_t>(m_open.iKeepAliveSec) * 250;
}

bool CMosquittoTransport::Publish(uint64_t u64Token, const std::string& strTopic,
                                  std::string_view svPayload) {
  if (Descriptor() < 0)
    return false;
  int iId = 0;
  errno = 0;
  const int iResult = mosquitto_publish(m_pMosq.get(), &iId, strTopic.c_str(),
                                        static_cast<int>(svPayload.size()), svPayload.data(), kQos, false);
  if (iResult != MOSQ_ERR_SUCCESS) {
    Ended(iResult, errno);
    return false;
  }
  if (m_acks.Bind(iId, u64Token))
    m_events.OnAck(u64Token);
  return true;
}

// Notes the end; the event follows in Deliver, outside the library.
void CMosquittoTransport::Ended(int iResult, int iErrno) {
  if (m_bClosed)
    return;
  m_bClosed = true;
  m_bClosedNews = true;
  m_eFailure = EMqttFailure::Network;
  if (m_iConnack > 0) {
    m_eFailure =
        m_iConnack == 2 || m_iConnack == 4 || m_iConnack == 5 ? EMqttFailure::Refused : EMqttFailure::Network;
    m_strReason = ConnackText(m_iConnack);
  } else if (iResult == MOSQ_ERR_TLS || m_verdict.Failed() || (!m_strTlsText.empty() && m_iConnack < 0) ||
             (m_pCtx != nullptr && (m_bTcpUp || iErrno == ECONNRESET) && !m_verdict.bDone)) {
    m_eFailure = EMqttFailure::Tls;
    m_strReason = TlsReason(m_verdict, m_open.strHost, m_strTlsText);
  } else if (iResult == MOSQ_ERR_KEEPALIVE) {
    m_strReason = "no answer to the keep-alive";
  } else if (iResult == MOSQ_ERR_ERRNO && iErrno != 0) {
    m_strReason = strerrordesc_np(iErrno) != nullptr ? strerrordesc_np(iErrno) : "socket error";
  } else if (iResult == MOSQ_ERR_SUCCESS || iResult == MOSQ_ERR_CONN_LOST || iResult == MOSQ_ERR_ERRNO) {
    m_strReason = "the far side closed the connection";
  } else {
    m_strReason = mosquitto_strerror(iResult);
  }
  if (!m_strTlsText.empty() && m_iConnack >= 0 && m_eFailure == EMqttFailure::Network)
    m_strReason += ": " + m_strTlsText;
}

void CMosquittoTransport::Subscribe() {
  char* topics[] = {m_open.strSubscribe.data(), m_open.strAlsoSubscribe.data()};
  const int iTopics = m_open.strAlsoSubscribe.empty() ? 1 : 2;
  const int iSubscribe =
      mosquitto_subscribe_multiple(m_pMosq.get(), &m_iSubscribeId, iTopics, topics, kQos, 0, nullptr);
  int iId = 0;
  const int iStatus = mosquitto_publish(m_pMosq.get(), &iId, m_open.strStatusTopic.c_str(),
                                        sizeof(kOnline) - 1, kOnline, kQos, true);
  if (iSubscribe != MOSQ_ERR_SUCCESS || iStatus != MOSQ_ERR_SUCCESS)
    Ended(iSubscribe != MOSQ_ERR_SUCCESS ? iSubscribe : iStatus, errno);
  else
    m_acks.Bind(iId, 0);
}

// Of a session without subscription there is nothing to wait for.
void CMosquittoTransport::EnterUse() {
  if (m_open.strSubscribe.empty())
    m_bSubscribedNews = true;
  else
    Subscribe();
}

// Reports what the library's callbacks have noted. False: the session has ended.
bool CMosquittoTransport::Deliver() {
  if (m_bConnackNews && !m_bClosed) {
    m_bConnackNews = false;
    m_events.OnConnack();
    EnterUse();
  }
  if (m_bSubscribedNews && !m_bClosed) {
    m_bSubscribedNews = false;
    m_bSubscribed = true;
    m_events.OnSubscribed();
  }
  if (!m_bClosedNews)
    return true;
  // The socket goes with the session: a dead one that stays open is ready for ever, and its owner would spin.
  Close(false);
  const std::string strReason = m_strReason;
  m_events.OnClosed(m_eFailure, strReason);
  return false;
}

std::string CMosquittoTransport::LocalEnd() const {
  sockaddr_storage address{};
  socklen_t uLength = sizeof(address);
  char szIp[INET6_ADDRSTRLEN] = "";
  uint16_t wPort = 0;
  if (getsockname(Descriptor(), reinterpret_cast<sockaddr*>(&address), &uLength) != 0)
    return {};
  if (address.ss_family == AF_INET) {
    sockaddr_in v4{};
    memcpy(&v4, &address, sizeof(v4));
    inet_ntop(AF_INET, &v4.sin_addr, szIp, sizeof(szIp));
    wPort = ntohs(v4.sin_port);
  } else if (address.ss_family == AF_INET6) {
    sockaddr_in6 v6{};
    memcpy(&v6, &address, sizeof(v6));
    inet_ntop(AF_INET6, &v6.sin6_addr, szIp, sizeof(szIp));
    wPort = ntohs(v6.sin6_port);
  }
  return HostPort(szIp, wPort);
}

void CMosquittoTransport::OnConnect(mosquitto*, void* pThis, int iCode) {
  auto& self = *static_cast<CMosquittoTransport*>(pThis);
  self.m_iConnack = iCode;
  self.m_bConnackNews = iCode == 0;
}

void CMosquittoTransport::OnSubscribe(mosquitto*, void* pThis, int iId, int iCount, const int* pGranted) {
  auto& self = *static_cast<CMosquittoTransport*>(pThis);
  if (iId != self.m_iSubscribeId)
    return;
  if (iCount >= 1 && std::all_of(pGranted, pGranted + iCount, [](int i) { return i >= 0 && i <= 2; })) {
    self.m_bSubscribedNews = true;
    return;
  }
  self.m_bClosed = self.m_bClosedNews = true;
  self.m_eFailure = EMqttFailure::Refused;
  self.m_strReason = "the broker refuses the subscription to " + self.m_open.strSubscribe;
}

void CMosquittoTransport::OnPublish(mosquitto*, void* pThis, int iId) {
  auto& self = *static_cast<CMosquittoTransport*>(pThis);
  if (const auto token = self.m_acks.Ack(iId); token.has_value() && *token != 0)
    self.m_events.OnAck(*token);
}

void CMosquittoTransport::OnMessage(mosquitto*, void* pThis, const mosquitto_message* pMessage) {
  auto& self = *static_cast<CMosquittoTransport*>(pThis);
  if (pMessage == nullptr || pMessage->topic == nullptr)
    return;
  const auto uLength = static_cast<size_t>(pMessage->payloadlen > 0 ? pMessage->payloadlen : 0);
  const char* pPayload = pMessage->payload == nullptr ? "" : static_cast<const char*>(pMessage->payload);
  self.m_events.OnPush(pMessage->topic, std::string_view(pPayload, uLength));
}

void CMosquittoTransport::OnLog(mosquitto*, void* pThis, int iLevel, const char* pszText) {
  if (iLevel == MOSQ_LOG_ERR && pszText != nullptr && strstr(pszText, "OpenSSL") != nullptr)
    static_cast<CMosquittoTransport*>(pThis)->m_strTlsText = pszText;
}

}  // namespace zxcloud
