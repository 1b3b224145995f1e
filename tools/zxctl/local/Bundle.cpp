#include "zxctl/local/Bundle.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include "zxctl/Answers.h"
#include "zxctl/Commands.h"
#include "zxctl/HomeLogs.h"
#include "zxctl/Table.h"
#include "zxctl/local/Doctor.h"
#include "zxctl/local/Home.h"
#include "zxctl/local/HostView.h"

extern char** environ;

namespace zxctl {

namespace {

constexpr size_t kLogTail = 4u << 20;
constexpr size_t kSettingMax = 4u << 20;
constexpr size_t kMaxFiles = 2000;

// The folder that becomes the archive; removed when done.
class CStage {
 public:
  CStage() {
    std::string strTemplate = (std::filesystem::temp_directory_path() / "zxctl-bundle-XXXXXX").string();
    if (mkdtemp(strTemplate.data()) != nullptr)
      m_strDir = strTemplate;
  }
  ~CStage() {
    std::error_code error;
    if (!m_strDir.empty())
      std::filesystem::remove_all(m_strDir, error);
  }
  CStage(const CStage&) = delete;
  CStage& operator=(const CStage&) = delete;

  const std::string& Dir() const { return m_strDir; }
  bool Put(const std::string& strName, const std::string& strData) {
    const std::filesystem::path path = std::filesystem::path(m_strDir) / "zxagent" / strName;
    std::error_code error;
    std::filesystem::create_directories(path.parent_path(), error);
    const std::unique_ptr<FILE, int (*)(FILE*)> pFile(std::fopen(path.c_str(), "we"), &std::fclose);
    return pFile != nullptr &&
           std::fwrite(strData.data(), 1, strData.size(), pFile.get()) == strData.size() &&
           std::fflush(pFile.get()) == 0;
  }

