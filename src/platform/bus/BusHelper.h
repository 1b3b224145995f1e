// The thread that runs what the bus's I/O thread must not wait for: calls of the host object and the host's
// notices of the connection's state. One job after the other.
// Threads: any; Stop not from a job.
#pragma once

#include <pthread.h>

#include <deque>
#include <functional>

#include "platform/os/ZxCritSec.h"

class CBusHelper {
 public:
  static constexpr size_t kMaxJobs = 256;

  CBusHelper();
  ~CBusHelper();
  CBusHelper(const CBusHelper&) = delete;
  CBusHelper& operator=(const CBusHelper&) = delete;

  bool Start();
  void Stop() TS_EXCLUDES(m_cs);  // jobs that are queued still run
  // False: too many are waiting.
  bool Post(std::function<void()> job) TS_EXCLUDES(m_cs);
  bool IsOwnThread() const;

 private:
  static void* Entry(void* pSelf);
  void Run() TS_EXCLUDES(m_cs);

  pthread_t m_hThread{};
  bool m_bRunning = false;  // the owner's
  CCritSec m_cs;
  pthread_cond_t m_cond;
  bool m_bStop TS_GUARDED_BY(m_cs) = false;
  std::deque<std::function<void()>> m_jobs TS_GUARDED_BY(m_cs);
};
