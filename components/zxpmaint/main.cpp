// zxpmaint: runs the maintenance scripts that the agent spools. One command by name, or all waiting file
// commands.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <csignal>
#include <cstdio>

#include "zxpmaint/Spool.h"

namespace {

volatile std::sig_atomic_t g_bStop = 0;

// The directory above the tool's own bin/.
std::string OwnHome() {
  char szPath[PATH_MAX] = {};
  if (readlink("/proc/self/exe", szPath, sizeof(szPath) - 1) < 0)
    return "/";
  std::string strPath(szPath);
  for (int i = 0; i < 2; ++i)
    strPath.resize(strPath.rfind('/'));
  return strPath + "/";
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Runs maintenance scripts spooled by the agent and leaves one result file for each.");
  std::string strName;
  std::string strHome;
  int iWatchSec = 0;
  bool bScan = false;
  app.add_option("NAME", strName, "command file by name, as the agent passes it: <id>.json");
  app.add_option("--home", strHome, "installation home (default: the directory above the tool's)");
  app.add_flag("--scan", bScan, "run every waiting file command once");
  app.add_option("--watch", iWatchSec, "scan again every SECONDS until stopped")->check(CLI::Range(1, 3600));
  // The agent passes a name only; an id that begins with "-" is still a name.
  const std::string strOnly = argc == 2 ? argv[1] : "";
  if (strOnly.size() > 5 && strOnly.compare(strOnly.size() - 5, 5, ".json") == 0)
    strName = strOnly;
  else
    CLI11_PARSE(app, argc, argv);
  if (strHome.empty())
    strHome = OwnHome();
  if (strHome.back() != '/')
    strHome += '/';
  if (strName.empty() && !bScan && iWatchSec == 0) {
    std::fputs("zxpmaint: name a command, or use --scan or --watch\n", stderr);
    return 2;
  }
  struct sigaction action {};
  action.sa_handler = [](int) { g_bStop = 1; };
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);

  const CSpool spool(strHome);
  bool bOk = strName.empty() || spool.Run(strName);
  if (!bScan && iWatchSec == 0)
    return bOk ? 0 : 1;
  do {
    for (const std::string& str : spool.Waiting()) {
      if (g_bStop != 0)
        break;
      bOk = spool.Run(str) && bOk;
    }
    if (iWatchSec != 0 && g_bStop == 0)
      sleep(static_cast<unsigned>(iWatchSec));
  } while (iWatchSec != 0 && g_bStop == 0);
  return bOk ? 0 : 1;
}
