#include "platform/cloud/TlsPolicy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>

#include "support/CloudCerts.h"
#include "support/TempHome.h"

using namespace zxcloud;
using ::testing::HasSubstr;

namespace {

std::string OfCertificate(int iX509, int iDepth = 0) {
  _TlsVerdict verdict;
  verdict.iX509 = iX509;
  verdict.iDepth = iDepth;
  return TlsReason(verdict, "h", "the library's text");
}

std::string OfAlert(int iAlert, bool bAsked, bool bOwn, bool bDone = false) {
  _TlsVerdict verdict;
  verdict.iAlert = iAlert;
  verdict.bAskedForCert = bAsked;
  verdict.bOwnCert = bOwn;
  verdict.bDone = bDone;
  return TlsReason(verdict, "h", "the library's text");
}

std::string OfText(const std::string& strText, bool bDone = false) {
  _TlsVerdict verdict;
  verdict.bDone = bDone;
  return TlsReason(verdict, "h", strText);
}

}  // namespace

TEST(TlsPolicy, Reason_NamesEachRefusedCertificate) {
  EXPECT_THAT(OfCertificate(X509_V_ERR_CERT_HAS_EXPIRED), HasSubstr("certificate expired (this machine's"));
  EXPECT_THAT(OfCertificate(X509_V_ERR_CERT_HAS_EXPIRED, 1), HasSubstr("certificate of its CA expired ("));
  EXPECT_THAT(OfCertificate(X509_V_ERR_CERT_NOT_YET_VALID), HasSubstr("certificate not yet valid (this"));
  EXPECT_EQ(OfCertificate(X509_V_ERR_HOSTNAME_MISMATCH), "certificate is for another host than h");
  EXPECT_EQ(OfCertificate(X509_V_ERR_IP_ADDRESS_MISMATCH), "certificate is for another host than h");
  EXPECT_EQ(OfCertificate(X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT),
            "certificate is self-signed and not trusted");
  EXPECT_EQ(OfCertificate(X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN), "certificate is from an unknown CA");
  EXPECT_EQ(OfCertificate(X509_V_ERR_APPLICATION_VERIFICATION), "no pin matches the server's public key");
  EXPECT_EQ(OfCertificate(X509_V_ERR_CERT_REVOKED), "certificate is revoked");
  EXPECT_THAT(OfCertificate(X509_V_ERR_CA_KEY_TOO_SMALL, 1), HasSubstr("certificate of its CA refused: "));
}

TEST(TlsPolicy, Reason_NamesEachAlert) {
  EXPECT_EQ(OfAlert(SSL_AD_PROTOCOL_VERSION, false, false), "the far side speaks no TLS 1.2 or newer");
  EXPECT_EQ(OfAlert(SSL_AD_HANDSHAKE_FAILURE, false, false), "no common cipher with the far side");
  EXPECT_THAT(OfAlert(SSL_AD_HANDSHAKE_FAILURE, false, false, true), HasSubstr("ends the TLS connection"));
  EXPECT_THAT(OfAlert(SSL_AD_HANDSHAKE_FAILURE, true, false), HasSubstr("wants a client certificate"));
  EXPECT_THAT(OfAlert(SSL_AD_CERTIFICATE_REQUIRED, true, false), HasSubstr("wants a client certificate"));
  EXPECT_THAT(OfAlert(SSL_AD_UNKNOWN_CA, true, true), HasSubstr("refuses this client's certificate"));
  EXPECT_EQ(OfAlert(SSL_AD_UNRECOGNIZED_NAME, false, false), "the far side does not know the name h");
  EXPECT_THAT(OfAlert(SSL_AD_INTERNAL_ERROR, false, false), HasSubstr("ends the TLS connection: internal"));
}

TEST(TlsPolicy, Reason_FallsBackToTheLibrary) {
  EXPECT_EQ(OfText("unsupported protocol"), "the far side speaks no TLS 1.2 or newer");
  EXPECT_EQ(OfText("wrong version number"), "the far side does not speak TLS");
  EXPECT_EQ(OfText(""), "the far side closed the connection during the TLS handshake");
  EXPECT_EQ(OfText("Connection reset by peer"),
            "the far side closed the connection during the TLS handshake");
  EXPECT_EQ(OfText("Connection reset by peer", true), "Connection reset by peer");
  EXPECT_EQ(OfText("anything else"), "anything else");
  EXPECT_EQ(OfText("", true), "TLS failed");
  _TlsVerdict verdict;
  verdict.strSetup = "ca_file x: gone";
  verdict.iX509 = X509_V_ERR_CERT_REVOKED;
  EXPECT_EQ(TlsReason(verdict, "h", ""), "ca_file x: gone");
  EXPECT_TRUE(verdict.Failed());
  verdict.Reset();
  EXPECT_FALSE(verdict.Failed());
}

TEST(TlsPolicy, CheckKeyFile_WantsAPrivateFile) {
  CTempHome home;
  std::string strError;
  EXPECT_FALSE(TlsCheckKeyFile(home.Path("none").Str(), strError));
  EXPECT_THAT(strError, HasSubstr("No such file"));
  home.WriteFile("key", "x", 0600);
  EXPECT_TRUE(TlsCheckKeyFile(home.Path("key").Str(), strError));
  home.WriteFile("open", "x", 0604);
  EXPECT_FALSE(TlsCheckKeyFile(home.Path("open").Str(), strError));
  EXPECT_FALSE(TlsCheckKeyFile(home.Root().Str(), strError));
  ASSERT_EQ(mkfifo(home.Path("fifo").c_str(), 0600), 0);
  EXPECT_FALSE(TlsCheckKeyFile(home.Path("fifo").Str(), strError)) << "and does not hang on it";
}

TEST(TlsPolicy, NewContext_NamesTheFileItCannotUse) {
  CTempHome home;
  CTestCa ca(home.Root().Str(), "test");
  const _CertFiles own = ca.Issue("own", {"own"});
  const _CertFiles other = ca.Issue("other", {"other"});
  _TlsVerdict verdict;
  std::string strError;
  _TlsSettings settings;
  settings.strCaFile = ca.File();
  settings.strCertFile = own.strCert;
  settings.strKeyFile = own.strKey;
  EXPECT_NE(TlsNewContext(settings, "host", verdict, strError), nullptr) << strError;
  EXPECT_EQ(verdict.strSni, "host");
  EXPECT_NE(TlsNewContext(settings, "127.0.0.1", verdict, strError), nullptr) << strError;
  EXPECT_EQ(verdict.strSni, "");  // literals are no server names
  settings.strKeyFile = other.strKey;
  EXPECT_EQ(TlsNewContext(settings, "host", verdict, strError), nullptr);
  EXPECT_THAT(strError, HasSubstr("key_file " + other.strKey));
  settings.strCertFile = home.Path("none").Str();
  EXPECT_EQ(TlsNewContext(settings, "host", verdict, strError), nullptr);
  EXPECT_THAT(strError, HasSubstr("cert_file "));
  settings.strCaFile = home.Path("none").Str();
  EXPECT_EQ(TlsNewContext(settings, "host", verdict, strError), nullptr);
  EXPECT_THAT(strError, HasSubstr("ca_file "));
  EXPECT_EQ(TlsNewContext({}, "", verdict, strError), nullptr) << "no name, no check, no connection";
}
