// The short connection with a service that the test plays: no sockets, no time of its own.
#include "platform/cloud/ShortLink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <thread>
#include <utility>

#include "CloudFakes.h"
#include "support/Waiter.h"

using namespace zxcloud;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

constexpr char kTconf[] = R"({"v":1,"pcid":"p,c,1","short":"s1:1,s2:2","long":"l:3","refresh_sec":100,
                              "max_message_bytes":5000})";

class CShortLinkTest : public ::testing::Test, public IShortPeer {
 protected:
  CShortLinkTest() : m_callbacks(CCallbackLog::Record()) {
    CCallbackLog::Events().clear();
    m_options.Merge("mid=m-1:m2=a b&c:platid=3:localip=::1");
    EXPECT_TRUE(m_link.Init());
    m_http.fnAnswer = [this](const CFakeHttp::_Seen& seen) {
      const auto it = m_answers.find(seen.strTarget.substr(0, seen.strTarget.find('?')));
      return it == m_answers.end() ? CFakeHttp::Failure(ENetError::Network, "refused") : it->second;
    };
  }

  _CloudOptions Options() override { return m_options; }
  void OnTconf(const _TconfAnswer& answer) override { m_tconfs.push_back(answer); }
  bool LongIsUp() override { return m_bLongUp; }
  uint64_t LongDownSince() override { return m_u64LongDown; }
  void WakeLong() override { ++m_uLongWoken; }

  // All that is due now; the time to the next piece of work.
  uint32_t Work() {
    uint32_t dwWait = 0;
    while ((dwWait = m_link.RunOnce()) == 0) {
    }
    return dwWait;
  }
  void Configured() {
    m_answers["/v1/tconf"] = CFakeHttp::Status(200, kTconf);
    m_answers["/v1/health"] = CFakeHttp::Status(200);
    Work();
    m_http.seen.clear();
  }
  TOutItem Add(int iPriority = 1, const std::string& strBody = "body", bool bWaited = false) {
    ++m_u64Seq;
    auto pItem = MakeOutItem(m_u64Seq, iPriority, "id-" + std::to_string(m_u64Seq), strBody, bWaited);
    EXPECT_TRUE(m_outbox.Add(pItem));
    return pItem;
  }
  uint32_t Poll() {
    uint32_t uiResult = 0;
    std::thread caller([&] { uiResult = m_link.Poll("<q/>"); });
    const size_t uBefore = m_http.Seen("/v1/poll").size();
    EXPECT_TRUE(EventuallyTrue([&] {
      m_link.RunOnce();
      return m_http.Seen("/v1/poll").size() > uBefore;
    }));
    caller.join();
    return uiResult;
  }

  _LinkTimes m_times;
  CFakeClock m_clock;
  CFakeRandom m_random;
  COutbox m_outbox{1u << 20, m_clock};
  CWaiters m_waiters;
  CCallbacks m_callbacks;
  CCloudLog m_log{m_callbacks};
  CLinkErrors m_errors;
  CFakeHttp m_http;
  std::map<std::string, _HttpAnswer> m_answers;
  _CloudOptions m_options;
  std::vector<_TconfAnswer> m_tconfs;
  bool m_bLongUp = false;
  uint64_t m_u64LongDown = 0;
  uint32_t m_uLongWoken = 0;
  uint64_t m_u64Seq = 0;
  CShortLink m_link{
      {m_times, m_clock, m_random, m_outbox, m_waiters, m_callbacks, m_log, m_errors, m_http, *this},
      {ParseAddressList("t1:1,t2:2", kHttpsPort, false), "channel", false, 10}};
};

}  // namespace

TEST_F(CShortLinkTest, Tconf_AsksWithTheOptionsEscaped_AndTellsEverybody) {
  m_random.uPercent = 0;
  m_answers["/v1/tconf"] = CFakeHttp::Status(200, kTconf);
  m_answers["/v1/health"] = CFakeHttp::Status(200);
  EXPECT_EQ(Work(), 100000u);
  EXPECT_EQ(m_http.seen.at(0).strTarget,
            "/v1/tconf?v=1&mid=m-1&m2=a%20b%26c&pid=channel&platid=3&localip=%3A%3A1");
  EXPECT_THAT(m_http.seen.at(0).listHeaders, Contains("X-Zx-Mid: m-1"));
  EXPECT_EQ(m_http.seen.at(1).strAddress, "s1:1");
  EXPECT_THAT(CCallbackLog::Events(),
              ElementsAre(HasSubstr("log 1 zxcloud terminal configuration from addr[t1:1]"), "data 3 t1:1",
                          "tconf 2 p,c,1", "data 1 10.0.0.1:4000;10.0.0.2:443"));
  ASSERT_EQ(m_tconfs.size(), 1u);
  EXPECT_EQ(m_link.MaxMessage(), 5000u);
}

