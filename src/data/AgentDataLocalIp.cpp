#include "data/AgentDataLocalIp.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace {

static_assert(sizeof(ifreq) == 40);

CPString DottedAddr(const ifreq& entry) {
  sockaddr_in addr;
  std::memcpy(&addr, &entry.ifr_addr, sizeof(addr));
  char szAddr[INET_ADDRSTRLEN] = {};
  if (inet_ntop(AF_INET, &addr.sin_addr, szAddr, sizeof(szAddr)) == nullptr)
    return CPString();
  return CPString(szAddr);
}

bool IsOutside(const _InterfaceAddr& entry) {
  if (entry.strName.Left(3) == "vir" || entry.strName == "lo")
    return false;
  return !entry.strAddr.IsEmpty() && entry.strAddr != "0.0.0.0" && entry.strAddr.Left(4) != "127.";
}

}  // namespace

bool ListInterfaces(std::vector<_InterfaceAddr>& list) {
  list.clear();
  const int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (iSocket < 0)
    return false;
  ifreq entries[kInterfaceMax] = {};
  ifconf conf = {};
  conf.ifc_len = sizeof(entries);
  conf.ifc_req = entries;
  const int iRet = ioctl(iSocket, SIOCGIFCONF, &conf);
  close(iSocket);
  if (iRet != 0 || conf.ifc_len < 0)
    return false;
  const size_t uCount = static_cast<size_t>(conf.ifc_len) / sizeof(ifreq);
  for (size_t i = 0; i < uCount && i < kInterfaceMax; ++i) {
    const ifreq& entry = entries[i];
    list.push_back({CPString(entry.ifr_name, strnlen(entry.ifr_name, IFNAMSIZ)), DottedAddr(entry)});
  }
  return true;
}

bool HasOutsideInterface(const std::vector<_InterfaceAddr>& list) {
  if (list.size() >= kInterfaceMax)
    return false;
  for (const _InterfaceAddr& entry : list) {
    if (IsOutside(entry))
      return true;
  }
  return false;
}

bool CutPort(CPString& strAddr) {
  const size_t uColon = strAddr.ReverseFind(':');
  if (uColon == CPString::npos || uColon == 0)
    return false;
  strAddr = strAddr.Left(uColon);
  return true;
}
