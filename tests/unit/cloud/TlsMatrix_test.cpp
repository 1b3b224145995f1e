// Every bad far side and every bad file, on both connections: refused, called by its own name, nothing said
// to the far side, and accepted by the same client as soon as it is mended.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/stat.h>

#include <chrono>
#include <memory>

#include "platform/cloud/HttpClient.h"
#include "platform/cloud/MosquittoTransport.h"
#include "support/CloudCerts.h"
#include "support/CloudServers.h"
#include "support/TempHome.h"
#include "support/TlsServer.h"
#include "support/Waiter.h"

using namespace zxcloud;
using ::testing::HasSubstr;

namespace {

using EMode = _TlsManners::EMode;

// A server and a client that get on with each other, for a case to spoil.
struct CWorld {
  CTempHome home;
  const std::string strRoot = home.Root().Str();
  CTestCa ca{strRoot, "good"};
  CTestCa stranger{strRoot, "stranger"};
  const std::string strCaFile = home.Path("trust.pem").Str();
  std::string strHost = "localhost";
  _TlsSettings tls;
  _TlsManners good;
  _TlsManners bad;
  std::function<void()> fnMend = [] {};  // besides good manners

  CWorld() {
    home.WriteFile("trust.pem", home.ReadFile("good.ca.pem").Str());
    tls.strCaFile = strCaFile;
    good.cert = ca.Issue("server", {"localhost", "127.0.0.1"});
    bad = good;
  }
  void OwnCert(CTestCa& issuer, long lNotBefore = -3600, long lNotAfter = 86400) {
    const _CertFiles own = issuer.Issue("client", {"client"}, lNotBefore, lNotAfter);
    tls.strCertFile = own.strCert;
    tls.strKeyFile = own.strKey;
  }
  void WantClientCert(int iMaxVersion = 0) {
    bad.strClientCa = ca.File();
    bad.iMaxVersion = iMaxVersion;
  }
  // A file of the client's that is spoilt; mended, it has its good content again.
  void Spoil(const std::string& strName, const std::string& strText) {
    const std::string strGood = home.ReadFile(strName.c_str()).Str();
    home.WriteFile(strName.c_str(), strText, 0600);
    fnMend = [this, strName, strGood] { home.WriteFile(strName.c_str(), strGood, 0600); };
  }
  void Remove(const std::string& strName) {
    const std::string strGood = home.ReadFile(strName.c_str()).Str();
    ASSERT_EQ(unlink(home.Path(strName.c_str()).c_str()), 0);
    fnMend = [this, strName, strGood] { home.WriteFile(strName.c_str(), strGood, 0600); };
  }
};

struct _Outcome {
  bool bOk = false;
  bool bTls = false;  // the failure is one of trust
  std::string strReason;
};

// One client over its attempts, as the link keeps it.
class IClient {
 public:
  virtual ~IClient() = default;
  virtual _Outcome Try(uint16_t wPort) = 0;
};

class CHttpsSide : public IClient {
 public:
  explicit CHttpsSide(const CWorld& world) : m_strHost(world.strHost), m_http({world.tls, false, ""}) {}
  _Outcome Try(uint16_t wPort) override {
    _HttpRequest request;
    request.address = {m_strHost, wPort, false};
    request.strTarget = "/v1/health";
    const _HttpAnswer answer = m_http.Do(request);
    return {answer.Ok(), answer.eError == ENetError::Tls, answer.Ok() ? "" : answer.Why()};
  }

 private:
  const std::string m_strHost;
  CHttpClient m_http;
};

class CMqttSide : public IClient, private IMqttEvents {
 public:
  explicit CMqttSide(const CWorld& world)
      : m_strHost(world.strHost), m_tls(world.tls), m_transport(m_tls, *this) {}
  _Outcome Try(uint16_t wPort) override {
    _MqttOpen open;
    open.strIp = "127.0.0.1";
    open.strHost = m_strHost;
    open.wPort = wPort;
    open.strClientId = "m-1";
    open.strSubscribe = "zx/v1/m-1/push/+";
    open.strStatusTopic = "zx/v1/m-1/status";
    m_bEnded = false;
    m_outcome = {};
    EMqttFailure eFailure = EMqttFailure::Network;
    std::string strReason;
    if (!m_transport.Open(open, eFailure, strReason))
      return {false, eFailure == EMqttFailure::Tls, strReason};
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kTestDeadlineMs);
    while (!m_bEnded && std::chrono::steady_clock::now() < end) {
      const int iEvents = POLLIN | (m_transport.WantWrite() ? POLLOUT : 0);
      pollfd one{m_transport.Descriptor(), static_cast<short>(iEvents), 0};
      poll(&one, 1, 100);
      m_transport.OnIo((one.revents & POLLIN) != 0, (one.revents & POLLOUT) != 0,
                       (one.revents & (POLLERR | POLLHUP)) != 0);
    }
    m_transport.Close(false);
    return m_bEnded ? m_outcome : _Outcome{false, false, "nothing happened"};
  }

