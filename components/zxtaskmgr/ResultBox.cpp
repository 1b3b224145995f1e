#include "ResultBox.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <exception>
#include <filesystem>

#include "platform/os/ZxFile.h"
#include "platform/os/ZxThread.h"
#include "platform/os/ZxTime.h"
#include "zxlogcache/Records.h"

using zxlogcache::_SourceSettings;
using zxlogcache::WallMs;

namespace {

constexpr char kAgentGuid[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";
constexpr uint32_t kPolicyType = 20001;
constexpr uint32_t kResultType = 20204;
constexpr uint32_t kTimeoutMs = 60000;
constexpr size_t kRecordBytes = 212;
constexpr size_t kTextBytes = 64;
constexpr size_t kUploadResultBytes = 48;
constexpr uint64_t kRetryStoreMs = 1000;
constexpr uint64_t kLookForPoliciesMs = 1000;
constexpr uint64_t kPolicyPauseMs = 10000;

template <class T>
void PutNumber(std::string& strRecord, size_t uAt, T value) {
  std::memcpy(strRecord.data() + uAt, &value, sizeof(value));
}

void PutText(std::string& strRecord, size_t uAt, const std::string& strText) {
  strText.copy(strRecord.data() + uAt, kTextBytes - 1);
}

}  // namespace

std::string TaskResultRecord(const _SourceSettings& source, uint64_t u64DataId, std::string_view body) {
  std::string strRecord(kRecordBytes, '\0');
  PutNumber(strRecord, 0, static_cast<int32_t>(source.iPriv));
  PutNumber(strRecord, 4, static_cast<int32_t>(source.iMsgType));
  PutText(strRecord, 8, source.strGuid);
  PutText(strRecord, 72, source.strCombo);
  PutText(strRecord, 136, source.strProduct);
  PutNumber(strRecord, 200, u64DataId);
  PutNumber(strRecord, 208, static_cast<uint32_t>(body.size()));
  return strRecord.append(body);
}

bool ParseUploadResult(std::string_view data, uint64_t& u64DataId, int32_t& iResult) {
  if (data.size() < kUploadResultBytes)
    return false;
  std::memcpy(&iResult, data.data() + 4, sizeof(iResult));
  std::memcpy(&u64DataId, data.data() + 8, sizeof(u64DataId));
  return true;
}

void CResultBox::Start(const std::string& strDir, IBusContext* pBus, HLog hLog) {
  m_strDir = strDir;
  m_pBus = pBus;
  m_hLog = hLog;
  m_bStop = false;
  m_u64RetryMs = 0;
  m_pForward = std::make_unique<zxlogcache::CForward>(
      m_settings,
      [this](const _SourceSettings& source, uint64_t u64DataId, const std::string& strBody) {
        return Send(kResultType, TaskResultRecord(source, u64DataId, strBody),
                    reinterpret_cast<void*>(u64DataId));
      },
      hLog, static_cast<uint32_t>(ZxGetTickCount()));
  m_thread = std::thread(&CResultBox::Run, this);
}

void CResultBox::Stop() {
  if (!m_thread.joinable())
    return;
  {
    const std::lock_guard lock(m_mutex);
    m_bStop = true;
  }
  m_cond.notify_all();
  m_thread.join();
}

void CResultBox::Add(const _SourceSettings& source, std::string strBody, std::function<void(bool)> fnKept) {
  {
    const std::lock_guard lock(m_mutex);
    m_new.push_back({source, std::move(strBody), std::move(fnKept)});
  }
  m_cond.notify_all();
}

void CResultBox::OnUploadResult(uint64_t u64DataId, int32_t iResult) {
  Put({u64DataId, static_cast<uint32_t>(iResult), _Event::Result});
}

void CResultBox::Put(const _Event& event) {
  // Under the lock: whoever has seen the event may end this object.
  const std::lock_guard lock(m_mutex);
  m_events.push_back(event);
  m_cond.notify_all();
}

uint32_t CResultBox::Send(uint32_t uiType, const std::string& strData, void* pContext) {
  const GUID guid(kAgentGuid);
  unsigned long long ui64ACT = 0;
  return m_pBus->AsynSendEx(&guid, uiType, strData.data(), static_cast<uint32_t>(strData.size()), this,
                            pContext, &ui64ACT, kTimeoutMs);
}

void CResultBox::SendCallback(unsigned int iRetReply, long, const unsigned char*, unsigned int,
                              unsigned long long, void* pContext) {
  // A null context is the policy's: data ids begin far above zero.
  Put({reinterpret_cast<uint64_t>(pContext), iRetReply,
       pContext == nullptr ? _Event::Policy : _Event::Reply});
}

void CResultBox::Run() {
  ZxSetThreadName("zxtaskmgr");
  uint64_t u64NextMs = 0;
  for (;;) {
    std::vector<_New> news;
    std::vector<_Event> events;
    {
      std::unique_lock lock(m_mutex);
      const uint64_t u64NowMs = ZxGetTickCount();
      const uint64_t u64Wait =
          std::min<uint64_t>(u64NextMs > u64NowMs ? u64NextMs - u64NowMs : 0, kLookForPoliciesMs);
      m_cond.wait_for(lock, std::chrono::milliseconds(u64Wait),
                      [this] { return m_bStop || !m_new.empty() || !m_events.empty(); });
      news.swap(m_new);
      events.swap(m_events);
      if (m_bStop && news.empty())
        break;
    }
    const uint64_t u64NowMs = ZxGetTickCount();
    try {
      Turn(news, events, u64NowMs);
    } catch (const std::exception& e) {  // out of memory
      LogErrorTo(m_hLog, "**zxtaskmgr what[%s], goes on", e.what());
      m_store.Rollback();
      m_pForward->RolledBack();
      m_u64RetryMs = u64NowMs + kRetryStoreMs;
      m_bSick = true;
    }
    u64NextMs = m_bSick || !m_store.IsOpen() ? m_u64RetryMs : m_pForward->NextMs(u64NowMs);
  }
  m_store.Close();
}

void CResultBox::Turn(std::vector<_New>& news, const std::vector<_Event>& events, uint64_t u64NowMs) {
  for (const _Event& event : events) {
    if (event.eKind == _Event::Policy)
      PolicyAnswered(event.uiStatus, u64NowMs);
    else if (event.eKind == _Event::Result)
      m_pForward->OnResult(event.u64DataId, static_cast<int32_t>(event.uiStatus), u64NowMs);
    else
      m_pForward->OnReply(event.u64DataId, event.uiStatus, u64NowMs);
  }
  Keep(news, u64NowMs);
  SendPolicy(u64NowMs);
}

bool CResultBox::Open(uint64_t u64NowMs) {
  if (m_store.IsOpen())
    return true;
  if (u64NowMs < m_u64RetryMs)
    return false;
  m_u64RetryMs = u64NowMs + kRetryStoreMs;
  std::error_code error;
  std::string strSetAside;
  std::filesystem::create_directories(m_strDir, error);
  const bool bOpen = m_store.Open(m_strDir + "results.db", WallMs(), strSetAside);
  m_store.SetClock(WallMs(), u64NowMs);
  if (!strSetAside.empty())
    LogErrorTo(m_hLog, "**zxtaskmgr store is damaged, begins a new one; kept as strFile[%s]", strSetAside);
  if (bOpen && m_pForward->Load(m_store)) {
    LogInfoTo(m_hLog, "zxtaskmgr store is open results[%llu]", m_store.Held().u64Records);
    return true;
  }
  if (!m_bSick)
    LogErrorTo(m_hLog, "**zxtaskmgr cannot open its store error[%s]", m_store.Error());
  m_bSick = true;
  m_store.Close();
  return false;
}

void CResultBox::Keep(std::vector<_New>& news, uint64_t u64NowMs) {
  bool bKept = false;
  const bool bWork =
      !news.empty() || (m_bSick ? u64NowMs >= m_u64RetryMs : m_pForward->NextMs(u64NowMs) <= u64NowMs);
  if (Open(u64NowMs) && bWork) {
    m_store.SetClock(WallMs(), u64NowMs);
    bKept = Store(news, u64NowMs);
    if (bKept) {
      m_pForward->Committed();
      if (m_bSick)
        LogInfoTo(m_hLog, "zxtaskmgr store works again results[%llu]", m_store.Held().u64Records);
    } else {
      if (!m_bSick)
        LogErrorTo(m_hLog, "**zxtaskmgr cannot write its store error[%s]", m_store.Error());
      m_store.Rollback();
      m_pForward->RolledBack();
      m_u64RetryMs = u64NowMs + kRetryStoreMs;
    }
    m_bSick = !bKept;
  }
  for (const _New& result : news)
    result.fnKept(bKept);
  if (m_store.IsOpen())
    m_pForward->Send(m_store, u64NowMs);
}

bool CResultBox::Store(const std::vector<_New>& news, uint64_t u64NowMs) {
  if (!m_store.Begin() || !m_pForward->LetGo(m_store))
    return false;
  uint64_t u64Held = m_store.Held().u64Bytes;
  for (const _New& result : news) {
    int64_t i64Source = 0;
    std::string strChunk;
    zxlogcache::PackRecord(result.strBody, strChunk);
    u64Held += strChunk.size();
    if (u64Held > m_settings.u64MaxBytes || !m_store.Register(result.source, i64Source) ||
        !m_store.Append(i64Source, WallMs(), strChunk, 1))
      return false;
    m_pForward->Know(i64Source, result.source);
  }
  return m_pForward->Form(m_store, u64NowMs) && m_store.Commit();
}

void CResultBox::SendPolicy(uint64_t u64NowMs) {
  if (!m_strPolicy.empty() || u64NowMs < m_u64PolicyMs)
    return;
  m_u64PolicyMs = u64NowMs + kLookForPoliciesMs;
  std::vector<std::string> names;
  std::error_code error;
  const std::string strDir = m_strDir + "policy/";
  for (std::filesystem::directory_iterator it(strDir, error), end; !error && it != end; it.increment(error)) {
    std::error_code ignored;
    if (it->path().extension() == ".json" && it->is_regular_file(ignored))
      names.push_back(it->path().filename().string());
  }
  if (names.empty())
    return;
  const std::string strName = *std::min_element(names.begin(), names.end());
  CPString strText;
  const uint32_t uiRet = ZxReadFileText(CPString(strDir + strName), strText)
                             ? Send(kPolicyType, strText.Str(), nullptr)
                             : kBusErrInvalid;
  m_strPolicy = strName;
  if (uiRet != 0)
    PolicyAnswered(uiRet, u64NowMs);
}

void CResultBox::PolicyAnswered(uint32_t uiStatus, uint64_t u64NowMs) {
  const std::string strDir = m_strDir + "policy/";
  std::error_code error;
  std::filesystem::create_directories(strDir + "taken", error);
  if (uiStatus == 0)
    std::filesystem::rename(strDir + m_strPolicy, strDir + "taken/" + m_strPolicy, error);
  if (uiStatus == 0 && !error) {
    LogInfoTo(m_hLog, "zxtaskmgr policy taken by the agent file[%s]", m_strPolicy);
  } else {
    LogWarnTo(m_hLog, "*zxtaskmgr policy not taken, tried again file[%s] iStatus[%x] Error[%d]", m_strPolicy,
              uiStatus, error.value());
    m_u64PolicyMs = u64NowMs + kPolicyPauseMs;
  }
  m_strPolicy.clear();
}
