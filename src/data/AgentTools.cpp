#include "data/AgentTools.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "data/AgentLog.h"
#include "platform/os/ZxModule.h"

namespace {

constexpr char kModuleMark = 0;              // an address inside this library
constexpr size_t kModulePathCapacity = 512;  // bytes, with the NUL
constexpr size_t kFileNameMax = 255;         // NAME_MAX of every file system the agent runs on

}  // namespace

CPString CAgentTools::GetHomePath() {
  char szPath[kModulePathCapacity] = {};
  if (!ZxGetModuleFilePath(&kModuleMark, szPath, kModulePathCapacity - 1)) {
    LogWarn("*zxagent CAgentTools::GetHomePath Error GetModuleFilePath Error[%d]", errno);
    return CPString();
  }
  return HomeOfModulePath(szPath);
}

CPString CAgentTools::HomeOfModulePath(const CPString& strModulePath) {
  const size_t uSlash = strModulePath.ReverseFind('/');
  if (uSlash == CPString::npos)
    return strModulePath + "/";
  return strModulePath.Left(uSlash + 1);
}

int CAgentTools::CreateDirectory(CPString strPath, int iMode) {
  // Also bounds the recursion: a longer path cannot exist.
  if (strPath.GetLength() >= PATH_MAX) {
    errno = ENAMETOOLONG;
    return 0;
  }
  strPath.TrimRight('/');
  if (strPath.IsEmpty()) {
    errno = ENOENT;
    return 0;
  }
  const mode_t mode = static_cast<mode_t>(iMode);
  if (access(strPath.c_str(), F_OK) == 0) {
    chmod(strPath.c_str(), mode);
    return 1;
  }
  const size_t uSlash = strPath.ReverseFind('/');
  if (uSlash == CPString::npos)
    return 0;
  if (!CreateDirectory(strPath.Left(uSlash), iMode))
    return 0;
  const int iRet = mkdir(strPath.c_str(), mode);
  const int iError = errno;
  chmod(strPath.c_str(), mode);  // the umask may have taken bits away
  // Another thread may have made it meanwhile.
  const bool bThere = iRet == 0 || (iError == EEXIST && access(strPath.c_str(), F_OK) == 0);
  errno = iError;
  return bThere ? 1 : 0;
}

bool CAgentTools::IsFileName(const CPString& strName) {
  if (strName.IsEmpty() || strName.GetLength() > kFileNameMax || strName == "." || strName == "..")
    return false;
  return strName.View().find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

CPString CAgentTools::RefusedText(const CPString& strData) {
  if (strData.GetLength() <= kRefusedTextMax)
    return strData;
  return CPString::Make("(%zu bytes)", strData.GetLength());
}
