#include "Uploads.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "Answers.h"
#include "Commands.h"
#include "Table.h"

namespace zxctl {

namespace {

constexpr size_t kIdMax = 40;  // characters of one table cell; --json has the whole text

std::string Query(const _ListOptions& options, const std::string& strKind) {
  std::string strQuery = "max=" + std::to_string(options.iMax);
  const auto Add = [&strQuery](const char* pszName, const std::string& strValue) {
    if (!strValue.empty())
      strQuery += std::string("&") + pszName + "=" + CCloudClient::Escape(strValue);
  };
  Add("mid", options.strMid);
  Add("kind", strKind);
  Add("about", options.strAbout);
  Add("state", options.strState);
  return strQuery;
}

// Asks for a list, newest first; the answer is printed as it stands, or as a table with the newest last.
template <class F>
int List(CCloudClient& cloud, const std::string& strPath, const char* pszArray,
         std::vector<std::string> listHead, bool bJson, const F& fnRow) {
  CPJsonParse json;
  const _Answer answer = cloud.Get(strPath);
  const int iExit = CheckAnswer(answer, json);
  if (iExit != kExitOk)
    return iExit;
  if (bJson) {
    Print(answer.strBody + "\n");
    return kExitOk;
  }
  std::vector<HJsonNode> listItems = ItemsOf(json, nullptr, pszArray);
  std::reverse(listItems.begin(), listItems.end());
  std::vector<std::vector<std::string>> listRows = {std::move(listHead)};
  for (const HJsonNode hItem : listItems)
    listRows.push_back(fnRow(json, hItem));
  Print(FormatTable(listRows));
  return kExitOk;
}

std::string UploadsPath(const _ListOptions& options, const std::string& strKind) {
  return "/op/v1/uploads?newest=1&body=0&" + Query(options, strKind);
}

std::string Component(const CPJsonParse& json, HJsonNode hItem) {
  return TextOf(json, hItem, "product") + "/" + TextOf(json, hItem, "combo");
}

std::string About(const CPJsonParse& json, HJsonNode hItem) {
  return Shorten(TextOf(json, hItem, "about"), kIdMax);
}

std::string AckMeaning(const std::string& strType) {
  if (strType == "1" || strType == "3")
    return "taken";
  return strType == "4" ? "nobody takes it" : "";
}

// The number of the upload with this message id; empty when there is none.
int FindUpload(CCloudClient& cloud, const std::string& strWhich, std::string& strSeq) {
  if (!strWhich.empty() && strWhich.find_first_not_of("0123456789") == std::string::npos) {
    strSeq = strWhich;
    return kExitOk;
  }
  CPJsonParse json;
  const std::string strPath = "/op/v1/uploads?newest=1&body=0&about=" + CCloudClient::Escape(strWhich);
  const int iExit = CheckAnswer(cloud.Get(strPath), json);
  if (iExit != kExitOk)
    return iExit;
  for (const HJsonNode hItem : ItemsOf(json, nullptr, "uploads")) {
    if (TextOf(json, hItem, "id") == strWhich) {
      strSeq = TextOf(json, hItem, "seq");
      return kExitOk;
    }
  }
  std::fprintf(stderr, "zxctl: no upload with this message id\n");
  return kExitFailed;
}

// A script's result: what it wrote, readable. False when the body is in another format.
bool PrintResult(const std::string& strBody) {
  CPJsonParse json;
  if (!json.LoadBuffer(strBody.data(), strBody.size()) || json.GetNode("state") == nullptr)
    return false;
  std::vector<std::vector<std::string>> listRows;
  for (const char* psz : {"state", "exit_code", "signal", "duration_ms", "truncated", "error"}) {
    const std::string strValue = TextOf(json, nullptr, psz);
    if (!strValue.empty())
      listRows.push_back({psz, strValue});
  }
  Print(FormatTable(listRows));
  for (const char* psz : {"stdout", "stderr"}) {
    const std::string strText = TextOf(json, nullptr, psz);
    if (!strText.empty()) {
      Print(std::string("--- ") + psz + "\n");
      PrintForeign(strText);
    }
  }
  return true;
}

void PrintUpload(const CPJsonParse& json) {
  const HJsonNode hHeader = json.GetNode("header");
  std::vector<std::vector<std::string>> listRows;
  for (const char* psz : {"seq", "id", "mid", "kind", "type", "about", "outcome", "priority", "via"})
    listRows.push_back({psz, TextOf(json, nullptr, psz)});
  listRows.push_back({"component", Component(json, nullptr)});
  listRows.push_back({"received", DateText(NumberOf(json, nullptr, "received_ms"))});
  listRows.push_back({"size", TextOf(json, nullptr, "size")});
  for (const char* psz : {"m2", "ipartner", "pid", "sysver", "version"}) {
    if (hHeader != nullptr)
      listRows.push_back({psz, TextOf(json, hHeader, psz)});
  }
  Print(FormatTable(listRows));
  if (TextOf(json, nullptr, "kept") != "true") {
    Print("the body has been dropped\n");
    return;
  }
  const std::string strBody = TextOf(json, nullptr, hHeader != nullptr ? "body" : "upload");
  Print("--- body\n");
  if (TextOf(json, nullptr, "kind") != "maint" || !PrintResult(strBody))
    PrintForeign(strBody);
}

void PrintCommand(const CPJsonParse& json, HJsonNode hCommand) {
  std::vector<std::vector<std::string>> listRows;
  for (const char* psz : {"ID", "mid", "command", "pcid", "via", "state", "msg_type", "offers"})
    listRows.push_back({psz, TextOf(json, hCommand, psz)});
  listRows.push_back({"created", DateText(NumberOf(json, hCommand, "created_ms"))});
  listRows.push_back({"finished", DateText(NumberOf(json, hCommand, "finished_ms"))});
  Print(FormatTable(listRows));
  Print("--- text\n");
  PrintForeign(TextOf(json, hCommand, "text"));
}

}  // namespace

int Uploads(CCloudClient& cloud, const _ListOptions& options, bool bJson) {
  return List(cloud, UploadsPath(options, options.strKind), "uploads",
              {"SEQ", "TIME", "MID", "KIND", "TYPE", "PRIO", "COMPONENT", "SIZE", "VIA", "ID", "ABOUT"},
              bJson, [](const CPJsonParse& json, HJsonNode h) -> std::vector<std::string> {
                return {TextOf(json, h, "seq"),  ClockText(NumberOf(json, h, "received_ms")),
                        TextOf(json, h, "mid"),  TextOf(json, h, "kind"),
                        TextOf(json, h, "type"), TextOf(json, h, "priority"),
                        Component(json, h),      TextOf(json, h, "size"),
                        TextOf(json, h, "via"),  TextOf(json, h, "id"),
                        About(json, h)};
              });
}

int Acks(CCloudClient& cloud, const _ListOptions& options, bool bJson) {
  return List(cloud, UploadsPath(options, "ack"), "uploads",
              {"TIME", "MID", "COMMAND", "MSG_TYPE", "MEANING", "COMPONENT", "VIA", "SEQ"}, bJson,
              [](const CPJsonParse& json, HJsonNode h) -> std::vector<std::string> {
                const std::string strType = TextOf(json, h, "outcome");
                return {ClockText(NumberOf(json, h, "received_ms")),
                        TextOf(json, h, "mid"),
                        About(json, h),
                        strType,
                        AckMeaning(strType),
                        Component(json, h),
                        TextOf(json, h, "via"),
                        TextOf(json, h, "seq")};
              });
}

int MaintResults(CCloudClient& cloud, const _ListOptions& options, bool bJson) {
  return List(cloud, UploadsPath(options, "maint"), "uploads",
              {"TIME", "MID", "SCRIPT", "OUTCOME", "SIZE", "SEQ"}, bJson,
              [](const CPJsonParse& json, HJsonNode h) -> std::vector<std::string> {
                return {ClockText(NumberOf(json, h, "received_ms")),
                        TextOf(json, h, "mid"),
                        About(json, h),
                        TextOf(json, h, "outcome"),
                        TextOf(json, h, "size"),
                        TextOf(json, h, "seq")};
              });
}

int Commands(CCloudClient& cloud, const _ListOptions& options, bool bJson) {
  return List(cloud, "/op/v1/commands?" + Query(options, ""), "commands",
              {"CREATED", "MID", "ID", "COMMAND", "PCID", "VIA", "STATE", "MSG_TYPE", "TOOK"}, bJson,
              [](const CPJsonParse& json, HJsonNode h) -> std::vector<std::string> {
                const int64_t i64Created = NumberOf(json, h, "created_ms"),
                              i64End = NumberOf(json, h, "finished_ms");
                return {ClockText(i64Created),
                        TextOf(json, h, "mid"),
                        Shorten(TextOf(json, h, "ID"), kIdMax),
                        Shorten(TextOf(json, h, "command"), kIdMax),
                        TextOf(json, h, "pcid"),
                        TextOf(json, h, "via"),
                        TextOf(json, h, "state"),
                        TextOf(json, h, "msg_type"),
                        i64End == 0 ? "-" : std::to_string(i64End - i64Created) + " ms"};
              });
}

int ShowUpload(CCloudClient& cloud, const std::string& strWhich, bool bBody, bool bJson) {
  std::string strSeq;
  int iExit = FindUpload(cloud, strWhich, strSeq);
  if (iExit != kExitOk)
    return iExit;
  CPJsonParse json;
  const _Answer answer = cloud.Get("/op/v1/uploads/" + strSeq);
  iExit = CheckAnswer(answer, json);
  if (iExit != kExitOk)
    return iExit;
  if (bBody) {
    if (TextOf(json, nullptr, "kept") != "true") {
      std::fprintf(stderr, "zxctl: the body has been dropped\n");
      return kExitFailed;
    }
    Print(TextOf(json, nullptr, json.GetNode("body") != nullptr ? "body" : "upload"));
  } else if (bJson) {
    Print(answer.strBody + "\n");
  } else {
    PrintUpload(json);
  }
  return kExitOk;
}

int ShowCommand(CCloudClient& cloud, const std::string& strID, bool bJson) {
  CPJsonParse json;
  const _Answer answer = cloud.Get("/op/v1/trace/" + CCloudClient::Escape(strID));
  const int iExit = CheckAnswer(answer, json);
  if (iExit != kExitOk)
    return iExit;
  if (bJson) {
    Print(answer.strBody + "\n");
    return kExitOk;
  }
  for (const HJsonNode hCommand : ItemsOf(json, nullptr, "commands"))
    PrintCommand(json, hCommand);
  Print("--- uploads about it\n");
  _ListOptions options;
  options.strAbout = strID;
  return Uploads(cloud, options, false);
}

}  // namespace zxctl
