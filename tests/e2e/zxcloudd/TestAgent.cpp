#include "TestAgent.h"

#include <mosquitto.h>

#include <chrono>

#include "Process.h"

namespace {
const bool g_bLibrary = mosquitto_lib_init() == MOSQ_ERR_SUCCESS;
}

CTestAgent::CTestAgent(std::string strMid, int iPort, const std::string& strCaFile)
    : m_strMid(std::move(strMid)), m_iPort(iPort) {
  m_pMosq = g_bLibrary ? mosquitto_new(m_strMid.c_str(), false, this) : nullptr;
  mosquitto_int_option(m_pMosq, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_tls_set(m_pMosq, strCaFile.c_str(), nullptr, nullptr, nullptr, nullptr);
  mosquitto_will_set(m_pMosq, ("zx/v1/" + m_strMid + "/status").c_str(), 12, "{\"online\":0}", 1, true);
  mosquitto_connect_callback_set(m_pMosq, &CTestAgent::OnConnect);
  mosquitto_subscribe_callback_set(m_pMosq, &CTestAgent::OnSubscribe);
  mosquitto_publish_callback_set(m_pMosq, &CTestAgent::OnPublish);
  mosquitto_message_callback_set(m_pMosq, &CTestAgent::OnMessage);
}

CTestAgent::~CTestAgent() {
  Disconnect(false);
  mosquitto_destroy(m_pMosq);
}

template <class F>
bool CTestAgent::Wait(F fnDone) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_cond.wait_for(lock, std::chrono::milliseconds(kE2eDeadlineMs), fnDone);
}

bool CTestAgent::Connect() {
  if (mosquitto_connect(m_pMosq, "127.0.0.1", m_iPort, 30) != MOSQ_ERR_SUCCESS ||
      mosquitto_loop_start(m_pMosq) != MOSQ_ERR_SUCCESS || !Wait([this] { return m_bConnected; }))
    return false;
  mosquitto_subscribe(m_pMosq, nullptr, ("zx/v1/" + m_strMid + "/ack").c_str(), 1);
  mosquitto_subscribe(m_pMosq, nullptr, ("zx/v1/" + m_strMid + "/push/+").c_str(), 1);
  return Wait([this] { return m_bSubscribed; }) && Publish("status", "{\"online\":1}", true);
}

void CTestAgent::Disconnect(bool bSayOffline) {
  if (bSayOffline)
    Publish("status", "{\"online\":0}", true);
  mosquitto_disconnect(m_pMosq);
  mosquitto_loop_stop(m_pMosq, false);
  m_bConnected = m_bSubscribed = false;
}

bool CTestAgent::Publish(const std::string& strTopicTail, const std::string& strPayload, bool bRetain) {
  int iMid = 0;
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (mosquitto_publish(m_pMosq, &iMid, ("zx/v1/" + m_strMid + "/" + strTopicTail).c_str(),
                          static_cast<int>(strPayload.size()), strPayload.data(), 1,
                          bRetain) != MOSQ_ERR_SUCCESS)
      return false;
  }
  return Wait([&] { return m_setAcked.count(iMid) != 0; });
}

std::string CTestAgent::WaitPush(const std::string& strText) {
  if (!Wait([&] { return m_mapPushes.count(strText) != 0; }))
    return {};
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_mapPushes.find(strText)->second;
}

size_t CTestAgent::Pushes(const std::string& strText) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_mapPushes.count(strText);
}

void CTestAgent::OnConnect(mosquitto*, void* pThis, int iCode) {
  auto* pAgent = static_cast<CTestAgent*>(pThis);
  std::unique_lock<std::mutex> lock(pAgent->m_mutex);
  pAgent->m_bConnected = iCode == 0;
  pAgent->m_cond.notify_all();
}

void CTestAgent::OnSubscribe(mosquitto*, void* pThis, int, int, const int*) {
  auto* pAgent = static_cast<CTestAgent*>(pThis);
  std::unique_lock<std::mutex> lock(pAgent->m_mutex);
  pAgent->m_bSubscribed = true;
  pAgent->m_cond.notify_all();
}

void CTestAgent::OnPublish(mosquitto*, void* pThis, int iMid) {
  auto* pAgent = static_cast<CTestAgent*>(pThis);
  std::unique_lock<std::mutex> lock(pAgent->m_mutex);
  pAgent->m_setAcked.insert(iMid);
  pAgent->m_cond.notify_all();
}

void CTestAgent::OnMessage(mosquitto*, void* pThis, const mosquitto_message* pMessage) {
  auto* pAgent = static_cast<CTestAgent*>(pThis);
  const auto uLength = static_cast<size_t>(pMessage->payloadlen);
  std::unique_lock<std::mutex> lock(pAgent->m_mutex);
  pAgent->m_mapPushes.emplace(std::string(static_cast<const char*>(pMessage->payload), uLength),
                              pMessage->topic);
  pAgent->m_cond.notify_all();
}
