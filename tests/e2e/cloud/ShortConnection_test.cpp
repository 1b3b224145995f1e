// HTTPS: terminal configuration, polls, uploads without a long connection.
#include <gmock/gmock.h>

#include <thread>

#include "CloudFixture.h"
#include "support/Waiter.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class CShortConnection : public CCloudFixture {
 protected:
  CShortConnection() : m_https(&m_cert) {}

  void Start() {
    ServeTconf(m_https, "", "");
    WriteConfig(m_https.Address());
    ASSERT_EQ(Init(true), 0u);
    ASSERT_TRUE(m_events.Wait("data 1")) << ::testing::PrintToString(m_events.Events());
  }
  static uint32_t Poll(const std::string& strText) {
    return zxcloud_send_pollmsg(strText.data(), static_cast<int>(strText.size()));
  }

  CTestHttps m_https;
};

TEST_F(CShortConnection, Poll_HandsTheAnswerToTheCallbackBeforeItReturns) {
  m_https.Answer("/v1/poll", [](const _TestRequest&) { return _TestReply{200, "<result>1</result>", {}}; });
  Start();
  EXPECT_EQ(Poll("<query/>"), 0u);
  EXPECT_THAT(m_events.Events("poll"), ElementsAre("poll 0 <result>1</result>"));
  const _TestRequest request = m_https.Requests("/v1/poll").at(0);
  EXPECT_EQ(request.strBody, "<query/>");
  EXPECT_EQ(request.headers.at("x-zx-mid"), "m-1");
  EXPECT_EQ(request.headers.at("content-type"), "application/xml");
}

TEST_F(CShortConnection, Poll_ProvesTheConnectionOnce_AndAgainAfterAFailure) {
  int iStatus = 200;
  m_https.Answer("/v1/poll", [&](const _TestRequest&) { return _TestReply{iStatus, "", {}}; });
  Start();
  EXPECT_EQ(Poll("a"), 0u);
  EXPECT_EQ(Poll("b"), 0u);
  EXPECT_THAT(m_events.Events("data 5"), ElementsAre("data 5 " + m_https.Address()));
  iStatus = 500;
  EXPECT_EQ(Poll("c"), kZxcloudErrRefused);
  iStatus = 200;
  EXPECT_EQ(Poll("d"), 0u);
  EXPECT_EQ(m_events.Events("data 5").size(), 2u);
  EXPECT_TRUE(m_events.Events("poll").empty());  // an answer without a message
}

TEST_F(CShortConnection, Poll_Fails_BeforeTheTerminalConfigurationIsThere) {
  WriteConfig(m_https.Address());
  ASSERT_EQ(Init(true), 0u);
  EXPECT_EQ(Poll("<query/>"), kZxcloudErrNetwork);
}

TEST_F(CShortConnection, Upload_CarriesWhatWaits_WithPriorityAndId) {
  m_https.Answer("/v1/upload", [](const _TestRequest&) { return _TestReply{}; });
  Start();
  EXPECT_EQ(zxcloud_send_sync("body", 4, 11, 5000), 0u);
  const _TestRequest request = m_https.Requests("/v1/upload").at(0);
  EXPECT_EQ(request.strBody, "body");
  EXPECT_EQ(request.headers.at("x-zx-priority"), "11");
  EXPECT_THAT(request.headers.at("x-zx-id"), ::testing::MatchesRegex("[0-9a-f]{16}-1"));
}

TEST_F(CShortConnection, Upload_IsRepeatedWithTheSameId_WhenTheCloudIsBusy) {
  std::atomic<int> iCalls{0};
  m_https.Answer("/v1/upload", [&](const _TestRequest&) {
    return _TestReply{++iCalls == 1 ? 503 : 200, "", {}};
  });
  Start();
  EXPECT_EQ(zxcloud_send_sync("body", 4, 0, 8000), 0u);
  const auto list = m_https.Requests("/v1/upload");
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].headers.at("x-zx-id"), list[1].headers.at("x-zx-id"));
}

TEST_F(CShortConnection, Upload_IsGivenUp_WhenTheCloudRefusesItForGood) {
  m_https.Answer("/v1/upload", [](const _TestRequest&) { return _TestReply{413, "", {}}; });
  Start();
  EXPECT_EQ(zxcloud_send_sync("body", 4, 0, 5000), kZxcloudErrRefused);
  EXPECT_EQ(Option("waiting"), "0");
}

TEST_F(CShortConnection, RetryAfter_IsObeyed) {
  std::mutex mutex;
  std::vector<std::chrono::steady_clock::time_point> times;
  m_https.Answer("/v1/upload", [&](const _TestRequest&) {
    const std::lock_guard lock(mutex);
    times.push_back(std::chrono::steady_clock::now());
    return times.size() == 1 ? _TestReply{429, "", {{"Retry-After", "2"}}} : _TestReply{};
  });
  Start();
  EXPECT_EQ(zxcloud_send_sync("body", 4, 0, 9000), 0u);
  ASSERT_EQ(times.size(), 2u);
  EXPECT_GE(times[1] - times[0], std::chrono::seconds(2));
}

TEST_F(CShortConnection, Upload_TakesOver_WhenTheLongConnectionDoesNotComeUp) {
  m_https.Answer("/v1/upload", [](const _TestRequest&) { return _TestReply{}; });
  ServeTconf(m_https, "", Local(FreePort()));
  WriteConfig(m_https.Address());
  ASSERT_EQ(Init(), 0u);
  ASSERT_TRUE(m_events.WaitLog("Connection refused"));
  EXPECT_EQ(zxcloud_send_sync("body", 4, 0, 8000), 0u);
}

