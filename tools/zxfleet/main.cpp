// zxfleet: what a fleet of links does to its cloud. Exit codes: 0 done and even, 1 not even or failed, 2
// wrong usage.
#include <CLI/CLI.hpp>
#include <cinttypes>
#include <cstdio>

#include "FleetCert.h"
#include "LiveRun.h"
#include "Report.h"
#include "Simulation.h"

using namespace zxfleet;

namespace {

void DefineSimulate(CLI::App& app, _SimSettings& sim, double& dAwaySec, double& dAfterSec) {
  CLI::App* pSim =
      app.add_subcommand("simulate", "the link's state machines in virtual time, without sockets");
  pSim->add_option("--machines", sim.uMachines, "how many")->check(CLI::Range(1, 10000000));
  pSim->add_option("--addresses", sim.uAddresses, "broker addresses each of them knows")
      ->check(CLI::Range(1, 16));
  pSim->add_option("--away", dAwaySec, "seconds that the brokers are away")->check(CLI::Range(0.0, 86400.0));
  pSim->add_option("--after", dAfterSec, "seconds to look on after their return")
      ->check(CLI::Range(1.0, 86400.0));
  pSim->add_option("--spread", sim.uSpreadSec, "spread_sec")->check(CLI::Range(0, 600));
  pSim->add_option("--retry-max", sim.uRetryMaxSec, "retry_max_sec")->check(CLI::Range(5, 300));
  pSim->add_option("--capacity", sim.uCapacity,
                   "connections per second that the brokers make; 0: any number");
  pSim->add_option("--backlog", sim.uBacklog, "connections that wait for that; more are not answered");
  pSim->add_flag("--silent", sim.bSilent, "away means no answer, instead of a refusal");
  pSim->add_option("--seed", sim.u64Seed, "another one, another chance");
}

void DefineLive(CLI::App& app, _LiveSettings& live) {
  CLI::App* pLive = app.add_subcommand("run", "whole links with real sockets and TLS, in this process");
  pLive->add_option("--links", live.uLinks, "how many")->check(CLI::Range(1, 20000));
  pLive->add_option("--away", live.dAwaySec, "seconds that the server is away")
      ->check(CLI::Range(0.0, 86400.0));
  pLive->add_option("--after", live.dAfterSec, "seconds to look on after its return")
      ->check(CLI::Range(1.0, 86400.0));
  pLive->add_option("--spread", live.uSpreadSec, "spread_sec")->check(CLI::Range(0, 600));
  pLive->add_option("--scale", live.uScale, "divides the times of outage, spread and back-off")
      ->check(CLI::Range(1, 100));
  pLive->add_option("--queued", live.uQueued, "uploads of 1 KB given to each link while the server is away");
  pLive->add_option("--start-over", live.dwStartOverMs, "milliseconds over which the links are started");
  pLive->add_option("--long", live.strLong,
                    "brokers to hold on to instead; their certificate is that of --dir");
  pLive->add_option("--hold", live.uHoldSec, "with --long: seconds that the fleet stays idle")
      ->check(CLI::Range(0, 86400));
  pLive->add_option("--watch", live.iWatch, "process whose memory and CPU time are printed");
  pLive->add_option("--dir", live.strDir, "where certificate, configurations and spools stand");
}

int RunCert(const std::string& strDir) {
  _FleetCert cert;
  std::string strError;
  if (!MakeFleetCert(strDir + "/", cert, strError)) {
    std::fprintf(stderr, "zxfleet: %s\n", strError.c_str());
    return 1;
  }
  std::printf("certificate and CA file %s, key %s\n", cert.strCert.c_str(), cert.strKey.c_str());
  return 0;
}

void PrintSince(const char* pszWhat, uint64_t u64Ms) {
  if (u64Ms == 0)
    std::printf("%s -  ", pszWhat);
  else
    std::printf("%s %.1f s  ", pszWhat, static_cast<double>(u64Ms) / 1000);
}

int RunSimulate(const _SimSettings& sim) {
  const _SimResult result = Simulate(sim);
  std::printf("machines %u, spread %u s, away %.1f s, capacity %u/s\n", sim.uMachines, sim.uSpreadSec,
              static_cast<double>(sim.u64AwayMs) / 1000, sim.uCapacity);
  const bool bEven = PrintAttempts(result.attempts, {sim.u64AwayMs, 60000, sim.u64AwayMs + sim.u64AfterMs});
  std::printf("up again %u of %u: ", result.uUp, sim.uMachines);
  PrintSince("half", result.u64HalfUpMs);
  PrintSince("99 of 100", result.u64MostUpMs);
  PrintSince("all", result.u64AllUpMs);
  std::printf("\nhandshakes for machines that had given up: %" PRIu64 "\n", result.u64Wasted);
  return bEven ? 0 : 1;
}

}  // namespace

int main(int iArgc, char** pArgv) {
  CLI::App app("zxfleet: what a fleet of links does to its cloud");
  app.require_subcommand(1);
  _SimSettings sim;
  _LiveSettings live;
  std::string strCertDir;
  double dAwaySec = 120;
  double dAfterSec = 600;
  DefineSimulate(app, sim, dAwaySec, dAfterSec);
  DefineLive(app, live);
  CLI::App* pCert = app.add_subcommand("cert", "the certificate alone, for a broker to be measured");
  pCert->add_option("--dir", strCertDir, "an existing directory")->required();
  try {
    app.parse(iArgc, pArgv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  if (app.got_subcommand(pCert))
    return RunCert(strCertDir);
  if (app.got_subcommand("run"))
    return RunLive(live) ? 0 : 1;
  sim.u64AwayMs = static_cast<uint64_t>(dAwaySec * 1000);
  sim.u64AfterMs = static_cast<uint64_t>(dAfterSec * 1000);
  return RunSimulate(sim);
}
