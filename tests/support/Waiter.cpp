#include "support/Waiter.h"

#include <time.h>

#include <chrono>

#include "platform/os/ZxTime.h"

namespace {

constexpr long kAskEveryNs = 2000000;

}  // namespace

void CEventWaiter::Set() {
  // Notified under the lock: the waiter may end its scope as soon as it sees the count.
  const std::lock_guard<std::mutex> lock(m_mutex);
  ++m_uCount;
  m_cond.notify_all();
}

bool CEventWaiter::Wait(uint32_t uCount, uint32_t dwMs) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_cond.wait_for(lock, std::chrono::milliseconds(dwMs), [&] { return m_uCount >= uCount; });
}

uint32_t CEventWaiter::Count() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_uCount;
}

bool EventuallyTrue(const std::function<bool()>& fnCondition, uint32_t dwMs) {
  const uint64_t u64Deadline = ZxGetTickCount() + dwMs;
  while (!fnCondition()) {
    if (ZxGetTickCount() >= u64Deadline)
      return fnCondition();
    const timespec tsPause{0, kAskEveryNs};
    nanosleep(&tsPause, nullptr);
  }
  return true;
}
