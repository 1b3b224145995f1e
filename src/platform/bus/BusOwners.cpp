#include "platform/bus/BusOwners.h"

void CBusOwners::Set(const GUID& guid, const char* pszOwner) {
  Forget(guid);
  if (*pszOwner == 0)
    return;
  m_byGuid.emplace(guid, pszOwner);
  m_byOwner[pszOwner].push_back(guid);
}

bool CBusOwners::GuidOf(const char* pszOwner, GUID& guid) const {
  const auto it = m_byOwner.find(pszOwner);
  if (it == m_byOwner.end() || it->second.size() != 1)
    return false;
  guid = it->second.front();
  return true;
}

void CBusOwners::Clear() {
  m_byGuid.clear();
  m_byOwner.clear();
}

void CBusOwners::Forget(const GUID& guid) {
  const auto it = m_byGuid.find(guid);
  if (it == m_byGuid.end())
    return;
  const auto itOwner = m_byOwner.find(it->second);
  std::erase(itOwner->second, guid);
  if (itOwner->second.empty())
    m_byOwner.erase(itOwner);
  m_byGuid.erase(it);
}
