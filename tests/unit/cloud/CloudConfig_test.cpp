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
  EXPECT_EQ(m_config.uMaxQueueBytes, kDefaultQueueBytes);
  EXPECT_FALSE(m_config.bPlainLoopback);
  EXPECT_TRUE(m_config.tls.strCaFile.empty());
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

TEST_F(CCloudConfigTest, Load_BringsTheBoundIntoItsRange) {
  ASSERT_TRUE(Load(R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"max_queue_bytes":-5}})"));
  EXPECT_EQ(m_config.uMaxQueueBytes, 65536u);
  ASSERT_TRUE(Load(R"({"tconf":{"tconf_url":"a"},"zxcloudconf":{"max_queue_bytes":1e300}})"));
  EXPECT_EQ(m_config.uMaxQueueBytes, size_t{4} << 30);
}
