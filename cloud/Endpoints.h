// Which request means what: the agents' HTTPS interface (docs/cloud-link.md) and the operators' loopback
// interface (docs/zxcloudd.md). Pure translation between HTTP and the service.
#pragma once

#include <string>

#include "CloudConfig.h"
#include "CloudService.h"
#include "HttpServer.h"

namespace zxcloudd {

_HttpOptions AgentOptions(const _AgentServerConfig& config);
_Reply HandleAgent(CCloudService& service, const _AgentServerConfig& config, const _HttpRequest& request);

_HttpOptions OperatorOptions(const _OperatorConfig& config);
// Every request needs "Authorization: Bearer <token>".
_Reply HandleOperator(CCloudService& service, const std::string& strToken, const _HttpRequest& request);

}  // namespace zxcloudd
