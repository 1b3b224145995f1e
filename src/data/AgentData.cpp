#include "data/AgentData.h"

#include <cerrno>
#include <cstdio>
#include <utility>

#include "data/AgentLog.h"
#include "data/AgentTools.h"
#include "platform/os/ZxFile.h"

namespace {

constexpr int kDirMode = 0755;

}  // namespace

CAgentData::CAgentData(CPString strSystemRoot) : m_strSystemRoot(std::move(strSystemRoot)) {}

CAgentData::~CAgentData() = default;

int CAgentData::Init(CPString strHomePath) {
  if (strHomePath.IsEmpty())
    return LogWarn("*zxagent CAgentData::Init Error strHomePath is empty");
  m_strHomePath = std::move(strHomePath);
  m_strConfPath = m_strHomePath + "etc/zxagent/";
  m_strConfInnerPath = m_strHomePath + "etc/zxagent/inner/";
  // Without its directories the agent still runs; every later save fails and says so.
  if (!CAgentTools::CreateDirectory(m_strConfPath, kDirMode))
    LogWarn("*zxagent CAgentData::Init Error CreateDirectory m_strConfPath[%s] Error[%d]", m_strConfPath,
            errno);
  if (!CAgentTools::CreateDirectory(m_strConfInnerPath, kDirMode))
    LogWarn("*zxagent CAgentData::Init Error CreateDirectory m_strConfInnerPath[%s] Error[%d]",
            m_strConfInnerPath, errno);
  LogInfo("zxagent CAgentData::Init m_strHomePath[%s] m_strConfPath[%s] m_strConfInnerPath[%s]\n",
          m_strHomePath, m_strConfPath, m_strConfInnerPath);

  m_AgentInterface.Init(m_strHomePath);
  GetVersionXml();

  CPString strPcidData;
  if (ReadPcidData(strPcidData)) {
    const uint32_t iRet = SetPcidData(strPcidData, 0);
    if (iRet != 0)
      LogWarn("*zxagent CAgentData::Init SetPcidData Error[%d] iRet[%x]", errno, iRet);
  } else {
    LogWarn("*zxagent CAgentData::Init ReadPcidData Warn[%d]", errno);
  }
  ReLoadCommandGuid();
  ReadZxCloudData();
  LogInfo("zxagent CAgentData::Init OK");
  return 1;
}

int CAgentData::Uninit() {
  m_AgentInterface.Uninit();
  CleanPcidData();
  {
    CCritLock lock(m_csRoute);
    m_commandRouteMap.clear();
    m_productComboToGuidMap.clear();
    m_guidToProductComboMap.clear();
  }
  LogInfo("zxagent CAgentData::Uninit OK");
  return 1;
}

int CAgentData::MyMoveFile(const CPString& strSrcFile, const CPString& strDstFile) {
  const int iRet = ZxSyncedRename(strSrcFile, strDstFile) ? 0 : -1;
  if (iRet == 0)
    return 1;
  LogWarn("*zxagent CAgentData::MyMoveFile Error rename iRet[%d][%d] strSrcFile[%s] strDstFile[%s]", iRet,
          errno, strSrcFile, strDstFile);
  if (!ZxCopyFile(strSrcFile, strDstFile, 0))
    return LogWarn("*zxagent CAgentData::MyMoveFile Error ZxCopyFile Error[%d] strSrcFile[%s] strDstFile[%s]",
                   errno, strSrcFile, strDstFile);
  const int iRemove = std::remove(strSrcFile.c_str());
  if (iRemove != 0)
    LogWarn("*zxagent CAgentData::MyMoveFile Error remove iRet[%d][%d] strSrcFile[%s]", iRemove, errno,
            strSrcFile);
  return 1;  // the target holds the new content, which is what counts
}
