#include <gmock/gmock.h>
#include <sys/resource.h>

#include <cerrno>
#include <thread>

#include "DataFixture.h"

namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kFile[] = "etc/zxagent/zxcloud.json";
constexpr char kFull[] =
    R"({"lbaddr":"lb","tconfaddr":"t","shortaddrlocal":"sl","shortaddrremote":"sr","longaddrlocal":"ll",)"
    R"("longaddrremote":"lr","connectstatus":"1"})";

class CloudRecord : public CStoreFixture {
 protected:
  std::string File() const { return "] strFile[" + m_strDir + kFile + "]"; }
};

TEST_F(CloudRecord, Read_TakesAllFieldsButTheStatus) {
  WriteFile(kFile, kFull);
  EXPECT_EQ(m_data.ReadZxCloudData(), 1);
  const _ZxCloudData data = m_data.GetZxCloudData();
  EXPECT_EQ(data.strLbAddr, "lb");
  EXPECT_EQ(data.strTconfAddr, "t");
  EXPECT_EQ(data.strShortAddrLocal, "sl");
  EXPECT_EQ(data.strShortAddrRemote, "sr");
  EXPECT_EQ(data.strLongAddrLocal, "ll");
  EXPECT_EQ(data.strLongAddrRemote, "lr");
  EXPECT_EQ(data.bConnectStatus, 0);
  EXPECT_EQ(JsonOf(kFile, "connectstatus"), "0");
  EXPECT_THAT(Lines(), Contains("zxagent CAgentData::ReadZxCloudData strLbAddr[lb] strTconfAddr[t] "
                                "strShortAddrLocal[sl] strShortAddrRemote[sr] strLongAddrLocal[ll] "
                                "strLongAddrRemote[lr] bConnectStatus[1" +
                                File()));
}

TEST_F(CloudRecord, Read_KeepsFieldsBeforeTheMissingOne) {
  WriteFile(
      kFile,
      R"({"lbaddr":"lb","tconfaddr":"t","shortaddrlocal":"sl","shortaddrremote":"sr","longaddrlocal":"ll",)"
      R"("connectstatus":"1"})");
  EXPECT_EQ(m_data.ReadZxCloudData(), 0);
  const _ZxCloudData data = m_data.GetZxCloudData();
  EXPECT_EQ(data.strShortAddrLocal, "sl");
  EXPECT_EQ(data.strShortAddrRemote, "sr");
  EXPECT_EQ(data.strLongAddrLocal, "ll");
  EXPECT_EQ(JsonOf(kFile, "longaddrlocal"), "ll");
  EXPECT_EQ(JsonOf(kFile, "longaddrremote"), "");
  EXPECT_EQ(JsonOf(kFile, "connectstatus"), "0");
  EXPECT_EQ(JsonOf(kFile, "tconfaddr"), "");
  EXPECT_THAT(Lines(), Contains("*zxagent CAgentData::ReadZxCloudData Error GetNode longaddrremote" +
                                File().substr(1)));
}

TEST_F(CloudRecord, Read_NamesTheFirstMissingKey) {
  const std::pair<const char*, const char*> cases[] = {
      {"{}", "shortaddrlocal"},
      {R"({"shortaddrlocal":"1"})", "shortaddrremote"},
      {R"({"shortaddrlocal":"1","shortaddrremote":"2","longaddrremote":"4"})", "longaddrlocal"},
  };
  for (const auto& [pszText, pszKey] : cases) {
    WriteFile(kFile, pszText);
    EXPECT_EQ(m_data.ReadZxCloudData(), 0);
    EXPECT_THAT(Lines(), Contains("*zxagent CAgentData::ReadZxCloudData Error GetNode " +
                                  std::string(pszKey) + File().substr(1)));
  }
}

