// The cloud link against clients that do nothing but MQTT, over TLS to a real broker with a consumer behind
// it: blocking senders, push latency (alone and under uploads), and what an idle connection costs.
//   link_bench                the comparison
//   link_bench --busy         the same without the idle connections
//   link_bench --idle ROLE .. a process that only connects ("none", "bare", "link"); started by the
//   comparison
#include <mosquitto.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "LinkClients.h"
#include "platform/cloud/zxcloud.h"
#include "support/CloudServers.h"
#include "support/TempHome.h"

namespace {

constexpr int kSenders = 32;
constexpr size_t kSmallBytes = 1024;
constexpr size_t kLargeBytes = 100u << 10;
constexpr int kRounds = 7;
constexpr int kMessages = 8000;
constexpr int kPushes = 300;
constexpr int kBusyPushes = 150;
constexpr auto kPushEvery = std::chrono::milliseconds(3);
constexpr int kIdleSeconds = 20;
constexpr int kSendTimeoutMs = 100000;
constexpr char kUpload[] = "zx/v1/bench/up/2";
constexpr char kBarePush[] = "bench/push";
constexpr char kLinkPush[] = "zx/v1/m-1/push/7";

[[noreturn]] void Fail(const char* pszWhat) {
  std::fprintf(stderr, "link_bench: %s\n", pszWhat);
  std::exit(1);
}

double NowSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto fnSeconds = [](const timeval& tv) {
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
  };
  return fnSeconds(usage.ru_utime) + fnSeconds(usage.ru_stime);
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

// --- The link, as its host uses it.

std::atomic<bool> s_bConnected{false};
std::mutex s_mutexPush;
std::condition_variable s_condPush;
double s_dPushAt = 0;  // when the last push arrived; 0: none yet

void Pushed() {
  const double dNow = NowSeconds();
  const std::lock_guard lock(s_mutexPush);
  s_dPushAt = dNow;
  s_condPush.notify_all();
}

void OpenLink(const std::string& strConfigFile) {
  if (zxcloud_setopt("mid=m-1:m2=second:cloudtcp_disable=0:disable_hb=1") != 0)
    Fail("zxcloud_setopt");
  zxcloud_record record{strConfigFile.c_str(),
                        "bench",
                        [](int, const char*) {
                          Pushed();
                          return 0;
                        },
                        [](int, const char*) { return 0; },
                        [](const char*, unsigned short) {
                          s_bConnected = true;
                          return 0;
                        },
                        [] { return 0; },
                        [](int, int iLevel, const char* pszText) {
                          if (iLevel >= 3)
                            std::fprintf(stderr, "%s\n", pszText);
                        },
                        [](int, const char*, int) { return 0; },
                        [](int, int, const char*, int) { return 0; }};
  if (zxcloud_init(&record) != 0)
    Fail("zxcloud_init");
  for (int i = 0; i < 30000 && !s_bConnected; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  if (!s_bConnected)
    Fail("the link does not connect");
}

// --- Blocking senders.

using TSend = std::function<void(std::string_view payload)>;

struct _Figures {
  double dRate = 0;   // messages per second
  double dCpuUs = 0;  // of this process, per message
};

_Figures Senders(const TSend& fnSend, size_t uBytes, int iMessages) {
  const std::string strPayload(uBytes, 'b');
  std::atomic<int> iLeft{iMessages};
  std::vector<std::thread> senders;
  const double dCpu = CpuSeconds();
  const double dStart = NowSeconds();
  for (int i = 0; i < kSenders; ++i) {
    senders.emplace_back([&] {
      while (iLeft.fetch_sub(1) > 0)
        fnSend(strPayload);
    });
  }
  for (std::thread& sender : senders)
    sender.join();
  const double dSeconds = NowSeconds() - dStart;
  return {iMessages / dSeconds, (CpuSeconds() - dCpu) / iMessages * 1e6};
}

// --- Push latency.

// The cloud's side: publishes one command at a time.
class CPusher {
 public:
  explicit CPusher(int iPort) {
    m_pMosq = mosquitto_new("pusher", true, nullptr);
    mosquitto_int_option(m_pMosq, MOSQ_OPT_TCP_NODELAY, 1);
    if (mosquitto_connect(m_pMosq, "127.0.0.1", iPort, 60) != MOSQ_ERR_SUCCESS ||
        mosquitto_loop_start(m_pMosq) != MOSQ_ERR_SUCCESS)
      Fail("the pusher does not connect");
  }
  ~CPusher() {
    mosquitto_disconnect(m_pMosq);
    mosquitto_loop_stop(m_pMosq, false);
    mosquitto_destroy(m_pMosq);
  }
  CPusher(const CPusher&) = delete;
  CPusher& operator=(const CPusher&) = delete;

  // Milliseconds from the publish to the callback.
  double Push(const char* pszTopic) {
    const std::string strText = R"({"ID":"bench-)" + std::to_string(++m_iNumber) +
                                R"(","Command":"disk_usage","pad":")" + std::string(200, 'p') + "\"}";
    {
      const std::lock_guard lock(s_mutexPush);
      s_dPushAt = 0;
    }
    const double dStart = NowSeconds();
    mosquitto_publish(m_pMosq, nullptr, pszTopic, static_cast<int>(strText.size()), strText.data(), 1, false);
    std::unique_lock lock(s_mutexPush);
    if (!s_condPush.wait_for(lock, std::chrono::seconds(20), [] { return s_dPushAt != 0; }))
      Fail("a push does not arrive");
    return (s_dPushAt - dStart) * 1000;
  }

 private:
  mosquitto* m_pMosq = nullptr;
  int m_iNumber = 0;
};

// Pushes while 32 senders keep 100 KB uploads under way; without fnSend, pushes alone.
double PushMedian(CPusher& pusher, const char* pszTopic, int iPushes, const TSend* pfnSend) {
  std::atomic<bool> bStop{false};
  std::atomic<int> iUploads{0};
  std::vector<std::thread> senders;
  const std::string strPayload(kLargeBytes, 'u');
  for (int i = 0; pfnSend != nullptr && i < kSenders; ++i) {
    senders.emplace_back([&] {
      while (!bStop) {
        (*pfnSend)(strPayload);
        ++iUploads;
      }
    });
  }
  std::vector<double> times;
  while (pfnSend != nullptr && iUploads < 2 * kSenders)
    std::this_thread::sleep_for(kPushEvery);
  for (int i = 0; i < iPushes; ++i) {
    std::this_thread::sleep_for(kPushEvery);
    times.push_back(pusher.Push(pszTopic));
  }
  bStop = true;
  for (std::thread& sender : senders)
    sender.join();
  return Median(times);
}

// --- Idle connections, each in a process of its own.

int IdleRole(char** argv) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const std::string strRole = argv[2];
  std::unique_ptr<CBareClient> pBare;
  if (strRole == "bare")
    pBare = std::make_unique<CBareClient>("idle-bare", std::atoi(argv[3]), argv[4], kBarePush,
                                          [](std::string_view) {});
  if (strRole == "link")
    OpenLink(argv[5]);
  std::puts("ready");
  std::fflush(stdout);
  pause();
  return 0;
}

