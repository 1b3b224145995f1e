// Callbacks of the cloud library. They run on its threads and only copy the event into the work queue, so
// that all events are handled in arrival order on one thread.
#include <cstring>
#include <exception>

#include "agent/AgentMgr.h"
#include "data/AgentLog.h"
#include "platform/cloud/zxcloud.h"

namespace {

constexpr int kDropped = -1;
constexpr int kTconfPcid = 2;

// Whether the library was last told to write its debug lines. The library starts with them on.
constinit std::atomic<int> s_bAllowDebug{1};

const char* TextOrNull(const char* psz) {
  return psz == nullptr ? "null" : psz;
}

// The text of a log line: at most iLength bytes, all of them when iLength is 0.
CPString BoundedText(const char* psz, int iLength) {
  if (psz == nullptr || iLength == 0)
    return TextOrNull(psz);
  return iLength < 0 ? CPString() : CPString(psz, strnlen(psz, static_cast<size_t>(iLength)));
}

}  // namespace

int CAgentMgr::ZxcloudPushmsgCallback(int iPcid, const char* pszMsg) {
  CAgentMgr* pAgentMgr = Current();
  if (pAgentMgr == nullptr) {
    LogWarn("*zxagent ZxcloudPushmsgCallback Warn pAgentMgr is NULL iPcid[%d] pszMsg[%p][%s]", iPcid, pszMsg,
            TextOrNull(pszMsg));
    return kDropped;
  }
  LogInfo("zxagent ZxcloudPushmsgCallback recv iPcid[%d] pszMsg[%p][%s]", iPcid, pszMsg, TextOrNull(pszMsg));
  return pAgentMgr->AddZxcloudCallbackData(kWorkPushmsg, static_cast<uint32_t>(iPcid), pszMsg, 0) ? 0
                                                                                                  : kDropped;
}

int CAgentMgr::ZxcloudTconfCallback(int iFlag, const char* pszTconfArg) {
  CAgentMgr* pAgentMgr = Current();
  if (pAgentMgr == nullptr) {
    LogWarn("*zxagent ZxcloudTconfCallback Warn pAgentMgr is NULL iFlag[%d] pszTconfArg[%s]", iFlag,
            TextOrNull(pszTconfArg));
    return kDropped;
  }
  if (iFlag != kTconfPcid) {
    LogInfo("zxagent ZxcloudTconfCallback not pcid iFlag[%d] pszTconfArg[%s]", iFlag,
            TextOrNull(pszTconfArg));
    return 0;
  }
  LogInfo("zxagent ZxcloudTconfCallback recv pcid iFlag[%d] pszTconfArg[%s]", iFlag, TextOrNull(pszTconfArg));
  return pAgentMgr->AddZxcloudCallbackData(kWorkTconf, 0, pszTconfArg, 0) ? 0 : kDropped;
}

int CAgentMgr::ZxcloudConnectCallback(const char* pszIp, unsigned short wPort) {
  CAgentMgr* pAgentMgr = Current();
  if (pAgentMgr == nullptr) {
    LogWarn("*zxagent ZxcloudConnectCallback Warn pAgentMgr is NULL pszIp[%s] wPort[%d]", TextOrNull(pszIp),
            wPort);
    return kDropped;
  }
  if (pszIp == nullptr) {
    LogError("**zxagent ZxcloudConnectCallback Error pszIp is NULL wPort[%d]", wPort);
    return kDropped;
  }
  LogInfo("zxagent ZxcloudConnectCallback recv pszIp[%s] wPort[%d]", pszIp, wPort);
  pAgentMgr->AddZxcloudCallbackData(kWorkConnect, wPort, pszIp, 0);
  return 0;
}

int CAgentMgr::ZxcloudDisconnectCallback() {
  CAgentMgr* pAgentMgr = Current();
  if (pAgentMgr == nullptr) {
    LogWarn("*zxagent ZxcloudDisconnectCallback Warn pAgentMgr is NULL");
    return kDropped;
  }
  LogInfo("zxagent ZxcloudDisconnectCallback recv");
  pAgentMgr->AddZxcloudCallbackData(kWorkDisconnect, 0, nullptr, 0);
  return 0;
}

void CAgentMgr::ZxcloudLogCallback(int logModule, int logLevel, const char* pszText) {
  const HLog hLogZxcloud = g_hLogZxcloud.load(std::memory_order_relaxed);
  if (pszText == nullptr || hLogZxcloud == nullptr)
    return;
  if (logModule == kZxcloudLogModule) {
    const int bAllowDebug = LogCheckLevel(hLogZxcloud, kLogDetail) ? 1 : 0;
    if (s_bAllowDebug.exchange(bAllowDebug) != bAllowDebug) {
      CAgentMgr* pAgentMgr = Current();
      if (pAgentMgr != nullptr) {
        LogInfo("zxagent ZxcloudLogCallback change bAllowDebug[%d] logModule[%d]", bAllowDebug, logModule);
        pAgentMgr->SetZxcloudAllowDebug(bAllowDebug);
      } else {
        LogWarn("*zxagent ZxcloudLogCallback Warn pAgentMgr is NULL");
      }
    }
  }
  // The library's levels are one below the agent's.
  const HLog hLog = logModule == kZxcloudLogModule ? hLogZxcloud : g_hLogMain.load(std::memory_order_relaxed);
  LogPrintStr(hLog, logLevel + 1, pszText);
}

int CAgentMgr::ZxcloudPollmsgCallback(int iFlag, const char* pszData, int iLength) {
  try {
    CAgentMgr* pAgentMgr = Current();
    if (pAgentMgr == nullptr) {
      LogWarn("*zxagent ZxcloudPollmsgCallback Warn pAgentMgr is NULL iFlag[%d] iLength[%d] pszData[%p][%s]",
              iFlag, iLength, pszData, BoundedText(pszData, iLength));
      return kDropped;
    }
    LogInfo("zxagent ZxcloudPollmsgCallback recv iFlag[%d] iLength[%d] pszData[%p][%s]", iFlag, iLength,
            pszData, BoundedText(pszData, iLength));
    return pAgentMgr->AddZxcloudCallbackData(kWorkPollmsg, static_cast<uint32_t>(iFlag), pszData, iLength)
               ? 0
               : kDropped;
  } catch (const std::exception& e) {
    LogError("**zxagent ZxcloudPollmsgCallback Error what[%s] iFlag[%d] iLength[%d]", e.what(), iFlag,
             iLength);
    return kDropped;
  }
}

int CAgentMgr::ZxcloudDataCallback(int iFlag, int iType, const char* pszData, int iLength) {
  try {
    CAgentMgr* pAgentMgr = Current();
    if (pAgentMgr == nullptr) {
      LogWarn(
          "*zxagent ZxcloudDataCallback Warn pAgentMgr is NULL iFlag[%d] iType[%d] iLength[%d] pszData[%p][%s]",
          iFlag, iType, iLength, pszData, BoundedText(pszData, iLength));
      return kDropped;
    }
    LogInfo("zxagent ZxcloudDataCallback recv iFlag[%d] iType[%d] iLength[%d] pszData[%p][%s]", iFlag, iType,
            iLength, pszData, BoundedText(pszData, iLength));
    return pAgentMgr->AddZxcloudCallbackData(kWorkData, static_cast<uint32_t>(iFlag), pszData, iLength)
               ? 0
               : kDropped;
  } catch (const std::exception& e) {
    LogError("**zxagent ZxcloudDataCallback Error what[%s] iFlag[%d] iType[%d] iLength[%d]", e.what(), iFlag,
             iType, iLength);
    return kDropped;
  }
}
