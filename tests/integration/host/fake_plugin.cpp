// A plug-in that records every call into <home>/calls.log, one line "name call", and misbehaves as the GUID
// that it is created with says. Copied under several names, so that each copy has statics of its own.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

#include "platform/Api.h"
#include "platform/bus/zxbus.h"
#include "plugin/zxplugin.h"

namespace {

std::string g_strBehaviour;
IBusContext* g_pBus = nullptr;
int g_iStatus = 0;

std::string OwnPath() {
  Dl_info info{};
  (void)dladdr(&g_iStatus, &info);
  return info.dli_fname;
}

void Record(const std::string& strCall) {
  const std::string strPath = OwnPath();  // <home>/lib/plugins/<name>.so
  const size_t uName = strPath.rfind('/') + 1;
  const std::string strName = strPath.substr(uName, strPath.size() - uName - 3);
  const std::string strLine = strName + " " + strCall + "\n";
  std::string strHome = strPath;
  for (int i = 0; i < 3; ++i)
    strHome.resize(strHome.rfind('/'));
  const int iFd = open((strHome + "/calls.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  (void)!write(iFd, strLine.data(), strLine.size());
  close(iFd);
}

int Act(const char* pszCall) {
  Record(pszCall);
  if (g_strBehaviour == std::string("hang-") + pszCall) {
    for (;;)
      pause();
  }
  if (g_strBehaviour == std::string("throw-") + pszCall)
    throw std::runtime_error("fake");
  if (g_strBehaviour == std::string("crash-") + pszCall)
    std::abort();
  return g_strBehaviour == std::string("fail-") + pszCall ? -7 : 0;
}

int Initialize(void* pInitParam) {
  const auto* pInit = static_cast<const CPluginInit*>(pInitParam);
  if (pInit == nullptr || pInit->uiSize != sizeof(CPluginInit))
    return -1;
  Record(std::string("home=") + pInit->pszHome + " name=" + pInit->pszName + " version=" + pInit->pszVersion);
  g_iStatus = 1;
  return Act("Initialize");
}
void Uninitialize() {
  g_iStatus = 4;
  Act("Uninitialize");
}
int Start() {
  g_iStatus = 2;
  const GUID guid(g_strBehaviour == "crowd" ? "00000001-0000-0000-0000-000000000001" : "");
  if (g_strBehaviour == "crowd" && g_pBus->Initialize(&guid) != 0)
    return -1;
  return Act("Start");
}
int Stop() {
  g_iStatus = 3;
  return Act("Stop");
}
int GetStatus() {
  Act("GetStatus");
  return g_iStatus;
}
int GetCtx(void*) {
  return 0;
}
void SetCtx(void* pBusContext) {
  g_pBus = static_cast<IBusContext*>(pBusContext);
  Act(pBusContext != nullptr ? "SetCtx" : "SetCtx-null");
}
int Info(void*) {
  return 0;
}

}  // namespace

extern "C" {
ZX_API int InitializePlugin() {
  return Act("InitializePlugin");
}
ZX_API void UninitializePlugin() {
  Act("UninitializePlugin");
}
ZX_API void* CreateObject(const char* pszName) {
  g_strBehaviour = pszName;
  Record("CreateObject");
  if (g_strBehaviour == "no-object")
    return nullptr;
  auto* pObject = new (std::nothrow)
      CPluginObj{&Initialize, &Uninitialize, &Start, &Stop, &GetStatus, &GetCtx, &SetCtx, &Info};
  if (g_strBehaviour == "empty-slot" && pObject != nullptr)
    pObject->pfnStart = nullptr;
  return pObject;
}
ZX_API void DestroyObject(const char*, void* pInterface) {
  Record("DestroyObject");
  delete static_cast<CPluginObj*>(pInterface);
}
}
