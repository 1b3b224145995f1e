// The floor of the forwarder's benchmark, in the host's process: takes messages from the host's D-Bus daemon
// with bare sd-bus, lets 32 threads hand them to zxcloud_send_sync as they are, and calls the sender back
// with each result.
#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "BenchPlugin.h"
#include "ForwardBare.h"
#include "ForwardStamps.h"

namespace {

constexpr char kGuid[] = "7D0F0C11-5B0E-4E0B-9C55-2B1F4F6A0001";
constexpr int kSenders = 32;
constexpr int kSendTimeoutMs = 100000;
constexpr auto kAgain = std::chrono::milliseconds(20);

using PFNSendSync = uint32_t (*)(const char*, int, int, int);

IBusContext* g_pBus = nullptr;

// Threads: one on the bus, kSenders in the link. Ended by Stop.
class CBareRelay {
 public:
  void Start() {
    m_iWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_threads.emplace_back([this] { RunBus(); });
    for (int i = 0; i < kSenders; ++i)
      m_threads.emplace_back([this] { RunSender(); });
  }
  void Stop() {
    {
      const std::lock_guard lock(m_mutex);
      m_bStop = true;
    }
    m_cond.notify_all();
    Wake();
    for (std::thread& thread : m_threads)
      thread.join();
    close(m_iWake);
  }

 private:
  void Wake() const {
    const uint64_t u64One = 1;
    (void)!write(m_iWake, &u64One, sizeof(u64One));
  }

  static int OnSend(sd_bus_message* pMessage, void* pSelf, sd_bus_error*) {
    auto& self = *static_cast<CBareRelay*>(pSelf);
    const void* pData = nullptr;
    size_t uBytes = 0;
    if (sd_bus_message_read_array(pMessage, 'y', &pData, &uBytes) < 0)
      return -EINVAL;
    {
      const std::lock_guard lock(self.m_mutex);
      self.m_work.emplace_back(static_cast<const char*>(pData), uBytes);
    }
    self.m_cond.notify_one();
    return sd_bus_reply_method_return(pMessage, nullptr);
  }

  static int OnTaken(sd_bus_message*, void*, sd_bus_error*) { return 1; }

  void RunSender() {
    PFNSendSync pfnSendSync = nullptr;
    for (;;) {
      std::string strText;
      {
        std::unique_lock lock(m_mutex);
        m_cond.wait(lock, [this] { return m_bStop || !m_work.empty(); });
        if (m_bStop)
          return;
        strText = std::move(m_work.front());
        m_work.pop_front();
      }
      if (pfnSendSync == nullptr)  // the one that notes the time, when it is preloaded
        pfnSendSync = reinterpret_cast<PFNSendSync>(dlsym(RTLD_DEFAULT, "zxcloud_send_sync"));
      _BareResult result;
      result.uiNumber = ForwardNumber(strText.data(), strText.size());
      result.uiStatus = pfnSendSync == nullptr ? 1
                                               : pfnSendSync(strText.data(), static_cast<int>(strText.size()),
                                                             3, kSendTimeoutMs);
      {
        const std::lock_guard lock(m_mutex);
        m_results.push_back(result);
      }
      Wake();
    }
  }

  sd_bus* Connect() {
    static const sd_bus_vtable s_vtable[] = {
        SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Send", "ay", "", &OnSend, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};
    const std::string strAddress = "unix:path=" + RunDir() + "bus";
    while (!m_bStop) {  // the host starts the daemon at the same time
      sd_bus* pBus = OpenBareBus(strAddress.c_str(), kBareRelayName);
      if (pBus != nullptr &&
          sd_bus_add_object_vtable(pBus, nullptr, kBarePath, kBareInterface, s_vtable, this) >= 0)
        return pBus;
      std::this_thread::sleep_for(kAgain);
    }
    return nullptr;
  }

  void RunBus() {
    sd_bus* pBus = Connect();
    while (pBus != nullptr && !m_bStop) {
      std::vector<_BareResult> results;
      {
        const std::lock_guard lock(m_mutex);
        results.swap(m_results);
      }
      for (const _BareResult& result : results)
        SendBare(pBus, kBareForwarderName, "Result", &result, sizeof(result), &OnTaken, nullptr);
      if (sd_bus_process(pBus, nullptr) != 0)
        continue;
      pollfd fds[2] = {{sd_bus_get_fd(pBus), static_cast<short>(sd_bus_get_events(pBus)), 0},
                       {m_iWake, POLLIN, 0}};
      poll(fds, 2, -1);
      uint64_t u64Count = 0;
      if (fds[1].revents != 0)
        (void)!read(m_iWake, &u64Count, sizeof(u64Count));
    }
    sd_bus_close_unref(pBus);
  }

  int m_iWake = -1;
  std::atomic<bool> m_bStop{false};
  std::mutex m_mutex;
  std::condition_variable m_cond;
  std::deque<std::string> m_work;
  std::vector<_BareResult> m_results;
  std::vector<std::thread> m_threads;
};
CBareRelay g_relay;

int Start() {
  g_relay.Start();
  return 0;
}

int Stop() {
  g_relay.Stop();
  return 0;
}

}  // namespace

ZX_BENCH_PLUGIN(kGuid, g_pBus, Start, Stop)
