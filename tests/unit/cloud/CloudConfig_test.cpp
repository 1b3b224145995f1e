#include "platform/cloud/CloudConfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/TempHome.h"

using namespace zxcloud;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

class CCloudConfigTest : public ::testing::Test {
 protected:
  bool Load(const std::string& strText, const std::string& strOther = "") {
    m_home.WriteFile("etc/zxagent/inner/zxagent.json", strText);
    m_strError.clear();
    return LoadCloudConfig(m_home.Path("etc/zxagent/inner/zxagent.json").Str(), strOther, m_config,
                           m_strError);
  }

  CTempHome m_home;
  _CloudConfig m_config;
  std::string m_strError;
};

}  // namespace

TEST_F(CCloudConfigTest, Load_TakesEverything_WithPathsBelowTheHome) {
  ASSERT_TRUE(Load(R"({"tconf":{"tconf_url":"https://a.example:9,b"},"other":1,"zxcloudconf":{
      "ca_file":"etc/ca.pem","ca_path":"/abs/certs","cert_file":"c.pem","key_file":"k.pem",
      "pins":["sha256//AA==","sha256//BB=="],"plaintext_loopback":true,"proxy":"http://p:1",
      "max_queue_bytes":1048576,"db_path":"etc/zxagent/zxcloud.db"}})",
                   "c:1"))
      << m_strError;
  ASSERT_EQ(m_config.listTconf.size(), 3u);
  EXPECT_EQ(m_config.listTconf[0].Text(), "a.example:9");
  EXPECT_EQ(m_config.listTconf[1].Text(), "b:443");
  EXPECT_EQ(m_config.listTconf[2].Text(), "c:1");
  const std::string strHome = m_home.Root().Str();
  EXPECT_EQ(m_config.tls.strCaFile, strHome + "etc/ca.pem");
  EXPECT_EQ(m_config.tls.strCaPath, "/abs/certs");
  EXPECT_EQ(m_config.tls.strKeyFile, strHome + "k.pem");
  EXPECT_THAT(m_config.tls.listPins, ElementsAre("sha256//AA==", "sha256//BB=="));
  EXPECT_TRUE(m_config.bPlainLoopback);
  EXPECT_EQ(m_config.strProxy, "http://p:1");
  EXPECT_EQ(m_config.uMaxQueueBytes, 1048576u);
  EXPECT_EQ(m_config.spool.strFile, strHome + "etc/zxagent/zxcloud.db");
}

TEST_F(CCloudConfigTest, Load_HasDefaults_WithoutItsObject) {
  ASSERT_TRUE(Load(R"({"tconf":{"tconf_url":"a"}})"));
  const auto Defaults = [this] {
    EXPECT_EQ(m_config.uMaxQueueBytes, 67108864u);
    EXPECT_EQ(m_config.spool.uMaxBytes, 67108864u);
    EXPECT_EQ(m_config.spool.uMaxAgeSec, 604800u);
    EXPECT_TRUE(m_config.spool.bFull);
    EXPECT_EQ(m_config.spool.strFile, m_home.Root().Str() + "etc/zxagent/zxcloud.db");
    EXPECT_FALSE(m_config.bPlainLoopback);
    EXPECT_EQ(m_config.uRetryMaxSec, 300u);
    EXPECT_EQ(m_config.strProxy, "");
    EXPECT_TRUE(m_config.tls.listPins.empty());
    for (const std::string* p : {&m_config.tls.strCaFile, &m_config.tls.strCaPath, &m_config.tls.strCrlFile,
                                 &m_config.tls.strCertFile, &m_config.tls.strKeyFile})
      EXPECT_EQ(*p, "");
  };
  Defaults();
  // Nothing of an earlier file stays.
  ASSERT_TRUE(Load(
      R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"spool_bytes":100000,"spool_age_sec":100,"retry_max_sec":10,
      "spool_sync":"normal","db_path":"x.db","max_queue_bytes":100000,"plaintext_loopback":true,
      "ca_file":"a","ca_path":"b","crl_file":"c","cert_file":"d","key_file":"e","proxy":"p"}})"));
  ASSERT_TRUE(Load(R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{}})"));
  Defaults();
}

