#include "platform/cloud/TlsPolicy.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/cloud/CloudAddress.h"
#include "platform/doc/Base64.h"

namespace zxcloud {

namespace {

int VerdictIndex() {
  static const int iIndex = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return iIndex;
}

_TlsVerdict* VerdictOf(const SSL* pSsl) {
  return pSsl == nullptr
             ? nullptr
             : static_cast<_TlsVerdict*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(pSsl), VerdictIndex()));
}

bool PinMatches(const std::vector<std::string>& listPins, X509* pCert) {
  return std::find(listPins.begin(), listPins.end(), TlsPin(pCert)) != listPins.end();
}

int OnVerify(int iOk, X509_STORE_CTX* pStore) {
  const auto* pSsl =
      static_cast<SSL*>(X509_STORE_CTX_get_ex_data(pStore, SSL_get_ex_data_X509_STORE_CTX_idx()));
  _TlsVerdict* pVerdict = VerdictOf(pSsl);
  if (pVerdict == nullptr)
    return 0;
  if (iOk == 1 && X509_STORE_CTX_get_error_depth(pStore) == 0 && pVerdict->pPins != nullptr &&
      !pVerdict->pPins->empty() && !PinMatches(*pVerdict->pPins, X509_STORE_CTX_get_current_cert(pStore))) {
    X509_STORE_CTX_set_error(pStore, X509_V_ERR_APPLICATION_VERIFICATION);
    iOk = 0;
  }
  if (iOk != 1)
    pVerdict->iX509 = X509_STORE_CTX_get_error(pStore);
  return iOk;
}

// The library below may have been given an address; the server is asked for by its name.
void OnInfo(const SSL* pSsl, int iWhere, int) {
  if ((iWhere & SSL_CB_HANDSHAKE_START) == 0)
    return;
  const _TlsVerdict* pVerdict = VerdictOf(pSsl);
  if (pVerdict == nullptr)
    return;
  const char* pszName = pVerdict->strSni.empty() ? nullptr : pVerdict->strSni.c_str();
  SSL_ctrl(const_cast<SSL*>(pSsl), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
           const_cast<char*>(pszName));
}

std::string OpenSslText() {
  char szText[256] = "unknown";
  if (const unsigned long ulError = ERR_peek_last_error(); ulError != 0)
    ERR_error_string_n(ulError, szText, sizeof(szText));
  ERR_clear_error();
  return szText;
}

bool LoadTrust(SSL_CTX* pCtx, const _TlsSettings& settings, std::string& strError) {
  if (settings.strCaFile.empty() && settings.strCaPath.empty()) {
    if (SSL_CTX_set_default_verify_paths(pCtx) == 1)
      return true;
    strError = "system certificate store: " + OpenSslText();
    return false;
  }
  if (!settings.strCaFile.empty() && SSL_CTX_load_verify_file(pCtx, settings.strCaFile.c_str()) != 1) {
    strError = "ca_file " + settings.strCaFile + ": " + OpenSslText();
    return false;
  }
  if (!settings.strCaPath.empty() && SSL_CTX_load_verify_dir(pCtx, settings.strCaPath.c_str()) != 1) {
    strError = "ca_path " + settings.strCaPath + ": " + OpenSslText();
    return false;
  }
  return true;
}

bool LoadOwnCertificate(SSL_CTX* pCtx, const _TlsSettings& settings, std::string& strError) {
  if (settings.strCertFile.empty())
    return true;
  if (SSL_CTX_use_certificate_chain_file(pCtx, settings.strCertFile.c_str()) != 1) {
    strError = "cert_file " + settings.strCertFile + ": " + OpenSslText();
    return false;
  }
  if (!TlsCheckKeyFile(settings.strKeyFile, strError))
    return false;
  if (SSL_CTX_use_PrivateKey_file(pCtx, settings.strKeyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(pCtx) != 1) {
    strError = "key_file " + settings.strKeyFile + ": " + OpenSslText();
    return false;
  }
  return true;
}

// A passphrase cannot be asked for in a service.
int NoPassphrase(char*, int, int, void*) {
  return 0;
}

std::string ClockText() {
  const time_t now = time(nullptr);
  tm utc{};
  char szText[64] = "?";
  if (gmtime_r(&now, &utc) != nullptr)
    strftime(szText, sizeof(szText), "%Y-%m-%d %H:%M:%S UTC", &utc);
  return szText;
}

bool Has(const std::string& strText, std::string_view svPart) {
  return strText.find(svPart) != std::string::npos;
}

}  // namespace