 private:
  void OnTcpUp() override {}
  void OnConnack() override {}
  void OnSubscribed() override { End({true, false, ""}); }
  void OnClosed(EMqttFailure eFailure, const std::string& strReason) override {
    End({false, eFailure == EMqttFailure::Tls, strReason});
  }
  void OnAck(uint64_t) override {}
  void OnPush(std::string_view, std::string_view) override {}
  void OnAlive() override {}
  void End(_Outcome outcome) {
    m_outcome = std::move(outcome);
    m_bEnded = true;
  }

  const std::string m_strHost;
  const _TlsSettings m_tls;
  CMosquittoTransport m_transport;
  bool m_bEnded = false;
  _Outcome m_outcome;
};

enum class ESide : uint8_t { Https, Mqtt };

std::unique_ptr<IClient> NewClient(ESide eSide, const CWorld& world) {
  if (eSide == ESide::Https)
    return std::make_unique<CHttpsSide>(world);
  return std::make_unique<CMqttSide>(world);
}

struct _Case {
  const char* pszName;
  void (*pfnSpoil)(CWorld&);
  const char* pszReason;
};

void PrintTo(const _Case& c, std::ostream* pOut) {
  *pOut << c.pszName;
}

constexpr char kClock[] = " (this machine's clock says ";
const std::string kExpired = std::string("certificate expired") + kClock;
const std::string kEarly = std::string("certificate not yet valid") + kClock;
const std::string kOldCa = std::string("certificate of its CA expired") + kClock;
const std::string kOldList = std::string("the revocation list in crl_file has expired") + kClock;
constexpr char kWrongHost[] = "certificate is for another host than localhost";
constexpr char kWildHost[] = "certificate is for another host than a.cloud.localhost";
constexpr char kNoTls[] = "the far side does not speak TLS";
constexpr char kWantsCert[] = "the far side wants a client certificate and none is set (cert_file): ";
constexpr char kRefused[] = "the far side refuses this client's certificate: ";

void ForWildcard(CWorld& world, const std::string& strName) {
  world.strHost = "a.cloud.localhost";
  world.bad.cert = world.ca.Issue("bad", {strName});
  world.good.cert = world.ca.Issue("wild", {"*.cloud.localhost"});
}

