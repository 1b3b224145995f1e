// Storeys for the tests of the data store: a temporary home with the main log channel captured down to its
// most verbose level, and a store that is initialised on that home.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "data/AgentData.h"
#include "platform/doc/PJsonParse.h"
#include "support/MainLog.h"
#include "support/TempHome.h"

inline void WriteText(const std::string& strFile, const std::string& strText) {
  std::filesystem::create_directories(std::filesystem::path(strFile).parent_path());
  std::ofstream(strFile, std::ios::binary) << strText;
}

// The store with its fixed choices open: heartbeat mode and the machine's interfaces.
class CStore : public CAgentData {
 public:
  explicit CStore(const std::string& strSystemRoot) : CAgentData(CPString(strSystemRoot)) {
    m_pfnListInterfaces = &ListNone;
  }
  void SetDisableHb(int bDisableHb) { m_bDisableHb = bDisableHb; }
  void SetListInterfaces(bool (*pfnList)(std::vector<_InterfaceAddr>&)) { m_pfnListInterfaces = pfnList; }

 private:
  static bool ListNone(std::vector<_InterfaceAddr>&) { return false; }
};

class CLogFixture : public ::testing::Test {
 protected:
  std::vector<std::string> Lines() const { return m_log.Lines(); }
  void ClearLines() { m_log.Clear(); }

  // Relative to the home.
  void WriteFile(const std::string& strFile, const std::string& strText) const {
    m_home.WriteFile(CPString(strFile), CPString(strText));
  }
  std::string ReadFile(const std::string& strFile) const { return m_home.ReadFile(CPString(strFile)).Str(); }
  bool Exists(const std::string& strFile) const { return m_home.Exists(CPString(strFile)); }
  void Remove(const std::string& strFile) const { m_home.Remove(CPString(strFile)); }
  unsigned ModeOf(const std::string& strFile) const { return m_home.Mode(CPString(strFile)); }

  // Text of a member "a" or "a.b" of a JSON file; "<none>" when it is not there.
  std::string JsonOf(const std::string& strFile, const std::string& strMember) const {
    zxtools::CPJsonParse json;
    if (!json.LoadFile(CPString(m_strDir + strFile)))
      return "<no document>";
    const size_t uDot = strMember.find('.');
    zxtools::HJsonNode hNode = json.GetNode(strMember.substr(0, uDot).c_str());
    if (hNode != nullptr && uDot != std::string::npos)
      hNode = json.GetNode(hNode, strMember.substr(uDot + 1).c_str());
    CPString strValue;
    if (hNode == nullptr || !zxtools::CPJsonParse::GetValue(hNode, strValue))
      return "<none>";
    return strValue.Str();
  }

  CMainLog m_log;
  CTempHome m_home;
  const std::string m_strDir = m_home.Root().Str();  // ends in "/"
};

class CStoreFixture : public CLogFixture {
 protected:
  void SetUp() override {
    ASSERT_EQ(m_data.Init(CPString(m_strDir)), 1);
    ClearLines();
  }

  CStore m_data{m_strDir + "root"};
};
