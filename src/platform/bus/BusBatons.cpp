#include "platform/bus/BusBatons.h"

#include <algorithm>
#include <new>
#include <utility>

void CBusBatons::Reserve(size_t uCount) {
  if (uCount <= m_slots.size())
    return;
  if (uCount > kMaxBatons)
    throw std::bad_alloc();
  const size_t uGrown = std::min(kMaxBatons, std::max(uCount, m_slots.size() * 2));
  m_free.reserve(uGrown);
  const size_t uOld = m_slots.size();
  m_slots.resize(uGrown);
  for (size_t i = uGrown; i > uOld; --i)
    m_free.push_back(static_cast<uint32_t>(i - 1));
}

uint64_t CBusBatons::Add(CBusRef<CBusCall> call) {
  const uint32_t uIndex = m_free.back();
  m_free.pop_back();
  // The token of a send is unique in the process; shifted, it is the part that makes the handle unique.
  const uint64_t u64Baton = (static_cast<uint64_t>(call->ui64ACT) << kIndexBits) | uIndex;
  call->u64Baton = u64Baton;
  m_slots[uIndex] = {u64Baton, std::move(call)};
  return u64Baton;
}

CBusCall* CBusBatons::Find(uint64_t u64Baton) const {
  const size_t uIndex = IndexOf(u64Baton);
  if (u64Baton == 0 || uIndex >= m_slots.size() || m_slots[uIndex].u64Baton != u64Baton)
    return nullptr;
  return m_slots[uIndex].call.Get();
}

CBusRef<CBusCall> CBusBatons::Take(uint64_t u64Baton) {
  if (Find(u64Baton) == nullptr)
    return {};
  const size_t uIndex = IndexOf(u64Baton);
  CBusRef<CBusCall> call = std::move(m_slots[uIndex].call);
  call->u64Baton = 0;
  m_slots[uIndex].u64Baton = 0;
  m_free.push_back(static_cast<uint32_t>(uIndex));  // room was reserved with the slot
  return call;
}

void CBusBatons::Disown() {
  for (const _Slot& slot : m_slots) {
    if (slot.call)
      slot.call->u64Baton = 0;
  }
}

CBusRef<CBusCall> CBusBatons::TakeDisowned() {
  while (!m_slots.empty()) {
    CBusRef<CBusCall> call = std::move(m_slots.back().call);
    m_slots.pop_back();
    if (call)
      return call;
  }
  return {};
}