const _Case kCases[] = {
    // The server's certificate.
    {"Expired", [](CWorld& w) { w.bad.cert = w.ca.Issue("bad", {"localhost"}, -7200, -3600); },
     kExpired.c_str()},
    {"NotYetValid", [](CWorld& w) { w.bad.cert = w.ca.Issue("bad", {"localhost"}, 3600, 7200); },
     kEarly.c_str()},
    {"WrongHost",
     [](CWorld& w) {
       w.bad.cert = w.ca.Issue("bad", {"other.example", "127.0.0.1"});
     },
     kWrongHost},
    {"WrongAddress",
     [](CWorld& w) {
       w.strHost = "127.0.0.1";
       w.bad.cert = w.ca.Issue("bad", {"localhost", "127.0.0.2"});
     },
     "certificate is for another host than 127.0.0.1"},
    {"AddressAsName",
     [](CWorld& w) {
       w.strHost = "127.0.0.1";
       w.bad.cert = w.ca.Issue("127.0.0.1", {});
     },
     "certificate is for another host than 127.0.0.1"},
    {"NameInSubjectOnly", [](CWorld& w) { w.bad.cert = w.ca.Issue("localhost", {}); }, kWrongHost},
    {"PartialWildcard", [](CWorld& w) { ForWildcard(w, "a*.cloud.localhost"); }, kWildHost},
    {"WildcardOfAnotherLevel", [](CWorld& w) { ForWildcard(w, "*.b.cloud.localhost"); }, kWildHost},
    {"UnknownCa", [](CWorld& w) { w.bad.cert = w.stranger.Issue("bad", {"localhost"}); },
     "certificate is from an unknown CA"},
    {"SelfSigned", [](CWorld& w) { w.bad.cert = SelfSigned(w.strRoot, "bad", "localhost"); },
     "certificate is self-signed and not trusted"},
    {"CaExpired",
     [](CWorld& w) {
       CTestCa old(w.strRoot, "old", -86400, -3600);
       w.bad.cert = old.Issue("bad", {"localhost"});
       w.home.WriteFile("trust.pem",
                        w.home.ReadFile("good.ca.pem").Str() + w.home.ReadFile("old.ca.pem").Str());
     },
     kOldCa.c_str()},
    {"ServerCertificateAsClientCa",
     [](CWorld& w) {
       // A certificate that is no CA's must not vouch for another, whatever stands in ca_file.
       w.bad.cert = SelfSigned(w.strRoot, "bad", "other.example");
       w.home.WriteFile("trust.pem", w.home.ReadFile("good.ca.pem").Str() + w.home.ReadFile("bad.pem").Str());
     },
     kWrongHost},
    {"PinMismatch",
     [](CWorld& w) {
       w.tls.listPins = {CertPin(w.good.cert.strCert)};
       w.bad.cert = w.ca.Issue("bad", {"localhost"});
     },
     "no pin matches the server's public key"},
    {"Revoked",
     [](CWorld& w) {
       w.tls.strCrlFile = w.home.Path("crl.pem").Str();
       w.ca.WriteCrl(w.tls.strCrlFile, {w.good.cert});
       w.fnMend = [&w] { w.ca.WriteCrl(w.tls.strCrlFile, {}); };
     },
     "certificate is revoked"},
    {"RevocationListOld",
     [](CWorld& w) {
       w.tls.strCrlFile = w.home.Path("crl.pem").Str();
       w.ca.WriteCrl(w.tls.strCrlFile, {}, -3600);
       w.fnMend = [&w] { w.ca.WriteCrl(w.tls.strCrlFile, {}); };
     },
     kOldList.c_str()},
    {"RevocationListOfAnother",
     [](CWorld& w) {
       w.tls.strCrlFile = w.home.Path("crl.pem").Str();
       w.stranger.WriteCrl(w.tls.strCrlFile, {});
       w.fnMend = [&w] { w.ca.WriteCrl(w.tls.strCrlFile, {}); };
     },
     "crl_file holds no list of the certificate's issuer"},
    // The protocol.
    {"OldProtocol", [](CWorld& w) { w.bad.iMaxVersion = TLS1_1_VERSION; },
     "the far side speaks no TLS 1.2 or newer"},
    {"NoCommonCipher",
     [](CWorld& w) {
       w.bad.iMaxVersion = TLS1_2_VERSION;
       w.bad.strCiphers = "ECDHE-ECDSA-NULL-SHA";
     },
     "no common cipher with the far side"},
    {"PlainServer", [](CWorld& w) { w.bad.eMode = EMode::Plain; }, kNoTls},
    {"Garbage", [](CWorld& w) { w.bad.eMode = EMode::Garbage; }, kNoTls},
    {"ClosesAtOnce", [](CWorld& w) { w.bad.eMode = EMode::Close; },
     "the far side closed the connection during the TLS handshake"},
    // What the client trusts.
    {"CaFileMissing", [](CWorld& w) { w.Remove("trust.pem"); }, "trust.pem: No such file or directory"},
    {"CaFileEmpty", [](CWorld& w) { w.Spoil("trust.pem", ""); }, "trust.pem: holds no usable certificate"},
    {"CaFileGarbage", [](CWorld& w) { w.Spoil("trust.pem", "no certificate\n"); },
     "trust.pem: holds no usable certificate"},
    {"CaFileOfAnother", [](CWorld& w) { w.Spoil("trust.pem", w.home.ReadFile("stranger.ca.pem").Str()); },
     "certificate is from an unknown CA"},
    {"CaPathMissing",
     [](CWorld& w) {
       w.tls.strCaPath = w.home.Path("ca.d").Str();
       w.fnMend = [&w] { ASSERT_EQ(mkdir(w.tls.strCaPath.c_str(), 0755), 0); };
     },
     "ca.d: No such file or directory"},
    {"RevocationListGarbage",
     [](CWorld& w) {
       w.tls.strCrlFile = w.home.Path("crl.pem").Str();
       w.home.WriteFile("crl.pem", "no list\n");
       w.fnMend = [&w] { w.ca.WriteCrl(w.tls.strCrlFile, {}); };
     },
     "crl.pem: holds no revocation list"},
    // The client's own certificate.
    {"CertMissing",
     [](CWorld& w) {
       w.OwnCert(w.ca);
       w.Remove("client.pem");
     },
     "client.pem: No such file or directory"},
    {"CertGarbage",
     [](CWorld& w) {
       w.OwnCert(w.ca);
       w.Spoil("client.pem", "no certificate\n");
     },
     "client.pem: holds no usable certificate"},
    {"KeyMissing",
     [](CWorld& w) {
       w.OwnCert(w.ca);
       w.Remove("client.key");
     },
     "client.key: No such file or directory"},
    {"KeyGarbage",
     [](CWorld& w) {
       w.OwnCert(w.ca);
       w.Spoil("client.key", "no key\n");
     },
     "client.key: holds no private key without a passphrase"},
    {"KeyOfAnother",
     [](CWorld& w) {
       w.OwnCert(w.ca);
       w.Spoil("client.key", w.home.ReadFile("server.key").Str());
     },
     "client.key: does not belong to the certificate in cert_file"},
    {"KeyReadableByOthers",
     [](CWorld& w) {
       w.OwnCert(w.ca);
       ASSERT_EQ(chmod(w.tls.strKeyFile.c_str(), 0644), 0);
       w.fnMend = [&w] { ASSERT_EQ(chmod(w.tls.strKeyFile.c_str(), 0600), 0); };
     },
     "client.key: must be a file that only its owner may read"},
    {"NoClientCertificate", [](CWorld& w) { w.WantClientCert(); }, kWantsCert},
    {"NoClientCertificateTls12", [](CWorld& w) { w.WantClientCert(TLS1_2_VERSION); }, kWantsCert},
    {"ClientCertificateOfAnother",
     [](CWorld& w) {
       w.OwnCert(w.stranger);
       w.WantClientCert();
     },
     kRefused},
    {"ClientCertificateOfAnotherTls12",
     [](CWorld& w) {
       w.OwnCert(w.stranger);
       w.WantClientCert(TLS1_2_VERSION);
     },
     kRefused},
    {"ClientCertificateExpired",
     [](CWorld& w) {
       w.OwnCert(w.ca, -7200, -3600);
       w.WantClientCert();
       // Renewed on disk; the server goes on wanting one.
       w.good.strClientCa = w.ca.File();
       w.fnMend = [&w] { w.OwnCert(w.ca); };
     },
     "refuses this client's certificate: certificate expired"},
};

