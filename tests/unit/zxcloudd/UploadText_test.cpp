#include "cloud/UploadText.h"

#include <gmock/gmock.h>

#include "CloudFixture.h"

namespace zxcloudd {
namespace {

TEST(UploadText, ParseUpload_TakesEveryField) {
  const std::string str = UploadText("{\"a\":1}");
  _UploadHeader header;
  ASSERT_TRUE(ParseUpload(str, header));
  EXPECT_EQ(header.eType, EUploadType::PluginData);
  EXPECT_EQ(header.svMid, kMid);
  EXPECT_EQ(header.svMid2, "second");
  EXPECT_EQ(header.svProduct, "veltcwpp");
  EXPECT_EQ(header.svCombo, "zxsample");
  EXPECT_EQ(header.svPartner, "demo");
  EXPECT_EQ(header.svChannel, "h_home");
  EXPECT_EQ(header.svSysVer, "debian 12");
  EXPECT_EQ(header.svVersion, "1.2.3");
  EXPECT_EQ(header.svBody, "{\"a\":1}");
}

TEST(UploadText, ParseUpload_EmptyChannelAndPartnerStayFields) {
  const std::string str =
      "<mid=m><m2=><v=2><product=p><combo=c><ipartner=><pa=linux><pid=><sysver=><version=>"
      "<PCServerJasonData=x><PCPluginVersion=1.0.0.2005>";
  _UploadHeader header;
  ASSERT_TRUE(ParseUpload(str, header));
  EXPECT_EQ(header.eType, EUploadType::ServerData);
  EXPECT_EQ(header.svPartner, "");
  EXPECT_EQ(header.svChannel, "");
  EXPECT_EQ(header.svBody, "x");
}

TEST(UploadText, ParseUpload_BodyEndsAtTheLastMark_WhenItHoldsTheMarkItself) {
  const std::string strBody = "a > b ><PCPluginVersion=9> c<mid=other>";
  const std::string str = UploadText(strBody);
  _UploadHeader header;
  ASSERT_TRUE(ParseUpload(str, header));
  EXPECT_EQ(header.svBody, strBody);
  EXPECT_EQ(header.svMid, kMid);
}

TEST(UploadText, ParseUpload_BodyMayHoldNulAndEveryByte) {
  std::string strBody;
  for (int i = 0; i < 256; ++i)
    strBody += static_cast<char>(i);
  const std::string str = UploadText(strBody);
  _UploadHeader header;
  ASSERT_TRUE(ParseUpload(str, header));
  EXPECT_EQ(header.svBody, strBody);
}

TEST(UploadText, ParseUpload_TagsAreTheBody) {
  const std::string str =
      "<mid=m><m2=n><v=2><product=p><combo=c><ipartner=i><pa=linux><pid=h><sysver=s><version=v>"
      "<PCPluginVersion=1.0.0.2005><dept=ops><site=b2>";
  _UploadHeader header;
  ASSERT_TRUE(ParseUpload(str, header));
  EXPECT_EQ(header.eType, EUploadType::Tags);
  EXPECT_EQ(header.svBody, "<dept=ops><site=b2>");
}

TEST(UploadText, ParseUpload_RefusesEveryCutText) {
  const std::string str = UploadText("{\"ID\":\"x\",\"msg_type\":\"3\"}");
  for (size_t u = 0; u + 1 < str.size(); ++u) {
    _UploadHeader header;
    EXPECT_FALSE(ParseUpload(std::string_view(str).substr(0, u), header)) << str.substr(0, u);
  }
}

TEST(UploadText, ParseUpload_RefusesForeignTexts) {
  for (const char* psz :
       {"", "<", "<mid=", "{}", "<mid=a><m2=b><v=3><product=p>", "mid=a><m2=b>",
        "<mid=a><m2=b><v=2><product=p><combo=c><ipartner=><pa=linux><pid=><sysver=><version=>"
        "<Other=x><PCPluginVersion=1>"}) {
    _UploadHeader header;
    EXPECT_FALSE(ParseUpload(psz, header)) << psz;
  }
}

TEST(UploadText, ParseAck_TakesTextAndNumber) {
  _Ack ack;
  ASSERT_TRUE(ParseAck(R"({"ID":"demo-1","msg_type":"3"})", ack));
  EXPECT_EQ(ack.strID, "demo-1");
  EXPECT_EQ(ack.iMsgType, 3);
  ASSERT_TRUE(ParseAck(R"({"msg_type":4,"ID":"x"})", ack));
  EXPECT_EQ(ack.strID, "x");
  EXPECT_EQ(ack.iMsgType, 4);
}

TEST(UploadText, ParseAck_RefusesWhatIsNoAcknowledgement) {
  const std::string strLong(201, 'i');
  for (const std::string& str :
       {std::string(""), std::string("x"), std::string("[]"), std::string("{}"), std::string(R"({"ID":"a"})"),
        std::string(R"({"ID":"","msg_type":"3"})"), std::string(R"({"ID":"a","msg_type":"three"})"),
        std::string(R"({"ID":"a","msg_type":"-1"})"), std::string(R"({"ID":"a","msg_type":"3","more":1})"),
        std::string(R"({"ID":"a","ID":"b"})"), R"({"ID":")" + strLong + R"(","msg_type":"3"})",
        std::string(R"({"ID":"a","msg_type":"3")"),
        R"({"ID":"a","msg_type":")" + std::string(5000, '0') + R"("})"}) {
    _Ack ack;
    EXPECT_FALSE(ParseAck(str, ack)) << str.substr(0, 80);
  }
}

_UploadNature Nature(const std::string& strUpload) {
  _UploadHeader header;
  EXPECT_TRUE(ParseUpload(strUpload, header)) << strUpload;
  return NatureOf(header);
}

std::string MaintUpload(const std::string& strBody) {
  std::string str = UploadText(strBody);
  str.replace(str.find("zxsample"), 8, "zxpmaint");
  return str;
}

TEST(UploadText, NatureOf_TellsWhatAnOperatorLooksFor) {
  const _UploadNature ack = Nature(UploadText(R"({"ID":"c-1","msg_type":"3"})"));
  EXPECT_EQ(ack.eKind, EUploadKind::Ack);
  EXPECT_EQ(ack.strAbout, "c-1");
  EXPECT_EQ(ack.strOutcome, "3");
  const _UploadNature maint =
      Nature(MaintUpload(R"({"ID":"m-1","state":"done","exit_code":7,"stdout":"x"})"));
  EXPECT_EQ(maint.eKind, EUploadKind::Maint);
  EXPECT_EQ(maint.strAbout, "m-1");
  EXPECT_EQ(maint.strOutcome, "done 7");
  EXPECT_EQ(Nature(MaintUpload(R"({"ID":"m-1","msg_type":"1"})")).eKind, EUploadKind::Ack)
      << "the agent acknowledges maintenance commands too";
  EXPECT_EQ(Nature(UploadText("{\"lines\":[]}")).eKind, EUploadKind::Data);
}

TEST(UploadText, NatureOf_ResultsOfOtherFormatsAreStillResults) {
  for (const std::string& strBody :
       {std::string("plain text"), std::string("{"), std::string(R"({"state":"done"})"),
        std::string(R"({"ID":"a\"b","state":"done"})"),
        R"({"ID":"m","state":")" + std::string(40, 's') + "\"}"}) {
    const _UploadNature nature = Nature(MaintUpload(strBody));
    EXPECT_EQ(nature.eKind, EUploadKind::Maint) << strBody;
    EXPECT_EQ(nature.strAbout, "") << strBody;
    EXPECT_EQ(nature.strOutcome, "") << strBody;
  }
}

}  // namespace
}  // namespace zxcloudd
