// How a refused connection is called.
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <time.h>

#include <initializer_list>
#include <string_view>

#include "platform/cloud/TlsPolicy.h"

namespace zxcloud {

namespace {

std::string ClockText() {
  const time_t now = time(nullptr);
  tm utc{};
  char szText[64] = "?";
  if (gmtime_r(&now, &utc) != nullptr)
    strftime(szText, sizeof(szText), "%Y-%m-%d %H:%M:%S UTC", &utc);
  return std::string(" (this machine's clock says ") + szText + ")";
}

bool Has(const std::string& strText, std::string_view svPart) {
  return strText.find(svPart) != std::string::npos;
}

bool HasOneOf(const std::string& strText, std::initializer_list<std::string_view> listParts) {
  for (const std::string_view svPart : listParts) {
    if (Has(strText, svPart))
      return true;
  }
  return false;
}

std::string CertificateReason(const _TlsVerdict& verdict, const std::string& strHost) {
  const std::string strWhose = verdict.iDepth == 0 ? "certificate" : "certificate of its CA";
  switch (verdict.iX509) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return strWhose + " expired" + ClockText();
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return strWhose + " not yet valid" + ClockText();
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return "certificate is for another host than " + strHost;
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
      return "certificate is self-signed and not trusted";
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
      return "certificate is from an unknown CA";
    case X509_V_ERR_APPLICATION_VERIFICATION:
      return "no pin matches the server's public key";
    case X509_V_ERR_CERT_REVOKED:
      return strWhose + " is revoked";
    case X509_V_ERR_UNABLE_TO_GET_CRL:
      return "crl_file holds no list of the certificate's issuer";
    case X509_V_ERR_CRL_HAS_EXPIRED:
      return "the revocation list in crl_file has expired" + ClockText();
    case X509_V_ERR_CRL_NOT_YET_VALID:
      return "the revocation list in crl_file is not yet valid" + ClockText();
    default:
      return strWhose + " refused: " + X509_verify_cert_error_string(verdict.iX509);
  }
}

std::string AlertReason(const _TlsVerdict& verdict, const std::string& strHost) {
  const std::string strAlert = SSL_alert_desc_string_long(verdict.iAlert);
  switch (verdict.iAlert) {
    case SSL_AD_PROTOCOL_VERSION:
      return "the far side speaks no TLS 1.2 or newer";
    case SSL_AD_UNRECOGNIZED_NAME:
      return "the far side does not know the name " + strHost;
    case SSL_AD_INSUFFICIENT_SECURITY:
      return "no common cipher with the far side";
    case SSL_AD_HANDSHAKE_FAILURE:
      if (!verdict.bAskedForCert && !verdict.bDone)
        return "no common cipher with the far side";
      if (!verdict.bAskedForCert)
        return "the far side ends the TLS connection: " + strAlert;
      [[fallthrough]];  // up to TLS 1.2 it is also said of a missing certificate
    case SSL_AD_CERTIFICATE_REQUIRED:
    case SSL_AD_BAD_CERTIFICATE:
    case SSL_AD_UNSUPPORTED_CERTIFICATE:
    case SSL_AD_CERTIFICATE_REVOKED:
    case SSL_AD_CERTIFICATE_EXPIRED:
    case SSL_AD_CERTIFICATE_UNKNOWN:
    case SSL_AD_UNKNOWN_CA:
    case SSL_AD_ACCESS_DENIED:
    case SSL_AD_DECRYPT_ERROR:
      return verdict.bOwnCert
                 ? "the far side refuses this client's certificate: " + strAlert
                 : "the far side wants a client certificate and none is set (cert_file): " + strAlert;
    default:
      return "the far side ends the TLS connection: " + strAlert;
  }
}

}  // namespace

std::string TlsReason(const _TlsVerdict& verdict, const std::string& strHost, const std::string& strLibrary) {
  if (!verdict.strSetup.empty())
    return verdict.strSetup;
  if (verdict.iX509 != X509_V_OK)
    return CertificateReason(verdict, strHost);
  if (verdict.iAlert >= 0)
    return AlertReason(verdict, strHost);
  if (HasOneOf(strLibrary, {"alternative certificate subject name", "does not match target"}))
    return "certificate is for another host than " + strHost;
  if (HasOneOf(strLibrary, {"unsupported protocol", "protocol version"}))
    return "the far side speaks no TLS 1.2 or newer";
  if (HasOneOf(strLibrary, {"wrong version number", "packet length too long", "unexpected message",
                            "bad record type", "record layer failure", "http request"}))
    return "the far side does not speak TLS";
  const bool bCut = strLibrary.empty() || HasOneOf(strLibrary, {"SYSCALL", "eset by peer", "unexpected eof",
                                                                "closed", "Broken pipe"});
  if (bCut && !verdict.bDone)
    return "the far side closed the connection during the TLS handshake";
  return strLibrary.empty() ? "TLS failed" : strLibrary;
}

}  // namespace zxcloud
