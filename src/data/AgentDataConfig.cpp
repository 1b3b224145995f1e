// Installation description, edition tests, and the merge of the deployed configuration into the working copy.
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "data/AgentData.h"
#include "data/AgentDataJson.h"
#include "data/AgentLog.h"
#include "platform/doc/PXmlParse.h"
#include "platform/os/ZxFile.h"
#include "system/AgentSystem.h"

using zxtools::CPJsonParse;
using zxtools::CPXmlParse;
using zxtools::HJsonNode;
using zxtools::HXmlNode;

namespace {

constexpr char kPersonalAppId[] = "com.tamber.veltsafe";
constexpr char kMergedName[] = "zxagent";  // entry of cacheattribute.json for the deployed configuration
constexpr int kPlatDesktop = 5;
constexpr int kPlatNation = 6;
constexpr int kPlatServer = 2;

bool XmlText(const CPXmlParse& xml, HXmlNode hParent, const char* pszName, CPString& strValue) {
  const HXmlNode hNode = xml.GetNode(hParent, pszName);
  return hNode != nullptr && CPXmlParse::GetValue(hNode, strValue) != 0;
}

void XmlDword(const CPXmlParse& xml, HXmlNode hParent, const char* pszName, unsigned int& dwValue) {
  CPString strValue;
  if (!XmlText(xml, hParent, pszName, strValue))
    return;
  const long long llValue = std::strtoll(strValue.c_str(), nullptr, 10);
  if (llValue < 0)
    dwValue = 0;
  else if (llValue > std::numeric_limits<unsigned int>::max())
    dwValue = std::numeric_limits<unsigned int>::max();
  else
    dwValue = static_cast<unsigned int>(llValue);
}

// A JSON number as an unsigned integer. The range is checked first: converting a double from outside it is
// undefined.
template <class T>
bool JsonUnsigned(const CPJsonParse& json, HJsonNode hParent, const char* pszName, T& value) {
  const HJsonNode hNode = json.GetNode(hParent, pszName);
  double dValue = 0;
  if (hNode == nullptr || !CPJsonParse::GetDoubleValue(hNode, dValue))
    return false;
  const double dEnd = std::ldexp(1.0, std::numeric_limits<T>::digits);
  if (!(dValue > 0))
    value = 0;
  else if (dValue >= dEnd)
    value = std::numeric_limits<T>::max();
  else
    value = static_cast<T>(dValue);
  return true;
}

}  // namespace

int CAgentData::GetVersionXml() {
  const CPString strFile = m_strHomePath + "etc/version.xml";
  CPXmlParse xml;
  if (!xml.LoadFile(strFile))
    return LogWarn("*zxagent CAgentData::GetVersionXml Error LoadFile File[%s]", strFile);
  HXmlNode hConfig = xml.GetNode(nullptr, "Config");
  if (hConfig == nullptr && xml.GetRoot() != nullptr)
    hConfig = xml.GetNode(xml.GetRoot(), "Config");
  if (hConfig == nullptr)
    return LogWarn("*zxagent CAgentData::GetVersionXml Error GetNode Config File[%s]", strFile);

  _VersionXml& v = m_VersionXml;
  if (!XmlText(xml, hConfig, "CurrentVer", v.strCurrentVer))
    LogWarn("*zxagent CAgentData::GetVersionXml Error CurrentVer Config File[%s]", strFile);
  if (!XmlText(xml, hConfig, "SystemName", v.strSystemName))
    LogWarn("*zxagent CAgentData::GetVersionXml Error SystemName Config File[%s]", strFile);
  XmlText(xml, hConfig, "AppId", v.strAppId);
  XmlText(xml, hConfig, "Arch", v.strArch);
  XmlText(xml, hConfig, "PkgType", v.strPkgType);
  XmlText(xml, hConfig, "PkgEnv", v.strPkgEnv);
  XmlText(xml, hConfig, "CloudProduct", v.strCloudProduct);
  XmlText(xml, hConfig, "CloudCombo", v.strCloudCombo);
  XmlText(xml, hConfig, "UpdateRootDir", v.strUpdateRootDir);
  XmlText(xml, hConfig, "UpdateTempDir", v.strUpdateTempDir);
  XmlText(xml, hConfig, "UpdateUrl", v.strUpdateUrl);
  XmlDword(xml, hConfig, "UpdateIniTimeout", v.dwUpdateIniTimeout);
  XmlDword(xml, hConfig, "UpdateOtherTimeout", v.dwUpdateOtherTimeout);
  LogDetail(
      "zxagent CAgentData::GetVersionXml strCurrentVer[%s] strSystemName[%s] strAppId[%s] strArch[%s] strPkgType[%s] strPkgEnv[%s] strCloudProduct[%s] strCloudCombo[%s] strUpdateRootDir[%s] strUpdateTempDir[%s] strUpdateUrl[%s] dwUpdateIniTimeout[%u] dwUpdateOtherTimeout[%u]",
      v.strCurrentVer, v.strSystemName, v.strAppId, v.strArch, v.strPkgType, v.strPkgEnv, v.strCloudProduct,
      v.strCloudCombo, v.strUpdateRootDir, v.strUpdateTempDir, v.strUpdateUrl, v.dwUpdateIniTimeout,
      v.dwUpdateOtherTimeout);
  return 1;
}

