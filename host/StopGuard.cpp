#include "StopGuard.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform/os/ZxThread.h"

// Not of the thread group of any library: it lives until the process ends.
void* CStopGuard::Thread(void* pTimeoutMs) {
  ZxSetThreadName("zxhoststop");
  const auto uMs = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pTimeoutMs));
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += uMs / 1000;
  deadline.tv_nsec += static_cast<long>(uMs % 1000) * 1000000;
  if (deadline.tv_nsec >= 1000000000) {
    deadline.tv_nsec -= 1000000000;
    ++deadline.tv_sec;
  }
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
  }
  // The log may be what hangs, so this goes past it.
  char szLine[96];
  const int iLength =
      std::snprintf(szLine, sizeof(szLine), "zxhost: a plug-in did not stop within %u ms, ending\n", uMs);
  (void)!write(STDERR_FILENO, szLine, static_cast<size_t>(iLength));
  _exit(kExitForced);
}

bool CStopGuard::Arm(uint32_t uTimeoutMs) {
  pthread_t hThread = 0;
  if (pthread_create(&hThread, nullptr, &CStopGuard::Thread,
                     reinterpret_cast<void*>(uintptr_t{uTimeoutMs})) != 0)
    return false;
  pthread_detach(hThread);
  return true;
}
