// The agent manager: the process-wide singleton that owns every companion, the link to the cloud, the work
// queue and the agent's threads. Files by concern: AgentMgr.cpp (life cycle), AgentMgrThreads.cpp (work
// queue, work and check thread), AgentMgrChannel.cpp (cloud channel), AgentMgrCallbacks.cpp (the cloud
// library's callbacks), AgentMgrPoll.cpp (poll thread), AgentMgrAddr.cpp (addresses set and tested from
// outside), AgentMgrDispatch.cpp (commands), AgentMgrHandlers.cpp (the agent's own commands),
// AgentMgrRouting.cpp and AgentMgrGuidList.cpp (components), AgentMgrIdentity.cpp (configuration, machine
// id).
//
// Threads: the host's thread calls Init, SetCtx, Start, Stop, Instance and Close. Cloud events are handled on
// the work thread "zxagentwork", one at a time, in arrival order. Each operation says below if it runs
// elsewhere. Locks: m_csStatus, m_csConnect, m_csData; never nested, never held over I/O, library calls or
// logging.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>

#include "agent/AgentTrans.h"
#include "asset/AgentAsset.h"
#include "cache/AgentCache.h"
#include "data/AgentData.h"
#include "data/AgentHub.h"
#include "maint/AgentMaint.h"
#include "platform/bus/zxbus.h"
#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"
#include "platform/os/ZxEvent.h"
#include "platform/os/ZxGauges.h"
#include "platform/os/ZxMsgQueue.h"
#include "platform/os/ZxThread.h"
#include "platform/text/PString.h"
#include "send/AgentLogMsg.h"
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

class CAgentMgr final : public IAgentHub, public IAgentQueries {
 public:
  // Created on first use; null when memory is out. Not locked: the host calls it first, from one thread.
  // Threads and cloud callbacks ask Current() instead, which never creates one.
  static CAgentMgr* Instance();
  static CAgentMgr* Current();
  // Destroys the singleton, after Stop when the host did not call it, and only once no agent thread is left:
  // a thread that cannot be ended leaves the manager in memory (logged).
  static void Close();
  // Makes pMgr (null: none) the process's manager; returns the previous one.
  static CAgentMgr* SetCurrent(CAgentMgr* pMgr);

  // Pauses the calling thread; a cancellation point.
  using TSleepMs = std::function<void(uint32_t dwMs)>;
  static void SleepMs(uint32_t dwMs);

  // strSystemRoot: see CAgentData. Tests build managers directly, and may give them pauses of their own.
  explicit CAgentMgr(CPString strSystemRoot = CPString(), TSleepMs fnSleepMs = &SleepMs);
  ~CAgentMgr();
  CAgentMgr(const CAgentMgr&) = delete;
  CAgentMgr& operator=(const CAgentMgr&) = delete;

  // --- Life cycle (host thread).
  bool Init();                      // home: the directory of the library
  bool Init(CPString strHomePath);  // with a trailing "/"; always true
  void SetCtx(void* pCompCtx);      // an IBusContext, borrowed until Close; before Start
  bool InitCompCtx();
  bool Start();
  bool Stop();
  void SetWork(int bWork) TS_EXCLUDES(m_csStatus);
  int IsWorking() TS_EXCLUDES(m_csStatus);

