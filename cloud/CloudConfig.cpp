#include "CloudConfig.h"

#include <cerrno>
#include <limits>
#include <set>

#include "CloudText.h"
#include "platform/doc/PJsonParse.h"
#include "platform/os/ZxFile.h"

namespace zxcloudd {

namespace {

using zxtools::CPJsonParse;
using zxtools::HJsonNode;

// Reads the members of one object and remembers the first mistake; after it nothing is read any more.
class CMembers {
 public:
  CMembers(CPJsonParse& json, HJsonNode hObject, std::string strName, std::string& strError)
      : m_json(json), m_hObject(hObject), m_strName(std::move(strName)), m_strError(strError) {}

  HJsonNode Take(const char* pszName) {
    m_setKnown.insert(pszName);
    return m_hObject != nullptr ? m_json.GetNode(m_hObject, pszName) : nullptr;
  }
  void Text(const char* pszName, std::string& strValue) {
    const HJsonNode hNode = Take(pszName);
    CPString strJson;
    if (hNode == nullptr || !m_strError.empty())
      return;
    if (!CPJsonParse::GetValue(hNode, strJson) || strJson.Find(std::string_view("\0", 1)) != CPString::npos)
      Fail(pszName, "is not a text");
    else
      strValue = strJson.Str();
  }
  // A file or directory name; relative ones get strBaseDir in front.
  void Path(const char* pszName, const std::string& strBaseDir, std::string& strValue) {
    std::string str;
    Text(pszName, str);
    if (!str.empty())
      strValue = str.front() == '/' ? str : strBaseDir + str;
  }
  template <class T>
  void Number(const char* pszName, int64_t i64Min, int64_t i64Max, T& value) {
    const HJsonNode hNode = Take(pszName);
    CPString strJson;
    int64_t i64 = 0;
    if (hNode == nullptr || !m_strError.empty())
      return;
    if (!CPJsonParse::GetValue(hNode, strJson) || !ParseNumber(strJson.View(), i64Min, i64Max, i64))
      Fail(pszName, "is not a number from " + std::to_string(i64Min) + " to " + std::to_string(i64Max));
    else
      value = static_cast<T>(i64);
  }
  void Flag(const char* pszName, bool& bValue) {
    std::string str;
    Text(pszName, str);
    if (str.empty())
      return;
    if (str != "true" && str != "false")
      Fail(pszName, "is not true or false");
    bValue = str == "true";
  }
  void Address(const char* pszName, _Address& address) {
    std::string str;
    Text(pszName, str);
    if (!str.empty() && !ParseAddress(str, address))
      Fail(pszName, "is not host:port: " + str);
  }
  CMembers Object(const char* pszName) {
    return CMembers(m_json, Take(pszName), m_strName + pszName + ".", m_strError);
  }
  void Fail(const char* pszName, const std::string& strWhat) {
    if (m_strError.empty())
      m_strError = m_strName + pszName + " " + strWhat;
  }
  // Every member must have been asked for.
  void End() {
    std::vector<HJsonNode> listMembers;
    if (m_hObject == nullptr || !m_strError.empty())
      return;
    if (!m_json.GetAllNode(m_hObject, listMembers)) {
      Fail("", "is not an object");
      return;
    }
    for (const HJsonNode hMember : listMembers) {
      CPString strName;
      CPJsonParse::GetName(hMember, strName);
      if (m_setKnown.count(strName.Str()) == 0)
        Fail(strName.c_str(), "is not known");
    }
  }

