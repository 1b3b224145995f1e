#include "ServiceNotify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/text/PString.h"

namespace {

void Send(const CPString& strMessage) {
  const char* pszSocket = getenv("NOTIFY_SOCKET");  // NOLINT(concurrency-mt-unsafe) nobody changes it
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  const size_t uLength = pszSocket != nullptr ? std::strlen(pszSocket) : 0;
  if (uLength == 0 || uLength >= sizeof(addr.sun_path) || (pszSocket[0] != '/' && pszSocket[0] != '@'))
    return;
  std::memcpy(addr.sun_path, pszSocket, uLength);
  if (pszSocket[0] == '@')  // a name in the abstract namespace
    addr.sun_path[0] = '\0';
  const int iFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (iFd < 0)
    return;
  const auto uAddress = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + uLength);
  // A message that finds no room is lost; the next sign of life says the same.
  (void)!sendto(iFd, strMessage.data(), strMessage.GetLength(), MSG_NOSIGNAL,
                reinterpret_cast<const sockaddr*>(&addr), uAddress);
  close(iFd);
}

uint64_t NumberOf(const char* pszVariable) {
  const char* psz = getenv(pszVariable);  // NOLINT(concurrency-mt-unsafe) nobody changes it
  return psz != nullptr && *psz >= '0' && *psz <= '9' ? std::strtoull(psz, nullptr, 10) : 0;
}

}  // namespace

void NotifyReady(size_t uPlugins) {
  Send(CPString::Make("READY=1\nSTATUS=%zu plug-ins running", uPlugins));
}

void NotifyStopping() {
  Send("STOPPING=1\nSTATUS=stopping");
}

void NotifyAlive() {
  Send("WATCHDOG=1");
}

uint32_t AliveIntervalMs() {
  const uint64_t u64Usec = NumberOf("WATCHDOG_USEC");
  const uint64_t u64Pid = NumberOf("WATCHDOG_PID");
  if (u64Usec == 0 || (u64Pid != 0 && u64Pid != static_cast<uint64_t>(getpid())))
    return 0;
  return static_cast<uint32_t>(std::clamp<uint64_t>(u64Usec / 2000, 1, INT32_MAX));
}
