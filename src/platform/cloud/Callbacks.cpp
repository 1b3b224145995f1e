#include "platform/cloud/Callbacks.h"

namespace zxcloud {

class CCallbacks::CTurn {
 public:
  explicit CTurn(CCallbacks& owner) : m_owner(owner), m_bEntered(owner.Enter()) {}
  ~CTurn() {
    if (m_bEntered)
      m_owner.Leave();
  }
  CTurn(const CTurn&) = delete;
  CTurn& operator=(const CTurn&) = delete;
  explicit operator bool() const { return m_bEntered; }

 private:
  CCallbacks& m_owner;
  const bool m_bEntered;
};

CCallbacks::CCallbacks(const zxcloud_record& record) : m_record(record) {}

CCallbacks::~CCallbacks() {
  pthread_cond_destroy(&m_cond);
}

bool CCallbacks::Enter() {
  CCritLock lock(m_cs);
  if (m_uDepth > 0 && pthread_equal(m_hOwner, pthread_self()) != 0) {
    ++m_uDepth;
    return true;
  }
  while (m_uDepth > 0 && !m_bClosed)
    pthread_cond_wait(&m_cond, m_cs.Native());
  if (m_bClosed)
    return false;
  m_uDepth = 1;
  m_hOwner = pthread_self();
  return true;
}

void CCallbacks::Leave() {
  CCritLock lock(m_cs);
  if (--m_uDepth == 0)
    pthread_cond_broadcast(&m_cond);
}

void CCallbacks::Close() {
  CCritLock lock(m_cs);
  m_bClosed = true;
  pthread_cond_broadcast(&m_cond);
  while (m_uDepth > 0 && pthread_equal(m_hOwner, pthread_self()) == 0)
    pthread_cond_wait(&m_cond, m_cs.Native());
}

bool CCallbacks::Inside() {
  CCritLock lock(m_cs);
  return m_uDepth > 0 && pthread_equal(m_hOwner, pthread_self()) != 0;
}

void CCallbacks::Push(int iPcid, const char* pszText) {
  if (const CTurn turn(*this); turn && m_record.push != nullptr)
    m_record.push(iPcid, pszText);
}

void CCallbacks::Tconf(const std::string& strPcid) {
  if (const CTurn turn(*this); turn && m_record.tconf != nullptr)
    m_record.tconf(2, strPcid.c_str());
}

void CCallbacks::Connect(const std::string& strIp, uint16_t wPort) {
  if (const CTurn turn(*this); turn && m_record.connect != nullptr)
    m_record.connect(strIp.c_str(), wPort);
}

void CCallbacks::Disconnect() {
  if (const CTurn turn(*this); turn && m_record.disconnect != nullptr)
    m_record.disconnect();
}

void CCallbacks::Log(int iLevel, const char* pszText) {
  if (const CTurn turn(*this); turn && m_record.log != nullptr)
    m_record.log(kZxcloudLogModule, iLevel, pszText);
}

void CCallbacks::Poll(const std::string& strText) {
  if (const CTurn turn(*this); turn && m_record.poll != nullptr)
    m_record.poll(0, strText.c_str(), static_cast<int>(strText.size()));
}

void CCallbacks::Data(EData eFlag, const std::string& strText) {
  if (const CTurn turn(*this); turn && m_record.data != nullptr)
    m_record.data(static_cast<int>(eFlag), 0, strText.c_str(), static_cast<int>(strText.size()));
}

}  // namespace zxcloud
