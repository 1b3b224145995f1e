#include "platform/cloud/CloudOptions.h"

#include <gtest/gtest.h>

using namespace zxcloud;

TEST(CloudOptions, Merge_TakesTheAgentsTexts) {
  _CloudOptions options;
  EXPECT_TRUE(options.Merge("mid=abc:m2=d e:cloudtcp_disable=1"));
  EXPECT_TRUE(options.Merge("platid=7:localip=10.0.0.1:disable_hb=1"));
  EXPECT_EQ(options.strMid, "abc");
  EXPECT_EQ(options.strMid2, "d e");
  EXPECT_TRUE(options.bTcpDisable);
  EXPECT_EQ(options.strPlatId, "7");
  EXPECT_EQ(options.strLocalIp, "10.0.0.1");
  EXPECT_TRUE(options.bHbDisable);
  EXPECT_TRUE(options.bAllowDebug);
  EXPECT_TRUE(options.Merge("allowdebug=0"));
  EXPECT_FALSE(options.bAllowDebug);
  EXPECT_EQ(options.strMid, "abc");
}

TEST(CloudOptions, Flags_HaveDefaults_AndAreSetByOneAlone) {
  const _CloudOptions defaults;
  EXPECT_FALSE(defaults.bTcpDisable);
  EXPECT_FALSE(defaults.bHbDisable);
  EXPECT_TRUE(defaults.bAllowDebug);
  EXPECT_EQ(defaults.Text(), "mid=:m2=:platid=:localip=:cloudtcp_disable=0:disable_hb=0:allowdebug=1");
  for (const char* pszValue : {"0", "", "2", "01", "true", " 1", "-1"}) {
    _CloudOptions options;
    options.bTcpDisable = options.bHbDisable = options.bAllowDebug = true;
    const std::string strValue = pszValue;
    ASSERT_TRUE(options.Merge("cloudtcp_disable=" + strValue + ":disable_hb=" + strValue +
                              ":allowdebug=" + strValue));
    EXPECT_FALSE(options.bTcpDisable || options.bHbDisable || options.bAllowDebug) << pszValue;
  }
}

TEST(CloudOptions, Merge_EndsAValueAtTheNextKey_SoThatItMayHoldColons) {
  _CloudOptions options;
  EXPECT_TRUE(options.Merge("platid=1:localip=fe80::1:2:disable_hb=0"));
  EXPECT_EQ(options.strLocalIp, "fe80::1:2");
  EXPECT_TRUE(options.Merge("localip=[2001:db8::abcd]"));
  EXPECT_EQ(options.strLocalIp, "[2001:db8::abcd]");
  EXPECT_TRUE(options.Merge("localip=::"));
  EXPECT_EQ(options.strLocalIp, "::");
}

TEST(CloudOptions, Merge_TakesEmptyValues_AndTheLastOfDuplicates) {
  _CloudOptions options;
  EXPECT_TRUE(options.Merge("mid=:m2=:cloudtcp_disable=0"));
  EXPECT_EQ(options.strMid, "");
  EXPECT_TRUE(options.Merge("mid=a:mid=b"));
  EXPECT_EQ(options.strMid, "b");
  EXPECT_TRUE(options.Merge("mid=x=y"));
  EXPECT_EQ(options.strMid, "x=y");
}

TEST(CloudOptions, Merge_KeepsUnknownKeys_UpToABound) {
  _CloudOptions options;
  EXPECT_TRUE(options.Merge("future=1"));
  EXPECT_NE(options.Text().find(":future=1"), std::string::npos);
  for (int i = 0; i < 1000; ++i)
    EXPECT_TRUE(options.Merge("key" + std::to_string(i) + "=v"));
  EXPECT_EQ(options.mapOther.size(), kMaxUnknownOptions);
  EXPECT_TRUE(options.Merge("future=2"));
  EXPECT_EQ(options.mapOther["future"], "2");
}

TEST(CloudOptions, Merge_RefusesWhatIsNoList_AndChangesNothing) {
  _CloudOptions options;
  ASSERT_TRUE(options.Merge("mid=a"));
  for (const char* psz : {"", "mid", "=x", ":mid=b", "1=x", "m id=b"})
    EXPECT_FALSE(options.Merge(psz)) << psz;
  EXPECT_FALSE(options.Merge("mid=" + std::string(kMaxOptionText, 'x')));
  EXPECT_EQ(options.strMid, "a");
}

TEST(CloudOptions, Text_ReadsBackAsTheSameOptions) {
  _CloudOptions options;
  ASSERT_TRUE(
      options.Merge("mid=a:m2=b:platid=3:localip=::1:disable_hb=1:allowdebug=0:cloudtcp_disable=1:x=y"));
  _CloudOptions again;
  ASSERT_TRUE(again.Merge(options.Text()));
  EXPECT_EQ(again.Text(), options.Text());
}

TEST(CloudOptions, IsMid_PermitsWhatATopicMayHold) {
  EXPECT_TRUE(IsMid("Az09._-"));
  EXPECT_TRUE(IsMid(std::string(128, 'a')));
  EXPECT_FALSE(IsMid(""));
  EXPECT_FALSE(IsMid(std::string(129, 'a')));
  for (const char* psz : {"a/b", "a+b", "a#", "a b", "a\n", "\xc3\xa4", "a:b"})
    EXPECT_FALSE(IsMid(psz)) << psz;
  EXPECT_FALSE(IsMid(std::string_view("a\0", 2)));
}
