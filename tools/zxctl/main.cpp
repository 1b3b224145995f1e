// zxctl: what people do from a shell, with the agent on this machine and with a cloud. Exit codes: 0 done, 1
// failed, 2 wrong usage, 3 the host or the cloud cannot be reached, 4 not permitted.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "Commands.h"
#include "LocalCommands.h"
#include "Uploads.h"

using namespace zxctl;

namespace {

struct _Options {
  std::string strUrl, strTokenFile, strRunDir = "/var/lib/zxcloudd";
  bool bJson = false;
  _PushOptions push;
  std::string strTraceID, strHome;
  bool bAll = false;
  _ListOptions list;
  std::string strUpload, strCommandID;
  bool bBody = false;
};

bool FindCloud(const _Options& options, _CloudAddress& address) {
  std::string strError;
  bool bFound = false;
  if (options.strUrl.empty()) {
    bFound = AddressFromRunDir(options.strRunDir, address, strError);
  } else {
    address.strUrl = options.strUrl;
    bFound = TokenFromFile(options.strTokenFile, address.strToken, strError);
  }
  if (!bFound)
    std::fprintf(stderr, "zxctl: %s\n", strError.c_str());
  return bFound;
}

void DefinePush(CLI::App& app, _PushOptions& push) {
  CLI::App* pPush = app.add_subcommand("push", "give a command to a machine");
  pPush->add_option("--mid", push.strMid, "machine id; may be left out when the cloud knows one machine");
  pPush->add_option("--pcid", push.iPcid, "business number (product and combo)")->required();
  CLI::Option* pCommand = pPush->add_option("--command", push.strCommand, "command name");
  pPush->add_option("--id", push.strID, "id of this command; one is made when it is left out");
  pPush->add_option("--param", push.strParam, "JSON that becomes the command's Param");
  CLI::Option* pText =
      pPush->add_option("--text", push.strText, "the whole command as JSON, instead of --command");
  pText->excludes(pCommand);
  pPush->add_option("--via", push.strVia, "auto, push (long connection only) or poll")
      ->check(CLI::IsMember({"auto", "push", "poll"}));
  pPush->add_option("--wait", push.iWaitSec, "wait up to this many seconds for the acknowledgement")
      ->check(CLI::Range(0, 86400));
}

CLI::App* DefineList(CLI::App& app, const char* pszName, const char* pszWhat, _ListOptions& list) {
  CLI::App* pList = app.add_subcommand(pszName, pszWhat);
  pList->add_option("--mid", list.strMid, "of this machine only");
  pList->add_option("--max", list.iMax, "the newest so many")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str();
  return pList;
}

void DefineLists(CLI::App& app, _Options& options) {
  _ListOptions& list = options.list;
  CLI::App* pUploads = DefineList(app, "uploads", "list what machines sent", list);
  pUploads->add_option("--kind", list.strKind, "ack, maint, tags or data")
      ->check(CLI::IsMember({"ack", "maint", "tags", "data"}));
  pUploads->add_option("--about", list.strAbout, "what concerns this command id, or has this message id");
  CLI::App* pAcks = DefineList(app, "acks", "list acknowledgements of commands", list);
  pAcks->add_option("id", list.strAbout, "of this command only");
  CLI::App* pMaint = DefineList(app, "maint", "list results of maintenance scripts", list);
  pMaint->add_option("id", list.strAbout, "of this script only");
  CLI::App* pCommands = DefineList(app, "commands", "list commands and policies", list);
  pCommands->add_option("--state", list.strState,
                        "queued, publishing, pushed, offered, acked, refused or expired");
  CLI::App* pUpload = app.add_subcommand("upload", "show one upload with its body");
  pUpload->add_option("which", options.strUpload, "its number (SEQ) or message id")->required();
  pUpload->add_flag("--body", options.bBody, "print the body alone");
  CLI::App* pShow =
      app.add_subcommand("show", "show a command or policy: its text and what came back about it");
  pShow->add_option("id", options.strCommandID, "id of the command")->required();
}

int RunList(CLI::App& app, CCloudClient& cloud, const _Options& options) {
  if (app.got_subcommand("uploads"))
    return Uploads(cloud, options.list, options.bJson);
  if (app.got_subcommand("acks"))
    return Acks(cloud, options.list, options.bJson);
  if (app.got_subcommand("maint"))
    return MaintResults(cloud, options.list, options.bJson);
  if (app.got_subcommand("commands"))
    return Commands(cloud, options.list, options.bJson);
  if (app.got_subcommand("upload"))
    return ShowUpload(cloud, options.strUpload, options.bBody, options.bJson);
  return ShowCommand(cloud, options.strCommandID, options.bJson);
}

int Run(CLI::App& app, const _Options& options) {
  _CloudAddress address;
  if (!FindCloud(options, address))
    return kExitUnreachable;
  CCloudClient cloud(address);
  if (app.got_subcommand("push"))
    return Push(cloud, options.push, options.bJson);
  if (app.got_subcommand("agents"))
    return Agents(cloud, options.bJson);
  if (app.got_subcommand("trace"))
    return Trace(cloud, options.strTraceID, options.strHome, options.bAll, options.bJson);
  if (app.got_subcommand("cloud"))
    return Status(cloud, options.bJson);
  return RunList(app, cloud, options);
}

}  // namespace

int main(int iArgc, char** ppszArgv) {
  CLI::App app("zxctl: the agent on this machine, and commands given to machines");
  _Options options;
  CLocalCommands local;
  CLI::Option* pUrl = app.add_option("--cloud", options.strUrl, "operator interface, http://127.0.0.1:port");
  CLI::Option* pToken = app.add_option("--token", options.strTokenFile, "file with the operator token");
  pUrl->needs(pToken);
  pToken->needs(pUrl);
  app.add_option("--run", options.strRunDir, "state directory of zxcloudd on this machine")
      ->capture_default_str()
      ->excludes(pUrl);
  app.add_flag("--json", options.bJson, "print JSON");
  app.require_subcommand(1);
  app.fallthrough();
  local.Define(app);
  DefinePush(app, options.push);
  app.add_subcommand("agents", "list the machines");
  CLI::App* pTrace = app.add_subcommand("trace", "show a command's way, hop by hop");
  pTrace->add_option("id", options.strTraceID, "id of the command")->required();
  pTrace->add_option("--home", options.strHome,
                     "home of the agent on this machine, whose logs are merged in");
  pTrace->add_flag("--all", options.bAll, "every log record about the command, not only its steps");
  app.add_subcommand("cloud", "how the cloud stands");
  DefineLists(app, options);
  try {
    app.parse(iArgc, ppszArgv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? kExitOk : kExitUsage;
  }
  try {
    int iExit = kExitOk;
    return local.Run(options.bJson, iExit) ? iExit : Run(app, options);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zxctl: %s\n", e.what());
    return kExitFailed;
  }
}
