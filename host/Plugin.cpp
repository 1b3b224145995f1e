#include "Plugin.h"

#include <dlfcn.h>

#include <exception>
#include <utility>

#include "HostLog.h"

namespace {

template <class T>
bool Find(void* hLibrary, const char* pszName, T& pfn) {
  pfn = reinterpret_cast<T>(dlsym(hLibrary, pszName));
  return pfn != nullptr;
}

}  // namespace

void CStepNote::Set(const CPString& strPlugin, const char* pszStep) {
  const CPString strText = pszStep != nullptr ? strPlugin + " " + pszStep : CPString();
  CCritLock lock(m_cs);
  m_strText = strText;
}

CPString CStepNote::Text() {
  CCritLock lock(m_cs);
  return m_strText;
}

CPlugin::CPlugin(_PluginEntry entry, CPString strHome, CStepNote& note)
    : m_entry(std::move(entry)), m_strHome(std::move(strHome)), m_note(note) {}

CPlugin::~CPlugin() {
  Stop();
  Unload();
}

template <class F>
bool CPlugin::Call(const char* pszStep, F&& call) {
  m_note.Set(m_entry.strName, pszStep);
  int iResult = -1;
  try {
    iResult = call();
  } catch (const std::exception& e) {
    LogErrorTo(g_hHostLog, "**zxhost plugin[%s] step[%s] threw what[%s]", m_entry.strName, pszStep, e.what());
  }
  m_note.Set(m_entry.strName, nullptr);
  if (iResult != 0)
    LogErrorTo(g_hHostLog, "**zxhost plugin[%s] step[%s] failed iResult[%d]", m_entry.strName, pszStep,
               iResult);
  return iResult == 0;
}

bool CPlugin::Resolve() {
  m_note.Set(m_entry.strName, "dlopen");
  m_hLibrary = dlopen(m_entry.strPath.c_str(), RTLD_NOW | RTLD_LOCAL);
  m_note.Set(m_entry.strName, nullptr);
  if (m_hLibrary == nullptr) {
    const char* pszError = dlerror();  // NOLINT(concurrency-mt-unsafe) glibc keeps it per thread
    return LogErrorTo(g_hHostLog, "**zxhost plugin[%s] cannot be loaded path[%s] error[%s]", m_entry.strName,
                      m_entry.strPath, pszError) != 0;
  }
  if (Find(m_hLibrary, "InitializePlugin", m_pfnInitialize) &&
      Find(m_hLibrary, "UninitializePlugin", m_pfnUninitialize) &&
      Find(m_hLibrary, "CreateObject", m_pfnCreate) && Find(m_hLibrary, "DestroyObject", m_pfnDestroy))
    return true;
  return LogErrorTo(g_hHostLog, "**zxhost plugin[%s] is no plug-in: an export is missing path[%s]",
                    m_entry.strName, m_entry.strPath) != 0;
}

bool CPlugin::Create() {
  const bool bCreated = Call("CreateObject", [this] {
    m_pObject = static_cast<CPluginObj*>(m_pfnCreate(m_entry.strGuid.c_str()));
    return m_pObject != nullptr ? 0 : -1;
  });
  if (!bCreated)
    return false;
  const bool bComplete = m_pObject->pfnInitialize != nullptr && m_pObject->pfnUninitialize != nullptr &&
                         m_pObject->pfnStart != nullptr && m_pObject->pfnStop != nullptr &&
                         m_pObject->pfnGetStatus != nullptr && m_pObject->pfnSetCtx != nullptr;
  if (!bComplete)
    LogErrorTo(g_hHostLog, "**zxhost plugin[%s] object has an empty slot", m_entry.strName);
  return bComplete;
}

bool CPlugin::Load() {
  const auto fail = [this] {
    Unload();
    return false;
  };
  if (!Resolve())
    return fail();
  m_bLibraryUp = true;
  if (!Call("InitializePlugin", [this] { return m_pfnInitialize(); }) || !Create())
    return fail();
  CPluginInit init{sizeof(CPluginInit), m_strHome.c_str(), ZX_VERSION, m_entry.strName.c_str()};
  m_bObjectUp = true;
  if (!Call("Initialize", [&] { return m_pObject->pfnInitialize(&init); }))
    return fail();
  ZxBusSettings settings;
  settings.uiDispatchers = m_entry.uiDispatchers;
  m_pBus = ZxBusCreateContextWith(&settings);
  if (m_pBus == nullptr) {
    LogErrorTo(g_hHostLog, "**zxhost plugin[%s] no bus context", m_entry.strName);
    return fail();
  }
  const bool bSet = Call("SetCtx", [this] {
    m_pObject->pfnSetCtx(m_pBus);
    return 0;
  });
  return bSet || fail();
}

bool CPlugin::Start() {
  m_bStarted = Call("Start", [this] { return m_pObject->pfnStart(); });
  if (m_bStarted)
    LogInfoTo(g_hHostLog, "zxhost plugin[%s] started path[%s]", m_entry.strName, m_entry.strPath);
  else
    Unload();
  return m_bStarted;
}

void CPlugin::Stop() {
  if (!std::exchange(m_bStarted, false))
    return;
  if (Call("Stop", [this] { return m_pObject->pfnStop(); }))
    LogInfoTo(g_hHostLog, "zxhost plugin[%s] stopped", m_entry.strName);
}

void CPlugin::Unload() {
  const auto call = [this](const char* pszStep, auto&& fn) {
    Call(pszStep, [&] {
      fn();
      return 0;
    });
  };
  if (std::exchange(m_bObjectUp, false))
    call("Uninitialize", [this] { m_pObject->pfnUninitialize(); });
  // Behind Uninitialize: until then the context is the plug-in's. Waits for its callbacks.
  if (m_pBus != nullptr)
    call("bus context", [this] { ZxBusDestroyContext(std::exchange(m_pBus, nullptr)); });
  if (m_pObject != nullptr)
    call("DestroyObject",
         [this] { m_pfnDestroy(m_entry.strGuid.c_str(), std::exchange(m_pObject, nullptr)); });
  if (std::exchange(m_bLibraryUp, false))
    call("UninitializePlugin", [this] { m_pfnUninitialize(); });
  if (m_hLibrary != nullptr)
    call("dlclose", [this] { dlclose(std::exchange(m_hLibrary, nullptr)); });
}

int CPlugin::Status() {
  int iStatus = -1;
  Call("GetStatus", [&] {
    iStatus = m_pObject->pfnGetStatus();
    return 0;
  });
  return iStatus;
}
