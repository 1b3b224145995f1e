#include "platform/cloud/TconfAnswer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace zxcloud;
using ::testing::HasSubstr;

TEST(TconfAnswer, Parse_TakesEverything) {
  _TconfAnswer answer;
  std::string strError;
  ASSERT_TRUE(ParseTconf(R"({"v":1,"pcid":"a,b,1|c,d,2","short":"s:1,t","long":"l:2,m","lb":"opaque",
      "keepalive_sec":45,"spread_sec":10,"retry_max_sec":20,"refresh_sec":120,"max_message_bytes":2048,
      "drain_per_sec":7,"connections":1,"confirm":1,"future":{}})",
                         false, answer, strError))
      << strError;
  EXPECT_EQ(answer.strPcid, "a,b,1|c,d,2");
  EXPECT_EQ(answer.listShort.at(1).Text(), "t:443");
  EXPECT_EQ(answer.listLong.at(0).Text(), "l:2");
  EXPECT_EQ(answer.listLong.at(1).Text(), "m:8883");
  EXPECT_EQ(answer.strLb, "opaque");
  EXPECT_EQ(answer.iKeepAliveSec, 45);
  EXPECT_EQ(answer.uSpreadSec, 10u);
  EXPECT_EQ(answer.uRetryMaxSec, 20u);
  EXPECT_EQ(answer.uRefreshSec, 120u);
  EXPECT_EQ(answer.uConfirm, 1u);
  EXPECT_EQ(answer.uMaxMessage, 2048u);
  EXPECT_EQ(answer.uDrainPerSec, 7u);
  EXPECT_EQ(answer.uConnections, 1u);
}

TEST(TconfAnswer, Parse_HasDefaults) {
  _TconfAnswer answer;
  std::string strError;
  ASSERT_TRUE(ParseTconf(R"({"v":1})", false, answer, strError));
  EXPECT_TRUE(answer.listShort.empty());
  EXPECT_TRUE(answer.listLong.empty());
  EXPECT_EQ(answer.iKeepAliveSec, 30);
  EXPECT_EQ(answer.uSpreadSec, 60u);
  EXPECT_EQ(answer.uRetryMaxSec, 0u);
  EXPECT_EQ(answer.uRefreshSec, 3600u);
  EXPECT_EQ(answer.uMaxMessage, 8388608u);
  EXPECT_EQ(answer.uDrainPerSec, 100u);
  EXPECT_EQ(answer.uConnections, 2u);
}

TEST(TconfAnswer, Parse_BringsNumbersIntoTheirRange) {
  struct {
    const char* pszMember;
    int64_t i64Least, i64Most, i64Default;
    int64_t (*pfnValue)(const _TconfAnswer&);
  } const kMembers[] = {
      {"keepalive_sec", 10, 600, 30, [](const _TconfAnswer& a) { return int64_t{a.iKeepAliveSec}; }},
      {"spread_sec", 0, 600, 60, [](const _TconfAnswer& a) { return int64_t{a.uSpreadSec}; }},
      {"retry_max_sec", 5, 300, 0, [](const _TconfAnswer& a) { return int64_t{a.uRetryMaxSec}; }},
      {"refresh_sec", 60, 86400, 3600, [](const _TconfAnswer& a) { return int64_t{a.uRefreshSec}; }},
      {"drain_per_sec", 0, 1000000, 100, [](const _TconfAnswer& a) { return int64_t{a.uDrainPerSec}; }},
      {"connections", 1, 2, 2, [](const _TconfAnswer& a) { return int64_t{a.uConnections}; }},
      {"confirm", 0, 1, 0, [](const _TconfAnswer& a) { return int64_t{a.uConfirm}; }},
      {"max_message_bytes", 1024, 268435456, 8388608,
       [](const _TconfAnswer& a) { return static_cast<int64_t>(a.uMaxMessage); }},
  };
  _TconfAnswer answer;
  std::string strError;
  ASSERT_TRUE(ParseTconf(R"({"v":1})", false, answer, strError));
  for (const auto& member : kMembers)
    EXPECT_EQ(member.pfnValue(answer), member.i64Default) << member.pszMember;
  for (const auto& member : kMembers) {
    const std::pair<std::string, int64_t> kCases[] = {
        {"-1e99", member.i64Least},
        {std::to_string(member.i64Least - 1), member.i64Least},
        {std::to_string(member.i64Least), member.i64Least},
        {std::to_string(member.i64Least) + ".9", member.i64Least},
        {std::to_string(member.i64Least + 1), member.i64Least + 1},
        {std::to_string(member.i64Most), member.i64Most},
        {std::to_string(member.i64Most + 1), member.i64Most},
        {"1e99", member.i64Most},
        {"1e999", member.i64Most},
    };
    for (const auto& [strValue, i64Wanted] : kCases) {
      ASSERT_TRUE(ParseTconf("{\"v\":1,\"" + std::string(member.pszMember) + "\":" + strValue + "}", false,
                             answer, strError));
      EXPECT_EQ(member.pfnValue(answer), i64Wanted) << member.pszMember << " " << strValue;
    }
    for (const char* pszValue : {"\"1\"", "true", "null", "[1]"}) {
      EXPECT_FALSE(ParseTconf("{\"v\":1,\"" + std::string(member.pszMember) + "\":" + pszValue + "}", false,
                              answer, strError));
      EXPECT_EQ(strError, std::string("member ") + member.pszMember + " is no number");
    }
  }
}

TEST(TconfAnswer, Parse_RefusesWithItsReason_AndLeavesTheAnswerAlone) {
  struct {
    std::string strText;
    const char* pszReason;
  } const kCases[] = {
      {"", "not a JSON object"},
      {"[]", "not a JSON object"},
      {"{\"v\":1}x", "not a JSON object"},
      {std::string(100000, '['), "not a JSON object"},
      {std::string(kMaxTconfBytes + 1, ' '), "not a JSON object"},
      {"{}", "version 0"},
      {"{\"v\":2}", "version 2"},
      {"{\"v\":\"1\"}", "member v is no number"},
      {"{\"v\":1,\"pcid\":5}", "member pcid is no text"},
      {"{\"v\":1,\"short\":[]}", "member short is no text"},
      {"{\"v\":1,\"long\":\"mqtt://127.0.0.1:1\"}", "no usable address in member long"},
      {"{\"v\":1,\"refresh_sec\":\"60\"}", "member refresh_sec is no number"},
  };
  for (const auto& c : kCases) {
    _TconfAnswer answer;
    answer.strPcid = "before";
    std::string strError;
    EXPECT_FALSE(ParseTconf(c.strText, false, answer, strError));
    EXPECT_THAT(strError, HasSubstr(c.pszReason));
    EXPECT_EQ(answer.strPcid, "before");
  }
}
