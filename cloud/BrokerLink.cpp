#include "BrokerLink.h"

#include <mosquitto.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "CloudLog.h"
#include "CloudText.h"
#include "Topics.h"
#include "platform/os/ZxFile.h"
#include "platform/os/ZxThread.h"
#include "platform/os/ZxTime.h"

namespace zxcloudd {

namespace {

constexpr int kWindow = 64;  // commands the broker has not acknowledged
constexpr size_t kWindowBytes = 4u << 20;
constexpr size_t kBatchMax = 256;  // messages of one commit
constexpr size_t kBatchBytes = 16u << 20;
constexpr uint64_t kHandshakeMs = 5000;  // CONNACK and SUBACK must be there by then
constexpr int kTickMs = 1000;            // keep-alive bookkeeping of the library
constexpr uint64_t kStableMs = 60000;    // a connection this old clears the back-off
constexpr int kBackoffBaseMs = 500;
constexpr int kBackoffCapMs = 30000;
constexpr size_t kPasswordMax = 4096;

CBrokerLink* Self(void* pThis) {
  return static_cast<CBrokerLink*>(pThis);
}

}  // namespace

CBrokerLink::CBrokerLink(CCloudService& service, const _BrokerConfig& config)
    : m_service(service), m_config(config), m_random(std::random_device{}()) {}

CBrokerLink::~CBrokerLink() {
  Stop();
}

bool CBrokerLink::Start(std::string& strError) {
  if (m_config.listAddresses.empty())
    return true;
  m_iWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (m_iWakeFd < 0) {
    strError = std::string("eventfd: ") + ErrnoText(errno);
    return false;
  }
  mosquitto_lib_init();
  if (!Setup(strError)) {
    Stop();
    return false;
  }
  m_bStop = false;
  m_thread = std::thread(&CBrokerLink::Loop, this);
  return true;
}

bool CBrokerLink::Setup(std::string& strError) {
  m_pMosq = mosquitto_new(m_config.strClientId.c_str(), false, this);
  if (m_pMosq == nullptr) {
    strError = "broker: out of memory";
    return false;
  }
  // Packets are queued by the library and written by us: an acknowledgement cannot leave before its commit.
  mosquitto_threaded_set(m_pMosq, true);
  mosquitto_int_option(m_pMosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
  mosquitto_int_option(m_pMosq, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_max_inflight_messages_set(m_pMosq, kWindow);
  mosquitto_connect_callback_set(m_pMosq, &CBrokerLink::OnConnect);
  mosquitto_subscribe_callback_set(m_pMosq, &CBrokerLink::OnSubscribe);
  mosquitto_message_callback_set(m_pMosq, &CBrokerLink::OnMessage);
  mosquitto_publish_callback_set(m_pMosq, &CBrokerLink::OnPublish);
  if (!m_config.strUser.empty()) {
    CPString strFile;
    if (!m_config.strPasswordFile.empty() && !ZxReadFileText(CPString(m_config.strPasswordFile), strFile)) {
      strError = "broker.password_file " + m_config.strPasswordFile + ": " + ErrnoText(errno);
      return false;
    }
    const std::string strPassword(Trim(strFile.View()).substr(0, kPasswordMax));
    mosquitto_username_pw_set(m_pMosq, m_config.strUser.c_str(),
                              strPassword.empty() ? nullptr : strPassword.c_str());
  }
  if (m_config.bPlaintextLoopback)
    return true;
  const auto orNull = [](const std::string& str) { return str.empty() ? nullptr : str.c_str(); };
  const int iCode = mosquitto_tls_set(m_pMosq, m_config.strCaFile.c_str(), nullptr,
                                      orNull(m_config.strCertFile), orNull(m_config.strKeyFile), nullptr);
  if (iCode != MOSQ_ERR_SUCCESS) {
    strError = std::string("broker.ca_file, cert_file or key_file: ") + mosquitto_strerror(iCode);
    return false;
  }
  return true;
}

void CBrokerLink::Discard() {
  if (m_pMosq != nullptr)
    mosquitto_destroy(m_pMosq);
  m_pMosq = nullptr;
  m_listBatch.clear();
  m_uBatchBytes = 0;
  m_listPushed.clear();
  m_mapInFlight.clear();
}

void CBrokerLink::Stop() {
  m_bStop = true;
  Wake();
  if (m_thread.joinable())
    m_thread.join();
  Discard();
  if (m_iWakeFd >= 0) {
    close(m_iWakeFd);
    m_iWakeFd = -1;
    mosquitto_lib_cleanup();
  }
}

void CBrokerLink::Wake() {
  const uint64_t u64One = 1;
  if (m_iWakeFd >= 0 && write(m_iWakeFd, &u64One, sizeof(u64One)) < 0)
    return;  // the counter is full: the thread is about to wake anyway
}

void CBrokerLink::DrainWake() {
  uint64_t u64 = 0;
  if (read(m_iWakeFd, &u64, sizeof(u64)) < 0)
    return;  // nothing was there
}

bool CBrokerLink::Pause(int iMs) {
  const uint64_t u64Until = ZxGetTickCount() + static_cast<uint64_t>(iMs);
  for (uint64_t u64Now = ZxGetTickCount(); !m_bStop && u64Now < u64Until; u64Now = ZxGetTickCount()) {
    pollfd fd{m_iWakeFd, POLLIN, 0};
    if (poll(&fd, 1, static_cast<int>(u64Until - u64Now)) > 0)
      DrainWake();
  }
  return !m_bStop;
}

void CBrokerLink::Loop() {
  ZxSetThreadName("zxcloudbroker");
  while (!m_bStop) {
    if (Connect())
      ServeConnection();
    if (m_bStop && mosquitto_socket(m_pMosq) >= 0 && mosquitto_disconnect(m_pMosq) == MOSQ_ERR_SUCCESS)
      mosquitto_loop_write(m_pMosq, 1);
    m_bUp = false;
    Discard();
    // Full jitter: a random wait up to the growing bound.
    const int iBound = std::min(kBackoffCapMs, kBackoffBaseMs << std::min(m_uFailures, 10u));
    ++m_uFailures;
    Pause(static_cast<int>(m_random() % static_cast<unsigned>(iBound)) + 1);
  }
}

void CBrokerLink::Lost(const std::string& strWhy) {
  // One line per loss, not one per attempt.
  if (m_bUp.exchange(false) || !m_bOffline)
    LogWarnTo(CloudLog(), "*zxcloudd broker not connected address[%s] error[%s]",
              AddressText(m_config.listAddresses[m_uAddress]), strWhy);
  m_bOffline = true;
  m_uAddress = (m_uAddress + 1) % m_config.listAddresses.size();
}

bool CBrokerLink::Connect() {
  const _Address& address = m_config.listAddresses[m_uAddress];
  std::string strError;
  m_iConnack = -1;
  m_bSubscribed = m_bSubscribeRefused = false;
  if (m_pMosq == nullptr && !Setup(strError)) {
    Lost(strError);
    return false;
  }
  errno = 0;
  const int iCode =
      mosquitto_connect(m_pMosq, address.strHost.c_str(), address.iPort, m_config.iKeepaliveSec);
  if (iCode != MOSQ_ERR_SUCCESS) {
    Lost(iCode == MOSQ_ERR_ERRNO ? ErrnoText(errno) : std::string(mosquitto_strerror(iCode)));
    return false;
  }
  return true;
}

void CBrokerLink::ServeConnection() {
  const uint64_t u64Deadline = ZxGetTickCount() + kHandshakeMs;
  bool bAsked = false;
  for (int iWaitMs = 0; !m_bStop; iWaitMs = kTickMs) {
    bool bReadable = false;
    if (!WaitForWork(iWaitMs, bReadable))
      return Lost("poll failed");
    if (bReadable && !ReceiveBatch())
      return;
    if (m_iConnack > 0)
      return Lost(mosquitto_connack_string(m_iConnack));
    if (m_iConnack == 0 && !bAsked && !Subscribe())
      return;
    bAsked = m_iConnack == 0;
    if (m_bSubscribeRefused)
      return Lost("the broker refuses the subscriptions");
    if (m_bSubscribed && !m_bUp)
      OnUp();
    if (!m_bUp && ZxGetTickCount() > u64Deadline)
      return Lost("no answer to the connection");
    if (!CommitBatch() || (m_bUp && !PublishWaiting()))
      return;
    // Until the handshake is through, the library does not say that it wants to write.
    int iCode = MOSQ_ERR_SUCCESS;
    if (m_iConnack < 0 || mosquitto_want_write(m_pMosq))
      iCode = mosquitto_loop_write(m_pMosq, 1);
    if (iCode == MOSQ_ERR_SUCCESS)
      iCode = mosquitto_loop_misc(m_pMosq);
    if (iCode != MOSQ_ERR_SUCCESS)
      return Lost(mosquitto_strerror(iCode));
  }
}

bool CBrokerLink::Subscribe() {
  // The broker repeats the retained states after this; until then nobody counts as online.
  if (!m_service.OnBrokerConnected()) {
    Lost("the store does not work");
    return false;
  }
  std::string strUploads = kTopicUploads, strStatus = kTopicStatus;
  char* const topics[] = {strUploads.data(), strStatus.data()};
  const int iCode = mosquitto_subscribe_multiple(m_pMosq, nullptr, 2, topics, 1, 0, nullptr);
  if (iCode == MOSQ_ERR_SUCCESS)
    return true;
  Lost(mosquitto_strerror(iCode));
  return false;
}

void CBrokerLink::OnUp() {
  m_bUp = true;
  m_bOffline = false;
  m_bMayWait = true;
  m_u64UpSince = ZxGetTickCount();
  LogInfoTo(CloudLog(), "zxcloudd broker connected address[%s]",
            AddressText(m_config.listAddresses[m_uAddress]));
}

bool CBrokerLink::WaitForWork(int iMs, bool& bReadable) {
  const int iWrite = mosquitto_want_write(m_pMosq) ? POLLOUT : 0;
  pollfd fds[2] = {{mosquitto_socket(m_pMosq), static_cast<short>(POLLIN | iWrite), 0},
                   {m_iWakeFd, POLLIN, 0}};
  if (poll(fds, 2, iMs) < 0)
    return errno == EINTR;
  bReadable = (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
  if (fds[1].revents != 0) {
    DrainWake();
    m_bMayWait = true;
  }
  if (m_u64UpSince != 0 && ZxGetTickCount() - m_u64UpSince > kStableMs)
    m_uFailures = 0;
  return true;
}

bool CBrokerLink::ReceiveBatch() {
  for (;;) {
    errno = 0;
    const int iCode = mosquitto_loop_read(m_pMosq, 1);
    if (iCode != MOSQ_ERR_SUCCESS) {
      Lost(mosquitto_strerror(iCode));
      return false;
    }
    if (m_listBatch.size() >= kBatchMax || m_uBatchBytes >= kBatchBytes)
      return true;
    // Bytes that TLS has decrypted already do not make the socket readable.
    SSL* pSsl = static_cast<SSL*>(mosquitto_ssl_get(m_pMosq));
    if (pSsl != nullptr && SSL_pending(pSsl) > 0)
      continue;
    pollfd fd{mosquitto_socket(m_pMosq), POLLIN, 0};
    if (poll(&fd, 1, 0) <= 0)
      return true;
  }
}

// Writes nothing to the broker itself: the acknowledgements leave with the next write, after this.
bool CBrokerLink::CommitBatch() {
  if (!m_listPushed.empty()) {
    if (!m_service.OnPushed(m_listPushed)) {
      Lost("the store does not work");
      return false;
    }
    m_listPushed.clear();
    m_bMayWait = true;
  }
  if (m_listBatch.empty())
    return true;
  if (!m_service.OnMessages(m_listBatch)) {
    // The connection goes down with its unsent acknowledgements; the broker delivers again.
    Lost("the store does not work");
    return false;
  }
  m_listBatch.clear();
  m_uBatchBytes = 0;
  m_uFailures = 0;
  return true;
}

bool CBrokerLink::PublishWaiting() {
  const int iFree = kWindow - static_cast<int>(m_mapInFlight.size());
  if (!m_bMayWait || iFree <= 0)
    return true;
  std::vector<_PushItem> listItems;
  if (!m_service.TakePushes(iFree, kWindowBytes, listItems)) {
    Lost("the store does not work");
    return false;
  }
  m_bMayWait = static_cast<int>(listItems.size()) == iFree;
  for (const _PushItem& item : listItems) {
    int iMid = 0;
    const int iCode = mosquitto_publish(m_pMosq, &iMid, PushTopic(item.strMid, item.iPcid).c_str(),
                                        static_cast<int>(item.strText.size()), item.strText.data(), 1, false);
    if (iCode != MOSQ_ERR_SUCCESS) {
      Lost(mosquitto_strerror(iCode));
      return false;
    }
    m_mapInFlight[iMid] = item.i64Seq;
  }
  return true;
}

void CBrokerLink::OnConnect(mosquitto*, void* pThis, int iCode) {
  Self(pThis)->m_iConnack = iCode;
}

void CBrokerLink::OnSubscribe(mosquitto*, void* pThis, int, int iCount, const int* pGranted) {
  for (int i = 0; i < iCount; ++i) {
    if (pGranted[i] > 2)
      Self(pThis)->m_bSubscribeRefused = true;
  }
  Self(pThis)->m_bSubscribed = true;
}

void CBrokerLink::OnMessage(mosquitto*, void* pThis, const mosquitto_message* pMessage) {
  const char* pData = static_cast<const char*>(pMessage->payload);
  const auto uLength = pData != nullptr ? static_cast<size_t>(pMessage->payloadlen) : 0;
  try {
    Self(pThis)->m_listBatch.push_back(
        {pMessage->topic, std::string(pData != nullptr ? pData : "", uLength)});
    Self(pThis)->m_uBatchBytes += uLength;
  } catch (const std::exception&) {
    abort();  // out of memory: going on would acknowledge what was never stored
  }
}

void CBrokerLink::OnPublish(mosquitto*, void* pThis, int iMid) {
  CBrokerLink* pLink = Self(pThis);
  const auto it = pLink->m_mapInFlight.find(iMid);
  if (it == pLink->m_mapInFlight.end())
    return;
  pLink->m_listPushed.push_back(it->second);
  pLink->m_mapInFlight.erase(it);
}

}  // namespace zxcloudd
