#include <gmock/gmock.h>

#include "CloudFixture.h"
#include "cloud/CloudService.h"
#include "cloud/Endpoints.h"
#include "platform/doc/PJsonParse.h"

namespace zxcloudd {
namespace {

using testing::HasSubstr;

std::string Value(const std::string& strJson, const char* pszName) {
  zxtools::CPJsonParse json;
  CPString str;
  EXPECT_TRUE(json.LoadBuffer(strJson.data(), strJson.size())) << strJson;
  zxtools::CPJsonParse::GetValue(json.GetNode(pszName), str);
  return str.Str();
}

class CService : public CStoreTest {
 protected:
  CService() {
    m_config.tconf.strPcid = "veltcwpp,zxsample,1001";
    m_config.tconf.strLong = "127.0.0.1:8883";
    m_config.limits.iAgents = 3;
    m_config.agent.uMaxBodyBytes = 4096;
  }
  void SetUp() override {
    CStoreTest::SetUp();
    m_pService = std::make_unique<CCloudService>(*m_pStore, m_config);
    m_pService->SetPushWaker([this] { ++m_iWakes; });
  }
  int Upload(const std::string& strId, const std::string& strBody, const std::string& strMid = kMid) {
    return m_pService->Upload(strMid, strId, "2", UploadText(strBody)).iStatus;
  }
  std::string Push(const std::string& strID, const std::string& strVia = "auto") {
    return m_pService
        ->OpPush("{\"mid\":\"" + std::string(kMid) + "\",\"pcid\":1001,\"id\":\"" + strID +
                 "\",\"command\":\"disk_usage\",\"param\":{\"path\":\"/\"},\"via\":\"" + strVia + "\"}")
        .strBody;
  }
  std::string State(const std::string& strID) {
    const std::string strTrace = m_pService->OpTrace(strID).strBody;
    const size_t uAt = strTrace.find("\"state\":\"") + 9;
    return strTrace.substr(uAt, strTrace.find('"', uAt) - uAt);
  }
  bool OnMessages(const std::vector<_BrokerMessage>& listMessages) {
    m_listConfirms.clear();
    return m_pService->OnMessages(listMessages, m_listConfirms);
  }
  std::string Uploads() {
    _UploadFilter filter;
    filter.i64BodyMax = 1000;
    return m_pService->OpUploads(filter).strBody;
  }
  static _BrokerMessage Message(const std::string& strTopic, const std::string& strPayload) {
    return {strTopic, strPayload};
  }

