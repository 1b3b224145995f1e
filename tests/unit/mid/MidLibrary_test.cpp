#include "platform/mid/MidLibrary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <cstring>
#include <set>
#include <vector>

#include "FakeRoot.h"

namespace {

using testing::HasSubstr;
using testing::Not;

std::vector<std::string>* g_pLines = nullptr;

void RecordLine(int, int, const char* pszText) {
  g_pLines->push_back(pszText);
}

class MidLibrary : public testing::Test {
 protected:
  std::string Mid() { return Get("mid", &CMidDerive::Mid, true); }
  std::string Mid2() { return Get("mid2", &CMidDerive::Mid2, true); }
  std::string Sn() { return Get("mid2sn", &CMidDerive::Sn, false); }
  std::string Disk() { return Get("mid2disk", &CMidDerive::Disk, false); }
  std::string Mac() { return Get("mid2mac", &CMidDerive::Mac, false); }

  std::string Get(const char* pszName, std::string (CMidDerive::*pfnDerive)() const, bool bRequired) {
    char szBuffer[512];
    std::memset(szBuffer, 'x', sizeof(szBuffer));
    m_iResult = m_library.Get(pszName, pfnDerive, bRequired, szBuffer, 511);
    return szBuffer;
  }

  CFakeRoot m_root;
  CMidLibrary m_library{m_root.Path()};
  int m_iResult = -1;
};

bool IsId(const std::string& str) {
  return str.size() == 32 && str.find_first_not_of("0123456789abcdef") == std::string::npos;
}

TEST_F(MidLibrary, Ids_AreFiveDifferentHashes_OnAMachineWithEverything) {
  m_root.BareMetal();
  const std::set<std::string> ids{Mid(), Mid2(), Sn(), Disk(), Mac()};
  EXPECT_EQ(ids.size(), 5u);
  for (const std::string& strId : ids)
    EXPECT_TRUE(IsId(strId)) << strId;
  EXPECT_EQ(Mid(), Mid());
}

TEST_F(MidLibrary, Mid_IsTheDocumentedDerivation) {
  m_root.BareMetal();
  const std::string strText =
      "zxmid-v1\ne3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855\nmid\n"
      "sn=4c4c4544-0051-3510-8052-b4c04f4a4d32\ndisk=naa.5002538d40a1b2c3\n";
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(strText.data()), strText.size(), digest);
  std::string strExpect;
  for (int i = 0; i < 16; ++i) {
    char szHex[3];
    snprintf(szHex, sizeof(szHex), "%02x", digest[i]);
    strExpect += szHex;
  }
  EXPECT_EQ(Mid(), strExpect);
}

TEST_F(MidLibrary, DiskSwap_ChangesMidAndDisk_KeepsSnAndMac) {
  m_root.BareMetal();
  const std::string strMid = Mid(), strMid2 = Mid2(), strSn = Sn(), strDisk = Disk(), strMac = Mac();
  m_root.Write("/sys/devices/pci0000:00/ata1/host0/target0:0:0/0:0:0:0/block/sda/device/wwid",
               "naa.5002538d40ffffff\n");
  EXPECT_NE(Mid(), strMid);
  EXPECT_NE(Mid2(), strMid2);
  EXPECT_NE(Disk(), strDisk);
  EXPECT_EQ(Sn(), strSn);
  EXPECT_EQ(Mac(), strMac);
}

TEST_F(MidLibrary, AdapterSwap_ChangesMid2_KeepsMid) {
  m_root.BareMetal();
  const std::string strMid = Mid(), strMid2 = Mid2();
  m_root.Adapter("eno1", "b4:96:91:0a:0b:0d", 2);
  EXPECT_EQ(Mid(), strMid);
  EXPECT_NE(Mid2(), strMid2);
}

TEST_F(MidLibrary, MachineIdChange_MovesNoId_WhileThereIsHardware) {
  m_root.BareMetal();
  const std::string strMid = Mid(), strMid2 = Mid2();
  m_root.Write("/etc/machine-id", "11111111c4c5404aaa1f6d2a48adfda4\n");
  EXPECT_EQ(Mid(), strMid);
  EXPECT_EQ(Mid2(), strMid2);
}

TEST_F(MidLibrary, VirtualMachine_WithoutFirmwareIds_UsesItsAdapter) {
  m_root.Adapter("eth0", "52:54:00:12:34:56", 2);
  const std::string strMid = Mid();
  EXPECT_TRUE(IsId(strMid));
  EXPECT_TRUE(IsId(Mac()));
  m_root.Adapter("eth0", "52:54:00:12:34:57", 2);
  EXPECT_NE(Mid(), strMid);
  EXPECT_EQ(Sn(), "");
  EXPECT_EQ(m_iResult, kMidOk);
  EXPECT_EQ(Disk(), "");
  EXPECT_EQ(m_iResult, kMidOk);
}