  // --- Work queue and threads. AddZxcloudCallbackData: any thread; iLength 0 means the whole text.
  bool AddZxcloudCallbackData(uint32_t dwMessage, uint32_t dwFlag, const char* pszData, int iLength);
  bool StartCheckThread() TS_EXCLUDES(m_csStatus);
  // Thread entries; the argument is not read, except that InitZxcloudThread takes bReInit in it.
  static void* WorkThread(void*);
  static void* PollMsgThread(void*);
  static void* CheckTconfThread(void*);
  static void* InitZxcloudThread(void* pReInit);  // dormant: nothing starts it
  void DispatchWork(const ZxMsgRecord& record);   // one record on the work thread; does not free its data
  // One pass of the poll thread at the time dwNow (seconds), without the wait behind it.
  void PollOnce(_PollState& state, uint32_t dwNow) TS_EXCLUDES(m_csStatus, m_csConnect);

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
  uint32_t SetCloudAddr(CPString strAddr) override;
  uint32_t TestCloudAddr(CPString strAddr) override;
  uint32_t TestLbCloudAddr(CPString strAddr) override;  // deliberately unsupported: -1
  // Check thread: 1 when an address of the list ("a,b,c") answers. Pauses 5 s between tries while working.
  int CheckMsgSrvAddrSet(const CPString& strAddrList);
  int ReMsgSrvAddrSet();  // check thread: 1 when the pending message-server setting was verified just now
  CPString GetConnectData() override TS_EXCLUDES(m_csConnect);
  CPString GetClientReady() override TS_EXCLUDES(m_csData);
  CPString GetLbData() override TS_EXCLUDES(m_csData);
  int IsConnect() override TS_EXCLUDES(m_csConnect);

