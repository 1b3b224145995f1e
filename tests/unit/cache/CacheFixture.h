// The policy and task cache over a home of its own.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cache/AgentCache.h"
#include "platform/doc/PJsonParse.h"
#include "support/FileTree.h"
#include "support/MainLog.h"
#include "support/TempHome.h"

class CCacheTest : public ::testing::Test {
 protected:
  // Initialises the cache with these elements of the task configuration.
  void Load(const std::string& strElements) {
    m_home.WriteFile("etc/zxagent/taskconf.json", R"({"taskconf":[)" + strElements + "]}");
    ASSERT_EQ(m_cache.Init(m_home.Root()), 1);
    m_log.Clear();
  }
  static std::string Conf(const std::string& strProduct, const std::string& strCombo,
                          const std::string& strCommand, int iSaveCount) {
    return R"({"product":")" + strProduct + R"(","combo":")" + strCombo + R"(","command":")" + strCommand +
           R"(","savecount":)" + std::to_string(iSaveCount) + "}";
  }

  int Save(const CPString& strID, const CPString& strCommand, int bResult = 0) {
    const std::string strMsg = R"({"ID":")" + strID.Str() + R"(","x":1})";
    return m_cache.SavePolicyFile(0x2a, strID, "Scan", "One", strCommand, strMsg.c_str(), bResult);
  }

  // The save count of a command; -1 when it is no task.
  int CountOf(const CPString& strProduct, const CPString& strCombo, const CPString& strCommand) {
    unsigned int uiSaveCount = 4711;
    if (m_cache.FindTaskConf(strProduct, strCombo, strCommand, uiSaveCount) == 0)
      return -1;
    return static_cast<int>(uiSaveCount);
  }

  std::string Path(const std::string& strRelative) const { return m_home.Root().Str() + strRelative; }
  // Files of the cache, relative to it.
  std::vector<std::string> Cached() const { return FilesBelow(Path("data/policy/agentcache")); }
  std::vector<std::string> Tasks() const { return FilesBelow(Path("data/policy/agentcache/Scan_One/task")); }

  // The verdict in a copy, as text; "(none)" when there is none.
  std::string Verdict(const std::string& strCached) const {
    zxtools::CPJsonParse json;
    EXPECT_EQ(json.LoadFile(Path("data/policy/agentcache/" + strCached)), 1) << strCached;
    const zxtools::HJsonNode hResult = json.GetNode("Result_Agent_Taskmgr");
    CPString strValue("(none)");
    if (hResult != nullptr)
      zxtools::CPJsonParse::GetValue(hResult, strValue);
    return strValue.Str();
  }
  std::string Text(const std::string& strCached) const {
    return m_home.ReadFile("data/policy/agentcache/" + strCached).Str();
  }

  CTempHome m_home;
  CMainLog m_log;
  CAgentCache m_cache;
};
