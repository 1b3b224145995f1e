// Certificates for tests: a CA of its own and server or client certificates with any names and times.
// Files go into the directory that is given; a failure aborts the test program.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

struct _CertFiles {
  std::string strCert;
  std::string strKey;  // mode 0600
};

class CTestCa {
 public:
  // strDir ends in "/". strName names the CA and its file. The times are seconds from now.
  CTestCa(const std::string& strDir, const std::string& strName, long lNotBefore = -86400,
          long lNotAfter = 864000);
  ~CTestCa();
  CTestCa(const CTestCa&) = delete;
  CTestCa& operator=(const CTestCa&) = delete;

  const std::string& File() const { return m_strFile; }
  // listNames: DNS names and IP literals; none: strName stands in the subject only.
  _CertFiles Issue(const std::string& strName, const std::vector<std::string>& listNames,
                   long lNotBefore = -3600, long lNotAfter = 86400);

  // A revocation list with these certificates on it, into strFile; valid until lNextUpdate seconds from now.
  void WriteCrl(const std::string& strFile, const std::vector<_CertFiles>& listRevoked,
                long lNextUpdate = 86400);

 private:
  const std::string m_strDir;
  const std::string m_strFile;
  EVP_PKEY* m_pKey = nullptr;
  X509* m_pCert = nullptr;
};

// A certificate that is its own issuer.
_CertFiles SelfSigned(const std::string& strDir, const std::string& strName, const std::string& strHost);

// "sha256//<base64>" of the public key in a certificate file, computed here and not by the product.
std::string CertPin(const std::string& strCertFile);
