#include "ComponentList.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <utility>

#include "SystemUser.h"

namespace {

class CFd {
 public:
  explicit CFd(int iFd) : m_iFd(iFd) {}
  ~CFd() {
    if (m_iFd >= 0)
      close(m_iFd);
  }
  CFd(const CFd&) = delete;
  CFd& operator=(const CFd&) = delete;
  int Get() const { return m_iFd; }
  int Release() { return std::exchange(m_iFd, -1); }

 private:
  int m_iFd;
};

CPString ErrnoText(const char* pszWhat) {
  return CPString(pszWhat) + ": " + std::strerror(errno);  // NOLINT(concurrency-mt-unsafe)
}

// Whoever may write here decides who a component is, so only root may.
CPString WhyNotTrusted(const struct stat& st, const char* pszWhat) {
  if (st.st_uid != 0)
    return CPString(pszWhat) + " does not belong to root";
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    return CPString(pszWhat) + " can be written by others";
  return "";
}

// An open directory that may be trusted, or -1 with the reason (and errno).
int OpenDirectory(int iParent, const char* pszName, const char* pszWhat, bool bTrustedOnly,
                  CPString& strError) {
  CFd fd(openat(iParent, pszName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat st {};
  if (fd.Get() < 0 || fstat(fd.Get(), &st) != 0) {
    strError = ErrnoText(pszWhat);
    return -1;
  }
  strError = bTrustedOnly ? WhyNotTrusted(st, pszWhat) : CPString();
  errno = EPERM;
  return strError.IsEmpty() ? fd.Release() : -1;
}

bool ReadFileAt(int iDirectory, bool bTrustedOnly, std::string& strText, CPString& strError) {
  // Non-blocking: a pipe in the file's place must not hold the host.
  const CFd fd(openat(iDirectory, "config.json", O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat st {};
  if (fd.Get() < 0 || fstat(fd.Get(), &st) != 0) {
    strError = errno == ELOOP ? CPString("the manifest is a link") : ErrnoText("the manifest");
    return false;
  }
  if (!S_ISREG(st.st_mode))
    strError = "the manifest is no file";
  else if (static_cast<uint64_t>(st.st_size) > kManifestMaxBytes)
    strError = "the manifest is too long";
  else if (bTrustedOnly)
    strError = WhyNotTrusted(st, "the manifest");
  if (!strError.IsEmpty())
    return false;
  strText.resize(static_cast<size_t>(st.st_size) + 1);
  size_t uLength = 0;
  ssize_t iRead = 0;
  while (uLength < strText.size() &&
         (iRead = read(fd.Get(), strText.data() + uLength, strText.size() - uLength)) > 0)
    uLength += static_cast<size_t>(iRead);
  if (iRead < 0)
    strError = ErrnoText("the manifest");
  else if (uLength == strText.size())
    strError = "the manifest grew while it was read";  // and is looked at again
  strText.resize(uLength);
  return strError.IsEmpty();
}

// For logs and answers: a directory's name may hold any byte but "/".
CPString Printable(std::string strName) {
  for (char& ch : strName) {
    if (ch <= ' ' || ch > '~' || ch == '"' || ch == '\\')
      ch = '?';
  }
  return strName;
}

std::vector<std::string> NamesIn(int iDirectory, size_t uMax, CPString& strError) {
  std::vector<std::string> names;
  const int iCopy = fcntl(iDirectory, F_DUPFD_CLOEXEC, 0);
  DIR* pDir = iCopy >= 0 ? fdopendir(iCopy) : nullptr;
  if (pDir == nullptr) {
    strError = ErrnoText("etc/coms/client");
    if (iCopy >= 0)
      close(iCopy);
    return names;
  }
  while (const dirent* pEntry = readdir(pDir)) {  // NOLINT(concurrency-mt-unsafe) the stream is ours
    if (pEntry->d_name[0] != '.')
      names.emplace_back(pEntry->d_name);
  }
  closedir(pDir);
  std::sort(names.begin(), names.end());
  if (names.size() > uMax) {
    names.resize(uMax);
    strError = "etc/coms/client: too many components, the rest is left out";
  }
  return names;
}

// False: not a component's directory at all.
bool ReadEntry(int iClient, const std::string& strName, const _ComponentRules& rules,
               _ComponentEntry& entry) {
  struct stat st {};
  if (fstatat(iClient, strName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
      (!S_ISDIR(st.st_mode) && !S_ISLNK(st.st_mode)))
    return false;
  entry.strName = Printable(strName);
  if (S_ISLNK(st.st_mode)) {
    entry.strRefused = "its directory is a link";
    entry.bWarning = true;
    return true;
  }
  const CFd dir(
      OpenDirectory(iClient, strName.c_str(), "its directory", rules.bTrustedOnly, entry.strRefused));
  if (dir.Get() >= 0 && fstatat(dir.Get(), "config.json", &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT)
    return false;
  std::string strText;
  if (dir.Get() < 0 || !ReadFileAt(dir.Get(), rules.bTrustedOnly, strText, entry.strRefused) ||
      !ParseManifest(strText, entry.manifest, entry.strRefused)) {
    entry.bWarning = true;
    return true;
  }
  if (!entry.manifest.bExternal)
    entry.strRefused = "no process of its own";
  return true;
}

void Refuse(_ComponentEntry& entry, CPString strWhy) {
  entry.strRefused = std::move(strWhy);
  entry.bWarning = true;
}

void CheckIdentity(_ComponentEntry& entry, const _ComponentRules& rules) {
  for (const GUID& guid : entry.manifest.guids) {
    if (rules.inProcess.count(guid) != 0)
      return Refuse(entry, "GUID " + guid.ToUpper() + " is served by a plug-in of the host");
  }
  if (rules.bOneUser) {  // everything is the host's user then
    entry.uid = rules.uidHost;
    return;
  }
  gid_t gid = 0;
  if (!(rules.pfnUser != nullptr ? rules.pfnUser : &FindSystemUser)(entry.manifest.strUser, entry.uid, gid))
    Refuse(entry, "user " + entry.manifest.strUser + " does not exist");
}

// Two manifests with one GUID: nobody can tell which is meant, so neither gets it.
void CheckRepeats(std::vector<_ComponentEntry>& entries) {
  std::map<GUID, std::vector<_ComponentEntry*>> owners;
  for (_ComponentEntry& entry : entries) {
    if (!entry.strRefused.IsEmpty())
      continue;
    for (const GUID& guid : entry.manifest.guids)
      owners[guid].push_back(&entry);
  }
  for (const auto& [guid, list] : owners) {
    if (list.size() < 2)
      continue;
    for (_ComponentEntry* pEntry : list) {
      const _ComponentEntry* pOther = pEntry == list.front() ? list.back() : list.front();
      Refuse(*pEntry, "GUID " + guid.ToUpper() + " is claimed by " + pOther->strName + " as well");
    }
  }
}

}  // namespace

_ComponentList ReadComponents(const CPString& strHome, const _ComponentRules& rules) {
  _ComponentList list;
  const CFd client(OpenDirectory(AT_FDCWD, (strHome + "etc/coms/client").c_str(), "etc/coms/client",
                                 rules.bTrustedOnly, list.strError));
  if (client.Get() < 0) {
    if (errno == ENOENT)
      list.strError.Empty();  // nothing installed
    return list;
  }
  for (const std::string& strName : NamesIn(client.Get(), rules.uMaxEntries, list.strError)) {
    _ComponentEntry entry;
    if (!ReadEntry(client.Get(), strName, rules, entry))
      continue;
    if (entry.strRefused.IsEmpty())
      CheckIdentity(entry, rules);
    list.entries.push_back(std::move(entry));
  }
  CheckRepeats(list.entries);
  return list;
}
