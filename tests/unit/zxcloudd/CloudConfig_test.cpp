#include "cloud/CloudConfig.h"

#include <gmock/gmock.h>

#include "support/TempHome.h"

namespace zxcloudd {
namespace {

const char* kMinimal = R"({"state_dir":"state","agent":{"cert_file":"c.pem","key_file":"/k.pem"}})";

TEST(CloudConfig, Minimal_TakesDefaultsAndResolvesPaths) {
  _CloudConfig config;
  std::string strError;
  ASSERT_TRUE(ParseCloudConfig(kMinimal, "/base/", config, strError)) << strError;
  EXPECT_EQ(config.strStateDir, "/base/state");
  EXPECT_EQ(config.agent.strCertFile, "/base/c.pem");
  EXPECT_EQ(config.agent.strKeyFile, "/k.pem");
  EXPECT_EQ(config.op.strTokenFile, "/base/state/operator.token");
  EXPECT_TRUE(config.broker.listAddresses.empty());
  EXPECT_EQ(config.poll.iReofferSec, 120);
  EXPECT_EQ(config.tconf.iKeepaliveSec, 30);
}

TEST(CloudConfig, Full_TakesEveryMember) {
  _CloudConfig config;
  std::string strError;
  ASSERT_TRUE(ParseCloudConfig(
      R"({"state_dir":"/s/","log_home":"/l","agent":{"listen":"[::1]:8443","cert_file":"c","key_file":"k",
      "client_ca_file":"ca","cert_names_mid":true,"threads":3,"connections":33,"idle_sec":7,"max_body_bytes":2048},
      "operator":{"listen":"127.0.0.2:9","token_file":"t"},
      "broker":{"addresses":"a:1,[::2]:2","ca_file":"ca","cert_file":"bc","key_file":"bk","username":"u",
      "password_file":"pw","client_id":"id","keepalive_sec":20},
      "tconf":{"pcid":[{"product":"A","combo":"B","id":3},{"product":"C","combo":"D","id":7}],"short":"s:1",
      "long":"l:2","lb":"b","keepalive_sec":11,"spread_sec":0,"retry_max_sec":9,"refresh_sec":61,"max_message_bytes":4096,
      "drain_per_sec":12,"connections":1,"confirm":true},
      "poll":{"period_sec":9,"max_commands":2,"reoffer_sec":3,"max_offers":4},
      "limits":{"agents":1,"pending_per_agent":2,"finished_per_agent":3,"uploads_per_agent":4,
      "upload_bytes_per_agent":5,"upload_ids_per_agent":6,"upload_id_days":8,"store_bytes":100000000}})",
      "/b/", config, strError))
      << strError;
  EXPECT_EQ(config.strStateDir, "/s");
  EXPECT_EQ(config.strLogHome, "/l/");
  EXPECT_EQ(config.agent.listen.strHost, "::1");
  EXPECT_EQ(config.agent.listen.iPort, 8443);
  EXPECT_TRUE(config.agent.bCertNamesMid);
  EXPECT_EQ(config.broker.listAddresses.size(), 2u);
  EXPECT_EQ(AddressText(config.broker.listAddresses[1]), "[::2]:2");
  EXPECT_EQ(config.tconf.strPcid, "A,B,3|C,D,7");
  EXPECT_EQ(config.tconf.iRetryMaxSec, 9);
  EXPECT_EQ(config.tconf.iDrainPerSec, 12);
  EXPECT_EQ(config.tconf.iConnections, 1);
  EXPECT_EQ(config.poll.iMaxOffers, 4);
  EXPECT_EQ(config.limits.iUploadIdsPerAgent, 6);
  EXPECT_EQ(config.limits.iUploadIdDays, 8);
  EXPECT_EQ(config.limits.i64StoreBytes, 100000000);
  EXPECT_EQ(config.agent.iConnections, 33);
  EXPECT_TRUE(config.tconf.bConfirm);
}

