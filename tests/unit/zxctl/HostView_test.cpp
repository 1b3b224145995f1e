// What people read: status, components, messages, and log lines as they come.
#include "zxctl/local/HostView.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>

#include "support/TempHome.h"
#include "zxctl/local/BusView.h"
#include "zxctl/local/LogFollower.h"

namespace {

using namespace zxctl;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

CPJsonParse& Load(CPJsonParse& json, const char* pszText) {
  EXPECT_NE(json.LoadBuffer(pszText), 0);
  return json;
}

TEST(HostView, Status_LinkUp) {
  CPJsonParse json;
  const std::string str =
      StatusText(Load(json, R"({"version":"1","home":"/h/","pid":7,"uptime_sec":3700,"mid":"m1",
        "plugins":[{"name":"zxagent","state":"running"},{"name":"x","state":"failed"}],"plugins_answer":false,
        "link":{"link":"up","longaddr":"b:8883","reconnects":"2","entries":"3","bytes":"2048","oldest_ms":"61000",
                "lasterror":"old trouble"},
        "bus":{"address":"unix:path=/h/run/bus","daemon_pid":9,"daemon_starts":1,"trouble":"","stats":{"state":"connected"}},
        "gauges":{"agent.pushes":5},"errors":[{"time":"t","channel":"zxcloud","level":4,"text":"*bad"}]})"),
                 0);
  for (const char* pszPart : {"zxagent running, x failed", "busy", "up, b:8883, lost 2 times",
                              "3 entries, 2.0 kB, oldest 1 min 1 s", "old trouble", "1 h 1 min",
                              "connected, daemon pid 9", "agent.pushes", "*bad", "m1"})
    EXPECT_THAT(str, HasSubstr(pszPart));
}

TEST(HostView, Status_ShortOnlyAndBare) {
  CPJsonParse json;
  EXPECT_THAT(StatusText(Load(json, R"({"link":{"link":"down","cloudtcp_disable":"1"}})"), 0),
              HasSubstr("off, short connection only"));
  CPJsonParse bare;
  EXPECT_THAT(StatusText(Load(bare, "{}"), 0), HasSubstr("machine id"));
}

TEST(HostView, Status_LastFiveErrors) {
  CPJsonParse json;
  std::string strErrors;
  for (int i = 0; i < 9; ++i)
    strErrors += std::string(i == 0 ? "" : ",") + R"({"text":"e)" + std::to_string(i) + "\"}";
  const std::string str = StatusText(Load(json, ("{\"errors\":[" + strErrors + "]}").c_str()), 0);
  EXPECT_THAT(str, HasSubstr("e8"));
  EXPECT_THAT(str, Not(HasSubstr("e3")));
}

TEST(HostView, Components_ReasonOfAProcessFigureOfAPlugin) {
  CPJsonParse json;
  const std::string str = ComponentsText(Load(json, R"({"components":[
        {"guid":"G1","name":"agent","kind":"plug-in","state":"running","joined":true,"queued":1,"queued_bytes":10,"refused":4},
        {"guid":"G2","name":"scan","kind":"process","user":"zxscan","joined":false,"refused":"no such user"}],
        "trouble":"a file"})"));
  EXPECT_THAT(str, HasSubstr("no rights: no such user"));
  EXPECT_THAT(str, Not(HasSubstr("no rights: 4")));
  EXPECT_THAT(str, HasSubstr("trouble: a file"));
}

TEST(HostView, Spans) {
  EXPECT_EQ(SpanText(59), "59 s");
  EXPECT_EQ(SpanText(3599), "59 min 59 s");
  EXPECT_EQ(SpanText(90000), "1 d 1 h");
  EXPECT_EQ(BytesText(999), "999 B");
  EXPECT_EQ(BytesText(1500), "1.5 kB");
  EXPECT_EQ(BytesText(2500000), "2.5 MB");
}

