#include "FileFaults.h"

#include <cjson/cJSON.h>
#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>

#include "platform/Api.h"

namespace {

std::mutex s_mutex;
std::string s_strTarget;
int s_iError = 0;
int s_iCount = 0;

int RenameError(const char* pszDst) {
  const std::lock_guard<std::mutex> lock(s_mutex);
  if (s_iCount <= 0 || s_strTarget != pszDst)
    return 0;
  --s_iCount;
  return s_iError;
}

std::atomic<long> s_lAllowed{0};
std::atomic<bool> s_bHit{false};

void* LimitedMalloc(size_t uSize) {
  if (s_lAllowed.fetch_sub(1) > 0)
    return std::malloc(uSize);
  s_bHit = true;
  return nullptr;
}

}  // namespace

// Stands in front of the C library's for the whole process.
extern "C" ZX_API int rename(const char* pszSrc, const char* pszDst) noexcept {
  const int iError = RenameError(pszDst);
  if (iError != 0) {
    errno = iError;
    return -1;
  }
  using PFN = int (*)(const char*, const char*);
  static const PFN pfnRename = reinterpret_cast<PFN>(dlsym(RTLD_NEXT, "rename"));
  return pfnRename(pszSrc, pszDst);
}

CRenameFault::CRenameFault(const std::string& strTarget, int iError, int iCount) {
  const std::lock_guard<std::mutex> lock(s_mutex);
  s_strTarget = strTarget;
  s_iError = iError;
  s_iCount = iCount;
}

CRenameFault::~CRenameFault() {
  const std::lock_guard<std::mutex> lock(s_mutex);
  s_iCount = 0;
}

CJsonMemoryFault::CJsonMemoryFault(unsigned int uAllowed) {
  s_lAllowed = uAllowed;
  s_bHit = false;
  cJSON_Hooks hooks = {&LimitedMalloc, &std::free};
  cJSON_InitHooks(&hooks);
}

CJsonMemoryFault::~CJsonMemoryFault() {
  cJSON_InitHooks(nullptr);
}

bool CJsonMemoryFault::Hit() const {
  return s_bHit;
}
