#include "LocalCommands.h"

#include <cstdio>

#include "Commands.h"
#include "zxctl/local/Bundle.h"
#include "zxctl/local/Home.h"
#include "zxctl/local/HostView.h"

namespace zxctl {

CLI::App* CLocalCommands::Add(CLI::App& app, const char* pszName, const char* pszWhat) {
  CLI::App* pApp = app.add_subcommand(pszName, pszWhat);
  pApp->group("On this machine");
  pApp->add_option("--home", m_strHomeOption,
                   "home of the agent; else ZX_HOME, else the tree zxctl stands in");
  m_listApps.push_back(pApp);
  return pApp;
}

void CLocalCommands::Define(CLI::App& app) {
  Add(app, "status", "how the agent stands: link, machine id, queues, last errors");
  Add(app, "components", "who is on the bus, and who may be");
  CLI::App* pRoutes = Add(app, "routes", "which component gets which command");
  pRoutes->add_option("command", m_route.strCommand, "of this command only");
  pRoutes->add_option("--product", m_route.strProduct, "of this product only");
  pRoutes->add_option("--combo", m_route.strCombo, "of this combo only");
  CLI::App* pSend = Add(app, "send", "send a message to a component and show its answer");
  pSend->add_option("target", m_send.strTarget, "GUID of the component")->required();
  pSend->add_option("--type", m_send.uiType, "message type")->required();
  CLI::Option* pData = pSend->add_option("--data", m_send.strData, "the message");
  pSend->add_option("--file", m_send.strFile, "file with the message; - is standard input")->excludes(pData);
  pSend->add_option("--timeout", m_send.uiTimeoutMs, "longest wait for the answer in ms")
      ->check(CLI::Range(1, 300000))
      ->capture_default_str();
  CLI::App* pWatch = Add(app, "watch", "what crosses the bus and what becomes of commands, as it happens");
  CLI::Option* pNoBus = pWatch->add_flag("--no-bus", m_bNoBus, "logs only");
  pWatch->add_flag("--no-logs", m_bNoLogs, "bus only")->excludes(pNoBus);
  pWatch->add_option("--for", m_watch.iForSec, "end after so many seconds")->check(CLI::Range(1, 86400));
  CLI::App* pDoctor = Add(app, "doctor", "look everything over; each problem with its cure");
  pDoctor->add_flag("--offline", m_doctor.bOffline, "do not ask the cloud's addresses");
  CLI::App* pBundle = Add(app, "bundle", "write an archive for support, secrets masked");
  pBundle->add_option("file", m_strBundle, "the archive (.tar.gz); default: named for machine and time");
}

int CLocalCommands::RunNamed(const std::string& strName, bool bJson) {
  if (strName == "status")
    return LocalStatus(m_strHome, bJson);
  if (strName == "components")
    return LocalComponents(m_strHome, bJson);
  if (strName == "routes")
    return Routes(m_strHome, m_route, bJson);
  if (strName == "send")
    return SendMessage(m_strHome, m_send, bJson);
  if (strName == "doctor")
    return Doctor(m_strHome, m_doctor, bJson);
  if (strName == "bundle")
    return Bundle(m_strHome, m_strBundle, bJson);
  m_watch.bBus = !m_bNoBus;
  m_watch.bLogs = !m_bNoLogs;
  return Watch(m_strHome, m_watch, bJson);
}

bool CLocalCommands::Run(bool bJson, int& iExit) {
  for (const CLI::App* pApp : m_listApps) {
    if (!pApp->parsed())
      continue;
    std::string strError;
    if (FindHome(m_strHomeOption, m_strHome, strError)) {
      iExit = RunNamed(pApp->get_name(), bJson);
    } else {
      std::fprintf(stderr, "zxctl: %s\n", strError.c_str());
      iExit = kExitUsage;
    }
    return true;
  }
  return false;
}

}  // namespace zxctl
