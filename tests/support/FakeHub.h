// Stand-in for the manager while it lives: companions reach it through AgentHub(). Any thread may call it.
#pragma once

#include <mutex>
#include <vector>

#include "data/AgentHub.h"

class CFakeHub final : public IAgentHub {
 public:
  CFakeHub() : m_pPrevious(SetAgentHub(this)) {}
  ~CFakeHub() { SetAgentHub(m_pPrevious); }
  CFakeHub(const CFakeHub&) = delete;
  CFakeHub& operator=(const CFakeHub&) = delete;

  void SetConnect(int bConnect) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bConnect = bConnect;
  }
  void SetResult(uint32_t uiResult) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_uiResult = uiResult;
  }
  std::vector<_SendTaskMgrData> Results() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_results;
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

 private:
  IAgentHub* m_pPrevious;
  mutable std::mutex m_mutex;
  int m_bConnect = 1;
  uint32_t m_uiResult = 0;
  std::vector<_SendTaskMgrData> m_results;
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