std::string TlsPin(X509* pCert) {
  unsigned char* pDer = nullptr;
  const int iLength = pCert == nullptr ? 0 : i2d_X509_PUBKEY(X509_get_X509_PUBKEY(pCert), &pDer);
  if (iLength <= 0)
    return {};
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned uDigest = 0;
  const int iOk = EVP_Digest(pDer, static_cast<size_t>(iLength), digest, &uDigest, EVP_sha256(), nullptr);
  OPENSSL_free(pDer);
  return iOk == 1 ? "sha256//" + Base64Encode(digest, uDigest).Str() : std::string();
}

bool TlsCheckKeyFile(const std::string& strFile, std::string& strError) {
  struct stat info {};
  if (stat(strFile.c_str(), &info) != 0) {
    strError = "key_file " + strFile + ": " + strerrordesc_np(errno);
    return false;
  }
  if (!S_ISREG(info.st_mode) || (info.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    strError = "key_file " + strFile + ": must be a file that only its owner may read";
    return false;
  }
  return true;
}

bool TlsWatchContext(SSL_CTX* pCtx, _TlsVerdict& verdict) {
  if (SSL_CTX_set_ex_data(pCtx, VerdictIndex(), &verdict) != 1)
    return false;
  SSL_CTX_set_verify(pCtx, SSL_VERIFY_PEER, OnVerify);
  return true;
}

TSslCtx TlsNewContext(const _TlsSettings& settings, const std::string& strHost, _TlsVerdict& verdict,
                      std::string& strError) {
  TSslCtx pCtx(SSL_CTX_new(TLS_client_method()));
  if (pCtx == nullptr || SSL_CTX_set_min_proto_version(pCtx.get(), TLS1_2_VERSION) != 1) {
    strError = OpenSslText();
    return nullptr;
  }
  SSL_CTX_set_options(pCtx.get(), SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_mode(pCtx.get(), SSL_MODE_RELEASE_BUFFERS);
  SSL_CTX_set_default_passwd_cb(pCtx.get(), NoPassphrase);
  if (!LoadTrust(pCtx.get(), settings, strError) || !LoadOwnCertificate(pCtx.get(), settings, strError))
    return nullptr;
  const bool bLiteral = IsIpLiteral(strHost);
  X509_VERIFY_PARAM* pParam = SSL_CTX_get0_param(pCtx.get());
  X509_VERIFY_PARAM_set_hostflags(pParam, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  const int iNamed = bLiteral ? X509_VERIFY_PARAM_set1_ip_asc(pParam, strHost.c_str())
                              : X509_VERIFY_PARAM_set1_host(pParam, strHost.c_str(), strHost.size());
  verdict.pPins = &settings.listPins;
  verdict.strSni = bLiteral ? std::string() : strHost;
  verdict.Reset();
  if (iNamed != 1 || !TlsWatchContext(pCtx.get(), verdict)) {
    strError = OpenSslText();
    return nullptr;
  }
  SSL_CTX_set_info_callback(pCtx.get(), OnInfo);
  return pCtx;
}

std::string TlsReason(int iX509, const std::string& strHost, const std::string& strLibrary) {
  switch (iX509) {
    case X509_V_OK:
      break;
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return "certificate expired (this machine's clock says " + ClockText() + ")";
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return "certificate not yet valid (this machine's clock says " + ClockText() + ")";
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return "certificate is for another host than " + strHost;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
      return "certificate is from an unknown CA";
    case X509_V_ERR_APPLICATION_VERIFICATION:
      return "no pin matches the server's public key";
    default:
      return std::string("certificate refused: ") + X509_verify_cert_error_string(iX509);
  }
  if (Has(strLibrary, "alternative certificate subject name") || Has(strLibrary, "does not match target"))
    return "certificate is for another host than " + strHost;
  if (Has(strLibrary, "protocol version") || Has(strLibrary, "unsupported protocol"))
    return "the far side speaks no TLS 1.2 or newer";
  if (Has(strLibrary, "certificate required") || Has(strLibrary, "bad certificate"))
    return "the far side refuses this client's certificate: " + strLibrary;
  if (Has(strLibrary, "wrong version number"))
    return "the far side does not speak TLS";
  return strLibrary.empty() ? "TLS failed" : strLibrary;
}

}  // namespace zxcloud
