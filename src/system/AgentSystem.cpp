#include "system/AgentSystem.h"

#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <system_error>

#include "data/AgentLog.h"
#include "platform/mid/zxmid.h"

namespace {

constexpr size_t kTextBufferBytes = 512;  // ids, link targets and address lines, with the NUL
constexpr size_t kMacMinLength = 12;      // twelve hex digits, with or without separators
constexpr char kNetClassPath[] = "/sys/class/net/";

struct CFileCloser {
  void operator()(FILE* pFile) const { fclose(pFile); }
};
using CFilePtr = std::unique_ptr<FILE, CFileCloser>;

// One text of the machine-id library; its result, and strText only set when that is 0.
int AskMid(int (*pfnAsk)(char*, int), CPString& strText) {
  char szBuffer[kTextBufferBytes] = {};
  const int iGetMid = pfnAsk(szBuffer, static_cast<int>(kTextBufferBytes - 1));
  if (iGetMid == 0)
    strText = szBuffer;
  return iGetMid;
}

// The kernel hangs loopback, bridges and tunnels below devices/virtual.
bool IsVirtualAdapter(const CPString& strAdapter) {
  char szTarget[kTextBufferBytes] = {};
  CPString strTarget = strAdapter;
  if (readlink(strAdapter.c_str(), szTarget, kTextBufferBytes - 1) < 0)
    LogWarn("*zxagent CAgentSystem::GetAllMac readlink Warn[%d] szFile[%s]", errno, strAdapter);
  else
    strTarget = szTarget;
  strTarget.ToLower();
  if (strTarget.Find("/virtual/") == CPString::npos)
    return false;
  LogInfo("zxagent CAgentSystem::GetAllMac find virtual szFile[%s] szData[%s]", strAdapter, strTarget);
  return true;
}

// Appends the address in strFile ("<adapter>/address") when it is one.
void ReadAddress(const CPString& strFile, CPStrList& macList) {
  const CFilePtr pFile(fopen(strFile.c_str(), "re"));
  if (!pFile) {
    LogWarn("*zxagent CAgentSystem::GetAllMac fopen Error[%d] szFile[%s]", errno, strFile);
    return;
  }
  char szData[kTextBufferBytes] = {};
  if (fgets(szData, sizeof(szData), pFile.get()) == nullptr || szData[0] == 0) {
    LogWarn("*zxagent CAgentSystem::GetAllMac fgets szFile[%s] szData[%s]", strFile, szData);
    return;
  }
  CPString strMac = szData;
  strMac.TrimRight('\n');
  strMac.TrimRight('\r');
  if (strMac.GetLength() < kMacMinLength) {
    LogWarn("*zxagent CAgentSystem::GetAllMac  too short strMac[%s] szFile[%s] szData[%s]", strMac, strFile,
            szData);
    return;
  }
  if (strMac == "00:00:00:00:00:00" || strMac == "000000000000") {
    LogWarn("*zxagent CAgentSystem::GetAllMac mac is 0 szFile[%s] szData[%s]", strFile, szData);
    return;
  }
  LogInfo("zxagent CAgentSystem::GetAllMac find mac strMac[%s] szFile[%s]", strMac, strFile);
  macList.AddTail(strMac);
}

}  // namespace

CAgentSystem::CAgentSystem(CPString strSystemRoot) : m_strSystemRoot(std::move(strSystemRoot)) {}

int CAgentSystem::SetMidLogCallback(void (*pfnLog)(zxlog_module, zxlog_level, const char*)) {
  if (pfnLog == nullptr)
    return 0;
  const zxmid_settings settings = {0, pfnLog};
  zxmid_init(&settings);
  return 1;
}

int CAgentSystem::GetSysMid(CPString strMidKey, CPString& strMid1, CPString& strMid2, CPString& strMidSn,
                            CPString& strMidDisk, CPString& strMidMac) {
  LogDetail("zxagent CAgentSystem::GetSysMid start strMidKey[%s]", strMidKey);
  int iGetMid = strMidKey.IsEmpty() ? 0 : zxmid_param(strMidKey.c_str(), 0, 0);
  if (iGetMid != 0)
    return LogError("**zxagent CAgentSystem::GetSysMid zxmid_param Error iGetMid[%d]", iGetMid);
  if ((iGetMid = AskMid(&mid, strMid1)) != 0)
    return LogError("**zxagent CAgentSystem::GetSysMid mid1 Error iGetMid[%d]", iGetMid);
  if ((iGetMid = AskMid(&mid2, strMid2)) != 0)
    return LogError("**zxagent CAgentSystem::GetSysMid mid2 Error iGetMid[%d]", iGetMid);
  if ((iGetMid = AskMid(&zxmid_getmid2sn, strMidSn)) != 0)
    return LogError("**zxagent CAgentSystem::GetSysMid mid2sn Error iGetMid[%d]", iGetMid);
  if ((iGetMid = AskMid(&zxmid_getmid2disk, strMidDisk)) != 0)
    return LogError("**zxagent CAgentSystem::GetSysMid mid2disk Error iGetMid[%d]", iGetMid);
  if ((iGetMid = AskMid(&zxmid_getmid2mac, strMidMac)) != 0)
    return LogError("**zxagent CAgentSystem::GetSysMid mid2mac Error iGetMid[%d]", iGetMid);
  LogInfo(
      "zxagent CAgentSystem::GetSysMid frommid mid1[%s] mid2[%s] strMidSn[%s] strMidDisk[%s] strMidMac[%s] strMidKey[%s]",
      strMid1, strMid2, strMidSn, strMidDisk, strMidMac, strMidKey);
  return 1;
}

int CAgentSystem::GetAllMac(CPStrList& macList) {
  int iRet = 0;
  const CPString strNet = m_strSystemRoot + kNetClassPath;
  std::error_code ec;
  std::filesystem::directory_iterator it(strNet.Str(), ec);
  if (ec) {
    LogWarn("*zxagent CAgentSystem::GetAllMac opendir Error[%d]", ec.value());
  } else {
    for (; !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
      const CPString strAdapter = strNet + it->path().filename().string();
      if (!IsVirtualAdapter(strAdapter))
        ReadAddress(strAdapter + "/address", macList);
    }
    iRet = macList.IsEmpty() ? 0 : 1;
  }
  LogInfo("zxagent CAgentSystem::GetAllMac strAllMac[%s]", macList.ToString(","));
  return iRet;
}
