#include "CloudService.h"

#include <algorithm>

#include "CloudLog.h"
#include "CloudText.h"
#include "JsonText.h"
#include "Topics.h"

namespace zxcloudd {

namespace {

constexpr size_t kHeaderFieldMax = 256;
constexpr size_t kMessageIdShown = 64;
constexpr int kUploadsPerTidy = 256;
constexpr int64_t kTidyShare = 32;

_Reply Failure(int iStatus, const char* pszWhy) {
  CJsonText json;
  json.Text("error", pszWhy);
  _Reply reply;
  reply.iStatus = iStatus;
  reply.strBody = json.Str();
  if (iStatus == 429 || iStatus == 503)
    reply.iRetryAfterSec = iStatus == 429 ? 60 : 5;
  return reply;
}

std::string TconfText(const _TconfConfig& tconf) {
  CJsonText json;
  json.Number("v", 1);
  json.Text("pcid", tconf.strPcid);
  json.Text("short", tconf.strShort);
  json.Text("long", tconf.strLong);
  if (!tconf.strLb.empty())
    json.Text("lb", tconf.strLb);
  json.Number("keepalive_sec", tconf.iKeepaliveSec);
  json.Number("spread_sec", tconf.iSpreadSec);
  json.Number("retry_max_sec", tconf.iRetryMaxSec);
  json.Number("refresh_sec", tconf.iRefreshSec);
  json.Number("max_message_bytes", tconf.iMaxMessageBytes);
  if (tconf.bConfirm)
    json.Number("confirm", 1);
  json.Number("drain_per_sec", tconf.iDrainPerSec);
  json.Number("connections", tconf.iConnections);
  return json.Str();
}

void AddConfirm(const std::string& strMid, std::string_view svMessageId, bool bStored,
                std::vector<_Confirm>& listConfirms) {
  auto it = std::find_if(listConfirms.begin(), listConfirms.end(),
                         [&](const _Confirm& confirm) { return confirm.strMid == strMid; });
  if (it == listConfirms.end())
    it = listConfirms.insert(it, {strMid, "zx1\n"});
  it->strText.append(1, bStored ? '+' : '-').append(svMessageId).append(1, '\n');
}

bool IsField(std::string_view sv) {
  if (sv.size() > kHeaderFieldMax)
    return false;
  for (const char ch : sv) {
    if (static_cast<unsigned char>(ch) < 0x20)
      return false;
  }
  return true;
}

}  // namespace

CCloudService::CCloudService(CStore& store, const _CloudConfig& config)
    : m_store(store), m_config(config), m_strTconf(TconfText(config.tconf)), m_i64Started(NowMs()) {}

_Reply CCloudService::Tconf(const _TconfIds& ids) {
  if (!IsMid(ids.strMid) || !IsField(ids.strMid2) || !IsField(ids.strChannel) || !IsField(ids.strLocalIp)) {
    ++m_u64Refused;
    return Failure(400, "mid, m2, pid or localip is not acceptable");
  }
  const int64_t i64Now = NowMs();
  bool bFull = false;
  const bool bDone = m_store.Run([&](CSqlite& db) {
    return CAgentTable::Seen(db, ids.strMid, i64Now, m_config.limits.iAgents, bFull) &&
           (bFull || CAgentTable::SetTconf(db, ids, i64Now));
  });
  if (!bDone)
    return Failure(503, "the store does not work");
  if (bFull)
    return Failure(429, "too many machines");
  LogInfoTo(CloudLog(), "zxcloudd tconf mid[%s] m2[%s] pid[%s] localip[%s]", ids.strMid, ids.strMid2,
            ids.strChannel, ids.strLocalIp);
  _Reply reply;
  reply.strBody = m_strTconf;
  return reply;
}

_Reply CCloudService::Poll(const std::string& strMid, const std::string& strXml) {
  _PollQuery query;
  if (!IsMid(strMid) || !ParsePollQuery(strXml, query) || query.strMid != strMid) {
    ++m_u64Refused;
    return Failure(400, "not a poll query of this machine");
  }
  const int64_t i64Now = NowMs();
  std::vector<_PollItem> listItems;
  bool bFull = false;
  const bool bDone = m_store.Run([&](CSqlite& db) {
    return CAgentTable::Seen(db, strMid, i64Now, m_config.limits.iAgents, bFull) &&
           (bFull || (CAgentTable::SetPolled(db, strMid, i64Now) &&
                      CCommandTable::TakePoll(db, strMid, m_config.poll, i64Now, listItems)));
  });
  if (!bDone)
    return Failure(503, "the store does not work");
  if (bFull)
    return Failure(429, "too many machines");
  LogDetailTo(CloudLog(), "zxcloudd poll mid[%s] businesses[%u] commands[%u]", strMid,
              static_cast<unsigned>(query.listBusiness.size()), static_cast<unsigned>(listItems.size()));
  _Reply reply;
  reply.pszType = "application/xml";
  reply.strBody = WritePollEnvelope(listItems, i64Now / 1000, m_config.poll.iPeriodSec);
  return reply;
}

_Reply CCloudService::Upload(const std::string& strMid, const std::string& strMessageId,
                             const std::string& strPriority, const std::string& strUpload) {
  int64_t i64Priority = 0;
  if (!IsMid(strMid) || !IsMessageId(strMessageId) || !ParseNumber(strPriority, 0, 99, i64Priority) ||
      !IsPriority(static_cast<int>(i64Priority))) {
    ++m_u64Refused;
    return Failure(400, "X-Zx-Mid, X-Zx-Id or X-Zx-Priority is not acceptable");
  }
  _NewUpload upload;
  upload.svMid = strMid;
  upload.svMessageId = strMessageId;
  upload.svUpload = strUpload;
  upload.pszVia = "https";
  upload.iPriority = static_cast<int>(i64Priority);
  EUpload eResult = EUpload::Bad;
  if (!m_store.Run([&](CSqlite& db) { return StoreUpload(db, upload, eResult); }))
    return Failure(503, "the store does not work");
  if (eResult == EUpload::Bad)
    return Failure(400, "not an upload of this machine");
  if (eResult == EUpload::Full)
    return Failure(429, "too many machines");
  _Reply reply;
  reply.strBody = eResult == EUpload::Repeat ? "{\"repeat\":1}" : "{}";
  return reply;
}

_Reply CCloudService::Health() {
  // After a failure only a write shows whether the disk takes data again; an unchanged row is not written.
  const auto probe = [](CSqlite& db) {
    return db.Exec("CREATE TABLE probe(x)") && db.Exec("INSERT INTO probe VALUES(1)") &&
           db.Exec("DROP TABLE probe");
  };
  if (!m_store.Healthy() && !m_store.Run(probe))
    return Failure(503, "the store does not work");
  _Reply reply;
  reply.strBody = "{\"status\":\"ok\"}";
  return reply;
}

// On the store's thread. Before the insert, so that one that finds no room has made some for the next.
bool CCloudService::Housekeep(CSqlite& db, size_t uBytes, int64_t i64Now) {
  m_i64BytesToTidy -= static_cast<int64_t>(uBytes);
  if (--m_iUploadsToTidy > 0 && m_i64BytesToTidy > 0)
    return true;
  m_iUploadsToTidy = kUploadsPerTidy;
  m_i64BytesToTidy = m_config.limits.i64StoreBytes / kTidyShare;
  return CUploadTable::Housekeep(db, m_config.limits, i64Now);
}

bool CCloudService::StoreUpload(CSqlite& db, const _NewUpload& upload, EUpload& eResult) {
  _UploadHeader header;
  if (upload.svUpload.size() > m_config.agent.uMaxBodyBytes || !ParseUpload(upload.svUpload, header) ||
      header.svMid != upload.svMid || !IsField(header.svProduct) || !IsField(header.svCombo) ||
      !IsField(header.svVersion)) {
    ++m_u64Refused;
    eResult = EUpload::Bad;
    LogWarnTo(CloudLog(), "*zxcloudd upload refused mid[%s] id[%s] bytes[%llu] via[%s]",
              std::string(upload.svMid), std::string(upload.svMessageId),
              static_cast<uint64_t>(upload.svUpload.size()), upload.pszVia);
    return true;
  }
  const int64_t i64Now = NowMs();
  bool bFull = false, bRepeat = false, bKnown = false;
  if (!CAgentTable::Seen(db, upload.svMid, i64Now, m_config.limits.iAgents, bFull))
    return false;
  if (bFull) {
    ++m_u64Refused;
    eResult = EUpload::Full;
    LogWarnTo(CloudLog(),
              "*zxcloudd upload of an unknown machine refused, the table of machines is full mid[%s]",
              std::string(upload.svMid));
    return true;
  }
  if (!Housekeep(db, upload.svUpload.size(), i64Now) ||
      !CUploadTable::Insert(db, upload, header, m_config.limits, i64Now, bRepeat))
    return false;
  eResult = bRepeat ? EUpload::Repeat : EUpload::Stored;
  _Ack ack;
  if (bRepeat || header.eType == EUploadType::Tags || !ParseAck(header.svBody, ack))
    return true;
  if (!CCommandTable::SetAcked(db, upload.svMid, ack, m_config.limits, i64Now, bKnown))
    return false;
  LogInfoTo(CloudLog(), "zxcloudd ack mid[%s] ID[%s] msg_type[%d] known[%d] via[%s]",
            std::string(upload.svMid), ack.strID, ack.iMsgType, bKnown ? 1 : 0, upload.pszVia);
  return true;
}

bool CCloudService::OnMessage(CSqlite& db, const _BrokerMessage& message, bool& bWake,
                              std::vector<_Confirm>& listConfirms) {
  _Topic topic;
  bool bOnline = false, bFull = false;
  _NewUpload upload;
  const bool bTopic = ParseTopic(message.strTopic, topic);
  if (bTopic && topic.eKind == ETopic::Upload &&
      ParseUploadPayload(message.strPayload, upload.svMessageId, upload.svUpload)) {
    upload.svMid = topic.strMid;
    upload.iPriority = topic.iPriority;
    EUpload eResult = EUpload::Bad;
    if (!StoreUpload(db, upload, eResult))
      return false;
    if (m_config.tconf.bConfirm && eResult != EUpload::Full)
      AddConfirm(topic.strMid, upload.svMessageId, eResult != EUpload::Bad, listConfirms);
    return true;
  }
  if (bTopic && topic.eKind == ETopic::Status && ParseStatusPayload(message.strPayload, bOnline)) {
    const int64_t i64Now = NowMs();
    LogInfoTo(CloudLog(), "zxcloudd agent mid[%s] online[%d]", topic.strMid, bOnline ? 1 : 0);
    bWake = bWake || bOnline;
    return CAgentTable::Seen(db, topic.strMid, i64Now, m_config.limits.iAgents, bFull) &&
           (bFull || CAgentTable::SetOnline(db, topic.strMid, bOnline, i64Now));
  }
  ++m_u64Refused;
  LogWarnTo(CloudLog(), "*zxcloudd message refused topic[%s] bytes[%llu]",
            message.strTopic.substr(0, kMidMax + kMessageIdShown),
            static_cast<uint64_t>(message.strPayload.size()));
  return true;
}

bool CCloudService::OnMessages(const std::vector<_BrokerMessage>& listMessages,
                               std::vector<_Confirm>& listConfirms) {
  bool bWake = false;
  const bool bDone = m_store.Run([&](CSqlite& db) {
    for (const _BrokerMessage& message : listMessages) {
      if (!OnMessage(db, message, bWake, listConfirms))
        return false;
    }
    return true;
  });
  if (!bDone)
    listConfirms.clear();
  if (bDone && bWake && m_fnWake)
    m_fnWake();
  return bDone;
}

bool CCloudService::OnBrokerConnected() {
  return m_store.Run(
      [](CSqlite& db) { return CAgentTable::SetAllOffline(db) && CCommandTable::RequeuePublishing(db); });
}

bool CCloudService::TakePushes(int iMax, size_t uMaxBytes, std::vector<_PushItem>& listItems) {
  const int64_t i64Now = NowMs();
  const bool bDone = m_store.Run([&](CSqlite& db) {
    listItems.clear();
    return CCommandTable::TakePushes(db, iMax, uMaxBytes, i64Now, listItems);
  });
  if (!bDone)
    listItems.clear();
  return bDone;
}

bool CCloudService::OnPushed(const std::vector<int64_t>& listSeq) {
  const int64_t i64Now = NowMs();
  return m_store.Run([&](CSqlite& db) { return CCommandTable::SetPushed(db, listSeq, i64Now); });
}

}  // namespace zxcloudd
