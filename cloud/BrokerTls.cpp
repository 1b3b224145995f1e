#include "BrokerTls.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include "Lookup.h"

namespace zxcloudd {

namespace {

std::string TlsError() {
  const unsigned long ulError = ERR_get_error();
  const char* psz = ulError != 0 ? ERR_reason_error_string(ulError) : nullptr;
  ERR_clear_error();
  return psz != nullptr ? psz : "cannot be used";
}

// The library asks for the address that it dials; what counts is the name.
void NameServer(const SSL* pSsl, int iWhere, int) {
  if ((iWhere & SSL_CB_HANDSHAKE_START) == 0)
    return;
  const auto* pstrHost = static_cast<const std::string*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(pSsl)));
  const char* pszName = IsIpLiteral(*pstrHost) ? nullptr : pstrHost->c_str();
  SSL_ctrl(const_cast<SSL*>(pSsl), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
           const_cast<char*>(pszName));
}

}  // namespace

TSslCtx NewBrokerContext(const _BrokerConfig& config, const std::string& strHost, std::string& strError) {
  ERR_clear_error();
  TSslCtx pCtx(SSL_CTX_new(TLS_client_method()));
  if (pCtx == nullptr || SSL_CTX_set_min_proto_version(pCtx.get(), TLS1_2_VERSION) != 1) {
    strError = "TLS: " + TlsError();
    return nullptr;
  }
  SSL_CTX_set_options(pCtx.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
  SSL_CTX_set_verify(pCtx.get(), SSL_VERIFY_PEER, nullptr);
  if (SSL_CTX_load_verify_file(pCtx.get(), config.strCaFile.c_str()) != 1) {
    strError = "broker.ca_file " + config.strCaFile + ": " + TlsError();
    return nullptr;
  }
  if (!config.strCertFile.empty() &&
      (SSL_CTX_use_certificate_chain_file(pCtx.get(), config.strCertFile.c_str()) != 1 ||
       SSL_CTX_use_PrivateKey_file(pCtx.get(), config.strKeyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
       SSL_CTX_check_private_key(pCtx.get()) != 1)) {
    strError = "broker.cert_file or key_file " + config.strCertFile + ": " + TlsError();
    return nullptr;
  }
  X509_VERIFY_PARAM* pParam = SSL_CTX_get0_param(pCtx.get());
  X509_VERIFY_PARAM_set_hostflags(pParam, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  const int iNamed = IsIpLiteral(strHost)
                         ? X509_VERIFY_PARAM_set1_ip_asc(pParam, strHost.c_str())
                         : X509_VERIFY_PARAM_set1_host(pParam, strHost.c_str(), strHost.size());
  if (iNamed != 1) {
    strError = "broker.addresses: " + strHost + ": " + TlsError();
    return nullptr;
  }
  SSL_CTX_set_app_data(pCtx.get(), const_cast<std::string*>(&strHost));
  SSL_CTX_set_info_callback(pCtx.get(), NameServer);
  return pCtx;
}

}  // namespace zxcloudd
