// The thread that makes all calls into the plug-ins: loads and starts them in order, stays ready, stops them
// in reverse order. It may hang in a plug-in for ever; whoever owns the driver watches it and ends the
// process then. Threads: the public methods are for one other thread, which polls EventFd().
#pragma once

#include <pthread.h>

#include <memory>
#include <utility>
#include <vector>

#include "EventThread.h"
#include "HostConfig.h"
#include "Plugin.h"

// What people are told about one plug-in.
struct _PluginState {
  CPString strName;
  CPString strPath;
  CPString strGuid;
  const char* pszState = "waiting";  // "waiting", "running", "failed", "stopped"
  int iStatus = 0;                   // its own word (pfnGetStatus), as of the last question
};

class CPluginDriver {
 public:
  enum class EPhase { Starting, Running, Stopped };

  CPluginDriver(const _HostConfig& config, CPString strHome);
  ~CPluginDriver();  // waits for the thread
  CPluginDriver(const CPluginDriver&) = delete;
  CPluginDriver& operator=(const CPluginDriver&) = delete;

  bool Start() {
    return m_thread.Start([this] { Run(); });
  }  // false: no event descriptor or no thread (errno)
  // Readable after each change of the phase and each answer to RequestTick, until TakeEvents.
  int EventFd() const { return m_thread.Fd(); }
  void TakeEvents() const { m_thread.Take(); }

  EPhase Phase() TS_EXCLUDES(m_cs);
  size_t Started() TS_EXCLUDES(m_cs);  // plug-ins that were started in this run
  CPString Step() { return m_note.Text(); }
  void RequestStop() TS_EXCLUDES(m_cs);
  // Asks every plug-in for its status. Answered() counts the answers; none comes while a call hangs.
  void RequestTick() TS_EXCLUDES(m_cs);
  uint32_t Answered() TS_EXCLUDES(m_cs);
  // The plug-ins of the configuration, in order, after asking them again; from any thread. bAnswered false: a
  // call into one of them takes longer than that, and the states are older.
  std::vector<_PluginState> States(uint32_t uiWaitMs, bool& bAnswered) TS_EXCLUDES(m_cs);

 private:
  void Run();
  void StartAll();
  void WaitForStop();
  void StopAll();
  void SetState(size_t uIndex, const char* pszState, int iStatus) TS_EXCLUDES(m_cs);
  void SetPhase(EPhase ePhase) TS_EXCLUDES(m_cs);
  bool IsStopRequested() TS_EXCLUDES(m_cs);

  const _HostConfig m_config;
  const CPString m_strHome;
  CStepNote m_note;
  // The driver's thread only; with the place in the configuration.
  std::vector<std::pair<size_t, std::unique_ptr<CPlugin>>> m_plugins;
  CEventThread m_thread;

  CCritSec m_cs;
  pthread_cond_t m_cond = PTHREAD_COND_INITIALIZER;
  EPhase m_ePhase TS_GUARDED_BY(m_cs) = EPhase::Starting;
  size_t m_uStarted TS_GUARDED_BY(m_cs) = 0;
  bool m_bStop TS_GUARDED_BY(m_cs) = false;
  bool m_bTick TS_GUARDED_BY(m_cs) = false;
  uint32_t m_uiAnswered TS_GUARDED_BY(m_cs) = 0;
  pthread_cond_t m_condAnswered;
  std::vector<_PluginState> m_states TS_GUARDED_BY(m_cs);
};
