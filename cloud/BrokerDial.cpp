// Making a connection to the broker: name, address, TCP, and the library set up for it.
#include <mosquitto.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "BrokerLink.h"
#include "CloudText.h"
#include "Lookup.h"
#include "platform/os/ZxFile.h"
#include "platform/os/ZxTime.h"

namespace zxcloudd {

namespace {

constexpr uint64_t kLookupMs = 10000;
constexpr uint64_t kTcpMs = 5000;  // for each address of a name
constexpr size_t kPasswordMax = 4096;

CBrokerLink* Self(void* pThis) {
  return static_cast<CBrokerLink*>(pThis);
}

// A context's own data is the name of its server (BrokerTls.cpp), so the link stands beside it.
int LinkIndex() {
  static const int iIndex = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return iIndex;
}

}  // namespace

bool CBrokerLink::SetupTls(const std::string& strHost, std::string& strError) {
  m_pCtx.reset();
  if (m_config.bPlaintextLoopback)
    return true;
  m_lVerdict = X509_V_OK;
  m_pCtx = NewBrokerContext(m_config, strHost, strError);
  if (m_pCtx == nullptr)
    return false;
  if (SSL_CTX_set_ex_data(m_pCtx.get(), LinkIndex(), this) != 1) {
    strError = "TLS: out of memory";
    return false;
  }
  SSL_CTX_set_verify(m_pCtx.get(), SSL_VERIFY_PEER, &CBrokerLink::OnVerify);
  return true;
}

// The library may drop its connection before anybody can ask it why the certificate was refused.
int CBrokerLink::OnVerify(int iAccepted, X509_STORE_CTX* pStore) {
  const auto* pSsl =
      static_cast<SSL*>(X509_STORE_CTX_get_ex_data(pStore, SSL_get_ex_data_X509_STORE_CTX_idx()));
  if (iAccepted == 0)
    static_cast<CBrokerLink*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(pSsl), LinkIndex()))->m_lVerdict =
        X509_STORE_CTX_get_error(pStore);
  return iAccepted;
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
  mosquitto_max_inflight_messages_set(m_pMosq, kBrokerWindow + CToldConfirms::kMost);
  mosquitto_connect_callback_set(m_pMosq, &CBrokerLink::OnConnect);
  mosquitto_subscribe_callback_set(m_pMosq, &CBrokerLink::OnSubscribe);
  mosquitto_message_callback_set(m_pMosq, &CBrokerLink::OnMessage);
  mosquitto_publish_callback_set(m_pMosq, &CBrokerLink::OnPublish);
  if (m_pCtx != nullptr &&
      (mosquitto_int_option(m_pMosq, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0) != MOSQ_ERR_SUCCESS ||
       mosquitto_void_option(m_pMosq, MOSQ_OPT_SSL_CTX, m_pCtx.get()) != MOSQ_ERR_SUCCESS)) {
    strError = "broker: TLS cannot be set up";
    return false;
  }
  if (m_config.strUser.empty())
    return true;
  CPString strFile;
  if (!m_config.strPasswordFile.empty() && !ZxReadFileText(CPString(m_config.strPasswordFile), strFile)) {
    strError = "broker.password_file " + m_config.strPasswordFile + ": " + ErrnoText(errno);
    return false;
  }
  const std::string strPassword(Trim(strFile.View()).substr(0, kPasswordMax));
  mosquitto_username_pw_set(m_pMosq, m_config.strUser.c_str(),
                            strPassword.empty() ? nullptr : strPassword.c_str());
  return true;
}

bool CBrokerLink::Connect() {
  const _Address& address = m_config.listAddresses[m_uAddress];
  std::string strError;
  m_iConnack = -1;
  m_bSubscribed = m_bSubscribeRefused = false;
  for (const std::string& strIp : LookUp(address.strHost, strError)) {
    Discard();
    if (SetupTls(address.strHost, strError) && Setup(strError) && Dial(strIp, address.iPort, strError))
      return true;
    if (m_bStop)
      return false;
  }
  if (!m_bStop)
    Lost(strError);
  return false;
}

