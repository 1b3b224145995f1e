// Who owns which component name on the D-Bus daemon, as the daemon tells it: the only source of a remote
// sender's GUID. The daemon announces an owner before it delivers anything that the owner sends afterwards.
// Threads: guarded by the lock of the connection that owns it.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/text/Guid.h"

class CBusOwners {
 public:
  // pszOwner: the unique name; empty: nobody.
  void Set(const GUID& guid, const char* pszOwner);
  bool Has(const GUID& guid) const { return m_byGuid.count(guid) != 0; }
  // False: the connection owns no component name, or more than one.
  bool GuidOf(const char* pszOwner, GUID& guid) const;
  std::vector<std::pair<GUID, std::string>> All() const { return {m_byGuid.begin(), m_byGuid.end()}; }
  void Clear();

 private:
  void Forget(const GUID& guid);

  std::map<GUID, std::string> m_byGuid;
  std::map<std::string, std::vector<GUID>, std::less<>> m_byOwner;
};
