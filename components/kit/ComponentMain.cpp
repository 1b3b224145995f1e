#include "kit/ComponentMain.h"

#include <getopt.h>
#include <pthread.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

struct _Options {
  std::string strHome;
  std::string strBus;
};

std::string DirectoryAboveProgram() {
  char szPath[PATH_MAX];
  const ssize_t iBytes = readlink("/proc/self/exe", szPath, sizeof(szPath));
  const std::string strPath(szPath, iBytes > 0 ? static_cast<size_t>(iBytes) : 0);
  const size_t uBin = strPath.rfind('/');
  const size_t uHome =
      uBin == std::string::npos || uBin == 0 ? std::string::npos : strPath.rfind('/', uBin - 1);
  return uHome == std::string::npos ? "/" : strPath.substr(0, uHome + 1);
}

// -1: go on; else the exit code.
int ParseOptions(int argc, char** argv, const char* pszGuid, _Options& options) {
  static const option kOptions[] = {{"home", required_argument, nullptr, 'h'},
                                    {"bus", required_argument, nullptr, 'b'},
                                    {"version", no_argument, nullptr, 'v'},
                                    {"help", no_argument, nullptr, '?'},
                                    {nullptr, 0, nullptr, 0}};
  int iOption = 0;
  while ((iOption = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    if (iOption == 'h') {
      options.strHome = optarg;
    } else if (iOption == 'b') {
      options.strBus = optarg;
    } else if (iOption == 'v') {
      std::printf("component %s\n", pszGuid);
      return 0;
    } else {
      std::fprintf(stderr, "usage: %s [--home DIR] [--bus ADDRESS] [--version]\n", argv[0]);
      return optopt == 0 ? 0 : 2;
    }
  }
  if (optind < argc) {
    std::fprintf(stderr, "%s: what is %s?\n", argv[0], argv[optind]);
    return 2;
  }
  if (options.strHome.empty())
    options.strHome = DirectoryAboveProgram();
  if (options.strHome.back() != '/')
    options.strHome += '/';
  const char* pszAddress = std::getenv("ZX_BUS_ADDRESS");
  if (options.strBus.empty())
    options.strBus = pszAddress != nullptr ? pszAddress : "unix:path=" + options.strHome + "run/bus";
  return -1;
}

void OnBusState(uint32_t uiState, const char* pszText, void* pContext) {
  const HLog hLog = static_cast<HLog>(pContext);
  if (uiState == kBusStateConnected)
    LogInfoTo(hLog, "component bus is there: %s", pszText);
  else
    LogWarnTo(hLog, "*component bus uiState[%u] %s", uiState, pszText);
}

}  // namespace

int RunComponent(CComponent& component, int argc, char** argv) {
  _Options options;
  const int iCode = ParseOptions(argc, argv, component.GuidText(), options);
  if (iCode >= 0)
    return iCode;
  // Before any thread starts, so that every thread leaves them to sigwait.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  (void)std::signal(SIGPIPE, SIG_IGN);

  LogSetHome(CPString(options.strHome));
  component.Initialize(options.strHome);
  if (const char* pszState = std::getenv("STATE_DIRECTORY"); pszState != nullptr && *pszState == '/')
    component.SetDataDir(std::string(pszState) + "/");
  if (const char* pszRun = std::getenv("RUNTIME_DIRECTORY"); pszRun != nullptr && *pszRun == '/')
    component.SetRunDir(std::string(pszRun) + "/");
  ZxBusConnectSettings settings;
  settings.pszAddress = options.strBus.c_str();
  settings.pfnState = &OnBusState;
  settings.pContext = component.Log();
  const uint32_t uiRet = ZxBusConnect(&settings);
  if (uiRet != 0)
    LogWarnTo(component.Log(), "*component guid[%s] waits for the bus strBus[%s] iRet[%x]",
              component.GuidText(), options.strBus, uiRet);
  IBusContext* pBus = ZxBusCreateContext();
  component.SetBus(pBus);
  const bool bStarted = component.Start() == 0;
  int iSignal = 0;
  if (bStarted) {
    sigwait(&signals, &iSignal);
    component.Stop();
  }
  ZxBusDisconnect();
  if (pBus != nullptr)
    ZxBusDestroyContext(pBus);
  return bStarted ? 0 : 1;
}
