// The bus that spans processes, as the host provides it: keeps the private daemon running (or uses the bus
// that the configuration names), writes its policy from the components' manifests and keeps both in step,
// and joins this process to it. Whatever fails here, the plug-ins go on talking in memory; the service says
// so once and tries again.
//
// Threads: Start and Stop by the owner (the host's main thread); Snapshot by any. All work happens on the
// thread zxhost.bus, which is woken by the daemon's end and output, changed manifests, its own deadlines and
// Stop, and may block on files, the user table and a bounded call to the daemon.
#pragma once

#include <memory>

#include "BusDaemon.h"
#include "ComponentList.h"
#include "DaemonOutput.h"
#include "EventThread.h"
#include "HostConfig.h"
#include "ManifestWatch.h"
#include "platform/os/ZxCritSec.h"

// What people are told about the bus.
struct _BusSnapshot {
  CPString strAddress;  // empty: there is no bus
  bool bOwnDaemon = false;
  pid_t iDaemonPid = 0;  // 0: does not run
  uint32_t uiStarts = 0;
  uint64_t u64UpSinceMs = 0;  // monotonic; of the daemon
  CPString strTrouble;        // why there is no bus now, or why its policy is old; empty: all well
  std::shared_ptr<const _ComponentList> pComponents;  // never null
};

class CBusService {
 public:
  CBusService(const _HostConfig& config, const CPString& strHome);
  ~CBusService();  // as Stop
  CBusService(const CBusService&) = delete;
  CBusService& operator=(const CBusService&) = delete;

  // Returns at once; false (errno): no thread, and so no bus.
  bool Start();
  // Leaves the bus and ends the daemon, within kStopMs. Also when Start failed or was never called.
  void Stop();
  _BusSnapshot Snapshot() TS_EXCLUDES(m_cs);

 private:
  void Run();
  void Step(uint64_t u64NowMs);
  void StartDaemon(uint64_t u64NowMs);
  bool PrepareDaemon(CPString& strError);
  void OnDaemonEnd(uint64_t u64NowMs);
  void OnDaemonOutput(uint64_t u64NowMs);
  void LogOutput(const std::vector<std::string>& lines, uint64_t u64NowMs);
  void ReadManifests(uint64_t u64NowMs);
  void LogManifestChanges(const _ComponentList& list);
  void UpdatePolicy(uint64_t u64NowMs);
  bool WritePolicy(CPString& strError);
  void Join();
  void SetTrouble(const CPString& strText) TS_EXCLUDES(m_cs);
  void Publish() TS_EXCLUDES(m_cs);
  int WaitMs(uint64_t u64NowMs) const;
  static void OnBusState(uint32_t uiState, const char* pszText, void* pContext);
  bool OwnsDaemon() const { return m_config.bus.strAddress.IsEmpty(); }

  const _HostConfig m_config;
  const CPString m_strHome;
  const CPString m_strAddress;
  CEventThread m_thread;

  // The thread's own.
  std::unique_ptr<CBusDaemon> m_pDaemon;
  CDaemonOutput m_output;
  CManifestWatch m_watch;
  _ComponentRules m_rules;
  std::shared_ptr<const _ComponentList> m_pComponents = std::make_shared<_ComponentList>();
  CPString m_strPolicy;         // as it should be
  CPString m_strWrittenPolicy;  // as the file has it
  bool m_bReloadDue = false;    // the running daemon has not read the file yet
  bool m_bUserMissing = false;  // said that the daemon runs as the host
  bool m_bJoined = false;
  uint64_t m_u64StartAtMs = 0;  // next attempt to start the daemon
  uint32_t m_uiBackoffMs = 0;
  uint64_t m_u64StartedMs = 0;
  uint32_t m_uiStarts = 0;
  uint64_t m_u64ReadAtMs = 0;    // next reading of the manifests
  uint64_t m_u64ReadByMs = 0;    // latest, however many changes follow
  uint64_t m_u64ReloadAtMs = 0;  // next attempt to bring file and daemon up to date; 0: nothing to do
  CPString m_strTrouble;

  CPString m_strLastState;  // of OnBusState only

  CCritSec m_cs;
  _BusSnapshot m_snapshot TS_GUARDED_BY(m_cs);
  bool m_bStop TS_GUARDED_BY(m_cs) = false;
};
