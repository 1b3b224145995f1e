#include "support/PrivateMachine.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

bool Fail(const char* pszStep, std::string& strWhy) {
  strWhy = std::string(pszStep) + ": " + std::strerror(errno);
  return false;
}

}  // namespace

bool EnterPrivateMachine(std::string& strWhy) {
  // Without root only in a user namespace, which a process with threads may not enter.
  const int iFlags = geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER;
  if (unshare(iFlags) != 0)
    return Fail("unshare", strWhy);
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return Fail("mount /", strWhy);
  for (const char* pszDir : {"/etc", "/var"}) {
    if (mount("tmpfs", pszDir, "tmpfs", MS_NOSUID | MS_NODEV, "size=16m") != 0)
      return Fail(pszDir, strWhy);
  }
  return true;
}
