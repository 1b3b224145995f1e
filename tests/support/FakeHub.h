// Stand-in for the manager while it lives: companions reach it through AgentHub(). Any thread may call it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "data/AgentHub.h"

// One outcome of an upload, as it was told.
struct _UploadOutcome {
  bool bTaskMgr = false;  // told through SendTaskMgrResult, else through SendLogCacheResult
  int iResult = 0;
  unsigned long long u64DataId = 0;
  int iPriv = 0;
  int iMsgType = 0;
  CPString strProduct;
  CPString strCombo;
};

// One text to be uploaded that did not come over the bus.
struct _UploadedText {
  unsigned long long u64DataId = 0;
  CPString strProduct;
  CPString strCombo;
  int iPriv = 0;
  int iMsgType = 0;
  CPString strMsg;
};

// One command to be routed.
struct _RoutedCommand {
  unsigned long long u64DataId = 0;
  CPString strProduct;
  CPString strCombo;
  CPString strID;
  CPString strCommand;
  CPString strMsg;
};

class CFakeHub : public IAgentHub {
 public:
  CFakeHub() : m_pPrevious(SetAgentHub(this)) {}
  virtual ~CFakeHub() { SetAgentHub(m_pPrevious); }
  CFakeHub(const CFakeHub&) = delete;
  CFakeHub& operator=(const CFakeHub&) = delete;

  void SetConnect(int bConnect) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bConnect = bConnect;
  }
  // What every operation with a code answers.
  void SetResult(uint32_t uiResult) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_uiResult = uiResult;
  }
  // What SendPushMsgData answers: non-zero when a route was found.
  void SetRouted(int iRouted) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_iRouted = iRouted;
  }
  // Called with each outcome, on the thread that tells it and without a lock of the fake.
  void SetHook(std::function<void(const _UploadOutcome&)> hook) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_hook = std::move(hook);
  }
  std::vector<_SendTaskMgrData> Results() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_results;
  }
  std::vector<_UploadOutcome> Outcomes() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_outcomes;
  }
  bool WaitOutcomes(size_t uCount, std::chrono::milliseconds deadline = std::chrono::seconds(10)) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, deadline, [&] { return m_outcomes.size() >= uCount; });
  }
  std::vector<_UploadedText> Uploads() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_uploads;
  }
  std::vector<_RoutedCommand> Routed() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_routed;
  }

  uint32_t RecvMsgResultsFromTaskMgr(_SendTaskMgrData* pSendData) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_results.push_back(*pSendData);
    return m_uiResult;
  }
  int IsConnect() override {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bConnect;
  }
  uint32_t SendLogCacheResult(int iResult, unsigned long long u64DataId, int iPriv, int iMsgType,
                              CPString strProduct, CPString strCombo) override {
    return Told({false, iResult, u64DataId, iPriv, iMsgType, std::move(strProduct), std::move(strCombo)});
  }
  uint32_t SendTaskMgrResult(int iResult, unsigned long long u64DataId, int iPriv, int iMsgType,
                             CPString strProduct, CPString strCombo) override {
    return Told({true, iResult, u64DataId, iPriv, iMsgType, std::move(strProduct), std::move(strCombo)});
  }
  uint32_t ZxcloudSendMsg(unsigned long long u64DataId, const CPString& strProduct, const CPString& strCombo,
                          int iPriv, int iMsgType, const CPString& strMsg) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_uploads.push_back({u64DataId, strProduct, strCombo, iPriv, iMsgType, strMsg});
    m_cond.notify_all();
    return m_uiResult;
  }
  int SendPushMsgData(unsigned long long u64DataId, const CPString& strProduct, const CPString& strCombo,
                      const CPString& strID, const CPString& strCommand, const CPString& strMsg) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_routed.push_back({u64DataId, strProduct, strCombo, strID, strCommand, strMsg});
    return m_iRouted;
  }

 private:
  uint32_t Told(const _UploadOutcome& outcome) {
    std::function<void(const _UploadOutcome&)> hook;
    uint32_t uiResult = 0;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_outcomes.push_back(outcome);
      m_cond.notify_all();
      hook = m_hook;
      uiResult = m_uiResult;
    }
    if (hook)
      hook(outcome);
    return uiResult;
  }

  IAgentHub* m_pPrevious;
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_cond;
  int m_bConnect = 1;
  uint32_t m_uiResult = 0;
  int m_iRouted = 1;
  std::function<void(const _UploadOutcome&)> m_hook;
  std::vector<_SendTaskMgrData> m_results;
  std::vector<_UploadOutcome> m_outcomes;
  std::vector<_UploadedText> m_uploads;
  std::vector<_RoutedCommand> m_routed;
};

// Takes the manager away for a scope: the accessor answers null.
class CScopedNoHub {
 public:
  CScopedNoHub() : m_pPrevious(SetAgentHub(nullptr)) {}
  ~CScopedNoHub() { SetAgentHub(m_pPrevious); }
  CScopedNoHub(const CScopedNoHub&) = delete;
  CScopedNoHub& operator=(const CScopedNoHub&) = delete;

 private:
  IAgentHub* m_pPrevious;
};
