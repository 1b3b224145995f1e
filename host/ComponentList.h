// The installed components as the bus sees them: every manifest below etc/coms/client, read with care and
// judged. One that is refused never hides the others. Blocking: file reads, look-ups of users. Any thread;
// nothing here logs.
#pragma once

#include <sys/types.h>

#include <set>
#include <vector>

#include "ComponentManifest.h"

struct _ComponentEntry {
  CPString strName;  // the directory
  _ComponentManifest manifest;
  uid_t uid = 0;          // that it runs as; only when accepted
  CPString strRefused;    // why it has no rights on the bus; empty: accepted
  bool bWarning = false;  // strRefused is something that an administrator should look at
};

// How the manifests are judged.
struct _ComponentRules {
  bool bTrustedOnly = false;  // what anybody but root could have written does not count
  bool bOneUser = false;      // every component is uidHost, whatever its manifest says
  uid_t uidHost = 0;
  std::set<GUID> inProcess;  // served by plug-ins of the host, never by another process
  bool (*pfnUser)(const CPString& strUser, uid_t& uid, gid_t& gid) = nullptr;  // null: FindSystemUser
  size_t uMaxEntries = 4096;
};

struct _ComponentList {
  std::vector<_ComponentEntry> entries;  // in name order; everything that has a manifest file
  CPString strError;                     // the directory itself could not be used; empty: read
};

// strHome ends in "/".
_ComponentList ReadComponents(const CPString& strHome, const _ComponentRules& rules);
