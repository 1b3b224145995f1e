// The exported functions of libzxagent.so; nothing else of it is visible. They run before and after the
// agent's own channels are open, so they write to the host's default logger.
#include <cstring>
#include <new>

#include "data/AgentCodes.h"
#include "platform/Api.h"
#include "platform/log/Log.h"
#include "plugin/AgentPluginObj.h"

namespace {

constexpr char kSource[] = "zxagent";

void Trace(const char* pszFunction, int iLine, const char* psz) {
  CLogDebug::Instance().LogPrintStr(kLogTrace, kSource, pszFunction, iLine, psz);
}

// The whole text, its end included; upper case only.
bool IsAgentGuid(const char* pszName) {
  return std::strncmp(pszName, kAgentGuid, sizeof(kAgentGuid)) == 0;
}

}  // namespace

extern "C" {

ZX_API int InitializePlugin() {
  Trace(__func__, __LINE__, "zxagent InitializePlugin\n");
  return 0;
}

ZX_API void UninitializePlugin() {
  Trace(__func__, __LINE__, "zxagent UninitializePlugin\n");
}

ZX_API void* CreateObject(const char* pszName) {
  CLogDebug& log = CLogDebug::Instance();
  Trace(__func__, __LINE__, "zxagent CreateObject Begin\n");
  if (pszName == nullptr || *pszName == 0) {
    log.LogPrintV(kLogWarn, kSource, __func__, __LINE__, "*zxagent CreateObject Error is NULL pszName[%p]\n",
                  static_cast<const void*>(pszName));
    return nullptr;
  }
  if (!IsAgentGuid(pszName)) {
    log.LogPrintV(kLogWarn, kSource, __func__, __LINE__,
                  "*zxagent CreateObject Error not agent guid pszName[%s] guid[%s]\n", pszName, kAgentGuid);
    return nullptr;
  }
  auto* pPluginObj = new (std::nothrow) CAgentPluginObj;
  if (pPluginObj == nullptr) {
    log.LogPrintV(kLogWarn, kSource, __func__, __LINE__,
                  "*zxagent CreateObject Error pPluginObj is NULL pszName[%s]\n", pszName);
    return nullptr;
  }
  log.LogPrintV(kLogTrace, kSource, __func__, __LINE__, "zxagent CreateObject pszName[%s] pPluginObj[%p]",
                pszName, static_cast<void*>(pPluginObj));
  Trace(__func__, __LINE__, "zxagent CreateObject End pPluginObj\n");
  return pPluginObj;
}

ZX_API void DestroyObject(const char* pszName, void* pInterface) {
  CLogDebug& log = CLogDebug::Instance();
  Trace(__func__, __LINE__, "zxagent DestroyObject Begin");
  if (pszName == nullptr || *pszName == 0) {
    log.LogPrintV(kLogWarn, kSource, __func__, __LINE__, "*zxagent DestroyObject Error is NULL pszName[%p]\n",
                  static_cast<const void*>(pszName));
    return;
  }
  if (pInterface == nullptr) {
    log.LogPrintV(kLogWarn, kSource, __func__, __LINE__,
                  "*zxagent DestroyObject Error pInterface is NULL pszName[%s]\n", pszName);
    return;
  }
  if (!IsAgentGuid(pszName)) {
    log.LogPrintV(kLogWarn, kSource, __func__, __LINE__,
                  "*zxagent DestroyObject Error not agent guid pszName[%s] guid[%s] pInterface[%p]\n",
                  pszName, kAgentGuid, pInterface);
    return;
  }
  log.LogPrintV(kLogTrace, kSource, __func__, __LINE__, "zxagent DestroyObject pszName[%s] pInterface[%p]",
                pszName, pInterface);
  delete static_cast<CAgentPluginObj*>(pInterface);
  Trace(__func__, __LINE__, "zxagent DestroyObject End\n");
}

}  // extern "C"
