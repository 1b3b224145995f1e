#include "platform/doc/PXmlParse.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "support/TempHome.h"

using zxtools::CPXmlParse;
using zxtools::HXmlNode;

namespace {

bool Loads(const std::string& strText) {
  CPXmlParse xml;
  return xml.LoadBuffer(strText.data(), strText.size()) != 0;
}

CPString ValueOf(const std::string& strText) {
  CPXmlParse xml;
  EXPECT_EQ(xml.LoadBuffer(strText.data(), strText.size()), 1) << strText;
  CPString strValue("old");
  EXPECT_EQ(CPXmlParse::GetValue(xml.GetRoot(), strValue), 1);
  return strValue;
}

TEST(PXmlParse_test, Load_TakesADocument) {
  EXPECT_TRUE(Loads("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<!-- note -->\r\n<a>x</a>\r\n"));
  EXPECT_TRUE(Loads("\xef\xbb\xbf<a/>"));
}

TEST(PXmlParse_test, Load_RefusesWhatIsNoDocument) {
  for (const char* psz : {"", "  ", "text", "<a>", "<a></b>", "</a>", "<a", "{\"json\":1}"})
    EXPECT_FALSE(Loads(psz)) << psz;
  CPXmlParse xml;
  EXPECT_EQ(xml.LoadBuffer(nullptr), 0);
  EXPECT_EQ(xml.LoadBuffer(nullptr, 4), 0);
  EXPECT_EQ(xml.LoadBuffer("<a/>"), 1);
}

TEST(PXmlParse_test, Load_RefusesADoctype) {
  EXPECT_FALSE(Loads("<!DOCTYPE a><a/>"));
  EXPECT_FALSE(Loads("<!DOCTYPE a [<!ENTITY x SYSTEM \"file:///etc/passwd\">]><a>&x;</a>"));
  EXPECT_FALSE(Loads("<!DOCTYPE a [<!ENTITY x \"y\"><!ENTITY z \"&x;&x;\">]><a>&z;</a>"));
}

TEST(PXmlParse_test, Load_LeavesUnknownEntitiesAsTheyStand) {
  EXPECT_EQ(ValueOf("<a>&lt;&unknown;&#65;</a>"), CPString("<&unknown;A"));
}

TEST(PXmlParse_test, Load_RefusesNulBytes) {
  EXPECT_FALSE(Loads(std::string("<a>\0</a>", 8)));
  EXPECT_FALSE(Loads(std::string("<a/>\0", 5)));
}

TEST(PXmlParse_test, Load_BoundsTheDepth) {
  const auto Nested = [](int iDepth) {
    std::string strText;
    for (int i = 0; i < iDepth; ++i)
      strText += "<a>";
    for (int i = 0; i < iDepth; ++i)
      strText += "</a>";
    return strText;
  };
  EXPECT_TRUE(Loads(Nested(zxtools::kXmlMaxDepth)));
  EXPECT_FALSE(Loads(Nested(zxtools::kXmlMaxDepth + 1)));
  EXPECT_FALSE(Loads(Nested(200000)));
}

TEST(PXmlParse_test, Load_BoundsBytesAndNodes) {
  std::string strText = "<a>" + std::string(zxtools::kXmlMaxBytes, ' ') + "</a>";
  EXPECT_FALSE(Loads(strText));
  strText = "<a>";
  for (size_t u = 0; u < zxtools::kXmlMaxNodes; ++u)
    strText += "<b/>";
  EXPECT_FALSE(Loads(strText + "</a>"));
}

TEST(PXmlParse_test, Load_ForgetsTheOldDocument_WhenItFails) {
  CPXmlParse xml;
  EXPECT_EQ(xml.GetRoot(), nullptr);
  ASSERT_EQ(xml.LoadBuffer("<a/>"), 1);
  EXPECT_NE(xml.GetRoot(), nullptr);
  EXPECT_EQ(xml.LoadBuffer("<a>"), 0);
  EXPECT_EQ(xml.GetRoot(), nullptr);
  EXPECT_EQ(xml.GetNode(nullptr, "a"), nullptr);
}

TEST(PXmlParse_test, LoadFile_TellsFileErrorsFromBadText) {
  const CTempHome home;
  CPXmlParse xml;
  home.WriteFile("good.xml", "<a>1</a>");
  home.WriteFile("bad.xml", "<a>1");
  EXPECT_EQ(xml.LoadFile(home.Path("good.xml")), 1);
  EXPECT_EQ(xml.LoadFile(home.Path("missing.xml")), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(xml.GetRoot(), nullptr);
  EXPECT_EQ(xml.LoadFile(home.Path("bad.xml")), 0);
  EXPECT_EQ(errno, 0);
}

TEST(PXmlParse_test, GetNode_FindsTheFirstChildElement) {
  CPXmlParse xml;
  ASSERT_EQ(xml.LoadBuffer("<root>b<!--b--><b>1</b><c><b>deep</b></c><b>2</b></root>"), 1);
  const HXmlNode hRoot = xml.GetNode(nullptr, "root");
  ASSERT_NE(hRoot, nullptr);
  EXPECT_EQ(hRoot, xml.GetRoot());
  CPString strValue;
  EXPECT_EQ(CPXmlParse::GetValue(xml.GetNode(hRoot, "b"), strValue), 1);
  EXPECT_EQ(strValue, CPString("1"));
  EXPECT_EQ(CPXmlParse::GetValue(xml.GetNode(xml.GetNode(hRoot, "c"), "b"), strValue), 1);
  EXPECT_EQ(strValue, CPString("deep"));
  EXPECT_EQ(xml.GetNode(hRoot, "B"), nullptr);
  EXPECT_EQ(xml.GetNode(nullptr, "b"), nullptr);
  EXPECT_EQ(xml.GetNode(hRoot, nullptr), nullptr);
}

TEST(PXmlParse_test, GetNode_ListsAllChildElementsOfAName) {
  CPXmlParse xml;
  ASSERT_EQ(xml.LoadBuffer("<root><b>1</b><c/><b>2</b></root>"), 1);
  std::vector<HXmlNode> list{xml.GetRoot()};
  EXPECT_EQ(xml.GetNode(xml.GetRoot(), "b", list), 2);
  ASSERT_EQ(list.size(), 2u);
  CPString strValue;
  EXPECT_EQ(CPXmlParse::GetValue(list[1], strValue), 1);
  EXPECT_EQ(strValue, CPString("2"));
  EXPECT_EQ(xml.GetNode(xml.GetRoot(), "x", list), 0);
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(xml.GetNode(nullptr, "root", list), 1);
  EXPECT_EQ(xml.GetNode(nullptr, nullptr, list), 0);
}

TEST(PXmlParse_test, GetValue_JoinsTextAndCdata) {
  EXPECT_EQ(ValueOf("<a>x<!--no--><![CDATA[<y>]]><b>no</b>z</a>"), CPString("x<y>z"));
  EXPECT_EQ(ValueOf("<a/>"), CPString(""));
  EXPECT_EQ(ValueOf("<a> x </a>"), CPString(" x "));
  CPString strValue("old");
  EXPECT_EQ(CPXmlParse::GetValue(nullptr, strValue), 0);
  EXPECT_TRUE(strValue.IsEmpty());
}

}  // namespace
