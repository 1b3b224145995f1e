#include "platform/cloud/SpoolIndex.h"

#include <algorithm>
#include <unordered_set>
#include <utility>

namespace zxcloud {

namespace {

bool Older(const _SpoolEntry& entry, uint64_t u64Row) {
  return entry.u64Row < u64Row;
}

}  // namespace

void CSpoolIndex::PushBody(_Queue& queue, size_t uAt, TOutItem pItem) {
  queue.uBodyBytes += pItem->Bytes();
  m_uBodyBytes += pItem->Bytes();
  ++m_uReady;
  queue.bodies.insert(queue.bodies.begin() + static_cast<ptrdiff_t>(uAt), std::move(pItem));
}

void CSpoolIndex::PopBody(_Queue& queue, size_t uAt) {
  const auto it = queue.bodies.begin() + static_cast<ptrdiff_t>(uAt);
  queue.uBodyBytes -= (*it)->Bytes();
  m_uBodyBytes -= (*it)->Bytes();
  --m_uReady;
  queue.bodies.erase(it);
}

void CSpoolIndex::EraseAt(_Queue& queue, size_t uAt) {
  if (uAt < queue.bodies.size())
    PopBody(queue, uAt);
  queue.entries.erase(queue.entries.begin() + static_cast<ptrdiff_t>(uAt));
  --m_uWaiting;
}

void CSpoolIndex::KeepLoadedPrefix(_Queue& queue, size_t uCount) {
  while (queue.bodies.size() > uCount)
    PopBody(queue, queue.bodies.size() - 1);
}

void CSpoolIndex::Add(int iQueue, const _SpoolEntry& entry, TOutItem pItem) {
  _Queue& queue = Queue(iQueue);
  // Callers that were numbered one after another may be committed the other way round.
  const auto it = std::upper_bound(queue.entries.begin(), queue.entries.end(), entry.u64Row,
                                   [](uint64_t u64, const _SpoolEntry& other) { return u64 < other.u64Row; });
  const auto uAt = static_cast<size_t>(it - queue.entries.begin());
  const bool bAllLoaded = queue.bodies.size() == queue.entries.size();
  queue.entries.insert(it, entry);
  ++m_uWaiting;
  m_uCost += entry.Cost();
  if (uAt < queue.bodies.size() || (bAllLoaded && m_uBodyBytes + pItem->Bytes() <= kFreshBytes))
    PushBody(queue, uAt, std::move(pItem));
}

_SpoolCount CSpoolIndex::Recover(const std::vector<std::pair<int, _SpoolEntry>>& listFound) {
  std::unordered_set<uint64_t> setKnown;
  for (const _Queue& queue : m_queues) {
    for (const _SpoolEntry& entry : queue.entries)
      setKnown.insert(entry.u64Row);
  }
  for (const auto& [u64Row, taken] : m_mapTaken)
    setKnown.insert(u64Row);
  for (const _SpoolEntry& entry : m_listDone)
    setKnown.insert(entry.u64Row);
  _SpoolCount count;
  for (const auto& [iQueue, entry] : listFound) {
    if (!setKnown.insert(entry.u64Row).second)
      continue;
    _Queue& queue = Queue(iQueue);
    if (queue.entries.empty() || Older(queue.entries.back(), entry.u64Row)) {
      queue.entries.push_back(entry);
    } else {
      const auto it = std::lower_bound(queue.entries.begin(), queue.entries.end(), entry.u64Row, Older);
      KeepLoadedPrefix(queue, static_cast<size_t>(it - queue.entries.begin()));
      queue.entries.insert(it, entry);
    }
    ++m_uWaiting;
    ++count.uRecords;
    count.uCost += entry.Cost();
  }
  m_uCost += count.uCost;
  return count;
}

_SpoolCount CSpoolIndex::DropUnloaded() {
  _SpoolCount count;
  for (_Queue& queue : m_queues) {
    for (; queue.entries.size() > queue.bodies.size(); queue.entries.pop_back()) {
      ++count.uRecords;
      count.uCost += queue.entries.back().Cost();
    }
  }
  m_uWaiting -= count.uRecords;
  m_uCost -= count.uCost;
  return count;
}

TOutItem CSpoolIndex::Take(int iQueue) {
  _Queue& queue = Queue(iQueue);
  TOutItem pItem = queue.bodies.front();
  m_mapTaken.emplace(queue.entries.front().u64Row, _Taken{iQueue, queue.entries.front(), pItem});
  EraseAt(queue, 0);
  return pItem;
}

bool CSpoolIndex::WantsBodies() const {
  return std::any_of(m_queues.begin(), m_queues.end(), [](const _Queue& queue) {
    return queue.bodies.size() < queue.entries.size() && queue.bodies.size() < kAheadLowEntries &&
           queue.uBodyBytes < kAheadBytes / 2;
  });
}

void CSpoolIndex::Done(uint64_t u64Row) {
  const auto it = m_mapTaken.find(u64Row);
  if (it == m_mapTaken.end())
    return;
  m_uCost -= it->second.entry.Cost();
  m_listDone.push_back(it->second.entry);
  m_mapTaken.erase(it);
}

void CSpoolIndex::Return(uint64_t u64Row) {
  const auto it = m_mapTaken.find(u64Row);
  if (it == m_mapTaken.end())
    return;
  _Taken taken = std::move(it->second);
  m_mapTaken.erase(it);
  _Queue& queue = Queue(taken.iQueue);
  const auto itPlace = std::lower_bound(queue.entries.begin(), queue.entries.end(), u64Row, Older);
  const auto uAt = static_cast<size_t>(itPlace - queue.entries.begin());
  queue.entries.insert(itPlace, taken.entry);
  ++m_uWaiting;
  if (uAt <= queue.bodies.size())
    PushBody(queue, uAt, std::move(taken.pItem));
}

std::vector<_SpoolEntry> CSpoolIndex::SwapDone() {
  return std::exchange(m_listDone, {});
}

void CSpoolIndex::BackDone(std::vector<_SpoolEntry> listDone) {
  m_listDone.insert(m_listDone.end(), listDone.begin(), listDone.end());
}

std::vector<uint64_t> CSpoolIndex::RowsToLoad(int iQueue) const {
  const _Queue& queue = Queue(iQueue);
  std::vector<uint64_t> listRows;
  size_t uBytes = queue.uBodyBytes;
  for (size_t u = queue.bodies.size(); u < queue.entries.size() && u < kAheadEntries; ++u) {
    uBytes += queue.entries[u].uBytes;
    if (uBytes > kAheadBytes && u > 0)
      break;
    listRows.push_back(queue.entries[u].u64Row);
  }
  return listRows;
}

void CSpoolIndex::Loaded(int iQueue, TOutItem pItem) {
  _Queue& queue = Queue(iQueue);
  const size_t uNext = queue.bodies.size();
  // Anything else: it was expired while it was read.
  if (uNext < queue.entries.size() && (queue.entries[uNext].u64Row | kSpoolBit) == pItem->u64Seq)
    PushBody(queue, uNext, std::move(pItem));
}

void CSpoolIndex::Lost(int iQueue, uint64_t u64Row) {
  _Queue& queue = Queue(iQueue);
  const auto it = std::lower_bound(queue.entries.begin(), queue.entries.end(), u64Row, Older);
  if (it == queue.entries.end() || it->u64Row != u64Row)
    return;
  m_uCost -= it->Cost();
  m_listDone.push_back(*it);
  EraseAt(queue, static_cast<size_t>(it - queue.entries.begin()));
}

size_t CSpoolIndex::Expire(uint32_t uCreatedSec) {
  size_t uExpired = 0;
  for (_Queue& queue : m_queues) {
    _Queue kept;
    const size_t uBefore = queue.entries.size();
    for (size_t u = 0; u < uBefore; ++u) {
      const _SpoolEntry& entry = queue.entries[u];
      if (entry.uCreatedSec <= uCreatedSec) {
        m_uCost -= entry.Cost();
        m_listDone.push_back(entry);
        continue;
      }
      kept.entries.push_back(entry);
      if (u < queue.bodies.size()) {
        kept.uBodyBytes += queue.bodies[u]->Bytes();
        kept.bodies.push_back(std::move(queue.bodies[u]));
      }
    }
    const size_t uGone = uBefore - kept.entries.size();
    if (uGone != 0) {
      m_uReady -= queue.bodies.size() - kept.bodies.size();
      m_uBodyBytes -= queue.uBodyBytes - kept.uBodyBytes;
      m_uWaiting -= uGone;
      uExpired += uGone;
    }
    queue = std::move(kept);
  }
  return uExpired;
}

std::optional<uint32_t> CSpoolIndex::OldestSec() const {
  std::optional<uint32_t> oldest;
  const auto Older = [&oldest](uint32_t uSec) { oldest = std::min(oldest.value_or(uSec), uSec); };
  for (const _Queue& queue : m_queues) {
    if (!queue.entries.empty())
      Older(queue.entries.front().uCreatedSec);
  }
  for (const auto& [u64Row, taken] : m_mapTaken)
    Older(taken.entry.uCreatedSec);
  return oldest;
}

}  // namespace zxcloud