class CTlsMatrix : public ::testing::TestWithParam<std::tuple<ESide, _Case>> {};

TEST_P(CTlsMatrix, IsRefusedByName_AndAcceptedWhenMended) {
  const auto& [eSide, one] = GetParam();
  CWorld world;
  one.pfnSpoil(world);
  CTestTlsServer server(world.bad);
  const auto pClient = NewClient(eSide, world);
  for (int i = 0; i < 2; ++i) {
    const _Outcome outcome = pClient->Try(server.Port());
    EXPECT_FALSE(outcome.bOk);
    EXPECT_TRUE(outcome.bTls) << outcome.strReason;
    EXPECT_THAT(outcome.strReason, HasSubstr(one.pszReason));
    EXPECT_NE(outcome.strReason, "");
    EXPECT_EQ(server.Messages(), 0u) << "told the far side something";
  }
  world.fnMend();
  server.SetManners(world.good);
  const _Outcome mended = pClient->Try(server.Port());
  EXPECT_TRUE(mended.bOk) << mended.strReason;
  EXPECT_GT(server.Messages(), 0u);
}

std::string CaseName(const ::testing::TestParamInfo<std::tuple<ESide, _Case>>& info) {
  const std::string strSide = std::get<0>(info.param) == ESide::Https ? "Https_" : "Mqtt_";
  return strSide + std::get<1>(info.param).pszName;
}

INSTANTIATE_TEST_SUITE_P(Cases, CTlsMatrix,
                         ::testing::Combine(::testing::Values(ESide::Https, ESide::Mqtt),
                                            ::testing::ValuesIn(kCases)),
                         CaseName);

class CTlsSide : public ::testing::TestWithParam<ESide> {};

