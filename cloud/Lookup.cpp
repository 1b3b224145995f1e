#include "Lookup.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <thread>

#include "CloudText.h"
#include "platform/os/ZxCritSec.h"
#include "platform/os/ZxThread.h"

namespace zxcloudd {

struct CLookup::_State {
  explicit _State(std::string str) : strHost(std::move(str)), iFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  ~_State() {
    if (iFd >= 0)
      close(iFd);
  }
  _State(const _State&) = delete;
  _State& operator=(const _State&) = delete;

  void Resolve();

  const std::string strHost;
  const int iFd;
  CCritSec cs;
  std::vector<std::string> listIps TS_GUARDED_BY(cs);
  std::string strError TS_GUARDED_BY(cs);
};

void CLookup::_State::Resolve() {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_ADDRCONFIG;
  addrinfo* pFirst = nullptr;
  const int iResult = getaddrinfo(strHost.c_str(), nullptr, &hints, &pFirst);
  std::vector<std::string> listFound;
  for (const addrinfo* p = iResult == 0 ? pFirst : nullptr; p != nullptr; p = p->ai_next) {
    char szIp[NI_MAXHOST] = "";
    if (getnameinfo(p->ai_addr, p->ai_addrlen, szIp, sizeof(szIp), nullptr, 0, NI_NUMERICHOST) == 0)
      listFound.emplace_back(szIp);
  }
  if (iResult == 0)
    freeaddrinfo(pFirst);
  {
    CCritLock lock(cs);
    listIps = std::move(listFound);
    strError = iResult == 0 ? "the name has no address" : gai_strerror(iResult);
  }
  const uint64_t u64One = 1;
  if (write(iFd, &u64One, sizeof(u64One)) < 0)
    return;  // cannot happen: the counter is written once
}

CLookup::~CLookup() = default;

bool CLookup::Start(const std::string& strHost) {
  m_pState = std::make_shared<_State>(strHost);
  if (m_pState->iFd < 0)
    return false;
  try {
    std::thread([pState = m_pState] {
      ZxSetThreadName("zxclouddns");
      pState->Resolve();
    }).detach();
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

int CLookup::Descriptor() const {
  return m_pState->iFd;
}

std::vector<std::string> CLookup::Take(std::string& strError) const {
  CCritLock lock(m_pState->cs);
  strError = m_pState->strError;
  return m_pState->listIps;
}

bool IsIpLiteral(const std::string& strHost) {
  unsigned char address[sizeof(in6_addr)];
  return inet_pton(AF_INET, strHost.c_str(), address) == 1 ||
         inet_pton(AF_INET6, strHost.c_str(), address) == 1;
}

}  // namespace zxcloudd