TEST_F(CloudRecord, Read_WritesEmptyRecord_WhenFileIsMissingOrBroken) {
  for (const bool bBroken : {false, true}) {
    Remove(kFile);
    if (bBroken)
      WriteFile(kFile, std::string("\xff\x00{", 3));
    ClearLines();
    EXPECT_EQ(m_data.ReadZxCloudData(), 0);
    EXPECT_EQ(JsonOf(kFile, "connectstatus"), "0");
    EXPECT_EQ(JsonOf(kFile, "shortaddrlocal"), "");
    EXPECT_EQ(Lines().front(), "*zxagent CAgentData::ReadZxCloudData Error LoadFile Error[" +
                                   std::to_string(bBroken ? 0 : ENOENT) + File());
  }
}

TEST_F(CloudRecord, Save_WritesKeysInOrder) {
  WriteFile(kFile, kFull);
  ASSERT_EQ(m_data.ReadZxCloudData(), 1);
  ASSERT_EQ(m_data.SetZxCloudConnectStatus(1), 1);
  zxtools::CPJsonParse json;
  ASSERT_EQ(json.LoadFile(CPString(m_strDir + kFile)), 1);
  CPString strJson;
  ASSERT_EQ(json.GetJsonStr(strJson), 1);
  EXPECT_EQ(strJson, kFull);
  EXPECT_EQ(Lines().back(),
            "zxagent CAgentData::SaveZxCloudData OK SaveFile strTconfAddr[t] strShortAddrLocal[sl] "
            "strShortAddrRemote[sr] longaddrlocal[ll] strLongAddrRemote[lr] bConnectStatus[1" +
                File() + "\n");
}

TEST_F(CloudRecord, AddrSetters_WriteEveryTime) {
  const auto fnShort = [&] { return m_data.SetZxCloudShortAddr("l:1", "r:1"); };
  const auto fnLong = [&] { return m_data.SetZxCloudLongAddr("l:2", "r:2"); };
  const auto fnUpdate = [&] { return m_data.UpdateZxCloudLongAddrByShortAddr(); };
  for (const std::function<int()>& fnSet : {std::function<int()>(fnShort), {fnLong}, {fnUpdate}}) {
    for (int i = 0; i < 2; ++i) {
      Remove(kFile);
      EXPECT_EQ(fnSet(), 1);
      EXPECT_TRUE(Exists(kFile));
    }
  }
  EXPECT_EQ(JsonOf(kFile, "shortaddrlocal"), "l:1");
  EXPECT_EQ(JsonOf(kFile, "longaddrlocal"), "l:1");
  EXPECT_EQ(JsonOf(kFile, "longaddrremote"), "r:1");
  EXPECT_THAT(
      Lines(),
      Contains("zxagent CAgentData::UpdateZxCloudLongAddrByShortAddr strAddrLocal[l:1] strAddrRemote[r:1]"));
}

TEST_F(CloudRecord, ValueSetters_WriteChangesOnly) {
  const auto fnTconf = [&] { return m_data.SetZxCloudTconfAddr("t:1"); };
  const auto fnLb = [&] { return m_data.SetZxCloudLbAddr("lb:1"); };
  const auto fnStatus = [&] { return m_data.SetZxCloudConnectStatus(1); };
  for (const std::function<int()>& fnSet : {std::function<int()>(fnTconf), {fnLb}, {fnStatus}}) {
    Remove(kFile);
    EXPECT_EQ(fnSet(), 1);
    EXPECT_TRUE(Exists(kFile));
    Remove(kFile);
    EXPECT_EQ(fnSet(), 1);
    EXPECT_FALSE(Exists(kFile));
  }
  const _ZxCloudData data = m_data.GetZxCloudData();
  EXPECT_EQ(data.strTconfAddr, "t:1");
  EXPECT_EQ(data.strLbAddr, "lb:1");
  EXPECT_EQ(data.bConnectStatus, 1);
}

