// Routing table of the process: which endpoint answers for which GUID.
// Threads: any. The lock is held for the lookup only, never while anything is delivered.
#pragma once

#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "platform/os/ZxCritSec.h"
#include "platform/text/Guid.h"

class CBusEndpoint;

class CBusRouter {
 public:
  static CBusRouter& Instance();  // never destroyed: contexts may outlive the statics

  bool Add(const GUID& guid, std::shared_ptr<CBusEndpoint> pEndpoint) TS_EXCLUDES(m_cs);  // false: taken
  void Remove(const GUID& guid) TS_EXCLUDES(m_cs);
  std::shared_ptr<CBusEndpoint> Find(const GUID& guid) TS_EXCLUDES(m_cs);
  std::vector<std::shared_ptr<CBusEndpoint>> AllBut(const CBusEndpoint* pEndpoint) TS_EXCLUDES(m_cs);
  std::vector<std::pair<GUID, std::shared_ptr<CBusEndpoint>>> All() TS_EXCLUDES(m_cs);

 private:
  CCritSec m_cs;
  std::map<GUID, std::shared_ptr<CBusEndpoint>> m_endpoints TS_GUARDED_BY(m_cs);
};
