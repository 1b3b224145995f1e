#include "zxctl/local/HostView.h"

#include <cstdio>
#include <memory>
#include <vector>

#include "platform/bus/zxbus.h"
#include "zxctl/Commands.h"
#include "zxctl/Table.h"
#include "zxctl/local/Home.h"

namespace zxctl {

namespace {

constexpr uint32_t kAskMs = 10000;
constexpr size_t kErrorsShown = 5;
constexpr size_t kErrorMax = 160;

struct CBusFree {
  void operator()(char* psz) const { ZxBusFree(psz); }
};

using TRows = std::vector<std::vector<std::string>>;

std::string NumberText(const CPJsonParse& json, HJsonNode hParent, const char* pszName) {
  return std::to_string(NumberOf(json, hParent, pszName));
}

std::string OrDash(std::string str) {
  return str.empty() ? "-" : str;
}

std::string PluginsText(const CPJsonParse& json) {
  std::string str;
  for (const HJsonNode hPlugin : ItemsOf(json, nullptr, "plugins"))
    str += (str.empty() ? "" : ", ") + TextOf(json, hPlugin, "name") + " " + TextOf(json, hPlugin, "state");
  if (TextOf(json, nullptr, "plugins_answer") == "false")
    str += " (one is busy in a call; as known before)";
  return OrDash(str);
}

void AddLink(const CPJsonParse& json, TRows& rows) {
  const HJsonNode hLink = json.GetNode("link");
  if (hLink == nullptr)
    return;
  const std::string strUp = TextOf(json, hLink, "link");
  std::string strLong = strUp == "up" ? "up, " + TextOf(json, hLink, "longaddr") : OrDash(strUp);
  if (TextOf(json, hLink, "cloudtcp_disable") == "1")
    strLong = "off, short connection only";
  if (const std::string strTimes = TextOf(json, hLink, "reconnects"); !strTimes.empty())
    strLong += ", lost " + strTimes + " times";
  rows.push_back({"long connection", strLong});
  if (const std::string strEntries = TextOf(json, hLink, "entries"); !strEntries.empty())
    rows.push_back({"waits for the cloud", strEntries + " entries, " +
                                               BytesText(NumberOf(json, hLink, "bytes")) + ", oldest " +
                                               SpanText(NumberOf(json, hLink, "oldest_ms") / 1000)});
  if (const std::string strError = TextOf(json, hLink, "lasterror"); !strError.empty())
    rows.push_back({"last link error", strError});
}

void AddBus(const CPJsonParse& json, TRows& rows) {
  const HJsonNode hBus = json.GetNode("bus");
  if (hBus == nullptr)
    return;
  std::string str = OrDash(TextOf(json, hBus, "address"));
  const HJsonNode hStats = json.GetNode(hBus, "stats");
  if (hStats != nullptr)
    str += ", " + TextOf(json, hStats, "state");
  if (NumberOf(json, hBus, "daemon_pid") != 0)
    str += ", daemon pid " + NumberText(json, hBus, "daemon_pid") + ", started " +
           NumberText(json, hBus, "daemon_starts") + " times";
  rows.push_back({"bus", str});
  if (const std::string strTrouble = TextOf(json, hBus, "trouble"); !strTrouble.empty())
    rows.push_back({"bus trouble", strTrouble});
}

void AddGauges(const CPJsonParse& json, TRows& rows) {
  std::vector<HJsonNode> listGauges;
  const HJsonNode hGauges = json.GetNode("gauges");
  if (hGauges != nullptr)
    json.GetAllNode(hGauges, listGauges);
  for (const HJsonNode hGauge : listGauges) {
    CPString strName, strValue;
    CPJsonParse::GetName(hGauge, strName);
    CPJsonParse::GetValue(hGauge, strValue);
    rows.push_back({strName.Str(), strValue.Str()});
  }
}

}  // namespace

std::string BytesText(int64_t i64Bytes) {
  if (i64Bytes < 1000)
    return std::to_string(i64Bytes) + " B";
  const bool bMega = i64Bytes >= 1000000;
  char szText[32] = {};
  std::snprintf(szText, sizeof(szText), "%.1f %s", static_cast<double>(i64Bytes) / (bMega ? 1e6 : 1e3),
                bMega ? "MB" : "kB");
  return szText;
}

std::string SpanText(int64_t i64Seconds) {
  if (i64Seconds < 60)
    return std::to_string(i64Seconds) + " s";
  if (i64Seconds < 3600)
    return std::to_string(i64Seconds / 60) + " min " + std::to_string(i64Seconds % 60) + " s";
  if (i64Seconds < 86400)
    return std::to_string(i64Seconds / 3600) + " h " + std::to_string(i64Seconds % 3600 / 60) + " min";
  return std::to_string(i64Seconds / 86400) + " d " + std::to_string(i64Seconds % 86400 / 3600) + " h";
}

int AskHost(const std::string& strHome, const char* pszMethod, CPJsonParse& json) {
  const std::string strAddress = BusAddressOf(strHome);
  char* pszAnswer = nullptr;
  const uint32_t uiResult = ZxBusCallHost(strAddress.c_str(), pszMethod, "{}", &pszAnswer, kAskMs);
  const std::unique_ptr<char, CBusFree> answer(pszAnswer);
  const char* pszText = pszAnswer != nullptr ? pszAnswer : "";
  if (uiResult == 0 && json.LoadBuffer(pszText) != 0)
    return kExitOk;
  const bool bAway = uiResult == kBusErrGone || uiResult == kBusErrNoTarget;
  const bool bDenied = uiResult == kBusErrDenied;
  std::fprintf(stderr, "zxctl: %s [%s]: %s\n",
               bAway     ? "no host of this home answers; is zxhost running?"
               : bDenied ? "the host answers root and its own user only"
                         : "the host gave no usable answer",
               strAddress.c_str(), pszText);
  return bAway ? kExitUnreachable : bDenied ? kExitDenied : kExitFailed;
}

std::string StatusText(const CPJsonParse& json, int64_t i64NowMs) {
  TRows rows;
  rows.push_back({"home", TextOf(json, nullptr, "home")});
  rows.push_back({"host", "version " + TextOf(json, nullptr, "version") + ", pid " +
                              NumberText(json, nullptr, "pid") + ", up " +
                              SpanText(NumberOf(json, nullptr, "uptime_sec"))});
  rows.push_back({"plug-ins", PluginsText(json)});
  rows.push_back({"machine id", OrDash(TextOf(json, nullptr, "mid"))});
  AddLink(json, rows);
  AddBus(json, rows);
  AddGauges(json, rows);
  std::string str = FormatTable(rows);
  const std::vector<HJsonNode> listErrors = ItemsOf(json, nullptr, "errors");
  const size_t uFrom = listErrors.size() > kErrorsShown ? listErrors.size() - kErrorsShown : 0;
  TRows errors;
  for (size_t u = uFrom; u < listErrors.size(); ++u)
    errors.push_back({TextOf(json, listErrors[u], "time"), TextOf(json, listErrors[u], "channel"),
                      Shorten(TextOf(json, listErrors[u], "text"), kErrorMax)});
  if (!errors.empty())
    str += "\nlast warnings and errors (" + DateText(i64NowMs) + " now)\n" + FormatTable(errors);
  return str;
}

std::string ComponentsText(const CPJsonParse& json) {
  TRows rows{{"NAME", "GUID", "KIND", "USER", "JOINED", "PID", "QUEUED", "BYTES", "NOTE"}};
  for (const HJsonNode hItem : ItemsOf(json, nullptr, "components")) {
    const bool bJoined = TextOf(json, hItem, "joined") == "true";
    // Plug-ins have a figure of that name, processes a reason.
    const bool bProcess = TextOf(json, hItem, "kind") == "process";
    std::string strNote = bProcess ? TextOf(json, hItem, "refused") : "";
    if (!strNote.empty())
      strNote = "no rights: " + strNote;
    else if (const std::string strState = TextOf(json, hItem, "state");
             !strState.empty() && strState != "running")
      strNote = strState;
    rows.push_back({OrDash(TextOf(json, hItem, "name")), OrDash(TextOf(json, hItem, "guid")),
                    TextOf(json, hItem, "kind"), OrDash(TextOf(json, hItem, "user")), bJoined ? "yes" : "no",
                    OrDash(TextOf(json, hItem, "pid")), OrDash(TextOf(json, hItem, "queued")),
                    OrDash(TextOf(json, hItem, "queued_bytes")), strNote});
  }
  std::string str = FormatTable(rows);
  if (const std::string strTrouble = TextOf(json, nullptr, "trouble"); !strTrouble.empty())
    str += "trouble: " + strTrouble + "\n";
  return str;
}

int LocalStatus(const std::string& strHome, bool bJson) {
  CPJsonParse json;
  const int iExit = AskHost(strHome, "status", json);
  if (iExit != kExitOk)
    return iExit;
  CPString strJson;
  json.GetJsonStr(strJson, true);
  Print(bJson ? strJson.Str() + "\n" : StatusText(json, NowMs()));
  return kExitOk;
}

int LocalComponents(const std::string& strHome, bool bJson) {
  CPJsonParse json;
  const int iExit = AskHost(strHome, "components", json);
  if (iExit != kExitOk)
    return iExit;
  CPString strJson;
  json.GetJsonStr(strJson, true);
  Print(bJson ? strJson.Str() + "\n" : ComponentsText(json));
  return kExitOk;
}

}  // namespace zxctl
