// Plays the log-cache component while relaying is measured: hands log caches of 1 KB to the agent over the
// bus and counts the results that come back, in turn with 32 threads that send the same bytes straight
// through the cloud library, in the same process and over the same connection. Begins when "run/relay.go"
// appears (machine id, messages and rounds in it) and leaves its figures in "run/relay.json".
#include <dlfcn.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "BenchPlugin.h"
#include "LogCacheTypes.h"

namespace {

constexpr int kSendTimeoutMs = 100000;
constexpr int kSenders = 32;
constexpr int kWindow = 256;  // messages without a result
constexpr auto kAskEvery = std::chrono::milliseconds(50);

using PFNSendSync = uint32_t (*)(const char*, int, int, int);

struct _Figures {
  double dSeconds = 0;
  double dCpuSeconds = 0;
  int iFailed = 0;
};

IBusContext* g_pBus = nullptr;
std::thread g_thread;
std::atomic<bool> g_bStop{false};

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto fnSeconds = [](const timeval& tv) {
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
  };
  return fnSeconds(usage.ru_utime) + fnSeconds(usage.ru_stime);
}

double NowSeconds() {
  return static_cast<double>(NowNs()) / 1e9;
}

// How many messages are under way and how they ended.
class CWindow {
 public:
  void Enter() {
    std::unique_lock lock(m_mutex);
    m_cond.wait(lock, [this] { return m_iOpen < kWindow; });
    ++m_iOpen;
  }
  void Leave(bool bOk) {
    const std::lock_guard lock(m_mutex);
    --m_iOpen;
    m_iFailed += bOk ? 0 : 1;
    if (m_iOpen == 0 || m_iOpen == kWindow - 1)
      m_cond.notify_all();
  }
  int WaitEmpty() {
    std::unique_lock lock(m_mutex);
    m_cond.wait(lock, [this] { return m_iOpen == 0; });
    return std::exchange(m_iFailed, 0);
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cond;
  int m_iOpen = 0;
  int m_iFailed = 0;
};
CWindow g_window;

class CCompletion final : public IMRSendComplete {
 public:
  void SendCallback(unsigned int iRetReply, long, const unsigned char*, unsigned int, unsigned long long,
                    void*) override {
    if (iRetReply != 0)
      g_window.Leave(false);  // refused: no result follows
  }
};
CCompletion g_completion;

class CResults final : public IMRReceiveComplete {
 public:
  void ReceiveCallback(const GUID&, long i64MsgType, const unsigned char* pData, unsigned int uiDataLength,
                       void* pBatonData, void* pContext) override {
    int32_t iResult = -1;
    if (uiDataLength >= kResultCodeAt + sizeof(iResult))
      std::memcpy(&iResult, pData + kResultCodeAt, sizeof(iResult));
    if (pBatonData != nullptr)
      static_cast<IBusContext*>(pContext)->Reply(0, i64MsgType, nullptr, 0, pBatonData);
    g_window.Leave(iResult == 0);
  }
};
CResults g_results;

template <class F>
_Figures Measure(const F& fnRun) {
  _Figures figures;
  const double dCpu = CpuSeconds();
  const double dStart = NowSeconds();
  figures.iFailed = fnRun();
  figures.dSeconds = NowSeconds() - dStart;
  figures.dCpuSeconds = CpuSeconds() - dCpu;
  return figures;
}

int Relay(int iMessages) {
  const GUID guidAgent(kAgentGuid);
  const std::string strEnd =
      "><version=1><msgtype=2><priv=3><dataid=1><end=1><msg=" + std::string(kBodyBytes, 'b') + ">";
  const std::string strText =
      std::string("<guid={") + kForwarderGuid + "}><product=bench><combo=relay" + strEnd;
  for (int i = 0; i < iMessages; ++i) {
    g_window.Enter();
    unsigned long long ui64ACT = 0;
    while (g_pBus->AsynSendEx(&guidAgent, kLogCache, strText.data(), static_cast<uint32_t>(strText.size()),
                              &g_completion, nullptr, &ui64ACT, kReplyTimeoutMs) == kBusErrBusy)
      std::this_thread::yield();
  }
  return g_window.WaitEmpty();
}

int Direct(PFNSendSync pfnSendSync, const std::string& strMid, int iMessages) {
  const std::string strText =
      "<mid=" + strMid +
      "><m2=bench><v=2><product=bench><combo=relay><ipartner=demo><pa=linux><pid=h_home><sysver=bench>"
      "<version=1><PCPluginJasonData=" +
      std::string(kBodyBytes, 'b') + "><PCPluginVersion=1.0.0.2005>";
  std::atomic<int> iLeft{iMessages};
  std::atomic<int> iFailed{0};
  std::vector<std::thread> senders;
  senders.reserve(kSenders);
  for (int i = 0; i < kSenders; ++i) {
    senders.emplace_back([&] {
      while (iLeft.fetch_sub(1) > 0) {
        if (pfnSendSync(strText.data(), static_cast<int>(strText.size()), 3, kSendTimeoutMs) != 0)
          ++iFailed;
      }
    });
  }
  for (std::thread& sender : senders)
    sender.join();
  return iFailed;
}

void Write(const std::string& strFile, const std::vector<_Figures>& relay,
           const std::vector<_Figures>& direct, int iMessages) {
  std::ofstream file(strFile + ".tmp");
  file << "{\"messages\":" << iMessages;
  const auto fnRows = [&](const char* pszName, const std::vector<_Figures>& rows) {
    file << ",\"" << pszName << "\":[";
    for (size_t u = 0; u < rows.size(); ++u)
      file << (u == 0 ? "" : ",") << "[" << rows[u].dSeconds << "," << rows[u].dCpuSeconds << ","
           << rows[u].iFailed << "]";
    file << "]";
  };
  fnRows("relay", relay);
  fnRows("direct", direct);
  file << "}";
  file.close();
  (void)std::rename((strFile + ".tmp").c_str(), strFile.c_str());
}

void Run() {
  const std::string strDir = RunDir();
  std::string strMid;
  int iMessages = 0;
  int iRounds = 0;
  while (!g_bStop) {
    std::ifstream go(strDir + "relay.go");
    if (go >> strMid >> iMessages >> iRounds)
      break;
    std::this_thread::sleep_for(kAskEvery);
  }
  void* hCloud = dlopen("libzxcloud.so", RTLD_NOW | RTLD_NOLOAD);
  const auto pfnSendSync =
      hCloud == nullptr ? nullptr : reinterpret_cast<PFNSendSync>(dlsym(hCloud, "zxcloud_send_sync"));
  std::vector<_Figures> relay;
  std::vector<_Figures> direct;
  for (int iRound = 0; iRound < iRounds && !g_bStop && pfnSendSync != nullptr; ++iRound) {
    relay.push_back(Measure([&] { return Relay(iMessages); }));
    direct.push_back(Measure([&] { return Direct(pfnSendSync, strMid, iMessages); }));
  }
  if (iMessages != 0)
    Write(strDir + "relay.json", relay, direct, iMessages);
}

int Start() {
  const GUID guid(kForwarderGuid);
  if (g_pBus->Initialize(&guid) != 0)
    return -1;
  g_pBus->Receive(kLogCacheResult, &g_results);
  g_thread = std::thread(Run);
  return 0;
}

int Stop() {
  g_bStop = true;
  g_thread.join();
  g_pBus->Uninitialize();
  return 0;
}

}  // namespace

ZX_BENCH_PLUGIN(kForwarderGuid, g_pBus, Start, Stop)
