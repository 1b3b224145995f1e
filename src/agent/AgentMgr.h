// The agent manager: the process-wide singleton that owns every companion, the link to the cloud, the work
// queue and the agent's threads. Files by concern: AgentMgr.cpp (life cycle), AgentMgrThreads.cpp (work
// queue, work and check thread), AgentMgrChannel.cpp (cloud channel), AgentMgrCallbacks.cpp (the cloud
// library's callbacks), AgentMgrPoll.cpp (poll thread), AgentMgrAddr.cpp (addresses set and tested from
// outside), AgentMgrDispatch.cpp (commands), AgentMgrRouting.cpp (components), AgentMgrIdentity.cpp
// (configuration and machine id).
//
// Threads: the host's thread calls Init, SetCtx, Start, Stop, Instance and Close. Cloud events are handled on
// the work thread "zxagentwork", one at a time, in arrival order. Each operation says below if it runs
// elsewhere. Locks: m_csStatus, m_csConnect, m_csData; never nested, never held over I/O, library calls or
// logging.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "agent/AgentTrans.h"
#include "data/AgentData.h"
#include "data/AgentHub.h"
#include "platform/bus/zxbus.h"
#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"
#include "platform/os/ZxEvent.h"
#include "platform/os/ZxMsgQueue.h"
#include "platform/os/ZxThread.h"
#include "platform/text/PString.h"
#include "send/AgentSendMsg.h"

// Kinds of work records.
enum : uint32_t {
  kWorkTconf = 1,
  kWorkConnect = 2,
  kWorkDisconnect = 3,
  kWorkPushmsg = 4,
  kWorkPollmsg = 5,
  kWorkData = 6,
  kWorkGuidList = 7,
  kWorkEngineAddr = 8,
  kWorkPolicy = 9,
  kWorkWake = 255,
};

// The poll thread's memory between two passes.
struct _PollState {
  uint32_t i = 0;
  uint32_t dwTimeLast = 0;  // seconds
  uint32_t dwCycleError = 0;
  uint64_t u64Count = 0;
  uint64_t u64CountError = 0;
  uint32_t dwPrintLast = 0;  // seconds
  int bPrint = 0;
};

class CAgentMgr final : public IAgentHub {
 public:
  // Created on first use; null when memory is out. Not locked: the host calls it first, from one thread.
  static CAgentMgr* Instance();
  static void Close();

  // strSystemRoot: see CAgentData. Tests build managers directly.
  explicit CAgentMgr(CPString strSystemRoot = CPString());
  ~CAgentMgr();
  CAgentMgr(const CAgentMgr&) = delete;
  CAgentMgr& operator=(const CAgentMgr&) = delete;

  // --- Life cycle (host thread).
  bool Init();
  void SetCtx(void* pCompCtx);  // an IBusContext, borrowed until Close
  bool InitCompCtx();
  bool Start();
  bool Stop();
  void SetWork(int bWork) TS_EXCLUDES(m_csStatus);
  int IsWorking() TS_EXCLUDES(m_csStatus);

  // --- Work queue and threads. AddZxcloudCallbackData: any thread; iLength 0 means the whole text.
  bool AddZxcloudCallbackData(uint32_t dwMessage, uint32_t dwFlag, const char* pszData, int iLength);
  bool StartCheckThread();
  static void* WorkThread(void*);
  static void* PollMsgThread(void*);
  static void* CheckTconfThread(void*);
  static void* InitZxcloudThread(void* pReInit);
  void DispatchWork(const ZxMsgRecord& record);  // one record on the work thread; does not free its data
  void PollOnce(_PollState& state, uint32_t dwNow, bool& bEnd);  // one pass of the poll thread

  // --- Cloud channel. Initialisation: host, poll, check or bus thread. 0 or a result code.
  uint32_t InitInnerZxcloud(int bReInit);
  uint32_t InitZxcloud(int bReInit) { return InitInnerZxcloud(bReInit); }
  bool UninitZxcloud();
  int SetZxcloudAllowDebug(int bAllowDebug);
  bool ZxcloudConnect(const char* lpszIp, uint16_t wPort, int bPollMsg);
  bool ZxcloudDisconnect();
  int ReconnectZxcloud();
  bool ZxcloudTconf(const char* lpszData);
  bool ZxcloudData(int iFlag, const char* lpszMsg);
  void SetLocalIp(CPString strAddr);
  bool ZxcloudLbData(CPString strLbData);
  uint32_t SetCloudAddr(CPString strAddr);
  uint32_t TestCloudAddr(CPString strAddr);
  uint32_t TestLbCloudAddr(CPString strAddr);  // deliberately unsupported: -1
  CPString GetConnectData();
  CPString GetClientReady();
  CPString GetLbData();
  int IsConnect() override;

