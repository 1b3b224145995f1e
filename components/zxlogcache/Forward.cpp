#include "Forward.h"

#include <algorithm>

#include "Records.h"
#include "platform/bus/zxbus.h"

namespace zxlogcache {
namespace {

// The log caches of a stored source may all be sent again only when the agent that had accepted them is gone.
bool MeansAgentGone(uint32_t uiStatus) {
  return uiStatus == kBusErrNoTarget || uiStatus == kBusErrGone || uiStatus == kBusErrNoReceiver;
}

constexpr uint32_t kNoResult = kBusErrTimeout;

}  // namespace

CForward::CForward(const _Settings& settings, PFNSend pfnSend, HLog hLog, uint32_t uiSeed)
    : m_settings(settings), m_pfnSend(std::move(pfnSend)), m_hLog(hLog), m_random(uiSeed) {}

bool CForward::Load(CStore& store) {
  std::map<int64_t, _SourceSettings> sources;
  std::vector<_Cache> caches;
  if (!store.Sources(sources) || !store.Caches(caches))
    return false;
  m_sources.clear();
  m_flights.clear();
  m_finished.clear();
  for (auto& [i64Source, settings] : sources)
    m_sources[i64Source].settings = std::move(settings);
  for (const _Cache& cache : caches)
    m_flights[cache.u64DataId].cache = cache;
  return true;
}

void CForward::OnReply(uint64_t u64DataId, uint32_t uiStatus, uint64_t u64NowMs) {
  const auto it = m_flights.find(u64DataId);
  if (it == m_flights.end() || it->second.eState != EState::Sent)
    return;  // its result came first
  if (uiStatus == 0) {
    it->second.eState = EState::Accepted;
    it->second.u64DueMs = u64NowMs + m_settings.uiResultTimeoutMs;
    return;
  }
  ++m_counts.u64Refused;
  Fail(it->second, uiStatus, "refused", u64NowMs);
  if (MeansAgentGone(uiStatus))
    AgentGone(u64NowMs);
}

void CForward::OnResult(uint64_t u64DataId, int32_t iResult, uint64_t u64NowMs) {
  const auto it = m_flights.find(u64DataId);
  if (it == m_flights.end())
    return;  // of an earlier attempt, and a later one was faster
  _Flight& flight = it->second;
  if (iResult != 0) {
    if (flight.eState == EState::Waiting)
      return;  // counted as failed already
    ++m_counts.u64Failed;
    Fail(flight, static_cast<uint32_t>(iResult), "not uploaded", u64NowMs);
    return;
  }
  _Source& source = m_sources[flight.cache.i64Source];
  if (source.uiFails != 0)
    LogInfoTo(m_hLog, "zxrelay gets through again source[%s] after[%u] failures", source.settings.strName,
              source.uiFails);
  source.uiFails = 0;
  source.uiLastStatus = 0;
  source.u64DueMs = 0;
  m_counts.u64Forwarded += flight.cache.uiRecords;
  m_finished[u64DataId] = flight.cache;
  m_flights.erase(it);
}

uint64_t CForward::Pause(uint32_t uiFails) {
  const uint32_t uiShift = std::min(uiFails == 0 ? 0u : uiFails - 1, 20u);
  const uint64_t u64Full =
      std::min<uint64_t>(m_settings.uiRetryMaxMs, uint64_t{m_settings.uiRetryMinMs} << uiShift);
  return u64Full / 2 + std::uniform_int_distribution<uint64_t>(0, u64Full - u64Full / 2)(m_random);
}

void CForward::Fail(_Flight& flight, uint32_t uiStatus, const char* pszWhat, uint64_t u64NowMs) {
  _Source& source = m_sources[flight.cache.i64Source];
  flight.eState = EState::Waiting;
  ++flight.uiAttempts;
  flight.u64DueMs = u64NowMs + Pause(flight.uiAttempts);
  if (source.u64DueMs <= u64NowMs)  // a whole window that fails together is one failure
    source.u64DueMs = u64NowMs + Pause(++source.uiFails);
  if (source.uiLastStatus != uiStatus)  // once for each reason, not for each try
    LogWarnTo(m_hLog, "*zxrelay %s source[%s] u64DataId[%llx] iStatus[%x] attempts[%u], kept and tried again",
              pszWhat, source.settings.strName, flight.cache.u64DataId, uiStatus, flight.uiAttempts);
  source.uiLastStatus = uiStatus;
}

// What it had accepted died with it; nobody will report a result.
void CForward::AgentGone(uint64_t u64NowMs) {
  for (auto& [u64DataId, flight] : m_flights) {
    if (flight.eState != EState::Accepted)
      continue;
    flight.eState = EState::Waiting;
    flight.u64DueMs = u64NowMs;
  }
}

bool CForward::UnderWay(int64_t i64Source) const {
  return std::any_of(m_flights.begin(), m_flights.end(), [&](const auto& entry) {
    return entry.second.cache.i64Source == i64Source && entry.second.eState != EState::Waiting;
  });
}

size_t CForward::Busy() const {
  return static_cast<size_t>(std::count_if(m_flights.begin(), m_flights.end(), [](const auto& entry) {
    return entry.second.eState != EState::Waiting;
  }));
}

// Whether a new log cache of the source could be sent at once.
bool CForward::HasRoom(int64_t i64Source, const _Source& source) const {
  if (Busy() + m_formed.size() >= m_settings.uiWindow)
    return false;
  // A source that cannot get rid of its own must not take the window from others.
  const auto own = std::count_if(m_flights.begin(), m_flights.end(), [&](const auto& entry) {
    return entry.second.cache.i64Source == i64Source;
  });
  return static_cast<uint32_t>(own) < (source.uiFails == 0 ? m_settings.uiWindow : 1);
}

bool CForward::FormOf(CStore& store, int64_t i64Source, _Source& source, uint64_t u64NowMs) {
  const int64_t i64Until = store.Now() - static_cast<int64_t>(m_settings.uiLingerMs);
  bool bFound = true;
  while (bFound && HasRoom(i64Source, source)) {
    _Flight flight;
    int64_t i64Oldest = -1;
    flight.u64DueMs = u64NowMs;
    if (!store.Form(i64Source, m_settings.uiBatchBytes, source.settings.eBody == EBody::Record, i64Until,
                    flight.cache, bFound, i64Oldest))
      return false;
    if (bFound)
      m_formed.push_back(flight);
    else if (i64Oldest >= 0)
      m_u64FormMs =
          std::min(m_u64FormMs, u64NowMs + static_cast<uint64_t>(std::max<int64_t>(1, i64Oldest - i64Until)));
  }
  return true;
}

bool CForward::LetGo(CStore& store) {
  for (const auto& [u64DataId, cache] : m_finished) {
    if (!store.Finish(cache))
      return false;
    m_gone.push_back(u64DataId);
  }
  for (auto& [u64DataId, flight] : m_flights) {
    bool bOld = false;
    if (flight.eState == EState::Waiting && flight.uiAttempts != 0 &&
        !store.IsOlder(flight.cache, store.Now() - m_settings.i64MaxAgeMs, bOld))
      return false;
    if (!bOld)
      continue;
    if (!store.Finish(flight.cache))
      return false;
    m_expired.push_back(u64DataId);
  }
  return true;
}

bool CForward::Form(CStore& store, uint64_t u64NowMs) {
  m_u64FormMs = UINT64_MAX;
  for (auto& [i64Source, source] : m_sources) {
    if (!FormOf(store, i64Source, source, u64NowMs))
      return false;
  }
  return true;
}

void CForward::Committed() {
  for (const uint64_t u64DataId : m_gone) {
    m_finished.erase(u64DataId);
    m_flights.erase(u64DataId);
  }
  for (const uint64_t u64DataId : m_expired) {
    const _Cache& cache = m_flights[u64DataId].cache;
    LogWarnTo(m_hLog, "*zxrelay gives up: too old u64DataId[%llx] records[%u]", u64DataId, cache.uiRecords);
    m_counts.u64Expired += cache.uiRecords;
    m_flights.erase(u64DataId);
  }
  for (const _Flight& flight : m_formed)
    m_flights[flight.cache.u64DataId] = flight;
  RolledBack();
}

void CForward::RolledBack() {
  m_gone.clear();
  m_expired.clear();
  m_formed.clear();
}

void CForward::Send(CStore& store, uint64_t u64NowMs) {
  for (auto& [u64DataId, flight] : m_flights) {
    _Source& source = m_sources[flight.cache.i64Source];
    if (flight.eState == EState::Accepted && flight.u64DueMs <= u64NowMs) {
      ++m_counts.u64Failed;
      Fail(flight, kNoResult, "has no upload result", u64NowMs);
    }
    if (flight.eState != EState::Waiting || flight.u64DueMs > u64NowMs || source.u64DueMs > u64NowMs)
      continue;
    if (source.uiFails != 0 && UnderWay(flight.cache.i64Source))
      continue;
    if (Busy() >= m_settings.uiWindow)
      return;
    Try(store, flight, source, u64NowMs);
  }
}

void CForward::Try(CStore& store, _Flight& flight, _Source& source, uint64_t u64NowMs) {
  std::string strChunks;
  int64_t i64WallMs = 0;
  std::vector<std::string_view> records;
  if (!store.Read(flight.cache, strChunks, i64WallMs)) {
    flight.u64DueMs = u64NowMs + m_settings.uiRetryMinMs;
    LogWarnTo(m_hLog, "*zxrelay cannot read its store u64DataId[%llx] error[%s]", flight.cache.u64DataId,
              store.Error());
    return;
  }
  UnpackRecords(strChunks, records);
  if (records.empty()) {  // its chunks are gone: nothing to send, nothing to keep
    LogWarnTo(m_hLog, "*zxrelay finds no records u64DataId[%llx]", flight.cache.u64DataId);
    flight.u64DueMs = UINT64_MAX;
    flight.uiAttempts = 0;
    m_finished[flight.cache.u64DataId] = flight.cache;
    return;
  }
  const std::string strBody = CacheBody(source.settings.eBody, source.settings.strName, i64WallMs, records);
  flight.eState = EState::Sent;
  ++m_counts.u64Sent;
  const uint32_t uiRet = m_pfnSend(source.settings, flight.cache.u64DataId, strBody);
  if (uiRet != 0)
    OnReply(flight.cache.u64DataId, uiRet, u64NowMs);
  else
    LogTraceTo(m_hLog, "zxrelay sent u64DataId[%llx] records[%u]", flight.cache.u64DataId,
               flight.cache.uiRecords);
}

uint64_t CForward::NextMs(uint64_t u64NowMs) const {
  if (!m_finished.empty())
    return u64NowMs;
  uint64_t u64Next = m_u64FormMs;
  for (const auto& [u64DataId, flight] : m_flights) {
    uint64_t u64Due = flight.eState == EState::Sent ? UINT64_MAX : flight.u64DueMs;
    if (flight.eState == EState::Waiting) {
      const _Source& source = m_sources.at(flight.cache.i64Source);
      if (source.uiFails != 0 && UnderWay(flight.cache.i64Source))
        continue;
      u64Due = std::max(u64Due, source.u64DueMs);
    }
    u64Next = std::min(u64Next, u64Due);
  }
  return std::max(u64Next, u64NowMs);
}

}  // namespace zxlogcache
