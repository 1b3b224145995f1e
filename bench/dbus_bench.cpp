// Request and reply, and broadcasts, between processes over a daemon of their own: the component bus against
// bare sd-bus programs that carry the same bytes over the same daemon. One batch = kRequests pairs (or
// broadcasts).
//   bench_dbus [google-benchmark options]         starts the daemon and, for each case, the other processes
//   bench_dbus --peer bus|bare|flood ADDRESS NUMBER     one of them
#include <benchmark/benchmark.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "DbusBench.h"

namespace {

constexpr size_t kReplyBytes = 256;
constexpr int kReceivers = 4;
constexpr char kInterface[] = "com.zxagent.bus1.Component";
constexpr char kPath[] = "/com/zxagent/bus1/type/1";
int BatchOf(int64_t i64Bytes) {
  return i64Bytes >= 1 << 20 ? 50 : 1000;
}

std::string NameOf(int iNumber) {
  char sz[64];
  std::snprintf(sz, sizeof(sz), "com.zxagent.bus1.c.g000000020000400080000000000000%02x", iNumber);
  return sz;
}

int OnBareSend(sd_bus_message* pMessage, void*, sd_bus_error*) {
  static const std::string s_strReply(kReplyBytes, 'r');
  const void* pData = nullptr;
  size_t uLength = 0;
  sd_bus_message* pReply = nullptr;
  sd_bus_message_read_array(pMessage, 'y', &pData, &uLength);
  benchmark::DoNotOptimize(pData);
  sd_bus_message_new_method_return(pMessage, &pReply);
  sd_bus_message_append(pReply, "iu", 0, 1u);
  sd_bus_message_append_array(pReply, 'y', s_strReply.data(), s_strReply.size());
  const int iResult = sd_bus_send(nullptr, pReply, nullptr);
  sd_bus_message_unref(pReply);
  return iResult < 0 ? iResult : 1;
}

int OnBareBroadcast(sd_bus_message* pMessage, void* pBus, sd_bus_error*) {
  const void* pData = nullptr;
  size_t uLength = 0;
  sd_bus_message_read_array(pMessage, 'y', &pData, &uLength);
  if (uLength > 0 && *static_cast<const char*>(pData) == 'l')
    sd_bus_call_method_async(static_cast<sd_bus*>(pBus), nullptr, "com.zxagent.bus1.c.asker", kPath,
                             kInterface, "Done", nullptr, nullptr, nullptr);
  return 0;
}

sd_bus* OpenBare(const char* pszAddress, const char* pszName) {
  sd_bus* pBus = nullptr;
  sd_bus_new(&pBus);
  sd_bus_set_address(pBus, pszAddress);
  sd_bus_set_bus_client(pBus, 1);
  if (sd_bus_start(pBus) < 0 || sd_bus_request_name(pBus, pszName, 0) < 0)
    return nullptr;
  return pBus;
}

int RunBarePeer(const char* pszAddress, int iNumber) {
  static const sd_bus_vtable s_vtable[] = {
      SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Send", "ay", "iuay", &OnBareSend, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END};
  sd_bus* pBus = OpenBare(pszAddress, NameOf(iNumber).c_str());
  if (pBus == nullptr || sd_bus_add_object_vtable(pBus, nullptr, kPath, kInterface, s_vtable, nullptr) < 0 ||
      sd_bus_match_signal(pBus, nullptr, nullptr, kPath, kInterface, "Broadcast", &OnBareBroadcast, pBus) < 0)
    return 1;
  SayReady();
  for (;;) {
    if (sd_bus_process(pBus, nullptr) == 0)
      sd_bus_wait(pBus, UINT64_MAX);
  }
}

// The asking side, bare.
struct CBareAsker {
  sd_bus* pBus = nullptr;
  std::string strName;
  std::string strRequest;
  int iSent = 0, iDone = 0, iBatch = 0;

  void Send() {
    sd_bus_message* pCall = nullptr;
    sd_bus_message_new_method_call(pBus, &pCall, strName.c_str(), kPath, kInterface, "Send");
    sd_bus_message_append_array(pCall, 'y', strRequest.data(), strRequest.size());
    if (sd_bus_call_async(pBus, nullptr, pCall, &OnReply, this, 60000000) < 0)
      std::abort();
    sd_bus_message_unref(pCall);
    ++iSent;
  }
  static int OnReply(sd_bus_message* pMessage, void* pSelf, sd_bus_error*) {
    auto& self = *static_cast<CBareAsker*>(pSelf);
    const void* pData = nullptr;
    size_t uLength = 0;
    if (sd_bus_message_is_method_error(pMessage, nullptr) > 0)
      std::abort();
    sd_bus_message_skip(pMessage, "iu");
    sd_bus_message_read_array(pMessage, 'y', &pData, &uLength);
    benchmark::DoNotOptimize(pData);
    ++self.iDone;
    if (self.iSent < self.iBatch)
      self.Send();
    return 1;
  }
  static int OnDone(sd_bus_message*, void* pSelf, sd_bus_error*) {
    ++static_cast<CBareAsker*>(pSelf)->iDone;
    return 1;
  }
  void Run(int iUntil) {
    while (iDone < iUntil) {
      if (sd_bus_process(pBus, nullptr) == 0)
        sd_bus_wait(pBus, UINT64_MAX);
    }
  }
};

void Dbus_Bare_Floor(benchmark::State& state) {
  const auto peer = MakePeer("bare", 1);
  CBareAsker asker;
  asker.pBus = OpenBare(g_strAddress.c_str(), "com.zxagent.bus1.c.asker");
  asker.strName = NameOf(1);
  asker.strRequest.assign(static_cast<size_t>(state.range(1)), 'q');
  asker.iBatch = BatchOf(state.range(1));
  for (auto _ : state) {
    asker.iSent = asker.iDone = 0;
    for (int64_t i = 0; i < state.range(0); ++i)
      asker.Send();
    asker.Run(asker.iBatch);
  }
  sd_bus_close_unref(asker.pBus);
  state.SetItemsProcessed(state.iterations() * asker.iBatch);
}

void DbusBroadcast_Bare_Floor(benchmark::State& state) {
  static const sd_bus_vtable s_vtable[] = {
      SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Done", "", "", &CBareAsker::OnDone, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END};
  std::vector<std::unique_ptr<CProcess>> peers;
  for (int i = 1; i <= kReceivers; ++i)
    peers.push_back(MakePeer("bare", i));
  CBareAsker asker;
  asker.pBus = OpenBare(g_strAddress.c_str(), "com.zxagent.bus1.c.asker");
  sd_bus_add_object_vtable(asker.pBus, nullptr, kPath, kInterface, s_vtable, &asker);
  std::string strData(static_cast<size_t>(state.range(0)), 'b');
  const int iBatch = 200;
  for (auto _ : state) {
    asker.iDone = 0;
    for (int i = 1; i <= iBatch; ++i) {
      strData[0] = i == iBatch ? 'l' : 'b';
      sd_bus_message* pSignal = nullptr;
      sd_bus_message_new_signal(asker.pBus, &pSignal, kPath, kInterface, "Broadcast");
      sd_bus_message_append_array(pSignal, 'y', strData.data(), strData.size());
      sd_bus_send(asker.pBus, pSignal, nullptr);
      sd_bus_message_unref(pSignal);
    }
    asker.Run(kReceivers);
  }
  sd_bus_close_unref(asker.pBus);
  state.SetItemsProcessed(state.iterations() * iBatch);
}

// The asking side on the component bus: counts the reports of those that got the last broadcast.
class CReports final : public IMRReceiveComplete {
 public:
  explicit CReports(CBusWindow& window) : m_window(window) {}
  void ReceiveCallback(const GUID&, long, const unsigned char*, unsigned int, void*, void*) override {
    m_window.OneDone();
  }

 private:
  CBusWindow& m_window;
};

void Dbus_RequestReply(benchmark::State& state) {
  const auto peer = MakePeer("bus", 1);
  const CJoined own;
  CBusWindow window(own.Bus(), PeerGuid(1), static_cast<size_t>(state.range(1)));
  const int iBatch = BatchOf(state.range(1));
  for (auto _ : state)
    window.Run(static_cast<int>(state.range(0)), iBatch);
  if (window.Failed())
    state.SkipWithError("a request failed");
  state.SetItemsProcessed(state.iterations() * iBatch);
}

void DbusBroadcast_ToFour(benchmark::State& state) {
  std::vector<std::unique_ptr<CProcess>> peers;
  for (int i = 1; i <= kReceivers; ++i)
    peers.push_back(MakePeer("bus", i));
  const CJoined own;
  CBusWindow window(own.Bus(), PeerGuid(1), 0);
  CReports reports(window);
  if (own.Bus()->Receive(2, &reports) != 0)
    state.SkipWithError("no bus");
  std::string strData(static_cast<size_t>(state.range(0)), 'b');
  const int iBatch = 200;
  for (auto _ : state) {
    window.Begin(kReceivers, kReceivers);
    for (int i = 1; i <= iBatch; ++i) {
      strData[0] = i == iBatch ? 'l' : 'b';
      own.Bus()->BroadcastSend(1, strData.data(), static_cast<uint32_t>(strData.size()));
    }
    window.WaitEnd();
  }
  state.SetItemsProcessed(state.iterations() * iBatch);
}

void Requests(benchmark::internal::Benchmark* pBenchmark) {
  for (const int iBytes : {4096, 65536, 1 << 20}) {
    for (const int iWindow : {1, iBytes == 1 << 20 ? 8 : 64})
      pBenchmark->Args({iWindow, iBytes});
  }
  pBenchmark->ArgNames({"window", "bytes"})->UseRealTime()->Unit(benchmark::kMillisecond);
}
BENCHMARK(Dbus_Bare_Floor)->Apply(Requests);
BENCHMARK(Dbus_RequestReply)->Apply(Requests);
BENCHMARK(DbusBroadcast_Bare_Floor)->Arg(256)->Arg(4096)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(DbusBroadcast_ToFour)->Arg(256)->Arg(4096)->UseRealTime()->Unit(benchmark::kMillisecond);

constexpr char kConfig[] = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>custom</type><listen>unix:path=%s/bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow own="*"/><allow send_type="method_call"/><allow send_type="signal"/>
<allow send_requested_reply="true" send_type="method_return"/><allow send_requested_reply="true" send_type="error"/>
<allow receive_type="method_call"/><allow receive_type="method_return"/><allow receive_type="error"/>
<allow receive_type="signal"/></policy>
<limit name="max_message_size">8388608</limit><limit name="max_outgoing_bytes">16777216</limit>
<limit name="max_incoming_bytes">134217728</limit><limit name="max_replies_per_connection">4096</limit>
</busconfig>)";

int RunPeer(const std::string& strKind, const char* pszAddress, int iNumber) {
  if (strKind == "bus")
    return RunBusPeer(pszAddress, iNumber);
  return strKind == "flood" ? RunFlood(pszAddress, iNumber) : RunBarePeer(pszAddress, iNumber);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && std::strcmp(argv[1], "--peer") == 0)
    return RunPeer(argv[2], argv[3], std::atoi(argv[4]));
  char szDir[] = "/tmp/zxbusbench.XXXXXX";
  if (mkdtemp(szDir) == nullptr)
    return 1;
  char szConfig[4096];
  std::snprintf(szConfig, sizeof(szConfig), kConfig, szDir);
  const std::string strConfig = std::string(szDir) + "/bus.conf";
  std::ofstream(strConfig) << szConfig;
  g_strSelf = "/proc/self/exe";
  g_strAddress = std::string("unix:path=") + szDir + "/bus";
  {
    const CProcess daemon({"dbus-daemon", "--config-file=" + strConfig, "--nofork", "--nopidfile",
                           "--nosyslog", "--print-address"});
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
  }
  unlink(strConfig.c_str());
  unlink((std::string(szDir) + "/bus").c_str());
  rmdir(szDir);
  return 0;
}
