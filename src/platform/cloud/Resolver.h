// Name lookups that nobody has to wait for: getaddrinfo blocks as long as the name servers please and cannot
// be ended, so each lookup runs on a thread of its own that outlives its asker if it must. The library stays
// mapped for such a thread (it is linked "nodelete").
// Threads: one asker per object. Blocking: never.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/cloud/Wakeup.h"

namespace zxcloud {

// getaddrinfo with every result as a literal, in the system's order; blocks.
bool ResolveHost(const std::string& strHost, std::vector<std::string>& listIps, std::string& strError);

class CResolver {
 public:
  using TResolve = bool (*)(const std::string&, std::vector<std::string>&, std::string&);
  // pWakeup is signalled when an answer is there.
  explicit CResolver(std::shared_ptr<CWakeup> pWakeup, TResolve pfnResolve = ResolveHost);

  // Asks; a lookup of the same name that is still running is taken over, one of another name forgotten.
  // False with strError set: too many lookups hang, or no thread.
  bool Ask(const std::string& strHost, std::string& strError);
  enum class EAnswer { None, Found, Failed };
  EAnswer Take(std::vector<std::string>& listIps, std::string& strError);  // each answer once

 private:
  struct _Lookup;
  static void* Entry(void* pArg);

  const std::shared_ptr<CWakeup> m_pWakeup;
  const TResolve m_pfnResolve;
  std::shared_ptr<_Lookup> m_pLookup;
};

}  // namespace zxcloud
