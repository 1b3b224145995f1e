// The operator's side of the service.
#include "CloudLog.h"
#include "CloudService.h"
#include "CloudText.h"
#include "JsonText.h"
#include "platform/doc/PJsonParse.h"

namespace zxcloudd {

namespace {

using zxtools::CPJsonParse;
using zxtools::HJsonNode;

constexpr size_t kCommandTextMax = 1u << 20;  // agents refuse larger pushes
constexpr size_t kCommandNameMax = 256;
constexpr int kTraceMax = 1000;

_Reply Answer(int iStatus, CJsonText& json) {
  _Reply reply;
  reply.iStatus = iStatus;
  reply.strBody = json.Str();
  return reply;
}

_Reply Refuse(int iStatus, const std::string& strWhy) {
  CJsonText json;
  json.Text("error", strWhy);
  return Answer(iStatus, json);
}

// The member as text; empty when it is not there.
std::string Member(CPJsonParse& json, const char* pszName) {
  CPString strValue;
  const HJsonNode hNode = json.GetNode(pszName);
  if (hNode == nullptr || !CPJsonParse::GetValue(hNode, strValue))
    return {};
  return strValue.Str();
}

// {"ID":..,"Command":..,"Param":..}
bool MakeText(CPJsonParse& request, const _NewCommand& command, std::string& strText) {
  CPJsonParse json;
  CPString strJson;
  if (!json.CreateJson() || !json.AddNode(nullptr, "ID", command.strID.c_str()) ||
      (!command.strCommand.empty() && !json.AddNode(nullptr, "Command", command.strCommand.c_str())))
    return false;
  const HJsonNode hParam = request.GetNode("param");
  if (hParam != nullptr && !json.AddCopyNode(nullptr, "Param", hParam))
    return false;
  if (!json.GetJsonStr(strJson))
    return false;
  strText = strJson.Str();
  return true;
}

// A ready text must be what the agent expects: an object with an ID; it decides id and command.
bool CheckText(_NewCommand& command, std::string& strError) {
  CPJsonParse json;
  if (!json.LoadBuffer(command.strText.data(), command.strText.size()) || json.GetNode("ID") == nullptr) {
    strError = "text is not a JSON object with the member ID";
    return false;
  }
  const std::string strID = Member(json, "ID");
  if (!command.strID.empty() && command.strID != strID) {
    strError = "id differs from the ID in text";
    return false;
  }
  command.strID = strID;
  command.strCommand = Member(json, json.GetNode("Command") != nullptr ? "Command" : "command");
  return true;
}

void WriteCommand(CJsonText& json, const _CommandRow& row) {
  json.Number("seq", row.i64Seq);
  json.Text("ID", row.strID);
  json.Text("mid", row.strMid);
  json.Number("pcid", row.iPcid);
  json.Text("command", row.strCommand);
  json.Text("via", row.strVia);
  json.Text("state", row.strState);
  json.Number("msg_type", row.iMsgType);
  json.Number("offers", row.i64Offers);
  json.Number("created_ms", row.i64Created);
  json.Number("finished_ms", row.i64Finished);
}

void WriteUpload(CJsonText& json, const _UploadRow& row) {
  json.Number("seq", row.i64Seq);
  json.Text("mid", row.strMid);
  json.Text("id", row.strMessageId);
  json.Number("priority", row.iPriority);
  json.Text("via", row.strVia);
  json.Text("type", row.strType);
  json.Text("kind", row.strKind);
  json.Text("about", row.strAbout);
  json.Text("outcome", row.strOutcome);
  json.Text("product", row.strProduct);
  json.Text("combo", row.strCombo);
  json.Number("received_ms", row.i64Received);
  json.Number("size", row.i64Size);
  json.Bool("kept", row.bKept);
}

void WriteTrace(CJsonText& json, const _CommandRow& row) {
  json.Object();
  WriteCommand(json, row);
  json.Text("text", row.strText);
  json.Array("events");
  for (const _CommandEvent& event : row.listEvents) {
    json.Object();
    json.Number("at_ms", event.i64At);
    json.Text("kind", event.strKind);
    json.Text("detail", event.strDetail);
    json.End();
  }
  json.End();
  json.End();
}

}  // namespace

bool ParsePushRequest(const std::string& strJson, _NewCommand& command, std::string& strError) {
  CPJsonParse json;
  int64_t i64Pcid = 0;
  if (!json.LoadBuffer(strJson.data(), strJson.size())) {
    strError = "the request is not JSON";
    return false;
  }
  command.strMid = Member(json, "mid");
  command.strID = Member(json, "id");
  command.strCommand = Member(json, "command");
  command.strText = Member(json, "text");
  const std::string strVia = Member(json, "via");
  if (!strVia.empty())
    command.strVia = strVia;
  if (!IsMid(command.strMid))
    strError = "mid is not a machine id";
  else if (!ParseNumber(Member(json, "pcid"), 1, 999999999, i64Pcid))
    strError = "pcid is not a business number";
  else if (command.strVia != "auto" && command.strVia != "push" && command.strVia != "poll")
    strError = "via is not auto, push or poll";
  if (!strError.empty())
    return false;
  command.iPcid = static_cast<int>(i64Pcid);
  if (!command.strText.empty()) {
    if (!CheckText(command, strError))
      return false;
  } else {
    if (command.strID.empty())
      command.strID = RandomHex(8);
    if (!MakeText(json, command, command.strText))
      strError = "the command's text cannot be made";
  }
  if (!IsCommandId(command.strID))
    strError = "id must have 1 to 200 bytes without quotes, backslashes and control characters";
  else if (command.strCommand.size() > kCommandNameMax)
    strError = "command is too long";
  else if (command.strText.size() > kCommandTextMax)
    strError = "the command's text is larger than agents accept";
  return strError.empty();
}

_Reply CCloudService::OpPush(const std::string& strJson) {
  _NewCommand command;
  std::string strError;
  if (!ParsePushRequest(strJson, command, strError))
    return Refuse(400, strError);
  const int64_t i64Now = NowMs();
  CCommandTable::EInsert eResult = CCommandTable::EInsert::Ok;
  if (!m_store.Run(
          [&](CSqlite& db) { return CCommandTable::Insert(db, command, m_config.limits, i64Now, eResult); }))
    return Refuse(503, "the store does not work");
  switch (eResult) {
    case CCommandTable::EInsert::UnknownAgent:
      return Refuse(404, "no machine with this mid was ever heard of");
    case CCommandTable::EInsert::Duplicate:
      return Refuse(409, "this machine already has a command with this id");
    case CCommandTable::EInsert::Full:
      return Refuse(429, "too many commands wait for this machine");
    case CCommandTable::EInsert::Ok:
      break;
  }
  LogInfoTo(CloudLog(), "zxcloudd push mid[%s] ID[%s] command[%s] pcid[%d] via[%s]", command.strMid,
            command.strID, command.strCommand, command.iPcid, command.strVia);
  if (m_fnWake && command.strVia != "poll")
    m_fnWake();
  CJsonText json;
  json.Text("ID", command.strID);
  json.Text("mid", command.strMid);
  json.Text("via", command.strVia);
  json.Number("created_ms", i64Now);
  return Answer(200, json);
}

_Reply CCloudService::OpAgents() {
  std::vector<_AgentRow> listAgents;
  if (!m_store.Run([&](CSqlite& db) { return CAgentTable::List(db, listAgents); }))
    return Refuse(503, "the store does not work");
  CJsonText json;
  json.Array("agents");
  for (const _AgentRow& row : listAgents) {
    json.Object();
    json.Text("mid", row.strMid);
    json.Text("m2", row.strMid2);
    json.Bool("online", row.bOnline);
    json.Number("online_since_ms", row.i64OnlineSince);
    json.Text("local_ip", row.strLocalIp);
    json.Text("channel", row.strChannel);
    json.Text("version", row.strVersion);
    json.Number("first_seen_ms", row.i64FirstSeen);
    json.Number("last_seen_ms", row.i64LastSeen);
    json.Number("last_tconf_ms", row.i64LastTconf);
    json.Number("last_poll_ms", row.i64LastPoll);
    json.Number("pending", row.i64Pending);
    json.Number("uploads", row.i64Uploads);
    json.Number("repeats", row.i64Repeats);
    json.End();
  }
  return Answer(200, json);
}

_Reply CCloudService::OpTrace(const std::string& strID) {
  std::vector<_CommandRow> listCommands;
  if (!IsCommandId(strID))
    return Refuse(400, "not a command id");
  if (!m_store.Run([&](CSqlite& db) { return CCommandTable::Find(db, strID, kTraceMax, listCommands); }))
    return Refuse(503, "the store does not work");
  if (listCommands.empty())
    return Refuse(404, "no command with this id");
  CJsonText json;
  json.Text("ID", strID);
  json.Array("commands");
  for (const _CommandRow& row : listCommands)
    WriteTrace(json, row);
  return Answer(200, json);
}

_Reply CCloudService::OpCommands(const std::string& strMid, const std::string& strState, int iMax) {
  std::vector<_CommandRow> listCommands;
  if (!m_store.Run(
          [&](CSqlite& db) { return CCommandTable::List(db, strMid, strState, iMax, listCommands); }))
    return Refuse(503, "the store does not work");
  CJsonText json;
  json.Array("commands");
  for (const _CommandRow& row : listCommands) {
    json.Object();
    WriteCommand(json, row);
    json.End();
  }
  return Answer(200, json);
}

_Reply CCloudService::OpUploads(const _UploadFilter& filter) {
  std::vector<_UploadRow> listUploads;
  if (!m_store.Run([&](CSqlite& db) { return CUploadTable::List(db, filter, listUploads); }))
    return Refuse(503, "the store does not work");
  CJsonText json;
  json.Array("uploads");
  for (const _UploadRow& row : listUploads) {
    json.Object();
    WriteUpload(json, row);
    if (filter.i64BodyMax > 0)
      json.Text("upload", row.strBody);
    json.End();
  }
  return Answer(200, json);
}

_Reply CCloudService::OpUpload(int64_t i64Seq) {
  _UploadRow row;
  bool bFound = false;
  if (!m_store.Run([&](CSqlite& db) { return CUploadTable::Get(db, i64Seq, row, bFound); }))
    return Refuse(503, "the store does not work");
  if (!bFound)
    return Refuse(404, "no upload with this number, or it was forgotten");
  CJsonText json;
  WriteUpload(json, row);
  _UploadHeader header;
  if (row.bKept && ParseUpload(row.strBody, header)) {
    json.Object("header");
    json.Text("mid", header.svMid);
    json.Text("m2", header.svMid2);
    json.Text("product", header.svProduct);
    json.Text("combo", header.svCombo);
    json.Text("ipartner", header.svPartner);
    json.Text("pid", header.svChannel);
    json.Text("sysver", header.svSysVer);
    json.Text("version", header.svVersion);
    json.End();
    json.Text("body", header.svBody);
  }
  json.Text("upload", row.strBody);
  return Answer(200, json);
}

_Reply CCloudService::OpStatus() {
  int64_t i64Known = 0, i64Online = 0, i64Received = 0, i64Repeats = 0;
  std::vector<std::pair<std::string, int64_t>> listStates;
  const bool bStore = m_store.Run([&](CSqlite& db) {
    return CAgentTable::Count(db, i64Known, i64Online) && CCommandTable::CountStates(db, listStates) &&
           CUploadTable::Count(db, i64Received, i64Repeats);
  });
  CJsonText json;
  json.Number("started_ms", m_i64Started);
  json.Number("now_ms", NowMs());
  json.Bool("store_ok", bStore && m_store.Healthy());
  json.Bool("broker_connected", m_fnBrokerUp && m_fnBrokerUp());
  json.Object("agents");
  json.Number("known", i64Known);
  json.Number("online", i64Online);
  json.End();
  json.Object("commands");
  for (const auto& entry : listStates)
    json.Number(entry.first.c_str(), entry.second);
  json.End();
  json.Object("uploads");
  json.Number("received", i64Received);
  json.Number("repeats", i64Repeats);
  json.Number("refused", static_cast<int64_t>(m_u64Refused.load()));
  json.End();
  return Answer(bStore ? 200 : 503, json);
}

}  // namespace zxcloudd
