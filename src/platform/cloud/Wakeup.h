// Wakes a thread that waits on descriptors (epoll): an eventfd. Threads: any. Blocking: never.
// A signal costs a system call only when that thread sleeps: it says so before it waits, and after it has
// looked for work, so that nothing between the two is missed.
#pragma once

#include <atomic>
#include <cstdint>

namespace zxcloud {

class CWakeup {
 public:
  CWakeup();  // Descriptor() is -1 when the system has none left
  ~CWakeup();
  CWakeup(const CWakeup&) = delete;
  CWakeup& operator=(const CWakeup&) = delete;

  void Signal();  // many signals for one sleep cost one system call
  // By the woken thread. False: there has been a signal since EndWait, so it must not wait.
  bool BeginWait();
  void EndWait(bool bReadable);  // bReadable: the descriptor was; look for work afterwards
  int Descriptor() const { return m_fd; }

 private:
  enum EState : uint8_t { Awake, Asleep, Signalled };

  const int m_fd;
  std::atomic<uint8_t> m_uState{Asleep};  // until it first says otherwise
};

}  // namespace zxcloud
