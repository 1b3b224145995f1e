// What the companions ask of the manager. Pure, so that each companion can be tested without one.
#pragma once

#include <cstdint>

#include "data/AgentRecords.h"
#include "platform/text/Guid.h"

class IAgentHub {
 public:
  // A component answered a command; called on a bus thread. 0, the component's result, or the send error.
  virtual uint32_t RecvMsgResultsFromTaskMgr(_SendTaskMgrData* pSendData) = 0;
  virtual int IsConnect() = 0;

  // Outcome of an upload, for the component that handed it over; called on upload workers.
  virtual uint32_t SendLogCacheResult(int iResult, unsigned long long u64DataId, int iPriv, int iMsgType,
                                      CPString strProduct, CPString strCombo) = 0;
  virtual uint32_t SendTaskMgrResult(int iResult, unsigned long long u64DataId, int iPriv, int iMsgType,
                                     CPString strProduct, CPString strCombo) = 0;
  // Blocking upload of a text that did not come over the bus (maintenance results).
  virtual uint32_t ZxcloudSendMsg(unsigned long long u64DataId, const CPString& strProduct,
                                  const CPString& strCombo, int iPriv, int iMsgType,
                                  const CPString& strMsg) = 0;
  // Routes one command to the components that take it; work thread. Non-zero when at least one route was
  // found.
  virtual int SendPushMsgData(unsigned long long u64DataId, const CPString& strProduct,
                              const CPString& strCombo, const CPString& strID, const CPString& strCommand,
                              const CPString& strMsg) = 0;

 protected:
  ~IAgentHub() = default;
};

// What local components ask of the manager through the bus receiver; called on bus threads. Results are codes
// unless said otherwise.
class IAgentQueries {
 public:
  virtual uint32_t SetCloudAddr(CPString strAddr) = 0;
  virtual uint32_t TestCloudAddr(CPString strAddr) = 0;
  virtual uint32_t TestLbCloudAddr(CPString strAddr) = 0;
  virtual CPString GetConnectData() = 0;
  virtual CPString GetClientReady() = 0;
  virtual CPString GetLbData() = 0;
  virtual uint32_t NotifyAuthChange() = 0;
  virtual int GetTaskmgrGuidList(CPString& strJson) = 0;  // 1 built
  // Queues a component's message for the cloud; copies uiLen bytes.
  virtual uint32_t SendMsg(unsigned long long u64DataId, int iPriv, int iMsgType, const GUID& guid,
                           CPString strProduct, CPString strCombo, const char* pszMsg, unsigned int uiLen,
                           unsigned int uiKind) = 0;
  virtual bool DisposePolicy(const char* str) = 0;  // queued

 protected:
  ~IAgentQueries() = default;
};

// The manager while one exists, else null. Set by the manager's Instance and Close.
IAgentHub* AgentHub();
IAgentHub* SetAgentHub(IAgentHub* pHub);  // returns the previous one
IAgentQueries* AgentQueries();
IAgentQueries* SetAgentQueries(IAgentQueries* pQueries);
