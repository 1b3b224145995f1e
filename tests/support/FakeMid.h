// Stands in for the machine-id library at link time (object library test_fake_mid, instead of zxmid).
// Process-wide; Reset first. Threads: any.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

class CFakeMid {
 public:
  using TLogCallback = void (*)(int, int, const char*);

  static CFakeMid& Instance();

  // Every function succeeds and answers "fake-<function>"; nothing recorded.
  void Reset();
  void SetText(const std::string& strFunction, const std::string& strText);
  void SetResult(const std::string& strFunction, int iResult);  // also for zxmid_init and zxmid_param

  // Function names in call order; zxmid_param as "zxmid_param(<key>,<n>,<n>)".
  std::vector<std::string> Calls();
  TLogCallback LogCallback();
  // Whether every buffer so far came zeroed, with room for capacity + 1 bytes.
  bool BuffersWereClean();

  // The library's side.
  int OnInit(TLogCallback pfnLog);
  int OnParam(const char* pszKey, int iReserved1, int iReserved2);
  int OnText(const char* pszFunction, char* pszBuffer, int iCapacity);

 private:
  int ResultOf(const std::string& strFunction);

  std::mutex m_mutex;
  std::map<std::string, std::string> m_texts;
  std::map<std::string, int> m_results;
  std::vector<std::string> m_calls;
  TLogCallback m_pfnLog = nullptr;
  bool m_bClean = true;
};
