#include "zxctl/LogTrace.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/TempHome.h"
#include "zxctl/Table.h"

namespace zxctl {
namespace {

using testing::ElementsAre;

TEST(LogTrace, ParseLogLine_TakesTimeZoneAndIds) {
  _LogRecord record;
  ASSERT_TRUE(ParseLogLine("2026-11-20 21:04:39.123 +0100 [3] [12:34] *zxagent x", record));
  EXPECT_EQ(record.i64AtMs, 1795205079123);
  EXPECT_EQ(record.iLevel, 3);
  EXPECT_EQ(record.iPid, 12);
  EXPECT_EQ(record.iTid, 34);
  EXPECT_EQ(record.strText, "*zxagent x");
  ASSERT_TRUE(ParseLogLine("2026-11-20 15:04:39.123 -0500 [3] [12:34] x", record));
  EXPECT_EQ(record.i64AtMs, 1795205079123);
}

TEST(LogTrace, ParseLogLine_RefusesEverythingElse) {
  const std::string str = "2026-11-20 21:04:39.123 +0100 [3] [12:34] x";
  _LogRecord record;
  for (size_t u = 0; u + 1 < str.size(); ++u)
    EXPECT_FALSE(ParseLogLine(str.substr(0, u), record)) << u;
  EXPECT_FALSE(ParseLogLine("2026-11-20 21:04:39.123 +0100 [x] [12:34] x", record));
  EXPECT_FALSE(ParseLogLine("2026-11-20 21:04:39.123 +0100 [3] [12] x", record));
}

TEST(LogTrace, SplitLog_JoinsContinuedLines) {
  const auto list = SplitLog("c",
                             "lost\n2026-11-20 21:04:39.123 +0000 [2] [1:2] a\nb\n\n"
                             "2026-11-20 21:04:39.124 +0000 [2] [1:2] c");
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].strText, "a\nb\n");
  EXPECT_EQ(list[1].strText, "c");
}

TEST(LogTrace, NamesId_WantsTheWholeId) {
  EXPECT_TRUE(NamesId("strID[demo-1]", "demo-1"));
  EXPECT_TRUE(NamesId("demo-12 demo-1", "demo-1"));
  EXPECT_FALSE(NamesId("strID[demo-12]", "demo-1"));
  EXPECT_FALSE(NamesId("xdemo-1", "demo-1"));
  EXPECT_FALSE(NamesId("x", ""));
}

TEST(LogTrace, FieldOf_TakesTheNamedField) {
  EXPECT_EQ(FieldOf("a u64DataId[1f] b[2]", "u64DataId"), "1f");
  EXPECT_EQ(FieldOf("a xu64DataId[1]", "u64DataId"), "");
  EXPECT_EQ(FieldOf("a u64DataId[1", "u64DataId"), "");
}

_LogRecord Record(int64_t i64At, int iPid, const char* pszChannel, const char* pszText) {
  return {i64At, 2, iPid, 1, pszChannel, pszText};
}

std::vector<std::string> Texts(const std::vector<_LogRecord>& list) {
  std::vector<std::string> listTexts;
  for (const _LogRecord& record : list)
    listTexts.push_back(record.strText);
  return listTexts;
}

TEST(LogTrace, SelectCommand_FollowsTheDataIdWithinOneProcess) {
  const std::vector<_LogRecord> list = {Record(5, 1, "zxagent", "begin u64DataId[1] iPcid[1]"),
                                        Record(6, 1, "zxagent", "send u64DataId[1] strID[a]"),
                                        Record(7, 2, "zxagent", "other run u64DataId[1]"),
                                        Record(8, 1, "zxagent", "other u64DataId[2] strID[b]"),
                                        Record(4, 1, "zxagent", "recv {\"ID\":\"a\"}"),
                                        Record(9, 3, "zxsample", "done ID[a]")};
  EXPECT_THAT(Texts(SelectCommand(list, "a")),
              ElementsAre("recv {\"ID\":\"a\"}", "begin u64DataId[1] iPcid[1]", "send u64DataId[1] strID[a]",
                          "done ID[a]"));
}

TEST(LogTrace, HopOf_SpeaksForPeople) {
  _Hop hop;
  ASSERT_TRUE(HopOf(Record(1, 1, "zxagent", "zxagent pushmsg Begin recvnew u64DataId[a] iPcid[1]"), hop));
  EXPECT_EQ(hop.strWhat, "numbered, data id a");
  EXPECT_FALSE(HopOf(Record(1, 1, "zxagent", "zxagent something else"), hop));
  ASSERT_TRUE(HopOf(Record(1, 1, "zxagent", "*zxagent something failed"), hop));
  EXPECT_EQ(hop.strWhat, "*zxagent something failed");
  ASSERT_TRUE(HopOf(Record(1, 1, "zxsample", "measured\nmore"), hop));
  EXPECT_EQ(hop.strWhat, "measured");
}

