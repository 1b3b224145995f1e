// Initialisation, its errors, repetition, and calls at the wrong time.
#include <gmock/gmock.h>

#include <thread>

#include "CloudFixture.h"
#include "support/Waiter.h"

namespace {

class CLifeCycle : public CCloudFixture {};

TEST_F(CLifeCycle, Calls_AreRefused_WhenNotInitialised) {
  char szText[16];
  EXPECT_EQ(zxcloud_send("x", 1, 0), kZxcloudErrState);
  EXPECT_EQ(zxcloud_send_sync("x", 1, 0, 10), kZxcloudErrState);
  EXPECT_EQ(zxcloud_send_pollmsg("x", 1), kZxcloudErrState);
  EXPECT_EQ(zxcloud_getopt(szText, sizeof(szText)), kZxcloudErrState);
  EXPECT_EQ(zxcloud_tconf_check("127.0.0.1:1"), kZxcloudErrState);
  EXPECT_EQ(zxcloud_uninit(), 0u);  // a caller that re-initialises begins with it
}

TEST_F(CLifeCycle, Arguments_AreChecked) {
  EXPECT_EQ(zxcloud_init(nullptr), kZxcloudErrArgument);
  zxcloud_record record{};
  EXPECT_EQ(zxcloud_init(&record), kZxcloudErrArgument);
  EXPECT_EQ(zxcloud_setopt(nullptr), kZxcloudErrArgument);
  EXPECT_EQ(zxcloud_setopt(""), kZxcloudErrArgument);
  EXPECT_EQ(zxcloud_setopt("no pairs"), kZxcloudErrArgument);
  EXPECT_EQ(zxcloud_set_otherconnaddr(nullptr), kZxcloudErrArgument);
  EXPECT_EQ(zxcloud_tconf_check(nullptr), kZxcloudErrArgument);
  WriteConfig("127.0.0.1:1");
  ASSERT_EQ(Init(true), 0u);
  EXPECT_EQ(zxcloud_send(nullptr, 1, 0), kZxcloudErrArgument);
  EXPECT_EQ(zxcloud_send("x", 0, 0), kZxcloudErrArgument);
  EXPECT_EQ(zxcloud_send("x", -1, 0), kZxcloudErrArgument);
  EXPECT_EQ(zxcloud_send("x", 1, 4), kZxcloudErrArgument);
  EXPECT_EQ(zxcloud_send("x", 1, -1), kZxcloudErrArgument);
  EXPECT_EQ(zxcloud_send("x", 1, 14), kZxcloudErrArgument);
  EXPECT_EQ(zxcloud_send_sync("x", 1, 0, 0), kZxcloudErrArgument);
  EXPECT_EQ(zxcloud_send_pollmsg(nullptr, 1), kZxcloudErrArgument);
  EXPECT_EQ(zxcloud_getopt(nullptr, 1), kZxcloudErrArgument);
  char szText[4] = "abc";
  EXPECT_EQ(zxcloud_getopt(szText, 0), kZxcloudErrArgument);
  EXPECT_EQ(zxcloud_getopt(szText, 4), 0u);
  EXPECT_STREQ(szText, "lin");  // cut, and ended
}

TEST_F(CLifeCycle, Configuration_IsRefusedWithItsReason) {
  const std::string strPath = m_home.Path("etc/zxagent/inner/zxagent.json").Str();
  EXPECT_EQ(Init(), kZxcloudErrConfig);
  EXPECT_TRUE(m_events.WaitLog("file[" + strPath + "] reason[not readable: No such file or directory]", 0));
  m_home.WriteFile("etc/zxagent/inner/zxagent.json", "{");
  EXPECT_EQ(Init(), kZxcloudErrConfig);
  EXPECT_TRUE(m_events.WaitLog("reason[not a JSON document]", 0));
  WriteConfig("bad address");
  EXPECT_EQ(Init(), kZxcloudErrConfig);
  EXPECT_TRUE(m_events.WaitLog("reason[no usable address in tconf_url [bad address]]", 0));
  WriteConfig("127.0.0.1:1", ",\"pins\":[\"md5//x\"]");
  EXPECT_EQ(Init(), kZxcloudErrConfig);
  EXPECT_TRUE(m_events.WaitLog("reason[member pins must be", 0));
}

TEST_F(CLifeCycle, Init_IsRefused_WhenAlreadyInitialised) {
  WriteConfig("127.0.0.1:1");
  ASSERT_EQ(Init(true), 0u);
  EXPECT_EQ(Init(true), kZxcloudErrState);
}

TEST_F(CLifeCycle, FiftyCycles_ConnectEachTime) {
  CTestBroker broker(m_home.Path("broker/").Str(), m_cert);
  CTestHttps https(&m_cert);
  ServeTconf(https, "", Local(broker.TlsPort()));
  WriteConfig(https.Address());
  for (size_t i = 1; i <= 50; ++i) {
    ASSERT_EQ(Init(), 0u);
    if (i % 5 == 0) {
      ASSERT_TRUE(m_events.Wait("connect"));
    }
    ASSERT_EQ(zxcloud_uninit(), 0u);
    m_events.Clear();
  }
}

TEST_F(CLifeCycle, Options_OfTheNextInitialisationCount) {
  CTestHttps https(&m_cert);
  ServeTconf(https, "", "");
  WriteConfig(https.Address());
  ASSERT_EQ(Init(true), 0u);
  ASSERT_TRUE(m_events.Wait("tconf"));
  EXPECT_EQ(zxcloud_setopt("localip=10.0.0.9:custom=1"), 0u);
  EXPECT_EQ(Option("localip"), "10.0.0.9");
  EXPECT_EQ(Option("custom"), "1");
  EXPECT_EQ(Option("mid"), "m-1");
  zxcloud_uninit();
}

TEST_F(CLifeCycle, Uninit_InsideACallback_IsRefusedAndDoesNotHang) {
  CTestHttps https(&m_cert);
  ServeTconf(https, "", "");
  WriteConfig(https.Address());
  std::atomic<uint32_t> uiUninit{0};
  std::atomic<uint32_t> uiInit{0};
  m_events.SetHook([&](const std::string& strEvent) {
    if (strEvent.compare(0, 5, "tconf") != 0)
      return;
    uiUninit = zxcloud_uninit();
    zxcloud_record record{};
    record.config_path = "x";
    uiInit = zxcloud_init(&record);
    EXPECT_EQ(zxcloud_setopt("allowdebug=0"), 0u);
  });
  ASSERT_EQ(Init(true), 0u);
  ASSERT_TRUE(m_events.Wait("tconf"));
  EXPECT_EQ(uiUninit.load(), kZxcloudErrState);
  EXPECT_EQ(uiInit.load(), kZxcloudErrState);
  EXPECT_EQ(Option("allowdebug"), "0");
  zxcloud_uninit();
}

TEST_F(CLifeCycle, Callbacks_RunOneAtATimeAndNeverAfterUninit) {
  CTestBroker broker(m_home.Path("broker/").Str(), m_cert);
  CTestHttps https(&m_cert);
  ServeTconf(https, "", Local(broker.TlsPort()));
  https.Answer("/v1/poll", [](const _TestRequest&) { return _TestReply{200, "<m/>", {}}; });
  WriteConfig(https.Address());
  std::atomic<int> iInside{0};
  std::atomic<bool> bOverlap{false};
  std::atomic<bool> bGone{false};
  m_events.SetHook([&](const std::string&) {
    if (++iInside > 1 || bGone.load())
      bOverlap = true;
    std::this_thread::yield();
    --iInside;
  });
  ASSERT_EQ(Init(), 0u);
  ASSERT_TRUE(m_events.Wait("connect"));
  CTestSubscriber cloud(broker.PlainPort(), "none");
  std::thread poller([] {
    while (zxcloud_send_pollmsg("q", 1) == 0) {
    }
  });
  for (int i = 0; i < 200; ++i)
    cloud.Publish("zx/v1/m-1/push/1", "{}");
  EXPECT_TRUE(m_events.Wait("push", 100));
  EXPECT_EQ(zxcloud_uninit(), 0u);
  bGone = true;
  poller.join();
  EXPECT_FALSE(bOverlap.load());
}

TEST_F(CLifeCycle, SpoolBound_RefusesBulkFirst_AndUrgentLast) {
  WriteConfig("127.0.0.1:1", ",\"spool_bytes\":100000");
  ASSERT_EQ(Init(true), 0u);
  const std::string strText(1000, 'x');
  uint32_t uiResult = 0;
  int iAccepted = 0;
  while ((uiResult = zxcloud_send(strText.data(), 1000, 3)) == 0)
    ++iAccepted;
  EXPECT_EQ(uiResult, kZxcloudErrFull);
  EXPECT_GT(iAccepted, 50);
  EXPECT_EQ(zxcloud_send(strText.data(), 1000, 0), 0u);
  EXPECT_EQ(zxcloud_send(std::string((8u << 20) + 1, 'x').data(), (8 << 20) + 1, 0), kZxcloudErrTooLong);
}

}  // namespace
