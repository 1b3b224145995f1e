#include "platform/cloud/Spool.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "platform/cloud/zxcloud.h"

namespace zxcloud {

namespace {

constexpr size_t kReservePart = 16;  // one part in this many of the bound is for urgent records
constexpr size_t kBatchRecords = 1024;
constexpr size_t kBatchBytes = 8u << 20;
constexpr size_t kPortion = 64;  // deletes of one commit on a full disk
// Senders are waited for as long as the last commit took, within these bounds.
constexpr uint64_t kGatherUs = 200;
constexpr uint64_t kGatherMaxUs = 5000;
constexpr uint64_t kSweepMs = 3600000;

}  // namespace

std::string CSpool::_State::Text() const {
  return std::string(":spool=") + pszMode + ":spoolsync=" + pszSync +
         ":spooldepth=" + std::to_string(u64Depth) + ":spoolbytes=" + std::to_string(u64Bytes) +
         ":spoolage=" + std::to_string(u64OldestSec) + ":spooldamaged=" + std::to_string(u64Damaged) +
         ":spoolrefused=" + std::to_string(u64Refused) + ":spoolexpired=" + std::to_string(u64Expired);
}

CSpool::CSpool(_Ports ports, _SpoolSettings settings, const _SpoolTimes& times)
    : m_ports(std::move(ports)),
      m_settings(std::move(settings)),
      m_times(times),
      m_i64BaseSec(m_ports.wall.NowSec() - static_cast<int64_t>(m_ports.clock.NowMs() / 1000)),
      m_file(m_settings.strFile),
      m_dwReopen(times.dwReopenFirst),
      m_quietOpen(times.dwQuietLog),
      m_quietFull(times.dwQuietLog),
      m_quietDisk(times.dwQuietLog),
      m_quietDamage(times.dwQuietLog) {
  m_due.u64Open = 1;
}

// A clock of its own: that of the machine at the start, then monotonic, so that a step of the machine's clock
// makes no record older.
int64_t CSpool::NowSec() {
  return m_i64BaseSec.load() + static_cast<int64_t>(m_ports.clock.NowMs() / 1000);
}

// Records that a later clock wrote show that ours is behind.
void CSpool::Advance(uint32_t uNewestCreatedSec) {
  const int64_t i64Behind = int64_t{uNewestCreatedSec} - NowSec();
  if (i64Behind > 0)
    m_i64BaseSec.fetch_add(i64Behind);
}

// Senders.

bool CSpool::Reserve(int iIndex, size_t uCost) {
  const size_t uBound =
      IsUrgent(iIndex) ? m_settings.uMaxBytes : m_settings.uMaxBytes - m_settings.uMaxBytes / kReservePart;
  if (m_uBytes.fetch_add(uCost) + uCost <= uBound)
    return true;
  m_uBytes.fetch_sub(uCost);
  return false;
}

uint32_t CSpool::Append(std::string_view svBody, int iPriority) {
  const auto pRequest = std::make_shared<_Request>();
  pRequest->pItem = MakeOutItem(0, iPriority, m_ports.fnId(), svBody);
  const _OutItem& item = *pRequest->pItem;
  pRequest->entry.uBytes = static_cast<uint32_t>(item.Bytes());
  pRequest->entry.uCreatedSec = static_cast<uint32_t>(NowSec());
  const std::optional<int64_t> sum =
      SpoolSum(_SpoolRow{0, iPriority, pRequest->entry.uCreatedSec, item.strId, item.Body()});
  const int iIndex = PriorityIndex(iPriority);
  if (iIndex < 0 || !sum.has_value())
    return iIndex < 0 ? kZxcloudErrArgument : kZxcloudErrSpool;
  pRequest->i64Sum = *sum;
  if (!Reserve(iIndex, pRequest->entry.Cost())) {
    m_u64Refused.fetch_add(1);
    if (!m_bRefusalNews.exchange(true))
      WantDeletes();  // wakes the spool's thread, which logs
    return kZxcloudErrFull;
  }
  if (!m_requests.Push(pRequest)) {
    m_uBytes.fetch_sub(pRequest->entry.Cost());
    return kZxcloudErrState;
  }
  return CSpoolRequests::Wait(pRequest);
}

void CSpool::Abandon() {
  m_requests.Stop();
  std::vector<TRequest> listLate;
  m_requests.Take(listLate, SIZE_MAX, SIZE_MAX);
  for (const TRequest& pRequest : listLate)
    m_uBytes.fetch_sub(pRequest->entry.Cost());
  m_requests.Answer(listLate, kZxcloudErrState);
}

CSpool::_State CSpool::State() {
  const COutbox::_Spooled spooled = m_ports.outbox.Spooled();
  _State state;
  const EMode eMode = m_eMode.load();
  state.pszMode = eMode == EMode::Ready ? "ready" : eMode == EMode::Opening ? "opening" : "unavailable";
  state.pszSync = m_settings.bFull ? "full" : "normal";
  state.u64Depth = spooled.uWaiting + spooled.uTaken;
  state.u64Bytes = m_uBytes.load();
  if (spooled.uOldestSec.has_value())
    state.u64OldestSec = static_cast<uint64_t>(std::max<int64_t>(NowSec() - *spooled.uOldestSec, 0));
  state.u64Damaged = m_u64Damaged.load();
  state.u64Refused = m_u64Refused.load();
  state.u64Expired = m_u64Expired.load();
  return state;
}

// The spool thread: what it waits for.

void CSpool::Run() {
  // Senders wait for this thread, so it goes on whatever happens; what it was doing is refused.
  for (bool bGoOn = true; bGoOn;) {
    try {
      bGoOn = RunOnce(-1);
    } catch (const std::exception& e) {
      m_ports.log.LogError("**zxcloud spool interrupted by an exception what[%s]", e.what());
      Refuse(kZxcloudErrSpool);
      Unusable(ESpoolResult::Failed);
    }
  }
}

bool CSpool::RunOnce(int iMaxWaitMs) {
  const CSpoolRequests::_Wishes wishes = m_requests.TakeWishes();
  m_bLoad |= wishes.bBodies;
  if (wishes.bDeletes && m_due.u64Delete == 0)
    m_due.u64Delete = m_ports.clock.NowMs() + m_times.dwDelete;
  m_requests.Gather(std::clamp(m_u64CommitUs, kGatherUs, kGatherMaxUs));
  m_requests.Take(m_listBatch, kBatchRecords, kBatchBytes);
  Work();
  if (!wishes.bStop) {
    Sleep(iMaxWaitMs);
    return true;
  }
  // Only what was there before the stop is left, and it is written.
  if (!m_requests.Empty())
    return true;
  CommitBatch();
  m_file.Close();
  return false;
}

uint64_t CSpool::NextDue() const {
  uint64_t u64Due = 0;
  for (const uint64_t u64 : {m_due.u64Delete, m_due.u64Open, m_due.u64Sweep, m_due.u64Trim}) {
    if (u64 != 0)
      u64Due = u64Due == 0 ? u64 : std::min(u64Due, u64);
  }
  return u64Due;
}

void CSpool::Sleep(int iMaxWaitMs) {
  const uint64_t u64Due = NextDue();
  const uint64_t u64Now = m_ports.clock.NowMs();
  uint64_t u64Wait = u64Due == 0 ? UINT64_MAX : u64Due - std::min(u64Due, u64Now);
  if (iMaxWaitMs >= 0)
    u64Wait = std::min(u64Wait, static_cast<uint64_t>(iMaxWaitMs));
  if (u64Wait == 0 || m_bLoad)
    return;
  m_requests.Sleep(u64Wait == UINT64_MAX ? UINT64_MAX : u64Wait * 1000);
}

void CSpool::Refuse(uint32_t uiResult) {
  m_u64Refused.fetch_add(m_listBatch.size());
  for (const TRequest& pRequest : m_listBatch)
    m_uBytes.fetch_sub(pRequest->entry.Cost());
  m_requests.Answer(m_listBatch, uiResult);
  m_listBatch.clear();
}

// The work.

void CSpool::Work() {
  EnsureOpen();
  if (!m_file.IsOpen()) {
    Refuse(RefusalCode());
    ReportRefusals();
    return;
  }
  const uint64_t u64Now = m_ports.clock.NowMs();
  if (!m_listBatch.empty() || (m_due.u64Delete != 0 && u64Now >= m_due.u64Delete))
    CommitBatch();
  if (m_bLoad && m_file.IsOpen())
    LoadBodies();
  if (m_due.u64Sweep != 0 && u64Now >= m_due.u64Sweep)
    Sweep();
  if (m_due.u64Trim != 0 && u64Now >= m_due.u64Trim)
    Trim();
  ReportRefusals();
}

// Rows are given at the last moment, so that they follow those that the file holds.
ESpoolResult CSpool::CommitOnce(std::vector<_SpoolEntry>& listDone, bool bInserts) {
  std::vector<_SpoolInsert> listInserts;
  if (bInserts) {
    listInserts.reserve(m_listBatch.size());
    for (const TRequest& pRequest : m_listBatch) {
      const _OutItem& item = *pRequest->pItem;
      pRequest->entry.u64Row = m_ports.outbox.NextRow();
      pRequest->pItem->u64Seq = kSpoolBit | pRequest->entry.u64Row;
      listInserts.push_back(
          {{pRequest->entry.u64Row, item.iPriority, pRequest->entry.uCreatedSec, item.strId, item.Body()},
           pRequest->i64Sum});
    }
  }
  std::vector<uint64_t> listRows;
  listRows.reserve(listDone.size());
  for (const _SpoolEntry& entry : listDone)
    listRows.push_back(entry.u64Row);
  const auto start = std::chrono::steady_clock::now();
  const ESpoolResult eResult = m_file.Commit(listInserts, std::move(listRows));
  const auto took =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
  m_u64CommitUs = static_cast<uint64_t>(took.count());
  if (eResult == ESpoolResult::Ok) {
    size_t uCost = 0;
    for (const _SpoolEntry& entry : listDone)
      uCost += entry.Cost();
    m_uBytes.fetch_sub(uCost);
    listDone.clear();
  }
  return eResult;
}

void CSpool::CommitBatch() {
  std::erase_if(m_listBatch, [this](const TRequest& pRequest) {
    const bool bCancelled = pRequest->bCancelled.load();
    if (bCancelled)
      m_uBytes.fetch_sub(pRequest->entry.Cost());
    return bCancelled;
  });
  std::vector<_SpoolEntry> listDone = m_ports.outbox.SwapDone();
  m_due.u64Delete = 0;
  if (!m_file.IsOpen() || (m_listBatch.empty() && listDone.empty())) {
    m_ports.outbox.BackDone(std::move(listDone));
    return;
  }
  ESpoolResult eResult = CommitOnce(listDone, true);
  if (eResult == ESpoolResult::Damaged) {
    m_file.CloseDamaged();
    m_ports.outbox.BackDone(std::exchange(listDone, {}));
    eResult = Salvage();
    if (eResult == ESpoolResult::Ok)
      eResult = OpenOrSalvage();
    if (eResult == ESpoolResult::Ok)
      eResult = CommitOnce(listDone, true);
  }
  if (eResult == ESpoolResult::Ok) {
    Committed(m_listBatch.size());
    m_file.Settle();
    return;
  }
  // A full disk takes no record, but gives back the room of those that are done.
  const bool bFull = eResult == ESpoolResult::Full && m_file.IsOpen();
  const ESpoolResult eDeletes = bFull ? DeleteInPortions(listDone) : eResult;
  if (!listDone.empty())
    m_due.u64Delete = m_ports.clock.NowMs() + m_times.dwReopenFirst;
  m_ports.outbox.BackDone(std::move(listDone));
  if (bFull && m_quietDisk.Due(m_ports.clock.NowMs())) {
    m_bFullLogged = true;
    m_ports.log.LogError("**zxcloud spool disk full, records refused[%u] file[%s] reason[%s]",
                         static_cast<uint32_t>(m_listBatch.size()), m_settings.strFile, m_file.Reason());
  }
  Refuse(bFull ? kZxcloudErrFull : kZxcloudErrSpool);
  if (!bFull || (eDeletes != ESpoolResult::Ok && eDeletes != ESpoolResult::Full))
    Unusable(eResult);
}

// Small commits fit into the reserved part of the log.
ESpoolResult CSpool::DeleteInPortions(std::vector<_SpoolEntry>& listDone) {
  ESpoolResult eResult = ESpoolResult::Ok;
  while (!listDone.empty() && eResult == ESpoolResult::Ok) {
    const auto itFrom = listDone.end() - static_cast<ptrdiff_t>(std::min(listDone.size(), kPortion));
    std::vector<_SpoolEntry> listPortion(itFrom, listDone.end());
    eResult = CommitOnce(listPortion, false);
    if (eResult == ESpoolResult::Ok)
      listDone.erase(itFrom, listDone.end());
  }
  return eResult;
}

void CSpool::Committed(size_t uInserted) {
  m_due.u64Trim = m_ports.clock.NowMs() + m_times.dwTrim;
  if (uInserted == 0)
    return;
  if (std::exchange(m_bFullLogged, false))
    m_ports.log.LogInfo("zxcloud spool has room on the disk again file[%s]", m_settings.strFile);
  std::vector<std::pair<_SpoolEntry, TOutItem>> listItems;
  listItems.reserve(uInserted);
  for (const TRequest& pRequest : m_listBatch)
    listItems.emplace_back(pRequest->entry, pRequest->pItem);
  m_ports.outbox.AddSpooled(listItems);
  m_ports.fnReady();
  m_requests.Answer(m_listBatch, 0);
  m_listBatch.clear();
  if (m_due.u64Sweep == 0)
    m_due.u64Sweep = m_ports.clock.NowMs() + std::min<uint64_t>(m_settings.uMaxAgeSec * 1000ull, kSweepMs);
}

void CSpool::LoadBodies() {
  m_bLoad = false;
  for (int iQueue = 0; iQueue < kSpoolQueues; ++iQueue) {
    if (!LoadQueue(iQueue))
      return;
  }
  m_ports.fnReady();
}

bool CSpool::LoadQueue(int iQueue) {
  for (const uint64_t u64Row : m_ports.outbox.RowsToLoad(iQueue)) {
    TOutItem pItem;
    ESpoolResult eResult = m_file.Read(u64Row, pItem);
    if (eResult == ESpoolResult::Damaged) {
      m_file.CloseDamaged();
      eResult = Salvage();
      if (eResult == ESpoolResult::Ok)
        eResult = OpenOrSalvage();  // everything is read anew
      if (eResult == ESpoolResult::Ok)
        return false;
    }
    if (eResult != ESpoolResult::Ok) {
      Unusable(eResult);
      return false;
    }
    if (pItem != nullptr) {
      m_ports.outbox.Loaded(iQueue, std::move(pItem));
      continue;
    }
    m_ports.outbox.Lost(iQueue, u64Row);
    m_u64Damaged.fetch_add(1);
    m_due.u64Delete = m_ports.clock.NowMs();
    if (m_quietDamage.Due(m_ports.clock.NowMs()))
      m_ports.log.LogError("**zxcloud spool record damaged and dropped row[%llu] damaged[%llu]", u64Row,
                           m_u64Damaged.load());
  }
  return true;
}

void CSpool::Sweep() {
  const int64_t i64Now = NowSec();
  const uint64_t u64Now = m_ports.clock.NowMs();
  const int64_t i64Limit = i64Now - int64_t{m_settings.uMaxAgeSec};
  const size_t uExpired = i64Limit < 0 ? 0 : m_ports.outbox.Expire(static_cast<uint32_t>(i64Limit));
  if (uExpired != 0) {
    m_u64Expired.fetch_add(uExpired);
    m_due.u64Delete = u64Now;
    m_ports.log.LogWarn(
        "*zxcloud spool records expired[%u] age limit in seconds[%u] expired since start[%llu]",
        static_cast<uint32_t>(uExpired), m_settings.uMaxAgeSec, m_u64Expired.load());
  }
  const std::optional<uint32_t> oldest = m_ports.outbox.Spooled().uOldestSec;
  m_due.u64Sweep = 0;
  if (!oldest.has_value())
    return;
  const int64_t i64Left = int64_t{*oldest} + m_settings.uMaxAgeSec - i64Now;
  m_due.u64Sweep =
      u64Now + std::min<uint64_t>(static_cast<uint64_t>(std::max<int64_t>(i64Left, 1)) * 1000, kSweepMs);
}

void CSpool::Trim() {
  m_due.u64Trim = 0;
  const COutbox::_Spooled spooled = m_ports.outbox.Spooled();
  if (spooled.uWaiting + spooled.uTaken == 0 && m_file.IsOpen())
    m_file.Trim();
}

void CSpool::ReportRefusals() {
  const uint64_t u64Refused = m_u64Refused.load();
  if (u64Refused == m_u64RefusedReported || !m_quietFull.Due(m_ports.clock.NowMs()))
    return;
  m_ports.log.LogWarn("*zxcloud spool refused records[%llu] waiting bytes[%llu] bound[%llu]",
                      u64Refused - m_u64RefusedReported, static_cast<uint64_t>(m_uBytes.load()),
                      static_cast<uint64_t>(m_settings.uMaxBytes));
  m_u64RefusedReported = u64Refused;
  m_bRefusalNews.store(false);
}

}  // namespace zxcloud
