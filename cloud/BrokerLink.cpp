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
#include "platform/os/ZxThread.h"
#include "platform/os/ZxTime.h"

namespace zxcloudd {

namespace {

constexpr size_t kWindowBytes = 4u << 20;
constexpr size_t kBatchMax = 256;  // messages of one commit
constexpr size_t kBatchBytes = 16u << 20;
constexpr uint64_t kHandshakeMs = 5000;  // CONNACK and SUBACK must be there by then
constexpr int kTickMs = 1000;            // keep-alive bookkeeping of the library
constexpr uint64_t kStableMs = 60000;    // a connection this old clears the back-off
constexpr int kBackoffBaseMs = 500;
// There is one cloud, not a fleet of them: trying every few seconds harms nobody, and what machines have
// handed to the broker should not wait longer than that once the trouble is over.
constexpr int kBackoffCapMs = 5000;
constexpr size_t kReasonsMax = 16;  // told during one loss

}  // namespace

CBrokerLink::CBrokerLink(CCloudService& service, const _BrokerConfig& config)
    : m_service(service), m_config(config), m_random(std::random_device{}()) {}

CBrokerLink::~CBrokerLink() {
  Stop();
}

// What the configuration names is read now, so that a mistake is a failed start.
bool CBrokerLink::Check(std::string& strError) {
  if (m_config.listAddresses.empty())
    return true;
  mosquitto_lib_init();
  const bool bUsable = SetupTls(m_config.listAddresses.front().strHost, strError) && Setup(strError);
  Discard();
  mosquitto_lib_cleanup();
  return bUsable;
}

bool CBrokerLink::Start(std::string& strError) {
  if (m_config.listAddresses.empty())
    return true;
  if (!Check(strError))
    return false;
  m_iWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (m_iWakeFd < 0) {
    strError = std::string("eventfd: ") + ErrnoText(errno);
    return false;
  }
  mosquitto_lib_init();
  m_bStop = false;
  m_thread = std::thread(&CBrokerLink::Loop, this);
  return true;
}

void CBrokerLink::Discard() {
  if (m_pMosq != nullptr)
    mosquitto_destroy(m_pMosq);
  m_pMosq = nullptr;
  m_pCtx.reset();
  m_listBatch.clear();
  m_uBatchBytes = 0;
  m_listPushed.clear();
  m_mapInFlight.clear();
  m_confirms.ConnectionEnded();
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
    if (m_bStop && m_bUp && mosquitto_disconnect(m_pMosq) == MOSQ_ERR_SUCCESS)
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
  // One line per loss and reason, not one per attempt: what cures one reason often shows the next.
  if (m_bUp.exchange(false))
    m_listReasons.clear();
  const bool bKnown = std::find(m_listReasons.begin(), m_listReasons.end(), strWhy) != m_listReasons.end();
  if (!bKnown && m_listReasons.size() < kReasonsMax) {
    LogWarnTo(CloudLog(), "*zxcloudd broker not connected address[%s] error[%s]",
              AddressText(m_config.listAddresses[m_uAddress]), strWhy);
    m_listReasons.push_back(strWhy);
  }
  m_uAddress = (m_uAddress + 1) % m_config.listAddresses.size();
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
    if (m_bSubscribed && !m_bUp && !OnUp())
      return;
    if (!m_bUp && ZxGetTickCount() > u64Deadline)
      return Lost("no answer to the connection");
    if (!CommitBatch() || (m_bUp && !PublishWaiting()) || !TurnConnection())
      return;
  }
}

// What the library wants to write, and its keep-alive.
bool CBrokerLink::TurnConnection() {
  int iCode = MOSQ_ERR_SUCCESS;
  const bool bHandshake = Handshaking();
  // While TLS shakes hands, reading carries it on, also when nothing is there to be read.
  if (bHandshake)
    iCode = mosquitto_loop_read(m_pMosq, 1);
  if (iCode == MOSQ_ERR_SUCCESS && !Handshaking() && (m_iConnack < 0 || mosquitto_want_write(m_pMosq)))
    iCode = mosquitto_loop_write(m_pMosq, 1);
  if (iCode == MOSQ_ERR_SUCCESS && bHandshake && EndedInHandshake())
    iCode = MOSQ_ERR_CONN_LOST;
  if (iCode == MOSQ_ERR_SUCCESS && !bHandshake)
    iCode = mosquitto_loop_misc(m_pMosq);
  if (iCode == MOSQ_ERR_SUCCESS)
    return true;
  Lost(FailureText(iCode));
  return false;
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

bool CBrokerLink::OnUp() {
  m_bUp = true;
  m_listReasons.clear();
  m_bMayWait = true;
  m_u64UpSince = ZxGetTickCount();
  LogInfoTo(CloudLog(), "zxcloudd broker connected address[%s]",
            AddressText(m_config.listAddresses[m_uAddress]));
  for (_Confirm confirm; m_confirms.TakeAgain(confirm);) {
    if (!PublishConfirm(std::move(confirm)))
      return false;
  }
  return true;
}

bool CBrokerLink::WaitForWork(int iMs, bool& bReadable) {
  // The CONNECT packet waits behind the handshake; asking for writability then would spin.
  const bool bWrite = Handshaking() ? SSL_want_write(static_cast<SSL*>(mosquitto_ssl_get(m_pMosq)))
                                    : mosquitto_want_write(m_pMosq);
  const int iWrite = bWrite ? POLLOUT : 0;
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
      Lost(FailureText(iCode));
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
  std::vector<_Confirm> listConfirms;
  if (!m_service.OnMessages(m_listBatch, listConfirms)) {
    // The connection goes down with its unsent acknowledgements; the broker delivers again.
    Lost("the store does not work");
    return false;
  }
  m_listBatch.clear();
  m_uBatchBytes = 0;
  m_uFailures = 0;
  return PublishConfirms(std::move(listConfirms));
}

// A machine that misses one sends its upload again and is told again; but that takes its patience, so the
// broker's word is waited for while there is room to remember it.
bool CBrokerLink::PublishConfirm(_Confirm confirm) {
  int iMid = 0;
  const int iQos = m_confirms.HasRoom() ? 1 : 0;
  const int iCode =
      mosquitto_publish(m_pMosq, &iMid, ConfirmTopic(confirm.strMid).c_str(),
                        static_cast<int>(confirm.strText.size()), confirm.strText.data(), iQos, false);
  if (iQos == 1)
    m_confirms.Told(iMid, std::move(confirm));
  if (iCode == MOSQ_ERR_SUCCESS)
    return true;
  Lost(mosquitto_strerror(iCode));
  return false;
}

bool CBrokerLink::PublishConfirms(std::vector<_Confirm> listConfirms) {
  for (_Confirm& confirm : listConfirms) {
    if (!PublishConfirm(std::move(confirm)))
      return false;
  }
  return true;
}

bool CBrokerLink::PublishWaiting() {
  const int iFree = kBrokerWindow - static_cast<int>(m_mapInFlight.size());
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

}  // namespace zxcloudd
