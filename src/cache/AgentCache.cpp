#include "cache/AgentCache.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "data/AgentLog.h"
#include "data/AgentTools.h"
#include "platform/doc/PJsonParse.h"
#include "platform/os/ZxFile.h"

namespace {

constexpr int kDirMode = 0755;
constexpr char kVerdict[] = "Result_Agent_Taskmgr";

// The verdict is replaced where the document already holds one, so that a document has exactly one.
int SetVerdict(zxtools::CPJsonParse& json, int bResult) {
  if (json.GetNode(kVerdict) != nullptr)
    return json.ReplaceNodeBool(nullptr, kVerdict, bResult);
  return json.AddNodeBool(nullptr, kVerdict, bResult);
}

// Whether texts from outside may become the two path components of a copy: the combo's directory and the file
// in it. What is put between and behind them counts too.
bool AreFileNames(const CPString& strProduct, const CPString& strCombo, const CPString& strCommand) {
  return CAgentTools::IsFileName(strProduct) && CAgentTools::IsFileName(strCombo) &&
         CAgentTools::IsFileName(strCommand) && CAgentTools::IsFileName(strProduct + "_" + strCombo);
}

CPString ErrorText(int iError) {
  char szBuffer[128] = {};
  return CPString(strerror_r(iError, szBuffer, sizeof(szBuffer)));
}

}  // namespace

int CAgentCache::Init(CPString strHomePath) {
  if (strHomePath.IsEmpty())
    return LogWarn("*zxagent CAgentCache::Init Error strHomePath is empty");
  m_strPath = strHomePath;
  LogInfo("zxagent CAgentCache::Init m_strPath[%s]", m_strPath);
  LoadTaskConf();
  return 1;
}

CPString CAgentCache::PolicyFile(const CPString& strProduct, const CPString& strCombo,
                                 const CPString& strCommand) const {
  if (!AreFileNames(strProduct, strCombo, strCommand) || !CAgentTools::IsFileName(strCommand + ".json"))
    return CPString();
  return CPString::Make("%sdata/policy/agentcache/%s_%s/policy/%s.json", m_strPath.c_str(),
                        strProduct.c_str(), strCombo.c_str(), strCommand.c_str());
}

CPString CAgentCache::TaskDirectory(const CPString& strProduct, const CPString& strCombo) const {
  return CPString::Make("%sdata/policy/agentcache/%s_%s/task/", m_strPath.c_str(), strProduct.c_str(),
                        strCombo.c_str());
}

CPString CAgentCache::TaskFile(const CPString& strProduct, const CPString& strCombo,
                               const CPString& strCommand, const CPString& strID) const {
  if (!AreFileNames(strProduct, strCombo, strCommand) || !CAgentTools::IsFileName(strID) ||
      !CAgentTools::IsFileName(strCommand + "_" + strID + ".json"))
    return CPString();
  return CPString::Make("%s%s_%s.json", TaskDirectory(strProduct, strCombo).c_str(), strCommand.c_str(),
                        strID.c_str());
}

int CAgentCache::SavePolicyFile(unsigned long long u64DataId, const CPString& strID,
                                const CPString& strProduct, const CPString& strCombo,
                                const CPString& strCommand, const char* lpszMsg, int bResult) {
  if (strID.IsEmpty())
    return LogWarn("*zxagent CAgentCache::SavePolicyCache Error strID is empty u64DataId[%llx]", u64DataId);
  if (lpszMsg == nullptr || lpszMsg[0] == 0)
    return LogWarn("*zxagent CAgentCache::SavePolicyCache Error lpszMsg is empty u64DataId[%llx]", u64DataId);
  if (strProduct.IsEmpty() || strCombo.IsEmpty() || strCommand.IsEmpty())
    return LogWarn(
        "*zxagent CAgentCache::SavePolicyCache Error empty u64DataId[%llx] strProduct[%s] strCombo[%s] strCommand[%s]",
        u64DataId, strProduct, strCombo, strCommand);

  zxtools::CPJsonParse json;
  CPString strJson;
  if (json.LoadBuffer(lpszMsg) == 0 || SetVerdict(json, bResult) == 0 ||
      json.GetJsonStr(strJson, true) == 0) {
    const int iError = errno;
    return LogWarn("*zxagent CAgentCache::SavePolicyCache LoadBuffer error[%d][%s] lpszMsg[%s]", iError,
                   ErrorText(iError), CAgentTools::RefusedText(lpszMsg));
  }
  unsigned int uiSaveCount = 0;
  if (FindTaskConf(strProduct, strCombo, strCommand, uiSaveCount) != 0)
    SaveTaskCache(strID, strProduct, strCombo, strCommand, strJson, uiSaveCount);
  else
    SaveFileCache(PolicyFile(strProduct, strCombo, strCommand), strJson);
  return 1;
}

