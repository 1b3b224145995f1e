#include "platform/cloud/Outbox.h"

#include <algorithm>
#include <utility>

namespace zxcloud {

namespace {

constexpr int kGroup = 4;  // entries of one group in m_queues
constexpr uint32_t kSecondGroupTurn = 4;
constexpr size_t kReservePart = 16;    // one part in this many of the bound is for urgent entries
constexpr size_t kItemOverhead = 256;  // what an entry costs beside its text

size_t Cost(const _OutItem& item) {
  return item.Bytes() + kItemOverhead;
}

bool IsUrgent(int iIndex) {
  return iIndex % kGroup == 0;
}

bool Fits(const _OutItem& item, int iIndex, const _OutRoom& room) {
  if (room.uMessages == 0)
    return false;
  if (room.bIdle)
    return true;
  const uint32_t uMessages = IsUrgent(iIndex) ? 0 : room.uReserveMessages;
  const size_t uBytes = IsUrgent(iIndex) ? 0 : room.uReserveBytes;
  return room.uMessages > uMessages && item.Bytes() + uBytes <= room.uBytes;
}

}  // namespace

int PriorityIndex(int iPriority) {
  if (iPriority >= 0 && iPriority <= 3)
    return iPriority;
  return iPriority >= 10 && iPriority <= 13 ? iPriority - 10 + kGroup : -1;
}

std::shared_ptr<_OutItem> MakeOutItem(uint64_t u64Seq, int iPriority, std::string strId,
                                      std::string_view svBody, bool bWaited) {
  auto pItem = std::make_shared<_OutItem>();
  pItem->u64Seq = u64Seq;
  pItem->iPriority = iPriority;
  pItem->bWaited = bWaited;
  pItem->strWire.reserve(strId.size() + 5 + svBody.size());
  pItem->strWire.append("zx1 ").append(strId).append("\n");
  pItem->uBody = pItem->strWire.size();
  pItem->strWire.append(svBody);
  pItem->strId = std::move(strId);
  return pItem;
}

CMemoryOutbox::CMemoryOutbox(size_t uMaxBytes, IClock& clock) : m_uMaxBytes(uMaxBytes), m_clock(clock) {}

CMemoryOutbox::TQueue& CMemoryOutbox::QueueOf(const _OutItem& item) {
  const auto uIndex = static_cast<size_t>(PriorityIndex(item.iPriority));
  const auto uLane = static_cast<size_t>(LaneOf(item.Body().size()));
  return m_queues[uIndex][uLane * 2 + (item.bWaited ? 1 : 0)];
}

bool CMemoryOutbox::Add(std::shared_ptr<_OutItem> pItem) {
  const int iIndex = PriorityIndex(pItem->iPriority);
  if (iIndex < 0)
    return false;
  const size_t uBound = IsUrgent(iIndex) ? m_uMaxBytes : m_uMaxBytes - m_uMaxBytes / kReservePart;
  const size_t uCost = Cost(*pItem);
  pItem->u64Added = m_clock.NowMs();
  CCritLock lock(m_cs);
  if (m_uBytes + uCost > uBound)
    return false;
  const uint64_t u64Seq = pItem->u64Seq;
  TQueue& queue = QueueOf(*pItem);
  queue.emplace_hint(queue.end(), u64Seq, std::move(pItem));
  m_uBytes += uCost;
  ++m_uWaiting;
  return true;
}

// The queue of a priority whose first entry is the oldest that the room admits; null: none.
CMemoryOutbox::TQueue* CMemoryOutbox::OldestOf(int iIndex, const _OutRoom& room) {
  TQueue* pOldest = nullptr;
  for (size_t u = 0; u < m_queues[0].size(); ++u) {
    TQueue& queue = m_queues[static_cast<size_t>(iIndex)][u];
    const bool bAdmitted = (room.eLane == ELane::Any || u / 2 == static_cast<size_t>(room.eLane)) &&
                           (!room.bWaitedOnly || u % 2 == 1);
    if (bAdmitted && !queue.empty() && (pOldest == nullptr || queue.begin()->first < pOldest->begin()->first))
      pOldest = &queue;
  }
  return pOldest;
}

int CMemoryOutbox::FirstOf(int iFrom, const _OutRoom& room) {
  for (int i = iFrom; i < iFrom + kGroup; ++i) {
    if (OldestOf(i, room) != nullptr)
      return i;
  }
  return -1;
}

int CMemoryOutbox::NextPriority(const _OutRoom& room) {
  const int iFirst = FirstOf(0, room);
  const int iSecond = FirstOf(kGroup, room);
  if (iFirst < 0 || iSecond < 0)
    return iFirst < 0 ? iSecond : iFirst;
  const uint32_t uTurn = m_uTurns[static_cast<size_t>(room.eLane)];
  return uTurn % kSecondGroupTurn == kSecondGroupTurn - 1 ? iSecond : iFirst;
}

TOutItem CMemoryOutbox::Take(const _OutRoom& room) {
  CCritLock lock(m_cs);
  if (m_uWaiting == 0)
    return nullptr;
  // An urgent entry may use room that the one whose turn it is may not.
  for (const int iIndex : {NextPriority(room), 0, kGroup}) {
    if (iIndex < 0)
      return nullptr;
    TQueue* pQueue = OldestOf(iIndex, room);
    if (pQueue == nullptr || !Fits(*pQueue->begin()->second, iIndex, room))
      continue;
    TOutItem pItem = std::move(pQueue->begin()->second);
    pQueue->erase(pQueue->begin());
    m_mapTaken.emplace(pItem->u64Seq, _Taken{pItem, false});
    --m_uWaiting;
    ++m_uTurns[static_cast<size_t>(room.eLane)];
    return pItem;
  }
  return nullptr;
}

void CMemoryOutbox::Done(uint64_t u64Seq) {
  CCritLock lock(m_cs);
  const auto it = m_mapTaken.find(u64Seq);
  if (it == m_mapTaken.end())
    return;
  m_uBytes -= Cost(*it->second.pItem);
  m_mapTaken.erase(it);
}

void CMemoryOutbox::Return(uint64_t u64Seq) {
  CCritLock lock(m_cs);
  const auto it = m_mapTaken.find(u64Seq);
  if (it == m_mapTaken.end())
    return;
  TOutItem pItem = std::move(it->second.pItem);
  const bool bCancelled = it->second.bCancelled;
  m_mapTaken.erase(it);
  if (bCancelled) {
    m_uBytes -= Cost(*pItem);
    return;
  }
  TQueue& queue = QueueOf(*pItem);
  queue.emplace(u64Seq, std::move(pItem));
  ++m_uWaiting;
}

void CMemoryOutbox::Cancel(uint64_t u64Seq) {
  CCritLock lock(m_cs);
  if (const auto it = m_mapTaken.find(u64Seq); it != m_mapTaken.end()) {
    it->second.bCancelled = true;
    return;
  }
  for (TQueues& queues : m_queues) {
    for (TQueue& queue : queues) {
      if (const auto it = queue.find(u64Seq); it != queue.end()) {
        m_uBytes -= Cost(*it->second);
        --m_uWaiting;
        queue.erase(it);
        return;
      }
    }
  }
}

size_t CMemoryOutbox::Waiting() {
  CCritLock lock(m_cs);
  return m_uWaiting;
}

size_t CMemoryOutbox::Bytes() {
  CCritLock lock(m_cs);
  return m_uBytes;
}

_OutboxState CMemoryOutbox::State() {
  const uint64_t u64Now = m_clock.NowMs();
  CCritLock lock(m_cs);
  uint64_t u64Oldest = u64Now;
  for (const TQueues& queues : m_queues) {
    for (const TQueue& queue : queues) {
      if (!queue.empty())
        u64Oldest = std::min(u64Oldest, queue.begin()->second->u64Added);
    }
  }
  for (const auto& [u64Seq, taken] : m_mapTaken)
    u64Oldest = std::min(u64Oldest, taken.pItem->u64Added);
  return {m_uWaiting, m_uWaiting + m_mapTaken.size(), m_uBytes, u64Now - u64Oldest};
}

}  // namespace zxcloud
