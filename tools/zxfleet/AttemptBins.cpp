#include "AttemptBins.h"

#include <algorithm>
#include <cmath>

namespace zxfleet {

void CAttemptBins::Add(uint64_t u64AtMs) {
  const auto uBin = static_cast<size_t>(u64AtMs / m_u64BinMs);
  if (uBin >= m_listCounts.size())
    m_listCounts.resize(uBin + 1);
  ++m_listCounts[uBin];
}

uint64_t CAttemptBins::Sum(uint64_t u64From, uint64_t u64To) const {
  uint64_t u64Sum = 0;
  for (size_t i = u64From / m_u64BinMs; i < u64To / m_u64BinMs; ++i)
    u64Sum += At(i);
  return u64Sum;
}

uint64_t CAttemptBins::Peak(uint64_t u64From, uint64_t u64To) const {
  uint64_t u64Peak = 0;
  for (size_t i = u64From / m_u64BinMs; i < u64To / m_u64BinMs; ++i)
    u64Peak = std::max(u64Peak, At(i));
  return u64Peak;
}

double CAttemptBins::Mean(uint64_t u64From, uint64_t u64To) const {
  const uint64_t u64Bins = u64To / m_u64BinMs - u64From / m_u64BinMs;
  return u64Bins == 0 ? 0 : static_cast<double>(Sum(u64From, u64To)) / static_cast<double>(u64Bins);
}

double CAttemptBins::PeakOverMean(uint64_t u64From, uint64_t u64To) const {
  const double dMean = Mean(u64From, u64To);
  return dMean <= 0 ? 0 : static_cast<double>(Peak(u64From, u64To)) / dMean;
}

CAttemptBins CAttemptBins::Coarser(uint64_t u64BinMs) const {
  CAttemptBins bins(u64BinMs);
  bins.m_listCounts.resize((End() + u64BinMs - 1) / u64BinMs);
  for (size_t i = 0; i < m_listCounts.size(); ++i)
    bins.m_listCounts[i * m_u64BinMs / u64BinMs] += m_listCounts[i];
  return bins;
}

double PeakOverMeanByChance(double dMean, uint64_t uBins) {
  if (dMean <= 0 || uBins == 0)
    return 0;
  // Poisson: the smallest k that a bin exceeds with less than a share of 1 - 0.5^(1/uBins).
  const double dShare = 1 - std::pow(0.5, 1.0 / static_cast<double>(uBins));
  double dTerm = std::exp(-dMean);
  double dAbove = 1 - dTerm;
  uint64_t k = 0;
  if (dTerm <= 0)  // too many for the sum: the normal distribution is close enough
    return (dMean + std::sqrt(2 * dMean * std::log(static_cast<double>(uBins)))) / dMean;
  while (dAbove > dShare && k < 100000) {
    ++k;
    dTerm *= dMean / static_cast<double>(k);
    dAbove -= dTerm;
  }
  return static_cast<double>(k) / dMean;
}

}  // namespace zxfleet
