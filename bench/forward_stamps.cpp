// Preloaded into the host and the forwarder while the forwarder's way is measured: notes, in the file that
// ZX_FORWARD_STAMPS names, when a message was written to the bus daemon and came from it, and when it enters
// and leaves the blocking send of the cloud link.
#include <dlfcn.h>
#include <sys/socket.h>

#include "BenchPlugin.h"
#include "ForwardStamps.h"

namespace {

_ForwardStamps* Stamps() {
  static _ForwardStamps* const s_pStamps = MapForwardStamps(std::getenv("ZX_FORWARD_STAMPS"));
  return s_pStamps;
}

// One message is enough: what is looked at goes one at a time.
void Note(const msghdr* pMessage, ssize_t iBytes, uint64_t _ForwardStamps::*pWhen) {
  _ForwardStamps* pStamps = Stamps();
  if (iBytes <= 0 || pStamps == nullptr || pStamps[kMaxStamps].u64Sent == 0)
    return;
  const uint64_t u64Now = NowNs();
  auto uLeft = static_cast<size_t>(iBytes);
  for (size_t u = 0; u < pMessage->msg_iovlen && uLeft > 0; ++u) {
    const size_t uPart = pMessage->msg_iov[u].iov_len < uLeft ? pMessage->msg_iov[u].iov_len : uLeft;
    const uint32_t uiNumber = ForwardNumber(pMessage->msg_iov[u].iov_base, uPart);
    if (uiNumber < kMaxStamps)
      pStamps[uiNumber].*pWhen = u64Now;
    uLeft -= uPart;
  }
}

}  // namespace

extern "C" ZX_API ssize_t sendmsg(int iFd, const msghdr* pMessage, int iFlags) {
  using PFNSendMsg = ssize_t (*)(int, const msghdr*, int);
  static const auto s_pfnSendMsg = reinterpret_cast<PFNSendMsg>(dlsym(RTLD_NEXT, "sendmsg"));
  const ssize_t iBytes = s_pfnSendMsg(iFd, pMessage, iFlags);
  Note(pMessage, iBytes, &_ForwardStamps::u64Written);
  return iBytes;
}

extern "C" ZX_API ssize_t recvmsg(int iFd, msghdr* pMessage, int iFlags) {
  using PFNRecvMsg = ssize_t (*)(int, msghdr*, int);
  static const auto s_pfnRecvMsg = reinterpret_cast<PFNRecvMsg>(dlsym(RTLD_NEXT, "recvmsg"));
  const ssize_t iBytes = s_pfnRecvMsg(iFd, pMessage, iFlags);
  Note(pMessage, iBytes, &_ForwardStamps::u64Arrived);
  return iBytes;
}

extern "C" ZX_API uint32_t zxcloud_send_sync(const char* pszData, int iLength, int iPriority,
                                             int iTimeoutMs) {
  using PFNSendSync = uint32_t (*)(const char*, int, int, int);
  static const auto s_pfnSendSync = reinterpret_cast<PFNSendSync>(
      dlsym(dlopen("libzxcloud.so", RTLD_NOW | RTLD_NOLOAD), "zxcloud_send_sync"));
  const uint64_t u64Begin = NowNs();
  const uint32_t uiResult = s_pfnSendSync(pszData, iLength, iPriority, iTimeoutMs);
  const uint64_t u64End = NowNs();
  if (_ForwardStamps* pStamps = Stamps(); pStamps != nullptr) {
    _ForwardStamps& stamps = pStamps[ForwardNumber(pszData, static_cast<size_t>(iLength))];
    stamps.u64ToLink = u64Begin;
    stamps.u64Acknowledged = u64End;
  }
  return uiResult;
}