TEST_F(CShortLinkTest, Tconf_IsRefreshed_AndToldEachTime) {
  Configured();
  m_clock.Advance(100000);
  Work();
  EXPECT_EQ(m_http.Seen("/v1/tconf").size(), 1u);
  EXPECT_EQ(CCallbackLog::Count("tconf"), 2u);
  EXPECT_EQ(CCallbackLog::Count("data 1"), 1u);  // unchanged ends are not told again
}

TEST_F(CShortLinkTest, Tconf_OwnServiceIsTheShortConnection_WhenNoneIsNamed) {
  m_answers["/v1/tconf"] = CFakeHttp::Status(200, R"({"v":1})");
  Work();
  EXPECT_EQ(m_http.seen.size(), 1u);
  EXPECT_EQ(CCallbackLog::Count("data 1 10.0.0.1:4000;10.0.0.2:443"), 1u);
}

TEST_F(CShortLinkTest, Tconf_TriesEveryAddress_ThenBacksOff_WithOneLinePerMinute) {
  uint32_t dwWait = Work();
  EXPECT_EQ(dwWait, 1000u);
  EXPECT_EQ(m_http.seen.size(), 2u);
  EXPECT_THAT(CCallbackLog::Events(), ElementsAre(HasSubstr("reasons[t1:1: refused; t2:2: refused]")));
  m_clock.Advance(dwWait);
  dwWait = Work();
  EXPECT_EQ(dwWait, 2000u);
  EXPECT_EQ(CCallbackLog::Events().size(), 1u);
  m_clock.Advance(m_times.dwQuietLog);
  Work();
  EXPECT_EQ(CCallbackLog::Events().size(), 2u);
}

TEST_F(CShortLinkTest, Tconf_LogsAChangedReasonAtOnce) {
  m_clock.Advance(Work());
  m_answers["/v1/tconf"] = CFakeHttp::Status(502);
  m_clock.Advance(Work());
  m_clock.Advance(Work());
  ASSERT_EQ(CCallbackLog::Events().size(), 2u);
  EXPECT_THAT(CCallbackLog::Events()[1], HasSubstr("t1:1: status 502; t2:2: status 502"));
  for (int iStatus = 500; iStatus < 600; ++iStatus) {
    m_answers["/v1/tconf"] = CFakeHttp::Status(iStatus);
    m_random.uPercent = 0;
    m_clock.Advance(Work());
  }
  EXPECT_EQ(CCallbackLog::Events().size(), kReasonsMax);
}

TEST_F(CShortLinkTest, Tconf_ObeysRetryAfter_AndNamesABadDocument) {
  m_random.uPercent = 0;
  m_answers["/v1/tconf"] = CFakeHttp::Status(503, "", 77);
  EXPECT_EQ(Work(), 77000u);
  m_clock.Advance(77000);
  m_answers["/v1/tconf"] = CFakeHttp::Status(200, "{\"v\":9}");
  m_clock.Advance(m_times.dwQuietLog);
  Work();
  EXPECT_THAT(CCallbackLog::Events().back(), HasSubstr("t1:1: version 9 is not known"));
}

TEST_F(CShortLinkTest, Tconf_WaitsForAUsableMid_AndGoesOnWhenItComes) {
  m_options.strMid = "a/b";
  EXPECT_GT(Work(), 1000000u);
  EXPECT_TRUE(m_http.seen.empty());
  m_options.strMid = "good";
  m_link.OnOptions();
  Work();
  EXPECT_FALSE(m_http.seen.empty());
}

TEST_F(CShortLinkTest, Poll_GoesToTheShortAddress_AndOnToTheNextWhenItFails) {
  Configured();
  m_http.fnAnswer = [](const CFakeHttp::_Seen& seen) {
    return seen.strAddress == "s1:1" ? CFakeHttp::Failure(ENetError::Network, "refused")
                                     : CFakeHttp::Status(200, "<a/>");
  };
  EXPECT_EQ(Poll(), 0u);
  EXPECT_EQ(Poll(), 0u);
  const auto list = m_http.Seen("/v1/poll");
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[0].strAddress, "s1:1");
  EXPECT_EQ(list[1].strAddress, "s2:2");
  EXPECT_EQ(list[2].strAddress, "s2:2");  // stays where it was answered
  EXPECT_EQ(CCallbackLog::Count("poll <a/>"), 2u);
  EXPECT_EQ(CCallbackLog::Count("data 5 10.0.0.2:443"), 1u);
}

