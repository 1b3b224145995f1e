#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "registry/AgentInterface.h"
#include "support/MainLog.h"

using testing::ElementsAre;

namespace {

class ParsePluginInfo : public testing::Test {
 protected:
  int Call(int bGetAll, const CPString& strData) {
    return m_interface.ParsePluginInfo(bGetAll, strData, m_list);
  }
  std::vector<std::string> Triples() const {
    std::vector<std::string> triples;
    for (const _GuidProductCombo& gpc : m_list)
      triples.push_back(gpc.strGuid.Str() + "|" + gpc.strProduct.Str() + "|" + gpc.strCombo.Str());
    return triples;
  }

  CMainLog m_log;
  CAgentInterface m_interface;
  std::list<_GuidProductCombo> m_list;
};

struct _RefusedCase {
  const char* pszName;
  const char* pszData;
  const char* pszLine;  // without "*zxagent CAgentData::ParsePluginInfo "
};

class ParsePluginInfoRefused : public ParsePluginInfo, public testing::WithParamInterface<_RefusedCase> {};

const _RefusedCase kRefused[] = {
    {"Empty", "", "Warn strData is empty bGetAll[1]"},
    {"NoJson", "{\"list\":[", "Warn LoadBuffer bGetAll[1] strData[{\"list\":[]"},
    {"NoList", "{\"lists\":[]}", "Error GetNode list bGetAll[1] strData[{\"lists\":[]}]"},
    {"ListIsText", "{\"list\":\"x\"}", "Error GetAllNode bGetAll[1] strData[{\"list\":\"x\"}]"},
    {"RootIsArray", "[1]", "Error GetNode list bGetAll[1] strData[[1]]"},
};

}  // namespace

TEST_P(ParsePluginInfoRefused, AnswersZeroAndSaysWhy) {
  EXPECT_EQ(Call(1, GetParam().pszData), 0);
  EXPECT_TRUE(m_list.empty());
  EXPECT_EQ(m_log.LevelOf(std::string("*zxagent CAgentData::ParsePluginInfo ") + GetParam().pszLine),
            kLogWarn);
}

INSTANTIATE_TEST_SUITE_P(Texts, ParsePluginInfoRefused, testing::ValuesIn(kRefused),
                         [](const testing::TestParamInfo<_RefusedCase>& test) { return test.param.pszName; });

TEST_F(ParsePluginInfo, AcceptsAnEmptyList) {
  EXPECT_EQ(Call(1, "{\"list\":[]}"), 1);
  EXPECT_TRUE(m_list.empty());
}

TEST_F(ParsePluginInfo, AppendsInOrder) {
  m_list.push_back({"before", "p", "c"});
  EXPECT_EQ(
      Call(1, R"({"list":[{"id":"B","product":"P2","combo":"C2"},{"id":"A","product":"","combo":"C1"}]})"),
      1);
  EXPECT_THAT(Triples(), ElementsAre("before|p|c", "B|P2|C2", "A||C1"));
  EXPECT_EQ(m_log.LevelOf(
                "zxagent CAgentData::ParsePluginInfo i[0] bGetAll[1] strGuid[B] strProduct[P2] strCombo[C2]"),
            kLogInfo);
}

TEST_F(ParsePluginInfo, SkipsElementsThatLackAMember) {
  const CPString strData =
      R"({"list":[{"product":"P","combo":"C"},{"id":"1","combo":"C"},{"id":"2","product":"P"},7,{"id":"3","product":"P","combo":"C"}]})";
  EXPECT_EQ(Call(1, strData), 1);
  EXPECT_THAT(Triples(), ElementsAre("3|P|C"));
  const std::string strTail = " bGetAll[1] strData[" + strData.Str() + "]";
  EXPECT_EQ(m_log.LevelOf("*zxagent CAgentData::ParsePluginInfo Warn GetNode id i[0]" + strTail), kLogWarn);
  EXPECT_EQ(m_log.LevelOf("*zxagent CAgentData::ParsePluginInfo Warn GetNode product i[1]" + strTail),
            kLogWarn);
  EXPECT_EQ(m_log.LevelOf("*zxagent CAgentData::ParseAllPluginInfo Warn GetNode combo i[2]" + strTail),
            kLogWarn);
  EXPECT_EQ(m_log.LevelOf("*zxagent CAgentData::ParsePluginInfo Warn GetNode id i[3]" + strTail), kLogWarn);
}

TEST_F(ParsePluginInfo, LooksAtTheStatusForLoadedPluginsOnly) {
  const CPString strData =
      R"({"list":[{"id":"1","product":"P","combo":"C","status":1},{"id":"2","product":"P","combo":"C","status":0},{"id":"3","product":"P","combo":"C"},{"id":"4","product":"P","combo":"C","status":{}}]})";
  EXPECT_EQ(Call(0, strData), 1);
  EXPECT_THAT(Triples(), ElementsAre("1|P|C"));
  const std::string strTail = " bGetAll[0] strData[" + strData.Str() + "]";
  EXPECT_EQ(m_log.LevelOf("*zxagent CAgentData::ParseAllPluginInfo Warn not load iStatus[0] i[1]" + strTail),
            kLogWarn);
  EXPECT_EQ(m_log.LevelOf("*zxagent CAgentData::ParseAllPluginInfo Warn GetNode status i[2]" + strTail),
            kLogWarn);
  EXPECT_EQ(m_log.LevelOf("*zxagent CAgentData::ParseAllPluginInfo Warn GetNode status i[3]" + strTail),
            kLogWarn);

  m_list.clear();
  EXPECT_EQ(Call(1, strData), 1);
  EXPECT_EQ(m_list.size(), 4u);
}

TEST_F(ParsePluginInfo, LogsTheSizeOfAHugeText) {
  const CPString strData(std::string(100000, 'x'));
  EXPECT_EQ(Call(1, strData), 0);
  EXPECT_TRUE(m_log.Contains("Warn LoadBuffer bGetAll[1] strData[(100000 bytes)]"));
}

TEST_F(ParsePluginInfo, RefusesTextBehindANul) {
  EXPECT_EQ(Call(1, CPString("{\"list\":[]}\0{", 13)), 0);
}
