// Facts about the machine: ids from the machine-id library, MAC addresses of its physical adapters, and
// whether it runs one of the domestic distributions. Stateless but for the system root (empty in production,
// a folder in tests that stands in for "/"). Called from the identity refresh and from platform queries;
// blocks on small file reads.
#pragma once

#include "platform/cloud/zxcloud.h"
#include "platform/text/PStrList.h"
#include "platform/text/PString.h"

class CAgentSystem {
 public:
  explicit CAgentSystem(CPString strSystemRoot = CPString());

  // 0 for a null callback, else 1 (the library's own result is not examined).
  int SetMidLogCallback(void (*pfnLog)(zxlog_module, zxlog_level, const char*));
  // All five texts, or 0 at the first that fails; those before it keep their new values. An empty key leaves
  // the library's.
  int GetSysMid(CPString strMidKey, CPString& strMid1, CPString& strMid2, CPString& strMidSn,
                CPString& strMidDisk, CPString& strMidMac);
  // Appends, in directory order; 1 when the list is not empty afterwards.
  int GetAllMac(CPStrList& macList);

  int IsNationSystem();
  CPString GetOwnVersion();     // empty
  CPString GetSystemVersion();  // empty

 private:
  CPString m_strSystemRoot;
};
