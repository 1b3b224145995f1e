#include "support/CloudCerts.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

namespace {

void Must(bool bOk, const char* pszWhat) {
  if (bOk)
    return;
  std::fprintf(stderr, "test certificates: %s\n", pszWhat);
  std::abort();
}

EVP_PKEY* NewKey() {
  EVP_PKEY* pKey = EVP_EC_gen("P-256");
  Must(pKey != nullptr, "key");
  return pKey;
}

void AddExtension(X509* pCert, X509* pIssuer, int iId, const std::string& strValue) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, pIssuer, pCert, nullptr, nullptr, 0);
  X509_EXTENSION* pExtension = X509V3_EXT_conf_nid(nullptr, &context, iId, strValue.c_str());
  Must(pExtension != nullptr && X509_add_ext(pCert, pExtension, -1) == 1, "extension");
  X509_EXTENSION_free(pExtension);
}

X509* NewCert(const std::string& strName, EVP_PKEY* pKey, long lNotBefore, long lNotAfter) {
  static long lSerial = 1000;
  X509* pCert = X509_new();
  Must(pCert != nullptr, "certificate");
  X509_set_version(pCert, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(pCert), ++lSerial);
  X509_gmtime_adj(X509_getm_notBefore(pCert), lNotBefore);
  X509_gmtime_adj(X509_getm_notAfter(pCert), lNotAfter);
  X509_set_pubkey(pCert, pKey);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(pCert), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(strName.c_str()), -1, -1, 0);
  return pCert;
}

void WriteCert(const std::string& strFile, X509* pCert) {
  FILE* pFile = std::fopen(strFile.c_str(), "w");
  Must(pFile != nullptr && PEM_write_X509(pFile, pCert) == 1 && std::fclose(pFile) == 0, "certificate file");
}

void WriteKey(const std::string& strFile, EVP_PKEY* pKey) {
  FILE* pFile = std::fopen(strFile.c_str(), "w");
  Must(pFile != nullptr && fchmod(fileno(pFile), 0600) == 0, "key file");
  Must(PEM_write_PrivateKey(pFile, pKey, nullptr, nullptr, 0, nullptr, nullptr) == 1, "key");
  Must(std::fclose(pFile) == 0, "key file");
}

bool IsLiteral(const std::string& strName) {
  in6_addr address{};
  return inet_pton(AF_INET, strName.c_str(), &address) == 1 ||
         inet_pton(AF_INET6, strName.c_str(), &address) == 1;
}

}  // namespace

CTestCa::CTestCa(const std::string& strDir, const std::string& strName)
    : m_strDir(strDir), m_strFile(strDir + strName + ".ca.pem"), m_pKey(NewKey()) {
  m_pCert = NewCert(strName, m_pKey, -86400, 864000);
  X509_set_issuer_name(m_pCert, X509_get_subject_name(m_pCert));
  AddExtension(m_pCert, m_pCert, NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(m_pCert, m_pCert, NID_key_usage, "critical,keyCertSign,cRLSign");
  Must(X509_sign(m_pCert, m_pKey, EVP_sha256()) > 0, "signature");
  WriteCert(m_strFile, m_pCert);
}

CTestCa::~CTestCa() {
  X509_free(m_pCert);
  EVP_PKEY_free(m_pKey);
}

_CertFiles CTestCa::Issue(const std::string& strName, const std::vector<std::string>& listNames,
                          long lNotBefore, long lNotAfter) {
  EVP_PKEY* pKey = NewKey();
  X509* pCert = NewCert(strName, pKey, lNotBefore, lNotAfter);
  X509_set_issuer_name(pCert, X509_get_subject_name(m_pCert));
  std::string strNames;
  for (const std::string& strOne : listNames)
    strNames += (strNames.empty() ? "" : ",") + std::string(IsLiteral(strOne) ? "IP:" : "DNS:") + strOne;
  AddExtension(pCert, m_pCert, NID_subject_alt_name, strNames);
  Must(X509_sign(pCert, m_pKey, EVP_sha256()) > 0, "signature");
  _CertFiles files{m_strDir + strName + ".pem", m_strDir + strName + ".key"};
  WriteCert(files.strCert, pCert);
  WriteKey(files.strKey, pKey);
  X509_free(pCert);
  EVP_PKEY_free(pKey);
  return files;
}

std::string CertPin(const std::string& strCertFile) {
  FILE* pFile = std::fopen(strCertFile.c_str(), "r");
  Must(pFile != nullptr, "certificate file");
  X509* pCert = PEM_read_X509(pFile, nullptr, nullptr, nullptr);
  std::fclose(pFile);
  unsigned char* pDer = nullptr;
  const int iDer = i2d_PUBKEY(X509_get0_pubkey(pCert), &pDer);
  Must(iDer > 0, "public key");
  unsigned char digest[32];
  Must(EVP_Digest(pDer, static_cast<size_t>(iDer), digest, nullptr, EVP_sha256(), nullptr) == 1, "digest");
  OPENSSL_free(pDer);
  X509_free(pCert);
  unsigned char szText[64];
  EVP_EncodeBlock(szText, digest, sizeof(digest));
  return "sha256//" + std::string(reinterpret_cast<char*>(szText));
}
