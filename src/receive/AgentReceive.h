// The agent's receiver on the component bus: queries and commands of local components, log caches,
// task-manager results and policies. One static instance without mutable state. Threads: the bus's, several
// at once. Blocks as long as the manager operation it calls (an address test up to 10 s); uploads are queued,
// not sent, here.
#pragma once

#include <cstdint>

#include "platform/bus/zxbus.h"
#include "platform/text/Guid.h"
#include "platform/text/PString.h"

class CAgentReceive final : public IMRReceiveComplete {
 public:
  static CAgentReceive m_AgentReceive;

  CAgentReceive();
  void ReceiveCallback(const GUID& recvGuid, long i64MsgType, const unsigned char* pData,
                       unsigned int uiDataLength, void* pBatonData, void* pContext) override;

  uint32_t DisposeSetconnect(const CPString& strGuid, const unsigned char* pData, unsigned int uiDataLength,
                             CPString& strReply);
  uint32_t DisposeGetConnect(const CPString& strGuid, CPString& strReply);
  uint32_t DisposeTestConnect(const CPString& strGuid, const unsigned char* pData, unsigned int uiDataLength,
                              CPString& strReply);
  uint32_t DisposeTestLbConnect(const CPString& strGuid, const unsigned char* pData,
                                unsigned int uiDataLength, CPString& strReply);
  uint32_t DisposeGetClientReady(const CPString& strGuid, CPString& strReply);
  uint32_t DisposeGetLbData(const CPString& strGuid, CPString& strReply);
  uint32_t DisposeAuthChange(const CPString& strGuid, CPString& strReply);
  uint32_t DisposeGetGuidList(const CPString& strGuid, CPString& strReply);

  // The value of the tag strKey that starts and ends before ulEnd; untouched when there is none.
  static bool AnalyMsgData(const CPString& strData, CPString strKey, unsigned long ulEnd, CPString& strValue);
  // Takes a log-cache text apart. pMsg points into strData. 0 or the code of the first tag that is missing;
  // outputs set before that keep their values.
  static uint32_t ParseLogCache(const CPString& strData, CPString& strVersion, unsigned long long& u64DataId,
                                int& iPriv, int& iMsgType, GUID& guidPlugin, CPString& strProduct,
                                CPString& strCombo, const char*& pMsg, unsigned int& uiMsgLen);
  uint32_t DisposeLogCache(const GUID& recvGuid, const unsigned char* pData, unsigned int uiDataLength,
                           CPString& strReply);
  uint32_t DisposeTaskMgr(const GUID& recvGuid, const unsigned char* pData, unsigned int uiDataLength,
                          CPString& strReply);
  uint32_t DisposeAgentPolicy(const GUID& recvGuid, const unsigned char* pData, unsigned int uiDataLength,
                              CPString& strReply);

 private:
  uint32_t Dispatch(const GUID& recvGuid, const CPString& strGuid, long i64MsgType,
                    const unsigned char* pData, unsigned int uiDataLength, CPString& strReply);

  GUID m_guidLogCache;
  GUID m_guidTaskMgr;
};
