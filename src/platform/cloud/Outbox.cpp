#include "platform/cloud/Outbox.h"

#include <algorithm>
#include <utility>

namespace zxcloud {

namespace {

constexpr uint32_t kSecondGroupTurn = 4;
constexpr size_t kReservePart = 16;  // one part in this many of the bound is for urgent entries
constexpr size_t kDoneAtOnce = 256;  // so many done records are worth a commit of their own

size_t Cost(const _OutItem& item) {
  return item.Bytes() + kItemOverhead;
}

bool Fits(size_t uBytes, int iIndex, const _OutRoom& room) {
  if (room.uMessages == 0)
    return false;
  if (room.bIdle)
    return true;
  const uint32_t uReserveMessages = IsUrgent(iIndex) ? 0 : room.uReserveMessages;
  const size_t uReserveBytes = IsUrgent(iIndex) ? 0 : room.uReserveBytes;
  return room.uMessages > uReserveMessages && uBytes + uReserveBytes <= room.uBytes;
}

}  // namespace

COutbox::COutbox(size_t uMaxBytes, IClock& clock) : m_uMaxBytes(uMaxBytes), m_clock(clock) {}

COutbox::TQueue& COutbox::QueueOf(const _OutItem& item) {
  const auto uIndex = static_cast<size_t>(PriorityIndex(item.iPriority));
  const auto uLane = static_cast<size_t>(LaneOf(item.Body().size()));
  return m_queues[uIndex][uLane * 2 + (item.bWaited ? 1 : 0)];
}

bool COutbox::Add(std::shared_ptr<_OutItem> pItem) {
  const int iIndex = PriorityIndex(pItem->iPriority);
  if (iIndex < 0)
    return false;
  const size_t uBound = IsUrgent(iIndex) ? m_uMaxBytes : m_uMaxBytes - m_uMaxBytes / kReservePart;
  const size_t uCost = Cost(*pItem);
  pItem->u64Added = m_clock.NowMs();
  pItem->u64Stamp = m_u64NewestRow.load();
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
COutbox::TQueue* COutbox::OldestInMemory(int iIndex, const _OutRoom& room) {
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

// Of those whose first body is there. Nobody waits for what is spooled.
int COutbox::OldestSpooled(int iIndex, const _OutRoom& room) {
  int iOldest = -1;
  for (const ELane eLane : {ELane::Command, ELane::Bulk}) {
    const int iQueue = SpoolQueue(iIndex, eLane);
    const bool bAdmitted = (room.eLane == ELane::Any || room.eLane == eLane) && !room.bWaitedOnly;
    if (bAdmitted && m_index.FrontLoaded(iQueue) &&
        (iOldest < 0 || m_index.Front(iQueue).u64Row < m_index.Front(iOldest).u64Row))
      iOldest = iQueue;
  }
  return iOldest;
}

COutbox::_Head COutbox::OldestOf(int iIndex, const _OutRoom& room) {
  TQueue* pQueue = OldestInMemory(iIndex, room);
  const int iSpool = OldestSpooled(iIndex, room);
  if (pQueue == nullptr || iSpool < 0)
    return {pQueue, iSpool};
  const bool bSpool = m_index.Front(iSpool).u64Row <= pQueue->begin()->second->u64Stamp;
  return bSpool ? _Head{nullptr, iSpool} : _Head{pQueue, -1};
}

int COutbox::FirstOf(int iFrom, const _OutRoom& room) {
  for (int i = iFrom; i < iFrom + kPriorityGroup; ++i) {
    if (!OldestOf(i, room).None())
      return i;
  }
  return -1;
}

int COutbox::NextPriority(const _OutRoom& room) {
  const int iFirst = FirstOf(0, room);
  const int iSecond = FirstOf(kPriorityGroup, room);
  if (iFirst < 0 || iSecond < 0)
    return iFirst < 0 ? iSecond : iFirst;
  const uint32_t uTurn = m_uTurns[static_cast<size_t>(room.eLane)];
  return uTurn % kSecondGroupTurn == kSecondGroupTurn - 1 ? iSecond : iFirst;
}

TOutItem COutbox::TakeHead(const _Head& head) {
  if (head.iSpool >= 0)
    return m_index.Take(head.iSpool);
  TOutItem pItem = std::move(head.pQueue->begin()->second);
  head.pQueue->erase(head.pQueue->begin());
  m_mapTaken.emplace(pItem->u64Seq, _Taken{pItem, false});
  --m_uWaiting;
  return pItem;
}

TOutItem COutbox::TakeNext(const _OutRoom& room) {
  // An urgent entry may use room that the one whose turn it is may not.
  for (const int iIndex : {NextPriority(room), 0, kPriorityGroup}) {
    if (iIndex < 0)
      return nullptr;
    const _Head head = OldestOf(iIndex, room);
    if (head.None())
      continue;
    const size_t uBytes =
        head.iSpool >= 0 ? m_index.Front(head.iSpool).uBytes : head.pQueue->begin()->second->Bytes();
    if (!Fits(uBytes, iIndex, room))
      continue;
    ++m_uTurns[static_cast<size_t>(room.eLane)];
    return TakeHead(head);
  }
  return nullptr;
}

TOutItem COutbox::Take(const _OutRoom& room) {
  TOutItem pItem;
  bool bWantBodies = false;
  {
    CCritLock lock(m_cs);
    if (m_uWaiting + m_index.Ready() != 0)
      pItem = TakeNext(room);
    bWantBodies = m_index.Waiting() != m_index.Ready() && m_index.WantsBodies();
  }
  if (bWantBodies && m_pSpool != nullptr)
    m_pSpool->WantBodies();
  return pItem;
}

void COutbox::Done(uint64_t u64Seq) {
  bool bWantDeletes = false;
  {
    CCritLock lock(m_cs);
    if ((u64Seq & kSpoolBit) != 0) {
      m_index.Done(u64Seq & ~kSpoolBit);
      const size_t uDone = m_index.DoneCount();
      bWantDeletes = uDone == 1 || uDone % kDoneAtOnce == 0;
    } else if (const auto it = m_mapTaken.find(u64Seq); it != m_mapTaken.end()) {
      m_uBytes -= Cost(*it->second.pItem);
      m_mapTaken.erase(it);
    }
  }
  if (bWantDeletes && m_pSpool != nullptr)
    m_pSpool->WantDeletes();
}

void COutbox::Return(uint64_t u64Seq) {
  CCritLock lock(m_cs);
  if ((u64Seq & kSpoolBit) != 0) {
    m_index.Return(u64Seq & ~kSpoolBit);
    return;
  }
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

void COutbox::Cancel(uint64_t u64Seq) {
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

size_t COutbox::Waiting() {
  size_t uWaiting = 0;
  bool bWantBodies = false;
  {
    CCritLock lock(m_cs);
    uWaiting = m_uWaiting + m_index.Waiting();
    bWantBodies = uWaiting != 0 && m_uWaiting + m_index.Ready() == 0;
  }
  if (bWantBodies && m_pSpool != nullptr)
    m_pSpool->WantBodies();
  return uWaiting;
}

size_t COutbox::Bytes() {
  CCritLock lock(m_cs);
  return m_uBytes;
}

_OutboxState COutbox::State() {
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
  const size_t uWaiting = m_uWaiting + m_index.Waiting();
  return {uWaiting, uWaiting + m_mapTaken.size() + m_index.Taken(), m_uBytes + m_index.Cost(),
          u64Now - u64Oldest};
}

void COutbox::RowsUpTo(uint64_t u64Row) {
  uint64_t u64Newest = m_u64NewestRow.load();
  while (u64Newest < u64Row && !m_u64NewestRow.compare_exchange_weak(u64Newest, u64Row)) {
  }
}

void COutbox::AddSpooled(const std::vector<std::pair<_SpoolEntry, TOutItem>>& listItems) {
  CCritLock lock(m_cs);
  for (const auto& [entry, pItem] : listItems)
    m_index.Add(SpoolQueue(PriorityIndex(pItem->iPriority), LaneOf(pItem->Body().size())), entry, pItem);
}

_SpoolCount COutbox::Recover(const std::vector<std::pair<int, _SpoolEntry>>& listFound) {
  CCritLock lock(m_cs);
  return m_index.Recover(listFound);
}

_SpoolCount COutbox::DropUnloaded() {
  CCritLock lock(m_cs);
  return m_index.DropUnloaded();
}

std::vector<_SpoolEntry> COutbox::SwapDone() {
  CCritLock lock(m_cs);
  return m_index.SwapDone();
}

void COutbox::BackDone(std::vector<_SpoolEntry> listDone) {
  CCritLock lock(m_cs);
  m_index.BackDone(std::move(listDone));
}

size_t COutbox::DoneCount() {
  CCritLock lock(m_cs);
  return m_index.DoneCount();
}

std::vector<uint64_t> COutbox::RowsToLoad(int iQueue) {
  CCritLock lock(m_cs);
  return m_index.RowsToLoad(iQueue);
}

void COutbox::Loaded(int iQueue, TOutItem pItem) {
  CCritLock lock(m_cs);
  m_index.Loaded(iQueue, std::move(pItem));
}

void COutbox::Lost(int iQueue, uint64_t u64Row) {
  CCritLock lock(m_cs);
  m_index.Lost(iQueue, u64Row);
}

size_t COutbox::Expire(uint32_t uCreatedSec) {
  CCritLock lock(m_cs);
  return m_index.Expire(uCreatedSec);
}

COutbox::_Spooled COutbox::Spooled() {
  CCritLock lock(m_cs);
  return {m_index.Waiting(), m_index.Taken(), m_index.BodyBytes(), m_index.OldestSec()};
}

}  // namespace zxcloud
