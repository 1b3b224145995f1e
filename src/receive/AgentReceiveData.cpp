// What components want delivered to the cloud or applied by the agent: log caches, task-manager results,
// policies.
#include <cstdlib>
#include <cstring>

#include "data/AgentCodes.h"
#include "data/AgentHub.h"
#include "data/AgentLog.h"
#include "receive/AgentReceive.h"

namespace {

constexpr char kReplyOk[] = "agent_reply_okok";
constexpr char kReplyError[] = "agent_reply_erro";
constexpr char kBodyTag[] = "<end=1><msg=";
constexpr size_t kBodyTagLength = sizeof(kBodyTag) - 1;
enum : uint32_t { kKindLogCache = 1, kKindTaskMgr = 2 };

// The task manager's result record, little-endian; its data follows.
#pragma pack(push, 1)
struct _TaskMgrRecord {
  int32_t iPriv;
  int32_t iMsgType;
  char szPluginId[64];
  char szCombo[64];
  char szProduct[64];
  uint64_t u64DataId;
  uint32_t uiDataLength;
};
#pragma pack(pop)
static_assert(sizeof(_TaskMgrRecord) == 212);

// A fixed field may lack its NUL.
template <size_t N>
CPString FieldText(const char (&szField)[N]) {
  return CPString(szField, strnlen(szField, N));
}

}  // namespace

bool CAgentReceive::AnalyMsgData(const CPString& strData, CPString strKey, unsigned long ulEnd,
                                 CPString& strValue) {
  const size_t uKey = strData.Find(strKey.View());
  if (uKey == CPString::npos || uKey >= ulEnd)
    return false;
  const size_t uValue = uKey + strKey.GetLength();
  const size_t uStop = strData.Find("><", uValue);
  if (uStop == CPString::npos || uStop >= ulEnd)
    return false;
  strValue = strData.Mid(uValue, uStop - uValue);
  return true;
}

uint32_t CAgentReceive::ParseLogCache(const CPString& strData, CPString& strVersion,
                                      unsigned long long& u64DataId, int& iPriv, int& iMsgType,
                                      GUID& guidPlugin, CPString& strProduct, CPString& strCombo,
                                      const char*& pMsg, unsigned int& uiMsgLen) {
  const size_t uEnd = strData.Find(kBodyTag);
  if (uEnd == CPString::npos)
    return kErrLogCacheBody;
  const size_t uLast = strData.ReverseFind('>');
  if (uLast == CPString::npos || uLast <= uEnd + kBodyTagLength)
    return kErrLogCacheBody;
  pMsg = strData.data() + uEnd + kBodyTagLength;
  uiMsgLen = static_cast<unsigned int>(uLast - uEnd - kBodyTagLength);

  CPString strValue;
  if (!AnalyMsgData(strData, "<version=", uEnd, strVersion))
    return kErrLogCacheVersion;
  if (!AnalyMsgData(strData, "<dataid=", uEnd, strValue))
    return kErrLogCacheDataId;
  u64DataId = std::strtoull(strValue.c_str(), nullptr, 16);
  if (!AnalyMsgData(strData, "<priv=", uEnd, strValue))
    return kErrLogCachePriv;
  iPriv = static_cast<int>(std::strtol(strValue.c_str(), nullptr, 10));
  if (!AnalyMsgData(strData, "<msgtype=", uEnd, strValue))
    return kErrLogCacheMsgType;
  iMsgType = static_cast<int>(std::strtol(strValue.c_str(), nullptr, 10));
  if (!AnalyMsgData(strData, "<guid=", uEnd, strValue))
    return kErrLogCacheGuidTag;
  guidPlugin = GUID(strValue.c_str());
  if (!AnalyMsgData(strData, "<product=", uEnd, strProduct))
    return kErrLogCacheProduct;
  if (!AnalyMsgData(strData, "<combo=", uEnd, strCombo))
    return kErrLogCacheCombo;
  return 0;
}

