// One loaded plug-in, driven in the order of the plug-in interface (src/plugin/zxplugin.h). Every step that
// fails is logged here, and the steps before it are undone. Not thread-safe: one thread makes all calls.
#pragma once

#include "HostConfig.h"
#include "platform/bus/zxbus.h"
#include "platform/os/ZxCritSec.h"
#include "plugin/zxplugin.h"

// Which call of which plug-in is running, for the one who has to say what hangs. Any thread may read.
class CStepNote {
 public:
  void Set(const CPString& strPlugin, const char* pszStep) TS_EXCLUDES(m_cs);
  CPString Text() TS_EXCLUDES(m_cs);  // "zxagent Stop"; empty between calls

 private:
  CCritSec m_cs;
  CPString m_strText TS_GUARDED_BY(m_cs);
};

class CPlugin {
 public:
  // note must outlive the plug-in.
  CPlugin(_PluginEntry entry, CPString strHome, CStepNote& note);
  ~CPlugin();  // stops and unloads what is still up
  CPlugin(const CPlugin&) = delete;
  CPlugin& operator=(const CPlugin&) = delete;

  bool Load();  // up to SetCtx
  bool Start();
  void Stop();
  void Unload();
  int Status();  // pfnGetStatus
  const CPString& Name() const { return m_entry.strName; }

 private:
  bool Resolve();
  bool Create();
  // Runs one call of the plug-in. False: it threw (logged) or gave another result than 0.
  template <class F>
  bool Call(const char* pszStep, F&& call);

  const _PluginEntry m_entry;
  const CPString m_strHome;
  CStepNote& m_note;
  void* m_hLibrary = nullptr;
  PFNInitializePlugin m_pfnInitialize = nullptr;
  PFNUninitializePlugin m_pfnUninitialize = nullptr;
  PFNCreateObject m_pfnCreate = nullptr;
  PFNDestroyObject m_pfnDestroy = nullptr;
  CPluginObj* m_pObject = nullptr;
  IBusContext* m_pBus = nullptr;
  bool m_bLibraryUp = false;  // InitializePlugin was called
  bool m_bObjectUp = false;   // pfnInitialize was called
  bool m_bStarted = false;
};
