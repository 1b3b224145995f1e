// Commands from the cloud: poll envelopes taken apart, each command numbered, resolved, checked and handed
// on. Everything here runs on the work thread.
#include <climits>
#include <cstdlib>
#include <memory>
#include <vector>

#include "agent/AgentCommand.h"
#include "agent/AgentMgr.h"
#include "data/AgentCodes.h"
#include "data/AgentLog.h"
#include "data/AgentTools.h"
#include "platform/doc/Base64.h"
#include "platform/doc/PJsonParse.h"
#include "platform/doc/PXmlParse.h"

namespace {

constexpr int kAckPriv = 2;
constexpr int kAckMsgType = 2;

// Number of the latest command. Work thread only, and as long-lived as the loaded library, so that numbers go
// on when the host starts the agent again.
unsigned long long s_u64DataId = 0;

struct FFree {
  void operator()(char* p) const { std::free(p); }
};

CPString ChildText(const zxtools::CPXmlParse& xml, zxtools::HXmlNode hParent, const char* pszName) {
  CPString strValue;
  const zxtools::HXmlNode hNode = xml.GetNode(hParent, pszName);
  if (hNode != nullptr)
    zxtools::CPXmlParse::GetValue(hNode, strValue);
  return strValue;
}

// Saturates, so that no oversized number lands on another business.
int NumberOf(const CPString& strNumber) {
  const long lNumber = std::strtol(strNumber.c_str(), nullptr, 10);
  if (lNumber > INT_MAX)
    return INT_MAX;
  return lNumber < INT_MIN ? INT_MIN : static_cast<int>(lNumber);
}

// One command of a poll envelope.
struct _PollItem {
  int iPcid = 0;
  CPString strMsgId;
  std::unique_ptr<char, FFree> pszMsg;
};

// False: no business number, no content, or content that is not base64; such an item is passed over in
// silence.
bool ReadPollItem(const zxtools::CPXmlParse& xml, zxtools::HXmlNode hItem, _PollItem& item) {
  const zxtools::HXmlNode hBusiness = xml.GetNode(hItem, "business_id");
  const zxtools::HXmlNode hContent = xml.GetNode(hItem, "content");
  if (hBusiness == nullptr || hContent == nullptr)
    return false;
  CPString strText;
  zxtools::CPXmlParse::GetValue(hBusiness, strText);
  item.iPcid = NumberOf(strText);
  item.strMsgId = ChildText(xml, hItem, "msg_id");
  zxtools::CPXmlParse::GetValue(hContent, strText);
  item.pszMsg.reset(base64Decode(strText.c_str(), static_cast<int>(strText.GetLength()), 0));
  return item.pszMsg != nullptr;
}

}  // namespace

