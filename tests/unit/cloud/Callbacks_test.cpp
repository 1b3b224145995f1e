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
