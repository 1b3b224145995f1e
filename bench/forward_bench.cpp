// A log forwarder's process with nothing behind it: sends log caches of 1 KB over the bus and waits for what
// became of them. Two ways: "agent", as the log-cache component to the agent, and "bare", with plain sd-bus
// to the benchmark's own plug-in in the same host.
//   bench_forward BUS_ADDRESS STAMPS_FILE MID
// Reads lines "WAY FIRST COUNT WINDOW": so many messages, numbered from FIRST on, at most WINDOW of them
// without a result. Answers each line with "SECONDS FAILED".
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <string>
#include <utility>

#include "BenchPlugin.h"
#include "ForwardBare.h"
#include "ForwardStamps.h"
#include "LogCacheTypes.h"

namespace {

_ForwardStamps* g_pStamps = nullptr;

struct _Round {
  uint32_t uiFirst = 0;
  uint32_t uiCount = 0;
  uint32_t uiWindow = 0;
};

std::string Body(uint32_t uiNumber) {
  std::string strBody = ForwardMark(uiNumber);
  return strBody.append(kBodyBytes - strBody.size(), 'b');
}

// Over the component bus. The round's thread sends, the dispatcher takes answers and results.
class CAgentWay final : public IMRSendComplete, public IMRReceiveComplete {
 public:
  bool Join(const char* pszAddress) {
    ZxBusConnectSettings settings;
    settings.pszAddress = pszAddress;
    const GUID guid(kForwarderGuid);
    m_pBus = ZxBusCreateContext();
    return ZxBusConnect(&settings) == 0 && m_pBus->Initialize(&guid) == 0 &&
           m_pBus->Receive(kLogCacheResult, this) == 0;
  }
  void Leave() {
    m_pBus->Uninitialize();
    ZxBusDestroyContext(m_pBus);
    ZxBusDisconnect();
  }

  int Run(const _Round& round) {
    for (uint32_t u = round.uiFirst; u < round.uiFirst + round.uiCount; ++u) {
      {
        std::unique_lock lock(m_mutex);
        m_cond.wait(lock, [&] { return m_uiOpen < round.uiWindow; });
        ++m_uiOpen;
      }
      char szId[16];
      std::snprintf(szId, sizeof(szId), "%x", u + 1);
      const std::string strText =
          std::string("<guid={") + kForwarderGuid +
          "}><product=bench><combo=forward><version=1><msgtype=2><priv=3><dataid=" + szId +
          "><end=1><msg=" + Body(u) + ">";
      const GUID guidAgent(kAgentGuid);
      g_pStamps[u].u64Sent = NowNs();
      if (m_pBus->AsynSendEx(&guidAgent, kLogCache, strText.data(), static_cast<uint32_t>(strText.size()),
                             this, nullptr, nullptr, kReplyTimeoutMs) != 0)
        Done(false);
    }
    std::unique_lock lock(m_mutex);
    m_cond.wait(lock, [this] { return m_uiOpen == 0; });
    return std::exchange(m_iFailed, 0);
  }

 private:
  void SendCallback(unsigned int iRetReply, long, const unsigned char*, unsigned int, unsigned long long,
                    void*) override {
    if (iRetReply != 0)
      Done(false);  // refused: no result follows
  }
  void ReceiveCallback(const GUID&, long i64MsgType, const unsigned char* pData, unsigned int uiDataLength,
                       void* pBatonData, void* pContext) override {
    int32_t iResult = -1;
    uint64_t u64Id = 0;
    if (uiDataLength >= kResultBytes) {
      std::memcpy(&iResult, pData + kResultCodeAt, sizeof(iResult));
      std::memcpy(&u64Id, pData + kDataIdAt, sizeof(u64Id));
    }
    if (u64Id >= 1 && u64Id <= kMaxStamps)
      g_pStamps[u64Id - 1].u64Back = NowNs();
    if (pBatonData != nullptr)
      static_cast<IBusContext*>(pContext)->Reply(0, i64MsgType, nullptr, 0, pBatonData);
    Done(iResult == 0);
  }
  void Done(bool bOk) {
    const std::lock_guard lock(m_mutex);
    --m_uiOpen;
    m_iFailed += bOk ? 0 : 1;
    m_cond.notify_one();
  }

