#include "platform/cloud/Confirms.h"

#include <algorithm>

namespace zxcloud {

namespace {

constexpr std::string_view kHead = "zx1\n";
constexpr size_t kMaxId = 128;

}  // namespace

void CConfirms::Limit(_OutRoom& room) const {
  if (!m_bUse)
    return;
  const auto uWaiting = static_cast<uint32_t>(m_mapSeqs.size());
  room.uMessages = std::min(room.uMessages, kUnconfirmedMessages - std::min(kUnconfirmedMessages, uWaiting));
  room.uBytes = std::min(room.uBytes, kUnconfirmedBytes - std::min(kUnconfirmedBytes, m_uBytes));
  room.bIdle = room.bIdle && m_mapSeqs.empty();
}

void CConfirms::Sent(const _OutItem& item, const void* pConnection, uint64_t u64NowMs) {
  if (!m_bUse)
    return;
  Forget(item.u64Seq);
  if (m_mapSeqs.empty())
    m_u64Due = u64NowMs + m_u64Wait;
  m_mapSeqs.emplace(item.u64Seq, _Entry{item.strId, item.Bytes(), u64NowMs, pConnection});
  m_mapIds[item.strId] = item.u64Seq;
  m_uBytes += item.Bytes();
}

void CConfirms::Forget(uint64_t u64Seq) {
  const auto it = m_mapSeqs.find(u64Seq);
  if (it == m_mapSeqs.end())
    return;
  m_uBytes -= it->second.uBytes;
  m_mapIds.erase(it->second.strId);
  m_mapSeqs.erase(it);
}

void CConfirms::Heard(uint64_t u64Seq) {
  const _Entry& entry = m_mapSeqs.find(u64Seq)->second;
  uint64_t& u64Newest = m_mapHeard[entry.pConnection];
  u64Newest = std::max(u64Newest, entry.u64Sent);
  m_bNews = m_bHeard = true;
}

bool CConfirms::IsOvertaken(const _Entry& entry) const {
  const auto it = m_mapHeard.find(entry.pConnection);
  return it != m_mapHeard.end() && entry.u64Sent + kOvertakenMs <= it->second;
}

uint64_t CConfirms::Deadline() const {
  if (m_mapSeqs.empty())
    return 0;
  return m_bHeard ? std::min(m_u64Due, std::max(m_u64NextLook, m_u64NextRepeat)) : m_u64Due;
}

std::vector<uint64_t> CConfirms::TakeAll() {
  std::vector<uint64_t> listSeqs;
  for (const auto& [u64Seq, entry] : m_mapSeqs)
    listSeqs.push_back(u64Seq);
  m_mapSeqs.clear();
  m_mapIds.clear();
  m_uBytes = 0;
  return listSeqs;
}

std::vector<uint64_t> CConfirms::TakeLate(uint64_t u64NowMs) {
  std::vector<uint64_t> listLate, listOvertaken;
  const bool bLook = m_bHeard && u64NowMs >= std::max(m_u64NextLook, m_u64NextRepeat);
  if (m_mapSeqs.empty() || (u64NowMs < m_u64Due && !bLook))
    return listLate;
  m_u64Due = u64NowMs + kMaxConfirmMs;
  for (const auto& [u64Seq, entry] : m_mapSeqs) {
    if (entry.u64Sent + m_u64Wait <= u64NowMs)
      listLate.push_back(u64Seq);
    else if (bLook && IsOvertaken(entry))
      listOvertaken.push_back(u64Seq);
    else
      m_u64Due = std::min(m_u64Due, entry.u64Sent + m_u64Wait);
  }
  if (bLook) {
    m_bHeard = false;
    m_u64NextLook = u64NowMs + kOvertakenLookMs;
  }
  if (!listOvertaken.empty())
    m_u64NextRepeat = u64NowMs + kOvertakenRepeatMs;
  if (!listLate.empty())
    m_u64Wait = m_bNews ? kConfirmMs : std::min(m_u64Wait * 2, kMaxConfirmMs);
  m_bNews = m_bNews && listLate.empty();
  listLate.insert(listLate.end(), listOvertaken.begin(), listOvertaken.end());
  for (const uint64_t u64Seq : listLate)
    Forget(u64Seq);
  return listLate;
}

bool CConfirms::TakeHead(std::string_view& svRest) {
  if (svRest.substr(0, kHead.size()) != kHead)
    return false;
  svRest.remove_prefix(kHead.size());
  return true;
}

bool CConfirms::TakeLine(std::string_view& svRest, bool& bStored, std::string_view& svId) {
  const size_t uEnd = svRest.substr(0, kMaxId + 2).find('\n');
  if (uEnd == std::string_view::npos || uEnd < 2 || (svRest[0] != '+' && svRest[0] != '-'))
    return false;
  bStored = svRest[0] == '+';
  svId = svRest.substr(1, uEnd - 1);
  svRest.remove_prefix(uEnd + 1);
  return true;
}

}  // namespace zxcloud