  _CloudConfig m_config;
  std::unique_ptr<CCloudService> m_pService;
  int m_iWakes = 0;
  std::vector<_Confirm> m_listConfirms;
};

TEST_F(CService, Tconf_AnswersTheTableAndRemembersTheMachine) {
  _TconfIds ids;
  ids.strMid = "new-machine";
  ids.strMid2 = "two";
  ids.strLocalIp = "10.0.0.5";
  const _Reply reply = m_pService->Tconf(ids);
  EXPECT_EQ(reply.iStatus, 200);
  EXPECT_EQ(Value(reply.strBody, "pcid"), "veltcwpp,zxsample,1001");
  EXPECT_EQ(Value(reply.strBody, "v"), "1");
  EXPECT_EQ(Value(reply.strBody, "long"), "127.0.0.1:8883");
  EXPECT_THAT(m_pService->OpAgents().strBody, HasSubstr("\"mid\":\"new-machine\",\"m2\":\"two\""));
}

TEST_F(CService, Tconf_RefusesBadIdsAndTooManyMachines) {
  _TconfIds ids;
  for (const char* psz : {"", "a/b", "a+b", "a#"}) {
    ids.strMid = psz;
    EXPECT_EQ(m_pService->Tconf(ids).iStatus, 400) << psz;
  }
  ids.strMid = "ok";
  ids.strLocalIp = std::string(300, '1');
  EXPECT_EQ(m_pService->Tconf(ids).iStatus, 400);
  ids.strLocalIp = "";
  for (const char* psz : {"m1", "m2"}) {
    ids.strMid = psz;
    EXPECT_EQ(m_pService->Tconf(ids).iStatus, 200);
  }
  ids.strMid = "m3";
  const _Reply reply = m_pService->Tconf(ids);
  EXPECT_EQ(reply.iStatus, 429);
  EXPECT_GT(reply.iRetryAfterSec, 0);
}

TEST_F(CService, Upload_StoresOnce_WhenTheIdRepeats) {
  EXPECT_EQ(Upload("id-1", "x"), 200);
  EXPECT_EQ(Upload("id-1", "x"), 200);
  EXPECT_EQ(Upload("id-2", "x"), 200);
  const std::string strStatus = m_pService->OpStatus().strBody;
  EXPECT_THAT(strStatus, HasSubstr("\"received\":2,\"repeats\":1"));
}

TEST_F(CService, Upload_RefusesForGood_WhatIsNotOfThisMachine) {
  EXPECT_EQ(Upload("id-1", "x", "other"), 400);
  EXPECT_EQ(m_pService->Upload(kMid, "id-1", "2", "rubbish").iStatus, 400);
  EXPECT_EQ(m_pService->Upload(kMid, "id 1", "2", UploadText("x")).iStatus, 400);
  EXPECT_EQ(m_pService->Upload(kMid, "", "2", UploadText("x")).iStatus, 400);
  EXPECT_EQ(m_pService->Upload(kMid, "id-1", "4", UploadText("x")).iStatus, 400);
  EXPECT_EQ(m_pService->Upload(kMid, "id-1", "", UploadText("x")).iStatus, 400);
  EXPECT_EQ(m_pService->Upload(kMid, "id-1", "2", UploadText(std::string(5000, 'x'))).iStatus, 400);
  EXPECT_THAT(m_pService->OpStatus().strBody, HasSubstr("\"received\":0,\"repeats\":0,\"refused\":7"));
}

TEST_F(CService, Upload_IsRefusedWithRetry_WhenTheStoreFails) {
  m_pStore->Close();
  const _Reply reply = m_pService->Upload(kMid, "id-1", "2", UploadText("x"));
  EXPECT_EQ(reply.iStatus, 503);
  EXPECT_GT(reply.iRetryAfterSec, 0);
  EXPECT_EQ(m_pService->Health().iStatus, 503);
  EXPECT_EQ(m_pService->Poll(kMid, "").iStatus, 400);
  EXPECT_EQ(m_pService->OpStatus().iStatus, 503);
}

TEST_F(CService, Upload_KeepsABoundedNumberOfBodies_ButKnowsTheIds) {
  m_config.limits.iUploadsPerAgent = 3;
  m_config.limits.iUploadIdsPerAgent = 6;
  m_pService = std::make_unique<CCloudService>(*m_pStore, m_config);
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(Upload("id-" + std::to_string(i), "body" + std::to_string(i)), 200);
  const std::string strUploads = Uploads();
  EXPECT_THAT(strUploads, HasSubstr("body9"));
  EXPECT_THAT(strUploads, HasSubstr("body7"));
  EXPECT_THAT(strUploads, testing::Not(HasSubstr("body6")));
  EXPECT_THAT(strUploads, HasSubstr("id-4"));
  EXPECT_THAT(strUploads, testing::Not(HasSubstr("id-3")));
  EXPECT_EQ(Upload("id-4", "again"), 200);
  EXPECT_THAT(m_pService->OpStatus().strBody, HasSubstr("\"received\":10,\"repeats\":1"));
}

TEST_F(CService, Upload_KeepsABoundedNumberOfBytes) {
  m_config.limits.i64UploadBytesPerAgent = 3000;
  m_pService = std::make_unique<CCloudService>(*m_pStore, m_config);
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(Upload("id-" + std::to_string(i), std::string(1000, 'x')), 200);
  int64_t i64Bytes = -1;
  Run([&](CSqlite& db) {
    bool bOk = false;
    i64Bytes = db.Query("SELECT SUM(length(body)) FROM bodies").Number(-1, bOk);
    return bOk;
  });
  EXPECT_LE(i64Bytes, 3000);
  EXPECT_GT(i64Bytes, 1000);
}

TEST_F(CService, Acknowledgement_IsRecognisedInBothKinds) {
  Push("a");
  Push("b");
  EXPECT_EQ(Upload("id-1", R"({"ID":"a","msg_type":"3"})"), 200);
  EXPECT_EQ(State("a"), "acked");
  EXPECT_EQ(
      m_pService
          ->Upload(kMid, "id-2", "2", UploadText(R"({"ID":"b","msg_type":"4"})", kMid, "PCServerJasonData"))
          .iStatus,
      200);
  EXPECT_EQ(State("b"), "refused");
}

TEST_F(CService, Poll_AnswersWaitingCommands_AndChecksWhoAsks) {
  Push("a", "poll");
  const std::string strQuery = std::string("<message><mid>") + kMid + "</mid><push_msg_query/></message>";
  EXPECT_EQ(m_pService->Poll("other", strQuery).iStatus, 400);
  EXPECT_EQ(m_pService->Poll(kMid, "<x/>").iStatus, 400);
  const _Reply reply = m_pService->Poll(kMid, strQuery);
  EXPECT_EQ(reply.iStatus, 200);
  EXPECT_STREQ(reply.pszType, "application/xml");
  EXPECT_THAT(reply.strBody, HasSubstr("<business_id>1001</business_id>"));
  EXPECT_EQ(State("a"), "offered");
}

TEST_F(CService, OnMessages_TakesUploadsAndStates_DropsRubbish) {
  Push("a");
  const int iWakes = m_iWakes;
  const std::string strTopic = std::string("zx/v1/") + kMid;
  EXPECT_TRUE(
      OnMessages({Message(strTopic + "/status", "{\"online\":1}"),
                  Message(strTopic + "/up/2", "zx1 id-1\n" + UploadText(R"({"ID":"a","msg_type":"3"})")),
                  Message(strTopic + "/up/2", "zx1 id-1\n" + UploadText(R"({"ID":"a","msg_type":"3"})")),
                  Message("zx/v1/other/up/2", "zx1 id-1\n" + UploadText("x")),
                  Message(strTopic + "/up/2", "no frame"), Message(strTopic + "/push/1", "{}"),
                  Message(strTopic + "/status", "rubbish"), Message(std::string(100000, 'a'), "")}));
  EXPECT_EQ(State("a"), "acked");
  EXPECT_GT(m_iWakes, iWakes);
  EXPECT_THAT(
      m_pService->OpStatus().strBody,
      HasSubstr(
          "\"online\":1},\"commands\":{\"acked\":1},\"uploads\":{\"received\":1,\"repeats\":1,\"refused\":5}"));
}

TEST_F(CService, OnMessages_SaysWhatIsOnDisk_WhenTheConfigurationAsksForIt) {
  const std::string strTopic = std::string("zx/v1/") + kMid + "/up/2";
  const std::vector<_BrokerMessage> listMessages = {
      Message(strTopic, "zx1 id-1\n" + UploadText("x")),
      Message("zx/v1/m1/up/2", "zx1 other\n" + UploadText("x", "m1")),
      Message(strTopic, "zx1 id-1\n" + UploadText("x")), Message(strTopic, "zx1 id-2\nrubbish"),
      Message(strTopic, "no frame")};
  ASSERT_TRUE(OnMessages(listMessages));
  EXPECT_TRUE(m_listConfirms.empty());
  m_config.tconf.bConfirm = true;
  m_pService = std::make_unique<CCloudService>(*m_pStore, m_config);
  ASSERT_TRUE(OnMessages(listMessages));
  ASSERT_EQ(m_listConfirms.size(), 2u);
  EXPECT_EQ(m_listConfirms[0].strMid, kMid);
  EXPECT_EQ(m_listConfirms[0].strText, "zx1\n+id-1\n+id-1\n-id-2\n");
  EXPECT_EQ(m_listConfirms[1].strText, "zx1\n+other\n");
}

TEST_F(CService, OnMessages_ConfirmsNothing_ThatItCannotTakeNow) {
  m_config.tconf.bConfirm = true;
  m_pService = std::make_unique<CCloudService>(*m_pStore, m_config);
  for (const char* psz : {"m1", "m2"})
    EXPECT_EQ(m_pService->Upload(psz, "id", "2", UploadText("x", psz)).iStatus, 200);
  ASSERT_TRUE(OnMessages({Message("zx/v1/m3/up/2", "zx1 id-1\n" + UploadText("x", "m3"))}));
  EXPECT_TRUE(m_listConfirms.empty()) << "the table of machines is full";
  m_pStore->Close();
  EXPECT_FALSE(OnMessages({Message("zx/v1/m1/up/2", "zx1 id-2\n" + UploadText("x", "m1"))}));
  EXPECT_TRUE(m_listConfirms.empty());
}

TEST_F(CService, OnMessages_FailsWhole_WhenTheStoreFails) {
  m_pStore->Close();
  EXPECT_FALSE(OnMessages({Message(std::string("zx/v1/") + kMid + "/status", "{\"online\":1}")}));
}

TEST_F(CService, OnBrokerConnected_ForgetsWhoIsOnline_AndSendsAgain) {
  const std::string strTopic = std::string("zx/v1/") + kMid + "/status";
  ASSERT_TRUE(OnMessages({Message(strTopic, "{\"online\":1}")}));
  Push("a");
  std::vector<_PushItem> listItems;
  ASSERT_TRUE(m_pService->TakePushes(10, 1000, listItems));
  ASSERT_EQ(listItems.size(), 1u);
  ASSERT_TRUE(m_pService->OnBrokerConnected());
  ASSERT_TRUE(m_pService->TakePushes(10, 1000, listItems));
  EXPECT_TRUE(listItems.empty());
  ASSERT_TRUE(OnMessages({Message(strTopic, "{\"online\":1}")}));
  ASSERT_TRUE(m_pService->TakePushes(10, 1000, listItems));
  EXPECT_EQ(listItems.size(), 1u);
}

TEST_F(CService, OpPush_MakesTheTextAgentsExpect) {
  EXPECT_EQ(Value(Push("demo-1", "poll"), "ID"), "demo-1");
  EXPECT_EQ(m_iWakes, 0) << "a command for polling does not wake the long connection";
  std::string strText;
  Run([&](CSqlite& db) {
    CStatement query = db.Query("SELECT body FROM commands");
    if (query.Step() != EStep::Row)
      return false;
    strText = query.Text(0);
    return true;
  });
  EXPECT_EQ(strText, R"({"ID":"demo-1","Command":"disk_usage","Param":{"path":"/"}})");
}

TEST_F(CService, OpPush_MakesAnId_WhenThereIsNone) {
  const std::string strID = Value(
      m_pService->OpPush(std::string("{\"mid\":\"") + kMid + "\",\"pcid\":1,\"command\":\"x\"}").strBody,
      "ID");
  EXPECT_EQ(strID.size(), 16u);
  EXPECT_EQ(State(strID), "queued");
}

TEST_F(CService, OpPush_RefusesBadRequests) {
  const std::string strHead = std::string("{\"mid\":\"") + kMid + "\",\"pcid\":1001,";
  for (const std::string& str :
       {std::string(""), std::string("[]"), std::string("{}"), std::string(R"({"mid":"a/b","pcid":1})"),
        std::string("{\"mid\":\"") + kMid + "\",\"pcid\":0}", strHead + R"("via":"pigeon"})",
        strHead + R"("id":"a\"b"})", strHead + R"("text":"no json"})", strHead + R"("text":"{\"x\":1}"})",
        strHead + R"("id":"a","text":"{\"ID\":\"b\"}"})", strHead + R"("text":"{\"ID\":\"\"}"})",
        strHead + "\"text\":\"{\\\"ID\\\":\\\"" + std::string(201, 'i') + "\\\"}\"}",
        strHead + "\"command\":\"" + std::string(300, 'c') + "\"}",
        strHead + "\"id\":\"a\",\"param\":\"" + std::string(1 << 20, 'p') + "\"}"}) {
    EXPECT_EQ(m_pService->OpPush(str).iStatus, 400) << str.substr(0, 120);
  }
  EXPECT_EQ(m_pService->OpPush(R"({"mid":"nobody","pcid":1,"command":"x"})").iStatus, 404);
  Push("a");
  EXPECT_EQ(m_pService->OpPush(strHead + R"("id":"a","command":"x"})").iStatus, 409);
}

