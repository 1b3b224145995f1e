#include "platform/cloud/CloudAddress.h"

#include <gtest/gtest.h>

using namespace zxcloud;

namespace {

struct _Case {
  const char* pszText;
  const char* pszExpect;  // null: refused
  bool bPlain;
};

constexpr _Case kCases[] = {
    {"cloud.example", "cloud.example:443", false},
    {"cloud.example:8443", "cloud.example:8443", false},
    {"https://cloud.example:8443/some/path?x=1", "cloud.example:8443", false},
    {" 10.0.0.1:1 ", "10.0.0.1:1", false},
    {"[fe80::1]:99", "[fe80::1]:99", false},
    {"[::1]", "[::1]:443", false},
    {"mqtts://b", "b:443", false},
    {"http://127.0.0.1:80", "127.0.0.1:80", true},
    {"mqtt://127.0.0.1:80", "127.0.0.1:80", true},
    {"", nullptr, false},
    {":443", nullptr, false},
    {"host:", nullptr, false},
    {"host:0", nullptr, false},
    {"host:65536", nullptr, false},
    {"host:+1", nullptr, false},
    {"host:1x", nullptr, false},
    {"ftp://host", nullptr, false},
    {"user@host", nullptr, false},
    {"ho st", nullptr, false},
    {"-host", nullptr, false},
    {"[::1", nullptr, false},
    {"[host]:1", nullptr, false},
    {"[::1]x", nullptr, false},
    {"::1", nullptr, false},
    {"host\n:1", nullptr, false},
};

}  // namespace

TEST(CloudAddress, ParseAddress_FollowsTheTable) {
  for (const _Case& c : kCases) {
    SCOPED_TRACE(c.pszText);
    _CloudAddress address;
    const bool bOk = ParseAddress(c.pszText, kHttpsPort, address);
    EXPECT_EQ(bOk, c.pszExpect != nullptr);
    if (bOk && c.pszExpect != nullptr) {
      EXPECT_EQ(address.Text(), c.pszExpect);
      EXPECT_EQ(address.bPlain, c.bPlain);
    }
  }
  _CloudAddress address;
  EXPECT_FALSE(ParseAddress(std::string(254, 'a'), 1, address));
  EXPECT_FALSE(ParseAddress(std::string_view("a\0b", 3), 1, address));
}

TEST(CloudAddress, ParseAddressList_LeavesOutWhatIsUnusable) {
  const auto list = ParseAddressList("a:1,,bad address,b:2,a:1,http://127.0.0.1:3", kHttpsPort, false);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].Text(), "a:1");
  EXPECT_EQ(list[1].Text(), "b:2");
}

TEST(CloudAddress, ParseAddressList_TakesPlainAddresses_OnlyOfLoopbackLiterals) {
  const char* const kText =
      "http://127.0.0.1:1,http://[::1]:2,http://localhost:3,http://10.0.0.1:4,mqtt://127.9.9.9:5";
  EXPECT_TRUE(ParseAddressList(kText, kHttpsPort, false).empty());
  const auto list = ParseAddressList(kText, kHttpsPort, true);
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[2].Text(), "127.9.9.9:5");
}

TEST(CloudAddress, ParseAddressList_IsBounded) {
  std::string strText;
  for (int i = 0; i < 1000; ++i)
    strText += "h" + std::to_string(i) + ",";
  EXPECT_EQ(ParseAddressList(strText, 1, false).size(), kMaxAddresses);
}

TEST(CloudAddress, IsLoopback_KnowsLiteralsOnly) {
  EXPECT_TRUE(IsLoopback("127.0.0.1"));
  EXPECT_TRUE(IsLoopback("127.255.255.255"));
  EXPECT_TRUE(IsLoopback("::1"));
  EXPECT_FALSE(IsLoopback("128.0.0.1"));
  EXPECT_FALSE(IsLoopback("localhost"));
  EXPECT_FALSE(IsLoopback("::2"));
  EXPECT_FALSE(IsLoopback("127.0.0.1.example"));
}
