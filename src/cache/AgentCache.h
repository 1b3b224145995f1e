// Copies on disk of the policies and tasks that the cloud pushes to components, each with the task manager's
// verdict. A command configured as a task keeps a rotating history per product and combo; every other command
// keeps its latest copy. Owned by CAgentMgr. Threads: the work thread saves, bus threads update. Blocks on
// file I/O only; the lock guards the task configuration and nothing else. Results: 1 done, 0 failed (one log
// line) unless said otherwise.
#pragma once

#include <list>
#include <map>

#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"
#include "platform/text/PStrList.h"
#include "platform/text/PString.h"

struct _TaskConf {
  CPString strCommand;           // compared without regard to case; empty: any command
  unsigned int uiSaveCount = 0;  // copies to keep
};
using taskConfMap = std::map<CPString, std::list<_TaskConf>>;  // "product/combo", lower case

class CAgentCache {
 public:
  int Init(CPString strHomePath);
  void LoadTaskConf();

  // 1 also when the copy could not be written: the document was valid. bResult is the verdict stored with it.
  int SavePolicyFile(unsigned long long u64DataId, const CPString& strID, const CPString& strProduct,
                     const CPString& strCombo, const CPString& strCommand, const char* lpszMsg, int bResult);
  int UpdatePolicyCache(unsigned long long u64DataId, const CPString& strID, const CPString& strProduct,
                        const CPString& strCombo, const CPString& strCommand, int bResult);
  // 1 task, 0 not a task.
  int FindTaskConf(const CPString& strProduct, const CPString& strCombo, const CPString& strCommand,
                   unsigned int& uiSaveCount);
  int SaveTaskCache(const CPString& strID, const CPString& strProduct, const CPString& strCombo,
                    const CPString& strCommand, const CPString& strJson, unsigned int uiSaveCount);
  int SaveFileCache(const CPString& strFile, const CPString& strJson);
  static int GetCacheFileList(const char* pszPath, CPStrList& list);
  static int GetEarlyFileName(const CPStrList& list, CPString& strName);

 private:
  // Where a command's copy stands; empty when one of the texts may not become a file name.
  CPString PolicyFile(const CPString& strProduct, const CPString& strCombo, const CPString& strCommand) const;
  CPString TaskFile(const CPString& strProduct, const CPString& strCombo, const CPString& strCommand,
                    const CPString& strID) const;
  CPString TaskDirectory(const CPString& strProduct, const CPString& strCombo) const;

  CPString m_strPath;  // home; set in Init, then constant

  CCritSec m_csTaskConf;
  taskConfMap m_mapTaskConf TS_GUARDED_BY(m_csTaskConf);
};
