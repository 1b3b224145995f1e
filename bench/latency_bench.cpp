// Push latency: cloud publisher -> broker -> agent -> hand-off to the task manager, against the bare broker
// round trip (publisher -> broker -> bare subscriber) in the same run, rounds interleaved. bench/run starts
// the servers and the host with bench_handoff in the task manager's place.
//
// usage: bench_latency HOST PORT CAFILE CERT KEY MID BUSINESS_NUMBER SOCKET [ROUNDS [MESSAGES]]
#include <mosquitto.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

namespace {

// The bare subscriber stands where an agent would, under the client id "bench", so the broker's rules let it.
constexpr char kFloorTopic[] = "zx/v1/bench/push/1";

uint64_t NowNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

[[noreturn]] void Die(const char* pszWhat, const char* pszWhy) {
  std::fprintf(stderr, "bench_latency: %s: %s\n", pszWhat, pszWhy);
  std::exit(1);
}

void Check(int iRc, const char* pszWhat) {
  if (iRc != MOSQ_ERR_SUCCESS)
    Die(pszWhat, mosquitto_strerror(iRc));
}

// A client with libmosquitto's own thread; the subscriber notes when each message arrives.
class CClient {
 public:
  CClient(const char* pszId, char** argv) : m_pMosq(mosquitto_new(pszId, true, this)) {
    Check(mosquitto_tls_set(m_pMosq, argv[3], nullptr, argv[4], argv[5], nullptr), "tls");
    Check(mosquitto_int_option(m_pMosq, MOSQ_OPT_TCP_NODELAY, 1), "nodelay");
    mosquitto_subscribe_callback_set(
        m_pMosq, [](mosquitto*, void* p, int, int, const int*) { static_cast<CClient*>(p)->Signal(0); });
    mosquitto_connect_callback_set(m_pMosq, [](mosquitto*, void* p, int iRc) {
      if (iRc != 0)
        Die("connect", mosquitto_connack_string(iRc));
      static_cast<CClient*>(p)->Signal(0);
    });
    mosquitto_message_callback_set(m_pMosq, [](mosquitto*, void* p, const mosquitto_message*) {
      static_cast<CClient*>(p)->Signal(NowNs());
    });
    Check(mosquitto_connect(m_pMosq, argv[1], std::atoi(argv[2]), 60), "connect");
    Check(mosquitto_loop_start(m_pMosq), "loop");
    Wait();
  }
  ~CClient() {
    mosquitto_disconnect(m_pMosq);
    mosquitto_loop_stop(m_pMosq, false);
    mosquitto_destroy(m_pMosq);
  }
  void Subscribe(const std::string& strTopic) {
    Check(mosquitto_subscribe(m_pMosq, nullptr, strTopic.c_str(), 1), "subscribe");
    Wait();
  }
  void Publish(const std::string& strTopic, const std::string& strBody) {
    Check(mosquitto_publish(m_pMosq, nullptr, strTopic.c_str(), static_cast<int>(strBody.size()),
                            strBody.data(), 1, false),
          "publish");
  }
  uint64_t Wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_cond.wait_for(lock, std::chrono::seconds(10), [this] { return m_bSignal; }))
      Die("wait", "nothing arrived within 10 s");
    m_bSignal = false;
    return m_u64At;
  }

 private:
  void Signal(uint64_t u64At) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_bSignal = true;
    m_u64At = u64At;
    m_cond.notify_one();
  }
  mosquitto* m_pMosq;
  std::mutex m_mutex;
  std::condition_variable m_cond;
  bool m_bSignal = false;
  uint64_t m_u64At = 0;
};

int BindSocket(const char* pszPath) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, pszPath, sizeof(addr.sun_path) - 1);
  const int iSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  unlink(pszPath);
  if (iSocket < 0 || bind(iSocket, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0)
    Die("socket", std::strerror(errno));
  return iSocket;
}

// The time in the note that carries strId.
uint64_t WaitNote(int iSocket, const std::string& strId) {
  char szBuffer[65536];
  for (;;) {
    pollfd fd{iSocket, POLLIN, 0};
    if (poll(&fd, 1, 10000) <= 0)
      Die("hand-off", "no command arrived within 10 s");
    const ssize_t iLength = recv(iSocket, szBuffer, sizeof(szBuffer), 0);
    if (iLength < 8 ||
        std::string(szBuffer + 8, static_cast<size_t>(iLength) - 8).find("\"" + strId + "\"") ==
            std::string::npos)
      continue;
    uint64_t u64At = 0;
    std::memcpy(&u64At, szBuffer, sizeof(u64At));
    return u64At;
  }
}

double Percentile(std::vector<uint64_t> values, double dRank) {
  std::sort(values.begin(), values.end());
  return static_cast<double>(values[static_cast<size_t>(dRank * static_cast<double>(values.size() - 1))]) /
         1e6;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 9)
    Die("usage", "bench_latency HOST PORT CAFILE CERT KEY MID BUSINESS_NUMBER SOCKET [ROUNDS [MESSAGES]]");
  const int iRounds = argc > 9 ? std::atoi(argv[9]) : 5;
  const int iMessages = argc > 10 ? std::atoi(argv[10]) : 200;
  const int iSocket = BindSocket(argv[8]);
  mosquitto_lib_init();
  CClient subscriber("bench", argv);
  CClient publisher("bench-pub", argv);
  subscriber.Subscribe(kFloorTopic);
  const std::string strPush = std::string("zx/v1/") + argv[6] + "/push/" + argv[7];

  std::vector<uint64_t> floor;
  std::vector<uint64_t> agent;
  for (int iRound = 0; iRound < iRounds; ++iRound) {
    for (int i = 0; i < iMessages; ++i) {
      const std::string strId =
          "bench-" + std::to_string(getpid()) + "-" + std::to_string(iRound * iMessages + i);
      const std::string strBody = R"({"ID":")" + strId +
                                  R"(","Command":"disk_usage","Param":{"path":"/"},"pad":")" +
                                  std::string(160, 'x') + "\"}";
      uint64_t u64Start = NowNs();
      publisher.Publish(kFloorTopic, strBody);
      floor.push_back(subscriber.Wait() - u64Start);
      u64Start = NowNs();
      publisher.Publish(strPush, strBody);
      agent.push_back(WaitNote(iSocket, strId) - u64Start);
    }
  }
  const double dFloor = Percentile(floor, 0.5);
  const double dAgent = Percentile(agent, 0.5);
  std::printf("push latency, %d messages each         p50 ms   p99 ms\n", iRounds * iMessages);
  std::printf("  bare subscriber (floor)            %8.3f %8.3f\n", dFloor, Percentile(floor, 0.99));
  std::printf("  agent, hand-off to task manager    %8.3f %8.3f\n", dAgent, Percentile(agent, 0.99));
  std::printf("  more than the floor at p50         %8.3f   (target: at most 0.300)\n", dAgent - dFloor);
  return 0;
}
