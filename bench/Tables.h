// A home whose routing table and business-number table hold 10,000 entries each, loaded as in production.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "data/AgentData.h"
#include "support/TempHome.h"

inline constexpr int kEntries = 10000;

inline std::string CommandName(int i) {
  return "command_" + std::to_string(i * 7919 % 1000003);
}
inline std::string ProductName(int i) {
  return "Product" + std::to_string(i % 97);
}
inline std::string ComboName(int i) {
  return "Combo" + std::to_string(i);
}
inline std::string GuidText(int i) {
  char szGuid[40];
  (void)std::snprintf(szGuid, sizeof(szGuid), "%08X-1111-2222-3333-%012X", static_cast<unsigned>(i),
                      static_cast<unsigned>(i));
  return szGuid;
}

// The same 4,096 random entries in every benchmark.
inline std::vector<int> RandomOrder() {
  std::mt19937 random(1);
  std::vector<int> order(4096);
  for (int& i : order)
    i = static_cast<int>(random() % kEntries);
  return order;
}

inline void WriteTables(const CTempHome& home) {
  std::string strRoute = R"({"commandroute":[)";
  std::string strPcid;
  for (int i = 0; i < kEntries; ++i) {
    strRoute += std::string(i != 0 ? "," : "") + R"({"id":")" + GuidText(i) + R"(","command":")" +
                CommandName(i) + R"(","product":"","combo":"","desc":""})";
    strPcid += (i != 0 ? "|" : "") + ProductName(i) + "," + ComboName(i) + "," + std::to_string(i + 1);
  }
  strRoute += "]}";
  home.WriteFile("etc/zxagent/commandroute.json", strRoute);
  home.WriteFile("etc/zxagent/inner/pcid.dat", strPcid);
  home.WriteFile(
      "etc/coms/client/one/config.json",
      R"({"plugins":[{"id":"00000001-0000-0000-0000-000000000001","uuid":"u","product":"p","combo":"c"}]})");
  home.MakeDir("lib/modules");
  if (symlink(ZX_BENCH_CONFIGPROXY, home.Path("lib/modules/libconfigproxy.so").c_str()) != 0)
    std::abort();
}

// An empty table would measure nothing.
inline void CheckTables(CAgentData& data) {
  CPStrList list;
  CPString strProduct;
  CPString strCombo;
  if (!data.GetCommandGuid(0, "p", "c", CommandName(1), list) ||
      !data.GetProductComboByID(kEntries, strProduct, strCombo))
    std::abort();
}
