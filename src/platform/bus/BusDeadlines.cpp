#include "platform/bus/BusDeadlines.h"

#include <algorithm>

#include "platform/bus/BusClock.h"

void CBusDeadlines::Insert(const CBusRef<CBusCall>& call, uint64_t u64NowNs) {
  if (m_lists.size() > kKeepLists)
    std::erase_if(m_lists, [](const auto& entry) { return entry.second.pHead == nullptr; });
  CBusDeadlineList& list = m_lists[call->uiTimeoutMs];

  CBusCall* pCall = CBusRef<CBusCall>(call).Detach();
  pCall->u64DeadlineNs = u64NowNs + pCall->uiTimeoutMs * kBusNsPerMs;
  pCall->pDeadlineList = &list;
  pCall->pNextDeadline = nullptr;
  pCall->pPrevDeadline = list.pTail;
  (list.pTail != nullptr ? list.pTail->pNextDeadline : list.pHead) = pCall;
  list.pTail = pCall;
  ++m_uCount;
  m_u64EarliestNs = std::min(m_u64EarliestNs, pCall->u64DeadlineNs);
}

CBusRef<CBusCall> CBusDeadlines::Remove(CBusCall& call) {
  CBusDeadlineList& list = *call.pDeadlineList;
  (call.pPrevDeadline != nullptr ? call.pPrevDeadline->pNextDeadline : list.pHead) = call.pNextDeadline;
  (call.pNextDeadline != nullptr ? call.pNextDeadline->pPrevDeadline : list.pTail) = call.pPrevDeadline;
  call.pDeadlineList = nullptr;
  --m_uCount;
  return CBusRef<CBusCall>(&call);
}

CBusRef<CBusCall> CBusDeadlines::PopDue(uint64_t u64NowNs) {
  if (u64NowNs < m_u64EarliestNs)
    return {};
  uint64_t u64EarliestNs = kNever;
  for (auto& [uiTimeoutMs, list] : m_lists) {
    if (list.pHead == nullptr)
      continue;
    if (list.pHead->u64DeadlineNs <= u64NowNs)
      return Remove(*list.pHead);
    u64EarliestNs = std::min(u64EarliestNs, list.pHead->u64DeadlineNs);
  }
  m_u64EarliestNs = u64EarliestNs;
  return {};
}

CBusRef<CBusCall> CBusDeadlines::PopAny() {
  for (auto& [uiTimeoutMs, list] : m_lists) {
    if (list.pHead != nullptr)
      return Remove(*list.pHead);
  }
  return {};
}