TEST_F(CShortLinkTest, Poll_NamesItsFailures) {
  EXPECT_EQ(m_link.Poll("<q/>"), kZxcloudErrNetwork);  // not configured
  Configured();
  const std::pair<_HttpAnswer, uint32_t> kCases[] = {
      {CFakeHttp::Status(403), kZxcloudErrRefused},
      {CFakeHttp::Status(500), kZxcloudErrRefused},
      {CFakeHttp::Failure(ENetError::Tls, "expired"), kZxcloudErrTls},
      {CFakeHttp::Failure(ENetError::Timeout, "slow"), kZxcloudErrTimeout},
      {CFakeHttp::Failure(ENetError::TooLarge, "large"), kZxcloudErrNetwork},
      {CFakeHttp::Failure(ENetError::Aborted, "stopped"), kZxcloudErrState},
  };
  for (const auto& [answer, uiCode] : kCases) {
    m_answers["/v1/poll"] = answer;
    EXPECT_EQ(Poll(), uiCode);
  }
  // Each reason once, "stopped" not at all.
  EXPECT_EQ(CCallbackLog::Count("log 2 *zxcloud poll failed"), 5u);
  m_answers["/v1/poll"] = kCases[0].first;
  EXPECT_EQ(Poll(), kZxcloudErrRefused);
  EXPECT_EQ(CCallbackLog::Count("log 2 *zxcloud poll failed"), 5u);
}

TEST_F(CShortLinkTest, Poll_IsReleased_WhenTheLinkStops) {
  Configured();
  uint32_t uiResult = 0;
  CEventWaiter started;
  std::thread caller([&] {
    started.Set();
    uiResult = m_link.Poll("<q/>");
  });
  ASSERT_TRUE(started.Wait());
  m_link.Stop();
  caller.join();
  EXPECT_EQ(uiResult, kZxcloudErrState);
}

TEST_F(CShortLinkTest, Upload_WaitsForTheLongConnection_ForItsGraceOnly) {
  Configured();
  m_answers["/v1/upload"] = CFakeHttp::Status(200);
  Add();
  m_bLongUp = true;
  Work();
  EXPECT_TRUE(m_http.Seen("/v1/upload").empty());
  m_bLongUp = false;
  m_u64LongDown = m_clock.NowMs();
  m_random.uPercent = 0;
  EXPECT_EQ(Work(), m_times.dwUploadGrace);
  EXPECT_TRUE(m_http.Seen("/v1/upload").empty());
  m_clock.Advance(m_times.dwUploadGrace);
  Work();
  ASSERT_EQ(m_http.Seen("/v1/upload").size(), 1u);
  EXPECT_THAT(m_http.Seen("/v1/upload")[0].listHeaders, Contains("X-Zx-Id: id-1"));
  EXPECT_THAT(m_http.Seen("/v1/upload")[0].listHeaders, Contains("X-Zx-Priority: 1"));
  EXPECT_EQ(m_http.Seen("/v1/upload")[0].strBody, "body");
  EXPECT_EQ(m_outbox.Bytes(), 0u);
}

TEST_F(CShortLinkTest, Upload_GraceIsDrawnForEachLoss_SoThatAFleetDoesNotTurnToHttpsInOneMoment) {
  Configured();
  m_answers["/v1/upload"] = CFakeHttp::Status(200);
  for (const uint32_t uPercent : {0u, 25u, 50u, 100u}) {
    Add();
    m_clock.Advance(1);
    m_u64LongDown = m_clock.NowMs();
    m_random.uPercent = uPercent;
    EXPECT_EQ(Work(), m_times.dwUploadGrace * (100 + uPercent) / 100);
    m_random.uPercent = 100 - uPercent;  // drawn once: looking again changes nothing
    m_clock.Advance(500);
    EXPECT_EQ(Work(), m_times.dwUploadGrace * (100 + uPercent) / 100 - 500);
    m_clock.Advance(m_times.dwUploadGrace * 2);
    m_http.seen.clear();
    Work();
    EXPECT_EQ(m_http.Seen("/v1/upload").size(), 1u);
  }
}

TEST_F(CShortLinkTest, Upload_GoesAtOnce_WhenNoLongConnectionIsExpected) {
  Configured();
  m_answers["/v1/upload"] = CFakeHttp::Status(200);
  for (const int i : {3, 0, 12})
    Add(i);
  CWaiters::CWaiter waiter(m_waiters, 3);
  Work();
  const auto list = m_http.Seen("/v1/upload");
  ASSERT_EQ(list.size(), 3u);
  EXPECT_THAT(list[0].listHeaders, Contains("X-Zx-Priority: 0"));
  EXPECT_EQ(waiter.Wait(0, 99), 0u);
}