int CAgentData::IsPersonalEdition() const {
  return m_VersionXml.strAppId.CompareNoCase(kPersonalAppId) == 0 ? 1 : 0;
}

int CAgentData::IsDesktopSystem() const {
  return m_VersionXml.strSystemName.CompareNoCase("desktop") == 0 ? 1 : 0;
}

int CAgentData::GetPlatId() {
  int iPlatId = kPlatServer;
  if (IsDesktopSystem())
    iPlatId = kPlatDesktop;
  else if (CAgentSystem(m_strSystemRoot).IsNationSystem())
    iPlatId = kPlatNation;
  LogInfo("zxagent CAgentData::GetPlatId iPlatId[%d]", iPlatId);
  return iPlatId;
}

int CAgentData::CheckAgentConf() {
  const CPString strFile = m_strConfInnerPath + "zxagent.json";
  CPJsonParse json;
  if (!json.LoadFile(strFile))
    return LogWarn("*zxagent CAgentData::CheckAgentConf Error LoadFile Error[%d] strFile[%s]", errno,
                   strFile);

  int bIsLbConf = 0;
  HJsonNode hConf = nullptr;
  if (!m_bDisableHb) {
    hConf = json.GetNode("lbconf");
    if (hConf != nullptr)
      bIsLbConf = 1;
    else
      LogWarn("*zxagent CAgentData::CheckAgentConf Error GetNode lbconf strFile[%s]", strFile);
  }
  if (!bIsLbConf) {
    hConf = json.GetNode("tconf");
    if (hConf == nullptr)
      return LogWarn("*zxagent CAgentData::CheckAgentConf Error GetNode tconf strFile[%s]", strFile);
  }
  CPString strAddr;
  if (!JsonText(json, hConf, bIsLbConf ? "lbconf_url" : "tconf_url", strAddr))
    return LogWarn("*zxagent CAgentData::CheckAgentConf Error GetNode url bIsLbConf[%d] strFile[%s]",
                   bIsLbConf, strFile);
  if (strAddr.IsEmpty())
    return LogWarn("*zxagent CAgentData::CheckAgentConf Error strAddr is empty bIsLbConf[%d] strFile[%s]",
                   bIsLbConf, strFile);
  if (bIsLbConf)
    SetZxCloudLbAddr(strAddr);
  else
    SetZxCloudTconfAddr(strAddr);
  LogInfo("zxagent CAgentData::CheckAgentConf OK bIsLbConf[%d] strAddr[%s] strFile[%s]", bIsLbConf, strAddr,
          strFile);
  return 1;
}

