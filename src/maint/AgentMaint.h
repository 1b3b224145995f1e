// Hands maintenance scripts to the maintenance tool bin/zxpmaint through a spool directory and uploads its
// results. Scripts are never run here. Owned by CAgentMgr. Threads: ForwardMsg on the work thread; the result
// reader is started with the first spooled script and scans about every 10 seconds. The lock guards the
// reader's state.
#pragma once

#include <pthread.h>

#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"
#include "platform/text/PStrList.h"
#include "platform/text/PString.h"

class CAgentMaint {
 public:
  int Init(CPString strHomePath);
  int Uninit();  // always 1; at most 60 seconds, then the reader is cancelled

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
  void StartReader();
  void StartTool(unsigned long long u64DataId, const CPString& strID);
  void UploadResults(unsigned long long& u64DataId);
  void ReadLoop();
  int Status() TS_EXCLUDES(m_csStatus);
  void SetStatus(int iStatus) TS_EXCLUDES(m_csStatus);

  // Set in Init, then constant.
  CPString m_strPath;
  CPString m_strPolicyFilePath;
  CPString m_strPolicyProcessPath;
  CPString m_strResultPath;

  pthread_t m_hThreadReadId = 0;  // work and host thread, never at once; 0: none
  CCritSec m_csStatus;
  int m_iReadStatus TS_GUARDED_BY(m_csStatus) = 0;  // 0 stop requested, 1 running, 2 ended
};