TEST_F(CCloudConfigTest, Load_PutsTheSpoolBesideASettingsFileThatIsNoHomes) {
  m_home.WriteFile("other/settings.json", R"({"tconf":{"tconf_url":"a"}})");
  ASSERT_TRUE(LoadCloudConfig(m_home.Path("other/settings.json").Str(), "", m_config, m_strError));
  EXPECT_EQ(m_config.spool.strFile, m_home.Root().Str() + "other/zxcloud.db");
  m_home.WriteFile("other/settings.json",
                   R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"db_path":"/var/spool/z.db"}})");
  ASSERT_TRUE(LoadCloudConfig(m_home.Path("other/settings.json").Str(), "", m_config, m_strError));
  EXPECT_EQ(m_config.spool.strFile, "/var/spool/z.db");
}

TEST_F(CCloudConfigTest, Load_TakesBothWaysOfSyncing) {
  ASSERT_TRUE(Load(R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"spool_sync":"normal"}})"));
  EXPECT_FALSE(m_config.spool.bFull);
  ASSERT_TRUE(Load(R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"spool_sync":"full"}})"));
  EXPECT_TRUE(m_config.spool.bFull);
}

TEST_F(CCloudConfigTest, Load_IsSatisfiedWithTheOtherAddress) {
  ASSERT_TRUE(Load("{}", "engine.example:7"));
  EXPECT_EQ(m_config.listTconf.at(0).Text(), "engine.example:7");
  ASSERT_TRUE(Load(R"({"tconf":{"tconf_url":"same:1"}})", "same:1"));
  EXPECT_EQ(m_config.listTconf.size(), 1u);
}

TEST_F(CCloudConfigTest, Load_NamesWhatIsWrong) {
  struct {
    const char* pszText;
    const char* pszReason;
  } const kCases[] = {
      {"[", "not a JSON document"},
      {"{}", "no usable address in tconf_url []"},
      {R"({"tconf":{"tconf_url":"http://127.0.0.1:1"}})", "no usable address"},
      {R"({"tconf":{"tconf_url":5}})", "member tconf_url must be a text"},
      {R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"ca_file":1}})", "member ca_file must be a text"},
      {R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"plaintext_loopback":"yes"}})",
       "member plaintext_loopback must be true or false"},
      {R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"spool_bytes":"1"}})",
       "member spool_bytes must be a number"},
      {R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"spool_age_sec":true}})",
       "member spool_age_sec must be a number"},
      {R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"spool_sync":"off"}})",
       "member spool_sync must be \"full\" or \"normal\""},
      {R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"max_queue_bytes":"1"}})",
       "member max_queue_bytes must be a number"},
      {R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"pins":"sha256//x"}})", "member pins must be"},
      {R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"pins":["SHA256//x"]}})", "member pins must be"},
      {R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"cert_file":"c"}})",
       "cert_file and key_file belong together"},
  };
  for (const auto& c : kCases) {
    EXPECT_FALSE(Load(c.pszText)) << c.pszText;
    EXPECT_THAT(m_strError, HasSubstr(c.pszReason)) << c.pszText;
  }
  EXPECT_FALSE(LoadCloudConfig(m_home.Path("missing").Str(), "", m_config, m_strError));
  EXPECT_THAT(m_strError, HasSubstr("No such file"));
}

