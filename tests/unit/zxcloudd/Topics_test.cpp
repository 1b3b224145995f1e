#include "cloud/Topics.h"

#include <gtest/gtest.h>

#include "cloud/CloudText.h"
#include "cloud/JsonText.h"

namespace zxcloudd {
namespace {

TEST(Topics, ParseTopic_TakesUploadsAndStates) {
  _Topic topic;
  ASSERT_TRUE(ParseTopic("zx/v1/m-1/up/12", topic));
  EXPECT_EQ(topic.eKind, ETopic::Upload);
  EXPECT_EQ(topic.strMid, "m-1");
  EXPECT_EQ(topic.iPriority, 12);
  ASSERT_TRUE(ParseTopic("zx/v1/m-1/status", topic));
  EXPECT_EQ(topic.eKind, ETopic::Status);
}

TEST(Topics, ParseTopic_RefusesEverythingElse) {
  for (const std::string& str :
       {std::string(""), std::string("zx/v1/"), std::string("zx/v1//status"), std::string("zx/v1/m/push/1"),
        std::string("zx/v1/m/up/4"), std::string("zx/v1/m/up/-1"), std::string("zx/v1/m/up/1/2"),
        std::string("zx/v1/m/up/"), std::string("zx/v1/m/statusx"), std::string("zx/v1/a b/status"),
        std::string("zx/v1/../status/x"), std::string("zx/v2/m/status"),
        "zx/v1/" + std::string(129, 'a') + "/status"}) {
    _Topic topic;
    EXPECT_FALSE(ParseTopic(str, topic)) << str;
  }
}

TEST(Topics, ParseUploadPayload_SplitsAtTheFirstLineFeed) {
  std::string_view svId, svBody;
  ASSERT_TRUE(ParseUploadPayload("zx1 ab-1\nbody\nmore", svId, svBody));
  EXPECT_EQ(svId, "ab-1");
  EXPECT_EQ(svBody, "body\nmore");
  ASSERT_TRUE(ParseUploadPayload("zx1 a\n", svId, svBody));
  EXPECT_EQ(svBody, "");
}

TEST(Topics, ParseUploadPayload_RefusesForeignFrames) {
  for (const std::string& str :
       {std::string(""), std::string("zx1"), std::string("zx1 \nx"), std::string("zx2 a\nx"),
        std::string("zx1 a b\nx"), std::string("zx1 abc"), "zx1 " + std::string(65, 'a') + "\nx"}) {
    std::string_view svId, svBody;
    EXPECT_FALSE(ParseUploadPayload(str, svId, svBody)) << str;
  }
}

TEST(Topics, ParseStatusPayload_TakesZeroAndOneOnly) {
  bool bOnline = false;
  EXPECT_TRUE(ParseStatusPayload("{\"online\":1}", bOnline));
  EXPECT_TRUE(bOnline);
  EXPECT_TRUE(ParseStatusPayload("{\"online\":0}", bOnline));
  EXPECT_FALSE(bOnline);
  for (const char* psz : {"", "1", "{}", "{\"online\":2}", "{\"online\":[1]}", "{\"online\":1"})
    EXPECT_FALSE(ParseStatusPayload(psz, bOnline)) << psz;
}

TEST(Topics, PushTopic_NamesMachineAndBusiness) {
  EXPECT_EQ(PushTopic("m", 1001), "zx/v1/m/push/1001");
}

TEST(CloudText, ParseNumber_TakesWholeDecimalTextsInRange) {
  int64_t i64 = -1;
  EXPECT_TRUE(ParseNumber("0", 0, 9, i64));
  EXPECT_EQ(i64, 0);
  for (const char* psz : {"", "-1", "+1", " 1", "1 ", "1x", "0x1", "10", "99999999999999999999"})
    EXPECT_FALSE(ParseNumber(psz, 0, 9, i64)) << psz;
}

TEST(CloudText, IsCommandId_RefusesWhatAnAcknowledgementCannotCarry) {
  EXPECT_TRUE(IsCommandId("a"));
  EXPECT_TRUE(IsCommandId(std::string(200, 'a')));
  EXPECT_TRUE(IsCommandId("\xe6\x94\xb6 1/2"));
  for (const std::string& str : {std::string(), std::string(201, 'a'), std::string("a\"b"),
                                 std::string("a\\b"), std::string("a\nb"), std::string(1, '\0')})
    EXPECT_FALSE(IsCommandId(str)) << str;
}

TEST(CloudText, RandomHex_DiffersEachTime) {
  const std::string str = RandomHex(16);
  EXPECT_EQ(str.size(), 32u);
  EXPECT_EQ(str.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_NE(str, RandomHex(16));
}

TEST(JsonText, Quote_EscapesAndStaysUtf8) {
  EXPECT_EQ(CJsonText::Quote("a\"b\\c\n"), "\"a\\\"b\\\\c\\u000a\"");
  EXPECT_EQ(CJsonText::Quote("\xe6\x94\xb6"), "\"\xe6\x94\xb6\"");
  // Cut, overlong, surrogate and stray bytes come out one by one.
  EXPECT_EQ(CJsonText::Quote("\xe6\x94"), "\"\\u00e6\\u0094\"");
  EXPECT_EQ(CJsonText::Quote("\xc0\xaf"), "\"\\u00c0\\u00af\"");
  EXPECT_EQ(CJsonText::Quote("\xed\xa0\x80"), "\"\\u00ed\\u00a0\\u0080\"");
  EXPECT_EQ(CJsonText::Quote("\xff"), "\"\\u00ff\"");
}

TEST(JsonText, NestsObjectsAndArrays) {
  CJsonText json;
  json.Number("n", -5);
  json.Array("list");
  json.Object();
  json.Bool("b", true);
  json.End();
  json.Object();
  json.End();
  json.End();
  json.Object("o");
  json.Text("t", "x");
  EXPECT_EQ(json.Str(), R"({"n":-5,"list":[{"b":true},{}],"o":{"t":"x"}})");
}

}  // namespace
}  // namespace zxcloudd
