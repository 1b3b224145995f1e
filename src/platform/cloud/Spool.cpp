#include "platform/cloud/Spool.h"

#include <semaphore.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "platform/cloud/zxcloud.h"

namespace zxcloud {

namespace {

constexpr size_t kReservePart = 16;  // one part in this many of the bound is for urgent records
constexpr size_t kBatchRecords = 1024;
constexpr size_t kBatchBytes = 8u << 20;
constexpr size_t kPortion = 64;  // deletes of one commit on a full disk
constexpr uint64_t kGatherUs = 200;
constexpr size_t kGatherFrom = 4;  // a batch this large shows that many send at once
constexpr uint64_t kSweepMs = 3600000;

uint64_t NowUs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace

// One waiting sender. Shared, as a cancelled sender goes at once.
struct CSpool::_Request {
  _Request() { sem_init(&done, 0, 0); }
  ~_Request() { sem_destroy(&done); }
  _Request(const _Request&) = delete;
  _Request& operator=(const _Request&) = delete;

  std::shared_ptr<_OutItem> pItem;
  _SpoolEntry entry;
  int64_t i64Sum = 0;
  std::atomic<bool> bCancelled{false};
  uint32_t uiResult = 0;  // set before done is posted
  sem_t done;
};

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
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&m_cond, &attr);
  pthread_condattr_destroy(&attr);
  m_due.u64Open = 1;
}

CSpool::~CSpool() {
  pthread_cond_destroy(&m_cond);
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
  {
    CCritLock lock(m_cs);
    if (m_bStop) {
      m_uBytes.fetch_sub(pRequest->entry.Cost());
      return kZxcloudErrState;
    }
    m_queue.push_back(pRequest);
    if (m_queue.size() >= m_uWakeAt) {
      m_uWakeAt = SIZE_MAX;
      pthread_cond_signal(&m_cond);
    }
  }
  return Wait(pRequest);
}

uint32_t CSpool::Wait(const TRequest& pRequest) {
  // A sender that is cancelled takes its record along when it has not been written yet.
  struct CGiveUp {
    _Request& request;
    bool bArmed = true;
    ~CGiveUp() {
      if (bArmed)
        request.bCancelled.store(true);
    }
  };
  CGiveUp giveUp{*pRequest};
  while (sem_wait(&pRequest->done) != 0 && errno == EINTR) {
  }
  giveUp.bArmed = false;
  return pRequest->uiResult;
}

void CSpool::Finish(const TRequest& pRequest, uint32_t uiResult) {
  pRequest->uiResult = uiResult;
  if (uiResult != 0)
    m_uBytes.fetch_sub(pRequest->entry.Cost());
  sem_post(&pRequest->done);
}

void CSpool::WantBodies() {
  CCritLock lock(m_cs);
  if (std::exchange(m_bWantBodies, true))
    return;
  pthread_cond_signal(&m_cond);
}

void CSpool::WantDeletes() {
  CCritLock lock(m_cs);
  if (std::exchange(m_bWantDeletes, true))
    return;
  pthread_cond_signal(&m_cond);
}

void CSpool::Stop() {
  CCritLock lock(m_cs);
  m_bStop = true;
  pthread_cond_signal(&m_cond);
}

void CSpool::Abandon() {
  std::deque<TRequest> queue;
  {
    CCritLock lock(m_cs);
    m_bStop = true;
    queue.swap(m_queue);
  }
  for (const TRequest& pRequest : queue)
    Finish(pRequest, kZxcloudErrState);
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
  bool bStop = false;
  {
    CCritLock lock(m_cs);
    bStop = m_bStop;
    m_bLoad |= std::exchange(m_bWantBodies, false);
    if (std::exchange(m_bWantDeletes, false) && m_due.u64Delete == 0)
      m_due.u64Delete = m_ports.clock.NowMs() + m_times.dwDelete;
  }
  Gather();
  TakeRequests();
  Work();
  if (!bStop) {
    Sleep(iMaxWaitMs);
    return true;
  }
  // Only what was there before the stop is left, and it is written.
  {
    CCritLock lock(m_cs);
    if (!m_queue.empty())
      return true;
  }
  CommitBatch();
  m_file.Close();
  return false;
}

void CSpool::TakeRequests() {
  size_t uBytes = 0;
  CCritLock lock(m_cs);
  while (!m_queue.empty() && m_listBatch.size() < kBatchRecords && uBytes < kBatchBytes) {
    uBytes += m_queue.front()->entry.uBytes;
    m_listBatch.push_back(std::move(m_queue.front()));
    m_queue.pop_front();
  }
}

// Those who were just answered send again in a moment: waiting for them makes fewer and larger commits.
void CSpool::Gather() {
  if (m_uLastBatch < kGatherFrom)
    return;
  CCritLock lock(m_cs);
  if (!m_queue.empty() && m_queue.size() < m_uLastBatch && !m_bStop)
    SleepUntil(NowUs() + kGatherUs, m_uLastBatch);
}

void CSpool::SleepUntil(uint64_t u64Us, size_t uWakeAt) {
  timespec deadline{};
  deadline.tv_sec = static_cast<time_t>(u64Us / 1000000);
  deadline.tv_nsec = static_cast<long>(u64Us % 1000000) * 1000;
  m_uWakeAt = uWakeAt;
  while (m_queue.size() < uWakeAt && !m_bStop && !m_bWantBodies && !m_bWantDeletes) {
    const int iError = u64Us == 0 ? pthread_cond_wait(&m_cond, m_cs.Native())
                                  : pthread_cond_timedwait(&m_cond, m_cs.Native(), &deadline);
    if (iError == ETIMEDOUT)
      break;
  }
  m_uWakeAt = SIZE_MAX;
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
  CCritLock lock(m_cs);
  SleepUntil(u64Wait == UINT64_MAX ? 0 : NowUs() + u64Wait * 1000, 1);
}

