// zxfleet: what a fleet of links does to its cloud. Exit codes: 0 done and even, 1 not even or failed, 2
// wrong usage.
#include <CLI/CLI.hpp>
#include <cinttypes>
#include <cstdio>

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
  pSim->add_option("--capacity", sim.uCapacity,
                   "connections per second that the brokers make; 0: any number");
  pSim->add_option("--backlog", sim.uBacklog, "connections that wait for that; more are not answered");
  pSim->add_flag("--silent", sim.bSilent, "away means no answer, instead of a refusal");
  pSim->add_option("--seed", sim.u64Seed, "another one, another chance");
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
  double dAwaySec = 120;
  double dAfterSec = 600;
  DefineSimulate(app, sim, dAwaySec, dAfterSec);
  try {
    app.parse(iArgc, pArgv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  sim.u64AwayMs = static_cast<uint64_t>(dAwaySec * 1000);
  sim.u64AfterMs = static_cast<uint64_t>(dAfterSec * 1000);
  return RunSimulate(sim);
}
