#include "platform/cloud/Resolver.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "platform/os/ThreadSafety.h"
#include "platform/os/ZxCritSec.h"
#include "platform/os/ZxThread.h"

namespace zxcloud {

namespace {

constexpr uint32_t kMaxHanging = 8;
constinit CZxThreadGroup g_groupLookups;

struct CAddrInfoFree {
  void operator()(addrinfo* p) const { freeaddrinfo(p); }
};

std::string Literal(const addrinfo& info) {
  char szIp[INET6_ADDRSTRLEN] = "";
  if (info.ai_family == AF_INET && info.ai_addrlen >= sizeof(sockaddr_in)) {
    sockaddr_in address{};
    memcpy(&address, info.ai_addr, sizeof(address));
    inet_ntop(AF_INET, &address.sin_addr, szIp, sizeof(szIp));
  } else if (info.ai_family == AF_INET6 && info.ai_addrlen >= sizeof(sockaddr_in6)) {
    sockaddr_in6 address{};
    memcpy(&address, info.ai_addr, sizeof(address));
    inet_ntop(AF_INET6, &address.sin6_addr, szIp, sizeof(szIp));
  }
  return szIp;
}

}  // namespace

struct CResolver::_Lookup {
  std::string strHost;
  TResolve pfnResolve = nullptr;
  std::shared_ptr<CWakeup> pWakeup;
  CCritSec cs;
  bool bDone TS_GUARDED_BY(cs) = false;
  bool bFound TS_GUARDED_BY(cs) = false;
  std::vector<std::string> listIps TS_GUARDED_BY(cs);
  std::string strError TS_GUARDED_BY(cs);
};

bool ResolveHost(const std::string& strHost, std::vector<std::string>& listIps, std::string& strError) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_ADDRCONFIG;
  addrinfo* pFirst = nullptr;
  const int iResult = getaddrinfo(strHost.c_str(), nullptr, &hints, &pFirst);
  const std::unique_ptr<addrinfo, CAddrInfoFree> pList(pFirst);
  if (iResult != 0) {
    strError = std::string("name not resolved: ") + gai_strerror(iResult);
    return false;
  }
  for (const addrinfo* p = pFirst; p != nullptr; p = p->ai_next) {
    std::string strIp = Literal(*p);
    if (!strIp.empty() && std::find(listIps.begin(), listIps.end(), strIp) == listIps.end())
      listIps.push_back(std::move(strIp));
  }
  if (listIps.empty())
    strError = "name not resolved: no address";
  return !listIps.empty();
}

CResolver::CResolver(std::shared_ptr<CWakeup> pWakeup, TResolve pfnResolve)
    : m_pWakeup(std::move(pWakeup)), m_pfnResolve(pfnResolve) {}

void* CResolver::Entry(void* pArg) {
  pthread_detach(pthread_self());
  ZxSetThreadName("zxclouddns");
  const std::unique_ptr<std::shared_ptr<_Lookup>> pOwned(static_cast<std::shared_ptr<_Lookup>*>(pArg));
  _Lookup& lookup = **pOwned;
  std::vector<std::string> listIps;
  std::string strError;
  bool bFound = false;
  try {
    bFound = lookup.pfnResolve(lookup.strHost, listIps, strError);
  } catch (const std::exception& e) {
    strError = e.what();
  }
  {
    CCritLock lock(lookup.cs);
    lookup.bDone = true;
    lookup.bFound = bFound;
    lookup.listIps = std::move(listIps);
    lookup.strError = std::move(strError);
  }
  lookup.pWakeup->Signal();
  return nullptr;
}

bool CResolver::Ask(const std::string& strHost, std::string& strError) {
  if (m_pLookup != nullptr && m_pLookup->strHost == strHost)
    return true;  // still running, or answered and not fetched
  if (g_groupLookups.Running() >= kMaxHanging) {
    strError = "name not resolved: earlier lookups still hang";
    return false;
  }
  auto pLookup = std::make_shared<_Lookup>();
  pLookup->strHost = strHost;
  pLookup->pfnResolve = m_pfnResolve;
  pLookup->pWakeup = m_pWakeup;
  auto pForThread = std::make_unique<std::shared_ptr<_Lookup>>(pLookup);
  pthread_t hThread{};
  if (g_groupLookups.Create(&hThread, Entry, pForThread.get()) != 0) {
    strError = "name not resolved: no thread for it";
    return false;
  }
  pForThread.release();  // NOLINT(bugprone-unused-return-value) the thread owns it
  m_pLookup = std::move(pLookup);
  return true;
}

CResolver::EAnswer CResolver::Take(std::vector<std::string>& listIps, std::string& strError) {
  if (m_pLookup == nullptr)
    return EAnswer::None;
  bool bFound = false;
  {
    CCritLock lock(m_pLookup->cs);
    if (!m_pLookup->bDone)
      return EAnswer::None;
    bFound = m_pLookup->bFound;
    listIps = std::move(m_pLookup->listIps);
    strError = std::move(m_pLookup->strError);
  }
  m_pLookup.reset();
  return bFound ? EAnswer::Found : EAnswer::Failed;
}

}  // namespace zxcloud
