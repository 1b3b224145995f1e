#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <string>
#include <vector>

#include "platform/doc/PJsonParse.h"
#include "support/TempHome.h"

using zxtools::CPJsonParse;
using zxtools::HJsonNode;

namespace {

CPString TextOf(const CPJsonParse& json) {
  CPString str;
  EXPECT_EQ(json.GetJsonStr(str), 1);
  return str;
}

TEST(PJsonParseBuild_test, AddNode_AppendsMembersInOrder) {
  CPJsonParse json;
  ASSERT_EQ(json.CreateJson(), 1);
  EXPECT_EQ(json.AddNode(nullptr, "text", "a\"b"), 1);
  EXPECT_EQ(json.AddNode(nullptr, "str", CPString("c")), 1);
  EXPECT_EQ(json.AddNode(nullptr, "int", -5), 1);
  EXPECT_EQ(json.AddNode(nullptr, "double", 0.5), 1);
  EXPECT_EQ(json.AddNodeBool(nullptr, "bool", 2), 1);
  EXPECT_EQ(json.AddNodeBool(nullptr, "off", 0), 1);
  const HJsonNode hObject = json.AddNodeObject(nullptr, "object");
  ASSERT_NE(hObject, nullptr);
  EXPECT_EQ(json.AddNode(hObject, "x", 1), 1);
  const HJsonNode hArray = json.AddNodeArray(hObject, "array");
  ASSERT_NE(hArray, nullptr);
  EXPECT_EQ(json.InsertItemToArray(hArray, "one"), 1);
  const HJsonNode hItem = json.InsertObjectToArray(hArray);
  ASSERT_NE(hItem, nullptr);
  EXPECT_EQ(json.AddNode(hItem, "y", 2), 1);
  EXPECT_EQ(
      TextOf(json),
      CPString("{\"text\":\"a\\\"b\",\"str\":\"c\",\"int\":-5,\"double\":0.5,\"bool\":true,\"off\":false,"
               "\"object\":{\"x\":1,\"array\":[\"one\",{\"y\":2}]}}"));
}

TEST(PJsonParseBuild_test, AddNode_Fails_WithoutAnObjectToAddTo) {
  CPJsonParse json;
  EXPECT_EQ(json.AddNode(nullptr, "a", "x"), 0);
  EXPECT_EQ(json.AddNodeObject(nullptr, "a"), nullptr);
  ASSERT_EQ(json.LoadBuffer("{\"t\":\"text\",\"list\":[1]}"), 1);
  const HJsonNode hText = json.GetNode("t");
  const HJsonNode hList = json.GetNode("list");
  EXPECT_EQ(json.AddNode(hText, "a", 1), 0);
  EXPECT_EQ(json.AddNode(hList, "a", 1), 0);
  EXPECT_EQ(json.AddNode(nullptr, nullptr, 1), 0);
  EXPECT_EQ(json.AddNode(nullptr, "a", static_cast<const char*>(nullptr)), 0);
  EXPECT_EQ(json.AddNodeArray(hText, "a"), nullptr);
  EXPECT_EQ(json.AddNodeBool(hText, "a", 1), 0);
  EXPECT_EQ(json.AddNode(hText, "a", 1.5), 0);
  EXPECT_EQ(json.AddCopyNode(nullptr, "a", nullptr), 0);
  EXPECT_EQ(json.InsertItemToArray(hText, "x"), 0);
  EXPECT_EQ(json.InsertItemToArray(nullptr, "x"), 0);
  EXPECT_EQ(json.InsertObjectToArray(hText), nullptr);
  EXPECT_EQ(TextOf(json), CPString("{\"t\":\"text\",\"list\":[1]}"));
}

TEST(PJsonParseBuild_test, AddNode_WritesWholeNumbersWithAllDigits) {
  CPJsonParse json;
  ASSERT_EQ(json.CreateJson(), 1);
  const double dWide = static_cast<double>(uint64_t{1} << 60);
  EXPECT_EQ(json.AddNode(nullptr, "size", dWide), 1);
  EXPECT_EQ(json.AddNode(nullptr, "negative", -dWide), 1);
  EXPECT_EQ(json.AddNode(nullptr, "time", 1700000000123.0), 1);
  EXPECT_EQ(TextOf(json), CPString("{\"size\":1152921504606846976,\"negative\":-1152921504606846976,"
                                   "\"time\":1700000000123}"));
  double dValue = 0;
  EXPECT_EQ(CPJsonParse::GetDoubleValue(json.GetNode("size"), dValue), 1);
  EXPECT_EQ(dValue, dWide);
  CPString strValue;
  EXPECT_EQ(CPJsonParse::GetValue(json.GetNode("size"), strValue), 1);
  EXPECT_EQ(strValue, CPString("1152921504606846976"));
  int iValue = 0;
  EXPECT_EQ(CPJsonParse::GetIntValue(json.GetNode("size"), iValue), 1);
  EXPECT_EQ(iValue, INT_MAX);
}

TEST(PJsonParseBuild_test, Numbers_SurviveWritingAndReading) {
  EXPECT_TRUE(rc::check([](double dValue, uint64_t u64Value) {
    for (const double d : {dValue, std::trunc(dValue), static_cast<double>(u64Value)}) {
      CPJsonParse json;
      RC_ASSERT(json.CreateJson() == 1);
      RC_ASSERT(json.AddNode(nullptr, "v", d) == 1);
      CPString strText;
      RC_ASSERT(json.GetJsonStr(strText) == 1);
      CPJsonParse again;
      RC_ASSERT(again.LoadBuffer(strText.c_str()) == 1);
      double dRead = 0;
      RC_ASSERT(CPJsonParse::GetDoubleValue(again.GetNode("v"), dRead) == 1);
      RC_ASSERT(dRead == d);
    }
  }));
}

TEST(PJsonParseBuild_test, Numbers_StayAsTheyAre_WhenADocumentIsLoadedAndWritten) {
  CPJsonParse json;
  const char* pszText =
      "{\"a\":9007199254740991,\"b\":[1000000000000000,61.896159999999995],\"c\":1e+30,\"d\":-0.1,\"e\":0}";
  ASSERT_EQ(json.LoadBuffer(pszText), 1);
  EXPECT_EQ(TextOf(json), CPString(pszText));
  int iValue = 0;
  std::vector<HJsonNode> list;
  ASSERT_EQ(json.GetAllNode(json.GetNode("b"), list), 1);
  EXPECT_EQ(CPJsonParse::GetIntValue(list[1], iValue), 1);
  EXPECT_EQ(iValue, 61);
}

TEST(PJsonParseBuild_test, Texts_SurviveWritingAndReading) {
  EXPECT_TRUE(rc::check([](const std::string& strRandom) {
    const std::string strText = strRandom.substr(0, strRandom.find('\0'));
    CPJsonParse json;
    RC_ASSERT(json.CreateJson() == 1);
    RC_ASSERT(json.AddNode(nullptr, strText.c_str(), strText.c_str()) == 1);
    CPString strJson;
    RC_ASSERT(json.GetJsonStr(strJson, true) == 1);
    CPJsonParse again;
    RC_ASSERT(again.LoadBuffer(strJson.c_str()) == 1);
    CPString strValue;
    RC_ASSERT(CPJsonParse::GetValue(again.GetNode(strText.c_str()), strValue) == 1);
    RC_ASSERT(strValue.Str() == strText);
  }));
}

TEST(PJsonParseBuild_test, AddCopyNode_CopiesDeeply) {
  CPJsonParse source;
  ASSERT_EQ(source.LoadBuffer("{\"a\":{\"b\":[1,2]}}"), 1);
  CPJsonParse json;
  ASSERT_EQ(json.CreateJson(), 1);
  EXPECT_EQ(json.AddCopyNode(nullptr, "copy", source.GetNode("a")), 1);
  ASSERT_EQ(source.LoadBuffer("{}"), 1);
  EXPECT_EQ(TextOf(json), CPString("{\"copy\":{\"b\":[1,2]}}"));
}

TEST(PJsonParseBuild_test, ReplaceNode_ChangesAnExistingMemberInPlace) {
  CPJsonParse json;
  ASSERT_EQ(json.LoadBuffer("{\"a\":1,\"b\":2,\"c\":3,\"d\":4}"), 1);
  EXPECT_EQ(json.ReplaceNode(nullptr, "a", "x"), 1);
  EXPECT_EQ(json.ReplaceNode(nullptr, "b", CPString("y")), 1);
  EXPECT_EQ(json.ReplaceNode(nullptr, "c", 2.5), 1);
  EXPECT_EQ(json.ReplaceNodeBool(nullptr, "d", 1), 1);
  EXPECT_EQ(TextOf(json), CPString("{\"a\":\"x\",\"b\":\"y\",\"c\":2.5,\"d\":true}"));
}

TEST(PJsonParseBuild_test, ReplaceNode_Fails_WhenTheMemberIsNotThere) {
  CPJsonParse json;
  ASSERT_EQ(json.LoadBuffer("{\"a\":1,\"list\":[1]}"), 1);
  EXPECT_EQ(json.ReplaceNode(nullptr, "A", "x"), 0);
  EXPECT_EQ(json.ReplaceNode(nullptr, nullptr, "x"), 0);
  EXPECT_EQ(json.ReplaceNode(nullptr, "a", static_cast<const char*>(nullptr)), 0);
  EXPECT_EQ(json.ReplaceNode(json.GetNode("list"), "a", 1.0), 0);
  EXPECT_EQ(json.ReplaceNodeBool(nullptr, "z", 1), 0);
  EXPECT_EQ(TextOf(json), CPString("{\"a\":1,\"list\":[1]}"));
}

TEST(PJsonParseBuild_test, SaveFile_WritesFormattedText) {
  const CTempHome home;
  CPJsonParse json;
  EXPECT_EQ(json.SaveFile(home.Path("f.json")), 0);
  EXPECT_FALSE(home.Exists("f.json"));
  ASSERT_EQ(json.CreateJson(), 1);
  ASSERT_EQ(json.AddNode(nullptr, "a", 1), 1);
  EXPECT_EQ(json.SaveFile(home.Path("f.json")), 1);
  EXPECT_EQ(home.ReadFile("f.json"), CPString("{\n\t\"a\":\t1\n}"));
  EXPECT_EQ(home.Mode("f.json"), 0644u);
  EXPECT_EQ(json.SaveFile(home.Path("p.json"), true), 1);
  EXPECT_EQ(home.Mode("p.json"), 0600u);
  errno = 0;
  EXPECT_EQ(json.SaveFile(home.Path("no/f.json")), 0);
  EXPECT_EQ(errno, ENOENT);
  CPJsonParse again;
  EXPECT_EQ(again.LoadFile(home.Path("f.json")), 1);
  EXPECT_EQ(TextOf(again), CPString("{\"a\":1}"));
}

}  // namespace
