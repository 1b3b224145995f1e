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

void CConfirms::Sent(const _OutItem& item, uint64_t u64NowMs) {
  if (!m_bUse)
    return;
  Forget(item.u64Seq);
  if (m_mapSeqs.empty())
    m_u64Due = u64NowMs + m_u64Wait;
  m_mapSeqs.emplace(item.u64Seq, _Entry{item.strId, item.Bytes(), u64NowMs});
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
  std::vector<uint64_t> listSeqs;
  if (m_mapSeqs.empty() || u64NowMs < m_u64Due)
    return listSeqs;
  m_u64Due = u64NowMs + kMaxConfirmMs;
  for (const auto& [u64Seq, entry] : m_mapSeqs) {
    if (entry.u64Sent + m_u64Wait <= u64NowMs)
      listSeqs.push_back(u64Seq);
    else
      m_u64Due = std::min(m_u64Due, entry.u64Sent + m_u64Wait);
  }
  for (const uint64_t u64Seq : listSeqs)
    Forget(u64Seq);
  if (!listSeqs.empty())
    m_u64Wait = m_bNews ? kConfirmMs : std::min(m_u64Wait * 2, kMaxConfirmMs);
  m_bNews = m_bNews && listSeqs.empty();
  return listSeqs;
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