  IBusContext* m_pBus = nullptr;
  std::mutex m_mutex;
  std::condition_variable m_cond;
  uint32_t m_uiOpen = 0;
  int m_iFailed = 0;
};

// With sd-bus and nothing else, on one thread. What the agent would make of a log cache is sent ready-made.
class CBareWay {
 public:
  explicit CBareWay(const char* pszMid)
      : m_strHead(
            std::string("<mid=") + pszMid +
            "><m2=bench><v=2><product=bench><combo=forward><ipartner=demo><pa=linux><pid=h_home><sysver=bench>"
            "<version=1><PCPluginJasonData=") {}
  bool Join(const char* pszAddress) {
    static const sd_bus_vtable s_vtable[] = {
        SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Result", "ay", "", &OnResult, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};
    m_pBus = OpenBareBus(pszAddress, kBareForwarderName);
    return m_pBus != nullptr &&
           sd_bus_add_object_vtable(m_pBus, nullptr, kBarePath, kBareInterface, s_vtable, this) >= 0;
  }
  void Leave() { sd_bus_close_unref(m_pBus); }

  int Run(const _Round& round) {
    uint32_t uiNext = round.uiFirst;
    m_uiDone = 0;
    m_iFailed = 0;
    while (m_uiDone < round.uiCount) {
      while (uiNext < round.uiFirst + round.uiCount && uiNext - round.uiFirst - m_uiDone < round.uiWindow) {
        const std::string strText = m_strHead + Body(uiNext) + "><PCPluginVersion=1.0.0.2005>";
        g_pStamps[uiNext].u64Sent = NowNs();
        if (!SendBare(m_pBus, kBareRelayName, "Send", strText.data(), strText.size(), &OnAccepted, nullptr))
          return static_cast<int>(round.uiCount);
        ++uiNext;
      }
      if (sd_bus_process(m_pBus, nullptr) == 0)
        sd_bus_wait(m_pBus, UINT64_MAX);
    }
    return m_iFailed;
  }

 private:
  static int OnAccepted(sd_bus_message* pMessage, void*, sd_bus_error*) {
    if (sd_bus_message_is_method_error(pMessage, nullptr) > 0) {
      std::fprintf(stderr, "bench_forward: %s\n", sd_bus_message_get_error(pMessage)->message);
      std::abort();
    }
    return 1;
  }
  static int OnResult(sd_bus_message* pMessage, void* pSelf, sd_bus_error*) {
    auto& self = *static_cast<CBareWay*>(pSelf);
    const void* pData = nullptr;
    size_t uBytes = 0;
    _BareResult result;
    if (sd_bus_message_read_array(pMessage, 'y', &pData, &uBytes) < 0 || uBytes < sizeof(result))
      return -EINVAL;
    std::memcpy(&result, pData, sizeof(result));
    if (result.uiNumber < kMaxStamps)
      g_pStamps[result.uiNumber].u64Back = NowNs();
    ++self.m_uiDone;
    self.m_iFailed += result.uiStatus == 0 ? 0 : 1;
    return sd_bus_reply_method_return(pMessage, nullptr);
  }

  const std::string m_strHead;
  sd_bus* m_pBus = nullptr;
  uint32_t m_uiDone = 0;
  int m_iFailed = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s BUS_ADDRESS STAMPS_FILE MID\n", argv[0]);
    return 2;
  }
  g_pStamps = MapForwardStamps(argv[2]);
  CAgentWay agent;
  CBareWay bare(argv[3]);
  if (g_pStamps == nullptr || !agent.Join(argv[1]) || !bare.Join(argv[1])) {
    std::fprintf(stderr, "bench_forward: cannot join the bus or map the file\n");
    return 1;
  }
  std::cout << "ready" << std::endl;
  std::string strWay;
  _Round round;
  while (std::cin >> strWay >> round.uiFirst >> round.uiCount >> round.uiWindow) {
    if (round.uiFirst > kMaxStamps || round.uiCount > kMaxStamps - round.uiFirst || round.uiWindow == 0)
      return 2;
    const uint64_t u64Begin = NowNs();
    const int iFailed = strWay == "agent" ? agent.Run(round) : bare.Run(round);
    std::cout << static_cast<double>(NowNs() - u64Begin) / 1e9 << " " << iFailed << std::endl;
  }
  bare.Leave();
  agent.Leave();
  return 0;
}
