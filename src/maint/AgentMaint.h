// Hands maintenance scripts to the maintenance tool bin/zxpmaint through a spool directory and uploads its
// results. Scripts are never run here. Owned by CAgentMgr. Threads: ForwardMsg on the work thread, Init and
// Uninit on the host's, also while a command is being handled; the result reader is started with the first
// spooled script and scans about every 10 seconds. The lock guards the reader's handle and state.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <functional>

#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"
#include "platform/os/ZxGauges.h"
#include "platform/text/PStrList.h"
#include "platform/text/PString.h"

class CAgentMaint {
 public:
  // Pauses the calling thread; a cancellation point.
  using TSleepMs = std::function<void(uint32_t dwMs)>;
  static void SleepMs(uint32_t dwMs);

  explicit CAgentMaint(TSleepMs fnSleepMs = &SleepMs);
  CAgentMaint(const CAgentMaint&) = delete;
  CAgentMaint& operator=(const CAgentMaint&) = delete;

  int Init(CPString strHomePath);
  // Always 1; at most 60 seconds, then the reader is cancelled. No reader starts again before the next Init.
  int Uninit();

  // strCombo names the kind ("RunScriptFile", "RunScriptProcess"); "RunScriptNormal" is not handled here. 1
  // spooled, 0 not.
  int ForwardMsg(unsigned long long u64DataId, const CPString& strCombo, const CPString& strID,
                 const char* lpszMsg);
  int DisposeMaintMsg(unsigned long long u64DataId, const CPString& strCommand, const CPString& strID,
                      const char* lpszMsg);
  static int GetPolicyFileList(const char* pszPath, CPStrList& list);
  static void* ReadResultThread(void* pThis);

 private:
  bool SpoolCommand(unsigned long long u64DataId, const CPString& strCommand, const CPString& strID,
                    const char* lpszMsg, const CPString& strFile);
  void StartReader() TS_EXCLUDES(m_csStatus);
  void StartTool(unsigned long long u64DataId, const CPString& strID);
  void UploadResults(unsigned long long& u64DataId);
  void ReadLoop();
  void EndReader() TS_EXCLUDES(m_csStatus);
  int Status() TS_EXCLUDES(m_csStatus);
  void SetStatus(int iStatus) TS_EXCLUDES(m_csStatus);

  const TSleepMs m_fnSleepMs;

  // Set in Init, then constant.
  CPString m_strPath;
  CPString m_strPolicyFilePath;
  CPString m_strPolicyProcessPath;
  CPString m_strResultPath;

  CCritSec m_csStatus;
  pthread_t m_hThreadReadId TS_GUARDED_BY(m_csStatus) = 0;  // 0: none
  // -1 not begun, 0 stop requested, 1 running, 2 ended
  int m_iReadStatus TS_GUARDED_BY(m_csStatus) = -1;
  bool m_bClosed TS_GUARDED_BY(m_csStatus) = false;  // between Uninit and the next Init

  // Spooled since the agent was loaded, less the results uploaded since; only the reader takes off.
  CZxGauge m_gaugeUnderWay{"agent.maint.under_way"};
};
