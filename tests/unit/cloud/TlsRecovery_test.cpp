// A whole link that meets a bad certificate: says so once, keeps trying, comes up by itself when the
// certificate is renewed, and says it again when it turns bad once more.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <mutex>

#include "platform/cloud/CloudLink.h"
#include "support/CloudCerts.h"
#include "support/TempHome.h"
#include "support/TlsServer.h"
#include "support/Waiter.h"

using namespace zxcloud;

namespace {

// What the link's two threads report; one per process, as a C callback has no object.
class CLines {
 public:
  static CLines& Get() {
    static CLines lines;
    return lines;
  }
  void Clear() {
    const std::lock_guard lock(m_mutex);
    m_list.clear();
  }
  void Add(const std::string& str) {
    const std::lock_guard lock(m_mutex);
    m_list.push_back(str);
  }
  void Print() {
    const std::lock_guard lock(m_mutex);
    for (const std::string& str : m_list)
      std::printf("  %s\n", str.c_str());
  }
  size_t Count(const std::string& strPart) {
    const std::lock_guard lock(m_mutex);
    return static_cast<size_t>(std::count_if(m_list.begin(), m_list.end(), [&](const std::string& str) {
      return str.find(strPart) != std::string::npos;
    }));
  }
  bool Wait(const std::string& strPart, size_t uCount) {
    return EventuallyTrue([&] { return Count(strPart) >= uCount; });
  }

 private:
  std::mutex m_mutex;
  std::vector<std::string> m_list;
};

class CTlsRecovery : public ::testing::Test {
 protected:
  CTlsRecovery() {
    CLines::Get().Clear();
    m_times.dwBackoffBase = 10;
    m_times.dwBackoffCap = 40;
    m_times.dwStable = 0;
    m_record.config_path = "";
    m_record.channel_id = "channel";
    m_record.connect = [](const char*, unsigned short) {
      CLines::Get().Add("event connect");
      return 0;
    };
    m_record.tconf = [](int, const char*) {
      CLines::Get().Add("event tconf");
      return 0;
    };
    m_record.log = [](int, int iLevel, const char* psz) {
      if (iLevel >= 2)
        CLines::Get().Add(std::string("log ") + psz);
    };
  }
  void TearDown() override {
    if (HasFailure())
      CLines::Get().Print();
  }
  _TlsManners Good(const std::string& strBody = "") const {
    _TlsManners manners;
    manners.cert = m_good;
    manners.strHttpBody = strBody;
    return manners;
  }
  _TlsManners Expired() const {
    _TlsManners manners;
    manners.cert = m_expired;
    return manners;
  }
  static std::string Local(const CTestTlsServer& server) {
    return "127.0.0.1:" + std::to_string(server.Port());
  }
  static std::string Tconf(const std::string& strLong) {
    return R"({"v":1,"pcid":"","short":"","long":")" + strLong + R"(","spread_sec":0,"refresh_sec":60})";
  }
  std::unique_ptr<CCloudLink> NewLink(uint16_t wTconfPort) {
    m_home.WriteFile("zxagent.json", "{\"tconf\":{\"tconf_url\":\"127.0.0.1:" + std::to_string(wTconfPort) +
                                         "\"},\"zxcloudconf\":{\"ca_file\":\"" + m_ca.File() +
                                         "\",\"db_path\":\"zxcloud.db\"}}");
    _CloudConfig config;
    std::string strError;
    EXPECT_TRUE(LoadCloudConfig(m_home.Path("zxagent.json").Str(), "", config, strError)) << strError;
    _CloudOptions options;
    options.Merge("mid=m-1:cloudtcp_disable=0");
    auto pLink = std::make_unique<CCloudLink>(m_record, config, options, m_times);
    EXPECT_EQ(pLink->Start(), 0u);
    return pLink;
  }
  // That server refuses, is refused more than once, and is called so in one line.
  static void ExpectOneLine(const CTestTlsServer& server, size_t uLines) {
    const uint32_t uBefore = server.Connections();
    EXPECT_TRUE(CLines::Get().Wait(Local(server) + ": certificate expired", uLines));
    EXPECT_TRUE(EventuallyTrue([&] { return server.Connections() >= uBefore + 4; }));
    EXPECT_EQ(CLines::Get().Count(Local(server) + ": certificate expired"), uLines);
  }

  CTempHome m_home;
  CTestCa m_ca{m_home.Root().Str(), "test"};
  const _CertFiles m_good = m_ca.Issue("good", {"127.0.0.1"});
  const _CertFiles m_expired = m_ca.Issue("bad", {"127.0.0.1"}, -7200, -3600);
  _LinkTimes m_times;
  zxcloud_record m_record{};
};

}  // namespace

TEST_F(CTlsRecovery, TerminalConfiguration) {
  CTestTlsServer server(Expired());
  const auto pLink = NewLink(server.Port());
  ExpectOneLine(server, 1);
  EXPECT_EQ(server.Messages(), 0u);
  server.SetManners(Good(Tconf("")));
  EXPECT_TRUE(CLines::Get().Wait("event tconf", 1));
  pLink->Stop();
}

TEST_F(CTlsRecovery, LongConnection) {
  CTestTlsServer broker(Expired());
  CTestTlsServer server(Good(Tconf(Local(broker))));
  const auto pLink = NewLink(server.Port());
  ExpectOneLine(broker, 1);
  EXPECT_EQ(broker.Messages(), 0u);
  broker.SetManners(Good());
  EXPECT_TRUE(CLines::Get().Wait("event connect", 1));
  broker.SetManners(Expired());
  broker.DropAll();
  EXPECT_TRUE(CLines::Get().Wait("long connection lost", 1));
  const uint32_t uBefore = broker.Connections();
  EXPECT_TRUE(EventuallyTrue([&] { return broker.Connections() >= uBefore + 4; }));
  broker.SetManners(Good());
  EXPECT_TRUE(CLines::Get().Wait("event connect", 2));
  pLink->Stop();
}
