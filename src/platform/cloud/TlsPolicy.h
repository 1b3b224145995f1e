// Trust towards the cloud: what is trusted, how it is checked, and how a refusal is called. One policy for
// HTTPS (installed into libcurl's context) and MQTT (a context of our own).
// TLS 1.2 or newer, verification always on, name checked, pins on top. Threads: a verdict belongs to one
// connection attempt at a time.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <vector>

namespace zxcloud {

struct _TlsSettings {
  std::string strCaFile;  // both empty: the system's store
  std::string strCaPath;
  std::string strCertFile;  // client certificate; with it the key is needed
  std::string strKeyFile;
  std::vector<std::string> listPins;  // "sha256//<base64>" of the server's public key; any one must match
  std::string strCrlFile;             // revocation lists; with it the server's certificate must be on none
};

// What is known about one attempt; written by OpenSSL's callbacks while it runs.
struct _TlsVerdict {
  const std::vector<std::string>* pPins = nullptr;  // borrowed
  std::string strSni;                               // empty: send none
  bool bOwnCert = false;                            // a client certificate is at hand
  std::string strSetup;  // why the attempt ended before the handshake; usually empty
  int iX509 = 0;         // X509_V_ERR_...; 0: nothing refused
  int iDepth = 0;        // of the refused certificate; 0: the server's own
  int iAlert = -1;       // the far side's fatal alert
  bool bAskedForCert = false;
  bool bDone = false;  // the handshake is through, as this side sees it

  void Reset();
  bool Failed() const { return iX509 != 0 || iAlert >= 0 || !strSetup.empty(); }
};

struct CSslCtxFree {
  void operator()(SSL_CTX* pCtx) const { SSL_CTX_free(pCtx); }
};
using TSslCtx = std::unique_ptr<SSL_CTX, CSslCtxFree>;

// Puts the whole policy onto a context that only has to drive the handshake: trust, own certificate, names,
// pins, and the recording of the verdict. strHost is the name or literal that the certificate must carry.
// False with verdict.strSetup set. Blocks on reading the files; they are read anew for every attempt, so
// renewed ones count without a restart. settings and verdict must outlive the context's connections.
bool TlsApply(SSL_CTX* pCtx, const _TlsSettings& settings, const std::string& strHost, _TlsVerdict& verdict);
// A context of our own with the policy on it. Null with strError set.
TSslCtx TlsNewContext(const _TlsSettings& settings, const std::string& strHost, _TlsVerdict& verdict,
                      std::string& strError);

// A key that its group or others may read is refused; so is a missing one.
bool TlsCheckKeyFile(const std::string& strFile, std::string& strError);

// The reason in one phrase: what the verdict knows, else what strLibrary, the text of the library, gives
// away.
std::string TlsReason(const _TlsVerdict& verdict, const std::string& strHost, const std::string& strLibrary);

// "sha256//<base64>" of a certificate's public key; empty when it has none.
std::string TlsPin(X509* pCert);

}  // namespace zxcloud
