// A thread of the host together with its event descriptor: one side signals, the other polls. Owned by the
// object whose code the thread runs.
#pragma once

#include <functional>
#include <thread>

class CEventThread {
 public:
  CEventThread() = default;
  ~CEventThread();  // waits for the thread
  CEventThread(const CEventThread&) = delete;
  CEventThread& operator=(const CEventThread&) = delete;

  bool Start(const std::function<void()>& fnRun);  // once; false: no descriptor or no thread (errno)
  bool IsJoinable() const { return m_thread.joinable(); }
  void Join();
  // From any thread once Start has returned true, and from the thread itself. Neither blocks.
  void Signal() const;
  void Take() const;                // what was signalled so far
  int Fd() const { return m_iFd; }  // readable after Signal, until Take; -1 before Start

 private:
  std::thread m_thread;
  int m_iFd = -1;
};