TEST_F(CService, OpTrace_UnknownIdIsNotFound) {
  EXPECT_EQ(m_pService->OpTrace("none").iStatus, 404);
  EXPECT_EQ(m_pService->OpTrace("").iStatus, 400);
}

// The translation from HTTP.
class CEndpoints : public CService {
 protected:
  _HttpRequest Request(const std::string& strPath, std::map<std::string, std::string> mapHeader = {},
                       std::map<std::string, std::string> mapQuery = {}, const std::string& strBody = "") {
    _HttpRequest request;
    request.strPath = strPath;
    request.strBody = strBody;
    request.fnHeader = [mapHeader](const char* psz) { return mapHeader.count(psz) ? mapHeader.at(psz) : ""; };
    request.fnQuery = [mapQuery](const char* psz) { return mapQuery.count(psz) ? mapQuery.at(psz) : ""; };
    return request;
  }
  int Agent(const _HttpRequest& request) { return HandleAgent(*m_pService, m_config.agent, request).iStatus; }
  int Operator(const std::string& strAuthorization, const std::string& strPath = "/op/v1/status") {
    return HandleOperator(*m_pService, "secret", Request(strPath, {{"Authorization", strAuthorization}}))
        .iStatus;
  }
};

TEST_F(CEndpoints, Tconf_NeedsVersionOneAndOneMid) {
  EXPECT_EQ(Agent(Request("/v1/tconf", {}, {{"v", "1"}, {"mid", kMid}})), 200);
  EXPECT_EQ(Agent(Request("/v1/tconf", {{"X-Zx-Mid", kMid}}, {{"v", "1"}, {"mid", kMid}, {"platid", "7"}})),
            200);
  EXPECT_EQ(Agent(Request("/v1/tconf", {}, {{"v", "2"}, {"mid", kMid}})), 400);
  EXPECT_EQ(Agent(Request("/v1/tconf", {}, {{"v", "1"}})), 400);
  EXPECT_EQ(Agent(Request("/v1/tconf", {}, {{"v", "1"}, {"mid", kMid}, {"platid", "x"}})), 400);
  EXPECT_EQ(Agent(Request("/v1/tconf", {{"X-Zx-Mid", "other"}}, {{"v", "1"}, {"mid", kMid}})), 400);
}