struct _Idle {
  double dDirtyMb = 0;
  double dWakeUps = 0;  // per second
};

double DirtyMb(pid_t iPid) {
  std::ifstream file("/proc/" + std::to_string(iPid) + "/smaps_rollup");
  for (std::string strLine; std::getline(file, strLine);) {
    if (strLine.rfind("Private_Dirty:", 0) == 0)
      return std::atof(strLine.c_str() + std::strlen("Private_Dirty:")) / 1024;
  }
  return 0;
}

long Switches(pid_t iPid) {
  long lCount = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(iPid) + "/task")) {
    std::ifstream file(entry.path() / "status");
    for (std::string strLine; std::getline(file, strLine);) {
      if (strLine.rfind("voluntary_ctxt_switches:", 0) == 0)
        lCount += std::atol(strLine.c_str() + std::strlen("voluntary_ctxt_switches:"));
    }
  }
  return lCount;
}

struct _IdleProcess {
  pid_t iPid = -1;
  long lSwitches = 0;
};

_IdleProcess StartIdle(const char* pszSelf, const char* pszRole, const std::string& strPort,
                       const std::string& strCa, const std::string& strConfig) {
  int fds[2];
  if (pipe(fds) != 0)
    Fail("pipe");
  _IdleProcess process;
  process.iPid = fork();
  if (process.iPid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    execl(pszSelf, pszSelf, "--idle", pszRole, strPort.c_str(), strCa.c_str(), strConfig.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  char szReady[8];
  if (read(fds[0], szReady, sizeof(szReady)) <= 0)
    Fail("an idle process does not start");
  close(fds[0]);
  return process;
}

void Idle(const char* pszSelf, const std::string& strPort, const std::string& strCa,
          const std::string& strConfig) {
  const char* roles[] = {"none", "bare", "link"};
  _IdleProcess processes[3];
  for (int i = 0; i < 3; ++i)
    processes[i] = StartIdle(pszSelf, roles[i], strPort, strCa, strConfig);
  std::this_thread::sleep_for(std::chrono::seconds(2));
  for (_IdleProcess& process : processes)
    process.lSwitches = Switches(process.iPid);
  std::this_thread::sleep_for(std::chrono::seconds(kIdleSeconds));
  _Idle idle[3];
  for (int i = 0; i < 3; ++i) {
    idle[i] = {DirtyMb(processes[i].iPid),
               static_cast<double>(Switches(processes[i].iPid) - processes[i].lSwitches) / kIdleSeconds};
    kill(processes[i].iPid, SIGKILL);
    waitpid(processes[i].iPid, nullptr, 0);
  }
  std::printf("\nidle for %d s                          private dirty MB   wake-ups/s\n", kIdleSeconds);
  std::printf("  process without a connection        %12.2f %14.2f\n", idle[0].dDirtyMb, idle[0].dWakeUps);
  std::printf("  bare TLS MQTT client                %12.2f %14.2f\n", idle[1].dDirtyMb, idle[1].dWakeUps);
  std::printf("  link                                %12.2f %14.2f   (target: at most 2)\n", idle[2].dDirtyMb,
              idle[2].dWakeUps);
  std::printf("  link above the bare client          %12.2f   (target: at most 1.50)\n",
              idle[2].dDirtyMb - idle[1].dDirtyMb);
}

// Takes what is published, as the cloud would, in a process of its own.
pid_t StartConsumer(int iPort) {
  const pid_t iPid = fork();
  if (iPid != 0)
    return iPid;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  mosquitto* pMosq = mosquitto_new("consumer", true, nullptr);
  mosquitto_int_option(pMosq, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_connect(pMosq, "127.0.0.1", iPort, 60);
  mosquitto_subscribe(pMosq, nullptr, "zx/v1/+/up/+", 1);
  mosquitto_loop_forever(pMosq, -1, 1);
  _exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 6 && std::strcmp(argv[1], "--idle") == 0)
    return IdleRole(argv);
  CTempHome home;
  CTestCa ca(home.Root().Str(), "bench");
  const _CertFiles cert = ca.Issue("server", {"localhost", "127.0.0.1"});
  CTestBroker broker(home.Path("broker/").Str(), cert);
  mosquitto_lib_init();
  const pid_t iConsumer = StartConsumer(broker.PlainPort());
  CTestHttps https(&cert);
  https.Answer("/v1/tconf", [&](const _TestRequest&) {
    return _TestReply{200,
                      R"({"v":1,"pcid":"veltcwpp,zxpmaint,7","short":")" + https.Address() +
                          R"(","long":"127.0.0.1:)" + std::to_string(broker.TlsPort()) +
                          R"(","spread_sec":0,"keepalive_sec":60})",
                      {}};
  });
  const std::string strConfig = home.Path("etc/zxagent/inner/zxagent.json").Str();
  home.WriteFile("etc/zxagent/inner/zxagent.json", R"({"tconf":{"tconf_url":")" + https.Address() +
                                                       R"("},"zxcloudconf":{"ca_file":")" + ca.File() +
                                                       "\"}}");
  if (argc < 2 || std::strcmp(argv[1], "--busy") != 0)
    Idle(argv[0], std::to_string(broker.TlsPort()), ca.File(), strConfig);

  OpenLink(strConfig);
  CBareClient bare("bare", broker.TlsPort(), ca.File(), kBarePush, [](std::string_view) { Pushed(); });
  CBareClient uploads("bare-uploads", broker.TlsPort(), ca.File(), "", [](std::string_view) {});
  CFloorClient floor("floor", broker.TlsPort(), ca.File());
  const TSend fnLink = [](std::string_view payload) {
    if (zxcloud_send_sync(payload.data(), static_cast<int>(payload.size()), 2, kSendTimeoutMs) != 0)
      Fail("zxcloud_send_sync");
  };
  const TSend fnBare = [&](std::string_view payload) { uploads.Send(kUpload, payload); };
  const TSend fnFloor = [&](std::string_view payload) { floor.Send(kUpload, payload); };

  std::vector<double> rates[3];
  std::vector<double> cpus[3];
  std::vector<double> rateRatios;
  std::vector<double> cpuRatios;
  for (int iRound = 0; iRound < kRounds; ++iRound) {
    _Figures figures[3];
    for (int i = 0; i < 3; ++i) {
      const int iWay = (i + iRound) % 3;
      const TSend* ways[] = {&fnLink, &fnBare, &fnFloor};
      figures[iWay] = Senders(*ways[iWay], kSmallBytes, kMessages);
      rates[iWay].push_back(figures[iWay].dRate);
      cpus[iWay].push_back(figures[iWay].dCpuUs);
    }
    rateRatios.push_back(figures[0].dRate / figures[1].dRate);
    cpuRatios.push_back(figures[0].dCpuUs / figures[1].dCpuUs);
  }
  std::printf("\n32 blocking senders of 1 KB, TLS         messages/s   CPU us each\n");
  std::printf("  hand-written encoder (floor)        %12.0f %12.1f\n", Median(rates[2]), Median(cpus[2]));
  std::printf("  bare libmosquitto, own loop         %12.0f %12.1f\n", Median(rates[1]), Median(cpus[1]));
  std::printf("  link                                %12.0f %12.1f\n", Median(rates[0]), Median(cpus[0]));
  std::printf("  link over bare                      %12.2f %12.2f   (target: 0.95 or more; 1.20 or less)\n",
              Median(rateRatios), Median(cpuRatios));

  CPusher pusher(broker.PlainPort());
  const double dBare = PushMedian(pusher, kBarePush, kPushes, nullptr);
  const double dLink = PushMedian(pusher, kLinkPush, kPushes, nullptr);
  const double dBusyBare = PushMedian(pusher, kBarePush, kBusyPushes, &fnBare);
  const double dBusyLink = PushMedian(pusher, kLinkPush, kBusyPushes, &fnLink);
  std::printf("\npush latency, p50 in ms                       alone   under 32 uploads of 100 KB\n");
  std::printf("  bare client (uploads beside it)     %12.3f %12.3f\n", dBare, dBusyBare);
  std::printf("  link                                %12.3f %12.3f\n", dLink, dBusyLink);
  std::printf("  link more, times                    %12.3f %12.2f   (target: at most 0.050; 1.5)\n",
              dLink - dBare, dBusyLink / dBusyBare);
  zxcloud_uninit();
  kill(iConsumer, SIGKILL);
  waitpid(iConsumer, nullptr, 0);
  return 0;
}