 private:
  std::string m_strDir;
};

bool EndsWith(const std::string& str, std::string_view svEnd) {
  return str.size() >= svEnd.size() && str.compare(str.size() - svEnd.size(), svEnd.size(), svEnd) == 0;
}

// Documents of the agent only: certificates, keys, the spool and whatever else lies there stay out.
bool IsSetting(const std::string& strName) {
  return EndsWith(strName, ".json") || EndsWith(strName, ".xml") || EndsWith(strName, ".dat") ||
         EndsWith(strName, ".conf");
}

void PutFile(CStage& stage, const std::string& strHome, const std::string& strName, size_t uMax, bool bTail,
             std::string& strIndex) {
  std::string strData;
  if (!ReadFileBounded(strHome + strName, uMax, bTail, strData)) {
    strIndex += strName + ": left out, " + ErrnoText(errno) + "\n";
    return;
  }
  if (!stage.Put(strName, Redact(strData)))
    strIndex += strName + ": left out, the bundle cannot be written: " + ErrnoText(errno) + "\n";
  else
    strIndex += strName + ": " + std::to_string(strData.size()) + " bytes before masking\n";
}

void PutDir(CStage& stage, const std::string& strHome, const std::string& strDir, int iDepth, size_t& uFiles,
            std::string& strIndex) {
  std::vector<std::string> listNames;
  if (iDepth > 4 || !ListDir(strHome + strDir, kMaxFiles, listNames))
    return;
  for (const std::string& strName : listNames) {
    struct stat st {};
    const std::string strPath = strDir + strName;
    if (uFiles >= kMaxFiles || lstat((strHome + strPath).c_str(), &st) != 0)
      continue;
    if (S_ISDIR(st.st_mode)) {
      PutDir(stage, strHome, strPath + "/", iDepth + 1, uFiles, strIndex);
    } else if (S_ISREG(st.st_mode) && IsSetting(strName)) {
      ++uFiles;
      PutFile(stage, strHome, strPath, kSettingMax, false, strIndex);
    } else {
      strIndex += strPath + ": left out, not a settings file\n";
    }
  }
}

void PutLogs(CStage& stage, const std::string& strHome, std::string& strIndex) {
  const std::vector<std::string> listNames = LogFiles(strHome);
  if (listNames.empty())
    strIndex += std::string("log/: ") + ErrnoText(errno) + "\n";
  for (const std::string& strName : listNames)
    PutFile(stage, strHome, strName, kLogTail, true, strIndex);
}

std::string MachineText() {
  utsname name{};
  std::string str = "time " + DateText(NowMs()) + "\n";
  if (uname(&name) == 0)
    str += std::string("kernel ") + name.release + " " + name.machine + "\n";
  std::string strFacts;
  for (const char* pszFile : {"/etc/os-release", "/proc/meminfo", "/proc/loadavg", "/proc/uptime"}) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pFile(std::fopen(pszFile, "re"), &std::fclose);
    char szText[4096] = {};
    if (pFile != nullptr && std::fread(szText, 1, sizeof(szText) - 1, pFile.get()) > 0)
      str += std::string("\n== ") + pszFile + "\n" + szText;
  }
  return str;
}

void PutViews(CStage& stage, const std::string& strHome, std::string& strIndex) {
  for (const char* pszMethod : {"status", "components"}) {
    CPJsonParse json;
    CPString strText;
    if (AskHost(strHome, pszMethod, json) == kExitOk && json.GetJsonStr(strText, true) != 0)
      stage.Put(std::string("host/") + pszMethod + ".json", Redact(strText.View()));
    else
      strIndex += std::string(pszMethod) + ": the host did not answer\n";
  }
  TFindings findings;
  CheckTree(strHome, findings);
  CheckModes(strHome, findings);
  CheckDocuments(strHome, findings);
  CheckSpace(strHome, findings);
  CheckClock(strHome, NowMs() / 1000, findings);
  CheckCloud(strHome, true, NowMs() / 1000, findings);
  stage.Put("doctor.txt", Redact(FindingsText(findings)));
  stage.Put("machine.txt", MachineText());
}

int RunTar(const std::string& strStage, const std::string& strOut) {
  std::vector<std::string> listArgs{"tar",  "-C",   strStage, "--owner=0", "--group=0",
                                    "-czf", strOut, "--",     "zxagent"};
  std::vector<char*> listRaw;
  for (std::string& strArg : listArgs)
    listRaw.push_back(strArg.data());
  listRaw.push_back(nullptr);
  pid_t pid = 0;
  const int iError = posix_spawnp(&pid, "tar", nullptr, nullptr, listRaw.data(), environ);
  if (iError != 0) {
    std::fprintf(stderr, "zxctl: tar: %s\n", ErrnoText(iError).c_str());
    return -1;
  }
  int iStatus = 0;
  while (waitpid(pid, &iStatus, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
}

std::string DefaultName() {
  utsname name{};
  std::string strNode = uname(&name) == 0 ? name.nodename : "machine";
  for (char& ch : strNode)
    ch = std::isalnum(static_cast<unsigned char>(ch)) != 0 || ch == '-' ? ch : '_';
  return "zxagent-" + strNode + "-" + std::to_string(NowMs() / 1000) + ".tar.gz";
}

}  // namespace

int Bundle(const std::string& strHome, const std::string& strOut, bool bJson) {
  const std::string strFile = strOut.empty() ? DefaultName() : strOut;
  // Made first, and exclusively: nobody reads it while it grows, and nothing is overwritten.
  const int fd = open(strFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    std::fprintf(stderr, "zxctl: %s: %s\n", strFile.c_str(), ErrnoText(errno).c_str());
    return kExitFailed;
  }
  close(fd);
  CStage stage;
  std::string strIndex;
  size_t uFiles = 0;
  PutDir(stage, strHome, "etc/", 0, uFiles, strIndex);
  PutLogs(stage, strHome, strIndex);
  PutViews(stage, strHome, strIndex);
  const bool bStaged = !stage.Dir().empty() && stage.Put("INDEX.txt", strIndex);
  if (!bStaged || RunTar(stage.Dir(), std::filesystem::absolute(strFile).string()) != 0) {
    std::fprintf(stderr, "zxctl: the bundle could not be written to %s\n", strFile.c_str());
    unlink(strFile.c_str());
    return kExitFailed;
  }
  if (!bJson) {
    Print(strFile + "\n");
    return kExitOk;
  }
  CPJsonParse json;
  CPString strText;
  json.CreateJson();
  json.AddNode(nullptr, "bundle", strFile.c_str());
  json.GetJsonStr(strText);
  Print(strText.Str() + "\n");
  return kExitOk;
}

}  // namespace zxctl