struct _Bad {
  const char* pszJson;
  const char* pszError;  // part of the message
};

class CBadConfig : public testing::TestWithParam<_Bad> {};

TEST_P(CBadConfig, IsRefusedByName) {
  _CloudConfig config;
  std::string strError;
  EXPECT_FALSE(ParseCloudConfig(GetParam().pszJson, "/b/", config, strError));
  EXPECT_THAT(strError, testing::HasSubstr(GetParam().pszError));
}

INSTANTIATE_TEST_SUITE_P(
    CloudConfig, CBadConfig,
    testing::Values(
        _Bad{"", "is not JSON"}, _Bad{"{", "is not JSON"}, _Bad{"{}", "state_dir is needed"},
        _Bad{R"({"state_dir":"s"})", "agent.cert_file"},
        _Bad{R"({"state_dir":"s","agent":{"cert_file":"c","key_file":"k","thread":1}})",
             "agent.thread is not known"},
        _Bad{R"({"state_dir":"s","agent":{"cert_file":"c","key_file":"k","threads":0}})", "agent.threads"},
        _Bad{R"({"state_dir":"s","agent":{"cert_file":"c","key_file":"k","threads":"x"}})", "agent.threads"},
        _Bad{R"({"state_dir":"s","agent":{"cert_file":"c","key_file":"k","listen":"8443"}})", "agent.listen"},
        _Bad{R"({"state_dir":"s","agent":{"cert_file":"c","key_file":"k","listen":"::1:80"}})",
             "agent.listen"},
        _Bad{R"({"state_dir":"s","agent":{"cert_file":"c","key_file":"k","cert_names_mid":true}})",
             "client_ca_file"},
        _Bad{
            R"({"state_dir":"s","agent":{"cert_file":"c","key_file":"k"},"operator":{"listen":"0.0.0.0:1"}})",
            "loopback"},
        _Bad{
            R"({"state_dir":"s","agent":{"cert_file":"c","key_file":"k"},"operator":{"listen":"127.evil.org:1"}})",
            "loopback"},
        _Bad{R"({"state_dir":"s","agent":{"cert_file":"c","key_file":"k"},"broker":{"addresses":"h:1"}})",
             "broker.ca_file"},
        _Bad{R"({"state_dir":"s","agent":{"cert_file":"c","key_file":"k"},"broker":{"addresses":"h"}})",
             "broker.addresses"},
        _Bad{R"({"state_dir":"s","agent":{"cert_file":"c","key_file":"k"},
             "broker":{"addresses":"10.0.0.1:1","plaintext_loopback":true}})",
             "loopback"},
        _Bad{R"({"state_dir":"s","agent":{"cert_file":"c","key_file":"k"},
             "tconf":{"pcid":[{"product":"a|b","combo":"c","id":1}]}})",
             "tconf.pcid"},
        _Bad{R"({"state_dir":"s","agent":{"cert_file":"c","key_file":"k"},"tconf":{"pcid":"a,b,1"}})",
             "tconf.pcid"},
        _Bad{R"({"state_dir":"s","agent":[]})", "agent."},
        _Bad{R"({"state_dir":"s","agent":"x"})", "agent."}));

TEST(CloudConfig, LoadCloudConfig_NamesTheMissingFile) {
  _CloudConfig config;
  std::string strError;
  CTempHome home;
  EXPECT_FALSE(LoadCloudConfig(home.Path("none.json").Str(), config, strError));
  EXPECT_THAT(strError, testing::HasSubstr("No such file"));
}

TEST(CloudConfig, LoadCloudConfig_PathsAreRelativeToTheFile) {
  _CloudConfig config;
  std::string strError;
  CTempHome home;
  home.WriteFile("etc/cloud.json", kMinimal);
  ASSERT_TRUE(LoadCloudConfig(home.Path("etc/cloud.json").Str(), config, strError)) << strError;
  EXPECT_EQ(config.strStateDir, home.Path("etc/state").Str());
}

}  // namespace
}  // namespace zxcloudd
