// The trust of the broker link: a context that checks chain and name itself, because the link dials addresses
// while certificates carry names.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "CloudConfig.h"

namespace zxcloudd {

struct _FreeSslCtx {
  void operator()(SSL_CTX* pCtx) const { SSL_CTX_free(pCtx); }
};
using TSslCtx = std::unique_ptr<SSL_CTX, _FreeSslCtx>;

// TLS 1.2 or newer; strHost, a name or a literal, must be in the certificate and is what the broker is asked
// for (SNI, names only). It must live as long as the context. Reads the files of the configuration. Null:
// strError says why.
TSslCtx NewBrokerContext(const _BrokerConfig& config, const std::string& strHost, std::string& strError);

}  // namespace zxcloudd
