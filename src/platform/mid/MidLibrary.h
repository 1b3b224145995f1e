// State behind the C interface: log callback and key. Threads: any. The log callback is called without a
// lock, with the sources that were used and never with their values.
#pragma once

#include <mutex>
#include <string>

#include "platform/mid/MidDerive.h"
#include "platform/mid/zxmid.h"

class CMidLibrary {
 public:
  explicit CMidLibrary(std::string strRoot) : m_sources(std::move(strRoot)) {}

  int Init(const zxmid_settings* pSettings);
  int Param(const char* pszKey);
  // Runs one derivation into the caller's buffer. bRequired: an empty id is an error.
  int Get(const char* pszName, std::string (CMidDerive::*pfnDerive)() const, bool bRequired, char* pszBuffer,
          int iCapacity);

 private:
  void Log(int iLevel, const char* pszName, const char* pszText);

  const CMidSources m_sources;
  std::mutex m_mutex;  // guards the two below; held for copies only
  std::string m_strKey;
  void (*m_pfnLog)(int module, int level, const char* text) = nullptr;
};
