#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/DataHome.h"

using testing::ElementsAre;
using testing::UnorderedElementsAre;

namespace {

const std::string kClients = "home/etc/coms/client/";

class LoadComs : public testing::Test {
 protected:
  LoadComs() { m_home.Init(); }
  void Write(const std::string& strClient, const CPString& strText) {
    m_home.Temp().WriteFile(kClients + strClient + "/config.json", strText);
  }
  int LoadOne(const CPString& strText) {
    Write("one", strText);
    return m_home.Data().LoadComsClientConfig(m_home.Path(kClients + "one/config.json"), m_list);
  }
  std::vector<std::string> Triples() const {
    std::vector<std::string> triples;
    for (const _GuidProductCombo& gpc : m_list)
      triples.push_back(gpc.strGuid.Str() + "|" + gpc.strProduct.Str() + "|" + gpc.strCombo.Str());
    return triples;
  }
  std::vector<std::string> Configs(const char* pszKey) {
    std::list<_ComboConfig> list;
    std::vector<std::string> texts;
    if (!m_home.Data().GetComboConfigListByProductCombo(pszKey, list))
      return texts;
    for (const _ComboConfig& c : list)
      texts.push_back(c.strPluginId.Str() + "|" + c.strUuid.Str() + "|" + c.strProduct.Str() + "|" +
                      c.strCombo.Str() + "|" + c.strName.Str() + "|" + c.strVersion.Str() + "|" +
                      c.strStatus.Str());
    return texts;
  }

  CDataHome m_home;
  std::list<_GuidProductCombo> m_list;
};

constexpr char kPlugin[] =
    R"({"id":"G1","uuid":"U1","product":"Prod","combo":"Combo","version":"1.2","name":"Name"})";

}  // namespace

TEST_F(LoadComs, KeepsOneRecordPerPlugin) {
  EXPECT_EQ(LoadOne(CPString(R"({"plugins":[)" + std::string(kPlugin) +
                             R"(,{"id":"G2","uuid":"U2","product":"prod","combo":"combo"}]})")),
            2);
  EXPECT_THAT(Triples(), ElementsAre("G1|Prod|Combo", "G2|prod|combo"));
  EXPECT_THAT(Configs("PROD/Combo"), ElementsAre("G1|U1|Prod|Combo|Name|1.2|1", "G2|U2|prod|combo|||1"));
  EXPECT_TRUE(Configs("prod/other").empty());
  EXPECT_EQ(
      m_home.Log().LevelOf("zxagent LoadComsClientConfig parse coms files Product[Prod] Combo[Combo] "
                           "PluginID[G1] PluginName[Name] version[1.2] status[1] m_ComboCfgMap size[1]"),
      kLogInfo);
  EXPECT_EQ(m_home.Log().Count("*zxagent CAgentData::LoadComsClientConfig Warn wrap_cJSON_GetObjectItem "),
            2u);
}

TEST_F(LoadComs, NeedsIdAndUuid) {
  EXPECT_EQ(LoadOne(R"({"plugins":[{"uuid":"U"},{"id":"G"},7,{"id":1,"uuid":"U"},{"id":"G3","uuid":"U3"}]})"),
            5);
  EXPECT_THAT(Triples(), ElementsAre("G3||"));
  EXPECT_THAT(Configs("/"), ElementsAre("G3|U3|||||1"));
  const std::string strTail = " strFile[" + m_home.Path(kClients + "one/config.json") + "]";
  EXPECT_EQ(m_home.Log().LevelOf(
                "*zxagent CAgentData::LoadComsClientConfig Warn wrap_cJSON_GetObjectItem id i[0]" + strTail),
            kLogWarn);
  EXPECT_EQ(
      m_home.Log().LevelOf(
          "*zxagent CAgentData::LoadComsClientConfig Warn wrap_cJSON_GetObjectItem uuid i[1]" + strTail),
      kLogWarn);
}

