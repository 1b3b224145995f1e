// Frames data for the management cloud and hands it to the cloud library. Owned by CAgentMgr.
// Threads: any. Blocking sends block up to 100 seconds; everything else returns at once. No lock is held over
// a send.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"
#include "platform/os/ZxEvent.h"
#include "platform/os/ZxMsgQueue.h"
#include "platform/text/PString.h"

// One message of the dormant resend queue; whoever takes it out deletes it.
struct _ResendData {
  int iPriv = 0;
  int iMsgType = 0;
  unsigned long long u64DataId = 0;
  int bSync = 0;
  int bLogCache = 0;
  CPString strProduct;
  CPString strCombo;
  CPString strMsg;
};

struct _SendCall;  // arguments of one send, AgentSendCall.h

class CAgentSendMsg {
 public:
  CAgentSendMsg();
  ~CAgentSendMsg();
  CAgentSendMsg(const CAgentSendMsg&) = delete;
  CAgentSendMsg& operator=(const CAgentSendMsg&) = delete;

  int Init();    // always 1
  int Uninit();  // always 1

  void SetMid(const CPString& strMid1, const CPString& strMid2);
  void GetMid(CPString& strMid1, CPString& strMid2);
  void SetChannelId(const CPString& strChannelId, const CPString& strIpartner);
  void GetChannelId(CPString& strChannelId, CPString& strIpartner);
  void SetVersion(const CPString& strSysVer, const CPString& strVersion);
  void SetPubmsgReportType(int iPubmsgReportType);

  // iMsgType 1 server data, 2 plug-in data, 3 cloud tags. bSync: wait for the cloud's acknowledgement.
  // bLogCache: write the lines to the log-cache channel. 0, kErrCloudSend, kErrCloudSendSync,
  // kErrCloudMsgType or a tag error.
  uint32_t ZxcloudSendMsg(const CPString& strProduct, const CPString& strCombo, int iPriv, int iMsgType,
                          unsigned long long u64DataId, const CPString& strMsg, int bSync, int bLogCache);
  // The "CloudTags" object of a JSON document as "<name=value>" texts.
  uint32_t GetCloudTag(const CPString& strMsg, CPString& strTags);
  uint32_t ZxcloudPollMessage(int bVerbose, const CPString& strBusinessId);

  // --- Resend facility: complete, but nothing starts its thread and nothing queues for it. Whoever wires it
  // up starts the thread with this sender as argument and sets the status to anything but 1 to stop it, which
  // also wakes it.
  static void* ReSendMsgThread(void* pThis);
  // Takes pData over; false when the queue is full, pData is then deleted.
  bool InsertResendMsg(_ResendData* pData);
  int GetResendStatus() TS_EXCLUDES(m_csResend);
  void SetResendStatus(int iResendStatus) TS_EXCLUDES(m_csResend);
  // One step of the thread: true when it is to pause for a second, false when the step was a round (every
  // tenth second). iIdle starts at 0 and belongs to the caller.
  bool ResendStep(int& iIdle);

 private:
  CPString FormatHeader(const _SendCall& call, const char* pszKey, const CPString& strMsg,
                        const CPString& strTags);
  void ResendRound();

  CCritSec m_csIdentity;  // ids and versions: set rarely, copied per send
  CPString m_strMid1 TS_GUARDED_BY(m_csIdentity);
  CPString m_strMid2 TS_GUARDED_BY(m_csIdentity);
  CPString m_strSysVer TS_GUARDED_BY(m_csIdentity);
  CPString m_strVersion TS_GUARDED_BY(m_csIdentity);

  CCritSec m_csChannel;
  CPString m_strChannelId TS_GUARDED_BY(m_csChannel);
  CPString m_strIpartner TS_GUARDED_BY(m_csChannel);

  // Bit set: 1 second send on, 2 for server data, 4 for plug-in data, 8 for both; the first that is set
  // counts.
  std::atomic<int> m_iPubmsgReportType{0};

  CCritSec m_csResend;
  int m_iResendStatus TS_GUARDED_BY(m_csResend) = 0;  // 0 never started, 1 running, 2 ended
  pthread_t m_hThreadResendId TS_GUARDED_BY(m_csResend) = 0;
  const HZxEvent m_hEventResend;  // ends the thread's pause
  ZxMsgQueue m_queueResend;       // of _ResendData
};
