#include "LinkClients.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace {

constexpr int kKeepAliveSeconds = 60;
constexpr int kWindow = 200;
constexpr int kPollMs = 1000;
constexpr size_t kIds = 65536;

[[noreturn]] void Die(const char* pszWhat) {
  std::fprintf(stderr, "link_bench: %s\n", pszWhat);
  std::exit(1);
}

void PutLength(std::string& str, size_t uLength) {
  do {
    const auto byte = static_cast<char>(uLength % 128);
    uLength /= 128;
    str += static_cast<char>(uLength > 0 ? byte | static_cast<char>(0x80) : byte);
  } while (uLength > 0);
}

void PutText(std::string& str, std::string_view text) {
  str += static_cast<char>(text.size() >> 8);
  str += static_cast<char>(text.size());
  str += text;
}

}  // namespace

CPublishQueue::CPublishQueue() : m_fdWake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

CPublishQueue::~CPublishQueue() {
  close(m_fdWake);
}

void CPublishQueue::Wake() const {
  const uint64_t u64One = 1;
  (void)!write(m_fdWake, &u64One, sizeof(u64One));
}

void CPublishQueue::Send(CPublish& publish) {
  std::condition_variable& cond = m_cond[(reinterpret_cast<uintptr_t>(&publish) >> 12) % std::size(m_cond)];
  std::unique_lock lock(m_mutex);
  m_waiting.push_back(&publish);
  if (m_waiting.size() == 1)
    Wake();
  cond.wait(lock, [&] { return publish.bDone; });
}

void CPublishQueue::Take(std::vector<CPublish*>& list) {
  uint64_t u64Count = 0;
  (void)!read(m_fdWake, &u64Count, sizeof(u64Count));
  const std::lock_guard lock(m_mutex);
  list.swap(m_waiting);
}

void CPublishQueue::Done(CPublish& publish) {
  std::condition_variable& cond = m_cond[(reinterpret_cast<uintptr_t>(&publish) >> 12) % std::size(m_cond)];
  const std::lock_guard lock(m_mutex);
  publish.bDone = true;
  cond.notify_all();
}

// --- libmosquitto on a loop of its own.

