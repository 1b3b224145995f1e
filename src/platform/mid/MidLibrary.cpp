#include "platform/mid/MidLibrary.h"

#include <cstring>
#include <exception>

namespace {

constexpr int kModule = 1;  // the only module of this library
constexpr int kLevelInfo = 2;
constexpr int kLevelError = 4;
constexpr size_t kKeyMaxBytes = 4096;

}  // namespace

int CMidLibrary::Init(const zxmid_settings* pSettings) {
  if (pSettings == nullptr)
    return kMidErrArgument;
  const std::lock_guard lock(m_mutex);
  m_pfnLog = pSettings->log;
  return kMidOk;
}

int CMidLibrary::Param(const char* pszKey) {
  if (pszKey == nullptr || strnlen(pszKey, kKeyMaxBytes + 1) > kKeyMaxBytes)
    return kMidErrArgument;
  const std::lock_guard lock(m_mutex);
  m_strKey = pszKey;
  return kMidOk;
}

void CMidLibrary::Log(int iLevel, const char* pszName, const char* pszText) {
  void (*pfnLog)(int, int, const char*) = nullptr;
  {
    const std::lock_guard lock(m_mutex);
    pfnLog = m_pfnLog;
  }
  if (pfnLog != nullptr)
    pfnLog(kModule, iLevel, (std::string("zxmid ") + pszName + " " + pszText).c_str());
}

int CMidLibrary::Get(const char* pszName, std::string (CMidDerive::*pfnDerive)() const, bool bRequired,
                     char* pszBuffer, int iCapacity) {
  if (pszBuffer == nullptr || iCapacity < 0)
    return kMidErrArgument;
  std::string strKey;
  {
    const std::lock_guard lock(m_mutex);
    strKey = m_strKey;
  }
  const std::string strId = (CMidDerive(m_sources, std::move(strKey)).*pfnDerive)();
  if (strId.empty()) {
    pszBuffer[0] = '\0';
    Log(bRequired ? kLevelError : kLevelInfo, pszName, "no source on this machine");
    return bRequired ? kMidErrNoSource : kMidOk;
  }
  if (strId.size() > static_cast<size_t>(iCapacity)) {
    pszBuffer[0] = '\0';
    Log(kLevelError, pszName, "buffer too small");
    return kMidErrBuffer;
  }
  std::memcpy(pszBuffer, strId.c_str(), strId.size() + 1);
  Log(kLevelInfo, pszName, "ok");
  return kMidOk;
}