// The file.

void CSpool::EnsureOpen() {
  if (m_file.IsOpen())
    return;
  const uint64_t u64Now = m_ports.clock.NowMs();
  const bool bAsked = !m_listBatch.empty() && u64Now - m_u64LastOpen >= m_times.dwReopenFirst;
  if (u64Now < m_due.u64Open && !bAsked)
    return;
  m_u64LastOpen = u64Now;
  m_due.u64Open = 0;
  const ESpoolResult eResult = OpenOrSalvage();
  if (eResult != ESpoolResult::Ok)
    Unusable(eResult);
}

ESpoolResult CSpool::OpenOrSalvage() {
  FinishSalvage(m_settings.strFile, m_ports.wall.NowSec());
  CSpoolFile::TFound listFound;
  ESpoolResult eResult = m_file.Open(m_settings.bFull, listFound);
  if (eResult == ESpoolResult::Damaged) {
    eResult = Salvage();
    if (eResult == ESpoolResult::Ok)
      eResult = m_file.Open(m_settings.bFull, listFound);
  }
  if (eResult == ESpoolResult::Ok)
    Opened(listFound);
  return eResult;
}

// The file is closed. Afterwards it is to be opened again.
ESpoolResult CSpool::Salvage() {
  const std::string strWhy = m_file.Reason();
  const auto Report = [&](const _Salvage& salvage) {
    m_ports.outbox.RowsUpTo(salvage.u64NewestRow);
    return _SalvageReport{
        m_ports.outbox.NextRow(), kDamageReportPriority, static_cast<uint32_t>(NowSec()), m_ports.fnId(),
        "{\"zxcloud\":\"spool_damaged\",\"time\":" + std::to_string(m_ports.wall.NowSec()) + ",\"file\":\"" +
            salvage.strAside + "\",\"saved\":" + std::to_string(salvage.u64Saved) +
            ",\"lost\":" + std::to_string(salvage.u64Lost) + "}"};
  };
  _Salvage salvage;
  std::string strReason;
  if (!SalvageSpool(m_settings.strFile, m_ports.wall.NowSec(), Report, salvage, strReason)) {
    if (m_quietDamage.Due(m_ports.clock.NowMs()))
      m_ports.log.LogError("**zxcloud spool damaged and not set aside file[%s] why[%s] reason[%s]",
                           m_settings.strFile, strWhy, strReason);
    return ESpoolResult::Failed;
  }
  m_u64Damaged.fetch_add(salvage.u64Lost);
  m_ports.log.LogError("**zxcloud spool damaged, set aside file[%s] as[%s] why[%s] saved[%llu] lost[%llu]",
                       m_settings.strFile, salvage.strAside, strWhy, salvage.u64Saved, salvage.u64Lost);
  return ESpoolResult::Ok;
}

void CSpool::Opened(const CSpoolFile::TFound& listFound) {
  uint32_t uNewestCreated = 0;
  for (const auto& [iQueue, entry] : listFound)
    uNewestCreated = std::max(uNewestCreated, entry.uCreatedSec);
  Advance(uNewestCreated);
  m_ports.outbox.RowsUpTo(m_file.NewestRow());
  // What the index held of this file without a body comes from the file again.
  m_uBytes.fetch_sub(m_ports.outbox.DropUnloaded().uCost);
  const _SpoolCount count = m_ports.outbox.Recover(listFound);
  m_uBytes.fetch_add(count.uCost);
  const bool bNews = m_eMode.exchange(EMode::Ready) == EMode::Unavailable;
  if (bNews || count.uRecords != 0)
    m_ports.log.LogInfo("zxcloud spool open file[%s] records[%u] bytes[%llu]", m_settings.strFile,
                        static_cast<uint32_t>(count.uRecords), static_cast<uint64_t>(count.uCost));
  m_quietOpen.Reset();
  m_dwReopen = m_times.dwReopenFirst;
  m_bDiskFull = false;
  m_bLoad = true;
  m_due.u64Sweep = m_ports.clock.NowMs();
  m_due.u64Delete = m_due.u64Sweep;
}

void CSpool::Unusable(ESpoolResult eResult) {
  m_file.Close();
  m_uBytes.fetch_sub(m_ports.outbox.DropUnloaded().uCost);
  m_bDiskFull = eResult == ESpoolResult::Full;
  m_eMode.store(EMode::Unavailable);
  const uint64_t u64Now = m_ports.clock.NowMs();
  m_due = {};
  m_due.u64Open = u64Now + m_dwReopen;
  if (m_quietOpen.Due(u64Now))
    m_ports.log.LogError("**zxcloud spool not usable, non-blocking sends are refused file[%s] reason[%s]",
                         m_settings.strFile, m_file.Reason());
  m_dwReopen = std::min(m_dwReopen * 2, m_times.dwReopenLast);
}

uint32_t CSpool::RefusalCode() const {
  return m_bDiskFull ? kZxcloudErrFull : kZxcloudErrSpool;
}

void CSpool::Refuse(uint32_t uiResult) {
  for (const TRequest& pRequest : m_listBatch) {
    m_u64Refused.fetch_add(1);
    Finish(pRequest, uiResult);
  }
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
  m_uLastBatch = m_listBatch.size();
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
  const ESpoolResult eResult = m_file.Commit(listInserts, std::move(listRows));
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
      Finish(pRequest, kZxcloudErrState);
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
  for (const TRequest& pRequest : m_listBatch)
    Finish(pRequest, 0);
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
