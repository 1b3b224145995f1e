// By which name the broker is asked for in the TLS handshake, and that its certificate must carry it.
#include "CloudFixture.h"
#include "cloud/BrokerLink.h"
#include "support/TlsServer.h"
#include "support/Waiter.h"

namespace zxcloudd {
namespace {

class CBrokerName : public CStoreTest {
 protected:
  CBrokerName() : m_ca(m_home.Root().Str(), "test"), m_server(Manners()) {}

  _TlsManners Manners() {
    _TlsManners manners;
    manners.cert = m_ca.Issue("server", {"localhost", "127.0.0.1"});
    return manners;
  }
  // The name that the server was asked for; "(none)": it never spoke with the link.
  std::string NameAskedFor(const std::string& strHost) {
    CCloudService service(*m_pStore, m_config);
    _BrokerConfig broker;
    broker.listAddresses = {{strHost, m_server.Port()}};
    broker.strCaFile = m_ca.File();
    CBrokerLink link(service, broker);
    std::string strError;
    EXPECT_TRUE(link.Start(strError)) << strError;
    const uint32_t uBefore = m_server.Messages();
    const bool bSpoke = EventuallyTrue([&] { return m_server.Messages() > uBefore; }, 30000);
    link.Stop();
    return bSpoke ? m_server.LastName() : "(none)";
  }

  CTestCa m_ca;
  CTestTlsServer m_server;
  _CloudConfig m_config;
};

TEST_F(CBrokerName, IsSent_WhenItIsAName) {
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(NameAskedFor("localhost"), "localhost");
}

TEST_F(CBrokerName, IsNotSent_WhenItIsAnAddress) {
  EXPECT_EQ(NameAskedFor("127.0.0.1"), "");
}

}  // namespace
}  // namespace zxcloudd