TEST_F(LoadComs, RefusesFilesItCannotUse) {
  const std::string strTail = " strFile[" + m_home.Path(kClients + "one/config.json") + "]";
  EXPECT_EQ(m_home.Data().LoadComsClientConfig(m_home.Path(kClients + "one/config.json"), m_list), 0);
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent CAgentData::LoadComsClientConfig Error ZxReadFileData" + strTail),
            kLogWarn);
  EXPECT_EQ(LoadOne(""), 0);
  EXPECT_EQ(
      m_home.Log().LevelOf("*zxagent CAgentData::LoadComsClientConfig Error wrap_cJSON_Parse" + strTail),
      kLogWarn);
  EXPECT_EQ(LoadOne("{}"), 0);
  EXPECT_EQ(m_home.Log().LevelOf(
                "*zxagent CAgentData::LoadComsClientConfig Error wrap_cJSON_GetObjectItem plugins" + strTail),
            kLogWarn);
  EXPECT_EQ(LoadOne(R"({"plugins":{"id":"G","uuid":"U"}})"), 0);
  EXPECT_EQ(LoadOne(R"({"plugins":[]})"), 0);
  EXPECT_TRUE(m_list.empty());
}

TEST_F(LoadComs, RefusesHugeAndDeepFiles) {
  EXPECT_EQ(LoadOne(CPString("{\"plugins\":[" + std::string(kPlugin) + "]}" + std::string(5u << 20, ' '))),
            0);
  EXPECT_EQ(LoadOne(CPString("{\"plugins\":" + std::string(100000, '['))), 0);
  EXPECT_EQ(m_home.Log().Count("Error wrap_cJSON_Parse"), 2u);
}

TEST_F(LoadComs, LoadComsFile_ReadsEveryClientFolder) {
  Write("a", CPString("{\"plugins\":[" + std::string(kPlugin) + "]}"));
  Write("b", R"({"plugins":[{"id":"G2","uuid":"U2","product":"P","combo":"C"}]})");
  Write("broken", "{");
  m_home.Temp().MakeDir(kClients + "empty");
  m_home.Temp().WriteFile(kClients + "file", "{}");
  std::filesystem::create_directory_symlink("a", m_home.Path(kClients + "link"));
  EXPECT_EQ(m_home.Data().LoadComsFile(m_list), 1);
  EXPECT_THAT(Triples(), UnorderedElementsAre("G1|Prod|Combo", "G2|P|C"));
  const std::string strPath = m_home.Path(kClients);
  CMainLog& log = m_home.Log();
  EXPECT_EQ(log.LevelOf("zxagent CAgentData::LoadComsFile strConfigPath[" + strPath + "]"), kLogInfo);
  EXPECT_EQ(
      log.LevelOf("zxagent CAgentData::LoadComsFile OK LoadComsClientConfig d_name[a] strComsClientFile[" +
                  strPath + "a/config.json]"),
      kLogInfo);
  EXPECT_EQ(log.LevelOf("*zxagent CAgentData::LoadComsFile Error LoadComsClientConfig strComsClientFile[" +
                        strPath + "broken/config.json]"),
            kLogWarn);
  EXPECT_EQ(log.Count("*zxagent CAgentData::LoadComsFile Error LoadComsClientConfig"), 2u);
  EXPECT_EQ(log.LevelOf("zxagent CAgentData::LoadComsFile OK gpcList[2] strConfigPath[" + strPath + "]"),
            kLogInfo);
}

TEST_F(LoadComs, LoadComsFile_Fails_WithoutAUsableFile) {
  EXPECT_EQ(m_home.Data().LoadComsFile(m_list), 0);
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent CAgentData::LoadComsFile Warn opendir err[2] strConfigPath[" +
                                 m_home.Path(kClients) + "]"),
            kLogWarn);
  Write("broken", "{");
  EXPECT_EQ(m_home.Data().LoadComsFile(m_list), 0);
}