uint32_t CAgentReceive::DisposeLogCache(const GUID& recvGuid, const unsigned char* pData,
                                        unsigned int uiDataLength, CPString& strReply) {
  const HLog hLog = g_hLogCache.load(std::memory_order_relaxed);
  const CPString strGuid = recvGuid.ToUpper();
  strReply = kReplyError;
  IAgentQueries* pAgentMgr = AgentQueries();
  if (pAgentMgr == nullptr) {
    LogWarnTo(hLog, "*zxagent DisposeLogCache Error pAgentMgr is NULL uiDataLength[%u] recvGuid[%s]",
              uiDataLength, strGuid);
    return kErrNoManager;
  }
  if (recvGuid != m_guidLogCache) {
    LogWarnTo(hLog, "*zxagent DisposeLogCache Error is not LogCache Guid uiDataLength[%u] recvGuid[%s]",
              uiDataLength, strGuid);
    return kErrSender;
  }

  const CPString strDataMsg =
      pData == nullptr ? CPString() : CPString(reinterpret_cast<const char*>(pData), uiDataLength);
  CPString strVersion;
  CPString strProduct;
  CPString strCombo;
  unsigned long long u64DataId = 0;
  int iPriv = 1;
  int iMsgType = 2;
  GUID guidPlugin;
  const char* pMsg = nullptr;
  unsigned int uiMsgLen = 0;
  uint32_t iReplyStatus = ParseLogCache(strDataMsg, strVersion, u64DataId, iPriv, iMsgType, guidPlugin,
                                        strProduct, strCombo, pMsg, uiMsgLen);
  if (iReplyStatus != 0) {
    LogWarnTo(
        hLog,
        "*zxagent stepA Error ParseLogCache iReplyStatus[%x] recvGuid[%s] uiDataLength[%u] strDataMsg[%s]",
        iReplyStatus, strGuid, uiDataLength, strDataMsg);
    return iReplyStatus;
  }
  iReplyStatus = pAgentMgr->SendMsg(u64DataId, iPriv, iMsgType, guidPlugin, strProduct, strCombo, pMsg,
                                    uiMsgLen, kKindLogCache);
  const CPString strPluginId = guidPlugin.ToUpper();
  if (iReplyStatus == 0)
    LogInfoTo(
        hLog,
        "zxagent stepA OK recvnew strVersion[%s] u64DataId[%llx] iPriv[%d] iMsgType[%d] strPluginId[%s] strProduct[%s] strCombo[%s] uiDataLength[%u][%u]",
        strVersion, u64DataId, iPriv, iMsgType, strPluginId, strProduct, strCombo, uiDataLength, uiMsgLen);
  else
    LogWarnTo(
        hLog,
        "*zxagent stepA Error recvnew iReplyStatus[%x] strVersion[%s] u64DataId[%llx] iPriv[%d] iMsgType[%d] strPluginId[%s] strProduct[%s] strCombo[%s] uiDataLength[%u][%u]",
        iReplyStatus, strVersion, u64DataId, iPriv, iMsgType, strPluginId, strProduct, strCombo, uiDataLength,
        uiMsgLen);
  LogDetailTo(hLog, "zxagent SendMsg u64DataId[%llx] strDataMsg[%s]", u64DataId, strDataMsg);
  if (iReplyStatus == 0)
    strReply = kReplyOk;
  return iReplyStatus;
}