TEST_F(CCloudConfigTest, Load_BringsEachNumberIntoItsRange) {
  struct {
    const char* pszMember;
    uint64_t u64Least, u64Most;
    uint64_t (*pfnValue)(const _CloudConfig&);
  } const kMembers[] = {
      {"max_queue_bytes", 65536, 4294967296,
       [](const _CloudConfig& c) { return uint64_t{c.uMaxQueueBytes}; }},
      {"spool_bytes", 65536, 4294967296, [](const _CloudConfig& c) { return uint64_t{c.spool.uMaxBytes}; }},
      {"retry_max_sec", 5, 300, [](const _CloudConfig& c) { return uint64_t{c.uRetryMaxSec}; }},
      {"spool_age_sec", 60, 31622400, [](const _CloudConfig& c) { return uint64_t{c.spool.uMaxAgeSec}; }},
  };
  for (const auto& member : kMembers) {
    const std::string strLeast = std::to_string(member.u64Least);
    const std::string strMost = std::to_string(member.u64Most);
    const std::pair<std::string, uint64_t> kCases[] = {
        {"-1e300", member.u64Least},
        {"-5", member.u64Least},
        {"0", member.u64Least},
        {std::to_string(member.u64Least - 1), member.u64Least},
        {strLeast, member.u64Least},
        {std::to_string(member.u64Least + 1), member.u64Least + 1},
        {strLeast + ".9", member.u64Least},
        {std::to_string(member.u64Most - 1), member.u64Most - 1},
        {strMost, member.u64Most},
        {std::to_string(member.u64Most + 1), member.u64Most},
        {"1e300", member.u64Most},
        {"1e999", member.u64Most},
    };
    for (const auto& [strValue, u64Wanted] : kCases) {
      ASSERT_TRUE(Load(R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{")" + std::string(member.pszMember) +
                       "\":" + strValue + "}}"))
          << m_strError;
      EXPECT_EQ(member.pfnValue(m_config), u64Wanted) << member.pszMember << " " << strValue;
    }
  }
}

TEST_F(CCloudConfigTest, Load_RefusesTheWrongTypeOfEachMember_AndKeepsWhatItHad) {
  ASSERT_TRUE(Load(R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"spool_bytes":100000}})"));
  const std::pair<const char*, std::vector<const char*>> kMembers[] = {
      {"max_queue_bytes", {"\"1\"", "true", "null", "[1]", "{}"}},
      {"spool_bytes", {"\"1\"", "true", "null", "[1]", "{}"}},
      {"retry_max_sec", {"\"1\"", "true", "null", "[1]", "{}"}},
      {"spool_age_sec", {"\"1\"", "true", "null", "[1]", "{}"}},
      {"spool_sync", {"1", "true", "null", "\"\"", "\"FULL\"", "\"off\"", "[\"full\"]"}},
      {"db_path", {"1", "false", "null", "[]"}},
      {"plaintext_loopback", {"1", "0", "\"true\"", "null"}},
      {"proxy", {"1", "null"}},
      {"ca_path", {"1", "null"}},
      {"crl_file", {"1", "null"}},
      {"cert_file", {"1", "null"}},
      {"key_file", {"1", "null"}},
  };
  for (const auto& [pszMember, listValues] : kMembers) {
    for (const char* pszValue : listValues) {
      EXPECT_FALSE(Load(R"({"tconf":{"tconf_url":"b"},"zxcloudconf":{")" + std::string(pszMember) +
                        "\":" + pszValue + "}}"))
          << pszMember << " " << pszValue;
      EXPECT_THAT(m_strError, HasSubstr("member " + std::string(pszMember) + " must be")) << pszValue;
    }
  }
  EXPECT_EQ(m_config.spool.uMaxBytes, 100000u);
  EXPECT_EQ(m_config.listTconf.at(0).strHost, "a");
}

TEST_F(CCloudConfigTest, Load_TakesSixteenPins) {
  const auto Pins = [](int iCount) {
    std::string str = R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"pins":[)";
    for (int i = 0; i < iCount; ++i)
      str += std::string(i == 0 ? "" : ",") + "\"sha256//" + std::to_string(i) + "\"";
    return str + "]}}";
  };
  ASSERT_TRUE(Load(Pins(16)));
  EXPECT_EQ(m_config.tls.listPins.size(), 16u);
  EXPECT_FALSE(Load(Pins(17)));
  ASSERT_TRUE(Load(Pins(0)));
  EXPECT_TRUE(m_config.tls.listPins.empty());
}
