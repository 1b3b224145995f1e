#include "Plugin.h"

#include <dlfcn.h>

#include <utility>

namespace {

template <class T>
bool Symbol(void* hLib, const char* pszName, T& pfn) {
  pfn = reinterpret_cast<T>(dlsym(hLib, pszName));
  return pfn != nullptr;
}

}  // namespace

bool CPlugin::Load(CHostInitParam* pParam) {
  m_hLib = dlopen(m_config.strPath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (m_hLib == nullptr)
    return LogErrorTo(m_hLog, "**zxhost plug-in[%s] cannot be loaded: %s", m_config.strName, dlerror()) !=
           0;  // NOLINT(concurrency-mt-unsafe)
  if (!Resolve()) {
    LogErrorTo(m_hLog, "**zxhost plug-in[%s] path[%s] lacks one of its four exports", m_config.strName,
               m_config.strPath);
    Unload();
    return false;
  }
  m_pfnInitializePlugin();
  m_pObj = static_cast<CPluginObj*>(m_pfnCreateObject(m_config.strGuid.c_str()));
  if (m_pObj == nullptr) {
    LogErrorTo(m_hLog, "**zxhost plug-in[%s] does not know guid[%s]", m_config.strName, m_config.strGuid);
    Unload();
    return false;
  }
  m_pBus = ZxBusCreateContext();
  m_bInitialized = true;
  const int iRet = m_pObj->pfnInitialize(pParam);
  if (m_pBus == nullptr || iRet != 0) {
    LogErrorTo(m_hLog, "**zxhost plug-in[%s] Initialize iRet[%d] bus context[%p]", m_config.strName, iRet,
               static_cast<void*>(m_pBus));
    Unload();
    return false;
  }
  m_pObj->pfnSetCtx(m_pBus);
  LogInfoTo(m_hLog, "zxhost plug-in[%s] loaded from %s", m_config.strName, m_config.strPath);
  return true;
}

bool CPlugin::Resolve() {
  return Symbol(m_hLib, "InitializePlugin", m_pfnInitializePlugin) &&
         Symbol(m_hLib, "UninitializePlugin", m_pfnUninitializePlugin) &&
         Symbol(m_hLib, "CreateObject", m_pfnCreateObject) &&
         Symbol(m_hLib, "DestroyObject", m_pfnDestroyObject);
}

bool CPlugin::Start() {
  const int iRet = m_pObj->pfnStart();
  m_bStarted = iRet == 0;
  if (!m_bStarted)
    return LogErrorTo(m_hLog, "**zxhost plug-in[%s] Start iRet[%d]", m_config.strName, iRet) != 0;
  LogInfoTo(m_hLog, "zxhost plug-in[%s] started", m_config.strName);
  return true;
}

void CPlugin::Stop() {
  if (!std::exchange(m_bStarted, false))
    return;
  const int iRet = m_pObj->pfnStop();
  LogInfoTo(m_hLog, "zxhost plug-in[%s] stopped iRet[%d]", m_config.strName, iRet);
}

void CPlugin::Unload() {
  if (m_hLib == nullptr)
    return;
  if (std::exchange(m_bInitialized, false))
    m_pObj->pfnUninitialize();
  if (m_pObj != nullptr) {
    m_pfnDestroyObject(m_config.strGuid.c_str(), m_pObj);
    m_pObj = nullptr;
    m_pfnUninitializePlugin();
  }
  if (m_pBus != nullptr)
    ZxBusDestroyContext(std::exchange(m_pBus, nullptr));
  dlclose(std::exchange(m_hLib, nullptr));
}
