#include "platform/bus/BusHelper.h"

#include <csignal>
#include <utility>

#include "platform/os/ZxThread.h"

namespace {

CZxThreadGroup g_threads;
thread_local const CBusHelper* t_pHelper = nullptr;

}  // namespace

CBusHelper::CBusHelper() {
  pthread_cond_init(&m_cond, nullptr);
}

CBusHelper::~CBusHelper() {
  pthread_cond_destroy(&m_cond);
}

bool CBusHelper::Start() {
  {
    CCritLock lock(m_cs);
    m_bStop = false;
  }
  m_bRunning = g_threads.Create(&m_hThread, &Entry, this) == 0;
  return m_bRunning;
}

void CBusHelper::Stop() {
  if (!std::exchange(m_bRunning, false))
    return;
  {
    CCritLock lock(m_cs);
    m_bStop = true;
    pthread_cond_signal(&m_cond);
  }
  pthread_join(m_hThread, nullptr);
}

bool CBusHelper::Post(std::function<void()> job) {
  CCritLock lock(m_cs);
  if (m_jobs.size() >= kMaxJobs)
    return false;
  m_jobs.push_back(std::move(job));
  pthread_cond_signal(&m_cond);
  return true;
}

bool CBusHelper::IsOwnThread() const {
  return t_pHelper == this;
}

void* CBusHelper::Entry(void* pSelf) {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  ZxSetThreadName("zxbushost");
  t_pHelper = static_cast<CBusHelper*>(pSelf);
  static_cast<CBusHelper*>(pSelf)->Run();
  return nullptr;
}

void CBusHelper::Run() {
  for (;;) {
    std::function<void()> job;
    {
      CCritLock lock(m_cs);
      while (m_jobs.empty() && !m_bStop)
        pthread_cond_wait(&m_cond, m_cs.Native());
      if (m_jobs.empty())
        return;
      job = std::move(m_jobs.front());
      m_jobs.pop_front();
    }
    job();
  }
}