TEST_F(MidLibrary, Container_UsesItsMachineId_AndHasNoSingleSources) {
  m_root.Write("/etc/machine-id", "3d1219c7c4c5404aaa1f6d2a48adfda4\n");
  m_root.Adapter("eth0", "02:42:ac:11:00:02", 7, true);
  const std::string strMid = Mid();
  EXPECT_TRUE(IsId(strMid));
  EXPECT_TRUE(IsId(Mid2()));
  EXPECT_EQ(Sn() + Disk() + Mac(), "");
  EXPECT_EQ(m_iResult, kMidOk);
  m_root.Write("/etc/machine-id", "4d1219c7c4c5404aaa1f6d2a48adfda4\n");
  EXPECT_NE(Mid(), strMid);
}

TEST_F(MidLibrary, Container_WithoutMachineId_UsesItsOwnAdapter) {
  m_root.Adapter("lo", "00:00:00:00:00:00", 1, true);
  m_root.Adapter("eth0", "02:42:ac:11:00:02", 7, true);
  EXPECT_TRUE(IsId(Mid()));
  EXPECT_EQ(m_iResult, kMidOk);
}

TEST_F(MidLibrary, Mid_Fails_WhenThereIsNoSourceAtAll) {
  EXPECT_EQ(Mid(), "");
  EXPECT_EQ(m_iResult, kMidErrNoSource);
  EXPECT_EQ(Mid2(), "");
  EXPECT_EQ(m_iResult, kMidErrNoSource);
  EXPECT_EQ(Sn(), "");
  EXPECT_EQ(m_iResult, kMidOk);
}

TEST_F(MidLibrary, PlaceholderSerials_CountAsNone) {
  m_root.Dmi("product_uuid", "00000000-0000-0000-0000-000000000000");
  m_root.Dmi("product_serial", "To be filled by O.E.M.");
  EXPECT_EQ(Sn(), "");
  EXPECT_EQ(Mid(), "");
  EXPECT_EQ(m_iResult, kMidErrNoSource);
}

TEST_F(MidLibrary, Param_SaltsEveryId) {
  m_root.BareMetal();
  const std::string strMid = Mid(), strSn = Sn();
  ASSERT_EQ(m_library.Param("tenant-1"), kMidOk);
  EXPECT_NE(Mid(), strMid);
  EXPECT_NE(Sn(), strSn);
  ASSERT_EQ(m_library.Param(""), kMidOk);
  EXPECT_EQ(Mid(), strMid);
}

TEST_F(MidLibrary, Param_RefusesNullAndHugeKeys) {
  m_root.BareMetal();
  const std::string strMid = Mid();
  EXPECT_EQ(m_library.Param(nullptr), kMidErrArgument);
  EXPECT_EQ(m_library.Param(std::string(4097, 'k').c_str()), kMidErrArgument);
  EXPECT_EQ(Mid(), strMid);
}

TEST_F(MidLibrary, Get_ChecksTheBuffer) {
  m_root.BareMetal();
  char szBuffer[40] = "x";
  EXPECT_EQ(m_library.Get("mid", &CMidDerive::Mid, true, nullptr, 32), kMidErrArgument);
  EXPECT_EQ(m_library.Get("mid", &CMidDerive::Mid, true, szBuffer, -1), kMidErrArgument);
  EXPECT_EQ(m_library.Get("mid", &CMidDerive::Mid, true, szBuffer, 31), kMidErrBuffer);
  EXPECT_STREQ(szBuffer, "");
  EXPECT_EQ(m_library.Get("mid", &CMidDerive::Mid, true, szBuffer, 32), kMidOk);
  EXPECT_EQ(std::strlen(szBuffer), 32u);
}

TEST_F(MidLibrary, Log_TellsTheOutcome_NeverAValue) {
  std::vector<std::string> lines;
  g_pLines = &lines;
  const zxmid_settings settings{0, &RecordLine};
  ASSERT_EQ(m_library.Init(&settings), kMidOk);
  EXPECT_EQ(Mid(), "");
  m_root.BareMetal();
  Mid();
  Sn();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "zxmid mid no source on this machine");
  for (const std::string& strLine : lines)
    EXPECT_THAT(strLine, Not(HasSubstr("4c4c4544")));
}

TEST_F(MidLibrary, Init_RefusesNull) {
  EXPECT_EQ(m_library.Init(nullptr), kMidErrArgument);
}

// The exported functions on the machine that runs the tests.
TEST(MidExports, GiveTheSameIdEveryTime) {
  char szFirst[512] = {};
  char szAgain[512] = {};
  const int iResult = mid(szFirst, 511);
  if (iResult == kMidErrNoSource)
    GTEST_SKIP() << "no machine id, no hardware id and no network adapter here";
  ASSERT_EQ(iResult, 0);
  ASSERT_EQ(mid(szAgain, 511), 0);
  EXPECT_STREQ(szFirst, szAgain);
  EXPECT_TRUE(IsId(szFirst));
  EXPECT_EQ(mid2(szFirst, 511), 0);
  EXPECT_EQ(zxmid_getmid2sn(szFirst, 511), 0);
  EXPECT_EQ(zxmid_getmid2disk(szFirst, 511), 0);
  EXPECT_EQ(zxmid_getmid2mac(szFirst, 511), 0);
  EXPECT_EQ(zxmid_init(nullptr), kMidErrArgument);
  EXPECT_EQ(zxmid_param(nullptr, 0, 0), kMidErrArgument);
}

}  // namespace
