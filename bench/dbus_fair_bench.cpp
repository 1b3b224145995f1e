// What one sick component costs the others, over a daemon of their own: requests of 4 KB between two healthy
// processes, usually and beside
//   - a receiver that is stopped, with a full window of requests and broadcasts of the same sender before it;
//   - a component that floods a third one as fast as it is let.
#include "DbusBench.h"

namespace {

constexpr size_t kBytes = 4096;
constexpr int kBatch = 500;

struct CIgnore final : IMRSendComplete {
  void SendCallback(unsigned int, long, const unsigned char*, unsigned int, unsigned long long,
                    void*) override {}
};

void Measure(benchmark::State& state, IBusContext* pBus) {
  CBusWindow window(pBus, PeerGuid(1), kBytes);
  for (auto _ : state)
    window.Run(static_cast<int>(state.range(0)), kBatch);
  if (window.Failed())
    state.SkipWithError("a request failed");
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void DbusFair_Usual_Floor(benchmark::State& state) {
  const auto peer = MakePeer("bus", 1);
  const CJoined own;
  Measure(state, own.Bus());
}

void DbusFair_BesideStopped(benchmark::State& state) {
  CIgnore ignore;
  const auto peer = MakePeer("bus", 1);
  const auto sick = MakePeer("bus", 2);
  const CJoined own;
  CBusWindow(own.Bus(), PeerGuid(2), kBytes).Run(1, 1);  // it is there
  sick->Stop();
  const std::string strData(kBytes, 's');
  const GUID guidSick = PeerGuid(2);
  for (int i = 0; i < 1000; ++i)
    own.Bus()->AsynSendEx(&guidSick, 1, strData.data(), kBytes, &ignore, nullptr, nullptr, 60000);
  for (int i = 0; i < 100; ++i)
    own.Bus()->BroadcastSend(1, strData.data(), kBytes);
  CBusWindow(own.Bus(), PeerGuid(1), kBytes).Run(1, 1);
  Measure(state, own.Bus());
}

void DbusFair_BesideFlood(benchmark::State& state) {
  const auto peer = MakePeer("bus", 1);
  const auto target = MakePeer("bus", 3);
  const auto flood = MakePeer("flood", 2);
  const CJoined own;
  Measure(state, own.Bus());
}

void Cases(benchmark::internal::Benchmark* pBenchmark) {
  pBenchmark->Arg(1)->Arg(64)->ArgName("window")->UseRealTime()->Unit(benchmark::kMillisecond);
}
BENCHMARK(DbusFair_Usual_Floor)->Apply(Cases);
BENCHMARK(DbusFair_BesideStopped)->Apply(Cases);
BENCHMARK(DbusFair_BesideFlood)->Apply(Cases);

}  // namespace