TEST_F(CEndpoints, Certificate_MustNameTheMachine_WhenConfigured) {
  m_config.agent.bCertNamesMid = true;
  _HttpRequest request = Request("/v1/upload", {{"X-Zx-Mid", kMid}, {"X-Zx-Id", "i"}, {"X-Zx-Priority", "1"}},
                                 {}, UploadText("x"));
  request.strCertName = "other";
  EXPECT_EQ(Agent(request), 403);
  request.strCertName = kMid;
  EXPECT_EQ(Agent(request), 200);
  EXPECT_EQ(Agent(Request("/v1/tconf", {}, {{"v", "1"}, {"mid", kMid}})), 403);
  EXPECT_EQ(Agent(Request("/v1/health")), 200) << "an address test has no machine id";
}

TEST_F(CEndpoints, Operator_AsksForUploadsAndCommands) {
  const auto Ask = [this](const std::string& strPath, std::map<std::string, std::string> mapQuery = {}) {
    return HandleOperator(*m_pService, "secret",
                          Request(strPath, {{"Authorization", "Bearer secret"}}, std::move(mapQuery)));
  };
  Push("c-1");
  EXPECT_EQ(Upload("u-1", "first"), 200);
  EXPECT_EQ(Upload("u-2", R"({"ID":"c-1","msg_type":"3"})"), 200);
  EXPECT_EQ(Upload("u-3", "third"), 200);
  const auto Ids = [&](std::map<std::string, std::string> mapQuery) {
    const std::string strBody = Ask("/op/v1/uploads", std::move(mapQuery)).strBody;
    std::string strIds;
    for (size_t u = strBody.find("\"id\":\""); u != std::string::npos; u = strBody.find("\"id\":\"", u + 1))
      strIds += strBody.substr(u + 6, 3) + " ";
    return strIds;
  };
  EXPECT_EQ(Ids({}), "u-1 u-2 u-3 ");
  EXPECT_EQ(Ids({{"after", "1"}, {"max", "1"}}), "u-2 ");
  EXPECT_EQ(Ids({{"newest", "1"}, {"max", "2"}}), "u-3 u-2 ");
  EXPECT_EQ(Ids({{"before", "3"}}), "u-2 u-1 ");
  EXPECT_EQ(Ids({{"kind", "ack"}}), "u-2 ");
  EXPECT_EQ(Ids({{"about", "c-1"}}), "u-2 ");
  EXPECT_EQ(Ids({{"about", "u-3"}}), "u-3 ");
  EXPECT_EQ(Ids({{"mid", "other"}}), "");
  EXPECT_THAT(Ask("/op/v1/uploads").strBody, HasSubstr("first"));
  EXPECT_THAT(Ask("/op/v1/uploads", {{"body", "0"}}).strBody, testing::Not(HasSubstr("first")));
  for (const char* psz : {"after", "max", "newest", "body", "before"})
    EXPECT_EQ(Ask("/op/v1/uploads", {{psz, "-1"}}).iStatus, 400) << psz;
  EXPECT_EQ(Ask("/op/v1/uploads", {{"after", "1"}, {"newest", "1"}}).iStatus, 400);

  const _Reply one = Ask("/op/v1/uploads/2");
  EXPECT_EQ(one.iStatus, 200);
  EXPECT_EQ(Value(one.strBody, "body"), R"({"ID":"c-1","msg_type":"3"})");
  EXPECT_EQ(Value(one.strBody, "outcome"), "3");
  EXPECT_THAT(one.strBody, HasSubstr("\"sysver\":\"debian 12\""));
  EXPECT_EQ(Ask("/op/v1/uploads/99").iStatus, 404);
  EXPECT_EQ(Ask("/op/v1/uploads/x").iStatus, 400);

  Push("c-2", "poll");
  EXPECT_THAT(Ask("/op/v1/commands").strBody, HasSubstr("\"ID\":\"c-2\""));
  EXPECT_THAT(Ask("/op/v1/commands", {{"state", "acked"}}).strBody,
              testing::AllOf(HasSubstr("c-1"), testing::Not(HasSubstr("c-2"))));
  EXPECT_EQ(Ask("/op/v1/commands", {{"mid", "other"}}).strBody, "{\"commands\":[]}");
  EXPECT_EQ(Ask("/op/v1/commands", {{"max", "0"}}).iStatus, 400);
  EXPECT_THAT(Ask("/op/v1/trace/c-1").strBody, HasSubstr("\"text\":\"{\\\"ID\\\":\\\"c-1"));
}

TEST_F(CEndpoints, Operator_NeedsTheToken) {
  EXPECT_EQ(Operator("Bearer secret"), 200);
  for (const char* psz : {"", "secret", "Bearer", "Bearer secre", "Bearer secret ", "Basic secret"})
    EXPECT_EQ(Operator(psz), 401) << psz;
  EXPECT_EQ(Operator("Bearer secret", "/op/v1/agents"), 200);
  EXPECT_EQ(Operator("Bearer secret", "/op/v1/uploads"), 200);
  EXPECT_EQ(Operator("Bearer secret", "/op/v1/trace/none"), 404);
}

}  // namespace
}  // namespace zxcloudd
