#include "Commands.h"

#include <time.h>

#include <cstdio>
#include <vector>

#include "Answers.h"
#include "LogTrace.h"
#include "Table.h"
#include "platform/os/ZxTime.h"

namespace zxctl {

namespace {

constexpr size_t kWhatMax = 120;  // characters of one table cell; --json has the whole text
constexpr long kAskAgainNs = 20000000;

// The only machine the cloud knows.
int OnlyMid(CCloudClient& cloud, std::string& strMid) {
  CPJsonParse json;
  const int iExit = CheckAnswer(cloud.Get("/op/v1/agents"), json);
  if (iExit != kExitOk)
    return iExit;
  const std::vector<HJsonNode> listAgents = ItemsOf(json, nullptr, "agents");
  if (listAgents.size() != 1) {
    std::fprintf(stderr, "zxctl: the cloud knows %zu machines; say which with --mid\n", listAgents.size());
    return kExitUsage;
  }
  strMid = TextOf(json, listAgents.front(), "mid");
  return kExitOk;
}

int MakeRequest(const _PushOptions& options, std::string& strJson) {
  CPJsonParse json, param;
  CPString strText;
  json.CreateJson();
  json.AddNode(nullptr, "mid", options.strMid.c_str());
  json.AddNode(nullptr, "pcid", options.iPcid);
  json.AddNode(nullptr, "via", options.strVia.c_str());
  if (!options.strID.empty())
    json.AddNode(nullptr, "id", options.strID.c_str());
  if (!options.strCommand.empty())
    json.AddNode(nullptr, "command", options.strCommand.c_str());
  if (!options.strText.empty())
    json.AddNode(nullptr, "text", options.strText.c_str());
  if (!options.strParam.empty()) {
    if (!param.LoadBuffer(options.strParam.data(), options.strParam.size())) {
      std::fprintf(stderr, "zxctl: --param is not JSON\n");
      return kExitUsage;
    }
    json.AddCopyNode(nullptr, "param", param.GetRoot());
  }
  json.GetJsonStr(strText);
  strJson = strText.Str();
  return kExitOk;
}

// The command of one machine in a trace answer; null when it is not there.
HJsonNode CommandOf(const CPJsonParse& json, const std::string& strMid) {
  for (const HJsonNode hCommand : ItemsOf(json, nullptr, "commands")) {
    if (TextOf(json, hCommand, "mid") == strMid)
      return hCommand;
  }
  return nullptr;
}

bool Finished(const std::string& strState) {
  return strState == "acked" || strState == "refused" || strState == "expired";
}

// Asks until the command is finished or the time is over.
int WaitForAck(CCloudClient& cloud, const std::string& strID, const _PushOptions& options, bool bJson) {
  const uint64_t u64Until = ZxGetTickCount() + static_cast<uint64_t>(options.iWaitSec) * 1000;
  for (;;) {
    CPJsonParse json;
    const _Answer answer = cloud.Get("/op/v1/trace/" + CCloudClient::Escape(strID));
    const int iExit = CheckAnswer(answer, json);
    if (iExit != kExitOk)
      return iExit;
    const HJsonNode hCommand = CommandOf(json, options.strMid);
    const std::string strState = hCommand != nullptr ? TextOf(json, hCommand, "state") : "";
    const bool bFinished = Finished(strState);
    if (bFinished || ZxGetTickCount() >= u64Until) {
      const int64_t i64Took =
          NumberOf(json, hCommand, "finished_ms") - NumberOf(json, hCommand, "created_ms");
      if (bJson)
        Print(answer.strBody + "\n");
      else if (bFinished)
        std::printf("%s %s, msg_type %s, after %lld ms\n", strID.c_str(), strState.c_str(),
                    TextOf(json, hCommand, "msg_type").c_str(), static_cast<long long>(i64Took));
      else
        std::printf("%s not acknowledged within %d s, state %s\n", strID.c_str(), options.iWaitSec,
                    strState.c_str());
      return strState == "acked" ? kExitOk : kExitFailed;
    }
    const timespec ts{0, kAskAgainNs};
    nanosleep(&ts, nullptr);
  }
}

std::string CloudHop(const CPJsonParse& json, HJsonNode hEvent) {
  const std::string strKind = TextOf(json, hEvent, "kind");
  const std::string strDetail = TextOf(json, hEvent, "detail");
  return strKind + (strDetail.empty() ? "" : ", " + strDetail);
}

std::vector<_Hop> CollectHops(const CPJsonParse& json, const std::vector<_LogRecord>& listRecords,
                              bool bAll) {
  std::vector<_Hop> listHops;
  const std::vector<HJsonNode> listCommands = ItemsOf(json, nullptr, "commands");
  for (const HJsonNode hCommand : listCommands) {
    for (const HJsonNode hEvent : ItemsOf(json, hCommand, "events")) {
      _Hop hop;
      hop.i64AtMs = NumberOf(json, hEvent, "at_ms");
      hop.strWhere = "cloud";
      hop.iRank = TextOf(json, hEvent, "kind") == "acked" ? kRankCloudIn : kRankCloudOut;
      hop.strWhat = CloudHop(json, hEvent);
      if (listCommands.size() > 1)
        hop.strWhat += " (" + TextOf(json, hCommand, "mid") + ")";
      listHops.push_back(std::move(hop));
    }
  }
  for (const _LogRecord& record : listRecords) {
    _Hop hop;
    const bool bStep = HopOf(record, hop);
    if (!bStep && bAll)
      hop.strWhat = record.strText.substr(0, record.strText.find('\n'));
    if (bStep || bAll)
      listHops.push_back(std::move(hop));
  }
  SortHops(listHops);
  return listHops;
}

void PrintHopsJson(CPJsonParse& json, const std::vector<_Hop>& listHops) {
  const HJsonNode hArray = json.AddNodeArray(nullptr, "hops");
  int64_t i64Last = listHops.empty() ? 0 : listHops.front().i64AtMs;
  for (const _Hop& hop : listHops) {
    const HJsonNode hHop = json.InsertObjectToArray(hArray);
    json.AddNode(hHop, "at_ms", static_cast<double>(hop.i64AtMs));
    json.AddNode(hHop, "delta_ms", static_cast<double>(hop.i64AtMs - i64Last));
    json.AddNode(hHop, "where", hop.strWhere.c_str());
    json.AddNode(hHop, "what", hop.strWhat.c_str());
    json.AddNode(hHop, "text", hop.strText.c_str());
    i64Last = hop.i64AtMs;
  }
  CPString strJson;
  json.GetJsonStr(strJson);
  Print(strJson.Str() + "\n");
}

void PrintHopsTable(const CPJsonParse& json, const std::vector<_Hop>& listHops) {
  for (const HJsonNode hCommand : ItemsOf(json, nullptr, "commands")) {
    std::printf("%s on %s: %s, state %s, msg_type %s, via %s\n", TextOf(json, hCommand, "ID").c_str(),
                TextOf(json, hCommand, "mid").c_str(), TextOf(json, hCommand, "command").c_str(),
                TextOf(json, hCommand, "state").c_str(), TextOf(json, hCommand, "msg_type").c_str(),
                TextOf(json, hCommand, "via").c_str());
  }
  std::vector<std::vector<std::string>> listRows = {{"TIME", "+MS", "WHERE", "WHAT"}};
  int64_t i64Last = listHops.empty() ? 0 : listHops.front().i64AtMs;
  for (const _Hop& hop : listHops) {
    listRows.push_back({ClockText(hop.i64AtMs), std::to_string(hop.i64AtMs - i64Last), hop.strWhere,
                        Shorten(hop.strWhat, kWhatMax)});
    i64Last = hop.i64AtMs;
  }
  Print(FormatTable(listRows));
}

}  // namespace

int Push(CCloudClient& cloud, const _PushOptions& options, bool bJson) {
  _PushOptions push = options;
  std::string strRequest;
  if (push.strMid.empty()) {
    const int iExit = OnlyMid(cloud, push.strMid);
    if (iExit != kExitOk)
      return iExit;
  }
  const int iUsage = MakeRequest(push, strRequest);
  if (iUsage != kExitOk)
    return iUsage;
  CPJsonParse json;
  const _Answer answer = cloud.Post("/op/v1/push", strRequest);
  const int iExit = CheckAnswer(answer, json);
  if (iExit != kExitOk)
    return iExit;
  const std::string strID = TextOf(json, nullptr, "ID");
  if (push.iWaitSec > 0)
    return WaitForAck(cloud, strID, push, bJson);
  Print(bJson ? answer.strBody + "\n" : strID + " accepted for " + push.strMid + "\n");
  return kExitOk;
}

int Agents(CCloudClient& cloud, bool bJson) {
  CPJsonParse json;
  const _Answer answer = cloud.Get("/op/v1/agents");
  const int iExit = CheckAnswer(answer, json);
  if (iExit != kExitOk)
    return iExit;
  if (bJson) {
    Print(answer.strBody + "\n");
    return kExitOk;
  }
  const int64_t i64Now = NowMs();
  std::vector<std::vector<std::string>> listRows = {
      {"MID", "LONG CONNECTION", "SEEN", "POLLED", "PENDING", "UPLOADS", "ADDRESS"}};
  for (const HJsonNode hAgent : ItemsOf(json, nullptr, "agents")) {
    listRows.push_back({TextOf(json, hAgent, "mid"), TextOf(json, hAgent, "online") == "true" ? "up" : "down",
                        AgoText(NumberOf(json, hAgent, "last_seen_ms"), i64Now),
                        AgoText(NumberOf(json, hAgent, "last_poll_ms"), i64Now),
                        TextOf(json, hAgent, "pending"), TextOf(json, hAgent, "uploads"),
                        TextOf(json, hAgent, "local_ip")});
  }
  Print(FormatTable(listRows));
  return kExitOk;
}

int Trace(CCloudClient& cloud, const std::string& strID, const std::string& strHome, bool bAll, bool bJson) {
  CPJsonParse json;
  const int iExit = CheckAnswer(cloud.Get("/op/v1/trace/" + CCloudClient::Escape(strID)), json);
  if (iExit != kExitOk)
    return iExit;
  std::vector<_LogRecord> listRecords;
  std::string strError;
  if (!strHome.empty() && !ReadHomeLogs(strHome, listRecords, strError)) {
    std::fprintf(stderr, "zxctl: %s\n", strError.c_str());
    return kExitFailed;
  }
  const std::vector<_Hop> listHops = CollectHops(json, SelectCommand(listRecords, strID), bAll);
  if (bJson)
    PrintHopsJson(json, listHops);
  else
    PrintHopsTable(json, listHops);
  return kExitOk;
}

int Status(CCloudClient& cloud, bool bJson) {
  CPJsonParse json;
  const _Answer answer = cloud.Get("/op/v1/status");
  const int iExit = CheckAnswer(answer, json);
  if (iExit != kExitOk)
    return iExit;
  if (bJson) {
    Print(answer.strBody + "\n");
    return kExitOk;
  }
  const HJsonNode hAgents = json.GetNode("agents"), hUploads = json.GetNode("uploads");
  std::vector<std::vector<std::string>> listRows = {
      {"started", AgoText(NumberOf(json, nullptr, "started_ms"), NowMs())},
      {"store", TextOf(json, nullptr, "store_ok") == "true" ? "works" : "FAILS"},
      {"broker", TextOf(json, nullptr, "broker_connected") == "true" ? "connected" : "NOT CONNECTED"},
      {"machines", TextOf(json, hAgents, "known") + " known, " + TextOf(json, hAgents, "online") + " online"},
      {"uploads", TextOf(json, hUploads, "received") + " received, " + TextOf(json, hUploads, "repeats") +
                      " repeats dropped, " + TextOf(json, hUploads, "refused") + " refused"}};
  std::vector<HJsonNode> listStates;
  json.GetAllNode(json.GetNode("commands"), listStates);
  for (const HJsonNode hState : listStates) {
    CPString strName, strCount;
    CPJsonParse::GetName(hState, strName);
    CPJsonParse::GetValue(hState, strCount);
    listRows.push_back({"commands " + strName.Str(), strCount.Str()});
  }
  Print(FormatTable(listRows));
  return kExitOk;
}

}  // namespace zxctl
