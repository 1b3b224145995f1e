#include <gtest/gtest.h>

#include "support/DataHome.h"

namespace {

constexpr char kFileA[] = "root/var/zxcwpp/run/.mid";
constexpr char kFileB[] = "root/etc/.veltepp.mid";

struct _OldMidCase {
  const char* pszName;
  const char* pszFile;
  std::string strText;
  const char* pszMid1;  // null: refused
  const char* pszMid2;
  const char* pszLine;  // behind "zxagent CAgentData::ReadOldMid ", up to the file name
};

class ReadOldMid : public testing::TestWithParam<_OldMidCase> {
 protected:
  int Call() { return m_home.Data().ReadOldMid(m_strMid1, m_strMid2); }

  CDataHome m_home;
  CPString m_strMid1;
  CPString m_strMid2;
};

const std::string k61(61, 'x');
const std::string k62(62, 'x');
const std::string k63(63, 'x');

const _OldMidCase kCases[] = {
    {"A_TwoLines", kFileA, "id1\nid2\n", "id1", "id2", "fromfile mid1[id1] mid2[id2] rmRet[0][0]"},
    {"A_DosLineEnds", kFileA, "id1\r\nid2\r\n", "id1", "id2", "fromfile"},
    {"A_WithoutLastLineEnd", kFileA, "id1\nid2", "id1", "id2", "fromfile"},
    {"A_LeadingBlanksGoTrailingStay", kFileA, "  id1 \n \tid2\n", "id1 ", "\tid2", "fromfile"},
    {"A_NamesAreNoNames", kFileA, "mid2=abc\nmid=xyz\n", "mid2=abc", "mid=xyz", "fromfile"},
    {"A_MoreLinesAreIgnored", kFileA, "id1\nid2\nid3\n", "id1", "id2", "fromfile"},
    {"A_LongestLine", kFileA, k61 + "\n" + k61 + "\n", k61.c_str(), k61.c_str(), "fromfile"},
    {"A_LineFillsTheBuffer", kFileA, k62 + "\nid2\n", nullptr, nullptr, "Warn mid1 szBuffer["},
    {"A_LineOf63", kFileA, k63 + "\nid2\n", nullptr, nullptr, "Warn mid1 szBuffer["},
    {"A_SecondLineTooLong", kFileA, "id1\n" + k63 + k63 + "\n", nullptr, nullptr, "Warn mid2 szBuffer["},
    {"A_Empty", kFileA, "", nullptr, nullptr, "Warn fgets mid1 err["},
    {"A_OneLine", kFileA, "id1\n", nullptr, nullptr, "Warn fgets mid2 err["},
    {"A_EmptyFirst", kFileA, "\nid2\n", nullptr, nullptr, "Warn mid1 is empty szBuffer[id2\n]"},
    {"A_BlankFirst", kFileA, "   \r\nid2\n", nullptr, nullptr, "Warn mid1 is empty szBuffer[id2\n]"},
    {"A_EmptySecond", kFileA, "id1\n\n", nullptr, nullptr, "Warn mid2 is empty szBuffer[\n]"},
    {"A_Binary", kFileA, std::string("\0\1\2\n\0\n", 6), nullptr, nullptr, "Warn mid1 is empty szBuffer[]"},
    {"B_NamedInReverse", kFileB, "mid2=abc\nmid=xyz\n", "xyz", "abc",
     "fromfile mid1[xyz] mid2[abc] rmRet[0][0]"},
    {"B_Named", kFileB, "mid=xyz\r\nmid2=abc\r\n", "xyz", "abc", "fromfile"},
    {"B_Bare", kFileB, "id1\nid2\n", "id1", "id2", "fromfile"},
    {"B_NamedThenBare", kFileB, "mid=id1\nid2\n", "id1", "id2", "fromfile"},
    {"B_AnyOtherNameIsTheId", kFileB, "mid2=b\nserial=a=c\n", "a=c", "b", "fromfile"},
    {"B_BothSecondIds", kFileB, "mid2=a\nmid2=b\n", nullptr, nullptr,
     "Warn mid1 is empty szBuffer[mid2=b\n]"},
    {"B_BothIds", kFileB, "mid=a\nmid=b\n", nullptr, nullptr, "Warn mid2 is empty szBuffer[mid=b\n]"},
    {"B_EmptyValue", kFileB, "mid=\nmid2=b\n", nullptr, nullptr, "Warn mid1 is empty szBuffer[mid2=b\n]"},
};

}  // namespace

TEST_P(ReadOldMid, TakesItOnce_OrLeavesItThere) {
  const _OldMidCase& old = GetParam();
  m_home.Temp().WriteFile(old.pszFile, CPString(old.strText));
  const bool bAccepted = old.pszMid1 != nullptr;
  EXPECT_EQ(Call(), bAccepted ? 1 : 0);
  EXPECT_EQ(m_strMid1, bAccepted ? old.pszMid1 : "");
  EXPECT_EQ(m_strMid2, bAccepted ? old.pszMid2 : "");
  EXPECT_EQ(m_home.Temp().Exists(old.pszFile), !bAccepted);
  EXPECT_TRUE(m_home.Log().Contains(std::string("zxagent CAgentData::ReadOldMid ") + old.pszLine))
      << old.pszLine;
  EXPECT_TRUE(m_home.Log().Contains("strMidFile[" + m_home.Path(old.pszFile) + "]"));
  EXPECT_EQ(m_home.Log().Entries().back().iLevel, bAccepted ? kLogInfo : kLogWarn);
}

INSTANTIATE_TEST_SUITE_P(Files, ReadOldMid, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<_OldMidCase>& test) { return test.param.pszName; });

TEST_F(ReadOldMid, Fails_WhenThereIsNoOldFile) {
  EXPECT_EQ(Call(), 0);
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent CAgentData::ReadOldMid Warn fopen cwpp err[2] strMidFile[" +
                                 m_home.Path(kFileA) + "]"),
            kLogWarn);
  EXPECT_EQ(m_home.Log().LevelOf("*zxagent CAgentData::ReadOldMid Warn fopen xc err[2] strMidFile[" +
                                 m_home.Path(kFileB) + "]"),
            kLogWarn);
}

TEST_F(ReadOldMid, FormatAWins_EvenWhenItIsUseless) {
  m_home.Temp().WriteFile(kFileA, "");
  m_home.Temp().WriteFile(kFileB, "mid=xyz\nmid2=abc\n");
  EXPECT_EQ(Call(), 0);
  EXPECT_TRUE(m_home.Temp().Exists(kFileA));
  EXPECT_TRUE(m_home.Temp().Exists(kFileB));
}

TEST_F(ReadOldMid, IsConsumedOnce) {
  m_home.Temp().WriteFile(kFileB, "mid=xyz\nmid2=abc\n");
  EXPECT_EQ(Call(), 1);
  EXPECT_EQ(Call(), 0);
}

TEST_F(ReadOldMid, FailsOnADirectory) {
  m_home.Temp().MakeDir(kFileA);
  EXPECT_EQ(Call(), 0);
  EXPECT_TRUE(m_home.Log().Contains("*zxagent CAgentData::ReadOldMid Warn fgets mid1 err[21]"));
}