TEST(BusView, DescribesWithoutTheBody) {
  EXPECT_EQ(
      DescribeMessage(20001, "<version=1><guid=g><product=p><combo=c><command=scan><msg={\"ID\":\"i\"}>"),
      "command scan for p/c, id i, 69 B");
  EXPECT_EQ(DescribeMessage(20001, "secret body"), "policy, 11 B");
  EXPECT_EQ(DescribeMessage(20002, ""), "log cache, 0 B");
  EXPECT_EQ(DescribeMessage(7, "secret"), "message, 6 B");
  const std::string strLong(10000, 'x');
  EXPECT_LT(DescribeMessage(20001, "<version=1><guid=g><product=p><combo=c><command=" + strLong + "><msg={}>")
                .size(),
            300u);
}

class Follower : public testing::Test {
 protected:
  void Append(const char* pszText, const char* pszName = "log/zxagent.log") {
    FILE* pFile = std::fopen(m_home.Path(pszName).c_str(), "a");
    ASSERT_NE(pFile, nullptr);
    std::fputs(pszText, pFile);
    std::fclose(pFile);
  }
  static std::string Line(int iSecond, const char* pszText) {
    char szLine[200] = {};
    std::snprintf(szLine, sizeof(szLine), "2026-01-02 03:04:%02d.000 +0000 [2] [1:2] %s\n", iSecond, pszText);
    return szLine;
  }
  std::vector<std::string> Texts(CLogFollower& follower) {
    std::vector<std::string> listTexts;
    for (const _LogRecord& record : follower.Read())
      listTexts.push_back(record.strText);
    return listTexts;
  }
  void SetUp() override {
    m_home.MakeDir("log");
    Append(Line(1, "old").c_str());
  }
  CTempHome m_home;
};

TEST_F(Follower, OnlyWhatIsNew_AcrossLogsInOrder) {
  CLogFollower follower(m_home.Root().Str());
  ASSERT_TRUE(follower.Open());
  EXPECT_THAT(Texts(follower), ElementsAre());
  Append(Line(3, "b").c_str());
  Append(Line(2, "a").c_str(), "log/zxcloud.log");
  EXPECT_THAT(Texts(follower), ElementsAre("a", "b"));
  EXPECT_THAT(Texts(follower), ElementsAre());
}

TEST_F(Follower, HalfALineWaitsForItsEnd) {
  CLogFollower follower(m_home.Root().Str());
  ASSERT_TRUE(follower.Open());
  const std::string strLine = Line(2, "whole");
  Append(strLine.substr(0, 40).c_str());
  EXPECT_THAT(Texts(follower), ElementsAre());
  Append(strLine.substr(40).c_str());
  EXPECT_THAT(Texts(follower), ElementsAre("whole"));
}

TEST_F(Follower, RotationAndTruncation) {
  CLogFollower follower(m_home.Root().Str());
  ASSERT_TRUE(follower.Open());
  ASSERT_EQ(std::rename(m_home.Path("log/zxagent.log").c_str(), m_home.Path("log/zxagent.1.bak").c_str()), 0);
  Append(Line(2, "fresh").c_str());
  EXPECT_THAT(Texts(follower), ElementsAre("fresh"));
  ASSERT_EQ(truncate(m_home.Path("log/zxagent.log").c_str(), 0), 0);
  Append(Line(3, "n").c_str());
  EXPECT_THAT(Texts(follower), ElementsAre("n"));
}

TEST_F(Follower, AComponentsFolder_AlsoOneThatComesLater) {
  m_home.MakeDir("log/one");
  CLogFollower follower(m_home.Root().Str());
  ASSERT_TRUE(follower.Open());
  Append(Line(2, "first").c_str(), "log/one/one.log");
  EXPECT_THAT(Texts(follower), ElementsAre("first"));
  m_home.MakeDir("two");
  ASSERT_EQ(symlink("../two", m_home.Path("log/two").c_str()), 0);
  EXPECT_THAT(Texts(follower), ElementsAre());
  Append(Line(3, "second").c_str(), "two/two.log");
  EXPECT_THAT(Texts(follower), ElementsAre("second"));
}

TEST_F(Follower, NoLogDirectory) {
  m_home.Remove("log");
  CLogFollower follower(m_home.Root().Str());
  EXPECT_FALSE(follower.Open());
}

}  // namespace
