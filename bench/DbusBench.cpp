#include "DbusBench.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "support/Argv.h"

std::string g_strSelf, g_strAddress;

namespace {

constexpr size_t kReplyBytes = 256;
constexpr size_t kFloodBytes = 4096;

// The other side on the component bus: answers requests, and reports the last of a row of broadcasts.
class CBusPeer final : public IMRReceiveComplete {
 public:
  void ReceiveCallback(const GUID&, long i64MsgType, const unsigned char* pData, unsigned int uiDataLength,
                       void* pBatonData, void* pContext) override {
    auto* pBus = static_cast<IBusContext*>(pContext);
    if (pBatonData != nullptr) {
      pBus->Reply(0, i64MsgType, m_strReply.data(), kReplyBytes, pBatonData);
    } else if (uiDataLength > 0 && pData[0] == 'l') {
      const GUID guidAsker(kAskerGuid);
      pBus->AsynSendEx(&guidAsker, 2, "", 0, nullptr, nullptr, nullptr, 0);
    }
  }

 private:
  const std::string m_strReply = std::string(kReplyBytes, 'r');
};

IBusContext* Join(const char* pszAddress, const GUID& guid, uint32_t uiMaxSendBytes = 0) {
  ZxBusConnectSettings settings;
  settings.pszAddress = pszAddress;
  settings.uiMaxSendBytes = uiMaxSendBytes;
  IBusContext* pBus = ZxBusCreateContext();
  if (ZxBusConnect(&settings) != 0 || pBus->Initialize(&guid) != 0)
    std::abort();
  return pBus;
}

}  // namespace

GUID PeerGuid(int iNumber) {
  GUID guid("00000002-0000-4000-8000-000000000000");
  guid.Data4[7] = static_cast<uint8_t>(iNumber);
  return guid;
}

CProcess::CProcess(const std::vector<std::string>& args) {
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0)
    std::abort();
  const std::vector<char*> argv = ArgvOf(args);
  m_pid = fork();
  if (m_pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  char ch = 0;
  if (read(out[0], &ch, 1) != 1)
    std::fprintf(stderr, "%s does not start\n", args[0].c_str());
  m_iOut = out[0];
}

CProcess::~CProcess() {
  kill(m_pid, SIGKILL);
  waitpid(m_pid, nullptr, 0);
  close(m_iOut);
}

void CProcess::Stop() const {
  kill(m_pid, SIGSTOP);
  waitpid(m_pid, nullptr, WUNTRACED);
}

void SayReady() {
  std::printf("ready\n");
  std::fflush(stdout);
}

CJoined::CJoined() : m_pBus(Join(g_strAddress.c_str(), GUID(kAskerGuid), 128u << 20)) {}

CJoined::~CJoined() {
  ZxBusDestroyContext(m_pBus);
  ZxBusDisconnect();
}

int RunBusPeer(const char* pszAddress, int iNumber) {
  CBusPeer peer;
  if (Join(pszAddress, PeerGuid(iNumber))->Receive(1, &peer) != 0)
    return 1;
  SayReady();
  for (;;)
    pause();
}

int RunFlood(const char* pszAddress, int iNumber) {
  IBusContext* pBus = Join(pszAddress, PeerGuid(iNumber));
  const GUID guidTarget = PeerGuid(3);
  const std::string strData(kFloodBytes, 'f');
  for (bool bReady = false;;) {
    if (pBus->AsynSendEx(&guidTarget, 1, strData.data(), kFloodBytes, nullptr, nullptr, nullptr, 0) == 0)
      continue;
    if (!std::exchange(bReady, true))  // from here on it is as much as the bus takes
      SayReady();
    usleep(1000);
  }
}

std::unique_ptr<CProcess> MakePeer(const char* pszKind, int iNumber) {
  return std::make_unique<CProcess>(
      std::vector<std::string>{g_strSelf, "--peer", pszKind, g_strAddress, std::to_string(iNumber)});
}