  // --- Callbacks of the cloud library (its threads): copy into the work queue, nothing else.
  static int ZxcloudPushmsgCallback(int iPcid, const char* pszMsg);
  static int ZxcloudTconfCallback(int iFlag, const char* pszTconfArg);
  static int ZxcloudConnectCallback(const char* pszIp, unsigned short wPort);
  static int ZxcloudDisconnectCallback();
  static void ZxcloudLogCallback(int logModule, int logLevel, const char* pszText);
  static int ZxcloudPollmsgCallback(int iFlag, const char* pszData, int iLength);
  static int ZxcloudDataCallback(int iFlag, int iType, const char* pszData, int iLength);

  // --- Commands (work thread).
  int ZxcloudPollmsg(int iFlag, const char* pszMsg);
  int ZxcloudPushmsg(int iPcid, const char* pszMsg);
  uint32_t DisposePushmsg(unsigned long long u64DataId, const CPString& strProduct, const CPString& strCombo,
                          const char* lpszMsg);
  int SendPushMsgData(unsigned long long u64DataId, const CPString& strProduct, const CPString& strCombo,
                      const CPString& strID, const CPString& strCommand, const CPString& strMsg);
  uint32_t SendResponseMsg(unsigned long long u64DataId, const CPString& strProduct, const CPString& strCombo,
                           const CPString& strID, int iMsgType, int bNewLine);

  // --- Components.
  uint32_t SendPushmsgToTaskMgr(unsigned long long u64DataId, const CPString& strID, const CPString& strGuid,
                                const CPString& strProduct, const CPString& strCombo,
                                const CPString& strCommand, const CPString& strMsg);
  uint32_t RecvMsgResultsFromTaskMgr(_SendTaskMgrData* pSendData) override;
  uint32_t SendLogCacheResult(int iResult, unsigned long long u64DataId, int iPriv, int iMsgType,
                              CPString strProduct, CPString strCombo);
  uint32_t SendTaskMgrResult(int iResult, unsigned long long u64DataId, int iPriv, int iMsgType,
                             CPString strProduct, CPString strCombo);
  uint32_t ZxcloudSendMsg(unsigned long long u64DataId, const CPString& strProduct, const CPString& strCombo,
                          int iPriv, int iMsgType, const CPString& strMsg);
  int ZxagentGuidData(const char* lpszData);
  int GetTaskmgrGuidList(CPString& strJson);
  int SendGuidList2Taskmgr();
  uint32_t NotifyAuthChange();
  int SendEngineAddr();

  // --- Configuration and identity (host thread, during Start).
  bool GetConfig();
  int DisposeMid();

  CAgentData& Data() { return m_AgentData; }
  CAgentSendMsg& Sender() { return m_AgentSendMsg; }

 private:
  static CAgentMgr* m_pThis;

  IBusContext* m_pCompCtx = nullptr;
  GUID m_guidTaskMgr;
  CPString m_strSystemRoot;

  CCritSec m_csConnect;
  CPString m_strConnectData TS_GUARDED_BY(m_csConnect);
  int m_bIsConnect TS_GUARDED_BY(m_csConnect) = 0;

  CCritSec m_csData;
  CPString m_strClientReady TS_GUARDED_BY(m_csData);
  CPString m_strLbData TS_GUARDED_BY(m_csData);

  CAgentData m_AgentData;
  CAgentSendMsg m_AgentSendMsg;
  CAgentTrans m_AgentTrans;

  ZxMsgQueue m_queueData;
  HZxEvent m_hEventPollMsg = nullptr;
  HZxEvent m_hEventCheck = nullptr;

  CCritSec m_csStatus;
  int m_iWorkStatus TS_GUARDED_BY(m_csStatus) = 0;  // 0 not running or asked to stop, 1 running, 2 ended
  pthread_t m_hThreadWorkId TS_GUARDED_BY(m_csStatus) = 0;
  int m_iPollMsgStatus TS_GUARDED_BY(m_csStatus) = 0;
  pthread_t m_hThreadPollMsgId TS_GUARDED_BY(m_csStatus) = 0;
  pthread_t m_hThreadCheckId TS_GUARDED_BY(m_csStatus) = 0;
  int m_bWork TS_GUARDED_BY(m_csStatus) = 0;
  int m_bIsOnlyShort TS_GUARDED_BY(m_csStatus) = 0;
  int m_iPollerCycle TS_GUARDED_BY(m_csStatus) = 60;  // seconds
  int m_bRecvTconf TS_GUARDED_BY(m_csStatus) = 0;
  CPString m_strLocalIp TS_GUARDED_BY(m_csStatus);
  CPString m_strMsgSrvAddrSet TS_GUARDED_BY(m_csStatus);
  int m_iMsgSrvAddrSetStatus TS_GUARDED_BY(m_csStatus) =
      0;  // 1 set by command, 2 re-applied, 3 set through SetCloudAddr
  CPString m_strEngineAddr TS_GUARDED_BY(m_csStatus);

  CPString m_strHomePath;  // set in Init, then constant
  CPString m_strAgentPath;

  CPStrSet m_strEngineAddrSetOld;  // work thread only
};
