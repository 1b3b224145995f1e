// Plug-in interface between a host process and a plug-in library: four exported functions, and an object of
// eight function pointers that the host calls by position. Fixed. Nothing thrown crosses it. Calling order:
// InitializePlugin, CreateObject(guid), pfnInitialize, pfnSetCtx, pfnStart, ..., pfnStop, pfnUninitialize,
// DestroyObject(guid, object), UninitializePlugin. One host thread makes these calls.
#pragma once

#include <cstddef>
#include <cstdint>

// What zxhost passes to pfnInitialize. Another host may pass anything that is not null, so a plug-in that
// reads the record must know its host. Valid during the call. New fields go to the end; uiSize tells which
// exist.
struct CPluginInit {
  uint32_t uiSize;         // sizeof(CPluginInit) of the host
  const char* pszHome;     // home directory, ends in "/"
  const char* pszVersion;  // of the host
  const char* pszName;     // the plug-in's name in the host's configuration
};

struct CPluginObj {
  int (*pfnInitialize)(void* pInitParam);  // 0, or -1 when pInitParam is null
  void (*pfnUninitialize)();
  int (*pfnStart)();
  int (*pfnStop)();
  int (*pfnGetStatus)();  // 1 initialised, 2 started, 3 stopped, 4 uninitialised
  int (*pfnGetCtx)(void*);
  void (*pfnSetCtx)(void* pBusContext);  // an IBusContext; borrowed until pfnUninitialize returned
  int (*pfnInfo)(void*);
};
static_assert(offsetof(CPluginObj, pfnStart) == 2 * sizeof(void*));
static_assert(offsetof(CPluginObj, pfnSetCtx) == 6 * sizeof(void*));
static_assert(sizeof(CPluginObj) == 8 * sizeof(void*));

extern "C" {
using PFNInitializePlugin = int (*)();
using PFNUninitializePlugin = void (*)();
using PFNCreateObject = void* (*)(const char* pszName);
using PFNDestroyObject = void (*)(const char* pszName, void* pInterface);
}