  // --- Callbacks of the cloud library (its threads): copy into the work queue, nothing else. 0, or -1 when
  // the event was dropped. A length of 0 means the whole text; texts are not read past their length.
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
                      const CPString& strID, const CPString& strCommand, const CPString& strMsg) override;
  uint32_t SendResponseMsg(unsigned long long u64DataId, const CPString& strProduct, const CPString& strCombo,
                           const CPString& strID, int iMsgType, int bNewLine);

  // --- The agent's own commands (work thread, but for DisposePolicy). A handler answers 0 or a result code;
  // the two that dispatch answer non-zero when they took the command and acknowledged it.
  int DisposeInnerCommand(unsigned long long u64DataId, const CPString& strProduct, const CPString& strCombo,
                          const CPString& strID, const CPString& strCommand, const zxtools::CPJsonParse& json,
                          const char* lpszMsg);
  uint32_t DisposePubMsgReport(unsigned long long u64DataId, const CPString& strID,
                               const zxtools::CPJsonParse& json);
  uint32_t DisposeTermConnect(unsigned long long u64DataId, const CPString& strID, const char* lpszMsg);
  uint32_t DisposeClientReady(unsigned long long u64DataId, const CPString& strID, const char* lpszMsg);
  uint32_t DisposeAssetCollection(unsigned long long u64DataId, const CPString& strID, const char* lpszMsg);
  uint32_t DisposeMsgSrvAddrSet(unsigned long long u64DataId, const CPString& strID, const char* lpszMsg);
  int DisposeMaintCommand(unsigned long long u64DataId, const CPString& strProduct, const CPString& strCombo,
                          const CPString& strID, const CPString& strCommand, const char* lpszMsg);
  // A policy that the task manager passes back: queued from any thread, handled on the work thread.
  bool DisposePolicy(const char* str) override;
  uint32_t DisposeTaskmgrPolicy(const char* lpszMsg);

  // --- Components.
  uint32_t SendPushmsgToTaskMgr(unsigned long long u64DataId, const CPString& strID, const CPString& strGuid,
                                const CPString& strProduct, const CPString& strCombo,
                                const CPString& strCommand, const CPString& strMsg);
  uint32_t RecvMsgResultsFromTaskMgr(_SendTaskMgrData* pSendData) override;
  uint32_t SendLogCacheResult(int iResult, unsigned long long u64DataId, int iPriv, int iMsgType,
                              CPString strProduct, CPString strCombo) override;
  uint32_t SendTaskMgrResult(int iResult, unsigned long long u64DataId, int iPriv, int iMsgType,
                             CPString strProduct, CPString strCombo) override;
  // A component's message for the cloud (bus threads): queued for the upload workers.
  uint32_t SendMsg(unsigned long long u64DataId, int iPriv, int iMsgType, const GUID& guid,
                   CPString strProduct, CPString strCombo, const char* pszMsg, unsigned int uiLen,
                   unsigned int uiKind) override;
  uint32_t ZxcloudSendMsg(unsigned long long u64DataId, const CPString& strProduct, const CPString& strCombo,
                          int iPriv, int iMsgType, const CPString& strMsg) override;
  int ZxagentGuidData(const char* lpszData);
  int GetTaskmgrGuidList(CPString& strJson) override;
  int SendGuidList2Taskmgr();
  uint32_t NotifyAuthChange() override;
  int SendEngineAddr();

  // --- Configuration and identity (host thread, during Start).
  bool GetConfig();
  int DisposeMid();

  CAgentData& Data() { return m_AgentData; }
  CAgentSendMsg& Sender() { return m_AgentSendMsg; }

 private:
  bool DisposeOwnCommand(unsigned long long u64DataId, const CPString& strProduct, const CPString& strCombo,
                         const CPString& strID, const CPString& strCommand, const zxtools::CPJsonParse& json,
                         const char* lpszMsg);
  void RegisterReceiver();
  void UnregisterReceiver();
  void StartThreads() TS_EXCLUDES(m_csStatus);
  int CreateWorkThread() TS_EXCLUDES(m_csStatus);
  int CreatePollMsgThread() TS_EXCLUDES(m_csStatus);
  bool ThreadsBegun() TS_EXCLUDES(m_csStatus);
  bool HasThreads() TS_EXCLUDES(m_csStatus);
  bool ThreadsEnded() TS_EXCLUDES(m_csStatus);
  int WaitThreads();
  void CancelThreads() TS_EXCLUDES(m_csStatus);
  int EndThreads();

  void WorkLoop();
  void HandleRecord(const ZxMsgRecord& record);
  void PollLoop();
  bool EndPollIfAsked() TS_EXCLUDES(m_csStatus);
  void Poll(_PollState& state, uint32_t dwNow, int iPollerCycle, int bIsOnlyShort);
  void CheckLoop();

  uint32_t SetInitOptions(int bIsOnlyShort, int bReInit, const CPString& strLocalIp);
  uint32_t OpenZxcloud(int bIsOnlyShort, int bReInit, const CPString& strConfigInnerPath);
  bool ZxcloudShortAddr(const CPString& strLocal, const CPString& strRemote);
  bool ZxcloudLongAddr(const CPString& strLocal, const CPString& strRemote);

  void RefreshKnownMid(_MidInfoData& current, _MidInfoData& stored, const CPStrList& macList, int bSave,
                       int bSysMid);
  void LoadTermConnect();
  void LoadMsgSrvAddrSet();

  static std::atomic<CAgentMgr*> m_pThis;

  IBusContext* m_pCompCtx = nullptr;
  GUID m_guidTaskMgr;
  const CPString m_strSystemRoot;
  const TSleepMs m_fnSleepMs;
  std::atomic<uint32_t> m_uZxcloudInits{0};  // successful initialisations of the cloud library

  CCritSec m_csConnect;
  CPString m_strConnectData TS_GUARDED_BY(m_csConnect);
  int m_bIsConnect TS_GUARDED_BY(m_csConnect) = 0;

  CCritSec m_csData;
  CPString m_strClientReady TS_GUARDED_BY(m_csData);
  CPString m_strLbData TS_GUARDED_BY(m_csData);

  CAgentData m_AgentData;
  CAgentSendMsg m_AgentSendMsg;
  CAgentCache m_AgentCache;
  CAgentLogMsg m_AgentLogMsg;
  CAgentTrans m_AgentTrans;
  CAgentMaint m_AgentMaint;
  CAgentAsset m_AgentAsset;

  ZxMsgQueue m_queueData;
  HZxEvent m_hEventPollMsg = nullptr;
  HZxEvent m_hEventCheck = nullptr;
  HZxEvent m_hEventBegun = nullptr;  // a thread that Start created has begun

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

  CZxGauge m_gaugeQueue{"agent.work_queue"};  // records that wait
  CZxGauge m_gaugePushes{"agent.pushes"};     // commands handled, pushed and polled
  CZxGauge m_gaugeDataId{"agent.data_id"};
  CZxGauge m_gaugePollCycle{"agent.poll_cycle_sec"};
  CZxGauge m_gaugeOnlyShort{"agent.only_short"};
  CZxGauge m_gaugeConnected{"agent.connected"};
};
