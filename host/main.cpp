// zxhost: loads the plug-ins of a home and drives them until it is told to stop.
#include <fcntl.h>
#include <limits.h>
#include <malloc.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Host.h"
#include "platform/log/Log.h"

namespace {

// The directory above the program's own bin/, with a trailing "/".
std::string OwnHome() {
  char szPath[PATH_MAX] = {};
  if (readlink("/proc/self/exe", szPath, sizeof(szPath) - 1) < 0)
    return "/";
  std::string strPath(szPath);
  for (int i = 0; i < 2; ++i)
    strPath.resize(strPath.rfind('/'));
  return strPath + "/";
}

// One host per home. The lock lives as long as the process.
int LockHome(const std::string& strHome) {
  const std::string strRun = strHome + "run";
  if (mkdir(strRun.c_str(), 0755) != 0 && errno != EEXIST)
    return -1;
  const int iFd = open((strRun + "/zxhost.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (iFd < 0)
    return -1;
  if (flock(iFd, LOCK_EX | LOCK_NB) != 0) {
    close(iFd);
    return -2;
  }
  return iFd;
}

// Many short-lived allocations on many threads: one arena and eager trimming keep the idle process small.
void TuneMemory() {
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_TRIM_THRESHOLD, 128 * 1024);
}

}  // namespace

int main(int argc, char** argv) {
  TuneMemory();
  std::string strHome;
  std::string strConfig;
  CLI::App app("Loads the plug-ins that etc/zxhost.json names and drives them until SIGTERM or SIGINT.");
  app.add_option("--home", strHome, "installation home (default: the directory above the program's)");
  app.add_option("--config", strConfig, "configuration file (default: <home>/etc/zxhost.json)");
  app.set_version_flag("--version", kHostVersion);
  CLI11_PARSE(app, argc, argv);
  char szReal[PATH_MAX] = {};
  if (!strHome.empty() && realpath(strHome.c_str(), szReal) != nullptr)
    strHome = szReal;
  if (strHome.empty())
    strHome = OwnHome();
  if (strHome.back() != '/')
    strHome += '/';
  if (strConfig.empty())
    strConfig = strHome + "etc/zxhost.json";

  CHostConfig config;
  std::string strError;
  if (!ReadHostConfig(strConfig, strHome, config, strError)) {
    std::fprintf(stderr, "zxhost: %s: %s\n", strConfig.c_str(), strError.c_str());
    return kExitUsage;
  }
  const int iLock = LockHome(strHome);
  if (iLock == -2) {
    std::fprintf(stderr, "zxhost: another host runs in %s\n", strHome.c_str());
    return kExitRunning;
  }
  if (iLock == -1)
    std::fprintf(stderr, "zxhost: %srun/zxhost.lock: %s; starting without the lock\n", strHome.c_str(),
                 std::strerror(errno));  // NOLINT(concurrency-mt-unsafe) single-threaded here

  CHost::BlockSignals();
  LogSetHome(CPString(strHome));
  const HLog hLog = LogInit("zxhost");
  CLogDebug::Instance().SetChannel(hLog);
  int iExit = kExitNoPlugin;
  {
    CHost host(strHome, std::move(config), hLog);
    iExit = host.Run();
  }
  CLogDebug::Instance().SetChannel(nullptr);
  LogUninit(hLog);
  return iExit;
}