TEST_P(CTlsSide, GoodOnes_AreAccepted) {
  struct _Good {
    std::string strHost;
    std::vector<std::string> listNames;
    int iMaxVersion;
    bool bClientCert;
    bool bPin;
  };
  const _Good kGood[] = {
      {"127.0.0.1", {"127.0.0.1"}, 0, false, false},
      {"localhost", {"other.example", "localhost"}, TLS1_2_VERSION, false, false},
      {"a.cloud.localhost", {"*.cloud.localhost"}, 0, false, false},
      {"localhost", {"localhost"}, 0, true, true},
      {"localhost", {"localhost"}, TLS1_2_VERSION, true, true},
  };
  for (const _Good& one : kGood) {
    CWorld world;
    world.strHost = one.strHost;
    world.good.cert = world.ca.Issue("this", one.listNames);
    world.good.iMaxVersion = one.iMaxVersion;
    if (one.bClientCert) {
      world.OwnCert(world.ca);
      world.good.strClientCa = world.ca.File();
    }
    if (one.bPin)
      world.tls.listPins = {CertPin(world.strRoot + "stranger.ca.pem"), CertPin(world.good.cert.strCert)};
    CTestTlsServer server(world.good);
    const _Outcome outcome = NewClient(GetParam(), world)->Try(server.Port());
    EXPECT_TRUE(outcome.bOk) << one.strHost << ": " << outcome.strReason;
  }
}

TEST_P(CTlsSide, Renegotiation_IsRefused) {
  CWorld world;
  world.bad.eMode = EMode::Renegotiate;
  world.bad.iMaxVersion = TLS1_2_VERSION;
  CTestTlsServer server(world.bad);
  const auto pClient = NewClient(GetParam(), world);
  pClient->Try(server.Port());
  EXPECT_EQ(server.Hellos(), 1u);
  server.SetManners(world.good);
  EXPECT_TRUE(pClient->Try(server.Port()).bOk);
}

// What was trusted once is not trusted for that reason later.
TEST_P(CTlsSide, TrustWithdrawn_CountsAtTheNextConnection) {
  CWorld world;
  CTestTlsServer server(world.good);
  const auto pClient = NewClient(GetParam(), world);
  ASSERT_TRUE(pClient->Try(server.Port()).bOk);
  world.Spoil("trust.pem", world.home.ReadFile("stranger.ca.pem").Str());
  server.DropAll();
  ASSERT_TRUE(EventuallyTrue([&] { return !pClient->Try(server.Port()).bOk; }));
  EXPECT_THAT(pClient->Try(server.Port()).strReason, HasSubstr("certificate is from an unknown CA"));
}

INSTANTIATE_TEST_SUITE_P(Sides, CTlsSide, ::testing::Values(ESide::Https, ESide::Mqtt),
                         [](const auto& one) { return one.param == ESide::Https ? "Https" : "Mqtt"; });

struct CNobody : IMqttEvents {
  void OnTcpUp() override {}
  void OnConnack() override {}
  void OnSubscribed() override {}
  void OnClosed(EMqttFailure, const std::string&) override { bClosed = true; }
  void OnAck(uint64_t) override {}
  void OnPush(std::string_view, std::string_view) override {}
  void OnAlive() override {}
  bool bClosed = false;
};

// A dead socket that stays open keeps the thread that waits for it awake.
TEST(TlsPlain, Mqtt_LeavesNoSocketOpen_WhenTheFarSideRefuses) {
  CNobody nobody;
  const _TlsSettings tls;
  CMosquittoTransport transport(tls, nobody);
  _MqttOpen open;
  open.strIp = open.strHost = "127.0.0.1";
  open.wPort = FreePort();
  open.strClientId = "m-1";
  open.strStatusTopic = "zx/v1/m-1/status";
  EMqttFailure eFailure = EMqttFailure::Network;
  std::string strReason;
  ASSERT_TRUE(transport.Open(open, eFailure, strReason)) << strReason;
  const int fd = transport.Descriptor();
  while (!nobody.bClosed) {
    pollfd one{fd, POLLOUT, 0};
    ASSERT_GT(poll(&one, 1, static_cast<int>(kTestDeadlineMs)), 0);
    transport.OnIo((one.revents & POLLIN) != 0, (one.revents & POLLOUT) != 0,
                   (one.revents & (POLLERR | POLLHUP)) != 0);
  }
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST(TlsPlain, Mqtt_GoesToLoopbackOnly) {
  CNobody nobody;
  const _TlsSettings tls;
  CMosquittoTransport transport(tls, nobody);
  _MqttOpen open;
  open.strIp = open.strHost = "192.0.2.1";
  open.wPort = 1883;
  open.bPlain = true;
  open.strClientId = "m-1";
  open.strStatusTopic = "zx/v1/m-1/status";
  EMqttFailure eFailure = EMqttFailure::Network;
  std::string strReason;
  EXPECT_FALSE(transport.Open(open, eFailure, strReason));
  EXPECT_EQ(eFailure, EMqttFailure::Tls);
  EXPECT_EQ(strReason, "plain text is not permitted to this address");
  EXPECT_EQ(transport.Descriptor(), -1);
}

}  // namespace
