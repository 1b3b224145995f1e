// Splits an asset-collection policy into one command per collecting component, keeps a copy of each on disk
// and pushes it to its component. Owned by CAgentMgr. Work thread only; blocks on file writes.
#pragma once

#include "platform/doc/PJsonParse.h"
#include "platform/text/PString.h"

class CAgentAsset {
 public:
  int Init(CPString strHomePath);
  // 1 parsed (even when some pushes failed), 0 rejected.
  int ParseAssetPolicy(unsigned long long u64DataId, const CPString& strID, const char* lpszJson);
  // Stores the copy, then pushes one command.
  int SendPolicyMsgData(unsigned long long u64DataId, const CPString& strProduct, const CPString& strCombo,
                        const CPString& strID, const CPString& strCommand, const CPString& strMsg);

 private:
  struct _Entry;
  struct _Combined;
  void DisposeEntry(unsigned long long u64DataId, const CPString& strID, const _Entry& entry);
  void SendCombined(unsigned long long u64DataId, const CPString& strID, _Combined& web, _Combined& docker);

  CPString m_strPath;  // home; set in Init, then constant
};
