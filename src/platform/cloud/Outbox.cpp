#include "platform/cloud/Outbox.h"

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

TOutItem MakeOutItem(uint64_t u64Seq, int iPriority, std::string strId, std::string_view svBody) {
  auto pItem = std::make_shared<_OutItem>();
  pItem->u64Seq = u64Seq;
  pItem->iPriority = iPriority;
  pItem->strWire.reserve(strId.size() + 5 + svBody.size());
  pItem->strWire.append("zx1 ").append(strId).append("\n");
  pItem->uBody = pItem->strWire.size();
  pItem->strWire.append(svBody);
  pItem->strId = std::move(strId);
  return pItem;
}

CMemoryOutbox::CMemoryOutbox(size_t uMaxBytes) : m_uMaxBytes(uMaxBytes) {}

bool CMemoryOutbox::Add(TOutItem pItem) {
  const int iIndex = PriorityIndex(pItem->iPriority);
  if (iIndex < 0)
    return false;
  const size_t uBound = IsUrgent(iIndex) ? m_uMaxBytes : m_uMaxBytes - m_uMaxBytes / kReservePart;
  const size_t uCost = Cost(*pItem);
  CCritLock lock(m_cs);
  if (m_uBytes + uCost > uBound)
    return false;
  const uint64_t u64Seq = pItem->u64Seq;
  m_queues[static_cast<size_t>(iIndex)].emplace(u64Seq, std::move(pItem));
  m_uBytes += uCost;
  ++m_uWaiting;
  return true;
}

int CMemoryOutbox::FirstOf(int iFrom) const {
  for (int i = iFrom; i < iFrom + kGroup; ++i) {
    if (!m_queues[static_cast<size_t>(i)].empty())
      return i;
  }
  return -1;
}

int CMemoryOutbox::NextQueue() const {
  const int iFirst = FirstOf(0);
  const int iSecond = FirstOf(kGroup);
  if (iFirst < 0 || iSecond < 0)
    return iFirst < 0 ? iSecond : iFirst;
  return m_uTurn % kSecondGroupTurn == kSecondGroupTurn - 1 ? iSecond : iFirst;
}

TOutItem CMemoryOutbox::Take(const _OutRoom& room) {
  CCritLock lock(m_cs);
  // An urgent entry may use room that the one whose turn it is may not.
  for (const int iIndex : {NextQueue(), 0, kGroup}) {
    if (iIndex < 0)
      return nullptr;
    TQueue& queue = m_queues[static_cast<size_t>(iIndex)];
    const auto it = queue.begin();
    if (it == queue.end() || !Fits(*it->second, iIndex, room))
      continue;
    TOutItem pItem = it->second;
    m_mapTaken.emplace(pItem->u64Seq, _Taken{pItem, false});
    queue.erase(it);
    --m_uWaiting;
    ++m_uTurn;
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
  const auto uIndex = static_cast<size_t>(PriorityIndex(pItem->iPriority));
  m_queues[uIndex].emplace(u64Seq, std::move(pItem));
  ++m_uWaiting;
}

void CMemoryOutbox::Cancel(uint64_t u64Seq) {
  CCritLock lock(m_cs);
  if (const auto it = m_mapTaken.find(u64Seq); it != m_mapTaken.end()) {
    it->second.bCancelled = true;
    return;
  }
  for (TQueue& queue : m_queues) {
    if (const auto it = queue.find(u64Seq); it != queue.end()) {
      m_uBytes -= Cost(*it->second);
      --m_uWaiting;
      queue.erase(it);
      return;
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

}  // namespace zxcloud
