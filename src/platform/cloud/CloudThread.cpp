#include "platform/cloud/CloudThread.h"

#include <signal.h>

#include <utility>

#include "platform/os/ZxThread.h"

namespace zxcloud {

void* CCloudThread::Entry(void* pThis) {
  const auto* pThread = static_cast<CCloudThread*>(pThis);
  ZxSetThreadName(pThread->m_pszName);
  pThread->m_fnBody();
  return nullptr;
}

int CCloudThread::Start(const char* pszName, std::function<void()> fnBody) {
  m_pszName = pszName;
  m_fnBody = std::move(fnBody);
  pthread_attr_t attr;
  if (const int iError = pthread_attr_init(&attr); iError != 0)
    return iError;
  pthread_attr_setstacksize(&attr, kZxThreadStackBytes);
  sigset_t setAll;
  sigset_t setOld;
  sigfillset(&setAll);
  pthread_sigmask(SIG_SETMASK, &setAll, &setOld);
  const int iError = pthread_create(&m_hThread, &attr, Entry, this);
  pthread_sigmask(SIG_SETMASK, &setOld, nullptr);
  pthread_attr_destroy(&attr);
  m_bStarted = iError == 0;
  return iError;
}

void CCloudThread::Join() {
  if (!m_bStarted)
    return;
  pthread_join(m_hThread, nullptr);
  m_bStarted = false;
}

}  // namespace zxcloud
