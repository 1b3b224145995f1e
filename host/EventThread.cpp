#include "EventThread.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

CEventThread::~CEventThread() {
  Join();
  if (m_iFd >= 0)
    close(m_iFd);
}

bool CEventThread::Start(const std::function<void()>& fnRun) {
  m_iFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (m_iFd < 0)
    return false;
  try {
    m_thread = std::thread(fnRun);
  } catch (const std::system_error& e) {
    errno = e.code().value();
    return false;
  }
  return true;
}

void CEventThread::Join() {
  if (m_thread.joinable())
    m_thread.join();
}

void CEventThread::Signal() const {
  const uint64_t u64One = 1;
  (void)!write(m_iFd, &u64One, sizeof(u64One));  // a full counter is readable as well
}

void CEventThread::Take() const {
  uint64_t u64Count = 0;
  (void)!read(m_iFd, &u64Count, sizeof(u64Count));
}
