// Which far sides are refused, and how the refusal is called, on both connections.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "CloudFixture.h"

namespace {

struct _TrustCase {
  const char* pszName;
  std::vector<std::string> listNames;
  long lNotBefore;
  long lNotAfter;
  bool bOtherCa;
  const char* pszReason;
};

void PrintTo(const _TrustCase& c, std::ostream* pOut) {
  *pOut << c.pszName;
}

const _TrustCase kCases[] = {
    {"UnknownCa", {"127.0.0.1"}, -3600, 3600, true, "certificate is from an unknown CA"},
    {"WrongHost", {"other.example"}, -3600, 3600, false, "certificate is for another host than 127.0.0.1"},
    {"Expired", {"127.0.0.1"}, -7200, -3600, false, "certificate expired (this machine's clock says "},
    {"NotYetValid",
     {"127.0.0.1"},
     3600,
     7200,
     false,
     "certificate not yet valid (this machine's clock says "},
};

class CTrust : public CCloudFixture, public ::testing::WithParamInterface<_TrustCase> {
 protected:
  _CertFiles BadCert() {
    const _TrustCase& c = GetParam();
    CTestCa other(m_home.Root().Str(), "other");
    return (c.bOtherCa ? other : m_ca).Issue("bad", c.listNames, c.lNotBefore, c.lNotAfter);
  }
};

TEST_P(CTrust, Https_IsRefusedWithItsName) {
  const _CertFiles bad = BadCert();
  CTestHttps https(&bad);
  ServeTconf(https, "", "");
  WriteConfig(https.Address());
  ASSERT_EQ(Init(true), 0u);
  EXPECT_TRUE(m_events.WaitLog(https.Address() + ": " + GetParam().pszReason));
  EXPECT_EQ(zxcloud_tconf_check(https.Address().c_str()), kZxcloudErrTls);
  EXPECT_TRUE(https.Requests("/v1/tconf").empty());
  zxcloud_uninit();
}

TEST_P(CTrust, Broker_IsRefusedWithItsName) {
  CTestBroker broker(m_home.Path("broker/").Str(), BadCert());
  CTestHttps https(&m_cert);
  const std::string strLong = Local(broker.TlsPort());
  ServeTconf(https, "", strLong);
  WriteConfig(https.Address());
  ASSERT_EQ(Init(), 0u);
  EXPECT_TRUE(m_events.WaitLog(strLong + ": " + GetParam().pszReason));
  EXPECT_TRUE(m_events.Events("connect").empty());
  zxcloud_uninit();
}

INSTANTIATE_TEST_SUITE_P(Cases, CTrust, ::testing::ValuesIn(kCases),
                         [](const auto& one) { return std::string(one.param.pszName); });

using CTrustMore = CCloudFixture;

TEST_F(CTrustMore, OldProtocol_IsRefusedWithItsName) {
  CTestHttps https(&m_cert, true);
  WriteConfig(https.Address());
  ASSERT_EQ(Init(true), 0u);
  EXPECT_TRUE(m_events.WaitLog("the far side speaks no TLS 1.2 or newer"));
  zxcloud_uninit();
}

TEST_F(CTrustMore, Pins_MustMatchOnBothConnections) {
  CTestBroker broker(m_home.Path("broker/").Str(), m_cert);
  CTestHttps https(&m_cert);
  ServeTconf(https, "", Local(broker.TlsPort()));
  const std::string strWrong = "sha256//AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=";
  WriteConfig(https.Address(), ",\"pins\":[\"" + strWrong + "\"]");
  ASSERT_EQ(Init(), 0u);
  EXPECT_TRUE(m_events.WaitLog("no pin matches the server's public key"));
  ASSERT_EQ(zxcloud_uninit(), 0u);
  m_events.Clear();
  WriteConfig(https.Address(), ",\"pins\":[\"" + strWrong + "\",\"" + CertPin(m_cert.strCert) + "\"]");
  ASSERT_EQ(Init(), 0u);
  EXPECT_TRUE(m_events.Wait("connect"));
  zxcloud_uninit();
}

TEST_F(CTrustMore, Pins_RefuseABrokerWithAnotherKey) {
  const _CertFiles other = m_ca.Issue("other", {"127.0.0.1"});
  CTestBroker broker(m_home.Path("broker/").Str(), other);
  CTestHttps https(&m_cert);
  ServeTconf(https, "", Local(broker.TlsPort()));
  WriteConfig(https.Address(), ",\"pins\":[\"" + CertPin(m_cert.strCert) + "\"]");
  ASSERT_EQ(Init(), 0u);
  EXPECT_TRUE(m_events.WaitLog(Local(broker.TlsPort()) + ": no pin matches"));
  zxcloud_uninit();
}

TEST_F(CTrustMore, ReadableKey_IsRefused_AndRecoversWhenItIsMended) {
  const _CertFiles own = m_ca.Issue("client", {"client"});
  ASSERT_EQ(chmod(own.strKey.c_str(), 0640), 0);
  CTestHttps https(&m_cert);
  ServeTconf(https, "", "");
  WriteConfig(https.Address(), ",\"cert_file\":\"client.pem\",\"key_file\":\"client.key\"");
  ASSERT_EQ(Init(true), 0u);
  EXPECT_TRUE(m_events.WaitLog("must be a file that only its owner may read"));
  ASSERT_EQ(chmod(own.strKey.c_str(), 0600), 0);
  EXPECT_TRUE(m_events.Wait("tconf"));
  zxcloud_uninit();
}

TEST_F(CTrustMore, PlainServer_IsNamed_WhenTlsIsExpected) {
  CTestHttps plain(nullptr);
  WriteConfig(plain.Address());
  ASSERT_EQ(Init(true), 0u);
  EXPECT_TRUE(m_events.WaitLog("the far side does not speak TLS"));
  zxcloud_uninit();
}

}  // namespace