TEST(LogTrace, ReadHomeLogs_TakesEveryChannel_NamesAMissingDirectory) {
  CTempHome home;
  std::vector<_LogRecord> list;
  std::string strError;
  EXPECT_FALSE(ReadHomeLogs(home.Root().Str(), list, strError));
  EXPECT_THAT(strError, testing::HasSubstr("No such file"));
  home.WriteFile("log/a.log", "2026-11-20 21:04:39.123 +0000 [2] [1:2] x\n");
  home.WriteFile("log/b.1.log", "2026-11-20 21:04:39.123 +0000 [2] [1:2] y\n");
  home.WriteFile("log/c.txt", "2026-11-20 21:04:39.123 +0000 [2] [1:2] z\n");
  ASSERT_TRUE(ReadHomeLogs(home.Root().Str(), list, strError));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].strChannel, "a");
  EXPECT_EQ(list[1].strChannel, "b");
}

// A component that runs as a user of its own has a folder of its own, where it may put whatever it likes.
TEST(LogTrace, ReadHomeLogs_TakesFoldersOfComponents_AndFollowsNoLinkThere) {
  CTempHome home;
  home.WriteFile("log/a.log", "2026-11-20 21:04:39.123 +0000 [2] [1:2] x\n");
  home.WriteFile("elsewhere/b.log", "2026-11-20 21:04:39.123 +0000 [2] [1:2] y\n");
  home.WriteFile("secret", "2026-11-20 21:04:39.123 +0000 [2] [1:2] z\n");
  ASSERT_EQ(symlink("../elsewhere", home.Path("log/b").c_str()), 0);
  ASSERT_EQ(symlink("../secret", home.Path("elsewhere/c.log").c_str()), 0);
  ASSERT_EQ(mkfifo(home.Path("elsewhere/d.log").c_str(), 0600), 0);
  ASSERT_EQ(symlink("nowhere", home.Path("log/gone").c_str()), 0);
  std::vector<_LogRecord> list;
  std::string strError;
  ASSERT_TRUE(ReadHomeLogs(home.Root().Str(), list, strError)) << strError;
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].strChannel, "a");
  EXPECT_EQ(list[1].strChannel, "b");
  EXPECT_EQ(list[1].strText, "y");
}

TEST(LogTrace, SortHops_OrdersAMillisecondByTheCommandsWay) {
  std::vector<_Hop> list = {{5, kRankCloudIn, "e", "", ""},
                            {5, kRankComponent, "c", "", ""},
                            {4, kRankCloudIn, "a", "", ""},
                            {5, kRankAgentIn, "b", "", ""},
                            {5, kRankComponent, "d", "", ""}};
  SortHops(list);
  std::string strOrder;
  for (const _Hop& hop : list)
    strOrder += hop.strWhere;
  EXPECT_EQ(strOrder, "abcde");
}

TEST(Table, Shorten_CutsAtCharacters) {
  EXPECT_EQ(Shorten("abcde", 5), "abcde");
  EXPECT_EQ(Shorten("abcdef", 5), "ab...");
  EXPECT_EQ(Shorten("\xe6\x94\xb6\xe6\x94\xb6\xe6\x94\xb6\xe6\x94\xb6\xe6\x94\xb6\xe6\x94\xb6", 5),
            "\xe6\x94\xb6\xe6\x94\xb6...");
}

TEST(Table, FormatTable_AlignsByCharacters_AndHidesControls) {
  EXPECT_EQ(FormatTable({{"A", "B"}, {"\xe6\x94\xb6", "x"}, {"long", "\x1b[31m"}}),
            "A     B\n\xe6\x94\xb6     x\nlong  ?[31m\n");
}

TEST(Table, AgoText_PicksTheUnit) {
  EXPECT_EQ(AgoText(0, 5), "-");
  EXPECT_EQ(AgoText(1000, 6000), "5 s ago");
  EXPECT_EQ(AgoText(1, 600001), "10 min ago");
  EXPECT_EQ(AgoText(1, 3 * 3600 * 1000 + 1), "3 h ago");
  EXPECT_EQ(AgoText(1000, 1), "0 s ago");
}

}  // namespace
}  // namespace zxctl
