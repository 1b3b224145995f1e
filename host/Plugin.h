// One loaded plug-in and its place in the calling order. Driven by the host's main thread only; every call
// blocks as long as the plug-in does. Failures are logged here.
#pragma once

#include "HostConfig.h"
#include "platform/bus/zxbus.h"
#include "platform/log/Log.h"
#include "plugin/zxplugin.h"

// What a plug-in gets for pInitParam: borrowed texts that live until its Uninitialize returned.
struct CHostInitParam {
  uint32_t uSize = sizeof(CHostInitParam);
  const char* pszHome = nullptr;     // ends in "/"
  const char* pszVersion = nullptr;  // of the host
};

class CPlugin {
 public:
  CPlugin(CPluginConfig config, HLog hLog) : m_config(std::move(config)), m_hLog(hLog) {}
  ~CPlugin() { Unload(); }
  CPlugin(const CPlugin&) = delete;
  CPlugin& operator=(const CPlugin&) = delete;

  // Library, exports, InitializePlugin, CreateObject, Initialize, SetCtx. False: logged, and everything
  // undone.
  bool Load(CHostInitParam* pParam);
  bool Start();
  void Stop();    // only when started
  void Unload();  // Uninitialize, DestroyObject, UninitializePlugin, the context, dlclose; safe at any point

  const std::string& Name() const { return m_config.strName; }
  bool IsStarted() const { return m_bStarted; }

 private:
  bool Resolve();

  const CPluginConfig m_config;
  const HLog m_hLog;
  void* m_hLib = nullptr;
  CPluginObj* m_pObj = nullptr;
  IBusContext* m_pBus = nullptr;
  bool m_bInitialized = false;  // slot Initialize was called
  bool m_bStarted = false;
  PFNInitializePlugin m_pfnInitializePlugin = nullptr;
  PFNUninitializePlugin m_pfnUninitializePlugin = nullptr;
  PFNCreateObject m_pfnCreateObject = nullptr;
  PFNDestroyObject m_pfnDestroyObject = nullptr;
};