CBareClient::CBareClient(const std::string& strId, int iPort, const std::string& strCaFile,
                         const std::string& strSubscribe, TOnMessage fnOnMessage)
    : m_fnOnMessage(std::move(fnOnMessage)) {
  mosquitto_lib_init();
  m_pMosq = mosquitto_new(strId.c_str(), true, this);
  mosquitto_int_option(m_pMosq, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_max_inflight_messages_set(m_pMosq, kWindow);
  if (mosquitto_tls_set(m_pMosq, strCaFile.c_str(), nullptr, nullptr, nullptr, nullptr) != MOSQ_ERR_SUCCESS)
    Die("mosquitto_tls_set");
  mosquitto_publish_callback_set(m_pMosq, [](mosquitto*, void* pThis, int iMid) {
    auto& self = *static_cast<CBareClient*>(pThis);
    const auto it = self.m_open.find(iMid);
    if (it == self.m_open.end())
      return;
    CPublish* pPublish = it->second;
    self.m_open.erase(it);
    self.m_queue.Done(*pPublish);
  });
  mosquitto_message_callback_set(m_pMosq, [](mosquitto*, void* pThis, const mosquitto_message* p) {
    static_cast<CBareClient*>(pThis)->m_fnOnMessage(
        {static_cast<const char*>(p->payload), static_cast<size_t>(p->payloadlen)});
  });
  mosquitto_subscribe_callback_set(m_pMosq, [](mosquitto*, void* pThis, int, int, const int*) {
    static_cast<CBareClient*>(pThis)->m_bReady = true;
  });
  if (strSubscribe.empty())
    mosquitto_connect_callback_set(
        m_pMosq, [](mosquitto*, void* pThis, int) { static_cast<CBareClient*>(pThis)->m_bReady = true; });
  if (mosquitto_connect(m_pMosq, "127.0.0.1", iPort, kKeepAliveSeconds) != MOSQ_ERR_SUCCESS)
    Die("the bare client does not connect");
  if (!strSubscribe.empty())
    mosquitto_subscribe(m_pMosq, nullptr, strSubscribe.c_str(), 1);
  m_thread = std::thread([this] { Loop(); });
  while (!m_bReady)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

CBareClient::~CBareClient() {
  m_bStop = true;
  m_queue.Wake();
  m_thread.join();
  mosquitto_destroy(m_pMosq);
}

void CBareClient::Send(std::string_view topic, std::string_view payload) {
  CPublish publish{topic, payload};
  m_queue.Send(publish);
}

void CBareClient::Publish() {
  std::vector<CPublish*> list;
  m_queue.Take(list);
  for (CPublish* pPublish : list) {
    int iMid = 0;
    if (mosquitto_publish(m_pMosq, &iMid, std::string(pPublish->topic).c_str(),
                          static_cast<int>(pPublish->payload.size()), pPublish->payload.data(), 1,
                          false) != MOSQ_ERR_SUCCESS)
      Die("mosquitto_publish");
    m_open[iMid] = pPublish;
  }
}

void CBareClient::Loop() {
  while (!m_bStop) {
    const bool bWrite = mosquitto_want_write(m_pMosq);
    pollfd fds[2] = {{mosquitto_socket(m_pMosq), static_cast<short>(bWrite ? POLLIN | POLLOUT : POLLIN), 0},
                     {m_queue.WakeFd(), POLLIN, 0}};
    poll(fds, 2, kPollMs * kKeepAliveSeconds / 2);
    if ((fds[1].revents & POLLIN) != 0)
      Publish();
    if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0 &&
        mosquitto_loop_read(m_pMosq, 1) != MOSQ_ERR_SUCCESS)
      Die("the bare client lost its connection");
    if ((fds[0].revents & POLLOUT) != 0 || mosquitto_want_write(m_pMosq))
      mosquitto_loop_write(m_pMosq, 1);
    mosquitto_loop_misc(m_pMosq);
  }
}

// --- The floor.

CFloorClient::CFloorClient(const std::string& strId, int iPort, const std::string& strCaFile) : m_open(kIds) {
  m_pCtx = SSL_CTX_new(TLS_client_method());
  SSL_CTX_set_mode(m_pCtx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_verify(m_pCtx, SSL_VERIFY_PEER, nullptr);
  if (SSL_CTX_load_verify_locations(m_pCtx, strCaFile.c_str(), nullptr) != 1)
    Die("the floor client's CA");
  m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(iPort));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
    Die("the floor client does not connect");
  const int iOn = 1;
  setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
  m_pSsl = SSL_new(m_pCtx);
  SSL_set_fd(m_pSsl, m_fd);
  if (SSL_connect(m_pSsl) != 1)
    Die("the floor client's handshake");
  std::string strBody;
  PutText(strBody, "MQTT");
  strBody += '\x04';                  // 3.1.1
  strBody += '\x02';                  // clean session
  strBody += std::string("\0\0", 2);  // no keep-alive
  PutText(strBody, strId);
  m_strOut = '\x10';
  PutLength(m_strOut, strBody.size());
  m_strOut += strBody;
  char szConnack[4];
  if (SSL_write(m_pSsl, m_strOut.data(), static_cast<int>(m_strOut.size())) <= 0 ||
      SSL_read(m_pSsl, szConnack, sizeof(szConnack)) != sizeof(szConnack) || szConnack[3] != 0)
    Die("the floor client is refused");
  m_strOut.clear();
  fcntl(m_fd, F_SETFL, fcntl(m_fd, F_GETFL) | O_NONBLOCK);
  m_thread = std::thread([this] { Loop(); });
}

CFloorClient::~CFloorClient() {
  m_bStop = true;
  m_queue.Wake();
  m_thread.join();
  SSL_free(m_pSsl);
  SSL_CTX_free(m_pCtx);
  close(m_fd);
}

void CFloorClient::Send(std::string_view topic, std::string_view payload) {
  CPublish publish{topic, payload};
  m_queue.Send(publish);
}

void CFloorClient::Encode(const CPublish& publish, uint16_t wId) {
  m_strOut += '\x32';  // PUBLISH, QoS 1
  PutLength(m_strOut, 2 + publish.topic.size() + 2 + publish.payload.size());
  PutText(m_strOut, publish.topic);
  m_strOut += static_cast<char>(wId >> 8);
  m_strOut += static_cast<char>(wId);
  m_strOut += publish.payload;
}

bool CFloorClient::Write() {
  while (!m_strOut.empty()) {
    const int iWritten = SSL_write(m_pSsl, m_strOut.data(), static_cast<int>(m_strOut.size()));
    if (iWritten <= 0) {
      if (SSL_get_error(m_pSsl, iWritten) != SSL_ERROR_WANT_WRITE)
        Die("the floor client cannot write");
      return false;
    }
    m_strOut.erase(0, static_cast<size_t>(iWritten));
  }
  return true;
}

// Only PUBACKs come: four bytes each.
void CFloorClient::Read() {
  constexpr size_t kPuback = 4;
  char szBuffer[16384];
  int iRead = 0;
  while ((iRead = SSL_read(m_pSsl, szBuffer, sizeof(szBuffer))) > 0)
    m_strIn.append(szBuffer, static_cast<size_t>(iRead));
  if (SSL_get_error(m_pSsl, iRead) != SSL_ERROR_WANT_READ)
    Die("the floor client lost its connection");
  size_t u = 0;
  for (; u + kPuback <= m_strIn.size(); u += kPuback) {
    const auto wId = static_cast<uint16_t>(static_cast<uint8_t>(m_strIn[u + 2]) << 8 |
                                           static_cast<uint8_t>(m_strIn[u + 3]));
    if (m_strIn[u] != '\x40' || m_open[wId] == nullptr)
      Die("the floor client got a packet that it does not know");
    m_queue.Done(*std::exchange(m_open[wId], nullptr));
  }
  m_strIn.erase(0, u);
}

void CFloorClient::Loop() {
  bool bFlushed = true;
  while (!m_bStop) {
    pollfd fds[2] = {{m_fd, static_cast<short>(bFlushed ? POLLIN : POLLIN | POLLOUT), 0},
                     {m_queue.WakeFd(), POLLIN, 0}};
    poll(fds, 2, -1);
    if ((fds[1].revents & POLLIN) != 0) {
      std::vector<CPublish*> list;
      m_queue.Take(list);
      for (CPublish* pPublish : list) {
        do
          ++m_wLastId;
        while (m_wLastId == 0 || m_open[m_wLastId] != nullptr);
        m_open[m_wLastId] = pPublish;
        Encode(*pPublish, m_wLastId);
      }
    }
    if ((fds[0].revents & POLLIN) != 0)
      Read();
    bFlushed = Write();
  }
}
