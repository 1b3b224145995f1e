#include "Report.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace zxfleet {

namespace {

constexpr double kMostPeakOverMean = 3;
constexpr double kChanceMargin = 1.5;
constexpr uint64_t kHonestBinMs = 100;
constexpr uint64_t kCoarse = 10;    // bins of the measure in one of the second measure, at least
constexpr uint64_t kStallMs = 500;  // a busy machine may take this long to run a thread
constexpr uint64_t kRows = 24;

void PrintRows(const CAttemptBins& attempts, const _Outage& outage) {
  const uint64_t u64Row = outage.u64MinuteMs / 6;
  const CAttemptBins rows = attempts.Coarser(u64Row);
  const uint64_t u64End = std::min(outage.u64EndMs, outage.u64ReturnMs + kRows * u64Row);
  std::printf("  from the return   attempts\n");
  for (uint64_t u64At = 0; u64At < u64End; u64At += u64Row) {
    const double dFrom = (static_cast<double>(u64At) - static_cast<double>(outage.u64ReturnMs)) / 1000;
    std::printf("  %+13.1f s %10" PRIu64 "\n", dFrom, rows.Sum(u64At, u64At + u64Row));
  }
}

}  // namespace

bool PrintAttempts(const CAttemptBins& attempts, const _Outage& outage) {
  const uint64_t u64From = outage.u64ReturnMs;
  const uint64_t u64To = u64From + outage.u64MinuteMs;
  const CAttemptBins coarse = attempts.Coarser(std::max(attempts.BinMs() * kCoarse, kStallMs));
  const double dPeak = attempts.PeakOverMean(u64From, u64To);
  const double dChance =
      PeakOverMeanByChance(attempts.Mean(u64From, u64To), (u64To - u64From) / attempts.BinMs());
  const double dMean = coarse.Mean(u64From, u64To);
  const auto dLater = static_cast<double>(coarse.Peak(u64To, std::max(u64To, outage.u64EndMs)));
  PrintRows(attempts, outage);
  std::printf("first minute: attempts %" PRIu64 ", bins of %" PRIu64 " ms: mean %.2f peak %" PRIu64
              ", peak over mean %.2f (chance alone: %.2f)\n",
              attempts.Sum(u64From, u64To), attempts.BinMs(), attempts.Mean(u64From, u64To),
              attempts.Peak(u64From, u64To), dPeak, dChance);
  std::printf("              bins of %" PRIu64
              " ms: peak over mean %.2f; highest bin later, over that mean %.2f\n",
              coarse.BinMs(), coarse.PeakOverMean(u64From, u64To), dMean > 0 ? dLater / dMean : 0);
  if (dLater > std::max(dMean, 1.0) * 2)
    return false;
  if (attempts.BinMs() >= kHonestBinMs)
    return dPeak < std::max(kMostPeakOverMean, kChanceMargin * dChance);
  // In scaled time the fine bins show when the machine ran the threads.
  const double dCoarseChance = PeakOverMeanByChance(dMean, (u64To - u64From) / coarse.BinMs());
  return coarse.PeakOverMean(u64From, u64To) < std::max(kMostPeakOverMean, 2 * dCoarseChance);
}

}  // namespace zxfleet