std::vector<std::string> CBrokerLink::LookUp(const std::string& strHost, std::string& strError) {
  if (IsIpLiteral(strHost))
    return {strHost};
  CLookup lookup;
  if (!lookup.Start(strHost)) {
    strError = "the name cannot be looked up: out of resources";
    return {};
  }
  if (!Await(lookup.Descriptor(), POLLIN, ZxGetTickCount() + kLookupMs)) {
    strError = "the name servers do not answer";
    return {};
  }
  return lookup.Take(strError);
}

bool CBrokerLink::Dial(const std::string& strIp, int iPort, std::string& strError) {
  errno = 0;
  const int iCode = mosquitto_connect_async(m_pMosq, strIp.c_str(), iPort, m_config.iKeepaliveSec);
  if (iCode > MOSQ_ERR_SUCCESS || mosquitto_socket(m_pMosq) < 0) {
    strError = iCode == MOSQ_ERR_ERRNO && errno != 0 ? ErrnoText(errno) : FailureText(iCode);
    return false;
  }
  return AwaitTcp(strError);
}

bool CBrokerLink::AwaitTcp(std::string& strError) {
  const int iSocket = mosquitto_socket(m_pMosq);
  if (!Await(iSocket, POLLOUT, ZxGetTickCount() + kTcpMs)) {
    strError = ErrnoText(ETIMEDOUT);
    return false;
  }
  int iError = 0;
  socklen_t uLength = sizeof(iError);
  sockaddr_storage peer{};
  if (getsockopt(iSocket, SOL_SOCKET, SO_ERROR, &iError, &uLength) != 0)
    iError = errno;
  // The library may have met the error before us, and a socket tells it once.
  uLength = sizeof(peer);
  if (iError == 0 && getpeername(iSocket, reinterpret_cast<sockaddr*>(&peer), &uLength) != 0)
    iError = ECONNREFUSED;
  strError = ErrnoText(iError);
  return iError == 0;
}

bool CBrokerLink::Await(int iFd, short nEvents, uint64_t u64Until) {
  for (uint64_t u64Now = ZxGetTickCount(); !m_bStop && u64Now < u64Until; u64Now = ZxGetTickCount()) {
    pollfd fds[2] = {{iFd, nEvents, 0}, {m_iWakeFd, POLLIN, 0}};
    const int iReady = poll(fds, 2, static_cast<int>(u64Until - u64Now));
    if (iReady < 0 && errno != EINTR)
      return false;
    if (fds[1].revents != 0)
      DrainWake();
    if (fds[0].revents != 0)
      return !m_bStop;
  }
  return false;
}

bool CBrokerLink::Handshaking() const {
  const SSL* pSsl = static_cast<SSL*>(mosquitto_ssl_get(m_pMosq));
  return pSsl != nullptr && SSL_in_init(pSsl) != 0;
}

// The library takes a connection that ends during the handshake for one that is still busy.
bool CBrokerLink::EndedInHandshake() const {
  char ch = 0;
  return Handshaking() && recv(mosquitto_socket(m_pMosq), &ch, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

std::string CBrokerLink::FailureText(int iCode) const {
  if (m_lVerdict != X509_V_OK)
    return std::string("certificate refused: ") + X509_verify_cert_error_string(m_lVerdict);
  return iCode == MOSQ_ERR_KEEPALIVE ? "no answer to the keep-alive" : mosquitto_strerror(iCode);
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
  pLink->m_confirms.Acknowledged(iMid);
  const auto it = pLink->m_mapInFlight.find(iMid);
  if (it == pLink->m_mapInFlight.end())
    return;
  pLink->m_listPushed.push_back(it->second);
  pLink->m_mapInFlight.erase(it);
}

}  // namespace zxcloudd
