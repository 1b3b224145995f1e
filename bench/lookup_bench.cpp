// Routing and business-number lookups in tables of 10,000 entries, against a bare std::map find on prepared
// keys.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "data/AgentData.h"
#include "support/TempHome.h"

namespace {

constexpr int kEntries = 10000;

std::string CommandName(int i) {
  return "command_" + std::to_string(i * 7919 % 1000003);
}
std::string ProductName(int i) {
  return "Product" + std::to_string(i % 97);
}
std::string ComboName(int i) {
  return "Combo" + std::to_string(i);
}

std::string GuidText(int i) {
  char szGuid[40];
  std::snprintf(szGuid, sizeof(szGuid), "%08X-1111-2222-3333-%012X", i, i);
  return szGuid;
}

// A data store whose tables come from files, as in production.
struct CTables {
  CTempHome home;
  CAgentData data;
  CTables() {
    std::string strRoute = R"({"commandroute":[)";
    std::string strPcid;
    for (int i = 0; i < kEntries; ++i) {
      if (i != 0)
        strRoute += ',';
      strRoute += R"({"id":")" + GuidText(i) + R"(","command":")" + CommandName(i) +
                  R"(","product":"","combo":"","desc":""})";
      strPcid += (i != 0 ? "|" : "") + ProductName(i) + "," + ComboName(i) + "," + std::to_string(i + 1);
    }
    strRoute += "]}";
    home.WriteFile("etc/zxagent/commandroute.json", strRoute);
    home.WriteFile("etc/zxagent/inner/pcid.dat", strPcid);
    home.WriteFile(
        "etc/coms/client/one/config.json",
        R"({"plugins":[{"id":"00000001-0000-0000-0000-000000000001","uuid":"u","product":"p","combo":"c"}]})");
    home.WriteFile("lib/modules/.keep", "");
    if (symlink(ZX_BENCH_CONFIGPROXY, home.Path("lib/modules/libconfigproxy.so").c_str()) != 0)
      std::abort();
    data.Init(CPString(home.Home()));
    CPStrList list;
    if (data.GetCommandGuid(0, "p", "c", CommandName(1), list) == 0)
      std::abort();  // an empty table would measure nothing
  }
};

CTables& Tables() {
  static CTables* pTables = new CTables();
  return *pTables;
}

std::vector<int> RandomOrder() {
  std::mt19937 random(1);
  std::vector<int> order(4096);
  for (int& i : order)
    i = static_cast<int>(random() % kEntries);
  return order;
}

void MapFind_Floor(benchmark::State& state) {
  std::map<std::string, std::string> map;
  for (int i = 0; i < kEntries; ++i)
    map[CommandName(i)] = GuidText(i);
  std::vector<std::string> keys;
  for (const int i : RandomOrder())
    keys.push_back(CommandName(i));
  size_t u = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(map.find(keys[u++ & 4095]));
}
BENCHMARK(MapFind_Floor);

void Routing_GetCommandGuid(benchmark::State& state) {
  CAgentData& data = Tables().data;
  std::vector<CPString> keys;
  for (const int i : RandomOrder())
    keys.emplace_back(CommandName(i));
  const CPString strProduct("veltcwpp");
  const CPString strCombo("zxsample");
  size_t u = 0;
  for (auto _ : state) {
    CPStrList list;
    benchmark::DoNotOptimize(data.GetCommandGuid(1, strProduct, strCombo, keys[u++ & 4095], list));
  }
}
BENCHMARK(Routing_GetCommandGuid);

void PcidMapFind_Floor(benchmark::State& state) {
  std::map<int, std::pair<std::string, std::string>> map;
  for (int i = 0; i < kEntries; ++i)
    map[i + 1] = {ProductName(i), ComboName(i)};
  const std::vector<int> order = RandomOrder();
  size_t u = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(map.find(order[u++ & 4095] + 1));
}
BENCHMARK(PcidMapFind_Floor);

void Pcid_GetProductComboByID(benchmark::State& state) {
  CAgentData& data = Tables().data;
  const std::vector<int> order = RandomOrder();
  CPString strProduct;
  CPString strCombo;
  size_t u = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(data.GetProductComboByID(order[u++ & 4095] + 1, strProduct, strCombo));
}
BENCHMARK(Pcid_GetProductComboByID);

void PcidKeyMapFind_Floor(benchmark::State& state) {
  std::map<std::string, int> map;
  std::vector<std::string> keys;
  for (int i = 0; i < kEntries; ++i)
    map[CPString(ProductName(i) + "/" + ComboName(i)).Lower().Str()] = i + 1;
  for (const int i : RandomOrder())
    keys.push_back(CPString(ProductName(i) + "/" + ComboName(i)).Lower().Str());
  size_t u = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(map.find(keys[u++ & 4095]));
}
BENCHMARK(PcidKeyMapFind_Floor);

void Pcid_GetIDByProductCombo(benchmark::State& state) {
  CAgentData& data = Tables().data;
  std::vector<std::pair<CPString, CPString>> keys;
  for (const int i : RandomOrder())
    keys.emplace_back(ProductName(i), ComboName(i));
  int iId = 0;
  size_t u = 0;
  for (auto _ : state) {
    const auto& key = keys[u++ & 4095];
    benchmark::DoNotOptimize(data.GetIDByProductCombo(key.first, key.second, iId));
  }
}
BENCHMARK(Pcid_GetIDByProductCombo);

}  // namespace
