#include "HomeLogs.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>

namespace zxctl {

namespace {

constexpr size_t kMaxNames = 2000;
constexpr char kLogDir[] = "log/";

// Sorted; false with errno set.
bool Names(const std::string& strDir, std::vector<std::string>& listNames) {
  const std::unique_ptr<DIR, int (*)(DIR*)> pDir(opendir(strDir.c_str()), &closedir);
  if (pDir == nullptr)
    return false;
  while (const dirent* pEntry = readdir(pDir.get())) {  // NOLINT(concurrency-mt-unsafe): one thread
    if (pEntry->d_name[0] != '.' && listNames.size() < kMaxNames)
      listNames.emplace_back(pEntry->d_name);
  }
  std::sort(listNames.begin(), listNames.end());
  return true;
}

}  // namespace

std::vector<std::string> LogFolders(const std::string& strHome) {
  std::vector<std::string> listNames;
  if (!Names(strHome + "/" + kLogDir, listNames))
    return {};
  std::vector<std::string> listFolders{kLogDir};
  for (const std::string& strName : listNames) {
    struct stat st {};
    const std::string strFolder = kLogDir + strName + "/";
    if (stat((strHome + "/" + strFolder).c_str(), &st) == 0 && S_ISDIR(st.st_mode))
      listFolders.push_back(strFolder);
  }
  return listFolders;
}

std::vector<std::string> LogFiles(const std::string& strHome) {
  std::vector<std::string> listFiles;
  for (const std::string& strFolder : LogFolders(strHome)) {
    std::vector<std::string> listNames;
    (void)Names(strHome + "/" + strFolder, listNames);
    for (const std::string& strName : listNames) {
      if (strName.find(".log") != std::string::npos)
        listFiles.push_back(strFolder + strName);
    }
  }
  return listFiles;
}

std::string LogChannel(const std::string& strName) {
  const std::string strFile = strName.substr(strName.rfind('/') + 1);
  return strFile.substr(0, strFile.find('.'));
}

bool IsOwnLogFolder(const std::string& strName) {
  return strName.rfind('/') >= sizeof(kLogDir) - 1;
}

}  // namespace zxctl