uint32_t CAgentReceive::DisposeTaskMgr(const GUID& recvGuid, const unsigned char* pData,
                                       unsigned int uiDataLength, CPString& strReply) {
  const HLog hLog = g_hLogCache.load(std::memory_order_relaxed);
  const CPString strGuid = recvGuid.ToUpper();
  strReply = kReplyError;
  if (pData == nullptr) {
    LogWarnTo(hLog, "*zxagent DisposeTaskMgr Error pData is NULL uiDataLength[%u] recvGuid[%s]", uiDataLength,
              strGuid);
    return kErrNoText;
  }
  IAgentQueries* pAgentMgr = AgentQueries();
  if (pAgentMgr == nullptr) {
    LogWarnTo(hLog, "*zxagent DisposeTaskMgr Error pAgentMgr is NULL uiDataLength[%u] recvGuid[%s]",
              uiDataLength, strGuid);
    return kErrNoManager;
  }
  if (recvGuid != m_guidTaskMgr) {
    LogWarnTo(hLog, "*zxagent DisposeTaskMgr Error is not TaskMgr Guid uiDataLength[%u] recvGuid[%s]",
              uiDataLength, strGuid);
    return kErrSender;
  }
  _TaskMgrRecord record{};
  if (uiDataLength >= sizeof(record))
    std::memcpy(&record, pData, sizeof(record));
  if (uiDataLength < sizeof(record) || uiDataLength < uint64_t{sizeof(record)} + record.uiDataLength) {
    LogWarnTo(hLog, "*zxagent DisposeTaskMgr Error ReceiveCallback size small uiDataLength[%u] recvGuid[%s]",
              uiDataLength, strGuid);
    return kErrNoText;
  }

  const GUID guidPlugin(FieldText(record.szPluginId).c_str());
  const CPString strPluginId = guidPlugin.ToUpper();
  const CPString strProduct = FieldText(record.szProduct);
  const CPString strCombo = FieldText(record.szCombo);
  const char* pMsg = reinterpret_cast<const char*>(pData) + sizeof(record);
  const uint32_t iReplyStatus =
      pAgentMgr->SendMsg(record.u64DataId, record.iPriv, record.iMsgType, guidPlugin, strProduct, strCombo,
                         pMsg, record.uiDataLength, kKindTaskMgr);
  const unsigned long long u64DataId = record.u64DataId;
  const int iPriv = record.iPriv;
  const int iMsgType = record.iMsgType;
  const uint32_t uiLength = record.uiDataLength;
  if (iReplyStatus == 0)
    LogInfoTo(
        hLog,
        "zxagent stepA OK DisposeTaskMgr recvnew u64DataId[%llx] iPriv[%d] iMsgType[%d] strPluginId[%s] strProduct[%s] strCombo[%s] uiDataLength[%u][%u]",
        u64DataId, iPriv, iMsgType, strPluginId, strProduct, strCombo, uiDataLength, uiLength);
  else
    LogWarnTo(
        hLog,
        "*zxagent stepA Error DisposeTaskMgr recvnew iReplyStatus[%x] u64DataId[%llx] iPriv[%d] iMsgType[%d] strPluginId[%s] strProduct[%s] strCombo[%s] uiDataLength[%u][%u]",
        iReplyStatus, u64DataId, iPriv, iMsgType, strPluginId, strProduct, strCombo, uiDataLength, uiLength);
  if (LogCheckLevel(hLog, kLogDetail))
    LogDetailTo(hLog, "zxagent DisposeTaskMgr u64DataId[%llx] szData[%s]", u64DataId,
                CPString(pMsg, uiLength));
  if (iReplyStatus == 0)
    strReply = kReplyOk;
  return iReplyStatus;
}

uint32_t CAgentReceive::DisposeAgentPolicy(const GUID& recvGuid, const unsigned char* pData,
                                           unsigned int uiDataLength, CPString& strReply) {
  const CPString strGuid = recvGuid.ToUpper();
  strReply = kReplyError;
  if (pData == nullptr)
    return LogFail(kErrNoText,
                   "*zxagent DisposeAgentPolicy Error pData is NULL uiDataLength[%u] recvGuid[%s]",
                   uiDataLength, strGuid);
  IAgentQueries* pAgentMgr = AgentQueries();
  if (pAgentMgr == nullptr)
    return LogFail(kErrNoManager,
                   "*zxagent DisposeAgentPolicy Error pAgentMgr is NULL uiDataLength[%u] recvGuid[%s]",
                   uiDataLength, strGuid);
  if (recvGuid != m_guidTaskMgr)
    return LogFail(kErrSender,
                   "*zxagent DisposeAgentPolicy Error is not TaskMgr Guid uiDataLength[%u] recvGuid[%s]",
                   uiDataLength, strGuid);
  // The text ends at its first NUL or at the message's length, whichever comes first.
  const char* pszData = reinterpret_cast<const char*>(pData);
  const CPString strPolicy(pszData, strnlen(pszData, uiDataLength));
  const uint32_t iReplyStatus =
      pAgentMgr->DisposePolicy(strPolicy.c_str()) ? 0 : static_cast<uint32_t>(kErrGeneral);
  if (iReplyStatus == 0)
    strReply = kReplyOk;
  LogDetail("zxagent DisposeAgentPolicy iReplyStatus[%x] pData[%s]", iReplyStatus, strPolicy);
  return iReplyStatus;
}
