#include "Endpoints.h"

#include <openssl/crypto.h>

#include "CloudText.h"

namespace zxcloudd {

namespace {

constexpr char kTracePath[] = "/op/v1/trace/";
constexpr char kUploadPath[] = "/op/v1/uploads/";

bool Below(const std::string& strPath, std::string_view svPrefix) {
  return strPath.compare(0, svPrefix.size(), svPrefix) == 0;
}

_Reply Error(int iStatus, const char* pszJson) {
  _Reply reply;
  reply.iStatus = iStatus;
  reply.strBody = pszJson;
  return reply;
}

// One machine must not speak for another.
bool CertificateAllows(const _AgentServerConfig& config, const _HttpRequest& request,
                       const std::string& strMid) {
  return !config.bCertNamesMid || request.strCertName == strMid;
}

_Reply Tconf(CCloudService& service, const _AgentServerConfig& config, const _HttpRequest& request) {
  _TconfIds ids;
  ids.strMid = request.fnQuery("mid");
  ids.strMid2 = request.fnQuery("m2");
  ids.strChannel = request.fnQuery("pid");
  ids.strLocalIp = request.fnQuery("localip");
  const std::string strPlatform = request.fnQuery("platid");
  if (request.fnQuery("v") != "1" ||
      (!strPlatform.empty() && !ParseNumber(strPlatform, 0, 1000000000, ids.i64Platform)))
    return Error(400, "{\"error\":\"v is not 1, or platid is not a number\"}");
  const std::string strHeader = request.fnHeader("X-Zx-Mid");
  if (!strHeader.empty() && strHeader != ids.strMid)
    return Error(400, "{\"error\":\"X-Zx-Mid differs from mid\"}");
  if (!CertificateAllows(config, request, ids.strMid))
    return Error(403, "{\"error\":\"the certificate names another machine\"}");
  return service.Tconf(ids);
}

bool TokenMatches(const std::string& strToken, const std::string& strHeader) {
  const std::string strExpected = "Bearer " + strToken;
  return strHeader.size() == strExpected.size() &&
         CRYPTO_memcmp(strHeader.data(), strExpected.data(), strExpected.size()) == 0;
}

// A number in the query; false when it is there and is none.
bool QueryNumber(const _HttpRequest& request, const char* pszName, int64_t i64Min, int64_t i64Max,
                 int64_t& i64Value) {
  const std::string strValue = request.fnQuery(pszName);
  return strValue.empty() || ParseNumber(strValue, i64Min, i64Max, i64Value);
}

_Reply Uploads(CCloudService& service, const _HttpRequest& request) {
  _UploadFilter filter;
  filter.strMid = request.fnQuery("mid");
  filter.strKind = request.fnQuery("kind");
  filter.strAbout = request.fnQuery("about");
  int64_t i64Max = filter.iMax, i64Newest = 0, i64Body = 65536;
  if (!QueryNumber(request, "after", 0, INT64_MAX, filter.i64From) ||
      !QueryNumber(request, "before", 1, INT64_MAX, filter.i64From) ||
      !QueryNumber(request, "max", 1, 1000, i64Max) || !QueryNumber(request, "newest", 0, 1, i64Newest) ||
      !QueryNumber(request, "body", 0, 65536, i64Body))
    return Error(400, "{\"error\":\"after, before, max, newest or body is not a number in its range\"}");
  filter.iMax = static_cast<int>(i64Max);
  filter.bNewestFirst = i64Newest != 0 || !request.fnQuery("before").empty();
  if (filter.bNewestFirst && !request.fnQuery("after").empty())
    return Error(400, "{\"error\":\"after goes with the oldest first, before with the newest\"}");
  filter.i64BodyMax = i64Body;
  return service.OpUploads(filter);
}

_Reply OneUpload(CCloudService& service, const std::string& strSeq) {
  int64_t i64Seq = 0;
  if (!ParseNumber(strSeq, 1, INT64_MAX, i64Seq))
    return Error(400, "{\"error\":\"not the number of an upload\"}");
  return service.OpUpload(i64Seq);
}

_Reply Commands(CCloudService& service, const _HttpRequest& request) {
  int64_t i64Max = 100;
  if (!QueryNumber(request, "max", 1, 1000, i64Max))
    return Error(400, "{\"error\":\"max is not a number in its range\"}");
  return service.OpCommands(request.fnQuery("mid"), request.fnQuery("state"), static_cast<int>(i64Max));
}

}  // namespace

_HttpOptions AgentOptions(const _AgentServerConfig& config) {
  _HttpOptions options;
  options.listen = config.listen;
  options.strCertFile = config.strCertFile;
  options.strKeyFile = config.strKeyFile;
  options.strClientCaFile = config.strClientCaFile;
  options.iThreads = config.iThreads;
  options.iConnections = config.iConnections;
  options.iIdleSec = config.iIdleSec;
  options.uMaxBodyBytes = config.uMaxBodyBytes;
  options.listGet = {"/v1/tconf", "/v1/health"};
  options.listPost = {"/v1/poll", "/v1/upload"};
  return options;
}

_Reply HandleAgent(CCloudService& service, const _AgentServerConfig& config, const _HttpRequest& request) {
  if (request.strPath == "/v1/health")
    return service.Health();
  if (request.strPath == "/v1/tconf")
    return Tconf(service, config, request);
  const std::string strMid = request.fnHeader("X-Zx-Mid");
  if (!CertificateAllows(config, request, strMid))
    return Error(403, "{\"error\":\"the certificate names another machine\"}");
  if (request.strPath == "/v1/poll")
    return service.Poll(strMid, request.strBody);
  return service.Upload(strMid, request.fnHeader("X-Zx-Id"), request.fnHeader("X-Zx-Priority"),
                        request.strBody);
}

_HttpOptions OperatorOptions(const _OperatorConfig& config) {
  _HttpOptions options;
  options.listen = config.listen;
  options.iIdleSec = 1;
  options.uMaxBodyBytes = 4u << 20;
  options.listGet = {"/op/v1/agents",  kTracePath,  "/op/v1/commands",
                     "/op/v1/uploads", kUploadPath, "/op/v1/status"};
  options.listPost = {"/op/v1/push"};
  return options;
}

_Reply HandleOperator(CCloudService& service, const std::string& strToken, const _HttpRequest& request) {
  if (!TokenMatches(strToken, request.fnHeader("Authorization")))
    return Error(401, "{\"error\":\"token missing or wrong\"}");
  if (request.strPath == "/op/v1/push")
    return service.OpPush(request.strBody);
  if (request.strPath == "/op/v1/agents")
    return service.OpAgents();
  if (request.strPath == "/op/v1/uploads")
    return Uploads(service, request);
  if (Below(request.strPath, kUploadPath))
    return OneUpload(service, request.strPath.substr(sizeof(kUploadPath) - 1));
  if (request.strPath == "/op/v1/commands")
    return Commands(service, request);
  if (request.strPath == "/op/v1/status")
    return service.OpStatus();
  return service.OpTrace(request.strPath.substr(sizeof(kTracePath) - 1));
}

}  // namespace zxcloudd
