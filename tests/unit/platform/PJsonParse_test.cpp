#include "platform/doc/PJsonParse.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cfloat>
#include <climits>
#include <string>
#include <vector>

#include "support/TempHome.h"

using zxtools::CPJsonParse;
using zxtools::HJsonNode;

namespace {

int Load(CPJsonParse& json, const std::string& strText) {
  return json.LoadBuffer(strText.data(), strText.size());
}

bool Loads(const std::string& strText) {
  CPJsonParse json;
  const int iResult = Load(json, strText);
  EXPECT_EQ(iResult != 0, json.GetRoot() != nullptr);
  return iResult != 0;
}

CPString ValueOf(const std::string& strValue) {
  CPJsonParse json;
  EXPECT_EQ(Load(json, "{\"v\":" + strValue + "}"), 1) << strValue;
  CPString str("old");
  EXPECT_EQ(CPJsonParse::GetValue(json.GetNode("v"), str), 1) << strValue;
  return str;
}

TEST(PJsonParse_test, Load_TakesAnyValueAsRoot) {
  EXPECT_TRUE(Loads("{}"));
  EXPECT_TRUE(Loads("[]"));
  EXPECT_TRUE(Loads("\"x\""));
  EXPECT_TRUE(Loads(" \r\n\t{\"a\":1}\r\n"));
  EXPECT_TRUE(Loads("{\r\n\"a\":\r\n[1,\r\n2]\r\n}\r\n"));
}

TEST(PJsonParse_test, Load_RefusesWhatIsNotOneDocument) {
  for (const char* psz : {"", " ", "{", "}", "{\"a\":}", "{\"a\" 1}", "[1,]", "{,}", "nul", "\"open", "{}x",
                          "{}{}", "{} // note", "{}]", "'a'", "\\", "{\"a\":\"\\u12\"}", "<xml/>"})
    EXPECT_FALSE(Loads(psz)) << psz;
}

TEST(PJsonParse_test, Load_RefusesNulBytes) {
  EXPECT_FALSE(Loads(std::string("{\0}", 3)));
  EXPECT_FALSE(Loads(std::string("{}\0", 3)));
  EXPECT_FALSE(Loads(std::string("{\"a\":\"b\0c\"}", 11)));
}

TEST(PJsonParse_test, Load_ReadsNoFurtherThanItsLength) {
  CPJsonParse json;
  const std::string strText = "{\"a\":1}garbage";
  const std::vector<char> exact(strText.begin(), strText.begin() + 7);
  EXPECT_EQ(json.LoadBuffer(exact.data(), exact.size()), 1);
  EXPECT_EQ(json.LoadBuffer(exact.data(), 6), 0);
  EXPECT_EQ(json.GetRoot(), nullptr);
}

TEST(PJsonParse_test, Load_RefusesNull) {
  CPJsonParse json;
  EXPECT_EQ(json.LoadBuffer(nullptr), 0);
  EXPECT_EQ(json.LoadBuffer(nullptr, 5), 0);
  EXPECT_EQ(json.LoadBuffer("{}"), 1);
}

TEST(PJsonParse_test, Load_ForgetsTheOldDocument_WhenItFails) {
  CPJsonParse json;
  ASSERT_EQ(json.LoadBuffer("{\"a\":1}"), 1);
  EXPECT_EQ(json.LoadBuffer("{\"a\":"), 0);
  EXPECT_EQ(json.GetNode("a"), nullptr);
  CPString str("old");
  EXPECT_EQ(json.GetJsonStr(str), 0);
  EXPECT_TRUE(str.IsEmpty());
}

TEST(PJsonParse_test, Load_BoundsTheDepth) {
  const auto Nested = [](int iDepth) {
    return std::string(static_cast<size_t>(iDepth), '[') + std::string(static_cast<size_t>(iDepth), ']');
  };
  EXPECT_TRUE(Loads(Nested(zxtools::kJsonMaxDepth)));
  EXPECT_FALSE(Loads(Nested(zxtools::kJsonMaxDepth + 1)));
  EXPECT_FALSE(Loads(std::string(1u << 20, '[')));
  EXPECT_FALSE(Loads("[\"]]]]\"," + Nested(zxtools::kJsonMaxDepth) + "]"));
  EXPECT_TRUE(Loads("{\"a\":\"\\\"" + std::string(1000, '[') + "\"}"));
}

TEST(PJsonParse_test, Load_BoundsTheNumberOfValues) {
  std::string strText = "[0";
  for (size_t u = 0; u < zxtools::kJsonMaxValues; ++u)
    strText += ",0";
  EXPECT_FALSE(Loads(strText + "]"));
}

TEST(PJsonParse_test, Load_BoundsTheBytes) {
  std::string strText(zxtools::kJsonMaxBytes + 1, ' ');
  strText[0] = '{';
  strText[1] = '}';
  EXPECT_FALSE(Loads(strText));
}

TEST(PJsonParse_test, LoadFile_TellsFileErrorsFromBadText) {
  const CTempHome home;
  CPJsonParse json;
  home.WriteFile("good.json", "{\"a\":1}\n");
  home.WriteFile("bad.json", "{\"a\":1");
  home.WriteFile("empty.json", "");
  EXPECT_EQ(json.LoadFile(home.Path("good.json")), 1);
  EXPECT_EQ(json.LoadFile(home.Path("missing.json")), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(json.GetRoot(), nullptr);
  EXPECT_EQ(json.LoadFile(home.Path("bad.json")), 0);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(json.LoadFile(home.Path("empty.json")), 0);
  EXPECT_EQ(errno, 0);
}

TEST(PJsonParse_test, GetNode_IsCaseSensitive_AndTakesTheFirst) {
  CPJsonParse json;
  ASSERT_EQ(json.LoadBuffer(R"({"Key":1,"key":2,"key":3,"sub":{"x":4}})"), 1);
  int iValue = 0;
  EXPECT_EQ(CPJsonParse::GetIntValue(json.GetNode("key"), iValue), 1);
  EXPECT_EQ(iValue, 2);
  EXPECT_EQ(json.GetNode("KEY"), nullptr);
  EXPECT_EQ(json.GetNode(nullptr), nullptr);
  EXPECT_NE(json.GetNode(json.GetNode("sub"), "x"), nullptr);
  EXPECT_EQ(json.GetNode(json.GetNode("Key"), "x"), nullptr);
  EXPECT_EQ(CPJsonParse().GetNode("x"), nullptr);
}

TEST(PJsonParse_test, GetAllNode_ListsChildrenInOrder) {
  CPJsonParse json;
  ASSERT_EQ(json.LoadBuffer(R"({"b":1,"a":[5,6],"c":"x"})"), 1);
  std::vector<HJsonNode> list;
  ASSERT_EQ(json.GetAllNode(nullptr, list), 1);
  ASSERT_EQ(list.size(), 3u);
  CPString strName;
  EXPECT_EQ(CPJsonParse::GetName(list[1], strName), 1);
  EXPECT_EQ(strName, CPString("a"));
  ASSERT_EQ(json.GetAllNode(json.GetNode("a"), list), 1);
  EXPECT_EQ(list.size(), 2u);
  EXPECT_EQ(CPJsonParse::GetName(list[0], strName), 0);
  EXPECT_TRUE(strName.IsEmpty());
  EXPECT_EQ(json.GetAllNode(json.GetNode("c"), list), 0);
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(CPJsonParse::GetName(nullptr, strName), 0);
}

TEST(PJsonParse_test, GetValue_GivesEveryKindAsText) {
  EXPECT_EQ(ValueOf(R"("a \"b\" \u00e4")"), CPString("a \"b\" \xc3\xa4"));
  EXPECT_EQ(ValueOf("true"), CPString("true"));
  EXPECT_EQ(ValueOf("false"), CPString("false"));
  EXPECT_EQ(ValueOf("null"), CPString(""));
  EXPECT_EQ(ValueOf(R"({ "a" : [ 1 , "x" ] })"), CPString(R"({"a":[1,"x"]})"));
  EXPECT_EQ(ValueOf("[ ]"), CPString("[]"));
  CPString str("old");
  EXPECT_EQ(CPJsonParse::GetValue(nullptr, str), 0);
  EXPECT_TRUE(str.IsEmpty());
}

TEST(PJsonParse_test, GetValue_GivesNumbersInShortestForm) {
  EXPECT_EQ(ValueOf("0"), CPString("0"));
  EXPECT_EQ(ValueOf("-0.0"), CPString("0"));
  EXPECT_EQ(ValueOf("42"), CPString("42"));
  EXPECT_EQ(ValueOf("42.0"), CPString("42"));
  EXPECT_EQ(ValueOf("-17"), CPString("-17"));
  EXPECT_EQ(ValueOf("0.1"), CPString("0.1"));
  EXPECT_EQ(ValueOf("1700000000000"), CPString("1700000000000"));
  EXPECT_EQ(ValueOf("1e3"), CPString("1000"));
  EXPECT_EQ(ValueOf("9007199254740993"), CPString("9007199254740992"));
  EXPECT_EQ(ValueOf("1152921504606846976"), CPString("1152921504606846976"));
  EXPECT_EQ(ValueOf("1e30"), CPString("1e+30"));
  EXPECT_EQ(ValueOf("1e999"), CPString("null"));
}

TEST(PJsonParse_test, GetValue_PassesInvalidUtf8Through) {
  EXPECT_EQ(ValueOf("\"\xff\xfe\""), CPString("\xff\xfe"));
}

struct CIntCase {
  const char* pszValue;
  int iResult;
  int iExpect;
};

class PJsonInt_test : public ::testing::TestWithParam<CIntCase> {};

TEST_P(PJsonInt_test, GetIntValue_ConvertsWhatIsANumber) {
  CPJsonParse json;
  ASSERT_EQ(Load(json, std::string("{\"v\":") + GetParam().pszValue + "}"), 1);
  int iValue = 99;
  EXPECT_EQ(CPJsonParse::GetIntValue(json.GetNode("v"), iValue), GetParam().iResult);
  EXPECT_EQ(iValue, GetParam().iExpect);
}

INSTANTIATE_TEST_SUITE_P(All, PJsonInt_test,
                         ::testing::Values(CIntCase{"7", 1, 7}, CIntCase{"-7.9", 1, -7},
                                           CIntCase{"7.9", 1, 7}, CIntCase{"3000000000", 1, INT_MAX},
                                           CIntCase{"-3000000000", 1, INT_MIN}, CIntCase{"1e999", 1, INT_MAX},
                                           CIntCase{"true", 1, 1}, CIntCase{"false", 1, 0},
                                           CIntCase{"\"12\"", 1, 12}, CIntCase{"\" -12x\"", 1, -12},
                                           CIntCase{"\"x12\"", 1, 0}, CIntCase{"\"\"", 1, 0},
                                           CIntCase{"\"99999999999\"", 1, INT_MAX},
                                           CIntCase{"\"-99999999999\"", 1, INT_MIN}, CIntCase{"null", 0, 0},
                                           CIntCase{"[1]", 0, 0}, CIntCase{"{}", 0, 0}));

TEST(PJsonParse_test, GetIntValue_FailsForNull) {
  int iValue = 99;
  EXPECT_EQ(CPJsonParse::GetIntValue(nullptr, iValue), 0);
  EXPECT_EQ(iValue, 0);
}

TEST(PJsonParse_test, GetDoubleValue_ReadsNumbersAndTexts) {
  const auto Value = [](const char* pszValue, double& dValue) {
    CPJsonParse json;
    EXPECT_EQ(Load(json, std::string("{\"v\":") + pszValue + "}"), 1);
    return CPJsonParse::GetDoubleValue(json.GetNode("v"), dValue);
  };
  double dValue = 99;
  EXPECT_EQ(Value("2.5", dValue), 1);
  EXPECT_EQ(dValue, 2.5);
  EXPECT_EQ(Value("\" +2.5e1x\"", dValue), 1);
  EXPECT_EQ(dValue, 25.0);
  EXPECT_EQ(Value("\"-3\"", dValue), 1);
  EXPECT_EQ(dValue, -3.0);
  EXPECT_EQ(Value("\"+-3\"", dValue), 1);
  EXPECT_EQ(dValue, 0.0);
  EXPECT_EQ(Value("\"abc\"", dValue), 1);
  EXPECT_EQ(dValue, 0.0);
  EXPECT_EQ(Value("\"1e999\"", dValue), 1);
  EXPECT_GT(dValue, DBL_MAX);
  EXPECT_EQ(Value("true", dValue), 0);
  EXPECT_EQ(dValue, 0.0);
  EXPECT_EQ(Value("null", dValue), 0);
  EXPECT_EQ(CPJsonParse::GetDoubleValue(nullptr, dValue), 0);
}

}  // namespace
