#include "platform/doc/Base64.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace {

struct CFree {
  void operator()(char* p) const { std::free(p); }
};

struct CDecoded {
  bool bOk = false;
  std::string strData;
};

CDecoded Decode(const std::string& strText) {
  // An exact copy on the heap: reading past the length is seen by the address sanitizer.
  const std::unique_ptr<char[]> pText(new char[strText.size()]);
  strText.copy(pText.get(), strText.size());
  size_t uLength = 99;
  const std::unique_ptr<char, CFree> pData(
      base64Decode(pText.get(), static_cast<int>(strText.size()), 0, &uLength));
  if (pData == nullptr) {
    EXPECT_EQ(uLength, 0u);
    return {};
  }
  EXPECT_EQ(pData.get()[uLength], 0);
  return {true, std::string(pData.get(), uLength)};
}

struct CBase64Case {
  const char* pszText;
  const char* pszExpect;  // null: refused
};

class Base64Table_test : public ::testing::TestWithParam<CBase64Case> {};

TEST_P(Base64Table_test, Decode_FollowsTheRules) {
  const CDecoded decoded = Decode(GetParam().pszText);
  EXPECT_EQ(decoded.bOk, GetParam().pszExpect != nullptr);
  if (GetParam().pszExpect != nullptr) {
    EXPECT_EQ(decoded.strData, GetParam().pszExpect);
  }
}

INSTANTIATE_TEST_SUITE_P(Vectors, Base64Table_test,
                         ::testing::Values(CBase64Case{"Zg==", "f"}, CBase64Case{"Zm8=", "fo"},
                                           CBase64Case{"Zm9v", "foo"}, CBase64Case{"Zm9vYg==", "foob"},
                                           CBase64Case{"Zm9vYmE=", "fooba"},
                                           CBase64Case{"Zm9vYmFy", "foobar"}));
INSTANTIATE_TEST_SUITE_P(MissingPadding, Base64Table_test,
                         ::testing::Values(CBase64Case{"Zg", "f"}, CBase64Case{"Zm8", "fo"},
                                           CBase64Case{"Zm9vYg", "foob"}));
INSTANTIATE_TEST_SUITE_P(WhiteSpace, Base64Table_test,
                         ::testing::Values(CBase64Case{" Z\tm\r\n9 v\n", "foo"},
                                           CBase64Case{"Zg = =\n", "f"}));
INSTANTIATE_TEST_SUITE_P(Refused, Base64Table_test,
                         ::testing::Values(CBase64Case{"", nullptr}, CBase64Case{"  \n", nullptr},
                                           CBase64Case{"Z", nullptr}, CBase64Case{"Zm9vY", nullptr},
                                           CBase64Case{"Zg=", nullptr}, CBase64Case{"Zg===", nullptr},
                                           CBase64Case{"Zm9v=", nullptr}, CBase64Case{"Zm9v====", nullptr},
                                           CBase64Case{"=", nullptr}, CBase64Case{"====", nullptr},
                                           CBase64Case{"Zg==Zg==", nullptr}, CBase64Case{"Zm-v", nullptr},
                                           CBase64Case{"Zm_v", nullptr}, CBase64Case{"Zm9v!", nullptr},
                                           CBase64Case{"Zm9\xc3", nullptr}));

TEST(Base64_test, Decode_RefusesNullAndNoLength) {
  EXPECT_EQ(base64Decode(nullptr, 4, 0), nullptr);
  EXPECT_EQ(base64Decode("Zm9v", 0, 0), nullptr);
  EXPECT_EQ(base64Decode("Zm9v", -1, 0), nullptr);
}

TEST(Base64_test, Decode_RefusesANulByte) {
  EXPECT_FALSE(Decode(std::string("Zm9v\0", 5)).bOk);
}

TEST(Base64_test, Decode_ReadsNoFurtherThanItsLength) {
  const std::unique_ptr<char, CFree> pData(base64Decode("Zm9v!!!!", 4, 1));
  ASSERT_NE(pData, nullptr);
  EXPECT_STREQ(pData.get(), "foo");
}

TEST(Base64_test, Encode_GivesPaddedText) {
  EXPECT_EQ(Base64Encode("", 0), CPString(""));
  EXPECT_EQ(Base64Encode("f", 1), CPString("Zg=="));
  EXPECT_EQ(Base64Encode("fo", 2), CPString("Zm8="));
  EXPECT_EQ(Base64Encode("foo", 3), CPString("Zm9v"));
  EXPECT_EQ(Base64Encode("\xff\xef\xbe", 3), CPString("/+++"));
}

TEST(Base64_test, Decode_UndoesEncode) {
  EXPECT_TRUE(rc::check([](const std::string& strData) {
    RC_PRE(!strData.empty());
    const CDecoded decoded = Decode(Base64Encode(strData.data(), strData.size()).Str());
    RC_ASSERT(decoded.bOk);
    RC_ASSERT(decoded.strData == strData);
  }));
}

TEST(Base64_test, Decode_AcceptsEveryEncodingWithoutItsPadding) {
  EXPECT_TRUE(rc::check([](const std::string& strData) {
    RC_PRE(!strData.empty());
    CPString strText = Base64Encode(strData.data(), strData.size());
    strText.TrimRight('=');
    RC_ASSERT(Decode(strText.Str()).strData == strData);
  }));
}

}  // namespace
