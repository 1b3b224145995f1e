// Stands in for the task manager while latency is measured: notes when each command arrives and tells the
// benchmark through a datagram socket "run/bench.sock" under the home: the hand-off text's time, then its
// text.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "BenchPlugin.h"

namespace {

constexpr char kGuid[] = "FAB922A8-736E-4CB5-A666-4FD849A3049A";
constexpr uint32_t kHandOff = 20001;
IBusContext* g_pBus = nullptr;
int g_iSocket = -1;
sockaddr_un g_addr{};

class CReceiver final : public IMRReceiveComplete {
 public:
  void ReceiveCallback(const GUID&, long i64MsgType, const unsigned char* pData, unsigned int uiDataLength,
                       void* pBatonData, void* pContext) override {
    const uint64_t u64Now = NowNs();
    std::string strNote(reinterpret_cast<const char*>(&u64Now), sizeof(u64Now));
    strNote.append(reinterpret_cast<const char*>(pData), uiDataLength);
    if (i64MsgType == kHandOff)
      (void)sendto(g_iSocket, strNote.data(), strNote.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                   reinterpret_cast<const sockaddr*>(&g_addr), sizeof(g_addr));
    if (pBatonData != nullptr)
      static_cast<IBusContext*>(pContext)->Reply(0, i64MsgType, nullptr, 0, pBatonData);
  }
};
CReceiver g_Receiver;

void Connect() {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, (RunDir() + "bench.sock").c_str(), sizeof(addr.sun_path) - 1);
  g_addr = addr;  // the benchmark binds it later
  g_iSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

int Start() {
  Connect();
  const GUID guid(kGuid);
  if (g_pBus->Initialize(&guid) != 0)
    return -1;
  g_pBus->Receive(kHandOff, &g_Receiver);
  g_pBus->Receive(20104, &g_Receiver);
  return 0;
}

int Stop() {
  g_pBus->Uninitialize();
  close(g_iSocket);
  return 0;
}

}  // namespace

ZX_BENCH_PLUGIN(kGuid, g_pBus, Start, Stop)
