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

X509* ReadCert(const std::string& strFile) {
  FILE* pFile = std::fopen(strFile.c_str(), "r");
  Must(pFile != nullptr, "certificate file");
  X509* pCert = PEM_read_X509(pFile, nullptr, nullptr, nullptr);
  std::fclose(pFile);
  Must(pCert != nullptr, "certificate file");
  return pCert;
}

bool IsLiteral(const std::string& strName) {
  in6_addr address{};
  return inet_pton(AF_INET, strName.c_str(), &address) == 1 ||
         inet_pton(AF_INET6, strName.c_str(), &address) == 1;
}

}  // namespace

CTestCa::CTestCa(const std::string& strDir, const std::string& strName, long lNotBefore, long lNotAfter)
    : m_strDir(strDir), m_strFile(strDir + strName + ".ca.pem"), m_pKey(NewKey()) {
  m_pCert = NewCert(strName, m_pKey, lNotBefore, lNotAfter);
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
  if (!strNames.empty())
    AddExtension(pCert, m_pCert, NID_subject_alt_name, strNames);
  Must(X509_sign(pCert, m_pKey, EVP_sha256()) > 0, "signature");
  _CertFiles files{m_strDir + strName + ".pem", m_strDir + strName + ".key"};
  WriteCert(files.strCert, pCert);
  WriteKey(files.strKey, pKey);
  X509_free(pCert);
  EVP_PKEY_free(pKey);
  return files;
}

void CTestCa::WriteCrl(const std::string& strFile, const std::vector<_CertFiles>& listRevoked,
                       long lNextUpdate) {
  X509_CRL* pCrl = X509_CRL_new();
  ASN1_TIME* pTime = ASN1_TIME_new();
  Must(pCrl != nullptr && pTime != nullptr && X509_CRL_set_version(pCrl, 1) == 1 &&
           X509_CRL_set_issuer_name(pCrl, X509_get_subject_name(m_pCert)) == 1,
       "revocation list");
  X509_gmtime_adj(pTime, lNextUpdate - 86400);
  X509_CRL_set1_lastUpdate(pCrl, pTime);
  for (const _CertFiles& files : listRevoked) {
    X509* pCert = ReadCert(files.strCert);
    X509_REVOKED* pRevoked = X509_REVOKED_new();
    X509_REVOKED_set_serialNumber(pRevoked, X509_get_serialNumber(pCert));
    X509_REVOKED_set_revocationDate(pRevoked, pTime);
    Must(X509_CRL_add0_revoked(pCrl, pRevoked) == 1, "revocation");
    X509_free(pCert);
  }
  X509_gmtime_adj(pTime, lNextUpdate);
  X509_CRL_set1_nextUpdate(pCrl, pTime);
  ASN1_TIME_free(pTime);
  Must(X509_CRL_sort(pCrl) == 1 && X509_CRL_sign(pCrl, m_pKey, EVP_sha256()) > 0, "signature");
  FILE* pFile = std::fopen(strFile.c_str(), "w");
  Must(pFile != nullptr && PEM_write_X509_CRL(pFile, pCrl) == 1 && std::fclose(pFile) == 0, "list file");
  X509_CRL_free(pCrl);
}

_CertFiles SelfSigned(const std::string& strDir, const std::string& strName, const std::string& strHost) {
  EVP_PKEY* pKey = NewKey();
  X509* pCert = NewCert(strName, pKey, -3600, 86400);
  X509_set_issuer_name(pCert, X509_get_subject_name(pCert));
  AddExtension(pCert, pCert, NID_subject_alt_name, (IsLiteral(strHost) ? "IP:" : "DNS:") + strHost);
  Must(X509_sign(pCert, pKey, EVP_sha256()) > 0, "signature");
  _CertFiles files{strDir + strName + ".pem", strDir + strName + ".key"};
  WriteCert(files.strCert, pCert);
  WriteKey(files.strKey, pKey);
  X509_free(pCert);
  EVP_PKEY_free(pKey);
  return files;
}

std::string CertPin(const std::string& strCertFile) {
  X509* pCert = ReadCert(strCertFile);
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
