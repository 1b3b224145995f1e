#include "support/PrivateRoot.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

// What name lookups, clocks and certificates of a test process read.
constexpr const char* kKept[] = {"os-release",    "passwd",    "group",       "hosts",
                                 "nsswitch.conf", "localtime", "resolv.conf", "machine-id",
                                 "ld.so.cache",   "services",  "timezone"};
constexpr char kLegacy[] = "/var/zxcwpp";
bool s_bPrivate = false;

bool WriteText(const char* pszFile, const std::string& strText) {
  std::ofstream file(pszFile);
  file << strText;
  return static_cast<bool>(file.flush());
}

bool EnterNamespace() {
  if (geteuid() == 0)
    return unshare(CLONE_NEWNS) == 0;
  const std::string strUid = std::to_string(geteuid());
  const std::string strGid = std::to_string(getegid());
  return unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && WriteText("/proc/self/setgroups", "deny") &&
         WriteText("/proc/self/uid_map", strUid + " " + strUid + " 1") &&
         WriteText("/proc/self/gid_map", strGid + " " + strGid + " 1");
}

bool PrivateEtc() {
  namespace fs = std::filesystem;
  char szDir[] = "/tmp/zxetcXXXXXX";
  if (mkdtemp(szDir) == nullptr)
    return false;
  std::error_code error;
  bool bDone = mount("none", szDir, "tmpfs", MS_NOSUID | MS_NODEV, "size=8m,mode=755") == 0;
  if (bDone) {
    for (const char* pszName : kKept)
      fs::copy(std::string("/etc/") + pszName, std::string(szDir) + "/" + pszName,
               fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
    bDone = mount(szDir, "/etc", nullptr, MS_BIND, nullptr) == 0;
    umount2(szDir, MNT_DETACH);
  }
  rmdir(szDir);
  return bDone;
}

}  // namespace

void ClearPrivateMid() {
  if (s_bPrivate)
    (void)std::remove("/etc/.mid");
}

bool EnterPrivateRoot() {
  if (!EnterNamespace() || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return false;
  if (access(kLegacy, F_OK) == 0 && mount("none", kLegacy, "tmpfs", MS_NOSUID | MS_NODEV, "size=1m") != 0)
    return false;
  s_bPrivate = PrivateEtc();
  return s_bPrivate;
}