int CAgentMgr::ZxcloudPollmsg(int iFlag, const char* pszMsg) {
  if (pszMsg == nullptr)
    return LogWarn("*zxagent CAgentMgr::ZxcloudPollmsg Error lpszMsg is NULL iFlag[%d]", iFlag);
  const size_t queueCount = ZxGetMsgCount(m_queueData);
  LogInfo("zxagent CAgentMgr::ZxcloudPollmsg Begin recvnew iFlag[%d] pszMsg[%p] queueCount[%llu]", iFlag,
          pszMsg, queueCount);

  zxtools::CPXmlParse xml;
  if (!xml.LoadBuffer(pszMsg))
    return LogWarn(
        "*zxagent CAgentMgr::ZxcloudPollmsg Error LoadBuffer iFlag[%d] pszMsg[%p] queueCount[%llu]", iFlag,
        pszMsg, queueCount);
  const zxtools::HXmlNode hMessage = xml.GetNode(nullptr, "message");
  if (hMessage == nullptr)
    return LogWarn(
        "*zxagent CAgentMgr::ZxcloudPollmsg Error GetNode message iFlag[%d] pszMsg[%p] queueCount[%llu]",
        iFlag, pszMsg, queueCount);
  const CPString strErrorCode = ChildText(xml, hMessage, "error_code");
  const zxtools::HXmlNode hResult = xml.GetNode(hMessage, "push_msg_result");
  if (hResult == nullptr)
    return LogWarn(
        "*zxagent CAgentMgr::ZxcloudPollmsg Error GetNode push_msg_result strErrorCode[%s] iFlag[%d] pszMsg[%p] queueCount[%llu]",
        strErrorCode, iFlag, pszMsg, queueCount);
  const CPString strPushTimestamp = ChildText(xml, hResult, "push_timestamp");
  const CPString strPollPeriodSec = ChildText(xml, hResult, "poll_period_sec");
  const zxtools::HXmlNode hSet = xml.GetNode(hResult, "push_msg_set");
  if (hSet == nullptr)
    return LogWarn(
        "*zxagent CAgentMgr::ZxcloudPollmsg Error GetNode push_msg_set strErrorCode[%s] strPushTimestamp[%s] strPollPeriodSec[%s] iFlag[%d] pszMsg[%p] queueCount[%llu]",
        strErrorCode, strPushTimestamp, strPollPeriodSec, iFlag, pszMsg, queueCount);
  std::vector<zxtools::HXmlNode> items;
  if (xml.GetNode(hSet, "msg_info", items) == 0) {
    LogInfo(
        "zxagent CAgentMgr::ZxcloudPollmsg no message strErrorCode[%s] strPushTimestamp[%s] strPollPeriodSec[%s] iFlag[%d] pszMsg[%p] queueCount[%llu]",
        strErrorCode, strPushTimestamp, strPollPeriodSec, iFlag, pszMsg, queueCount);
    return 1;
  }

  LogInfo(
      "zxagent CAgentMgr::ZxcloudPollmsg Begin recvnew strPushTimestamp[%s] strPollPeriodSec[%s] iFlag[%d] pszMsg[%p] queueCount[%llu]",
      strPushTimestamp, strPollPeriodSec, iFlag, pszMsg, queueCount);
  uint32_t uiSuccess = 0;
  uint32_t uiFail = 0;
  for (const zxtools::HXmlNode hItem : items) {
    _PollItem item;
    if (!ReadPollItem(xml, hItem, item))
      continue;
    const char* pszItem = item.pszMsg.get();
    LogInfo("zxagent CAgentMgr::ZxcloudPollmsg recv message strMsgId[%s] iPcid[%d] pszMsg[%p][%s]",
            item.strMsgId, item.iPcid, pszItem, pszItem);
    if (ZxcloudPushmsg(item.iPcid, pszItem))
      ++uiSuccess;
    else
      ++uiFail;
  }
  LogInfo("zxagent CAgentMgr::ZxcloudPollmsg End OK iFlag[%d] Success[%u] Fail[%u] All[%u]\n", iFlag,
          uiSuccess, uiFail, static_cast<uint32_t>(items.size()));
  return 1;
}

int CAgentMgr::ZxcloudPushmsg(int iPcid, const char* pszMsg) {
  if (pszMsg == nullptr)
    return LogWarn("*zxagent CAgentMgr::ZxcloudPushmsg Error lpszMsg is NULL iPcid[%d]", iPcid);
  const unsigned long long u64DataId = ++s_u64DataId;
  m_gaugeDataId.Set(static_cast<int64_t>(u64DataId));
  m_gaugePushes.Add(1);
  LogInfo("zxagent pushmsg Begin recvnew u64DataId[%llx] iPcid[%d] pszMsg[%p] queueCount[%llu]", u64DataId,
          iPcid, pszMsg, ZxGetMsgCount(m_queueData));
  CPString strProduct;
  CPString strCombo;
  if (!m_AgentData.GetProductComboByID(iPcid, strProduct, strCombo))
    return LogWarn(
        "*zxagent pushmsg Error GetProductComboByID not find pcid u64DataId[%llx] err[%x] iPcid[%d] lpszMsg[%s]",
        u64DataId, static_cast<uint32_t>(kErrUnknownPcid), iPcid, pszMsg);
  const uint32_t uiRet = DisposePushmsg(u64DataId, strProduct, strCombo, pszMsg);
  if (uiRet != 0)
    return LogWarn(
        "*zxagent pushmsg Error DisposePushmsg u64DataId[%llx] iRet[%x] iPcid[%d] strProduct[%s] strCombo[%s]",
        u64DataId, uiRet, iPcid, strProduct, strCombo);
  LogInfo("zxagent pushmsg End OK u64DataId[%llx] iPcid[%d] strProduct[%s] strCombo[%s] queueCount[%llu]\n",
          u64DataId, iPcid, strProduct, strCombo, ZxGetMsgCount(m_queueData));
  return 1;
}