int CAgentCache::UpdatePolicyCache(unsigned long long u64DataId, const CPString& strID,
                                   const CPString& strProduct, const CPString& strCombo,
                                   const CPString& strCommand, int bResult) {
  if (strID.IsEmpty())
    return LogWarn("*zxagent CAgentCache::UpdatePolicyCache Error strID is empty u64DataId[%llx]", u64DataId);
  if (strProduct.IsEmpty() || strCombo.IsEmpty() || strCommand.IsEmpty())
    return LogWarn(
        "*zxagent CAgentCache::UpdatePolicyCache Error empty u64DataId[%llx] strProduct[%s] strCombo[%s] strCommand[%s]",
        u64DataId, strProduct, strCombo, strCommand);
  if (strCommand.CompareNoCase("assetCollection") == 0)
    return 1;

  unsigned int uiSaveCount = 0;
  const bool bTask = FindTaskConf(strProduct, strCombo, strCommand, uiSaveCount) != 0;
  const CPString strPath = bTask ? TaskFile(strProduct, strCombo, strCommand, strID)
                                 : PolicyFile(strProduct, strCombo, strCommand);
  zxtools::CPJsonParse json;
  CPString strJson;
  errno = strPath.IsEmpty() ? EINVAL : 0;
  if (strPath.IsEmpty() || json.LoadFile(strPath) == 0 || SetVerdict(json, bResult) == 0 ||
      json.GetJsonStr(strJson, true) == 0) {
    const int iError = errno;
    return LogWarn("*zxagent CAgentCache::UpdatePolicyCache LoadBuffer error[%d][%s] strPath[%s]", iError,
                   ErrorText(iError), strPath);
  }
  if (!ZxSaveFileData(strPath, strJson)) {
    const int iError = errno;
    return LogWarn(
        "*zxagent CAgentCache::UpdatePolicyCache ZxSaveFileData error[%d][%s] strPath[%s] strJsonFormat[%s]",
        iError, ErrorText(iError), strPath, strJson);
  }
  LogInfo("zxagent CAgentCache::UpdatePolicyCache ZxSaveFileData strPath[%s] bSuccess[%d]", strPath, bResult);
  return 1;
}

int CAgentCache::SaveTaskCache(const CPString& strID, const CPString& strProduct, const CPString& strCombo,
                               const CPString& strCommand, const CPString& strJson,
                               unsigned int uiSaveCount) {
  const CPString strFile = TaskFile(strProduct, strCombo, strCommand, strID);
  if (strFile.IsEmpty())
    return SaveFileCache(strFile, strJson);  // refuses and says so, without rotating anything out
  CPStrList list;
  GetCacheFileList(TaskDirectory(strProduct, strCombo).c_str(), list);
  if (uiSaveCount <= list.GetCount()) {
    CPString strEarly;
    GetEarlyFileName(list, strEarly);
    if (!strEarly.IsEmpty())
      (void)remove(strEarly.c_str());
  }
  return SaveFileCache(strFile, strJson);
}

int CAgentCache::SaveFileCache(const CPString& strFile, const CPString& strJson) {
  bool bSaved = false;
  errno = EINVAL;  // the texts of an empty name may not become a file
  if (!strFile.IsEmpty()) {
    const size_t uSlash = strFile.ReverseFind('/');
    const CPString strPath = uSlash == CPString::npos ? strFile : strFile.Left(uSlash);
    if (CAgentTools::CreateDirectory(strPath, kDirMode) == 0)
      LogWarn("*zxagent CAgentCache::SaveFileCache Error CreateDirectory strPath[%s] Error[%d]", strPath,
              errno);
    bSaved = ZxSaveFileData(strFile, strJson);
  }
  if (!bSaved) {
    const int iError = errno;
    return LogWarn(
        "*zxagent CAgentCache::SaveFileCache ZxSaveFileData error[%d][%s] strFile[%s] strFomatJson[%s]",
        iError, ErrorText(iError), strFile, strJson);
  }
  LogInfo("zxagent CAgentCache::SaveFileCache ZxSaveFileData OK strFile[%s]", strFile);
  return 1;
}

int CAgentCache::GetCacheFileList(const char* pszPath, CPStrList& list) {
  if (pszPath == nullptr || pszPath[0] == 0)
    return 0;
  DIR* pDir = opendir(pszPath);
  if (pDir == nullptr)
    return 0;
  // One reader per DIR stream, so readdir is safe here.
  while (const dirent* pEntry = readdir(pDir)) {  // NOLINT(concurrency-mt-unsafe)
    const char* pszName = pEntry->d_name;
    if (pszName[0] == 0 || std::strcmp(pszName, ".") == 0 || std::strcmp(pszName, "..") == 0)
      continue;
    const CPString strFile = CPString::Make("%s/%s", pszPath, pszName);
    if (!ZxIsDirectoryOrLink(strFile, pEntry->d_type))
      list.AddTail(strFile);
  }
  closedir(pDir);
  return 1;
}

int CAgentCache::GetEarlyFileName(const CPStrList& list, CPString& strName) {
  uint32_t dwKept = 0;
  strName.Empty();
  for (const CPString& strFile : list) {
    struct stat status {};
    const uint32_t dwTime = stat(strFile.c_str(), &status) == 0 ? static_cast<uint32_t>(status.st_mtime) : 0;
    // A kept time of 0 counts as none, so the next name replaces it.
    if (strName.IsEmpty() || dwKept == 0 || dwTime < dwKept) {
      strName = strFile;
      dwKept = dwTime;
    }
  }
  return 1;
}
