// Configuration proxy: interface of lib/modules/libconfigproxy.so, fixed. Called by slot. GetConfig and
// SetConfigEx return kCfgOk on success, another value otherwise; pOut is written on success only. Threads:
// one instance may be used from any thread.
#pragma once

#include <cstdint>

// iTag kCfgTagText: pData is malloc'd, NUL-terminated text; the holder releases it with free().
struct CConfigValue {
  int32_t iTag = 0;
  void* pData = nullptr;
};
inline constexpr int32_t kCfgTagText = 4;

inline constexpr int kCfgOk = 2;
inline constexpr int kCfgErrArgument = 3;
inline constexpr int kCfgErrItem = 4;  // no such item or key, or it cannot be written
inline constexpr int kCfgErrInternal = 5;

// The installed plug-ins as {"list":[{"id","product","combo","status"}]}.
inline constexpr int kCfgItemPlugins = 5;

class IConfigProxy {
 public:
  virtual int GetConfig(int iItem, CConfigValue* pOut, CConfigValue* pIn, unsigned uFlags) = 0;
  virtual int SetConfigEx(const char* pszKey, CConfigValue* pIn, CConfigValue* pOut, unsigned uFlags) = 0;

 protected:
  ~IConfigProxy() = default;
};

extern "C" {
using PFNCFGCreateInstance = IConfigProxy* (*)(const char* pszVersion);  // "1.0.0"; null for another version
using PFNCFGRelease = void (*)(IConfigProxy* pObject);
}
