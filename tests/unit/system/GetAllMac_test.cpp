#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/MainLog.h"
#include "support/TempHome.h"
#include "system/AgentSystem.h"

using testing::ElementsAre;
using testing::UnorderedElementsAre;

namespace fs = std::filesystem;

namespace {

class GetAllMac : public testing::Test {
 protected:
  // As the kernel does it: a folder below devices, and a link to it in class/net.
  void AddAdapter(const std::string& strName, const std::string& strBus) const {
    const std::string strDevice = "sys/devices/" + strBus + "/net/" + strName;
    m_root.MakeDir(strDevice);
    m_root.MakeDir("sys/class/net");
    fs::create_directory_symlink("../../devices/" + strBus + "/net/" + strName,
                                 m_root.Path("sys/class/net/" + strName).Str());
  }
  void AddAdapter(const std::string& strName, const std::string& strBus, const CPString& strAddress) const {
    AddAdapter(strName, strBus);
    m_root.WriteFile("sys/devices/" + strBus + "/net/" + strName + "/address", strAddress);
  }
  std::string NetPath(const std::string& strName) const {
    return m_root.Path("sys/class/net/" + strName).Str();
  }
  int Call() { return CAgentSystem(m_root.Root().Left(m_root.Root().GetLength() - 1)).GetAllMac(m_list); }
  std::vector<std::string> Macs() const {
    std::vector<std::string> macs;
    for (const CPString& strMac : m_list)
      macs.push_back(strMac.Str());
    return macs;
  }

  CTempHome m_root;
  CMainLog m_log;
  CPStrList m_list;
};

constexpr char kPci[] = "pci0000:00/0000:00:03.0";

}  // namespace

TEST_F(GetAllMac, TakesPhysicalAdapters) {
  AddAdapter("eth0", kPci, "52:54:00:12:34:56\n");
  EXPECT_EQ(Call(), 1);
  EXPECT_THAT(Macs(), ElementsAre("52:54:00:12:34:56"));
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentSystem::GetAllMac find mac strMac[52:54:00:12:34:56] szFile[" +
                          NetPath("eth0") + "/address]"),
            kLogInfo);
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentSystem::GetAllMac strAllMac[52:54:00:12:34:56]"), kLogInfo);
}

TEST_F(GetAllMac, FindsNothing_WhenOnlyLoopbackAndBridgesExist) {
  AddAdapter("lo", "virtual", "00:00:00:00:00:00\n");
  AddAdapter("docker0", "virtual", "02:42:ac:11:00:01\n");
  EXPECT_EQ(Call(), 0);
  EXPECT_TRUE(m_list.IsEmpty());
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentSystem::GetAllMac find virtual szFile[" + NetPath("docker0") +
                          "] szData[../../devices/virtual/net/docker0]"),
            kLogInfo);
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentSystem::GetAllMac strAllMac[]"), kLogInfo);
}

TEST_F(GetAllMac, TellsVirtualAdaptersWithoutRegardToCase) {
  AddAdapter("tun0", "Virtual", "02:42:ac:11:00:01\n");
  EXPECT_EQ(Call(), 0);
}

TEST_F(GetAllMac, KeepsDirectoryOrder) {
  for (int i = 0; i < 8; ++i)
    AddAdapter("eth" + std::to_string(i), kPci, CPString::Make("52:54:00:00:00:%02x\n", i));
  std::vector<std::string> expected;
  for (const auto& entry : fs::directory_iterator(m_root.Path("sys/class/net").Str()))
    expected.push_back("52:54:00:00:00:0" + entry.path().filename().string().substr(3));
  EXPECT_EQ(Call(), 1);
  EXPECT_EQ(Macs(), expected);
}

TEST_F(GetAllMac, LeavesOutZeroAndShortAddresses) {
  AddAdapter("eth0", kPci, "00:00:00:00:00:00\n");
  AddAdapter("eth1", kPci, "000000000000\n");
  AddAdapter("eth2", kPci, "12:34:56:78\n");  // 11 characters
  AddAdapter("eth3", kPci, "123456789abc\r\n");
  EXPECT_EQ(Call(), 1);
  EXPECT_THAT(Macs(), ElementsAre("123456789abc"));
  EXPECT_EQ(m_log.Count("*zxagent CAgentSystem::GetAllMac mac is 0 szFile["), 2u);
  EXPECT_EQ(m_log.LevelOf("*zxagent CAgentSystem::GetAllMac  too short strMac[12:34:56:78] szFile[" +
                          NetPath("eth2") + "/address] szData[12:34:56:78\n]"),
            kLogWarn);
}

TEST_F(GetAllMac, TakesTheFirstLineOnly) {
  AddAdapter("ib0", kPci, "80:00:02:08:fe:80:00:00:00:00:00:00:00:11:22:33:44:55:66:77\nsecond\n");
  AddAdapter("eth1", kPci, "52:54:00:12:34:56");  // no line end
  EXPECT_EQ(Call(), 1);
  EXPECT_THAT(Macs(), UnorderedElementsAre("80:00:02:08:fe:80:00:00:00:00:00:00:00:11:22:33:44:55:66:77",
                                           "52:54:00:12:34:56"));
}

TEST_F(GetAllMac, SkipsAdaptersThatCannotBeRead) {
  AddAdapter("eth0", kPci);  // no address file
  AddAdapter("eth1", kPci, "");
  AddAdapter("eth2", kPci, CPString("\0garbage\n", 9));
  AddAdapter("eth3", kPci);
  m_root.MakeDir("sys/class/net/eth3/address");  // opens, but has no line
  AddAdapter("eth4", kPci, "52:54:00:12:34:56\n");
  EXPECT_EQ(Call(), 1);
  EXPECT_THAT(Macs(), ElementsAre("52:54:00:12:34:56"));
  EXPECT_EQ(m_log.LevelOf("*zxagent CAgentSystem::GetAllMac fopen Error[2] szFile[" + NetPath("eth0") +
                          "/address]"),
            kLogWarn);
  for (const char* pszName : {"eth1", "eth2", "eth3"})
    EXPECT_EQ(m_log.LevelOf("*zxagent CAgentSystem::GetAllMac fgets szFile[" + NetPath(pszName) +
                            "/address] szData[]"),
              kLogWarn)
        << pszName;
}

TEST_F(GetAllMac, LooksAtThePathItself_WhenTheEntryIsNoLink) {
  m_root.WriteFile("sys/class/net/eth0/address", "52:54:00:12:34:56\n");
  EXPECT_EQ(Call(), 1);
  EXPECT_EQ(
      m_log.LevelOf("*zxagent CAgentSystem::GetAllMac readlink Warn[22] szFile[" + NetPath("eth0") + "]"),
      kLogWarn);
}

TEST_F(GetAllMac, Fails_WhenTheDirectoryIsMissing) {
  m_list.AddTail("52:54:00:00:00:01");
  EXPECT_EQ(Call(), 0);
  EXPECT_EQ(m_log.LevelOf("*zxagent CAgentSystem::GetAllMac opendir Error[2]"), kLogWarn);
  EXPECT_EQ(m_log.LevelOf("zxagent CAgentSystem::GetAllMac strAllMac[52:54:00:00:00:01]"), kLogInfo);
}

TEST_F(GetAllMac, AppendsToTheList) {
  AddAdapter("eth0", kPci, "52:54:00:12:34:56\n");
  m_list.AddTail("52:54:00:00:00:01");
  EXPECT_EQ(Call(), 1);
  EXPECT_THAT(Macs(), ElementsAre("52:54:00:00:00:01", "52:54:00:12:34:56"));
}
