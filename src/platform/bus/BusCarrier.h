// The D-Bus carrier of this process: the I/O thread, the connections it drives, and the host's wishes.
// Threads: any, except where said. Locks are held for look-ups only.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/bus/BusControl.h"
#include "platform/bus/BusHelper.h"
#include "platform/bus/BusLink.h"
#include "platform/bus/zxbus.h"
#include "platform/os/ZxCritSec.h"

class CBusEndpoint;

class CBusCarrier {
 public:
  static CBusCarrier& Instance();  // never destroyed: contexts may outlive the statics

  uint32_t Connect(const ZxBusConnectSettings& settings) TS_EXCLUDES(m_cs);
  void Disconnect() TS_EXCLUDES(m_cs);
  uint32_t ServeHost(PfnZxBusHost pfnHost, void* pContext) TS_EXCLUDES(m_cs);
  // Joins the endpoint to the bus of other processes, if there is one. 0, kBusErrTaken or kBusErrDenied.
  uint32_t Attach(const std::shared_ptr<CBusEndpoint>& pEndpoint, const GUID& guid) TS_EXCLUDES(m_cs);
  std::string Stats() TS_EXCLUDES(m_cs);

  // For the connections. Ready: the wire gets a turn soon.
  void Ready(std::shared_ptr<CBusWire> pWire) TS_EXCLUDES(m_csReady);
  // A server went away from its connection: the I/O thread looks after it if that lasts. Any thread; a system
  // call only when none has asked for a while.
  void ScheduleSweep();
  void Report(uint32_t uiState, const std::string& strText) TS_EXCLUDES(m_cs);
  void SetConnected(bool bConnected, const char* pszText) TS_EXCLUDES(m_cs);
  bool RunHostCall(const std::shared_ptr<CBusControl>& pControl, uint64_t u64Call, const char* pszMethod,
                   const char* pszJson, uint32_t uiUid, uint32_t uiPid);
  // The I/O thread's.
  bool AddFd(int iFd, uint32_t uiEvents, CBusWire* pWire) const;
  void ChangeFd(int iFd, uint32_t uiEvents, CBusWire* pWire) const;
  void RemoveFd(int iFd) const;

 private:
  enum class EState { Off, Starting, On, Stopping };

  CBusCarrier();
  bool StartThreads();
  void StartWire(const std::shared_ptr<CBusWire>& pWire) { Ready(pWire); }
  bool WaitConnected(uint32_t uiTimeoutMs) TS_EXCLUDES(m_cs);
  std::shared_ptr<CBusLink> MakeLink(const std::shared_ptr<CBusEndpoint>& pEndpoint, const GUID& guid)
      TS_EXCLUDES(m_cs);
  void HostCall(const std::shared_ptr<CBusControl>& pControl, uint64_t u64Call, const std::string& strMethod,
                const std::string& strJson, uint32_t uiUid, uint32_t uiPid) TS_EXCLUDES(m_cs);
  static void* IoEntry(void* pSelf);
  void Io();
  int WaitMs();
  void TurnReady() TS_EXCLUDES(m_csReady);
  void TurnDue();
  void SetSweepTimer() const;
  void Sweep();
  void DropEnded();

  CCritSec m_cs;
  pthread_cond_t m_cond;  // connected, or the host's function is free
  EState m_eState TS_GUARDED_BY(m_cs) = EState::Off;
  bool m_bConnected TS_GUARDED_BY(m_cs) = false;
  std::string m_strAddress TS_GUARDED_BY(m_cs);
  std::string m_strLastError TS_GUARDED_BY(m_cs);
  uint32_t m_uiTimeoutMs TS_GUARDED_BY(m_cs) = 0;
  size_t m_uMaxSendBytes TS_GUARDED_BY(m_cs) = 0;
  uint64_t m_u64Losses TS_GUARDED_BY(m_cs) = 0;
  PfnZxBusState m_pfnState TS_GUARDED_BY(m_cs) = nullptr;
  void* m_pStateContext TS_GUARDED_BY(m_cs) = nullptr;
  PfnZxBusHost m_pfnHost TS_GUARDED_BY(m_cs) = nullptr;
  void* m_pHostContext TS_GUARDED_BY(m_cs) = nullptr;
  bool m_bHostCalled TS_GUARDED_BY(m_cs) = false;
  std::shared_ptr<CBusControl> m_pControl TS_GUARDED_BY(m_cs);
  std::vector<std::pair<std::shared_ptr<CBusEndpoint>, std::shared_ptr<CBusLink>>> m_links
      TS_GUARDED_BY(m_cs);

  CCritSec m_csReady;
  std::vector<std::shared_ptr<CBusWire>> m_ready TS_GUARDED_BY(m_csReady);
  bool m_bStopIo TS_GUARDED_BY(m_csReady) = false;

  CBusHelper m_helper;
  pthread_t m_hIo{};
  int m_iEpoll = -1;
  int m_iEvent = -1;
  int m_iTimer = -1;
  std::atomic<bool> m_bSweepDue{false};
  std::atomic<uint64_t> m_u64SweepNs;              // until the next one
  std::vector<std::shared_ptr<CBusWire>> m_wires;  // the I/O thread's
};
