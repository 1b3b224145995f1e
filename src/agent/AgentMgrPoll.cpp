// The poll thread: asks the cloud for commands while no long connection carries them.
#include <time.h>

#include <algorithm>
#include <exception>

#include "agent/AgentMgr.h"
#include "data/AgentLog.h"

namespace {

constexpr uint32_t kPassMs = 5000;
constexpr uint32_t kPassesPerLine = 12;  // one "nothing to do" line a minute
constexpr uint32_t kMaxErrors = 5;       // failed polls in a row before a short-only channel is rebuilt
constexpr uint64_t kVerboseEverySeconds = 3600;

}  // namespace

void* CAgentMgr::PollMsgThread(void*) {
  pthread_detach(pthread_self());
  ZxSetThreadName("zxagentpollmsg");
  CAgentMgr* pThis = Current();
  if (pThis == nullptr) {
    LogError("**zxagent CAgentMgr::PollMsgThread pThis is NULL");
    return nullptr;
  }
  pThis->PollLoop();
  return nullptr;
}

void CAgentMgr::PollLoop() {
  LogInfo("zxagent CAgentMgr::PollMsgThread Begin");
  {
    CCritLock lock(m_csStatus);
    m_iPollMsgStatus = 1;
  }
  if (m_hEventBegun != nullptr)
    ZxSetEvent(m_hEventBegun);
  _PollState state;
  while (!EndPollIfAsked()) {
    try {
      PollOnce(state, static_cast<uint32_t>(time(nullptr)));
    } catch (const std::exception& e) {
      LogError("**zxagent CAgentMgr::PollMsgThread Error what[%s] i[%u]", e.what(), state.i);
    }
    if (m_hEventPollMsg != nullptr)
      ZxWaitEventTimeout(m_hEventPollMsg, kPassMs);
    else
      m_fnSleepMs(kPassMs);
  }
  LogInfo("zxagent CAgentMgr::PollMsgThread End");
}

bool CAgentMgr::EndPollIfAsked() {
  CCritLock lock(m_csStatus);
  if (m_iPollMsgStatus == 1)
    return false;
  m_iPollMsgStatus = 2;
  return true;
}

void CAgentMgr::PollOnce(_PollState& state, uint32_t dwNow) {
  int bIsOnlyShort = 0;
  int bRecvTconf = 0;
  int iPollerCycle = 0;
  {
    CCritLock lock(m_csStatus);
    bIsOnlyShort = m_bIsOnlyShort;
    bRecvTconf = m_bRecvTconf;
    iPollerCycle = m_iPollerCycle;
  }
  const uint32_t i = state.i++;
  const bool bLine = i % kPassesPerLine == 0;
  if (!bRecvTconf) {
    state.dwTimeLast = bIsOnlyShort ? 0 : dwNow;
    state.dwCycleError = 0;
    if (bLine)
      LogDetail("zxagent CAgentMgr::PollMsgThread not recv tconf m_bIsOnlyShort[%d] i[%d]", bIsOnlyShort, i);
  } else if (!bIsOnlyShort && IsConnect()) {
    state.dwTimeLast = dwNow;
    state.dwCycleError = 0;
    if (bLine)
      LogDetail("zxagent CAgentMgr::PollMsgThread long connect i[%d]", i);
  } else if (dwNow < state.dwTimeLast) {
    LogDetail("zxagent CAgentMgr::PollMsgThread time error dwTimeNow[%u] < dwTimeLast[%u]", dwNow,
              state.dwTimeLast);
    state.dwTimeLast = dwNow;
  } else if (static_cast<int64_t>(dwNow) < static_cast<int64_t>(state.dwTimeLast) + iPollerCycle) {
    if (bLine)
      LogDetail(
          "zxagent CAgentMgr::PollMsgThread time is too short dwTimeNow[%u] dwTimeLast[%u] m_iPollerCycle[%d] i[%d]",
          dwNow, state.dwTimeLast, iPollerCycle, i);
  } else {
    Poll(state, dwNow, iPollerCycle, bIsOnlyShort);
  }
}

void CAgentMgr::Poll(_PollState& state, uint32_t dwNow, int iPollerCycle, int bIsOnlyShort) {
  // At most one verbose poll an hour; a clock that went back does not silence it for longer.
  state.dwPrintLast = std::min(state.dwPrintLast, dwNow);
  state.bPrint = state.dwPrintLast + kVerboseEverySeconds <= dwNow ? 1 : 0;
  LogDetail("zxagent CAgentMgr::PollMsgThread running m_iPollerCycle[%d] bPrint[%d]", iPollerCycle,
            state.bPrint);
  const CPString strBusiness = m_AgentData.GetAllPcidBusiness(state.bPrint);
  ++state.u64Count;
  if (m_AgentSendMsg.ZxcloudPollMessage(state.bPrint, strBusiness) == 0) {
    state.dwCycleError = 0;
  } else {
    ++state.u64CountError;
    ++state.dwCycleError;
  }
  if (state.bPrint) {
    LogDetail("zxagent CAgentMgr::PollMsgThread u64Count[%llu] u64CountError[%llu] dwCycleError[%u]",
              state.u64Count, state.u64CountError, state.dwCycleError);
    state.dwPrintLast = dwNow;
  }
  if (state.dwCycleError < kMaxErrors || !bIsOnlyShort) {
    state.dwTimeLast = dwNow;
    return;
  }
  ReconnectZxcloud();
  InitZxcloud(1);
  state.dwCycleError = 0;
  state.dwTimeLast = 0;
}
