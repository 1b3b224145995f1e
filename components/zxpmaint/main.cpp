// zxpmaint: runs the maintenance scripts that the agent spools. One command by name, or all waiting file
// commands.
#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdio>

#include "zxpmaint/Spool.h"

namespace {

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

// Files that we open must not land on the standard streams, which are ours and the script's.
void OpenStandardStreams() {
  int iFd = 0;
  do {
    iFd = open("/dev/null", O_RDWR | O_CLOEXEC);
  } while (iFd >= 0 && iFd <= STDERR_FILENO);
  if (iFd >= 0)
    close(iFd);
}

// The request to stop stays blocked, so that it is seen between two scripts and never lost.
sigset_t BlockStop() {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  sigprocmask(SIG_BLOCK, &stop, nullptr);
  return stop;
}

bool StopWithin(const sigset_t& stop, int iSeconds) {
  const timespec tsWait{iSeconds, 0};
  return sigtimedwait(&stop, nullptr, &tsWait) > 0;
}

// Runs what waits until it is asked to stop.
int Watch(const CSpool& spool, int iSeconds) {
  const sigset_t stop = BlockStop();
  for (;;) {
    for (const std::string& strName : spool.Waiting()) {
      if (StopWithin(stop, 0))
        return 0;
      spool.Run(strName);
    }
    if (StopWithin(stop, iSeconds))
      return 0;
  }
}

int Scan(const CSpool& spool) {
  bool bOk = true;
  for (const std::string& strName : spool.Waiting())
    bOk = spool.Run(strName) && bOk;
  return bOk ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  OpenStandardStreams();
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
  const CSpool spool(strHome);
  if (!strName.empty() && !spool.Run(strName))
    return 1;
  if (iWatchSec != 0)
    return Watch(spool, iWatchSec);
  return bScan ? Scan(spool) : 0;
}
