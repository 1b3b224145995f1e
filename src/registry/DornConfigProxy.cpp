#include "registry/DornConfigProxy.h"

#include <dlfcn.h>
#include <pthread.h>

#include <cstdio>
#include <new>

#include "platform/os/ZxNoCancel.h"

namespace {

constexpr char kLibraryFile[] = "lib/modules/libconfigproxy.so";
constexpr char kInterfaceVersion[] = "1.0.0";

// Plain data, so that the library has no static destructor and a reload starts afresh.
constinit pthread_mutex_t g_mutexInstance = PTHREAD_MUTEX_INITIALIZER;
constinit std::shared_ptr<CDornConfigProxy>* g_pInstance = nullptr;

class CInstanceLock {
 public:
  CInstanceLock() { pthread_mutex_lock(&g_mutexInstance); }
  ~CInstanceLock() { pthread_mutex_unlock(&g_mutexInstance); }
  CInstanceLock(const CInstanceLock&) = delete;
  CInstanceLock& operator=(const CInstanceLock&) = delete;
};

CPString LoaderError() {
  const char* pszError = dlerror();  // NOLINT(concurrency-mt-unsafe) per thread in this C library
  return pszError != nullptr ? pszError : "unknown";
}

}  // namespace

std::shared_ptr<CConfigProxyLib> CConfigProxyLib::Load(const CPString& strFile, CPString& strError) {
  std::shared_ptr<CConfigProxyLib> pLib(new CConfigProxyLib);
  pLib->m_hLib = dlopen(strFile.c_str(), RTLD_LAZY | RTLD_LOCAL);
  if (pLib->m_hLib == nullptr) {
    strError = LoaderError();
    std::printf("[loadLib] laod err: %s\n", strError.c_str());
    return nullptr;
  }
  const auto pfnCreate = reinterpret_cast<PFNCFGCreateInstance>(dlsym(pLib->m_hLib, "CFGCreateInstance"));
  if (pfnCreate == nullptr) {
    strError = "CFGCreateInstance is missing";
    std::printf("[loadLib]:get  PFNCFGCreateInstance fail.\n");
    return nullptr;
  }
  pLib->m_pfnRelease = reinterpret_cast<PFNCFGRelease>(dlsym(pLib->m_hLib, "CFGRelease"));
  pLib->m_CfgImpl = pfnCreate(kInterfaceVersion);
  if (pLib->m_CfgImpl == nullptr) {
    strError = "CFGCreateInstance gave no object";
    std::printf("[loadLib]:get  m_CfgImpl fail.\n");
    return nullptr;
  }
  return pLib;
}

CConfigProxyLib::~CConfigProxyLib() {
  const CNoCancel noCancel;
  if (m_CfgImpl != nullptr && m_pfnRelease != nullptr)
    m_pfnRelease(m_CfgImpl);
  if (m_hLib != nullptr)
    dlclose(m_hLib);
}

void CConfigProxyLoader::Open(const CPString& strHomePath) {
  std::shared_ptr<CConfigProxyLib> pOld;  // given back behind the lock
  const CCritLock lock(m_cs);
  if (strHomePath != m_strHomePath)
    pOld.swap(m_pLib);
  m_strHomePath = strHomePath;
}

void CConfigProxyLoader::Close() {
  Open(CPString());
}

std::shared_ptr<CConfigProxyLib> CConfigProxyLoader::Get(CPString& strError) {
  CPString strHomePath;
  {
    const CCritLock lock(m_cs);
    if (m_pLib != nullptr)
      return m_pLib;
    strHomePath = m_strHomePath;
  }
  if (strHomePath.IsEmpty()) {
    strError = "not initialised";
    return nullptr;
  }
  std::shared_ptr<CConfigProxyLib> pLib = CConfigProxyLib::Load(strHomePath + kLibraryFile, strError);
  if (pLib == nullptr)
    return nullptr;
  // Somebody else may have loaded it, or closed the loader, meanwhile.
  const CCritLock lock(m_cs);
  if (m_pLib != nullptr)
    return m_pLib;
  if (m_strHomePath == strHomePath)
    m_pLib = pLib;
  return pLib;
}

int CDornConfigProxyPrivate::SetConfigEx(const char* pszKey, CConfigValue* pIn, CConfigValue* pOut,
                                         unsigned int uFlags) {
  const CNoCancel noCancel;
  CPString strError;
  const std::shared_ptr<CConfigProxyLib> pLib = m_loader.Get(strError);
  return pLib != nullptr ? pLib->Impl()->SetConfigEx(pszKey, pIn, pOut, uFlags) : kCfgNotLoaded;
}

std::shared_ptr<CDornConfigProxy> CDornConfigProxy::Create() {
  const CInstanceLock lock;
  if (g_pInstance == nullptr) {
    const std::shared_ptr<CDornConfigProxy> pProxy(new (std::nothrow) CDornConfigProxy);
    if (pProxy == nullptr)
      return nullptr;
    g_pInstance = new std::shared_ptr<CDornConfigProxy>(pProxy);
  }
  return *g_pInstance;
}

std::shared_ptr<CDornConfigProxy> CDornConfigProxy::Instance() {
  const CInstanceLock lock;
  return g_pInstance != nullptr ? *g_pInstance : nullptr;
}

bool CDornConfigProxy::Destroy() {
  std::shared_ptr<CDornConfigProxy>* pOld = nullptr;
  {
    const CInstanceLock lock;
    pOld = g_pInstance;
    g_pInstance = nullptr;
  }
  if (pOld == nullptr)
    return false;
  (*pOld)->m_loader.Close();
  delete pOld;
  return true;
}

int CDornConfigProxy::Init(const CPString& strHomePath, CPString& strError) {
  const CNoCancel noCancel;
  m_loader.Open(strHomePath);
  return m_loader.Get(strError) != nullptr ? kCfgOk : kCfgNotLoaded;
}

int CDornConfigProxy::GetConfig(int iItem, CConfigValue* pOut, CConfigValue* pIn, unsigned int uFlags) {
  const CNoCancel noCancel;
  CPString strError;
  const std::shared_ptr<CConfigProxyLib> pLib = m_loader.Get(strError);
  return pLib != nullptr ? pLib->Impl()->GetConfig(iItem, pOut, pIn, uFlags) : kCfgNotLoaded;
}