int CAgentData::MergeCheckConfig() {
  const CPString srcFile = m_strConfPath + "zxagent.json";
  const CPString dstFile = m_strConfInnerPath + "zxagent.json";
  uint64_t u64FileSize = 0;
  uint32_t dwLastWriteTime = 0;
  ZxGetFileAttr(srcFile, u64FileSize, dwLastWriteTime);

  unsigned long long u64FileSizeOld = 0;
  unsigned int dwLastWriteTimeOld = 0;
  if (ReadCacheAttribute(kMergedName, u64FileSizeOld, dwLastWriteTimeOld) && u64FileSizeOld == u64FileSize &&
      dwLastWriteTimeOld == dwLastWriteTime) {
    LogDetail(
        "zxagent CAgentData::MergeCheckConfig no change u64FileSize[%llu] dwLastWriteTime[%u] srcFile[%s] dstFile[%s]",
        u64FileSize, dwLastWriteTime, srcFile, dstFile);
    if (CheckAgentConf())
      return 1;
    LogWarn("*zxagent CAgentData::MergeCheckConfig CheckAgentConf Error");
  }

  SaveCacheAttribute(kMergedName, u64FileSize, dwLastWriteTime);
  errno = 0;
  int bStatus = ZxCopyFile(srcFile, dstFile, 0) ? 1 : 0;
  LogDetail(
      "zxagent CAgentData::MergeCheckConfig ZxCopyFile bStatus[%d] Flag[%d] u64FileSize[%llu][%llu] dwLastWriteTime[%u][%u] srcFile[%s] dstFile[%s]",
      bStatus, errno, u64FileSize, u64FileSizeOld, dwLastWriteTime, dwLastWriteTimeOld, srcFile, dstFile);

  CPString strAddr;
  bStatus = ReadCustomCloudAddr(strAddr);
  int iError = errno;
  if (bStatus && !strAddr.IsEmpty()) {
    // Writes the working copy and sets the entry address itself.
    if (UpdateCloudAddr(strAddr)) {
      LogInfo("zxagent CAgentData::MergeCheckConfig UpdateCloudAddr OK strAddr[%s] srcFile[%s] dstFile[%s]",
              strAddr, srcFile, dstFile);
    } else {
      iError = errno;
      LogInfo(
          "zxagent CAgentData::MergeCheckConfig UpdateCloudAddr Error[%d] strAddr[%s] srcFile[%s] dstFile[%s]",
          iError, strAddr, srcFile, dstFile);
    }
    return 1;
  }
  LogInfo(
      "zxagent CAgentData::MergeCheckConfig ReadCustomCloudAddr bStatus[%d] Flag[%d] strAddr[%s] srcFile[%s] dstFile[%s]",
      bStatus, iError, strAddr, srcFile, dstFile);
  CheckAgentConf();
  return 1;
}

int CAgentData::ReadCacheAttribute(const CPString& strName, unsigned long long& u64FileSize,
                                   unsigned int& dwLastWriteTime) {
  if (strName.IsEmpty())
    return LogWarn("*zxagent CAgentData::ReadCacheAttribute Error strName is empty");
  const CPString strFile = m_strConfInnerPath + "cacheattribute.json";
  CPJsonParse json;
  if (!json.LoadFile(strFile))
    return LogWarn("*zxagent CAgentData::ReadCacheAttribute Warn LoadFile Flag[%d] strFile[%s]", errno,
                   strFile);
  const HJsonNode hName = json.GetNode(strName.c_str());
  if (hName == nullptr)
    return LogWarn("*zxagent CAgentData::ReadCacheAttribute Error GetNode strName[%s] strFile[%s]", strName,
                   strFile);
  if (!JsonUnsigned(json, hName, "filesize", u64FileSize))
    return LogWarn("*zxagent CAgentData::ReadCacheAttribute Error GetNode filesize strName[%s] strFile[%s]",
                   strName, strFile);
  if (!JsonUnsigned(json, hName, "lastwritetime", dwLastWriteTime))
    return LogWarn(
        "*zxagent CAgentData::ReadCacheAttribute Error GetNode lastwritetime strName[%s] strFile[%s]",
        strName, strFile);
  LogInfo(
      "zxagent CAgentData::ReadCacheAttribute strName[%s] u64FileSize[%llu] dwLastWriteTime[%u] strFile[%s]",
      strName, u64FileSize, dwLastWriteTime, strFile);
  return 1;
}

