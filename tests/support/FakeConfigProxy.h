// A configuration proxy whose answers the test sets. The module is copied into a home, so that the code under
// test loads it the way it loads the real one; each home has a module, and answers, of its own.
#pragma once

#include <atomic>
#include <string>

// State of one loaded module, which exports its address.
struct _FakeConfigProxyState {
  std::atomic<int> iResult{2};           // of GetConfig and SetConfigEx
  std::atomic<int> iTag{4};              // of the answer
  std::atomic<const char*> pszText{""};  // copied into each answer; null: no data
  std::atomic<int> bRefuse{0};           // CFGCreateInstance gives no object
  std::atomic<int> iObjects{0};          // alive now
  std::atomic<int> iCreated{0};
  std::atomic<int> iGets{0};
  std::atomic<int> iLastItem{0};
  std::atomic<void (*)()> pfnInGet{nullptr};  // called inside GetConfig
};

enum class EFakeConfigProxy {
  Complete,
  NoEntryPoint,  // a library without CFGCreateInstance
  NotALibrary,
};

class CFakeConfigProxy {
 public:
  // strHome ends in "/".
  explicit CFakeConfigProxy(const std::string& strHome, EFakeConfigProxy eKind = EFakeConfigProxy::Complete);
  ~CFakeConfigProxy();
  CFakeConfigProxy(const CFakeConfigProxy&) = delete;
  CFakeConfigProxy& operator=(const CFakeConfigProxy&) = delete;

  void SetText(std::string strText);  // the answer to item 5
  _FakeConfigProxyState& State() { return *m_pState; }
  bool Remove() const;  // deletes the file

  static std::string Plugin(const std::string& strGuid, const std::string& strProduct,
                            const std::string& strCombo, int iStatus = 1);  // one list element

 private:
  std::string m_strFile;
  std::string m_strText;
  void* m_hLib = nullptr;
  _FakeConfigProxyState* m_pState = nullptr;
};
