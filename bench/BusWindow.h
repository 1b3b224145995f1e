// Keeps a window of requests under way from their completions, as a component that works through a list does.
#pragma once

#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>

#include "platform/bus/zxbus.h"

class CBusWindow : public IMRSendComplete {
 public:
  CBusWindow(IBusContext* pBus, const GUID& guidTarget, size_t uBytes)
      : m_pBus(pBus), m_guidTarget(guidTarget), m_strRequest(uBytes, 'q') {}

  // Returns when iBatch requests are answered.
  void Run(int iWindow, int iBatch) {
    Begin(iWindow, iBatch);
    for (int i = 0; i < iWindow; ++i)
      Send();
    WaitEnd();
  }
  bool Failed() const { return m_bFailed; }

  // For batches that are counted otherwise: the end is the iBatch-th OneDone.
  void Begin(int iSent, int iBatch) {
    m_iBatch = iBatch;
    m_iSent = iSent;
    m_iDone = 0;
  }
  void OneDone() {
    if (++m_iDone == m_iBatch) {
      const std::lock_guard lock(m_mutex);
      m_bEnd = true;
      m_cond.notify_one();
    } else if (m_iSent < m_iBatch) {
      ++m_iSent;
      Send();
    }
  }
  void WaitEnd() {
    std::unique_lock lock(m_mutex);
    m_cond.wait(lock, [this] { return m_bEnd; });
    m_bEnd = false;
  }

 private:
  void SendCallback(unsigned int iRetReply, long, const unsigned char* pResponse, unsigned int,
                    unsigned long long, void*) override {
    benchmark::DoNotOptimize(pResponse);
    m_bFailed = m_bFailed || iRetReply != 0;
    OneDone();
  }
  void Send() {
    if (m_pBus->AsynSendEx(&m_guidTarget, 1, m_strRequest.data(), static_cast<uint32_t>(m_strRequest.size()),
                           this, nullptr, nullptr, 60000) != 0)
      std::abort();
  }

  IBusContext* const m_pBus;
  const GUID m_guidTarget;
  const std::string m_strRequest;
  std::atomic<int> m_iSent{0}, m_iBatch{0}, m_iDone{0};
  std::atomic<bool> m_bFailed{false};
  bool m_bEnd = false;
  std::mutex m_mutex;
  std::condition_variable m_cond;
};
