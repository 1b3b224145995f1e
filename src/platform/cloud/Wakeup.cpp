#include "platform/cloud/Wakeup.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace zxcloud {

CWakeup::CWakeup() : m_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

CWakeup::~CWakeup() {
  if (m_fd >= 0)
    close(m_fd);
}

void CWakeup::Signal() {
  const uint64_t u64One = 1;
  if (!m_bSignalled.exchange(true) && write(m_fd, &u64One, sizeof(u64One)) < 0)
    m_bSignalled.store(false);
}

void CWakeup::Clear() {
  uint64_t u64Count = 0;
  if (read(m_fd, &u64Count, sizeof(u64Count)) >= 0)
    m_bSignalled.store(false);
}

}  // namespace zxcloud
