#include "zxlogcache/Settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace zxlogcache;
using testing::HasSubstr;

namespace {

struct _Bad {
  const char* pszText;
  const char* pszError;
};

TEST(Settings, Everything_IsRead) {
  _Settings settings;
  std::string strError;
  ASSERT_TRUE(ParseSettings(R"({"sources":[{"name":"app","guid":"{5a3b7c1e-2d4f-4a6b-8c9d-0e1f2a3b4c5d}",
    "product":"p","combo":"c","priv":0,"msgtype":1,"body":"lines",
    "sockets":[{"type":"datagram","path":"/run/x.sock","mode":"0622","allow_users":["root",12]},
               {"path":"run/s.sock","framing":"octets","ack":true}],
    "files":[{"path":"log/app.log","from":"end"}]}],
    "store":{"max_bytes":1048576,"max_age_sec":60,"when_full":"refuse"},
    "batch":{"max_bytes":1024,"linger_ms":0},"window":4,"retry_min_ms":10,"retry_max_ms":20,
    "result_timeout_sec":2,"max_record_bytes":256,"max_clients":3})",
                            "/home/", "/sockets/", settings, strError))
      << strError;
  ASSERT_EQ(settings.sources.size(), 1u);
  const _SourceSettings& source = settings.sources[0];
  EXPECT_EQ(source.strName + "/" + source.strProduct + "/" + source.strCombo, "app/p/c");
  EXPECT_EQ(source.strGuid, "{5a3b7c1e-2d4f-4a6b-8c9d-0e1f2a3b4c5d}");
  EXPECT_EQ(source.iPriv, 0);
  EXPECT_EQ(source.iMsgType, 1);
  EXPECT_EQ(source.eBody, EBody::Lines);
  ASSERT_EQ(source.sockets.size(), 2u);
  EXPECT_FALSE(source.sockets[0].bStream);
  EXPECT_EQ(source.sockets[0].mode, 0622u);
  EXPECT_EQ(source.sockets[0].uids, (std::vector<uid_t>{0, 12}));
  EXPECT_TRUE(source.sockets[1].bStream);
  EXPECT_TRUE(source.sockets[1].bAck);
  EXPECT_EQ(source.sockets[1].eFraming, EFraming::Octets);
  EXPECT_EQ(source.sockets[1].strPath, "/sockets/run/s.sock");
  EXPECT_EQ(source.sockets[1].mode, 0660u);
  ASSERT_EQ(source.files.size(), 1u);
  EXPECT_EQ(source.files[0].strPath, "/home/log/app.log");
  EXPECT_TRUE(source.files[0].bFromEnd);
  EXPECT_EQ(settings.u64MaxBytes, 1048576u);
  EXPECT_EQ(settings.i64MaxAgeMs, 60000);
  EXPECT_EQ(settings.eWhenFull, EWhenFull::Refuse);
  EXPECT_EQ(settings.uiBatchBytes, 1024u);
  EXPECT_EQ(settings.uiLingerMs, 0u);
  EXPECT_EQ(settings.uiWindow, 4u);
  EXPECT_EQ(settings.uiRetryMaxMs, 20u);
  EXPECT_EQ(settings.uiResultTimeoutMs, 2000u);
  EXPECT_EQ(settings.uiMaxRecordBytes, 256u);
  EXPECT_EQ(settings.uiMaxClients, 3u);
}

TEST(Settings, Defaults_Hold) {
  _Settings settings;
  std::string strError;
  ASSERT_TRUE(ParseSettings(R"({"sources":[{"name":"a"}]})", "/h/", "/h/", settings, strError)) << strError;
  EXPECT_EQ(settings.sources[0].strGuid, "9946467F-0102-46E8-ACAC-B9EFE3CD68FD");
  EXPECT_EQ(settings.sources[0].iPriv, 1);
  EXPECT_EQ(settings.sources[0].iMsgType, 2);
  EXPECT_EQ(settings.uiWindow, 32u);
}

TEST(Settings, WhatIsWrong_IsNamed) {
  const _Bad bad[] = {
      {"", "no JSON"},
      {"[", "no JSON"},
      {R"({"sources":[{}]})", "no name"},
      {R"({"sources":[{"name":"a<b"}]})", "no name"},
      {R"({"sources":[{"name":"a"},{"name":"a"}]})", "two sources are called a"},
      {R"({"sources":[{"name":"a","guid":"x"}]})", "guid of source a"},
      {R"({"sources":[{"name":"a","product":"x><y"}]})", "product or combo"},
      {R"({"sources":[{"name":"a","combo":"a\nb"}]})", "product or combo"},
      {R"({"sources":[{"name":"a","priv":4}]})", "priv"},
      {R"({"sources":[{"name":"a","msgtype":3}]})", "msgtype"},
      {R"({"sources":[{"name":"a","body":"xml"}]})", "body has no such value: xml"},
      {R"({"sources":[{"name":"a","sockets":[{}]}]})", "socket path"},
      {R"({"sources":[{"name":"a","sockets":[{"path":"x","mode":"rw"}]}]})", "mode is not octal"},
      {R"({"sources":[{"name":"a","sockets":[{"path":"x","ack":"yes"}]}]})", "ack"},
      {R"({"sources":[{"name":"a","sockets":[{"path":"x","type":"tcp"}]}]})", "type"},
      {R"({"sources":[{"name":"a","sockets":[{"path":"x","allow_users":["no-such-user-here"]}]}]})",
       "nobody"},
      {R"({"sources":[{"name":"a","sockets":[{"path":"x"},{"path":"x"}]}]})", "two inputs"},
      {R"({"sources":[{"name":"a","files":[{"path":"dir/"}]}]})", "no path"},
      {R"({"store":{"max_bytes":1}})", "max_bytes"},
      {R"({"store":{"max_bytes":1.5e6}, "window":1.5})", "window"},
      {R"({"store":{"when_full":"explode"}})", "when_full"},
      {R"({"store":{"max_bytes":1048576},"max_record_bytes":262144})", "eight times"},
      {R"({"retry_min_ms":100,"retry_max_ms":50})", "retry_min_ms"},
      {R"({"max_record_bytes":"many"})", "max_record_bytes"},
  };
  for (const _Bad& bad1 : bad) {
    _Settings settings;
    std::string strError;
    EXPECT_FALSE(ParseSettings(bad1.pszText, "/h/", "/h/", settings, strError)) << bad1.pszText;
    EXPECT_THAT(strError, HasSubstr(bad1.pszError)) << bad1.pszText;
  }
}

TEST(Settings, LongSocketPath_IsRefused) {
  _Settings settings;
  std::string strError;
  const std::string strPath(108, 'p');
  EXPECT_FALSE(ParseSettings(R"({"sources":[{"name":"a","sockets":[{"path":"/)" + strPath + R"("}]}]})",
                             "/h/", "/h/", settings, strError));
  EXPECT_THAT(strError, HasSubstr("107"));
}

}  // namespace
