// The forwarder's store and inputs: what is read, written, refused and dropped.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <limits>

#include "LogCache.h"
#include "platform/doc/PJsonParse.h"
#include "platform/os/ZxFile.h"
#include "platform/os/ZxTime.h"

namespace zxlogcache {
namespace {

constexpr uint64_t kPendingBytes = 1u << 20;  // read before it is stored; then the inputs wait
constexpr uint64_t kRetryStoreMs = 1000;
constexpr uint64_t kStatusMs = 500;
constexpr uint64_t kSweepMs = 30000;          // records grow old without anything happening
constexpr uint64_t kReserveBytes = 4u << 20;  // two of the largest transactions
constexpr uint64_t kRoomBytes = kReserveBytes + (4u << 20);
// Below this part of the limit a full store takes input again.
constexpr uint64_t kResumeAt = 10;

}  // namespace

bool CLogCache::OpenStore() {
  const uint64_t u64NowMs = ZxGetTickCount();
  if (u64NowMs < m_u64RetryStoreMs)
    return false;
  m_u64RetryStoreMs = u64NowMs + kRetryStoreMs;
  const std::string strDir = Folder();
  std::error_code error;
  std::filesystem::create_directories(strDir, error);
  std::string strSetAside;
  m_sources.clear();
  const bool bOpen = m_store.Open(strDir + "store.db", WallMs(), strSetAside);
  if (!strSetAside.empty())
    LogErrorTo(Log(), "**zxlogforward store is damaged, begins a new one; kept as strFile[%s]", strSetAside);
  m_store.SetClock(WallMs(), u64NowMs);
  if (bOpen && m_store.Begin() && MakeInputs() && m_pForward->Load(m_store)) {
    const _Held held = m_store.Held();
    LogInfoTo(Log(), "zxlogforward store is open records[%llu] bytes[%llu] log caches under way[%llu]",
              held.u64Records, held.u64Bytes, m_pForward->InFlight());
    StoreWorks();
    WatchFolders();
    m_u64NextLookMs = 0;
    return true;
  }
  if (!m_bStoreSick)
    LogErrorTo(Log(), "**zxlogforward cannot open its store, takes nothing strDir[%s] error[%s]", strDir,
               m_store.Error());
  m_bStoreSick = true;
  m_sources.clear();
  m_store.Close();
  return false;
}

// Inside the transaction that OpenStore began.
bool CLogCache::MakeInputs() {
  for (const _SourceSettings& settings : m_settings.sources) {
    int64_t i64Source = 0;
    if (!m_store.Register(settings, i64Source))
      return false;
    auto& pSource =
        m_sources.emplace_back(std::make_unique<_Source>(i64Source, settings, m_settings.uiBatchBytes));
    for (const _SocketSettings& sock : settings.sockets)
      pSource->sockets.push_back(
          std::make_unique<CSocketInput>(sock, m_settings.uiMaxRecordBytes, m_settings.uiMaxClients, Log()));
    for (const _FileSettings& file : settings.files) {
      std::vector<_FileMark> marks;
      if (!m_store.Marks(i64Source, file.strPath, marks))
        return false;
      pSource->files.push_back(std::make_unique<CFileInput>(file, m_settings.uiMaxRecordBytes, Log()));
      pSource->files.back()->Resume(marks);
    }
  }
  return m_store.Commit();
}

void CLogCache::OpenSockets() {
  for (const auto& pSource : m_sources) {
    for (size_t u = 0; u < pSource->sockets.size(); ++u) {
      CSocketInput& sock = *pSource->sockets[u];
      if (sock.IsOpen())
        continue;
      epoll_event event{};
      event.events = EPOLLIN;
      if (sock.Open() && epoll_ctl(m_hInputs, EPOLL_CTL_ADD, sock.Fd(), &event) == 0)
        LogInfoTo(Log(), "zxlogforward listens strPath[%s]", pSource->settings.sockets[u].strPath);
      else if (!sock.Told())
        LogWarnTo(Log(), "*zxlogforward cannot listen, tries again strPath[%s] Error[%d]",
                  pSource->settings.sockets[u].strPath, errno);
    }
  }
}

void CLogCache::WatchFolders() {
  if (m_hNotify < 0)
    return;
  for (const auto& pSource : m_sources) {
    for (const auto& pFile : pSource->files) {
      const std::string strFolder = std::filesystem::path(pFile->Path()).parent_path();
      (void)inotify_add_watch(m_hNotify, strFolder.c_str(),
                              IN_MODIFY | IN_CREATE | IN_MOVED_FROM | IN_MOVED_TO);
    }
  }
}

uint64_t CLogCache::PendingBytes() const {
  uint64_t u64Bytes = 0;
  for (const auto& pSource : m_sources)
    u64Bytes += pSource->chunks.Bytes();
  return u64Bytes;
}

void CLogCache::ReadInputs(uint64_t u64NowMs) {
  if (m_bPaused || m_bStoreSick)
    return;
  // Well below the store's limit: what was read must fit when the rest has gone.
  const uint64_t u64Budget = std::min<uint64_t>(kPendingBytes, m_settings.u64MaxBytes / 4);
  m_bMoreFiles = false;
  for (const auto& pSource : m_sources) {
    for (const auto& pSocket : pSource->sockets) {
      const uint64_t u64Others = PendingBytes() - pSource->chunks.Bytes();
      if (pSocket->IsOpen() && u64Others < u64Budget)
        pSocket->Ready(pSource->chunks, u64Budget - u64Others);
    }
    for (const auto& pFile : pSource->files) {
      const uint64_t u64Others = PendingBytes() - pSource->chunks.Bytes();
      if (m_bLookAtFiles)
        m_bMoreFiles = u64Others >= u64Budget ||
                       pFile->Poll(pSource->chunks, u64Budget - u64Others, u64NowMs) || m_bMoreFiles;
    }
  }
  m_bLookAtFiles = m_bMoreFiles;
}

bool CLogCache::HasWork(uint64_t u64NowMs) const {
  if (m_bStoreSick)
    return u64NowMs >= m_u64RetryStoreMs || (m_bCanLetGo && m_pForward->NextMs(u64NowMs) <= u64NowMs);
  bool bFiles = false;
  for (const auto& pSource : m_sources) {
    for (const auto& pFile : pSource->files)
      bFiles = bFiles || !pFile->Changed().empty() || !pFile->Ended().empty();
  }
  return bFiles || u64NowMs >= m_u64NextSweepMs || PendingBytes() != 0 || m_bPaused ||
         m_pForward->NextMs(u64NowMs) <= u64NowMs;
}

// One transaction: what is delivered, what came in, what is sent next. While the disk has no room the input
// is left out.
bool CLogCache::Store(uint64_t u64NowMs) {
  m_store.SetClock(WallMs(), u64NowMs);
  m_u64NextSweepMs = u64NowMs + kSweepMs;
  m_bStatusDue = true;
  m_bNoRoom = m_bNoRoom && !KeepReserve();
  const uint64_t u64Dropped = m_u64Dropped;
  if (!m_store.Begin() || !m_pForward->LetGo(m_store) || (!m_bNoRoom && (!MakeRoom() || !StoreInputs())) ||
      !m_pForward->Form(m_store, u64NowMs) || !m_store.Commit()) {
    m_u64Dropped = u64Dropped;
    StoreFailed(u64NowMs);
    return false;
  }
  m_pForward->Committed();
  m_bCanLetGo = true;
  if (m_bNoRoom) {
    m_u64RetryStoreMs = u64NowMs + kRetryStoreMs;
    return true;
  }
  if (!m_bPaused)
    InputsStored();
  if (m_u64Dropped != u64Dropped)
    LogWarnTo(Log(), "*zxlogforward store is full, dropped the oldest records[%llu]",
              m_u64Dropped - u64Dropped);
  StoreWorks();
  return true;
}

void CLogCache::InputsStored() {
  for (const auto& pSource : m_sources) {
    m_u64Taken += pSource->chunks.Records();
    pSource->chunks.Clear();
    for (const auto& pFile : pSource->files)
      pFile->Committed();
  }
}

bool CLogCache::StoreInputs() {
  if (m_bPaused)
    return true;
  const int64_t i64WallMs = WallMs();
  for (const auto& pSource : m_sources) {
    for (const CChunks::_Chunk& chunk : pSource->chunks.List()) {
      if (!m_store.Append(pSource->i64Source, i64WallMs, chunk.strData, chunk.uiRecords))
        return false;
    }
    for (const auto& pFile : pSource->files) {
      for (const _FileMark& mark : pFile->Changed()) {
        if (!m_store.Mark(pSource->i64Source, mark))
          return false;
      }
      for (const _FileMark& mark : pFile->Ended()) {
        if (!m_store.Unmark(pSource->i64Source, mark))
          return false;
      }
    }
  }
  return true;
}

// Lets old records go, then says whether what came in may be stored. Refusing means to stop reading: records
// wait in their files, and senders wait or are told by the kernel.
bool CLogCache::MakeRoom() {
  uint64_t u64Records = 0;
  if (!m_store.Drop(0, m_store.Now() - m_settings.i64MaxAgeMs, u64Records))
    return false;
  m_u64Dropped += u64Records;
  const uint64_t u64Wanted = m_store.Held().u64Bytes + PendingBytes();
  if (u64Wanted > m_settings.u64MaxBytes && m_settings.eWhenFull == EWhenFull::DropOldest) {
    if (!m_store.Drop(u64Wanted - m_settings.u64MaxBytes, std::numeric_limits<int64_t>::max(), u64Records))
      return false;
    m_u64Dropped += u64Records;
  }
  const uint64_t u64Held = m_store.Held().u64Bytes + PendingBytes();
  if (u64Held > m_settings.u64MaxBytes)
    SetPaused(true, "the store is full");
  else if (!m_bPaused || m_settings.u64MaxBytes - u64Held >= m_settings.u64MaxBytes / kResumeAt)
    SetPaused(false, "the store has room");
  return true;
}

void CLogCache::SetPaused(bool bPaused, const char* pszWhy) {
  if (bPaused == m_bPaused)
    return;
  m_bPaused = bPaused;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = m_hInputs;
  (void)epoll_ctl(m_hEpoll, bPaused ? EPOLL_CTL_DEL : EPOLL_CTL_ADD, m_hInputs, &event);
  if (bPaused)
    LogWarnTo(Log(), "*zxlogforward takes no input: %s bytes[%llu]", pszWhy, m_store.Held().u64Bytes);
  else
    LogInfoTo(Log(), "zxlogforward takes input: %s bytes[%llu]", pszWhy, m_store.Held().u64Bytes);
}

void CLogCache::StoreFailed(uint64_t u64NowMs) {
  const std::string strError = m_store.Error();
  const bool bFull = m_store.IsDiskFull(), bDamaged = m_store.IsDamaged();
  m_store.Rollback();
  m_pForward->RolledBack();
  m_bCanLetGo = false;
  m_u64RetryStoreMs = u64NowMs + kRetryStoreMs;
  if (!m_bStoreSick)
    LogErrorTo(Log(), "**zxlogforward cannot write its store, takes no input until it can error[%s] full[%d]",
               strError, bFull ? 1 : 0);
  m_bStoreSick = true;
  SetPaused(true, "the store cannot be written");
  if (bDamaged)
    m_store.Close();  // set aside, and begun anew, at the next try
  if (!bFull || m_bNoRoom)
    return;
  // What is held can be sent and let go even now: the reserve makes room for the notes of that.
  unlink((Folder() + "reserve").c_str());
  m_bNoRoom = true;
  m_u64RetryStoreMs = u64NowMs;
}

void CLogCache::StoreWorks() {
  KeepReserve();
  if (!m_bStoreSick)
    return;
  m_bStoreSick = false;
  LogInfoTo(Log(), "zxlogforward store works again");
}

// True: the reserve is there. It is only made when the disk has room for more than it.
bool CLogCache::KeepReserve() {
  const std::string strReserve = Folder() + "reserve";
  struct stat st {};
  if (stat(strReserve.c_str(), &st) == 0 && static_cast<uint64_t>(st.st_size) == kReserveBytes)
    return true;
  struct statvfs fs {};
  if (statvfs(Folder().c_str(), &fs) != 0 || uint64_t{fs.f_bavail} * fs.f_frsize < kRoomBytes)
    return false;
  const int hReserve = open(strReserve.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (hReserve < 0)
    return false;
  const bool bKept = posix_fallocate(hReserve, 0, kReserveBytes) == 0;
  close(hReserve);
  if (!bKept)
    unlink(strReserve.c_str());
  return bKept;
}

void CLogCache::WriteStatus(uint64_t u64NowMs) {
  if (u64NowMs < m_u64NextStatusMs || !m_store.IsOpen())
    return;
  m_u64NextStatusMs = u64NowMs + kStatusMs;
  m_bStatusDue = false;
  const _Held held = m_store.Held();
  const _ForwardCounts& counts = m_pForward->Counts();
  uint64_t u64Refused = 0;
  for (const auto& pSource : m_sources) {
    for (const auto& pSocket : pSource->sockets)
      u64Refused += pSocket->Refused();
  }
  zxtools::CPJsonParse json;
  json.CreateJson();
  const std::pair<const char*, double> figures[] = {
      {"held_records", static_cast<double>(held.u64Records)},
      {"held_bytes", static_cast<double>(held.u64Bytes)},
      {"taken_records", static_cast<double>(m_u64Taken)},
      {"forwarded_records", static_cast<double>(counts.u64Forwarded)},
      {"dropped_records", static_cast<double>(m_u64Dropped + counts.u64Expired)},
      {"refused_inputs", static_cast<double>(u64Refused)},
      {"log_caches_under_way", static_cast<double>(m_pForward->InFlight())},
      {"log_caches_sent", static_cast<double>(counts.u64Sent)},
      {"log_caches_refused", static_cast<double>(counts.u64Refused)},
      {"log_caches_failed", static_cast<double>(counts.u64Failed)}};
  for (const auto& [pszName, dValue] : figures)
    json.AddNode(nullptr, pszName, dValue);
  json.AddNodeBool(nullptr, "takes_input", m_bPaused || m_bStoreSick ? 0 : 1);
  CPString strJson;
  json.GetJsonStr(strJson, true);
  if (strJson.Str() == m_strStatus)
    return;
  m_strStatus = strJson.Str();
  const CPString strFile(Folder() + "status.json");
  if (ZxSaveFileData(strFile + ".tmp", strJson))
    (void)rename((strFile + ".tmp").c_str(), strFile.c_str());
}

}  // namespace zxlogcache
