// Routing and business-number lookups in tables of 10,000 entries, against a bare std::map find on prepared
// keys.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Tables.h"

namespace {

CAgentData& Tables() {
  static CTempHome home;
  static CAgentData* pData = [] {
    WriteTables(home);
    auto* p = new CAgentData();
    p->Init(home.Root());
    CheckTables(*p);
    return p;
  }();
  return *pData;
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
  CAgentData& data = Tables();
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
  CAgentData& data = Tables();
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
  CAgentData& data = Tables();
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
