#include "Daemon.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "CloudLog.h"
#include "CloudText.h"
#include "Endpoints.h"
#include "JsonText.h"
#include "platform/os/ZxFile.h"

namespace zxcloudd {

namespace {

constexpr size_t kTokenBytes = 32;

bool SavePrivate(const std::string& strFile, const std::string& strText, std::string& strError) {
  const CPString strTmp(strFile + ".tmp");
  if (ZxSaveFileData(strTmp, CPString(strText), true) && ZxSyncedRename(strTmp, CPString(strFile)))
    return true;
  strError = strFile + ": " + ErrnoText(errno);
  return false;
}

std::string Url(const char* pszScheme, const _Address& listen, int iPort) {
  _Address address = listen;
  address.iPort = iPort;
  return std::string(pszScheme) + "://" + AddressText(address);
}

}  // namespace

CDaemon::CDaemon(const _CloudConfig& config)
    : m_config(config), m_service(m_store, m_config), m_link(m_service, m_config.broker) {
  m_service.SetPushWaker([this] { m_link.Wake(); });
  m_service.SetBrokerState([this] { return m_link.IsUp(); });
}

CDaemon::~CDaemon() {
  Stop();
}

bool CDaemon::Start(std::string& strError) {
  if (!m_store.Open(m_config.strStateDir, strError) || !LoadToken(strError))
    return false;
  if (!m_store.SetMaxBytes(m_config.limits.i64StoreBytes)) {
    strError = m_config.strStateDir + "/zxcloudd.db: its size cannot be bounded";
    return false;
  }
  const auto agentHandler = [this](const _HttpRequest& request) {
    return HandleAgent(m_service, m_config.agent, request);
  };
  const auto operatorHandler = [this](const _HttpRequest& request) {
    return HandleOperator(m_service, m_strToken, request);
  };
  // The broker hears of a cloud that has started, not of one that tries to: what it hands over to that would
  // be acknowledged without the machine's knowing.
  return m_link.Check(strError) &&
         m_agentServer.Start(AgentOptions(m_config.agent), agentHandler, strError) &&
         m_operatorServer.Start(OperatorOptions(m_config.op), operatorHandler, strError) &&
         WriteRunFile(strError) && m_link.Start(strError);
}

void CDaemon::Stop() {
  if (m_bRunFile)
    unlink((m_config.strStateDir + "/zxcloudd.json").c_str());
  m_bRunFile = false;
  m_operatorServer.Stop();
  m_agentServer.Stop();
  m_link.Stop();
  m_store.Close();
}

bool CDaemon::LoadToken(std::string& strError) {
  CPString strText;
  struct stat st {};
  const std::string& strFile = m_config.op.strTokenFile;
  if (stat(strFile.c_str(), &st) == 0) {
    if ((st.st_mode & 077) != 0) {
      strError = strFile + " can be read by others";
      return false;
    }
    if (ZxReadFileText(CPString(strFile), strText))
      m_strToken = Trim(strText.View());
    if (m_strToken.size() >= kTokenBytes)
      return true;
  }
  m_strToken = RandomHex(kTokenBytes);
  return SavePrivate(strFile, m_strToken + "\n", strError);
}

bool CDaemon::WriteRunFile(std::string& strError) {
  CJsonText json;
  json.Number("pid", getpid());
  json.Text("agent_url", AgentUrl());
  json.Text("operator_url", OperatorUrl());
  json.Text("token_file", m_config.op.strTokenFile);
  m_bRunFile = SavePrivate(m_config.strStateDir + "/zxcloudd.json", json.Str() + "\n", strError);
  return m_bRunFile;
}

std::string CDaemon::AgentUrl() const {
  return Url("https", m_config.agent.listen, m_agentServer.Port());
}

std::string CDaemon::OperatorUrl() const {
  return Url("http", m_config.op.listen, m_operatorServer.Port());
}

}  // namespace zxcloudd
