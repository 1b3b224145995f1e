// The asset-collection part over a home of its own and a stand-in for the manager.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "asset/AgentAsset.h"
#include "support/FakeHub.h"
#include "support/FileTree.h"
#include "support/MainLog.h"
#include "support/TempHome.h"

class CAssetTest : public ::testing::Test {
 protected:
  CAssetTest() {
    m_asset.Init(m_home.Root());
    m_log.Clear();
  }

  static std::string Policy(const std::string& strOpen, const std::string& strEntries) {
    return R"({"ID":"cloud","Param":{"open":)" + strOpen + R"(,"list":[)" + strEntries + "]}}";
  }
  static std::string Entry(const std::string& strCombo, int iOpen = 1, int iInterval = 60,
                           const std::string& strTask = "{}") {
    return R"({"open":)" + std::to_string(iOpen) + R"(,"interval":)" + std::to_string(iInterval) +
           R"(,"combo":")" + strCombo + R"(","task":)" + strTask + "}";
  }
  int Parse(const std::string& strPolicy) {
    return m_asset.ParseAssetPolicy(0x2a, "id-1", strPolicy.c_str());
  }

  // The command for one entry, also an item of a combined command.
  static std::string Command(const std::string& strCombo, int iOpen = 1, int iInterval = 60,
                             const std::string& strTask = "{}") {
    return R"({"ID":"id-1","Command":"inner_asset_scan_cycle","combo":")" + strCombo + R"(","open":)" +
           std::to_string(iOpen) + R"(,"interval":)" + std::to_string(iInterval) + R"(,"task":)" + strTask +
           "}";
  }
  static std::string Combined(const std::string& strCombo, const std::string& strItems) {
    return R"({"ID":"id-1","combo":")" + strCombo + R"(","Command":"inner_asset_scan_cycle","data":[)" +
           strItems + "]}";
  }

  // What was pushed: "product|combo|text", in order.
  std::vector<std::string> Pushed() const {
    std::vector<std::string> pushed;
    for (const _RoutedCommand& command : m_hub.Routed())
      pushed.push_back(command.strProduct.Str() + "|" + command.strCombo.Str() + "|" + command.strMsg.Str());
    return pushed;
  }
  std::string Path(const std::string& strRelative) const { return m_home.Root().Str() + strRelative; }
  std::vector<std::string> Copies() const { return FilesBelow(Path("data/policy/assetcollection")); }
  std::string Copy(const std::string& strCombo) const {
    return m_home.ReadFile("data/policy/assetcollection/" + strCombo).Str();
  }

  CTempHome m_home;
  CMainLog m_log;
  CFakeHub m_hub;
  CAgentAsset m_asset;
};
