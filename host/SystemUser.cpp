#include "SystemUser.h"

#include <pwd.h>

#include <string>

bool FindSystemUser(const CPString& strUser, uid_t& uid, gid_t& gid) {
  constexpr size_t kEntryBytes = 16384;
  passwd entry{};
  passwd* pEntry = nullptr;
  std::string strBuffer(kEntryBytes, '\0');
  if (getpwnam_r(strUser.c_str(), &entry, strBuffer.data(), strBuffer.size(), &pEntry) != 0 ||
      pEntry == nullptr)
    return false;
  uid = entry.pw_uid;
  gid = entry.pw_gid;
  return true;
}
