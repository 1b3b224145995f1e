// The agent's handle on the deployment's configuration service: lib/modules/libconfigproxy.so under the home,
// loaded at run time on first need.
//
// Threads: any thread may call anything. Whoever is inside a call keeps the library loaded: a Destroy
// meanwhile takes effect when the last call has returned. Calls into the library run without a lock and hold
// back thread cancellation, since foreign frames must not be unwound. Blocks while the library loads or
// reads. Loading failures are printed on standard output under "[loadLib]"; nothing here writes to a log.
#pragma once

#include <memory>

#include "platform/configproxy/zxconfigproxy.h"
#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"
#include "platform/text/PString.h"

inline constexpr int kCfgNotLoaded = 13;  // the result of every operation without a library

// The loaded library with its implementation object; gives both back when it goes.
class CConfigProxyLib {
 public:
  // Null with the reason in strError.
  static std::shared_ptr<CConfigProxyLib> Load(const CPString& strFile, CPString& strError);
  ~CConfigProxyLib();
  CConfigProxyLib(const CConfigProxyLib&) = delete;
  CConfigProxyLib& operator=(const CConfigProxyLib&) = delete;

  IConfigProxy* Impl() { return m_CfgImpl; }

 private:
  CConfigProxyLib() = default;

  void* m_hLib = nullptr;
  IConfigProxy* m_CfgImpl = nullptr;
  PFNCFGRelease m_pfnRelease = nullptr;
};

// Loads on first need, once for everybody who shares the loader.
class CConfigProxyLoader {
 public:
  void Open(const CPString& strHomePath) TS_EXCLUDES(m_cs);
  // Drops the library and forgets the home: nothing is loaded until the next Open.
  void Close() TS_EXCLUDES(m_cs);
  std::shared_ptr<CConfigProxyLib> Get(CPString& strError) TS_EXCLUDES(m_cs);

 private:
  CCritSec m_cs;
  CPString m_strHomePath TS_GUARDED_BY(m_cs);
  std::shared_ptr<CConfigProxyLib> m_pLib TS_GUARDED_BY(m_cs);
};

// The writing side. Results are the library's, kCfgOk = done.
class CDornConfigProxyPrivate {
 public:
  explicit CDornConfigProxyPrivate(CConfigProxyLoader& loader) : m_loader(loader) {}
  int SetConfigEx(const char* pszKey, CConfigValue* pIn, CConfigValue* pOut, unsigned int uFlags);

 private:
  CConfigProxyLoader& m_loader;
};

// The process-wide handle.
class CDornConfigProxy {
 public:
  static constexpr char kClassId[] = "29562e31-2c2b-4fb2-9108-144d91a56755";

  // Created on first use; null when memory is out.
  static std::shared_ptr<CDornConfigProxy> Create();
  // Null before Create and after Destroy.
  static std::shared_ptr<CDornConfigProxy> Instance();
  // False when there is none.
  static bool Destroy();

  // kCfgOk, or kCfgNotLoaded with the reason; the home is kept in both cases and loading is tried again.
  int Init(const CPString& strHomePath, CPString& strError);
  int GetConfig(int iItem, CConfigValue* pOut, CConfigValue* pIn, unsigned int uFlags);
  CDornConfigProxyPrivate& Private() { return m_private; }

 private:
  CDornConfigProxy() : m_private(m_loader) {}

  CConfigProxyLoader m_loader;
  CDornConfigProxyPrivate m_private;
};