uint32_t CAgentMgr::DisposePushmsg(unsigned long long u64DataId, const CPString& strProduct,
                                   const CPString& strCombo, const char* lpszMsg) {
  if (lpszMsg == nullptr)
    return LogFail(kErrNoText,
                   "*zxagent pushmsg Error lpszMsg is NULL u64DataId[%llx] strProduct[%s] strCombo[%s]",
                   u64DataId, strProduct, strCombo);
  zxtools::CPJsonParse json;
  if (!json.LoadBuffer(lpszMsg))
    return LogFail(
        kErrJson, "*zxagent pushmsg Error Parse JSON u64DataId[%llx] strProduct[%s] strCombo[%s] lpszMsg[%s]",
        u64DataId, strProduct, strCombo, CAgentTools::RefusedText(lpszMsg));
  const zxtools::HJsonNode hID = json.GetNode("ID");
  if (hID == nullptr)
    return LogFail(
        kErrJsonNoId,
        "*zxagent pushmsg Error Get JSON ID u64DataId[%llx] strProduct[%s] strCombo[%s] lpszMsg[%s]",
        u64DataId, strProduct, strCombo, CAgentTools::RefusedText(lpszMsg));
  CPString strID;
  zxtools::CPJsonParse::GetValue(hID, strID);
  if (strID.IsEmpty() || strID.GetLength() > kIdMaxBytes)
    return LogFail(
        kErrJsonIdLength,
        "*zxagent pushmsg Error JSON ID u64DataId[%llx] strID[%s] strProduct[%s] strCombo[%s] lpszMsg[%s]",
        u64DataId, CAgentTools::RefusedText(strID), strProduct, strCombo, CAgentTools::RefusedText(lpszMsg));
  CPString strCommand = CommandOf(json);
  LogInfoTo(g_hLogFlow.load(std::memory_order_relaxed),
            "agent收到消息\nid:%s\ncommand:%s\nproduct:%s\ncombo:%s\nlpszMsg:%s\n", strID, strCommand,
            strProduct, strCombo, lpszMsg);

  if (DisposeOwnCommand(u64DataId, strProduct, strCombo, strID, strCommand, json, lpszMsg))
    return 0;

  CPString strMsg(lpszMsg);
  CPString strNewCommand;
  CPString strNewMsg;
  if (m_AgentTrans.TransMsg(u64DataId, strProduct, strCombo, strID, json, strNewCommand, strNewMsg)) {
    LogDetail(
        "zxagent pushmsg TransMsg OK u64DataId[%llx] strID[%s] strCommand[%s] strProduct[%s] strCombo[%s] Old lpszMsg[%s]",
        u64DataId, strID, strCommand, strProduct, strCombo, strMsg);
    strMsg = std::move(strNewMsg);
    strCommand = std::move(strNewCommand);
    LogTrace(
        "zxagent pushmsg TransMsg OK u64DataId[%llx] strID[%s] strCommand[%s] strProduct[%s] strCombo[%s] New lpszMsg[%s]",
        u64DataId, strID, strCommand, strProduct, strCombo, strMsg);
  }
  m_AgentCache.SavePolicyFile(u64DataId, strID, strProduct, strCombo, strCommand, strMsg.c_str(), 0);
  return SendPushMsgData(u64DataId, strProduct, strCombo, strID, strCommand, strMsg)
             ? 0
             : static_cast<uint32_t>(kErrNoRoute);
}

