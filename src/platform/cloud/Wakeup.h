// Wakes a thread that waits on descriptors (epoll): an eventfd. Threads: any. Blocking: never.
#pragma once

#include <atomic>

namespace zxcloud {

class CWakeup {
 public:
  CWakeup();  // Descriptor() is -1 when the system has none left
  ~CWakeup();
  CWakeup(const CWakeup&) = delete;
  CWakeup& operator=(const CWakeup&) = delete;

  void Signal();  // many signals before one Clear cost one system call
  void Clear();   // by the woken thread, before it looks at what there is to do
  int Descriptor() const { return m_fd; }

 private:
  const int m_fd;
  std::atomic<bool> m_bSignalled{false};
};

}  // namespace zxcloud
