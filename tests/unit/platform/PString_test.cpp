#include "platform/text/PString.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <string>
#include <unordered_set>
#include <vector>

#include "platform/text/PStrList.h"

namespace {

std::vector<std::string> Pieces(const CPString& str, const CPString& strSeparator, bool bSkipEmpty,
                                bool bTrim) {
  CPStrList list;
  const int iCount = str.Split(strSeparator, list, bSkipEmpty, bTrim);
  EXPECT_EQ(iCount, static_cast<int>(list.GetCount()));
  std::vector<std::string> pieces;
  for (const CPString& strPiece : list)
    pieces.push_back(strPiece.Str());
  return pieces;
}

using TPieces = std::vector<std::string>;

TEST(PString_test, Ctor_GivesEmptyText_WhenNull) {
  EXPECT_TRUE(CPString(static_cast<const char*>(nullptr)).IsEmpty());
  EXPECT_TRUE(CPString(nullptr, 5).IsEmpty());
  CPString str("x");
  str += static_cast<const char*>(nullptr);
  EXPECT_EQ(str, CPString("x"));
}

TEST(PString_test, Ctor_KeepsNulBytes_WhenLengthIsGiven) {
  const CPString str("a\0b", 3);
  EXPECT_EQ(str.GetLength(), 3u);
  EXPECT_EQ(str.View(), std::string_view("a\0b", 3));
  EXPECT_NE(str, CPString("a"));
}

TEST(PString_test, Copies_AreIndependent) {
  CPString a("same");
  CPString b(a);
  b += '!';
  EXPECT_EQ(a, CPString("same"));
  EXPECT_EQ(b, CPString("same!"));
  EXPECT_EQ(std::hash<CPString>()(a), std::hash<CPString>()(CPString("same")));
  a.Empty();
  EXPECT_TRUE(a.IsEmpty());
}

TEST(PString_test, Format_ReplacesText_WithAnyLength) {
  for (const int iWidth : {0, 1, 511, 512, 513, 70000}) {
    CPString str("old");
    str.Format("%*d", iWidth, 7);
    EXPECT_EQ(str.GetLength(), static_cast<size_t>(iWidth < 1 ? 1 : iWidth));
    EXPECT_EQ(str.Right(1), CPString("7"));
  }
}

TEST(PString_test, Format_MayReadItsOwnText) {
  CPString str("abc");
  str.Format("%s-%s", str.c_str(), str.c_str());
  EXPECT_EQ(str, CPString("abc-abc"));
}

TEST(PString_test, Make_ReturnsFormattedText) {
  EXPECT_EQ(CPString::Make("%s/%d/%llx", "a", -3, 0xfeedfacecafeULL), CPString("a/-3/feedfacecafe"));
  EXPECT_TRUE(CPString::Make("%s", "").IsEmpty());
}

TEST(PString_test, Split_FollowsItsFlags) {
  const CPString str(" a ,,b, \t\r\n,c");
  EXPECT_EQ(Pieces(str, ",", false, false), (TPieces{" a ", "", "b", " \t\r\n", "c"}));
  EXPECT_EQ(Pieces(str, ",", true, false), (TPieces{" a ", "b", " \t\r\n", "c"}));
  EXPECT_EQ(Pieces(str, ",", false, true), (TPieces{"a", "", "b", "", "c"}));
  EXPECT_EQ(Pieces(str, ",", true, true), (TPieces{"a", "b", "c"}));
}

TEST(PString_test, Split_GivesOneEmptyPiece_OnlyWhenEmptyOnesAreKept) {
  EXPECT_EQ(Pieces("", ",", false, false), (TPieces{""}));
  EXPECT_EQ(Pieces("", ",", true, false), TPieces{});
  EXPECT_EQ(Pieces(",", ",", false, false), (TPieces{"", ""}));
  EXPECT_EQ(Pieces(",,", ",", true, true), TPieces{});
}

TEST(PString_test, Split_UsesWholeSeparator) {
  EXPECT_EQ(Pieces("a::b:c::", "::", false, false), (TPieces{"a", "b:c", ""}));
  EXPECT_EQ(Pieces("a,b", "", false, false), (TPieces{"a,b"}));
}

TEST(PString_test, Split_ReplacesEarlierContent) {
  CPStrList list;
  list.AddTail("old");
  EXPECT_EQ(CPString("x").Split(",", list, true, true), 1);
  EXPECT_EQ(list.GetAt(0), CPString("x"));
}

TEST(PString_test, Split_IsUndoneByToString) {
  EXPECT_TRUE(rc::check([](const std::string& strText, char chSeparator) {
    CPStrList list;
    const CPString strSeparator(&chSeparator, 1);
    CPString(strText).Split(strSeparator, list, false, false);
    RC_ASSERT(list.ToString(strSeparator).Str() == strText);
  }));
}

TEST(PString_test, Mid_ClipsItsRange) {
  const CPString str("abcdef");
  EXPECT_EQ(str.Mid(2), CPString("cdef"));
  EXPECT_EQ(str.Mid(2, 2), CPString("cd"));
  EXPECT_EQ(str.Mid(5, 99), CPString("f"));
  EXPECT_TRUE(str.Mid(6).IsEmpty());
  EXPECT_TRUE(str.Mid(CPString::npos, 3).IsEmpty());
  EXPECT_EQ(str.Left(3), CPString("abc"));
  EXPECT_EQ(str.Left(99), str);
  EXPECT_EQ(str.Right(2), CPString("ef"));
  EXPECT_EQ(str.Right(99), str);
  EXPECT_TRUE(str.Right(0).IsEmpty());
}

TEST(PString_test, LeftAndRight_JoinToTheWhole) {
  EXPECT_TRUE(rc::check([](const std::string& strText, size_t uAt) {
    const CPString str(strText);
    const size_t uLeft = uAt % (strText.size() + 1);
    RC_ASSERT(str.Left(uLeft) + str.Right(strText.size() - uLeft) == str);
    RC_ASSERT(str.Left(uLeft) + str.Mid(uLeft) == str);
  }));
}

TEST(PString_test, Find_AnswersNpos_WhenAbsent) {
  const CPString str("a/b/c");
  EXPECT_EQ(str.Find("/"), 1u);
  EXPECT_EQ(str.Find("/", 2), 3u);
  EXPECT_EQ(str.Find("x"), CPString::npos);
  EXPECT_EQ(str.ReverseFind('/'), 3u);
  EXPECT_EQ(str.ReverseFind('x'), CPString::npos);
}

TEST(PString_test, Trim_RemovesOnlyThatCharacterAtOneEnd) {
  CPString str("//a/b//");
  str.TrimLeft('/');
  EXPECT_EQ(str, CPString("a/b//"));
  str.TrimRight('/');
  EXPECT_EQ(str, CPString("a/b"));
  CPString strAll("///");
  strAll.TrimLeft('/');
  EXPECT_TRUE(strAll.IsEmpty());
  strAll = "///";
  strAll.TrimRight('/');
  EXPECT_TRUE(strAll.IsEmpty());
}

TEST(PString_test, ToLower_TouchesAsciiOnly) {
  CPString str("AbZ\xC3\x84[@");
  EXPECT_EQ(str.Lower(), CPString("abz\xC3\x84[@"));
  EXPECT_EQ(str, CPString("AbZ\xC3\x84[@"));
  str.ToLower();
  EXPECT_EQ(str, CPString("abz\xC3\x84[@"));
}

TEST(PString_test, Compare_IsExactOrIgnoresAsciiCase) {
  EXPECT_NE(CPString("ABC").Compare("abc", 1), 0);
  EXPECT_EQ(CPString("ABC").Compare("abc", 0), 0);
  EXPECT_EQ(CPString("ABC").CompareNoCase("aBc"), 0);
  EXPECT_LT(CPString("ab").CompareNoCase("ABC"), 0);
  EXPECT_GT(CPString("abc").CompareNoCase("AB"), 0);
  EXPECT_GT(CPString("\xC3").CompareNoCase("z"), 0);
  EXPECT_NE(CPString("\xC3\x84").CompareNoCase("\xC3\xA4"), 0);
  EXPECT_LT(CPString("a").Compare("b", 1), 0);
}

TEST(PString_test, CompareNoCase_AgreesWithLowerCaseForms) {
  EXPECT_TRUE(rc::check([](const std::string& strA, const std::string& strB) {
    const CPString a(strA);
    const CPString b(strB);
    RC_ASSERT((a.CompareNoCase(b) < 0) == (a.Lower().Compare(b.Lower(), 1) < 0));
    RC_ASSERT(a.CompareNoCase(a.Lower()) == 0);
  }));
}

TEST(PString_test, Operators_CompareBytes) {
  EXPECT_TRUE(CPString("a") < CPString("b"));
  EXPECT_TRUE(CPString("a") != CPString("A"));
  EXPECT_EQ(CPString("a") + "b" + CPString("c"), CPString("abc"));
  EXPECT_EQ(std::unordered_set<CPString>({"a", "b", "a"}).size(), 2u);
}

}  // namespace
