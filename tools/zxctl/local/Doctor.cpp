#include "zxctl/local/Doctor.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/doc/PXmlParse.h"
#include "zxctl/Answers.h"
#include "zxctl/Commands.h"
#include "zxctl/Table.h"
#include "zxctl/local/Home.h"
#include "zxctl/local/HostView.h"

namespace zxctl {

namespace {

constexpr size_t kDocumentMax = 16u << 20;
constexpr size_t kMaxNames = 10000;
constexpr uint64_t kLittleSpace = 256ull << 20;
constexpr uint64_t kNoSpace = 16ull << 20;

void Good(TFindings& findings, const char* pszArea, std::string strWhat) {
  findings.push_back({EFinding::Good, pszArea, std::move(strWhat), {}});
}
void Note(TFindings& findings, const char* pszArea, std::string strWhat, std::string strCure) {
  findings.push_back({EFinding::Note, pszArea, std::move(strWhat), std::move(strCure)});
}
void Problem(TFindings& findings, const char* pszArea, std::string strWhat, std::string strCure) {
  findings.push_back({EFinding::Problem, pszArea, std::move(strWhat), std::move(strCure)});
}

// Judges one document; Missing is not a finding of its own.
enum class EDocument : uint8_t { Fine, Missing, Unreadable, Broken };

EDocument JudgeDocument(const std::string& strFile, std::string& strWhy) {
  std::string strData;
  if (!ReadFileBounded(strFile, kDocumentMax, false, strData)) {
    strWhy = ErrnoText(errno);
    return errno == ENOENT ? EDocument::Missing : EDocument::Unreadable;
  }
  const bool bXml = strFile.size() > 4 && strFile.compare(strFile.size() - 4, 4, ".xml") == 0;
  bool bFine = false;
  if (bXml) {
    zxtools::CPXmlParse xml;
    bFine = xml.LoadBuffer(strData.data(), strData.size()) != 0;
  } else {
    CPJsonParse json;
    bFine = json.LoadBuffer(strData.data(), strData.size()) != 0;
  }
  strWhy = strData.empty() ? "it is empty" : bXml ? "it is not XML" : "it is not JSON";
  return bFine ? EDocument::Fine : EDocument::Broken;
}

void CheckDocument(const std::string& strHome, const std::string& strName, bool bNeeded, const char* pszCure,
                   TFindings& findings) {
  std::string strWhy;
  switch (JudgeDocument(strHome + strName, strWhy)) {
    case EDocument::Fine:
      Good(findings, "documents", strName);
      break;
    case EDocument::Missing:
      if (bNeeded)
        Problem(findings, "documents", strName + " is missing", pszCure);
      break;
    case EDocument::Unreadable:
      Problem(findings, "documents", strName + " cannot be read: " + strWhy,
              "run zxctl as root or as the agent's user, or mend the file's owner and mode");
      break;
    case EDocument::Broken:
      Problem(findings, "documents", strName + ": " + strWhy, pszCure);
      break;
  }
}

void CheckDir(const std::string& strHome, const std::string& strDir, const char* pszCure,
              TFindings& findings) {
  std::vector<std::string> listNames;
  if (!ListDir(strHome + strDir, kMaxNames, listNames))
    return;
  for (const std::string& strName : listNames) {
    const bool bJson = strName.size() > 5 && strName.compare(strName.size() - 5, 5, ".json") == 0;
    if (bJson)
      CheckDocument(strHome, strDir + strName, false, pszCure, findings);
  }
}

void CheckMode(const std::string& strFile, mode_t wrong, const char* pszWrong, const char* pszCure,
               TFindings& findings) {
  struct stat st {};
  if (lstat(strFile.c_str(), &st) != 0)
    return;
  if ((st.st_mode & wrong) != 0 && !S_ISLNK(st.st_mode))
    Problem(findings, "modes", strFile + " " + pszWrong, pszCure);
  if (geteuid() == 0 && st.st_uid != 0 && (wrong & 022) != 0)
    Note(findings, "modes", strFile + " belongs to uid " + std::to_string(st.st_uid),
         "chown root:root it, when the host runs as root");
}

}  // namespace

void CheckTree(const std::string& strHome, TFindings& findings) {
  const char* const kNeeded[] = {"libzxagent.so",
                                 "lib/libzxplatform.so",
                                 "lib/libzxbus.so",
                                 "lib/libzxcloud.so",
                                 "lib/libzxmid.so",
                                 "bin/zxhost",
                                 "lib/modules/libconfigproxy.so",
                                 "etc/zxagent/zxagent.json"};
  size_t uMissing = 0;
  for (const char* pszName : kNeeded) {
    if (access((strHome + pszName).c_str(), R_OK) == 0)
      continue;
    ++uMissing;
    Problem(findings, "files", strHome + pszName + ": " + ErrnoText(errno), "install the package again");
  }
  if (uMissing == 0)
    Good(findings, "files", "libraries and programs are there");
  if (access((strHome + "log").c_str(), W_OK) == 0)
    Good(findings, "files", "log/ can be written");
  else
    Problem(findings, "files", strHome + "log: " + ErrnoText(errno),
            "make the directory, give it to the host's user; or run zxctl as that user");
}

void CheckModes(const std::string& strHome, TFindings& findings) {
  const size_t uBefore = findings.size();
  constexpr mode_t kOthersWrite = 022;
  for (const char* pszName :
       {"", "lib", "lib/modules", "lib/plugins", "bin", "etc", "etc/zxagent", "etc/coms/client",
        "libzxagent.so", "etc/zxhost.json", "etc/zxagent/zxagent.json", "etc/zxagent/commandroute.json"})
    CheckMode(strHome + pszName, kOthersWrite, "can be written by its group or others", "chmod go-w it",
              findings);
  constexpr mode_t kOthersRead = 077;
  for (const char* pszName :
       {"etc/zxagent/zxcloud.db", "etc/zxagent/zxcloud.db-wal", "etc/zxagent/inner/.mid", "etc/zxagent/.mid"})
    CheckMode(strHome + pszName, kOthersRead, "can be read by others", "chmod 600 it", findings);
  if (findings.size() == uBefore)
    Good(findings, "modes", "nobody else can change the installed files");
}

void CheckDocuments(const std::string& strHome, TFindings& findings) {
  const char* const kInstall = "take the file of the package, or mend the text named";
  for (const char* pszName : {"etc/version.xml", "etc/zxhost.json", "etc/zxagent/zxagent.json"})
    CheckDocument(strHome, pszName, true, kInstall, findings);
  CheckDocument(strHome, "etc/zxagent/commandroute.json", false, kInstall, findings);
  CheckDocument(strHome, "etc/zxlog.json", false, kInstall, findings);
  CheckDir(strHome, "etc/zxagent/inner/",
           "the agent makes the file anew; remove it while the host is stopped", findings);
  std::vector<std::string> listNames;
  if (!ListDir(strHome + "etc/coms/client", kMaxNames, listNames))
    return;
  for (const std::string& strName : listNames)
    CheckDocument(strHome, "etc/coms/client/" + strName + "/config.json", true,
                  "install the component again, or remove its directory", findings);
}

void CheckSpace(const std::string& strHome, TFindings& findings) {
  struct statvfs vfs {};
  if (statvfs(strHome.c_str(), &vfs) != 0) {
    Problem(findings, "disk", strHome + ": " + ErrnoText(errno), "mount the disk");
    return;
  }
  const uint64_t u64Free = uint64_t{vfs.f_bavail} * vfs.f_frsize;
  const std::string strFree = BytesText(static_cast<int64_t>(u64Free)) + " free for " + strHome;
  if ((vfs.f_flag & ST_RDONLY) != 0)
    Problem(findings, "disk", strHome + " is mounted read-only",
            "mount it writable; nothing is kept until then");
  else if (u64Free < kNoSpace || (vfs.f_files != 0 && vfs.f_favail == 0))
    Problem(findings, "disk", vfs.f_favail == 0 ? "no inode is free" : "only " + strFree,
            "free space; the agent refuses new records until then");
  else if (u64Free < kLittleSpace)
    Note(findings, "disk", "only " + strFree, "free space before it runs out");
  else
    Good(findings, "disk", strFree);
}

void CheckClock(const std::string& strHome, int64_t i64NowSec, TFindings& findings) {
  struct stat st {};
  constexpr int64_t kDay = 86400;
  if (stat((strHome + "libzxagent.so").c_str(), &st) == 0 && st.st_mtime > i64NowSec + kDay)
    Problem(findings, "clock",
            "the clock says " + DateText(i64NowSec * 1000) + ", before the agent was installed",
            "set the clock; certificates count as not yet valid until then");
  else
    Good(findings, "clock", DateText(i64NowSec * 1000));
}

void CheckHost(const std::string& strHome, TFindings& findings) {
  CPJsonParse status;
  if (AskHost(strHome, "status", status) != kExitOk) {
    Problem(findings, "host", "no host answers on " + BusAddressOf(strHome),
            "systemctl start zxagent, or look into log/zxhost.log for why it ended");
    return;
  }
  Good(findings, "host", "runs, up " + SpanText(NumberOf(status, nullptr, "uptime_sec")));
  for (const HJsonNode hPlugin : ItemsOf(status, nullptr, "plugins")) {
    if (TextOf(status, hPlugin, "state") != "running")
      Problem(findings, "host",
              "plug-in " + TextOf(status, hPlugin, "name") + " is " + TextOf(status, hPlugin, "state"),
              "log/zxhost.log says which step failed");
  }
  const HJsonNode hLink = status.GetNode("link");
  if (hLink != nullptr && TextOf(status, hLink, "link") == "down" &&
      TextOf(status, hLink, "cloudtcp_disable") != "1")
    Problem(findings, "host", "the long connection is down: " + TextOf(status, hLink, "lasterror"),
            "see the findings about the cloud");
  CPJsonParse components;
  if (AskHost(strHome, "components", components) != kExitOk)
    return;
  for (const HJsonNode hItem : ItemsOf(components, nullptr, "components")) {
    if (TextOf(components, hItem, "kind") != "process")
      continue;
    if (const std::string strWhy = TextOf(components, hItem, "refused"); !strWhy.empty())
      Problem(findings, "components", TextOf(components, hItem, "name") + " has no rights: " + strWhy,
              "mend its etc/coms/client/<name>/config.json");
    else if (TextOf(components, hItem, "joined") == "false")
      Note(findings, "components", TextOf(components, hItem, "name") + " is not on the bus",
           "systemctl start zxagent-component@" + TextOf(components, hItem, "name") +
               ", or remove its manifest");
  }
}

std::string FindingsText(const TFindings& findings) {
  std::vector<std::vector<std::string>> rows;
  size_t uProblems = 0, uNotes = 0;
  for (const _Finding& finding : findings) {
    const char* const kWords[] = {"ok", "note", "PROBLEM"};
    rows.push_back({kWords[static_cast<size_t>(finding.eKind)], finding.strArea, finding.strWhat});
    if (!finding.strCure.empty())
      rows.push_back({"", "", "  cure: " + finding.strCure});
    uProblems += finding.eKind == EFinding::Problem ? 1 : 0;
    uNotes += finding.eKind == EFinding::Note ? 1 : 0;
  }
  return FormatTable(rows) + "\n" + std::to_string(uProblems) + " problems, " + std::to_string(uNotes) +
         " notes\n";
}

namespace {

std::string FindingsJson(const TFindings& findings) {
  CPJsonParse json;
  json.CreateJson();
  const HJsonNode hList = json.AddNodeArray(nullptr, "findings");
  for (const _Finding& finding : findings) {
    const char* const kWords[] = {"ok", "note", "problem"};
    const HJsonNode hItem = json.InsertObjectToArray(hList);
    json.AddNode(hItem, "kind", kWords[static_cast<size_t>(finding.eKind)]);
    json.AddNode(hItem, "area", finding.strArea.c_str());
    json.AddNode(hItem, "what", finding.strWhat.c_str());
    json.AddNode(hItem, "cure", finding.strCure.c_str());
  }
  CPString strText;
  json.GetJsonStr(strText, true);
  return strText.Str() + "\n";
}

}  // namespace

int Doctor(const std::string& strHome, const _DoctorOptions& options, bool bJson) {
  const int64_t i64Now = options.i64NowSec != 0 ? options.i64NowSec : NowMs() / 1000;
  TFindings findings;
  CheckTree(strHome, findings);
  CheckModes(strHome, findings);
  CheckDocuments(strHome, findings);
  CheckSpace(strHome, findings);
  CheckClock(strHome, i64Now, findings);
  CheckCloud(strHome, options.bOffline, i64Now, findings);
  CheckHost(strHome, findings);
  Print(bJson ? FindingsJson(findings) : FindingsText(findings));
  for (const _Finding& finding : findings) {
    if (finding.eKind == EFinding::Problem)
      return kExitFailed;
  }
  return kExitOk;
}

}  // namespace zxctl
