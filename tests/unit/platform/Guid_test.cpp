#include "platform/text/Guid.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace {

TEST(Guid_test, Ctor_GivesZero_WhenTextIsNull) {
  EXPECT_EQ(GUID(nullptr), GUID());
  EXPECT_EQ(GUID(nullptr).ToLower(), CPString("00000000-0000-0000-0000-000000000000"));
}

TEST(Guid_test, Ctor_FillsAllFields_FromDashedForm) {
  const GUID guid("0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9");
  EXPECT_EQ(guid.Data1, 0x0a1b2c3du);
  EXPECT_EQ(guid.Data2, 0x4e5f);
  EXPECT_EQ(guid.Data3, 0x6071);
  const uint8_t expected[8] = {0x82, 0x93, 0xa4, 0xb5, 0xc6, 0xd7, 0xe8, 0xf9};
  EXPECT_EQ(std::memcmp(guid.Data4, expected, sizeof(expected)), 0);
}

TEST(Guid_test, Ctor_ReadsBracedForm) {
  EXPECT_EQ(GUID("{fab922a8-736e-4cb5-a666-4fd849a3049a}"), GUID("FAB922A8-736E-4CB5-A666-4FD849A3049A"));
}

TEST(Guid_test, Ctor_KeepsWhatItScanned_WhenTextIsCutShort) {
  const GUID guid("12345678-9abc");
  EXPECT_EQ(guid.ToLower(), CPString("12345678-9abc-0000-0000-000000000000"));
}

TEST(Guid_test, Ctor_GivesZero_WhenTextIsNoGuid) {
  EXPECT_EQ(GUID("not a guid"), GUID());
  EXPECT_EQ(GUID(""), GUID());
  EXPECT_EQ(GUID("{"), GUID());
}

// The full form is read digit by digit, anything else by scanning; both agree wherever both can read.
TEST(Guid_test, Ctor_ReadsWhatScanningReads) {
  for (const char* pszText :
       {"0a1b2c3d-4e5f-6071-8293-a4b5c6d7e8f9", "{0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9}",
        "0a1b2c3d-4e5f-6071-8293-a4b5c6d7e8f9 and more", "{0a1b2c3d-4e5f-6071-8293-a4b5c6d7e8f9",
        " 0a1b2c3d-4e5f-6071-8293-a4b5c6d7e8f9", "0a1b2c3d-4e5f-6071-8293a4b5c6d7e8f9",
        "1-2-3-0405-060708090a0b", "0x1b2c3d-4e5f-6071-8293-a4b5c6d7e8f9",
        "0a1b2c3g-4e5f-6071-8293-a4b5c6d7e8f9", "{}", "-", ""}) {
    GUID scanned;
    const char* psz = pszText;
    if (*psz == '{')
      ++psz;
    (void)std::sscanf(psz, "%08x-%04hx-%04hx-%02hhx%02hhx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx",
                      &scanned.Data1, &scanned.Data2, &scanned.Data3, &scanned.Data4[0], &scanned.Data4[1],
                      &scanned.Data4[2], &scanned.Data4[3], &scanned.Data4[4], &scanned.Data4[5],
                      &scanned.Data4[6], &scanned.Data4[7]);
    EXPECT_EQ(GUID(pszText), scanned) << pszText;
  }
}

TEST(Guid_test, ToText_PadsFields) {
  const GUID guid("00000001-0002-0003-0405-060708090a0b");
  EXPECT_EQ(guid.ToLower(), CPString("00000001-0002-0003-0405-060708090a0b"));
  EXPECT_EQ(guid.ToUpper(), CPString("00000001-0002-0003-0405-060708090A0B"));
}

TEST(Guid_test, Comparison_IsATotalOrder) {
  const GUID a("00000001-0000-0000-0000-000000000000");
  const GUID b("00000001-0000-0000-0000-000000000001");
  EXPECT_NE(a, b);
  EXPECT_TRUE(a < b);
  EXPECT_FALSE(b < a);
  EXPECT_FALSE(a < a);
}

}  // namespace
