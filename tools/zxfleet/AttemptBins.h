// Counts what happens over time in bins of one width, and says how even it was. Times in milliseconds.
// One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zxfleet {

class CAttemptBins {
 public:
  explicit CAttemptBins(uint64_t u64BinMs) : m_u64BinMs(u64BinMs) {}

  void Add(uint64_t u64AtMs);
  uint64_t BinMs() const { return m_u64BinMs; }
  // Within [u64From, u64To); both are rounded down to whole bins.
  uint64_t Sum(uint64_t u64From, uint64_t u64To) const;
  uint64_t Peak(uint64_t u64From, uint64_t u64To) const;
  double Mean(uint64_t u64From, uint64_t u64To) const;  // per bin
  double PeakOverMean(uint64_t u64From, uint64_t u64To) const;
  CAttemptBins Coarser(uint64_t u64BinMs) const;  // a multiple of this one's width
  uint64_t End() const { return m_listCounts.size() * m_u64BinMs; }

 private:
  uint64_t At(size_t uBin) const { return uBin < m_listCounts.size() ? m_listCounts[uBin] : 0; }

  uint64_t m_u64BinMs;
  std::vector<uint64_t> m_listCounts;
};

// What the highest of uBins bins holds, over their mean, when dMean attempts fall into each by pure chance:
// the value that half of all evenly spread fleets stay below. No spread can do better than this.
double PeakOverMeanByChance(double dMean, uint64_t uBins);

}  // namespace zxfleet