TEST_F(CShortLinkTest, Upload_IsRefusedForGood_By4xxOnly) {
  Configured();
  for (const int iStatus : {400, 401, 403, 404, 409, 413, 422}) {
    m_answers["/v1/upload"] = CFakeHttp::Status(iStatus);
    CWaiters::CWaiter waiter(m_waiters, Add()->u64Seq);
    Work();
    EXPECT_EQ(waiter.Wait(0, 99), kZxcloudErrRefused) << iStatus;
    EXPECT_EQ(m_outbox.Bytes(), 0u);
  }
  for (const int iStatus : {408, 429, 500, 503, 302}) {
    m_answers["/v1/upload"] = CFakeHttp::Status(iStatus);
    CWaiters::CWaiter waiter(m_waiters, Add()->u64Seq);
    Work();
    EXPECT_EQ(waiter.Wait(0, 99), 99u) << iStatus;
    m_outbox.Cancel(m_u64Seq);
    m_clock.Advance(60000);
  }
  EXPECT_EQ(m_uLongWoken, 5u);
}

TEST_F(CShortLinkTest, Upload_BacksOff_AndObeysRetryAfter) {
  Configured();
  m_random.uPercent = 0;
  m_answers["/v1/upload"] = CFakeHttp::Status(429, "", 9);
  Add();
  EXPECT_EQ(Work(), 9000u);
  m_clock.Advance(8999);
  Work();
  EXPECT_EQ(m_http.Seen("/v1/upload").size(), 1u);
  m_answers["/v1/upload"] = CFakeHttp::Status(200);
  m_clock.Advance(1);
  Work();
  EXPECT_EQ(m_http.Seen("/v1/upload").size(), 2u);
  EXPECT_EQ(m_outbox.Bytes(), 0u);
}

TEST_F(CShortLinkTest, RetryMax_OfTheSettings_CountsUntilTheCloudNamesIts) {
  for (const uint32_t dwWait : {1000u, 2000u, 4000u, 8000u, 10000u, 10000u}) {
    EXPECT_EQ(Work(), dwWait);
    m_clock.Advance(dwWait);
  }
  m_answers["/v1/tconf"] = CFakeHttp::Status(200, R"({"v":1,"refresh_sec":86400})");
  Work();
  m_answers["/v1/upload"] = CFakeHttp::Status(500);
  Add();
  for (const uint32_t dwWait : {1000u, 2000u, 4000u, 8000u, 10000u, 10000u}) {
    EXPECT_EQ(Work(), dwWait);
    m_clock.Advance(dwWait);
  }
}

TEST_F(CShortLinkTest, RetryMax_BoundsTheWaitsForUploadsAndConfiguration) {
  m_answers["/v1/tconf"] = CFakeHttp::Status(200, R"({"v":1,"retry_max_sec":7,"refresh_sec":86400})");
  Work();
  m_answers["/v1/upload"] = CFakeHttp::Status(500);
  Add();
  for (const uint32_t dwWait : {1000u, 2000u, 4000u, 7000u, 7000u}) {
    EXPECT_EQ(Work(), dwWait);
    m_clock.Advance(dwWait);
  }
  m_answers["/v1/upload"] = CFakeHttp::Status(200);
  m_answers["/v1/tconf"] = CFakeHttp::Status(500);
  m_clock.Advance(86400000);
  for (const uint32_t dwWait : {1000u, 2000u, 4000u, 7000u, 7000u}) {
    EXPECT_EQ(Work(), dwWait);
    m_clock.Advance(dwWait);
  }
}

TEST_F(CShortLinkTest, Upload_DrainsSlowlyAfterAReturn_AndBlockingSendersPass) {
  Configured();
  m_random.uPercent = 0;
  m_answers["/v1/upload"] = CFakeHttp::Status(503);
  for (int i = 0; i < 500; ++i)
    Add(0);
  Work();
  m_answers["/v1/upload"] = CFakeHttp::Status(200);
  m_http.seen.clear();
  m_clock.Advance(1000);
  Work();
  EXPECT_NEAR(static_cast<double>(m_http.Seen("/v1/upload").size()), 100, 2);
  m_clock.Advance(50);
  Add(3, "waited", true);
  Work();
  EXPECT_NEAR(static_cast<double>(m_http.Seen("/v1/upload").size()), 106, 2);
  EXPECT_EQ(m_http.Seen("/v1/upload").back().strBody, "waited");
  for (int i = 0; i < 100; ++i) {
    m_clock.Advance(50);
    Work();
  }
  EXPECT_EQ(m_outbox.Waiting(), 0u);
  // Nothing has piled up any more.
  m_http.seen.clear();
  for (int i = 0; i < 300; ++i)
    Add(0);
  Work();
  EXPECT_EQ(m_http.Seen("/v1/upload").size(), 300u);
}
