// Components for bus tests: a context with a GUID of its own, receivers and completions as functions, and
// a record of what arrived.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/bus/zxbus.h"
#include "support/Waiter.h"

// A different GUID for every call, so that cases of one process do not meet.
inline GUID NewGuid() {
  static std::atomic<uint32_t> s_uiLast{0};
  GUID guid;
  guid.Data1 = ++s_uiLast;
  guid.Data2 = 0x7A78;
  return guid;
}

// A gate that a callback can wait at: Enter() reports and blocks until Open().
class CGate {
 public:
  void Enter() {
    m_entered.Set();
    m_open.Wait();
  }
  bool WaitEntered(uint32_t uCount = 1) { return m_entered.Wait(uCount); }
  void Open() { m_open.Set(); }

 private:
  CEventWaiter m_entered;
  CEventWaiter m_open;
};

// The components of the running case. A callback object makes them leave the bus before it goes away, so a
// case may declare both in any order.
class CLiveContexts {
 public:
  static void Add(IBusContext* pContext) {
    const std::lock_guard lock(Mutex());
    Set().insert(pContext);
  }
  static void Remove(IBusContext* pContext) {
    const std::lock_guard lock(Mutex());
    Set().erase(pContext);
  }
  static void LeaveAll() {
    std::set<IBusContext*> contexts;
    {
      const std::lock_guard lock(Mutex());
      contexts = Set();
    }
    for (IBusContext* pContext : contexts)
      pContext->Uninitialize();
  }

 private:
  static std::mutex& Mutex() {
    static std::mutex s_mutex;
    return s_mutex;
  }
  static std::set<IBusContext*>& Set() {
    static std::set<IBusContext*> s_contexts;
    return s_contexts;
  }
};

struct _Received {
  GUID guidFrom;
  long i64Type = 0;
  std::string strData;
  void* pBaton = nullptr;
  IBusContext* pContext = nullptr;
  std::thread::id thread;
};

class CReceiver : public IMRReceiveComplete {
 public:
  explicit CReceiver(std::function<void(const _Received&)> fn = nullptr) : m_fn(std::move(fn)) {}
  ~CReceiver() override { CLiveContexts::LeaveAll(); }

  void ReceiveCallback(const GUID& recvGuid, long i64MsgType, const unsigned char* pData,
                       unsigned int uiDataLength, void* pBatonData, void* pContext) override {
    _Received received;
    received.guidFrom = recvGuid;
    received.i64Type = i64MsgType;
    if (pData != nullptr)
      received.strData.assign(reinterpret_cast<const char*>(pData), uiDataLength);
    received.pBaton = pBatonData;
    received.pContext = static_cast<IBusContext*>(pContext);
    received.thread = std::this_thread::get_id();
    {
      const std::lock_guard lock(m_mutex);
      m_all.push_back(received);
    }
    m_arrived.Set();
    if (m_fn)
      m_fn(received);
  }

  bool Wait(uint32_t uCount = 1, uint32_t dwMs = kTestDeadlineMs) { return m_arrived.Wait(uCount, dwMs); }
  size_t Count() {
    const std::lock_guard lock(m_mutex);
    return m_all.size();
  }
  _Received At(size_t uIndex) {
    const std::lock_guard lock(m_mutex);
    return m_all.at(uIndex);
  }

 private:
  std::function<void(const _Received&)> m_fn;
  std::mutex m_mutex;
  std::vector<_Received> m_all;
  CEventWaiter m_arrived;
};

struct _Completed {
  uint32_t uiStatus = 0;
  long i64Type = 0;
  std::string strData;
  unsigned long long ui64ACT = 0;
  void* pContext = nullptr;
  std::thread::id thread;
};

class CCompletion : public IMRSendComplete {
 public:
  explicit CCompletion(std::function<void(const _Completed&)> fn = nullptr) : m_fn(std::move(fn)) {}
  ~CCompletion() override { CLiveContexts::LeaveAll(); }

  void SendCallback(unsigned int iRetReply, long i64MsgType, const unsigned char* pResponse,
                    unsigned int uiResponseLength, unsigned long long ui64ACT, void* pContext) override {
    _Completed completed;
    completed.uiStatus = iRetReply;
    completed.i64Type = i64MsgType;
    if (pResponse != nullptr)
      completed.strData.assign(reinterpret_cast<const char*>(pResponse), uiResponseLength);
    completed.ui64ACT = ui64ACT;
    completed.pContext = pContext;
    completed.thread = std::this_thread::get_id();
    {
      const std::lock_guard lock(m_mutex);
      m_all.push_back(completed);
    }
    m_arrived.Set();
    if (m_fn)
      m_fn(completed);
  }

  bool Wait(uint32_t uCount = 1, uint32_t dwMs = kTestDeadlineMs) { return m_arrived.Wait(uCount, dwMs); }
  size_t Count() {
    const std::lock_guard lock(m_mutex);
    return m_all.size();
  }
  _Completed At(size_t uIndex) {
    const std::lock_guard lock(m_mutex);
    return m_all.at(uIndex);
  }

 private:
  std::function<void(const _Completed&)> m_fn;
  std::mutex m_mutex;
  std::vector<_Completed> m_all;
  CEventWaiter m_arrived;
};

class CComponent {
 public:
  explicit CComponent(const ZxBusSettings& settings = {})
      : m_guid(NewGuid()), m_pContext(ZxBusCreateContextWith(&settings)) {
    EXPECT_EQ(m_pContext->Initialize(&m_guid), 0u);
    CLiveContexts::Add(m_pContext);
  }
  ~CComponent() { Destroy(); }
  CComponent(const CComponent&) = delete;
  CComponent& operator=(const CComponent&) = delete;

  void Destroy() {
    if (m_pContext == nullptr)
      return;
    CLiveContexts::Remove(m_pContext);
    ZxBusDestroyContext(m_pContext);
    m_pContext = nullptr;
  }
  IBusContext* operator->() const { return m_pContext; }
  IBusContext* Get() const { return m_pContext; }
  const GUID& Guid() const { return m_guid; }

  uint32_t Send(const CComponent& target, uint32_t uiType, const std::string& strData,
                IMRSendComplete* pCallback, uint32_t uiTimeoutMs = 60000,
                unsigned long long* pui64ACT = nullptr) const {
    return m_pContext->AsynSendEx(&target.Guid(), uiType, strData.data(),
                                  static_cast<uint32_t>(strData.size()), pCallback, nullptr, pui64ACT,
                                  uiTimeoutMs);
  }

 private:
  GUID m_guid;
  IBusContext* m_pContext;
};

// Answers with the data it got, reversed, and status 7.
inline void AnswerReversed(const _Received& received) {
  const std::string str(received.strData.rbegin(), received.strData.rend());
  EXPECT_EQ(received.pContext->Reply(7, received.i64Type + 1, str.data(), static_cast<uint32_t>(str.size()),
                                     received.pBaton),
            0u);
}
