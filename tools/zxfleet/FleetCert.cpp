#include "FleetCert.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace zxfleet {

namespace {

constexpr long kValidSec = 30L * 86400;

struct CFree {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
  void operator()(X509* p) const { X509_free(p); }
  void operator()(FILE* p) const { std::fclose(p); }
};
using TKey = std::unique_ptr<EVP_PKEY, CFree>;
using TCert = std::unique_ptr<X509, CFree>;
using TFile = std::unique_ptr<FILE, CFree>;

bool AddExtension(X509* pCert, int iId, const char* pszValue) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, pCert, pCert, nullptr, nullptr, 0);
  X509_EXTENSION* pExtension = X509V3_EXT_conf_nid(nullptr, &context, iId, pszValue);
  const bool bOk = pExtension != nullptr && X509_add_ext(pCert, pExtension, -1) == 1;
  X509_EXTENSION_free(pExtension);
  return bOk;
}

bool Fill(X509* pCert, EVP_PKEY* pKey) {
  X509_NAME* pName = X509_get_subject_name(pCert);
  return X509_set_version(pCert, 2) == 1 && ASN1_INTEGER_set(X509_get_serialNumber(pCert), 1) == 1 &&
         X509_gmtime_adj(X509_getm_notBefore(pCert), -3600) != nullptr &&
         X509_gmtime_adj(X509_getm_notAfter(pCert), kValidSec) != nullptr &&
         X509_NAME_add_entry_by_txt(pName, "CN", MBSTRING_ASC,
                                    reinterpret_cast<const unsigned char*>("zxfleet"), -1, -1, 0) == 1 &&
         X509_set_issuer_name(pCert, pName) == 1 && X509_set_pubkey(pCert, pKey) == 1 &&
         AddExtension(pCert, NID_basic_constraints, "critical,CA:TRUE") &&
         AddExtension(pCert, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1") &&
         X509_sign(pCert, pKey, EVP_sha256()) > 0;
}

TFile Create(const std::string& strFile, mode_t uMode) {
  TFile pFile(std::fopen(strFile.c_str(), "we"));
  if (pFile != nullptr && fchmod(fileno(pFile.get()), uMode) != 0)
    pFile.reset();
  return pFile;
}

}  // namespace

bool MakeFleetCert(const std::string& strDir, _FleetCert& cert, std::string& strError) {
  cert = {strDir + "cert.pem", strDir + "key.pem"};
  if (access(cert.strCert.c_str(), R_OK) == 0 && access(cert.strKey.c_str(), R_OK) == 0)
    return true;
  const TKey pKey(EVP_EC_gen("P-256"));
  const TCert pCert(X509_new());
  if (pKey == nullptr || pCert == nullptr || !Fill(pCert.get(), pKey.get())) {
    strError = "no certificate can be made";
    return false;
  }
  const TFile pKeyFile = Create(cert.strKey, 0600);
  const TFile pCertFile = Create(cert.strCert, 0644);
  if (pKeyFile != nullptr && pCertFile != nullptr &&
      PEM_write_PrivateKey(pKeyFile.get(), pKey.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1 &&
      PEM_write_X509(pCertFile.get(), pCert.get()) == 1)
    return true;
  strError = strDir + ": " + strerrordesc_np(errno);
  return false;
}

}  // namespace zxfleet
