#include "cloud/PollText.h"

#include <gmock/gmock.h>

#include <cstdlib>

#include "platform/doc/Base64.h"
#include "platform/doc/PXmlParse.h"

namespace zxcloudd {
namespace {

using testing::ElementsAre;

// As the agent writes it.
const char* kQuery =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<message>\n\t<product>veltsafe</product>\n\t<mid>machine-1</mid>\n"
    "\t<m2>second</m2>\n\t<push_msg_query>\n\t\t<business_id>\n\t\t\t<id>1001</id>\n\t\t\t<id>7</id>\n"
    "\t\t</business_id>\n\t</push_msg_query>\n</message>";

TEST(PollText, ParsePollQuery_TakesIdsAndBusinesses) {
  _PollQuery query;
  ASSERT_TRUE(ParsePollQuery(kQuery, query));
  EXPECT_EQ(query.strMid, "machine-1");
  EXPECT_EQ(query.strMid2, "second");
  EXPECT_THAT(query.listBusiness, ElementsAre(1001, 7));
}

TEST(PollText, ParsePollQuery_AcceptsAMachineWithoutComponents) {
  _PollQuery query;
  ASSERT_TRUE(
      ParsePollQuery("<message><mid>m</mid><push_msg_query><business_id>\n\t\n</business_id>"
                     "</push_msg_query></message>",
                     query));
  EXPECT_TRUE(query.listBusiness.empty());
}

TEST(PollText, ParsePollQuery_LeavesOutNumbersThatAreNone) {
  _PollQuery query;
  ASSERT_TRUE(
      ParsePollQuery("<message><mid>m</mid><push_msg_query><business_id><id>x</id><id>-1</id><id>0</id>"
                     "<id>99999999999</id><id> 5 </id></business_id></push_msg_query></message>",
                     query));
  EXPECT_THAT(query.listBusiness, ElementsAre(5));
}

TEST(PollText, ParsePollQuery_RefusesWhatIsNoQuery) {
  std::string strMany = "<message><mid>m</mid><push_msg_query><business_id>";
  for (size_t u = 0; u <= kPollBusinessMax; ++u)
    strMany += "<id>1</id>";
  strMany += "</business_id></push_msg_query></message>";
  for (const std::string& str :
       {std::string(""), std::string("{}"), std::string("<message/>"),
        std::string("<message><mid>m</mid></message>"), std::string("<message><push_msg_query/></message>"),
        std::string("<!DOCTYPE x [<!ENTITY a \"b\">]><message><mid>&a;</mid><push_msg_query/></message>"),
        std::string(kPollQueryMax + 1, ' '), strMany}) {
    _PollQuery query;
    EXPECT_FALSE(ParsePollQuery(str, query)) << str.substr(0, 80);
  }
}

// Reads the envelope the way an agent does.
struct _Read {
  std::vector<std::string> listBusiness, listIds, listTexts;
};

bool ReadEnvelope(const std::string& strXml, _Read& read) {
  zxtools::CPXmlParse xml;
  if (!xml.LoadBuffer(strXml.c_str()))
    return false;
  const auto hMessage = xml.GetNode(nullptr, "message");
  const auto hResult = xml.GetNode(hMessage, "push_msg_result");
  const auto hSet = hResult != nullptr ? xml.GetNode(hResult, "push_msg_set") : nullptr;
  if (hSet == nullptr)
    return false;
  std::vector<zxtools::HXmlNode> listInfos;
  xml.GetNode(hSet, "msg_info", listInfos);
  for (const auto hInfo : listInfos) {
    CPString strBusiness, strId, strContent;
    zxtools::CPXmlParse::GetValue(xml.GetNode(hInfo, "business_id"), strBusiness);
    zxtools::CPXmlParse::GetValue(xml.GetNode(hInfo, "msg_id"), strId);
    zxtools::CPXmlParse::GetValue(xml.GetNode(hInfo, "content"), strContent);
    size_t uLength = 0;
    char* psz = base64Decode(strContent.c_str(), static_cast<int>(strContent.GetLength()), 0, &uLength);
    if (psz == nullptr)
      return false;
    read.listBusiness.push_back(strBusiness.Str());
    read.listIds.push_back(strId.Str());
    read.listTexts.emplace_back(psz, uLength);
    free(psz);
  }
  return true;
}

TEST(PollText, WritePollEnvelope_CarriesEveryCommandInOrder) {
  const std::string strText = "{\"ID\":\"a\",\"x\":\"<&>\xe6\x94\xb6\"}";
  _Read read;
  ASSERT_TRUE(ReadEnvelope(WritePollEnvelope({{1001, 5, strText}, {7, 6, "{}"}}, 1700000000, 60), read));
  EXPECT_THAT(read.listBusiness, ElementsAre("1001", "7"));
  EXPECT_THAT(read.listIds, ElementsAre("5", "6"));
  EXPECT_THAT(read.listTexts, ElementsAre(strText, "{}"));
}

TEST(PollText, WritePollEnvelope_KeepsTheEmptySet) {
  _Read read;
  const std::string str = WritePollEnvelope({}, 1700000000, 90);
  EXPECT_TRUE(ReadEnvelope(str, read));
  EXPECT_TRUE(read.listTexts.empty());
  EXPECT_THAT(str, testing::HasSubstr("<push_timestamp>1700000000</push_timestamp>"));
  EXPECT_THAT(str, testing::HasSubstr("<poll_period_sec>90</poll_period_sec>"));
}

}  // namespace
}  // namespace zxcloudd
