// Stand-in for the manager towards the bus receiver, which reaches it through AgentQueries(). Records every
// operation and answers what the test set. Any thread may call it.
#pragma once

#include <map>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "data/AgentHub.h"

// One message for the cloud, copied when it was passed.
struct _PassedMsg {
  unsigned long long u64DataId = 0;
  int iPriv = 0;
  int iMsgType = 0;
  GUID guid;
  CPString strProduct;
  CPString strCombo;
  std::string strMsg;
  unsigned int uiKind = 0;
};

class CFakeQueries final : public IAgentQueries {
 public:
  CFakeQueries() : m_pPrevious(SetAgentQueries(this)) {}
  ~CFakeQueries() { SetAgentQueries(m_pPrevious); }
  CFakeQueries(const CFakeQueries&) = delete;
  CFakeQueries& operator=(const CFakeQueries&) = delete;

  // What the operations with a code answer; DisposePolicy and GetTaskmgrGuidList succeed while it is 0.
  void SetResult(uint32_t uiResult) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_uiResult = uiResult;
  }
  // Memory is out in every operation.
  void SetThrow(bool bThrow) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bThrow = bThrow;
  }
  // What the operation of this name answers as text.
  void SetText(const std::string& strOperation, const CPString& strText) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_texts[strOperation] = strText;
  }
  // Every call as "Operation(text)", in order.
  std::vector<std::string> Calls() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls;
  }
  std::vector<_PassedMsg> Messages() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages;
  }

  uint32_t SetCloudAddr(CPString strAddr) override { return Code("SetCloudAddr", strAddr); }
  uint32_t TestCloudAddr(CPString strAddr) override { return Code("TestCloudAddr", strAddr); }
  uint32_t TestLbCloudAddr(CPString strAddr) override { return Code("TestLbCloudAddr", strAddr); }
  CPString GetConnectData() override { return Text("GetConnectData"); }
  CPString GetClientReady() override { return Text("GetClientReady"); }
  CPString GetLbData() override { return Text("GetLbData"); }
  uint32_t NotifyAuthChange() override { return Code("NotifyAuthChange", CPString()); }
  int GetTaskmgrGuidList(CPString& strJson) override {
    strJson = Text("GetTaskmgrGuidList");
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_uiResult == 0;
  }
  uint32_t SendMsg(unsigned long long u64DataId, int iPriv, int iMsgType, const GUID& guid,
                   CPString strProduct, CPString strCombo, const char* pszMsg, unsigned int uiLen,
                   unsigned int uiKind) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    Called("SendMsg()");
    m_messages.push_back({u64DataId, iPriv, iMsgType, guid, std::move(strProduct), std::move(strCombo),
                          std::string(pszMsg, uiLen), uiKind});
    return m_uiResult;
  }
  bool DisposePolicy(const char* str) override { return Code("DisposePolicy", str) == 0; }

 private:
  uint32_t Code(const char* pszOperation, const CPString& strText) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Called(pszOperation + ("(" + strText.Str() + ")"));
    return m_uiResult;
  }
  CPString Text(const char* pszOperation) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Called(pszOperation + std::string("()"));
    return m_texts[pszOperation];
  }

  void Called(std::string strCall) {
    m_calls.push_back(std::move(strCall));
    if (m_bThrow)
      throw std::bad_alloc();
  }

  IAgentQueries* m_pPrevious;
  mutable std::mutex m_mutex;
  bool m_bThrow = false;
  uint32_t m_uiResult = 0;
  std::map<std::string, CPString> m_texts;
  std::vector<std::string> m_calls;
  std::vector<_PassedMsg> m_messages;
};

// Takes the manager away for a scope: the accessor answers null.
class CScopedNoQueries {
 public:
  CScopedNoQueries() : m_pPrevious(SetAgentQueries(nullptr)) {}
  ~CScopedNoQueries() { SetAgentQueries(m_pPrevious); }
  CScopedNoQueries(const CScopedNoQueries&) = delete;
  CScopedNoQueries& operator=(const CScopedNoQueries&) = delete;

 private:
  IAgentQueries* m_pPrevious;
};