// The agent's own targets. A handler that does not know the command leaves it to the next target and finally
// to the components.
bool CAgentMgr::DisposeOwnCommand(unsigned long long u64DataId, const CPString& strProduct,
                                  const CPString& strCombo, const CPString& strID, const CPString& strCommand,
                                  const zxtools::CPJsonParse& json, const char* lpszMsg) {
  if (strCommand.IsEmpty())
    return false;
  if (strProduct.CompareNoCase("veltExtHost") == 0 && strCombo.CompareNoCase("PluginMgr") == 0 &&
      DisposeInnerCommand(u64DataId, strProduct, strCombo, strID, strCommand, json, lpszMsg)) {
    LogInfo(
        "zxagent pushmsg InnerCommand OK u64DataId[%llx] strID[%s] strCommand[%s] strProduct[%s] strCombo[%s] lpszMsg[%s]\n",
        u64DataId, strID, strCommand, strProduct, strCombo, lpszMsg);
    return true;
  }
  if (strProduct.CompareNoCase("veltcwpp") == 0 && strCombo.CompareNoCase("zxpmaint") == 0 &&
      DisposeMaintCommand(u64DataId, strProduct, strCombo, strID, strCommand, lpszMsg)) {
    LogInfo(
        "zxagent pushmsg MaintCommand OK u64DataId[%llx] strID[%s] strCommand[%s] strProduct[%s] strCombo[%s] lpszMsg[%s]\n",
        u64DataId, strID, strCommand, strProduct, strCombo, lpszMsg);
    return true;
  }
  return false;
}

int CAgentMgr::SendPushMsgData(unsigned long long u64DataId, const CPString& strProduct,
                               const CPString& strCombo, const CPString& strID, const CPString& strCommand,
                               const CPString& strMsg) {
  CPStrList strGuidList;
  if (!m_AgentData.GetCommandGuid(u64DataId, strProduct, strCombo, strCommand, strGuidList)) {
    LogWarn(
        "*zxagent CAgentMgr::SendPushMsgData Error GetCommandGuid u64DataId[%llx] strGuidList[%d] strID[%s] strCommand[%s] strProduct[%s] strCombo[%s] strMsg[%s]",
        u64DataId, static_cast<int>(strGuidList.GetCount()), strID, strCommand, strProduct, strCombo, strMsg);
    SendResponseMsg(u64DataId, strProduct, strCombo, strID, kAckNotDone, 0);
    return 0;
  }
  // A hand-off that fails has said so; the other components still get the command.
  for (const CPString& strGuid : strGuidList)
    SendPushmsgToTaskMgr(u64DataId, strID, strGuid, strProduct, strCombo, strCommand, strMsg);
  return 1;
}

uint32_t CAgentMgr::SendResponseMsg(unsigned long long u64DataId, const CPString& strProduct,
                                    const CPString& strCombo, const CPString& strID, int iMsgType,
                                    int bNewLine) {
  const CPString strResponseMsg =
      CPString::Make("{\"ID\":\"%s\",\"msg_type\":\"%d\"}", strID.c_str(), iMsgType);
  const char* pszEnd = bNewLine != 0 ? "\n" : "";
  const uint32_t uiRet = m_AgentSendMsg.ZxcloudSendMsg(strProduct, strCombo, kAckPriv, kAckMsgType, u64DataId,
                                                       strResponseMsg, 0, 0);
  if (uiRet != 0)
    return LogFail(
        uiRet,
        "*zxagent CAgentMgr::SendResponseMsg Warn u64DataId[%llx] iRet[%x] strProduct[%s] strCombo[%s] strResponseMsg[%s]%s",
        u64DataId, uiRet, strProduct, strCombo, strResponseMsg, pszEnd);
  LogInfo(
      "zxagent CAgentMgr::SendResponseMsg OK u64DataId[%llx] strProduct[%s] strCombo[%s] strResponseMsg[%s]%s",
      u64DataId, strProduct, strCombo, strResponseMsg, pszEnd);
  return 0;
}
