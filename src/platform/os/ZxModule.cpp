#include "platform/os/ZxModule.h"

#include <dlfcn.h>

#include <cerrno>
#include <cstring>

bool ZxGetModuleFilePath(const void* pAddress, char* pszBuffer, size_t uCapacity) {
  if (pszBuffer == nullptr) {
    errno = EINVAL;
    return false;
  }
  Dl_info info{};
  if (pAddress == nullptr || dladdr(pAddress, &info) == 0 || info.dli_fname == nullptr) {
    errno = ENOENT;
    return false;
  }
  const size_t uLength = std::strlen(info.dli_fname);
  if (uLength > uCapacity) {
    errno = ENAMETOOLONG;
    return false;
  }
  std::memcpy(pszBuffer, info.dli_fname, uLength + 1);
  return true;
}
