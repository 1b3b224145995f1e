#include "platform/cloud/Wakeup.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace zxcloud {

CWakeup::CWakeup() : m_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

CWakeup::~CWakeup() {
  if (m_fd >= 0)
    close(m_fd);
}

void CWakeup::Signal() {
  const uint64_t u64One = 1;
  // A failed write would mean a full counter, which wakes as well.
  if (m_uState.exchange(Signalled) == Asleep && write(m_fd, &u64One, sizeof(u64One)) < 0)
    m_uState.store(Asleep);
}

bool CWakeup::BeginWait() {
  uint8_t uExpected = Awake;
  return m_uState.compare_exchange_strong(uExpected, Asleep);
}

void CWakeup::EndWait(bool bReadable) {
  uint64_t u64Count = 0;
  // Another reader cannot be; an empty counter is a signal that has been seen before it was written.
  if (bReadable && read(m_fd, &u64Count, sizeof(u64Count)) < 0)
    u64Count = 0;
  m_uState.store(Awake);
}

}  // namespace zxcloud
