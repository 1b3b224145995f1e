#include "platform/bus/BusRouter.h"

#include <utility>

CBusRouter& CBusRouter::Instance() {
  static CBusRouter* s_pRouter = new CBusRouter;
  return *s_pRouter;
}

bool CBusRouter::Add(const GUID& guid, std::shared_ptr<CBusEndpoint> pEndpoint) {
  CCritLock lock(m_cs);
  return m_endpoints.emplace(guid, std::move(pEndpoint)).second;
}

void CBusRouter::Remove(const GUID& guid) {
  std::shared_ptr<CBusEndpoint> pGone;  // released behind the lock
  CCritLock lock(m_cs);
  const auto it = m_endpoints.find(guid);
  if (it == m_endpoints.end())
    return;
  pGone = std::move(it->second);
  m_endpoints.erase(it);
}

std::shared_ptr<CBusEndpoint> CBusRouter::Find(const GUID& guid) {
  CCritLock lock(m_cs);
  const auto it = m_endpoints.find(guid);
  return it != m_endpoints.end() ? it->second : nullptr;
}

std::vector<std::shared_ptr<CBusEndpoint>> CBusRouter::AllBut(const CBusEndpoint* pEndpoint) {
  std::vector<std::shared_ptr<CBusEndpoint>> list;
  CCritLock lock(m_cs);
  list.reserve(m_endpoints.size());
  for (const auto& [guid, pOther] : m_endpoints) {
    if (pOther.get() != pEndpoint)
      list.push_back(pOther);
  }
  return list;
}

std::vector<std::pair<GUID, std::shared_ptr<CBusEndpoint>>> CBusRouter::All() {
  CCritLock lock(m_cs);
  return {m_endpoints.begin(), m_endpoints.end()};
}
