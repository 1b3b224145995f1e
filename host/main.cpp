// zxhost: loads the plug-ins of one home and keeps them running. See docs/zxhost.md.
#include <limits.h>
#include <malloc.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "Host.h"
#include "HostLog.h"
#include "InstanceLock.h"

namespace {

constexpr int kMallocArenas = 1;
constexpr int kMallocTrimBytes = 128 * 1024;
constexpr size_t kDefaultStackBytes = 1u << 20;

struct _Options {
  std::string strHome;
  std::string strConfig;
  bool bForeground = false;
};

// The directory above the one that holds this program.
std::string OwnHome() {
  char szPath[PATH_MAX] = {};
  const ssize_t iLength = readlink("/proc/self/exe", szPath, sizeof(szPath) - 1);
  const std::string strPath(szPath, iLength > 0 ? static_cast<size_t>(iLength) : 0);
  const size_t uBin = strPath.rfind('/');
  const size_t uHome =
      uBin != std::string::npos && uBin > 0 ? strPath.rfind('/', uBin - 1) : std::string::npos;
  return uHome != std::string::npos ? strPath.substr(0, uHome + 1) : std::string();
}

// Absolute, without links, with a trailing "/"; empty (errno) when it does not exist.
std::string Resolved(const std::string& strPath) {
  char szPath[PATH_MAX] = {};
  if (realpath(strPath.c_str(), szPath) == nullptr)
    return {};
  std::string strResult(szPath);
  if (strResult.back() != '/')
    strResult += '/';
  return strResult;
}

// One arena, eager trimming and bounded stacks: a host has many mostly idle threads, and each arena would
// keep free memory of its own.
void PrepareProcess() {
  mallopt(M_ARENA_MAX, kMallocArenas);
  mallopt(M_TRIM_THRESHOLD, kMallocTrimBytes);
  pthread_attr_t attr;
  if (pthread_attr_init(&attr) == 0) {
    if (pthread_attr_setstacksize(&attr, kDefaultStackBytes) == 0)
      pthread_setattr_default_np(&attr);
    pthread_attr_destroy(&attr);
  }
  umask(022);
  BlockHostSignals();
}

int RunHost(const _Options& options) {
  const CPString strHome(Resolved(options.strHome.empty() ? OwnHome() : options.strHome));
  if (strHome.IsEmpty()) {
    std::fprintf(stderr, "zxhost: home %s: %s\n", options.strHome.c_str(),
                 std::strerror(errno));  // NOLINT(concurrency-mt-unsafe)
    return kExitUsage;
  }
  const CPString strFile =
      options.strConfig.empty() ? strHome + "etc/zxhost.json" : CPString(options.strConfig);
  _HostConfig config;
  CPString strError;
  if (!LoadHostConfig(strFile, strHome, config, strError)) {
    std::fprintf(stderr, "zxhost: %s: %s\n", strFile.c_str(), strError.c_str());
    return kExitUsage;
  }
  CInstanceLock lock;
  const CInstanceLock::EResult eLock = lock.Lock(strHome);
  const int iLockError = errno;
  if (eLock == CInstanceLock::EResult::Taken) {
    std::fprintf(stderr, "zxhost: another host runs on %s\n", strHome.c_str());
    return kExitTaken;
  }
  if (config.iLogLevel != 0)
    setenv("ZX_LOG_LEVEL", std::to_string(config.iLogLevel).c_str(),
           0);  // NOLINT(concurrency-mt-unsafe) no thread yet
  OpenHostLog(strHome, options.bForeground);
  LogInfoTo(g_hHostLog, "zxhost begin home[%s] config[%s] pid[%d] plugins[%u]", strHome, strFile, getpid(),
            static_cast<uint32_t>(config.plugins.size()));
  if (eLock == CInstanceLock::EResult::Failed)  // a home that cannot be written must not stop the agent
    LogWarnTo(g_hHostLog, "*zxhost starts without run/zxhost.lock errno[%d]", iLockError);
  for (const CPString& strWarning : config.warnings)
    LogWarnTo(g_hHostLog, "*zxhost configuration: %s", strWarning);

  int iCode = kExitOk;
  {
    CHost host(config, strHome);
    iCode = host.Run();
  }
  LogInfoTo(g_hHostLog, "zxhost end code[%d]", iCode);
  // Not exit(): a plug-in's library may have left threads that still run while statics would be destroyed.
  ExitNow(iCode);
}

}  // namespace

int main(int argc, char** argv) {
  PrepareProcess();
  _Options options;
  CLI::App app("Loads the plug-ins named in etc/zxhost.json and keeps them running.", "zxhost");
  app.add_option("--home", options.strHome, "Home directory; default: the one above the program's own");
  app.add_option("--config", options.strConfig, "Configuration file; default: <home>/etc/zxhost.json");
  app.add_flag("--foreground", options.bForeground, "Also print the host's own log lines to standard error");
  app.set_version_flag("--version", ZX_VERSION);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? kExitOk : kExitUsage;
  }
  try {
    return RunHost(options);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zxhost: %s\n", e.what());
    return kExitUsage;
  }
}
