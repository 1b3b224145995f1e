// The subcommands that look at the agent on this machine, as options of the command line.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "zxctl/local/BusView.h"
#include "zxctl/local/Doctor.h"
#include "zxctl/local/Routes.h"

namespace zxctl {

class CLocalCommands {
 public:
  void Define(CLI::App& app);
  // True when the command line named one of them; iExit is then its exit code.
  bool Run(bool bJson, int& iExit);

 private:
  CLI::App* Add(CLI::App& app, const char* pszName, const char* pszWhat);
  int RunNamed(const std::string& strName, bool bJson);

  std::vector<CLI::App*> m_listApps;
  std::string m_strHomeOption;
  std::string m_strHome;
  _RouteQuestion m_route;
  _SendOptions m_send;
  _WatchOptions m_watch;
  _DoctorOptions m_doctor;
  std::string m_strBundle;
  bool m_bNoBus = false;
  bool m_bNoLogs = false;
};

}  // namespace zxctl
