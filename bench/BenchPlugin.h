// What the benchmarks' plug-ins have in common: their exports, the clock, and the folder by which they meet
// the benchmark.
#pragma once

#include <dlfcn.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

#include "platform/Api.h"
#include "platform/bus/zxbus.h"
#include "plugin/zxplugin.h"

inline uint64_t NowNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

// "run/" of the home that the plug-in stands in (<home>/lib/plugins/); empty: unknown.
inline std::string RunDir() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&RunDir), &info) == 0)
    return std::string();
  std::string strHome(info.dli_fname);
  for (int i = 0; i < 3; ++i)
    strHome.resize(strHome.rfind('/'));
  return strHome + "/run/";
}

// Start and Stop: int(); pBus: an IBusContext* that is set before Start.
#define ZX_BENCH_PLUGIN(pszGuid, pBus, Start, Stop)                                            \
  extern "C" {                                                                                 \
  ZX_API int InitializePlugin() {                                                              \
    return 0;                                                                                  \
  }                                                                                            \
  ZX_API void UninitializePlugin() {}                                                          \
  ZX_API void* CreateObject(const char* pszName) {                                             \
    if (pszName == nullptr || std::strcmp(pszName, pszGuid) != 0)                              \
      return nullptr;                                                                          \
    return new (std::nothrow) CPluginObj{[](void*) { return 0; },                              \
                                         [] {},                                                \
                                         Start,                                                \
                                         Stop,                                                 \
                                         [] { return 2; },                                     \
                                         [](void*) { return 0; },                              \
                                         [](void* p) { pBus = static_cast<IBusContext*>(p); }, \
                                         [](void*) { return 0; }};                             \
  }                                                                                            \
  ZX_API void DestroyObject(const char*, void* pInterface) {                                   \
    delete static_cast<CPluginObj*>(pInterface);                                               \
  }                                                                                            \
  }