int CAgentData::PutCacheAttribute(CPJsonParse& json, const CPString& strFile, const CPString& strName,
                                  unsigned long long u64FileSize, unsigned int dwLastWriteTime) {
  HJsonNode hName = json.GetNode(strName.c_str());
  if (hName == nullptr)
    hName = json.AddNodeObject(nullptr, strName.c_str());
  if (hName == nullptr)
    return LogWarn("*zxagent CAgentData::SaveCacheAttribute Error AddNodeObject strName[%s] strFile[%s]",
                   strName, strFile);
  const double dFileSize = static_cast<double>(u64FileSize);
  if (json.GetNode(hName, "filesize") != nullptr) {
    if (!json.ReplaceNode(hName, "filesize", dFileSize))
      return LogWarn(
          "*zxagent CAgentData::SaveCacheAttribute Error ReplaceNode filesize u64FileSize[%llu] strName[%s] strFile[%s]",
          u64FileSize, strName, strFile);
  } else if (!json.AddNode(hName, "filesize", dFileSize)) {
    return LogWarn(
        "*zxagent CAgentData::SaveCacheAttribute Error AddNode filesize u64FileSize[%llu] strName[%s] strFile[%s]",
        u64FileSize, strName, strFile);
  }
  const double dLastWriteTime = dwLastWriteTime;
  if (json.GetNode(hName, "lastwritetime") != nullptr) {
    if (!json.ReplaceNode(hName, "lastwritetime", dLastWriteTime))
      return LogWarn(
          "*zxagent CAgentData::SaveCacheAttribute Error ReplaceNode lastwritetime dwLastWriteTime[%u] strName[%s] strFile[%s]",
          dwLastWriteTime, strName, strFile);
  } else if (!json.AddNode(hName, "lastwritetime", dLastWriteTime)) {
    return LogWarn(
        "*zxagent CAgentData::SaveCacheAttribute Error AddNode lastwritetime dwLastWriteTime[%u] strName[%s] strFile[%s]",
        dwLastWriteTime, strName, strFile);
  }
  return 1;
}

int CAgentData::SaveCacheAttribute(const CPString& strName, unsigned long long u64FileSize,
                                   unsigned int dwLastWriteTime) {
  if (strName.IsEmpty())
    return LogWarn("*zxagent CAgentData::SaveCacheAttribute Error strName is empty");
  const CPString strFile = m_strConfInnerPath + "cacheattribute.json";
  const CPString strFileTmp = strFile + ".tmp";
  CPJsonParse json;
  if (!json.LoadFile(strFile)) {
    LogWarn("*zxagent CAgentData::SaveCacheAttribute Warn LoadFile Flag[%d] strName[%s] strFile[%s]", errno,
            strName, strFile);
    if (!json.CreateJson())
      return LogWarn("*zxagent CAgentData::SaveCacheAttribute Error CreateJson strName[%s] strFile[%s]",
                     strName, strFile);
  }
  if (!PutCacheAttribute(json, strFile, strName, u64FileSize, dwLastWriteTime))
    return 0;
  if (!json.SaveFile(strFileTmp))
    return LogWarn("*zxagent CAgentData::SaveCacheAttribute Error SaveFile Error[%d] strFileTmp[%s]", errno,
                   strFileTmp);
  if (!MyMoveFile(strFileTmp, strFile))
    return LogWarn(
        "*zxagent CAgentData::SaveCacheAttribute Error MyMoveFile Error[%d] strFileTmp[%s] strFile[%s]",
        errno, strFileTmp, strFile);
  LogInfo(
      "zxagent CAgentData::SaveCacheAttribute OK SaveFile strName[%s] u64FileSize[%llu] dwLastWriteTime[%u] strFile[%s]",
      strName, u64FileSize, dwLastWriteTime, strFile);
  return 1;
}
