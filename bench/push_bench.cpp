// A pushed command from the cloud library's callback to AsynSendEx, whole and by step, in tables of 10,000
// entries.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "Tables.h"
#include "agent/AgentMgr.h"
#include "data/AgentLog.h"
#include "platform/doc/PJsonParse.h"
#include "platform/os/ZxMsgQueue.h"

namespace {

constexpr int kPcid = 4711;

// Accepts every send and gives its record up at once.
class CNullBus final : public IBusContext {
 public:
  ~CNullBus() = default;
  uint32_t Initialize(const GUID*) override { return 0; }
  void Uninitialize() override {}
  uint32_t Receive(uint32_t, IMRReceiveComplete*) override { return 0; }
  void Unreceive(uint32_t) override {}
  uint32_t AsynSendEx(const GUID*, uint32_t, const void* pData, uint32_t, IMRSendComplete*, void* pContext,
                      unsigned long long* pui64ACT, uint32_t) override {
    benchmark::DoNotOptimize(pData);
    *pui64ACT = ++m_ui64ACT;
    delete static_cast<_SendTaskMgrData*>(pContext);
    return 0;
  }
  uint32_t BroadcastSend(uint32_t, const void*, uint32_t) override { return 0; }
  uint32_t Reply(uint32_t, long, const void*, uint32_t, void*) override { return 0; }

 private:
  unsigned long long m_ui64ACT = 0;
};

struct CPushFixture {
  CTempHome home;
  CNullBus bus;
  CAgentMgr mgr;
  std::string strPush = R"({"ID":"20261120-0001-4711","Command":")" + CommandName(kPcid) +
                        R"(","Param":{"path":"/","depth":3,"pad":")" + std::string(180, 'x') + R"("}})";
  CPushFixture() {
    WriteTables(home);
    mgr.Data().Init(home.Root());
    CheckTables(mgr.Data());
    mgr.SetCtx(static_cast<IBusContext*>(&bus));
  }
};

CPushFixture& Fixture() {
  static auto* pFixture = new CPushFixture();
  return *pFixture;
}

// The callback's part: a copy of the text into the work queue, and the work thread's part: taking it out.
void Push_Step_QueueCopy(benchmark::State& state) {
  CPushFixture& f = Fixture();
  ZxMsgQueue queue;
  ZxMsgQueueInit(queue);
  for (auto _ : state) {
    char* pCopy = new char[f.strPush.size() + 1];
    std::memcpy(pCopy, f.strPush.c_str(), f.strPush.size() + 1);
    ZxMsgQueueInsert(queue, kWorkPushmsg, kPcid, pCopy, f.strPush.size());
    ZxMsgRecord record;
    ZxGetMsgFromQueue(queue, record, 0);
    delete[] static_cast<char*>(record.pData);
  }
  ZxMsgQueueFini(queue);
}
BENCHMARK(Push_Step_QueueCopy);

void Push_Step_JsonParse(benchmark::State& state) {
  CPushFixture& f = Fixture();
  for (auto _ : state) {
    zxtools::CPJsonParse json;
    benchmark::DoNotOptimize(json.LoadBuffer(f.strPush.c_str()));
  }
}
BENCHMARK(Push_Step_JsonParse);

void Push_Step_PcidLookup(benchmark::State& state) {
  CPushFixture& f = Fixture();
  for (auto _ : state) {
    CPString strProduct;
    CPString strCombo;
    benchmark::DoNotOptimize(f.mgr.Data().GetProductComboByID(kPcid, strProduct, strCombo));
  }
}
BENCHMARK(Push_Step_PcidLookup);

void Push_Step_RouteLookup(benchmark::State& state) {
  CPushFixture& f = Fixture();
  const CPString strProduct(ProductName(kPcid));
  const CPString strCombo(ComboName(kPcid));
  const CPString strCommand(CommandName(kPcid));
  for (auto _ : state) {
    CPStrList list;
    benchmark::DoNotOptimize(f.mgr.Data().GetCommandGuid(1, strProduct, strCombo, strCommand, list));
  }
}
BENCHMARK(Push_Step_RouteLookup);

void Push_Step_HandOff(benchmark::State& state) {
  CPushFixture& f = Fixture();
  const CPString strGuid(GuidText(kPcid));
  const CPString strCommand(CommandName(kPcid));
  const CPString strMsg(f.strPush);
  for (auto _ : state)
    benchmark::DoNotOptimize(
        f.mgr.SendPushmsgToTaskMgr(1, "id", strGuid, "veltcwpp", "zxsample", strCommand, strMsg));
}
BENCHMARK(Push_Step_HandOff);

// The whole way on the work thread; the second with its log lines written as in production.
void Push_Whole_Silent(benchmark::State& state) {
  CPushFixture& f = Fixture();
  for (auto _ : state)
    benchmark::DoNotOptimize(f.mgr.ZxcloudPushmsg(kPcid, f.strPush.c_str()));
}
BENCHMARK(Push_Whole_Silent);

void Push_Whole_Logged(benchmark::State& state) {
  CPushFixture& f = Fixture();
  LogSetHome(f.home.Root());
  g_hLogMain = LogInit("zxagent");
  g_hLogFlow = LogInit("zxagentflow");
  for (auto _ : state)
    benchmark::DoNotOptimize(f.mgr.ZxcloudPushmsg(kPcid, f.strPush.c_str()));
  LogUninit(g_hLogMain.exchange(nullptr));
  LogUninit(g_hLogFlow.exchange(nullptr));
}
BENCHMARK(Push_Whole_Logged);

}  // namespace