 private:
  CPJsonParse& m_json;
  HJsonNode m_hObject;
  std::string m_strName;
  std::string& m_strError;
  std::set<std::string> m_setKnown;
};

void ReadAgentServer(CMembers members, const std::string& strBase, _AgentServerConfig& agent) {
  members.Address("listen", agent.listen);
  members.Path("cert_file", strBase, agent.strCertFile);
  members.Path("key_file", strBase, agent.strKeyFile);
  members.Path("client_ca_file", strBase, agent.strClientCaFile);
  members.Flag("cert_names_mid", agent.bCertNamesMid);
  members.Number("threads", 1, 1024, agent.iThreads);
  members.Number("connections", 1, 100000, agent.iConnections);
  members.Number("idle_sec", 1, 300, agent.iIdleSec);
  members.Number("max_body_bytes", 1024, 256 << 20, agent.uMaxBodyBytes);
  if (agent.strCertFile.empty() || agent.strKeyFile.empty())
    members.Fail("cert_file", "and key_file are needed");
  if (agent.bCertNamesMid && agent.strClientCaFile.empty())
    members.Fail("cert_names_mid", "needs client_ca_file");
  members.End();
}

void ReadOperator(CMembers members, const std::string& strBase, _OperatorConfig& op) {
  members.Address("listen", op.listen);
  members.Path("token_file", strBase, op.strTokenFile);
  if (!IsLoopback(op.listen.strHost))
    members.Fail("listen", "must be a loopback address");
  members.End();
}

void ReadBroker(CMembers members, const std::string& strBase, _BrokerConfig& broker) {
  std::string strAddresses;
  members.Text("addresses", strAddresses);
  for (size_t uAt = 0; uAt < strAddresses.size();) {
    const size_t uEnd = std::min(strAddresses.find(',', uAt), strAddresses.size());
    _Address address;
    if (!ParseAddress(strAddresses.substr(uAt, uEnd - uAt), address) || address.iPort == 0)
      members.Fail("addresses", "is not a list of host:port: " + strAddresses);
    broker.listAddresses.push_back(address);
    uAt = uEnd + 1;
  }
  members.Path("ca_file", strBase, broker.strCaFile);
  members.Path("cert_file", strBase, broker.strCertFile);
  members.Path("key_file", strBase, broker.strKeyFile);
  members.Text("username", broker.strUser);
  members.Path("password_file", strBase, broker.strPasswordFile);
  members.Text("client_id", broker.strClientId);
  members.Number("keepalive_sec", 5, 600, broker.iKeepaliveSec);
  members.Flag("plaintext_loopback", broker.bPlaintextLoopback);
  if (broker.strClientId.empty())
    members.Fail("client_id", "must not be empty: the broker keeps what arrives while the cloud is away");
  if (broker.bPlaintextLoopback) {
    for (const _Address& address : broker.listAddresses) {
      if (!IsLoopback(address.strHost))
        members.Fail("plaintext_loopback", "is for loopback addresses only");
    }
  } else if (!broker.listAddresses.empty() && broker.strCaFile.empty()) {
    members.Fail("ca_file", "is needed");
  }
  members.End();
}

// [{"product":"veltcwpp","combo":"zxsample","id":1001}, ...] into "product,combo,number|...".
void ReadPcid(CPJsonParse& json, CMembers& members, std::string& strPcid, std::string& strError) {
  const HJsonNode hArray = members.Take("pcid");
  std::vector<HJsonNode> listEntries;
  if (hArray == nullptr || !strError.empty())
    return;
  if (!json.GetAllNode(hArray, listEntries)) {
    members.Fail("pcid", "is not an array");
    return;
  }
  for (const HJsonNode hEntry : listEntries) {
    CMembers entry(json, hEntry, "tconf.pcid.", strError);
    std::string strProduct, strCombo;
    int iId = 0;
    entry.Text("product", strProduct);
    entry.Text("combo", strCombo);
    entry.Number("id", 1, 999999999, iId);
    if (strProduct.empty() || strCombo.empty() || iId == 0 ||
        (strProduct + strCombo).find_first_of(",|") != std::string::npos)
      entry.Fail("", "needs product, combo (without \",\" and \"|\") and id");
    entry.End();
    strPcid.append(strPcid.empty() ? "" : "|").append(strProduct).append(",").append(strCombo).append(",");
    strPcid += std::to_string(iId);
  }
}

void ReadTconf(CPJsonParse& json, CMembers members, _TconfConfig& tconf, std::string& strError) {
  ReadPcid(json, members, tconf.strPcid, strError);
  members.Text("short", tconf.strShort);
  members.Text("long", tconf.strLong);
  members.Text("lb", tconf.strLb);
  members.Number("keepalive_sec", 10, 600, tconf.iKeepaliveSec);
  members.Number("spread_sec", 0, 600, tconf.iSpreadSec);
  members.Number("retry_max_sec", 5, 300, tconf.iRetryMaxSec);
  members.Number("refresh_sec", 60, 86400, tconf.iRefreshSec);
  members.Number("max_message_bytes", 1024, 256 << 20, tconf.iMaxMessageBytes);
  members.Flag("confirm", tconf.bConfirm);
  members.Number("drain_per_sec", 0, 1000000, tconf.iDrainPerSec);
  members.Number("connections", 1, 2, tconf.iConnections);
  members.End();
}

void ReadPoll(CMembers members, _PollConfig& poll) {
  members.Number("period_sec", 1, 86400, poll.iPeriodSec);
  members.Number("max_commands", 1, 1000, poll.iMaxCommands);
  members.Number("reoffer_sec", 1, 86400, poll.iReofferSec);
  members.Number("max_offers", 1, 1000, poll.iMaxOffers);
  members.End();
}

void ReadLimits(CMembers members, _LimitConfig& limits) {
  constexpr int kMax = std::numeric_limits<int>::max();
  members.Number("agents", 1, kMax, limits.iAgents);
  members.Number("pending_per_agent", 1, kMax, limits.iPendingPerAgent);
  members.Number("finished_per_agent", 0, kMax, limits.iFinishedPerAgent);
  members.Number("uploads_per_agent", 0, kMax, limits.iUploadsPerAgent);
  members.Number("upload_bytes_per_agent", 0, 1ll << 40, limits.i64UploadBytesPerAgent);
  members.Number("upload_ids_per_agent", 1, kMax, limits.iUploadIdsPerAgent);
  members.Number("upload_id_days", 1, 36500, limits.iUploadIdDays);
  members.Number("store_bytes", 64 << 20, 1ll << 44, limits.i64StoreBytes);
  members.End();
}

}  // namespace

bool ParseAddress(const std::string& strText, _Address& address) {
  const size_t uColon = strText.rfind(':');
  int64_t i64Port = 0;
  if (uColon == std::string::npos || uColon == 0 ||
      !ParseNumber(std::string_view(strText).substr(uColon + 1), 0, 65535, i64Port))
    return false;
  std::string strHost = strText.substr(0, uColon);
  if (strHost.front() == '[' && strHost.back() == ']' && strHost.size() > 2)
    strHost = strHost.substr(1, strHost.size() - 2);
  else if (strHost.find_first_of(":[] ") != std::string::npos)
    return false;
  address.strHost = strHost;
  address.iPort = static_cast<int>(i64Port);
  return true;
}

bool IsLoopback(const std::string& strHost) {
  if (strHost == "localhost" || strHost == "::1")
    return true;
  return strHost.compare(0, 4, "127.") == 0 && strHost.find_first_not_of("0123456789.") == std::string::npos;
}

std::string AddressText(const _Address& address) {
  const bool bV6 = address.strHost.find(':') != std::string::npos;
  return (bV6 ? "[" + address.strHost + "]" : address.strHost) + ":" + std::to_string(address.iPort);
}

bool ParseCloudConfig(const std::string& strJson, const std::string& strBaseDir, _CloudConfig& config,
                      std::string& strError) {
  strError.clear();
  CPJsonParse json;
  if (!json.LoadBuffer(strJson.data(), strJson.size())) {
    strError = "is not JSON";
    return false;
  }
  CMembers members(json, json.GetRoot(), "", strError);
  members.Path("state_dir", strBaseDir, config.strStateDir);
  members.Path("log_home", strBaseDir, config.strLogHome);
  if (config.strStateDir.empty())
    members.Fail("state_dir", "is needed");
  while (config.strStateDir.size() > 1 && config.strStateDir.back() == '/')
    config.strStateDir.pop_back();
  if (!config.strLogHome.empty() && config.strLogHome.back() != '/')
    config.strLogHome += '/';
  ReadAgentServer(members.Object("agent"), strBaseDir, config.agent);
  ReadOperator(members.Object("operator"), strBaseDir, config.op);
  ReadBroker(members.Object("broker"), strBaseDir, config.broker);
  ReadTconf(json, members.Object("tconf"), config.tconf, strError);
  ReadPoll(members.Object("poll"), config.poll);
  ReadLimits(members.Object("limits"), config.limits);
  members.End();
  if (config.op.strTokenFile.empty())
    config.op.strTokenFile = config.strStateDir + "/operator.token";
  return strError.empty();
}

bool LoadCloudConfig(const std::string& strFile, _CloudConfig& config, std::string& strError) {
  CPString strJson;
  if (!ZxReadFileText(CPString(strFile), strJson)) {
    strError = std::string("cannot be read: ") + ErrnoText(errno);
    return false;
  }
  const size_t uSlash = strFile.rfind('/');
  const std::string strBase = uSlash == std::string::npos ? "./" : strFile.substr(0, uSlash + 1);
  return ParseCloudConfig(strJson.Str(), strBase, config, strError);
}

}  // namespace zxcloudd
