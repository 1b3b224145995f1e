#include "kit/HandOff.h"

#include <gtest/gtest.h>

namespace {

std::string Text(const std::string& strMsg) {
  return "<version=1><guid=5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D><product=P><combo=C><command=disk_usage><msg=" +
         strMsg + ">";
}

TEST(HandOff, Parse_TakesEveryPart) {
  CHandOff handOff;
  ASSERT_TRUE(ParseHandOff(Text(R"({"ID":"1"})"), handOff));
  EXPECT_EQ(handOff.strVersion, "1");
  EXPECT_EQ(handOff.strGuid, "5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D");
  EXPECT_EQ(handOff.strProduct, "P");
  EXPECT_EQ(handOff.strCombo, "C");
  EXPECT_EQ(handOff.strCommand, "disk_usage");
  EXPECT_EQ(handOff.strMsg, R"({"ID":"1"})");
}

TEST(HandOff, Message_RunsToTheLastBracket) {
  CHandOff handOff;
  for (const std::string& strMsg : {std::string("<a><b>"), std::string(">"), std::string("><msg=x><guid=y>"),
                                    std::string(), std::string("a\0b", 3)}) {
    ASSERT_TRUE(ParseHandOff(Text(strMsg), handOff));
    EXPECT_EQ(handOff.strMsg, strMsg);
  }
  ASSERT_TRUE(
      ParseHandOff(Text("x") + "rest", handOff));  // what follows the last bracket is not the message's
  EXPECT_EQ(handOff.strMsg, "x");
}

TEST(HandOff, EmptyValues_AreValues) {
  CHandOff handOff;
  ASSERT_TRUE(ParseHandOff("<version=1><guid=><product=><combo=><command=><msg=>", handOff));
  EXPECT_EQ(handOff.strGuid + handOff.strProduct + handOff.strCombo + handOff.strCommand + handOff.strMsg,
            "");
}

TEST(HandOff, Values_MayHoldSingleBrackets) {
  CHandOff handOff;
  ASSERT_TRUE(ParseHandOff("<version=1><guid=g><product=a>b<c><combo=d=><command=<e><msg=m>", handOff));
  EXPECT_EQ(handOff.strProduct, "a>b<c");
  EXPECT_EQ(handOff.strCombo, "d=");
  EXPECT_EQ(handOff.strCommand, "<e");
}

TEST(HandOff, EveryCutText_IsRefused_WithoutReadingPastIt) {
  const std::string strText = Text("no bracket in here");
  CHandOff handOff;
  for (size_t u = 0; u < strText.size(); ++u) {
    const std::string strCut = strText.substr(0, u);  // its own heap block, so a sanitizer sees the end
    EXPECT_FALSE(ParseHandOff(strCut, handOff)) << strCut;
  }
}

TEST(HandOff, OtherVersionsAndOrders_AreRefused) {
  CHandOff handOff;
  EXPECT_FALSE(ParseHandOff("<version=2><guid=g><product=p><combo=c><command=n><msg=m>", handOff));
  EXPECT_FALSE(ParseHandOff("<version=1><product=p><guid=g><combo=c><command=n><msg=m>", handOff));
  EXPECT_FALSE(ParseHandOff("<version=1><guid=g><product=p><combo=c><msg=m><command=n>", handOff));
  EXPECT_FALSE(ParseHandOff(" <version=1><guid=g><product=p><combo=c><command=n><msg=m>", handOff));
}

TEST(HandOff, CommandId_IsEmptyWithoutOne) {
  EXPECT_EQ(CommandId(R"({"ID":"demo-1","Command":"x"})"), "demo-1");
  EXPECT_EQ(CommandId(R"({"ID":17})"), "17");
  EXPECT_EQ(CommandId(R"({"id":"x"})"), "");
  EXPECT_EQ(CommandId("not json"), "");
  EXPECT_EQ(CommandId(""), "");
  EXPECT_EQ(CommandId("[1]"), "");
}

TEST(HandOff, IsGuidText_TakesTheDashedFormsOnly) {
  EXPECT_TRUE(IsGuidText("5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D"));
  EXPECT_TRUE(IsGuidText("{5a3b7c1e-2d4f-4a6b-8c9d-0e1f2a3b4c5d}"));
  for (const char* psz :
       {"", "5A3B7C1E", "5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5", "5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D0",
        "5A3B7C1EX2D4F-4A6B-8C9D-0E1F2A3B4C5D", "5G3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D",
        "{5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D", "{5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D)"})
    EXPECT_FALSE(IsGuidText(psz)) << psz;
}

}  // namespace
