#include "platform/log/LogBackend.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "platform/os/ZxThread.h"
#include "platform/os/ZxTime.h"
#include "platform/os/ZxWait.h"

namespace zxlog {

// Opening and closing exclude each other as a whole; they wait for the writer, so no lock can do it.
class CLogBackend::CTurn {
 public:
  explicit CTurn(CLogBackend& backend) : m_backend(backend) { m_backend.BeginTurn(); }
  ~CTurn() { m_backend.EndTurn(); }
  CTurn(const CTurn&) = delete;
  CTurn& operator=(const CTurn&) = delete;

 private:
  CLogBackend& m_backend;
};

namespace {

// A second's texts, made once for all its lines.
struct CSecondText {
  time_t iSecond = -1;
  char szTime[64] = {};  // before the milliseconds
  char szZone[48] = {};  // behind them

  void Set(time_t iNewSecond) {
    if (iSecond == iNewSecond)
      return;
    struct tm tmLocal {};
    localtime_r(&iNewSecond, &tmLocal);
    const long lZone = tmLocal.tm_gmtoff / 60;
    std::snprintf(szTime, sizeof(szTime), "%04d-%02d-%02d %02d:%02d:%02d", tmLocal.tm_year + 1900,
                  tmLocal.tm_mon + 1, tmLocal.tm_mday, tmLocal.tm_hour, tmLocal.tm_min, tmLocal.tm_sec);
    std::snprintf(szZone, sizeof(szZone), "%c%02ld%02ld", lZone < 0 ? '-' : '+', std::abs(lZone) / 60,
                  std::abs(lZone) % 60);
    iSecond = iNewSecond;
  }
};

}  // namespace

std::string FormatLogLine(int iLevel, const timespec& tsTime, pid_t iThread, std::string_view svText) {
  static thread_local CSecondText t_second;
  t_second.Set(tsTime.tv_sec);
  char szHead[160];
  const int iHead = std::snprintf(szHead, sizeof(szHead), "%s.%03ld %s [%d] [%d:%d] ", t_second.szTime,
                                  tsTime.tv_nsec / kNsPerMs, t_second.szZone, iLevel, getpid(), iThread);
  std::string strLine;
  strLine.reserve(static_cast<size_t>(iHead) + svText.size() + 1);
  strLine.append(szHead, static_cast<size_t>(iHead)).append(svText).append(1, '\n');
  return strLine;
}

pid_t CurrentThreadId() {
  return static_cast<pid_t>(syscall(SYS_gettid));
}

std::string CutText(std::string_view svKept, size_t uFullLength) {
  return std::string(svKept).append("...[cut, ").append(std::to_string(uFullLength)).append(" bytes]");
}

CLogBackend& CLogBackend::Instance() {
  static auto* s_pBackend = new CLogBackend;  // never deleted: threads may log until the process is gone
  return *s_pBackend;
}

CLogBackend::CLogBackend() : m_pSettings(std::make_shared<CLogSettings>()) {
  for (pthread_cond_t* pCond : {&m_condWork, &m_condRoom, &m_condDone, &m_condTurn})
    ZxInitCond(*pCond);
}

void CLogBackend::SetHome(const CPString& strHome) {
  CCritLock lock(m_cs);
  m_strHome = strHome.Str();
  m_bSettingsStale = true;
}

int CLogBackend::ThresholdOf(const std::string& strChannel) const {
  return m_iForcedLevel != 0 ? m_iForcedLevel : m_pSettings->ThresholdOf(strChannel);
}

void CLogBackend::ForceLevel(int iLevel) {
  if (iLevel != 0 && (iLevel < kLogMinLevel || iLevel > kLogMaxLevel))
    return;
  CCritLock lock(m_cs);
  m_iForcedLevel = iLevel;
  for (auto& [strName, pChannel] : m_channels)
    pChannel->iThreshold = ThresholdOf(strName);
}

HLog CLogBackend::Open(const char* pszName) {
  const CTurn turn(*this);
  bool bLoad = false;
  bool bStart = false;
  {
    CCritLock lock(m_cs);
    bStart = m_uOpenChannels == 0;
    bLoad = bStart || m_bSettingsStale;
  }
  if (bLoad)
    LoadSettings();
  // Without a writer the lines go to stderr on the caller's thread.
  const bool bWriter = !bStart || StartWriter();
  CBackendChannel* pChannel = nullptr;
  {
    CCritLock lock(m_cs);
    if (bStart)
      m_bWriter = bWriter;
    std::unique_ptr<CBackendChannel>& pOwner = m_channels[pszName];
    if (pOwner == nullptr)
      pOwner = std::make_unique<CBackendChannel>(pszName);
    pChannel = pOwner.get();
    if (pChannel->uOpen++ == 0) {
      ++m_uOpenChannels;
      pChannel->iThreshold = ThresholdOf(pChannel->strName);
    }
  }
  return pChannel;
}

void CLogBackend::Close(HLog hLog) {
  auto* pChannel = static_cast<CBackendChannel*>(hLog);
  const CTurn turn(*this);
  WaitWritten();
  bool bStopWriter = false;
  {
    CCritLock lock(m_cs);
    if (pChannel->uOpen != 0 && --pChannel->uOpen == 0) {
      pChannel->bCloseFile = true;
      m_bCloseFiles = true;
      // Whoever waits for room to log to this channel gives up.
      pthread_cond_broadcast(&m_condRoom);
      bStopWriter = --m_uOpenChannels == 0 && m_bWriter;
      m_bStop = bStopWriter;
      pthread_cond_signal(&m_condWork);
    }
  }
  if (bStopWriter) {
    pthread_join(m_hWriter, nullptr);
    CCritLock lock(m_cs);
    m_bStop = false;
    m_bWriter = false;
  }
}

void CLogBackend::Post(HLog hLog, int iLevel, std::string_view svText) {
  CLogLine line;
  line.pChannel = static_cast<CBackendChannel*>(hLog);
  line.iLevel = iLevel;
  clock_gettime(CLOCK_REALTIME, &line.tsTime);
  line.iThread = CurrentThreadId();
  line.strText = svText;
  {
    CCritLock lock(m_cs);
    while (m_bWriter && line.pChannel->uOpen != 0 && !m_queue.empty() &&
           (m_queue.size() >= kLogQueueLines || m_uQueueBytes + svText.size() > kLogQueueBytes)) {
      ++m_uRoomWaiters;
      pthread_cond_wait(&m_condRoom, m_cs.Native());
      --m_uRoomWaiters;
    }
    if (line.pChannel->uOpen == 0)
      return;
    if (m_bWriter) {
      m_queue.push_back(std::move(line));
      m_uQueueBytes += svText.size();
      ++m_u64Posted;
      if (m_bWriterWaits || (m_bWriterGathers && BatchIsDue())) {
        m_bWriterWaits = false;
        pthread_cond_signal(&m_condWork);
      }
      return;
    }
  }
  WriteStderr(FormatLogLine(line.iLevel, line.tsTime, line.iThread, line.strText));
}

void CLogBackend::BeginTurn() {
  CCritLock lock(m_cs);
  while (m_bTurn)
    pthread_cond_wait(&m_condTurn, m_cs.Native());
  m_bTurn = true;
}

void CLogBackend::EndTurn() {
  CCritLock lock(m_cs);
  m_bTurn = false;
  pthread_cond_signal(&m_condTurn);
}

bool CLogBackend::StartWriter() {
  sigset_t setAll;
  sigset_t setOld;
  sigfillset(&setAll);
  pthread_sigmask(SIG_SETMASK, &setAll, &setOld);
  // Also blocks SIGXFSZ, so that a file at its size limit is a write error like any other.
  const bool bOk = pthread_create(&m_hWriter, nullptr, &WriterEntry, this) == 0;
  pthread_sigmask(SIG_SETMASK, &setOld, nullptr);
  return bOk;
}

void* CLogBackend::WriterEntry(void* pBackend) {
  ZxSetThreadName("zxlogwriter");
  static_cast<CLogBackend*>(pBackend)->WriterLoop();
  return nullptr;
}

void CLogBackend::WriterLoop() {
  TBatch batch;
  while (TakeBatch(batch)) {
    const size_t uLines = batch.size();
    try {
      CheckConfig();
      WriteBatch(batch);
    } catch (const std::exception&) {
      WriteStderr("zxlog: out of memory, lines were lost\n");
    }
    batch.clear();
    CloseFiles();
    CCritLock lock(m_cs);
    m_u64Written += uLines;
    pthread_cond_broadcast(&m_condDone);
  }
  CloseFiles();
}

// Returns with lines, with none when it is time to look at the settings, or false to end.
bool CLogBackend::TakeBatch(TBatch& batch) {
  CCritLock lock(m_cs);
  if (m_queue.empty() && !m_bStop && !m_bCloseFiles) {
    const timespec tsDeadline = ZxDeadline(kLogConfigCheckMs);
    int iError = 0;
    while (iError != ETIMEDOUT && m_queue.empty() && !m_bStop && !m_bCloseFiles) {
      m_bWriterWaits = true;
      iError = pthread_cond_timedwait(&m_condWork, m_cs.Native(), &tsDeadline);
    }
    m_bWriterWaits = false;
  }
  Gather();
  batch.swap(m_queue);
  m_uQueueBytes = 0;
  if (m_uRoomWaiters != 0)
    pthread_cond_broadcast(&m_condRoom);
  return !batch.empty() || !m_bStop;
}

bool CLogBackend::BatchIsDue() const {
  return m_bStop || m_bCloseFiles || m_uDoneWaiters != 0 || m_queue.size() >= kLogGatherLines ||
         m_uQueueBytes >= kLogGatherBytes;
}

// Lines come in bursts: one wake-up and one write for many of them.
void CLogBackend::Gather() {
  if (m_queue.empty())
    return;
  const timespec tsDeadline = ZxDeadline(kLogGatherMs);
  m_bWriterGathers = true;
  while (!BatchIsDue() && pthread_cond_timedwait(&m_condWork, m_cs.Native(), &tsDeadline) != ETIMEDOUT) {
  }
  m_bWriterGathers = false;
}

void CLogBackend::WriteBatch(TBatch& batch) {
  std::shared_ptr<const CLogSettings> pSettings;
  {
    CCritLock lock(m_cs);
    pSettings = m_pSettings;
  }
  std::vector<CBackendChannel*> touched;
  for (CLogLine& line : batch) {
    if (std::find(touched.begin(), touched.end(), line.pChannel) == touched.end()) {
      touched.push_back(line.pChannel);
      line.pChannel->file.Configure(pSettings->strDir, line.pChannel->strName, pSettings->u64MaxBytes,
                                    pSettings->iMaxFiles);
    }
    line.strText = FormatLogLine(line.iLevel, line.tsTime, line.iThread, line.strText);
    line.pChannel->file.Write(line.strText);
  }
  for (CBackendChannel* pChannel : touched) {
    if (pChannel->file.Commit())
      continue;
    for (const CLogLine& line : batch) {
      if (line.pChannel == pChannel)
        pChannel->file.Divert(line.strText);
    }
  }
}

void CLogBackend::CloseFiles() {
  std::vector<CBackendChannel*> closing;
  {
    CCritLock lock(m_cs);
    if (!m_bCloseFiles)
      return;
    m_bCloseFiles = false;
    for (auto& [strName, pChannel] : m_channels) {
      if (pChannel->bCloseFile)
        closing.push_back(pChannel.get());
      pChannel->bCloseFile = false;
    }
  }
  for (CBackendChannel* pChannel : closing)
    pChannel->file.Close();
}

void CLogBackend::CheckConfig() {
  const uint64_t u64Now = ZxGetTickCount();
  if (u64Now < m_u64ConfigCheckAt)
    return;
  m_u64ConfigCheckAt = u64Now + kLogConfigCheckMs;
  std::string strHome;
  CLogConfigStamp stampKnown;
  {
    CCritLock lock(m_cs);
    strHome = m_strHome;
    stampKnown = m_stamp;
  }
  if (StatLogConfig(strHome) != stampKnown)
    LoadSettings();
}

void CLogBackend::LoadSettings() {
  std::string strHome;
  {
    CCritLock lock(m_cs);
    strHome = m_strHome;
    m_bSettingsStale = false;
  }
  // Stamped before it is read: a change in between is seen by the next check.
  const CLogConfigStamp stamp = StatLogConfig(strHome);
  auto pSettings = std::make_shared<CLogSettings>();
  if (!LoadLogSettings(strHome, *pSettings))
    WriteStderr("zxlog: " + strHome + "etc/zxlog.json is not usable, the defaults hold\n");
  CCritLock lock(m_cs);
  m_stamp = stamp;
  m_pSettings = std::move(pSettings);
  for (auto& [strName, pChannel] : m_channels)
    pChannel->iThreshold = ThresholdOf(strName);
}

void CLogBackend::WaitWritten() {
  CCritLock lock(m_cs);
  const uint64_t u64Until = m_u64Posted;
  ++m_uDoneWaiters;
  pthread_cond_signal(&m_condWork);
  while (m_bWriter && m_u64Written < u64Until)
    pthread_cond_wait(&m_condDone, m_cs.Native());
  --m_uDoneWaiters;
}

}  // namespace zxlog
