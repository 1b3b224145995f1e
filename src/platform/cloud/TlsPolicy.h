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
};

// What the certificate check said last; written by OpenSSL's callback while a handshake runs.
struct _TlsVerdict {
  const std::vector<std::string>* pPins = nullptr;  // borrowed
  std::string strSni;                               // empty: send none
  int iX509 = 0;                                    // X509_V_ERR_...; 0: nothing refused
  void Reset() { iX509 = 0; }
};

struct CSslCtxFree {
  void operator()(SSL_CTX* pCtx) const { SSL_CTX_free(pCtx); }
};
using TSslCtx = std::unique_ptr<SSL_CTX, CSslCtxFree>;

// A context that checks everything itself, for a library that only drives the handshake. strHost is the name
// or literal that the certificate must carry. Null with strError set. Blocks on reading the files; they are
// read anew for every attempt, so renewed certificates count without a restart. verdict must outlive it.
TSslCtx TlsNewContext(const _TlsSettings& settings, const std::string& strHost, _TlsVerdict& verdict,
                      std::string& strError);
// Adds pins and the recording of the verdict to a context whose owner does the rest (libcurl).
bool TlsWatchContext(SSL_CTX* pCtx, _TlsVerdict& verdict);

// A key that its group or others may read is refused; so is a missing one.
bool TlsCheckKeyFile(const std::string& strFile, std::string& strError);

// The reason in one phrase: expired, not yet valid (with this machine's clock), wrong host, unknown CA,
// pin, old protocol; otherwise strLibrary, the text of the library.
std::string TlsReason(int iX509, const std::string& strHost, const std::string& strLibrary);

// "sha256//<base64>" of a certificate's public key; empty when it has none.
std::string TlsPin(X509* pCert);

}  // namespace zxcloud
