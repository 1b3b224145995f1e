// The thread that makes all calls into the plug-ins: loads and starts them in order, stays ready, stops them
// in reverse order. It may hang in a plug-in for ever; whoever owns the driver watches it and ends the
// process then. Threads: the public methods are for one other thread, which polls EventFd().
#pragma once

#include <pthread.h>

#include <memory>
#include <thread>
#include <vector>

#include "HostConfig.h"
#include "Plugin.h"

class CPluginDriver {
 public:
  enum class EPhase { Starting, Running, Stopped };

  CPluginDriver(const _HostConfig& config, CPString strHome);
  ~CPluginDriver();  // waits for the thread
  CPluginDriver(const CPluginDriver&) = delete;
  CPluginDriver& operator=(const CPluginDriver&) = delete;

  bool Start();  // false: no event descriptor or no thread (errno)
  // Readable after each change of the phase and each answer to RequestTick, until TakeEvents.
  int EventFd() const { return m_iEventFd; }
  void TakeEvents();

  EPhase Phase() TS_EXCLUDES(m_cs);
  size_t Started() TS_EXCLUDES(m_cs);  // plug-ins that were started in this run
  CPString Step() { return m_note.Text(); }
  void RequestStop() TS_EXCLUDES(m_cs);
  // Asks every plug-in for its status. Answered() counts the answers; none comes while a call hangs.
  void RequestTick() TS_EXCLUDES(m_cs);
  uint32_t Answered() TS_EXCLUDES(m_cs);

 private:
  void Run();
  void StartAll();
  void WaitForStop();
  void StopAll();
  void SetPhase(EPhase ePhase) TS_EXCLUDES(m_cs);
  bool IsStopRequested() TS_EXCLUDES(m_cs);
  void Notify();

  const _HostConfig m_config;
  const CPString m_strHome;
  CStepNote m_note;
  std::vector<std::unique_ptr<CPlugin>> m_plugins;  // the driver's thread only
  std::thread m_thread;
  int m_iEventFd = -1;

  CCritSec m_cs;
  pthread_cond_t m_cond = PTHREAD_COND_INITIALIZER;
  EPhase m_ePhase TS_GUARDED_BY(m_cs) = EPhase::Starting;
  size_t m_uStarted TS_GUARDED_BY(m_cs) = 0;
  bool m_bStop TS_GUARDED_BY(m_cs) = false;
  bool m_bTick TS_GUARDED_BY(m_cs) = false;
  uint32_t m_uiAnswered TS_GUARDED_BY(m_cs) = 0;
};