TEST_F(CShortConnection, ShortAddresses_AreTriedInTurn) {
  CTestHttps second(&m_cert);
  second.Answer("/v1/poll", [](const _TestRequest&) { return _TestReply{200, "<second/>", {}}; });
  ServeTconf(m_https, Local(FreePort()) + "," + second.Address(), "");
  WriteConfig(m_https.Address());
  ASSERT_EQ(Init(true), 0u);
  ASSERT_TRUE(m_events.Wait("data 1"));
  EXPECT_THAT(m_events.Events("data 1").at(0), HasSubstr(";" + second.Address()));
  EXPECT_EQ(Poll("<q/>"), 0u);
  EXPECT_THAT(m_events.Events("poll"), ElementsAre("poll 0 <second/>"));
  zxcloud_uninit();
}

TEST_F(CShortConnection, Tconf_IsAskedOfTheOtherAddress_WhenTheFirstIsDown) {
  ServeTconf(m_https, "", "");
  WriteConfig(Local(FreePort()));
  EXPECT_EQ(zxcloud_set_otherconnaddr(m_https.Address().c_str()), 0u);
  ASSERT_EQ(Init(true), 0u);
  ASSERT_TRUE(m_events.Wait("tconf"));
  EXPECT_EQ(m_events.Events("data 3").at(0), "data 3 " + m_https.Address());
}

TEST_F(CShortConnection, Tconf_IsRetried_WhenTheCloudComesUpLater) {
  std::atomic<bool> bUp{false};
  m_https.Answer("/v1/tconf", [&](const _TestRequest&) {
    return bUp.load() ? _TestReply{200, TconfText("", ""), {}} : _TestReply{503, "", {}};
  });
  WriteConfig(m_https.Address());
  ASSERT_EQ(Init(true), 0u);
  ASSERT_TRUE(m_events.WaitLog("status 503"));
  bUp.store(true);
  EXPECT_TRUE(m_events.Wait("tconf"));
}

TEST_F(CShortConnection, Tconf_WaitsForAMachineId) {
  ServeTconf(m_https, "", "");
  WriteConfig(m_https.Address());
  ASSERT_EQ(Init(true), 0u);
  ASSERT_TRUE(m_events.Wait("tconf"));
  ASSERT_EQ(zxcloud_uninit(), 0u);
  ASSERT_EQ(zxcloud_setopt("mid=bad/+mid"), 0u);
  m_events.Clear();
  const std::string strPath = m_home.Path("etc/zxagent/inner/zxagent.json").Str();
  zxcloud_record record{};
  record.config_path = strPath.c_str();
  record.tconf = [](int, const char* pszText) {
    CCallbackRecorder::Get().Add(std::string("tconf ") + pszText);
    return 0;
  };
  record.log = [](int, int, const char* pszText) {
    CCallbackRecorder::Get().Add(std::string("log ") + pszText);
  };
  ASSERT_EQ(zxcloud_init(&record), 0u);
  ASSERT_TRUE(m_events.WaitLog("no connection without a usable machine id"));
  EXPECT_EQ(m_https.Requests("/v1/tconf").size(), 1u);
  ASSERT_EQ(zxcloud_setopt("mid=good"), 0u);
  EXPECT_TRUE(m_events.Wait("tconf"));
}

TEST_F(CShortConnection, HalfDeadService_DoesNotHoldUpTheStop) {
  const CTestDumbServer dumb;
  WriteConfig(Local(dumb.Port()));
  ASSERT_EQ(Init(true), 0u);
  std::thread sender([] { EXPECT_EQ(zxcloud_send_sync("x", 1, 0, 60000), kZxcloudErrState); });
  std::thread checker([&] { EXPECT_EQ(zxcloud_tconf_check(Local(dumb.Port()).c_str()), kZxcloudErrState); });
  ASSERT_TRUE(EventuallyTrue([&] { return Option("waiting") == "1"; }));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(zxcloud_uninit(), 0u);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  sender.join();
  checker.join();
}

TEST_F(CShortConnection, TconfCheck_AsksForHealth) {
  Start();
  EXPECT_EQ(zxcloud_tconf_check(m_https.Address().c_str()), 0u);
  m_https.Answer("/v1/health", [](const _TestRequest&) { return _TestReply{503, "", {}}; });
  EXPECT_EQ(zxcloud_tconf_check(m_https.Address().c_str()), kZxcloudErrRefused);
  EXPECT_EQ(zxcloud_tconf_check(Local(FreePort()).c_str()), kZxcloudErrNetwork);
  EXPECT_EQ(zxcloud_tconf_check("not an address"), kZxcloudErrArgument);
}

TEST_F(CShortConnection, PlainHttp_IsUsedOnlyWhenAskedFor) {
  CTestHttps plain(nullptr);
  ServeTconf(plain, "", "");
  WriteConfig("http://" + plain.Address());
  EXPECT_EQ(Init(true), kZxcloudErrConfig);
  WriteConfig("http://" + plain.Address(), ",\"plaintext_loopback\":true");
  ASSERT_EQ(Init(true), 0u);
  EXPECT_TRUE(m_events.Wait("tconf"));
  zxcloud_uninit();
}

TEST_F(CShortConnection, AnswersBeyondTheirBoundAreRefused) {
  m_https.Answer("/v1/tconf", [](const _TestRequest&) {
    return _TestReply{200, std::string(2u << 20, ' '), {}};
  });
  WriteConfig(m_https.Address());
  ASSERT_EQ(Init(true), 0u);
  EXPECT_TRUE(m_events.WaitLog("answer is too large"));
}

}  // namespace
