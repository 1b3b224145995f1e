// One installed agent in a home of its own, driven as a host drives it. The host's calls come from the test's
// thread.
#pragma once

#include <gmock/gmock.h>

#include <set>
#include <string>
#include <vector>

#include "plugin/zxplugin.h"
#include "support/FakeBus.h"
#include "support/FakeCloud.h"
#include "support/FakeMid.h"
#include "support/LogCapture.h"
#include "support/TempHome.h"
#include "support/Waiter.h"

inline constexpr char kAgentId[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";
inline constexpr char kTaskMgrId[] = "FAB922A8-736E-4CB5-A666-4FD849A3049A";
inline constexpr char kSampleId[] = "5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D";

// Business numbers of PcidTable(): 1001 sample, 1002 a product without any component, 7 the plug-in manager.
inline constexpr int kPcidSample = 1001;
inline constexpr int kPcidNobody = 1002;
inline constexpr int kPcidPluginMgr = 7;
inline constexpr char kPcidTable[] = "veltcwpp,zxsample,1001|acme,nothing,1002|veltExtHost,PluginMgr,7";

class CAgentFixture : public testing::Test {
 protected:
  CAgentFixture();  // a home with the agent, its libraries and a usable configuration; nothing loaded
  ~CAgentFixture() override;

  void Load();    // dlopen, exports, InitializePlugin, CreateObject
  void Unload();  // DestroyObject, UninitializePlugin, dlclose
  bool IsMapped() const;
  // Load, Initialize, SetCtx, Start; then Online: the PCID table arrives and has been handled.
  void StartAgent();
  void Online(const char* pszTable = kPcidTable);
  void StopAgent();  // Stop, Uninitialize

  // Fires the callback and waits until the work thread has handled it (a later event left its trace).
  void Push(int iPcid, const std::string& strText);
  void Poll(const std::string& strEnvelope);
  void Settle();

  // A component's answer, once per hand-off. What a test leaves unanswered is completed by the bus at the
  // end.
  void Complete(const _BusCall& call, uint32_t uiStatus, const std::string& strResponse = std::string());
  std::vector<_BusCall> HandOffs() const;  // type 20001 to the task manager
  std::vector<std::string> Sent() const;   // texts of zxcloud_send
  bool Acknowledged(const std::string& strId, int iMsgType) const;
  // The next good command is carried out: handed over, completed with 0, acknowledged with 3.
  void ExpectNextCommandWorks(const std::string& strId = "next-good");

  CTempHome m_home;
  std::set<unsigned long long> m_completed;  // tokens of hand-offs that had their completion
  CFakeBus m_bus;
  CLogCapture m_log;
  void* m_hLib = nullptr;
  CPluginObj* m_pObj = nullptr;
  PFNInitializePlugin m_pfnInitializePlugin = nullptr;
  PFNUninitializePlugin m_pfnUninitializePlugin = nullptr;
  PFNCreateObject m_pfnCreateObject = nullptr;
  PFNDestroyObject m_pfnDestroyObject = nullptr;

 private:
  int m_iSettle = 0;
};

std::string PushText(const std::string& strId, const std::string& strCommand);
// A poll envelope around items that are already XML.
std::string Envelope(const std::string& strItems);
std::string EnvelopeItem(int iPcid, const std::string& strMsgId, const std::string& strText);
