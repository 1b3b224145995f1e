#include "platform/cloud/TlsPolicy.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/cloud/CloudAddress.h"
#include "platform/doc/Base64.h"

namespace zxcloud {

namespace {

constexpr int kAlertLevelShift = 8;

struct CFileClose {
  void operator()(FILE* pFile) const { std::fclose(pFile); }
};
struct CKeyFree {
  void operator()(EVP_PKEY* pKey) const { EVP_PKEY_free(pKey); }
};
using TFile = std::unique_ptr<FILE, CFileClose>;
using TKey = std::unique_ptr<EVP_PKEY, CKeyFree>;

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
  if (iOk != 1) {
    pVerdict->iX509 = X509_STORE_CTX_get_error(pStore);
    pVerdict->iDepth = X509_STORE_CTX_get_error_depth(pStore);
  }
  return iOk;
}

// The library below may have been given an address; the server is asked for by its name.
void SendName(const SSL* pSsl, const _TlsVerdict& verdict) {
  const char* pszName = verdict.strSni.empty() ? nullptr : verdict.strSni.c_str();
  SSL_ctrl(const_cast<SSL*>(pSsl), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
           const_cast<char*>(pszName));
}

void OnInfo(const SSL* pSsl, int iWhere, int iValue) {
  _TlsVerdict* pVerdict = VerdictOf(pSsl);
  if (pVerdict == nullptr)
    return;
  if ((iWhere & SSL_CB_HANDSHAKE_START) != 0 && !pVerdict->bDone)
    SendName(pSsl, *pVerdict);
  if ((iWhere & SSL_CB_HANDSHAKE_DONE) != 0)
    pVerdict->bDone = true;
  if ((iWhere & SSL_CB_LOOP) != 0 && SSL_get_state(pSsl) == TLS_ST_CR_CERT_REQ)
    pVerdict->bAskedForCert = true;
  if ((iWhere & SSL_CB_READ_ALERT) == SSL_CB_READ_ALERT && iValue >> kAlertLevelShift == SSL3_AL_FATAL)
    pVerdict->iAlert = iValue & ((1 << kAlertLevelShift) - 1);
}

std::string OpenSslText() {
  char szText[256] = "unknown";
  if (const unsigned long ulError = ERR_peek_last_error(); ulError != 0)
    ERR_error_string_n(ulError, szText, sizeof(szText));
  ERR_clear_error();
  return szText;
}

// "<member> <file>: <reason>"; the reason is the system's when the file cannot be opened.
std::string FileText(const char* pszMember, const std::string& strFile, const char* pszOtherwise) {
  ERR_clear_error();
  const int fd = open(strFile.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  const char* pszReason = fd >= 0 ? pszOtherwise : strerrordesc_np(errno);
  if (fd >= 0)
    close(fd);
  return std::string(pszMember) + " " + strFile + ": " + pszReason;
}

bool LoadCrls(X509_STORE* pStore, const std::string& strFile, std::string& strError) {
  X509_LOOKUP* pLookup = X509_STORE_add_lookup(pStore, X509_LOOKUP_file());
  if (pLookup == nullptr || X509_load_crl_file(pLookup, strFile.c_str(), X509_FILETYPE_PEM) < 1) {
    strError = FileText("crl_file", strFile, "holds no revocation list");
    return false;
  }
  return X509_STORE_set_flags(pStore, X509_V_FLAG_CRL_CHECK) == 1;
}

bool LoadTrust(SSL_CTX* pCtx, const _TlsSettings& settings, std::string& strError) {
  // A library may share one store among its contexts; what an earlier attempt trusted must not count.
  X509_STORE* pStore = X509_STORE_new();
  if (pStore == nullptr) {
    strError = OpenSslText();
    return false;
  }
  SSL_CTX_set_cert_store(pCtx, pStore);
  const std::string& strPath = settings.strCaPath;
  struct stat info {};
  if (settings.strCaFile.empty() && strPath.empty() && X509_STORE_set_default_paths(pStore) != 1)
    strError = "system certificate store: " + OpenSslText();
  else if (!settings.strCaFile.empty() && X509_STORE_load_file(pStore, settings.strCaFile.c_str()) != 1)
    strError = FileText("ca_file", settings.strCaFile, "holds no usable certificate");
  else if (!strPath.empty() && stat(strPath.c_str(), &info) != 0)
    strError = FileText("ca_path", strPath, "not usable");
  else if (!strPath.empty() && (!S_ISDIR(info.st_mode) || X509_STORE_load_path(pStore, strPath.c_str()) != 1))
    strError = FileText("ca_path", strPath, "not a directory");
  else if (!settings.strCrlFile.empty())
    LoadCrls(pStore, settings.strCrlFile, strError);
  return strError.empty();
}

// A passphrase cannot be asked for in a service.
int NoPassphrase(char*, int, int, void*) {
  return 0;
}

bool IsPrivate(FILE* pFile) {
  struct stat info {};
  return fstat(fileno(pFile), &info) == 0 && S_ISREG(info.st_mode) &&
         (info.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

// The file that is checked is the file that is read, whatever happens to its name meanwhile.
TFile OpenKeyFile(const std::string& strFile, std::string& strError) {
  const int fd = open(strFile.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  TFile pFile(fd < 0 ? nullptr : fdopen(fd, "r"));
  if (pFile == nullptr) {
    strError = "key_file " + strFile + ": " + strerrordesc_np(errno);
    if (fd >= 0)
      close(fd);
    return nullptr;
  }
  if (!IsPrivate(pFile.get())) {
    strError = "key_file " + strFile + ": must be a file that only its owner may read";
    return nullptr;
  }
  return pFile;
}

bool LoadOwnCertificate(SSL_CTX* pCtx, const _TlsSettings& settings, std::string& strError) {
  if (settings.strCertFile.empty())
    return true;
  if (SSL_CTX_use_certificate_chain_file(pCtx, settings.strCertFile.c_str()) != 1) {
    strError = FileText("cert_file", settings.strCertFile, "holds no usable certificate");
    return false;
  }
  const TFile pFile = OpenKeyFile(settings.strKeyFile, strError);
  if (pFile == nullptr)
    return false;
  const TKey pKey(PEM_read_PrivateKey(pFile.get(), nullptr, NoPassphrase, nullptr));
  if (pKey == nullptr) {
    strError = FileText("key_file", settings.strKeyFile, "holds no private key without a passphrase");
    return false;
  }
  if (X509_check_private_key(SSL_CTX_get0_certificate(pCtx), pKey.get()) != 1) {
    strError = FileText("key_file", settings.strKeyFile, "does not belong to the certificate in cert_file");
    return false;
  }
  if (SSL_CTX_use_PrivateKey(pCtx, pKey.get()) == 1)
    return true;
  strError = "key_file " + settings.strKeyFile + ": " + OpenSslText();
  return false;
}

// The name must stand among the alternative names; the subject does not count.
bool CheckName(SSL_CTX* pCtx, const std::string& strHost, bool bLiteral) {
  X509_VERIFY_PARAM* pParam = SSL_CTX_get0_param(pCtx);
  X509_VERIFY_PARAM_set_hostflags(pParam,
                                  X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
  return !strHost.empty() &&
         (bLiteral ? X509_VERIFY_PARAM_set1_ip_asc(pParam, strHost.c_str())
                   : X509_VERIFY_PARAM_set1_host(pParam, strHost.c_str(), strHost.size())) == 1;
}

}  // namespace

void _TlsVerdict::Reset() {
  strSetup.clear();
  iX509 = iDepth = 0;
  iAlert = -1;
  bAskedForCert = bDone = false;
}

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
  return OpenKeyFile(strFile, strError) != nullptr;
}

bool TlsApply(SSL_CTX* pCtx, const _TlsSettings& settings, const std::string& strHost, _TlsVerdict& verdict) {
  const bool bLiteral = IsIpLiteral(strHost);
  verdict.Reset();
  verdict.pPins = &settings.listPins;
  verdict.strSni = bLiteral ? std::string() : strHost;
  verdict.bOwnCert = !settings.strCertFile.empty();
  ERR_clear_error();
  SSL_CTX_set_options(pCtx, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_mode(pCtx, SSL_MODE_RELEASE_BUFFERS);
  SSL_CTX_set_default_passwd_cb(pCtx, NoPassphrase);
  SSL_CTX_set_verify(pCtx, SSL_VERIFY_PEER, OnVerify);
  SSL_CTX_set_info_callback(pCtx, OnInfo);
  if (SSL_CTX_set_min_proto_version(pCtx, TLS1_2_VERSION) != 1 ||
      SSL_CTX_set_ex_data(pCtx, VerdictIndex(), &verdict) != 1 || !CheckName(pCtx, strHost, bLiteral))
    verdict.strSetup = OpenSslText();
  return verdict.strSetup.empty() && LoadTrust(pCtx, settings, verdict.strSetup) &&
         LoadOwnCertificate(pCtx, settings, verdict.strSetup);
}

TSslCtx TlsNewContext(const _TlsSettings& settings, const std::string& strHost, _TlsVerdict& verdict,
                      std::string& strError) {
  TSslCtx pCtx(SSL_CTX_new(TLS_client_method()));
  if (pCtx == nullptr) {
    strError = OpenSslText();
    return nullptr;
  }
  if (TlsApply(pCtx.get(), settings, strHost, verdict))
    return pCtx;
  strError = verdict.strSetup;
  return nullptr;
}

}  // namespace zxcloud
