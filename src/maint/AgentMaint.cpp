#include "maint/AgentMaint.h"

#include <dirent.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <utility>

#include "data/AgentHub.h"
#include "data/AgentLog.h"
#include "data/AgentThreads.h"
#include "data/AgentTools.h"
#include "platform/os/ZxFile.h"
#include "platform/os/ZxThread.h"

namespace {

constexpr int kDirMode = 0755;
constexpr int kScanSeconds = 10;
constexpr uint32_t kSecondMs = 1000;
constexpr int kStopPasses = 200;
constexpr uint32_t kStopPassMs = 300;

// States of the reader.
constexpr int kReadNotBegun = -1;
constexpr int kReadStop = 0;
constexpr int kReadRunning = 1;
constexpr int kReadEnded = 2;

// Keeps a text one word inside double quotes of the shell.
CPString ShellQuoted(const CPString& str) {
  CPString strQuoted;
  for (const char ch : str.View()) {
    if (ch == '"' || ch == '$' || ch == '`' || ch == '\\')
      strQuoted += '\\';
    strQuoted += ch;
  }
  return strQuoted;
}

CPString ErrorText(int iError) {
  char szBuffer[128] = {};
  return CPString(strerror_r(iError, szBuffer, sizeof(szBuffer)));
}

}  // namespace

CAgentMaint::CAgentMaint(TSleepMs fnSleepMs) : m_fnSleepMs(std::move(fnSleepMs)) {}

