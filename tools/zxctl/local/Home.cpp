#include "zxctl/local/Home.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

#include "zxctl/Answers.h"

namespace zxctl {

namespace {

constexpr size_t kConfigMax = 1u << 20;

std::string OwnTree() {
  char szPath[PATH_MAX] = {};
  const ssize_t iLength = readlink("/proc/self/exe", szPath, sizeof(szPath) - 1);
  if (iLength <= 0)
    return {};
  std::string str(szPath, static_cast<size_t>(iLength));
  for (int i = 0; i < 2; ++i)  // bin/zxctl
    str.erase(std::min(str.rfind('/'), str.size()));
  return str;
}

bool IsDir(const std::string& strDir) {
  struct stat st {};
  return stat(strDir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

bool FindHome(const std::string& strOption, std::string& strHome, std::string& strError) {
  const char* pszEnvironment = std::getenv("ZX_HOME");  // NOLINT(concurrency-mt-unsafe)
  strHome = !strOption.empty()                                     ? strOption
            : pszEnvironment != nullptr && *pszEnvironment != '\0' ? std::string(pszEnvironment)
                                                                   : OwnTree();
  if (strHome.empty() || strHome.back() != '/')
    strHome += '/';
  if (IsDir(strHome + "etc/zxagent"))
    return true;
  strError = strHome + " is not an agent's home (no etc/zxagent in it); name one with --home or ZX_HOME";
  return false;
}

std::string BusAddressOf(const std::string& strHome) {
  std::string strData;
  CPJsonParse json;
  std::string strRunDir = "run";
  if (ReadFileBounded(strHome + "etc/zxhost.json", kConfigMax, false, strData) &&
      json.LoadBuffer(strData.data(), strData.size()) != 0) {
    if (const HJsonNode hBus = json.GetNode("bus"); hBus != nullptr) {
      if (const std::string strAddress = TextOf(json, hBus, "address"); !strAddress.empty())
        return strAddress;
      if (const std::string strDir = TextOf(json, hBus, "run_dir"); !strDir.empty())
        strRunDir = strDir;
    }
  }
  if (strRunDir.front() != '/')
    strRunDir = strHome + strRunDir;
  return "unix:path=" + strRunDir + (strRunDir.back() == '/' ? "bus" : "/bus");
}

bool ReadFileBounded(const std::string& strFile, size_t uMax, bool bTail, std::string& strData) {
  const int fd = open(strFile.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (fd < 0)
    return false;
  const std::unique_ptr<FILE, int (*)(FILE*)> pFile(fdopen(fd, "r"), &std::fclose);
  struct stat st {};
  if (pFile == nullptr || fstat(fd, &st) != 0)
    return false;
  if (!S_ISREG(st.st_mode)) {
    errno = EINVAL;
    return false;
  }
  const auto uSize = static_cast<size_t>(st.st_size);
  if (uSize > uMax && !bTail) {
    errno = EFBIG;
    return false;
  }
  if (uSize > uMax && fseeko(pFile.get(), static_cast<off_t>(uSize - uMax), SEEK_SET) != 0)
    return false;
  strData.resize(std::min(uSize, uMax));
  strData.resize(std::fread(strData.data(), 1, strData.size(), pFile.get()));
  return std::ferror(pFile.get()) == 0;
}

bool ListDir(const std::string& strDir, size_t uMax, std::vector<std::string>& listNames) {
  const std::unique_ptr<DIR, int (*)(DIR*)> pDir(opendir(strDir.c_str()), &closedir);
  if (pDir == nullptr)
    return false;
  listNames.clear();
  while (const dirent* pEntry = readdir(pDir.get())) {  // NOLINT(concurrency-mt-unsafe): one thread
    const std::string strName = pEntry->d_name;
    if (strName != "." && strName != ".." && listNames.size() < uMax)
      listNames.push_back(strName);
  }
  std::sort(listNames.begin(), listNames.end());
  return true;
}

}  // namespace zxctl
