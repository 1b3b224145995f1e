#include "platform/cloud/Callbacks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "CloudFakes.h"
#include "platform/cloud/CloudLog.h"
#include "support/Waiter.h"

using namespace zxcloud;
using ::testing::ElementsAre;

namespace {

class CCallbacksTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CCallbackLog::Events().clear();
    s_fnPush = nullptr;
  }
  static zxcloud_record Hooked() {
    zxcloud_record record = CCallbackLog::Record();
    record.push = [](int, const char*) {
      s_fnPush();
      return 0;
    };
    return record;
  }
  static std::function<void()> s_fnPush;
};

std::function<void()> CCallbacksTest::s_fnPush;

}  // namespace

TEST_F(CCallbacksTest, Calls_CarryTheirArguments) {
  CCallbacks callbacks(CCallbackLog::Record());
  callbacks.Push(7, "p");
  callbacks.Tconf("t");
  callbacks.Connect("1.2.3.4", 65535);
  callbacks.Disconnect();
  callbacks.Log(2, "l");
  callbacks.Poll("o");
  callbacks.Data(EData::Poll, "d");
  EXPECT_THAT(CCallbackLog::Events(), ElementsAre("push 7 p", "tconf 2 t", "connect 1.2.3.4 65535",
                                                  "disconnect", "log 2 l", "poll o", "data 5 d"));
}

TEST_F(CCallbacksTest, NullCallbacks_AreLeftOut) {
  CCallbacks callbacks(zxcloud_record{});
  callbacks.Push(7, "p");
  callbacks.Tconf("t");
  callbacks.Connect("1.2.3.4", 1);
  callbacks.Disconnect();
  callbacks.Log(2, "l");
  callbacks.Poll("o");
  callbacks.Data(EData::Poll, "d");
  EXPECT_FALSE(callbacks.Inside());
}

TEST_F(CCallbacksTest, Inside_IsTrueOnlyOnTheCallingThread_AndACallbackMayCauseAnother) {
  CCallbacks callbacks(Hooked());
  bool bInside = false;
  bool bOther = true;
  s_fnPush = [&] {
    bInside = callbacks.Inside();
    std::thread([&] { bOther = callbacks.Inside(); }).join();
    callbacks.Log(1, "nested");
    EXPECT_TRUE(callbacks.Inside());
  };
  callbacks.Push(1, "");
  EXPECT_TRUE(bInside);
  EXPECT_FALSE(bOther);
  EXPECT_FALSE(callbacks.Inside());
  EXPECT_EQ(CCallbackLog::Count("log 1 nested"), 1u);
}

TEST_F(CCallbacksTest, Close_WaitsForARunningCallback_AndLetsNoneFollow) {
  CCallbacks callbacks(Hooked());
  CEventWaiter entered;
  CEventWaiter release;
  std::atomic<bool> bLeft{false};
  s_fnPush = [&] {
    entered.Set();
    ASSERT_TRUE(release.Wait());
    bLeft = true;
  };
  std::thread caller([&] { callbacks.Push(1, ""); });
  ASSERT_TRUE(entered.Wait());
  std::thread second([&] { callbacks.Poll("queued behind it"); });
  std::thread releaser([&] { release.Set(); });
  callbacks.Close();
  EXPECT_TRUE(bLeft.load());
  const size_t uAfterClose = CCallbackLog::Events().size();
  caller.join();
  second.join();
  releaser.join();
  callbacks.Poll("late");
  EXPECT_EQ(CCallbackLog::Count("poll late"), 0u);
  EXPECT_EQ(CCallbackLog::Events().size(), uAfterClose);
}

TEST_F(CCallbacksTest, Log_FormatsAndKeepsDetailBack_WhenDebugIsOff) {
  CCallbacks callbacks(CCallbackLog::Record());
  CCloudLog log(callbacks);
  log.LogDetail("zxcloud test detail number[%d]", 1);
  log.SetDebug(false);
  log.LogDetail("zxcloud test detail again number[%d]", 2);
  log.LogInfo("zxcloud test info text[%s]", std::string("x"));
  log.LogWarn("*zxcloud test warn number[%u]", 3u);
  log.LogError("**zxcloud test error");
  EXPECT_THAT(CCallbackLog::Events(),
              ElementsAre("log 0 zxcloud test detail number[1]", "log 1 zxcloud test info text[x]",
                          "log 2 *zxcloud test warn number[3]", "log 3 **zxcloud test error"));
}

TEST_F(CCallbacksTest, QuietPeriod_LetsTheFirstThroughAndThenOnePerPeriod) {
  CQuietPeriod quiet(1000);
  EXPECT_TRUE(quiet.Due(5000));
  EXPECT_FALSE(quiet.Due(5999));
  EXPECT_TRUE(quiet.Due(6000));
  EXPECT_FALSE(quiet.Due(6001));
  quiet.Reset();
  EXPECT_TRUE(quiet.Due(6002));
}

TEST_F(CCallbacksTest, QuietReasons_LetsEachNewReasonThroughAtOnce) {
  CQuietReasons quiet(1000);
  EXPECT_TRUE(quiet.Due(5000, "a: refused"));
  EXPECT_FALSE(quiet.Due(5001, "a: refused"));
  EXPECT_TRUE(quiet.Due(5002, "a: certificate expired"));
  EXPECT_FALSE(quiet.Due(5003, "a: refused")) << "heard before";
  EXPECT_FALSE(quiet.Due(6001, "a: refused"));
  EXPECT_TRUE(quiet.Due(6002, "a: refused"));
  quiet.Reset();
  EXPECT_TRUE(quiet.Due(6003, "a: refused"));
}

TEST_F(CCallbacksTest, QuietReasons_AreBounded) {
  CQuietReasons quiet(1000);
  size_t uLines = 0;
  for (int i = 0; i < 1000; ++i)
    uLines += quiet.Due(5000, "status " + std::to_string(i));
  EXPECT_EQ(uLines, kReasonsMax);
  EXPECT_TRUE(quiet.Due(6000, "status 1000"));
  EXPECT_FALSE(quiet.Due(6001, "status 1001"));
}

TEST_F(CCallbacksTest, QuietReasons_TakesNoFigureForAReason) {
  const std::pair<const char*, const char*> kSame[] = {
      {"h:1: Failed to connect to h port 1 after 3 ms: refused",
       "h:1: Failed to connect to h port 1 after 12 ms: refused"},
      {"Operation timed out after 20001 milliseconds with 0 bytes received",
       "Operation timed out after 20040 milliseconds with 17 bytes received"},
      {"timed out after 5001 milliseconds with 10 out of 99 bytes",
       "timed out after 5002 milliseconds with 7 out of 1099 bytes"},
      {"certificate expired (this machine's clock says 2026-11-22 00:00:01 UTC)",
       "certificate expired (this machine's clock says 2026-11-22 00:00:07 UTC)"},
  };
  for (const auto& [pszFirst, pszSecond] : kSame) {
    CQuietReasons quiet(1000);
    EXPECT_TRUE(quiet.Due(5000, pszFirst));
    EXPECT_FALSE(quiet.Due(5001, pszSecond)) << pszSecond;
  }
  CQuietReasons quiet(1000);
  for (const char* pszOther :
       {"h:1: status 500", "h:1: status 503", "h:2: status 503", "certificate expired", "", "7", "8"})
    EXPECT_TRUE(quiet.Due(5000, pszOther)) << pszOther;
}
