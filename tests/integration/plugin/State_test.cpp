// State files that are missing, empty, cut short or binary before the start; a home that cannot be written.
#include <sys/mount.h>
#include <unistd.h>

#include "AgentFixture.h"

namespace {

constexpr const char* kStateFiles[] = {
    "etc/version.xml",
    "etc/zxagent/zxagent.json",
    "etc/zxagent/commandroute.json",
    "etc/zxagent/zxcloud.json",
    "etc/zxagent/lbdata.json",
    "etc/zxagent/allengineaddr.json",
    "etc/zxagent/.mid",
    "etc/zxagent/inner/.mid",
    "etc/zxagent/inner/zxagent.json",
    "etc/zxagent/inner/cacheattribute.json",
    "etc/zxagent/inner/customcloud.json",
    "etc/zxagent/inner/engineaddr.json",
    "etc/zxagent/inner/pubmsgreport.json",
    "etc/zxagent/inner/termconnect.json",
    "etc/zxagent/inner/msgsrvaddrset.json",
    "etc/zxagent/inner/pcid.dat",
    "etc/coms/client/zxsample/config.json",
};

struct CDamage {
  const char* pszName;
  std::string strContent;
  bool bMissing = false;
};

const CDamage kDamages[] = {
    {"Missing", "", true},
    {"Empty", "", false},
    {"Truncated", R"({"tconf":{"tconf_url":"127.0)", false},
    {"Binary", std::string("\0\xff\xfe\x80{\"\x01[", 9), false},
    {"WrongShape", R"([1,2,{"mid":3}])", false},
};

using Param = std::tuple<const char*, CDamage>;
class CDamagedStateTest : public CAgentFixture, public testing::WithParamInterface<Param> {};

std::string ParamName(const testing::TestParamInfo<Param>& param) {
  std::string strName = std::string(std::get<0>(param.param)) + "_" + std::get<1>(param.param).pszName;
  for (char& ch : strName)
    ch = std::isalnum(static_cast<unsigned char>(ch)) != 0 ? ch : '_';
  return strName;
}

// Without a component file or a route file a command can still find its component by the other of the two, so
// the sample stays reachable in every case but one: see below.
TEST_P(CDamagedStateTest, AgentStartsAndServes) {
  const auto& [pszFile, damage] = GetParam();
  m_home.Remove(pszFile);
  if (!damage.bMissing)
    m_home.WriteFile(pszFile, damage.strContent);
  StartAgent();
  EXPECT_EQ(m_pObj->pfnGetStatus(), 2);
  EXPECT_TRUE(CFakeCloud::Get().IsInitialised());
  const bool bNoPlugin = std::string(pszFile) == "etc/coms/client/zxsample/config.json";
  if (bNoPlugin) {
    // A rebuild that registers no plug-in keeps the tables of before, which are empty at the first start.
    Push(kPcidSample, PushText("cmd-1", "disk_usage"));
    EXPECT_TRUE(Acknowledged("cmd-1", 4));
  } else {
    ExpectNextCommandWorks();
  }
}

INSTANTIATE_TEST_SUITE_P(State, CDamagedStateTest,
                         testing::Combine(testing::ValuesIn(kStateFiles), testing::ValuesIn(kDamages)),
                         ParamName);

}  // namespace

TEST_F(CAgentFixture, Mid_IsKeptInThreeCopiesAndSurvivesAWipedHome) {
  StartAgent();
  StopAgent();
  Unload();
  EXPECT_EQ(access("/etc/.mid", F_OK), geteuid() == 0 ? 0 : -1);
  EXPECT_EQ(m_home.Mode("etc/zxagent/inner/.mid"), 0600u);
  if (geteuid() != 0)
    return;
  m_home.Remove("etc/zxagent/inner/.mid");
  m_home.Remove("etc/zxagent/.mid");
  CFakeMid::Instance().SetText("mid", "another-machine");
  CFakeCloud::Get().Reset();
  StartAgent();
  EXPECT_THAT(CFakeCloud::Get().Texts(ECloudCall::Setopt),
              testing::Contains("mid=fake-mid:m2=fake-mid2:cloudtcp_disable=0"));
}

TEST_F(CAgentFixture, Start_WithoutAnyMachineIdFails) {
  CFakeMid::Instance().SetResult("mid", 5);
  Load();
  int iParam = 1;
  m_pObj->pfnInitialize(&iParam);
  m_pObj->pfnSetCtx(static_cast<IBusContext*>(&m_bus));
  EXPECT_EQ(m_pObj->pfnStart(), 0);
  EXPECT_TRUE(m_log.Contains("**zxagent CAgentMgr::Start Error GetConfig Error"));
  EXPECT_FALSE(CFakeCloud::Get().IsInitialised());
  StopAgent();
}

TEST_F(CAgentFixture, Start_ShortOnlyRecordDisablesTheLongConnection) {
  m_home.WriteFile("etc/zxagent/inner/termconnect.json", R"({"Param":{"type":2,"poller_cycle":61}})");
  StartAgent();
  EXPECT_THAT(CFakeCloud::Get().Texts(ECloudCall::Setopt),
              testing::Contains("mid=fake-mid:m2=fake-mid2:cloudtcp_disable=1"));
  EXPECT_TRUE(m_log.Contains(
      "zxagent CAgentMgr::GetConfig ReadTermConnect iType[2] bIsOnlyShort[1] iPollerCycle[61]"));
}

TEST_F(CAgentFixture, Home_ReadOnlyDegradesAndStillServes) {
  m_home.MakeDir("log");
  if (mount(m_home.Root().c_str(), m_home.Root().c_str(), nullptr, MS_BIND, nullptr) != 0 ||
      mount("none", m_home.Root().c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0)
    GTEST_SKIP() << "cannot mount a read-only home here";
  StartAgent();
  EXPECT_TRUE(CFakeCloud::Get().IsInitialised());
  EXPECT_TRUE(m_log.Contains("Error SaveFile Error[30]") || m_log.Contains("Error[30]"));
  ExpectNextCommandWorks();
  StopAgent();
  Unload();
  umount2(m_home.Root().c_str(), MNT_DETACH);
}