void CAgentMaint::SleepMs(uint32_t dwMs) {
  timespec ts{static_cast<time_t>(dwMs / 1000), static_cast<long>(dwMs % 1000) * 1000000};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

int CAgentMaint::Init(CPString strHomePath) {
  {
    const CCritLock lock(m_csStatus);
    m_bClosed = false;
  }
  if (strHomePath.IsEmpty()) {
    LogWarn("*zxagent CAgentMaint::Init Error strHomePath is empty");
    LogInfo("zxagent CAgentMaint::Init End");
    return 0;
  }
  m_strPath = strHomePath;
  const CPString strPath = m_strPath + "data/zxpmaint/";
  m_strPolicyFilePath = strPath + "policyfile";
  m_strPolicyProcessPath = strPath + "policyprocess";
  m_strResultPath = strPath + "result";
  if (CAgentTools::CreateDirectory(strPath, kDirMode) == 0)
    LogWarn("*zxagent CAgentMaint::Init Error CreateDirectory strPath[%s] Error[%d]", strPath, errno);
  if (CAgentTools::CreateDirectory(m_strPolicyFilePath, kDirMode) == 0)
    LogWarn("*zxagent CAgentMaint::Init Error CreateDirectory m_strPolicyFilePath[%s] Error[%d]",
            m_strPolicyFilePath, errno);
  if (CAgentTools::CreateDirectory(m_strPolicyProcessPath, kDirMode) == 0)
    LogWarn("*zxagent CAgentMaint::Init Error CreateDirectory m_strPolicyProcessPath[%s] Error[%d]",
            m_strPolicyProcessPath, errno);
  if (CAgentTools::CreateDirectory(m_strResultPath, kDirMode) == 0)
    LogWarn("*zxagent CAgentMaint::Init Error CreateDirectory m_strResultPath[%s] Error[%d]", m_strResultPath,
            errno);
  LogInfo(
      "zxagent CAgentMaint::Init m_strPath[%s] m_strPolicyFilePath[%s] m_strPolicyProcessPath[%s] m_strResultPath[%s]",
      m_strPath, m_strPolicyFilePath, m_strPolicyProcessPath, m_strResultPath);
  LogInfo("zxagent CAgentMaint::Init End");
  return 1;
}

int CAgentMaint::ForwardMsg(unsigned long long u64DataId, const CPString& strCombo, const CPString& strID,
                            const char* lpszMsg) {
  if (strCombo.CompareNoCase("RunScriptNormal") == 0) {
    LogInfo("zxagent CAgentMaint::ForwardMsg strCombo is RunScriptNormal u64DataId[%llx] strID[%s]",
            u64DataId, strID);
    return 0;
  }
  return DisposeMaintMsg(u64DataId, strCombo, strID, lpszMsg);
}

int CAgentMaint::DisposeMaintMsg(unsigned long long u64DataId, const CPString& strCommand,
                                 const CPString& strID, const char* lpszMsg) {
  if (lpszMsg == nullptr || lpszMsg[0] == 0)
    return LogWarn(
        "*zxagent CAgentMaint::DisposeMaintMsg lpszMsg is NULL u64DataId[%llx] strCommand[%s] strID[%s]",
        u64DataId, strCommand, strID);
  const bool bProcess = strCommand.CompareNoCase("RunScriptProcess") == 0;
  if (!bProcess && strCommand.CompareNoCase("RunScriptFile") != 0)
    return LogWarn("*zxagent CAgentMaint::DisposeMaintMsg unknown u64DataId[%llx] strCommand[%s] strID[%s]",
                   u64DataId, strCommand, strID);

  const CPString strFile = (bProcess ? m_strPolicyProcessPath : m_strPolicyFilePath) + "/" + strID + ".json";
  if (!SpoolCommand(u64DataId, strCommand, strID, lpszMsg, strFile))
    return 0;
  m_gaugeUnderWay.Add(1);
  StartReader();
  LogInfo(
      "zxagent CAgentMaint::DisposeMaintMsg OK u64DataId[%llx] strCommand[%s] strID[%s] strFile[%s] lpszMsg[%s]",
      u64DataId, strCommand, strID, strFile, lpszMsg);
  if (bProcess)
    StartTool(u64DataId, strID);
  return 1;
}

bool CAgentMaint::SpoolCommand(unsigned long long u64DataId, const CPString& strCommand,
                               const CPString& strID, const char* lpszMsg, const CPString& strFile) {
  errno = EINVAL;  // an id that may not become a file name
  const bool bName = CAgentTools::IsFileName(strID) && CAgentTools::IsFileName(strID + ".json");
  FILE* pFile = bName ? std::fopen(strFile.c_str(), "wbe") : nullptr;
  if (pFile == nullptr) {
    const int iError = errno;
    LogWarn(
        "*zxagent CAgentMaint::DisposeMaintMsg fopen error[%d][%s] u64DataId[%llx] strCommand[%s] strID[%s] strFile[%s]",
        iError, ErrorText(iError), u64DataId, strCommand, strID, strFile);
    return false;
  }
  // Unbuffered, so that a full disk shows in the write and not in the close.
  (void)std::setvbuf(pFile, nullptr, _IONBF, 0);
  const size_t uLength = std::strlen(lpszMsg);
  const size_t uWritten = std::fwrite(lpszMsg, 1, uLength, pFile);
  const int iError = errno;
  (void)std::fclose(pFile);
  if (uWritten != uLength) {
    LogWarn(
        "*zxagent CAgentMaint::DisposeMaintMsg fwrite error[%d][%s] dwLength[%d] dwWriteLength[%d] u64DataId[%llx] strCommand[%s] strID[%s] strFile[%s]",
        iError, ErrorText(iError), static_cast<uint32_t>(uLength), static_cast<uint32_t>(uWritten), u64DataId,
        strCommand, strID, strFile);
    return false;
  }
  return true;
}

// Created under the lock, so that the id stands before anybody can stop the thread by it. A script that comes
// while the agent stops is spooled, and its result waits for the next start.
void CAgentMaint::StartReader() {
  const CCritLock lock(m_csStatus);
  if (m_hThreadReadId != 0 || m_bClosed)
    return;
  m_iReadStatus = kReadNotBegun;
  pthread_t hThreadId = 0;
  if (AgentThreads().Create(&hThreadId, &CAgentMaint::ReadResultThread, this) == 0)
    m_hThreadReadId = hThreadId;
}

void CAgentMaint::StartTool(unsigned long long u64DataId, const CPString& strID) {
  const CPString strCmd =
      CPString::Make("%sbin/zxpmaint \"%s.json\" &", m_strPath.c_str(), ShellQuoted(strID).c_str());
  const int iRet = system(
      strCmd.c_str());  // NOLINT(concurrency-mt-unsafe) the shell only starts the tool in the background
  LogInfo("zxagent CAgentMaint::DisposeMaintMsg CreateProcess iRet[%d] u64DataId[%llx] strCmd[%s] strID[%s]",
          iRet, u64DataId, strCmd, strID);
}

int CAgentMaint::GetPolicyFileList(const char* pszPath, CPStrList& list) {
  if (pszPath == nullptr || pszPath[0] == 0)
    return 0;
  DIR* pDir = opendir(pszPath);
  if (pDir == nullptr)
    return 0;
  constexpr std::string_view kSuffix = ".json";
  // One reader per DIR stream, so readdir is safe here.
  while (const dirent* pEntry = readdir(pDir)) {  // NOLINT(concurrency-mt-unsafe)
    const std::string_view name = pEntry->d_name;
    if (name.size() < kSuffix.size() || name.substr(name.size() - kSuffix.size()) != kSuffix)
      continue;
    const CPString strFile = CPString::Make("%s/%s", pszPath, pEntry->d_name);
    if (!ZxIsDirectoryOrLink(strFile, pEntry->d_type))
      list.AddTail(strFile);
  }
  closedir(pDir);
  return 1;
}

void* CAgentMaint::ReadResultThread(void* pThis) {
  pthread_detach(pthread_self());
  auto* pMaint = static_cast<CAgentMaint*>(pThis);
  if (pMaint == nullptr) {
    LogError("**zxagent CAgentLogMsg::ReadResultThread pThis is NULL");
    return nullptr;
  }
  ZxSetThreadName("zxagentmaint");
  {
    const CCritLock lock(pMaint->m_csStatus);
    if (pMaint->m_iReadStatus != kReadStop)  // asked to stop before it began
      pMaint->m_iReadStatus = kReadRunning;
  }
  if (AgentHub() == nullptr) {
    pMaint->SetStatus(kReadEnded);
    LogError("**zxagent CAgentLogMsg::ReadResultThread pAgentMagr is NULL");
    return nullptr;
  }
  pMaint->ReadLoop();
  pMaint->SetStatus(kReadEnded);
  return nullptr;
}

void CAgentMaint::ReadLoop() {
  unsigned long long u64DataId = 0;
  while (Status() == kReadRunning) {
    try {
      UploadResults(u64DataId);
    } catch (const std::exception& e) {
      LogError("**zxagent CAgentMaint::ReadResultThread Error what[%s] u64DataId[%llx]", e.what(), u64DataId);
    }
    for (int i = 0; i < kScanSeconds && Status() == kReadRunning; ++i)
      m_fnSleepMs(kSecondMs);
  }
}

void CAgentMaint::UploadResults(unsigned long long& u64DataId) {
  CPStrList list;
  GetPolicyFileList(m_strResultPath.c_str(), list);
  for (const CPString& strFullPath : list) {
    LogInfo("zxagent CAgentMaint::ReadResultThread strFullPath[%s]", strFullPath);
    CPString strResult;
    if (!ZxReadFileText(strFullPath, strResult))
      continue;  // stays, and is tried again with the next scan
    IAgentHub* pHub = AgentHub();
    if (pHub == nullptr)
      return;
    pHub->ZxcloudSendMsg(++u64DataId, "veltcwpp", "zxpmaint", 1, 2, strResult);
    (void)remove(strFullPath.c_str());  // whatever the send returned
    if (m_gaugeUnderWay.Value() > 0)    // a result of an earlier run takes nothing off
      m_gaugeUnderWay.Add(-1);
  }
}

int CAgentMaint::Uninit() {
  LogInfo("zxagent CAgentMaint::Uninit Begin");
  bool bReader = false;
  {
    const CCritLock lock(m_csStatus);
    m_bClosed = true;
    if (m_iReadStatus != kReadEnded)
      m_iReadStatus = kReadStop;
    bReader = m_hThreadReadId != 0;
  }
  if (bReader)
    EndReader();
  LogInfo("zxagent CAgentMaint::Uninit End");
  return 1;
}

// The reader writes "ended" itself under the lock, so one that is cancelled here, under the same lock, still
// exists.
void CAgentMaint::EndReader() {
  for (int iPass = 0; iPass < kStopPasses && Status() != kReadEnded; ++iPass)
    m_fnSleepMs(kStopPassMs);
  pthread_t hCancelled = 0;
  {
    const CCritLock lock(m_csStatus);
    if (m_iReadStatus != kReadEnded) {
      hCancelled = m_hThreadReadId;
      pthread_cancel(hCancelled);
    }
    m_hThreadReadId = 0;
  }
  if (hCancelled != 0)
    LogWarn("*zxagent CAgentMaint::Uninit Warn thread need kill work threadid[%llu]", hCancelled);
}

int CAgentMaint::Status() {
  const CCritLock lock(m_csStatus);
  return m_iReadStatus;
}

void CAgentMaint::SetStatus(int iStatus) {
  const CCritLock lock(m_csStatus);
  m_iReadStatus = iStatus;
}