TEST_F(CloudRecord, Setters_KeepNewValueInMemory_WhenFileCannotBeWritten) {
  Remove("etc");
  WriteFile("etc", "a file where the directory was");
  EXPECT_EQ(m_data.SetZxCloudShortAddr("l:1", "r:1"), 0);
  EXPECT_EQ(m_data.SetZxCloudTconfAddr("t:1"), 0);
  EXPECT_EQ(m_data.SetZxCloudTconfAddr("t:1"), 1);  // equal to the stored value: nothing is written
  EXPECT_EQ(m_data.GetZxCloudData().strShortAddrRemote, "r:1");
  EXPECT_EQ(m_data.GetZxCloudData().strTconfAddr, "t:1");
  EXPECT_THAT(Lines(), Contains("*zxagent CAgentData::SaveZxCloudData Error SaveFile Error[" +
                                std::to_string(ENOTDIR) + "] strFileTmp[" + m_strDir + kFile + ".tmp]"));
}

TEST_F(CloudRecord, GetZxCloudData_NeverShowsHalfAnUpdate) {
  m_data.SetZxCloudShortAddr("0", "0");
  std::thread writer([&] {
    for (int i = 0; i < 50; ++i) {
      const CPString str = CPString::Make("%d", i);
      m_data.SetZxCloudShortAddr(str, str);
    }
  });
  for (CPString strLast; strLast != "49";) {
    const _ZxCloudData data = m_data.GetZxCloudData();
    EXPECT_EQ(data.strShortAddrLocal, data.strShortAddrRemote);
    strLast = data.strShortAddrLocal;
  }
  writer.join();
}

bool ListOne(std::vector<_InterfaceAddr>& list) {
  list = {{"lo", "127.0.0.1"}, {"eth0", "10.0.0.5"}};
  return true;
}
bool ListFull(std::vector<_InterfaceAddr>& list) {
  list.assign(kInterfaceMax, {"eth0", "10.0.0.5"});
  return true;
}
bool ListUnused(std::vector<_InterfaceAddr>&) {
  ADD_FAILURE() << "interfaces asked for without need";
  return false;
}

class LocalIp : public CStoreFixture {
 protected:
  std::string Get(const char* pszShort, const char* pszLong, bool (*pfnList)(std::vector<_InterfaceAddr>&)) {
    m_data.SetZxCloudShortAddr(pszShort, "");
    m_data.SetZxCloudLongAddr(pszLong, "");
    m_data.SetListInterfaces(pfnList);
    ClearLines();
    return m_data.GetLocalIp().Str();
  }
};

TEST_F(LocalIp, GetLocalIp_IsShortAddressWithoutPort) {
  EXPECT_EQ(Get("10.0.0.5:443", "10.0.0.6:883", &ListUnused), "10.0.0.5");
  EXPECT_THAT(Lines(),
              ::testing::ElementsAre("zxagent CAgentData::GetLocalIp strShortAddrLocal strLocalIp[10.0.0.5]",
                                     "zxagent CAgentData::GetLocalIp strLocalIp[10.0.0.5]"));
  EXPECT_EQ(Get("fe80::1:443", "", &ListUnused), "fe80::1");
}

TEST_F(LocalIp, GetLocalIp_IsLongAddressWithoutPort) {
  EXPECT_EQ(Get("", "10.0.0.6:883", &ListUnused), "10.0.0.6");
  EXPECT_EQ(Lines().front(), "zxagent CAgentData::GetLocalIp strLongAddrLocal strLocalIp[10.0.0.6]");
  EXPECT_EQ(Get("10.0.0.5", "10.0.0.6:883", &ListUnused), "10.0.0.6");
}

TEST_F(LocalIp, GetLocalIp_IsLoopback_WhenShortHasNoPortAndLongIsEmpty) {
  EXPECT_EQ(Get("10.0.0.5", "", &ListOne), "127.0.0.1");
  EXPECT_THAT(Lines(), ::testing::ElementsAre("zxagent CAgentData::GetLocalIp socket ifr_addr strLocalIp[]",
                                              "zxagent CAgentData::GetLocalIp strLocalIp[127.0.0.1]"));
}

TEST_F(LocalIp, GetLocalIp_IsLongAddress_WhenAnInterfaceIsUp) {
  EXPECT_EQ(Get("10.0.0.5", "10.0.0.6", &ListOne), "10.0.0.6");
  EXPECT_EQ(Get(":443", "10.0.0.6", &ListOne), "10.0.0.6");
}

