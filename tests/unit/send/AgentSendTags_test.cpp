#include "send/SendFixture.h"

using ::testing::SizeIs;

namespace {

struct _Case {
  const char* pszName;
  std::string strMsg;
  uint32_t uiExpect;
  const char* pszTags;
};

void PrintTo(const _Case& testCase, std::ostream* pStream) {
  *pStream << testCase.pszName;
}

}  // namespace

class AgentSendTags : public CSendTest, public ::testing::WithParamInterface<_Case> {};

TEST_P(AgentSendTags, GetCloudTag_AnswersThis) {
  CPString strTags("old");
  EXPECT_EQ(m_send.GetCloudTag(GetParam().strMsg, strTags), GetParam().uiExpect);
  EXPECT_EQ(strTags, GetParam().pszTags);
}

TEST_P(AgentSendTags, SendMsg_SendsOnlyWithTags) {
  EXPECT_EQ(Send(3, 0, 0, GetParam().strMsg.c_str()), GetParam().uiExpect);
  EXPECT_THAT(m_cloud.Calls(), SizeIs(GetParam().uiExpect == 0 ? 1 : 0));
}

INSTANTIATE_TEST_SUITE_P(
    Table, AgentSendTags,
    ::testing::Values(_Case{"Two", R"({"CloudTags":{"dept":"ops","site":"b2"}})", 0, "<dept=ops><site=b2>"},
                      _Case{"DocumentOrder", R"({"x":1,"CloudTags":{"z":"1","a":"2"}})", 0, "<z=1><a=2>"},
                      _Case{"OtherTypesAsText", R"({"CloudTags":{"n":5,"b":true,"u":null,"o":{"k":[1]}}})", 0,
                            "<n=5><b=true><u=><o={\"k\":[1]}>"},
                      _Case{"EmptyNameSkipped", R"({"CloudTags":{"":"x","a":"1"}})", 0, "<a=1>"},
                      _Case{"OnlyEmptyName", R"({"CloudTags":{"":"x"}})", 0xb001006d, ""},
                      _Case{"NamelessArray", R"({"CloudTags":["x","y"]})", 0xb001006d, ""},
                      _Case{"EmptyObject", R"({"CloudTags":{}})", 0xb001006d, ""},
                      _Case{"EmptyText", "", 0xb0010065, "old"},
                      _Case{"NotJson", "CloudTags", 0xb0010081, ""},
                      _Case{"CutJson", R"({"CloudTags":{"a":"1")", 0xb0010081, ""},
                      _Case{"TooDeep",
                            "{\"CloudTags\":" + std::string(5000, '[') + std::string(5000, ']') + "}",
                            0xb0010081, ""},
                      _Case{"NoMember", R"({"cloudtags":{"a":"1"}})", 0xb001008f, ""},
                      _Case{"RootIsArray", R"([{"CloudTags":{"a":"1"}}])", 0xb001008f, ""},
                      _Case{"MemberIsText", R"({"CloudTags":"a"})", 0xb0010090, ""},
                      _Case{"MemberIsNumber", R"({"CloudTags":1})", 0xb0010090, ""}),
    CaseName<_Case>);

using AgentSendTagsMany = CSendTest;

TEST_F(AgentSendTagsMany, GetCloudTag_TakesEveryMember_WhenThereAreMany) {
  std::string strMsg = "{\"CloudTags\":{";
  std::string strExpect;
  for (int i = 0; i < 20000; ++i) {
    const std::string strName = "n" + std::to_string(i);
    strMsg += (i == 0 ? "\"" : ",\"") + strName + "\":\"v\"";
    strExpect += "<" + strName + "=v>";
  }
  strMsg += "}}";
  CPString strTags;
  EXPECT_EQ(m_send.GetCloudTag(strMsg, strTags), 0u);
  EXPECT_EQ(strTags.Str(), strExpect);
}