TEST_F(LocalIp, GetLocalIp_KeepsWhatItFound_WhenInterfacesDoNotCount) {
  EXPECT_EQ(Get("10.0.0.5", "", &ListFull), "10.0.0.5");
  EXPECT_EQ(Get("10.0.0.5", "10.0.0.6", &ListFull), "10.0.0.6");
  EXPECT_EQ(Get(":443", "", &ListFull), ":443");
  EXPECT_EQ(Get("", "", [](std::vector<_InterfaceAddr>&) { return false; }), "127.0.0.1");
  EXPECT_THAT(Lines(), Each(Not(HasSubstr("socket"))));
}

TEST_F(LocalIp, GetLocalIp_IsLoopback_OnPersonalEdition) {
  WriteFile("etc/version.xml", "<Config><AppId>com.tamber.veltsafe</AppId></Config>");
  ASSERT_EQ(m_data.GetVersionXml(), 1);
  EXPECT_EQ(Get("10.0.0.5:443", "10.0.0.6:883", &ListUnused), "127.0.0.1");
}

TEST(Interfaces, HasOutsideInterface_IgnoresInnerOnes) {
  const _InterfaceAddr inner[] = {{"lo", "10.0.0.5"},    {"virbr0", "192.168.122.1"}, {"vir", "10.0.0.5"},
                                  {"eth0", "127.0.1.1"}, {"eth0", "0.0.0.0"},         {"eth0", ""}};
  for (const _InterfaceAddr& entry : inner)
    EXPECT_FALSE(HasOutsideInterface({entry})) << entry.strName.c_str() << " " << entry.strAddr.c_str();
  EXPECT_FALSE(HasOutsideInterface({}));
  const _InterfaceAddr outer[] = {
      {"eth0", "10.0.0.5"}, {"lo0", "10.0.0.5"}, {"vi", "10.0.0.5"}, {"eth0", "12.7.0.1"}};
  for (const _InterfaceAddr& entry : outer)
    EXPECT_TRUE(HasOutsideInterface({inner[0], entry})) << entry.strName.c_str();
}

TEST(Interfaces, HasOutsideInterface_DoesNotExamineFullList) {
  const _InterfaceAddr entry = {"eth0", "10.0.0.5"};
  EXPECT_TRUE(HasOutsideInterface(std::vector<_InterfaceAddr>(15, entry)));
  EXPECT_FALSE(HasOutsideInterface(std::vector<_InterfaceAddr>(16, entry)));
}

TEST(Interfaces, ListInterfaces_GivesNamesAndDottedAddresses) {
  std::vector<_InterfaceAddr> list = {{"stale", ""}};
  ASSERT_TRUE(ListInterfaces(list));
  for (const _InterfaceAddr& entry : list) {
    EXPECT_NE(entry.strName, "stale");
    EXPECT_THAT(entry.strName.Str(), Not(::testing::IsEmpty()));
    EXPECT_THAT(entry.strAddr.Str(), ::testing::MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+"));
  }
}

TEST(Interfaces, ListInterfaces_Fails_WhenNoSocketIsLeft) {
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  const rlimit none{0, old.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  std::vector<_InterfaceAddr> list = {{"stale", ""}};
  const bool bListed = ListInterfaces(list);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
  EXPECT_FALSE(bListed);
  EXPECT_TRUE(list.empty());
}

TEST(Interfaces, CutPort_CutsBeforeLastColon) {
  const std::pair<const char*, const char*> cases[] = {
      {"a:1", "a"}, {"a:", "a"}, {"a:b:1", "a:b"}, {"::1", ":"}};
  for (const auto& [pszAddr, pszCut] : cases) {
    CPString strAddr = pszAddr;
    EXPECT_TRUE(CutPort(strAddr));
    EXPECT_EQ(strAddr, pszCut);
  }
  for (const char* pszAddr : {"", "a", ":", ":1"}) {
    CPString strAddr = pszAddr;
    EXPECT_FALSE(CutPort(strAddr));
    EXPECT_EQ(strAddr, pszAddr);
  }
}

}  // namespace
