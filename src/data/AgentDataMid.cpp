// The machine-id record: one JSON file in three places, and the files that an older agent may have left.
// All copies are private (0600).
#include <stdio.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>

#include "data/AgentData.h"
#include "data/AgentDataJson.h"
#include "data/AgentLog.h"
#include "platform/os/ZxFile.h"

namespace {

constexpr char kMidFile[] = ".mid";
constexpr char kSystemMidFile[] = "/etc/.mid";
constexpr char kOldMidFileA[] = "/var/zxcwpp/run/.mid";
constexpr char kOldMidFileB[] = "/etc/.veltepp.mid";
constexpr mode_t kPrivateMode = 0600;
constexpr size_t kOldLineBytes = 64;  // with the NUL; a line that fills it is too long

struct CFileCloser {
  void operator()(FILE* pFile) const { fclose(pFile); }
};
using CFilePtr = std::unique_ptr<FILE, CFileCloser>;

enum class EOldFormat {
  Bare,   // the id, then the second id
  Named,  // "mid=..." and "mid2=..." in any order, or bare values
};

enum class EOldLine { Ok, ReadError, TooLong };

// errno is the copy's, 0 when it worked. A copy takes over the source's mode, so private stays private.
bool CopyMidFile(const CPString& strSrc, const CPString& strDst, int bFailIfExists) {
  const bool bStatus = ZxCopyFile(strSrc, strDst, bFailIfExists);
  if (bStatus)
    errno = 0;
  return bStatus;
}

// The value of szKey, or of szOldKey where an older agent wrote the file.
void ReadMidValue(const zxtools::CPJsonParse& json, const char* szKey, const char* szOldKey,
                  CPString& strValue, int& bSave) {
  if (json.GetNode(szKey) != nullptr) {
    JsonText(json, nullptr, szKey, strValue);
    return;
  }
  bSave = 1;
  JsonText(json, nullptr, szOldKey, strValue);
}

int AddMidNodes(const _MidInfoData& info, zxtools::CPJsonParse& json) {
  if (!json.AddNode(nullptr, "mid", info.strMid1))
    return LogWarn("*zxagent CAgentData::SaveMid Error AddNode mid strMid1[%s]", info.strMid1);
  if (!json.AddNode(nullptr, "mid2", info.strMid2))
    return LogWarn("*zxagent CAgentData::SaveMid Error AddNode mid2 strMid2[%s]", info.strMid2);
  if (!json.AddNode(nullptr, "midfirstsn", info.strMidFirstSn))
    return LogWarn("*zxagent CAgentData::SaveMid Error AddNode midfirstsn strMidSn[%s]", info.strMidFirstSn);
  if (!json.AddNode(nullptr, "midlastsn", info.strMidLastSn))
    return LogWarn("*zxagent CAgentData::SaveMid Error AddNode midlastsn strMidSn[%s]", info.strMidLastSn);
  if (!json.AddNode(nullptr, "midfirstdisk", info.strMidFirstDisk))
    return LogWarn("*zxagent CAgentData::SaveMid Error AddNode midfirstdisk strMidDisk[%s]",
                   info.strMidFirstDisk);
  if (!json.AddNode(nullptr, "midlastdisk", info.strMidLastDisk))
    return LogWarn("*zxagent CAgentData::SaveMid Error AddNode midlastdisk strMidDisk[%s]",
                   info.strMidLastDisk);
  if (!json.AddNode(nullptr, "midfirstmac", info.strMidFirstMac))
    return LogWarn("*zxagent CAgentData::SaveMid Error AddNode midfirstmac strMidMac[%s]",
                   info.strMidFirstMac);
  if (!json.AddNode(nullptr, "midlastmac", info.strMidLastMac))
    return LogWarn("*zxagent CAgentData::SaveMid Error AddNode midlastmac strMidMac[%s]", info.strMidLastMac);
  if (!json.AddNode(nullptr, "firstallmac", info.strFirstAllMac))
    return LogWarn("*zxagent CAgentData::SaveMid Error AddNode firstallmac strAllMac[%s]",
                   info.strFirstAllMac);
  if (!json.AddNode(nullptr, "lastallmac", info.strLastAllMac))
    return LogWarn("*zxagent CAgentData::SaveMid Error AddNode lastallmac strAllMac[%s]", info.strLastAllMac);
  return 1;
}

// Zeroes szBuffer and reads one line of an old file into it.
EOldLine ReadOldLine(FILE* pFile, char (&szBuffer)[kOldLineBytes]) {
  for (char& ch : szBuffer)
    ch = 0;
  if (fgets(szBuffer, sizeof(szBuffer), pFile) == nullptr)
    return EOldLine::ReadError;
  return szBuffer[kOldLineBytes - 2] != 0 ? EOldLine::TooLong : EOldLine::Ok;
}

// strBare is where the line goes when it bears no name.
void AssignOldLine(const CPString& strLine, EOldFormat eFormat, CPString& strBare, CPString& strMid1,
                   CPString& strMid2) {
  const size_t uEqual = strLine.Find("=");
  if (eFormat == EOldFormat::Bare || uEqual == CPString::npos)
    strBare = strLine;
  else
    (strLine.Left(4) == "mid2" ? strMid2 : strMid1) = strLine.Mid(uEqual + 1);
}

void CleanOldId(CPString& strId) {
  strId.TrimLeft(' ');
  strId.TrimRight('\n');
  strId.TrimRight('\r');
}

// Both ids of an opened old file; on failure both may hold anything.
int ReadOldLines(FILE* pFile, EOldFormat eFormat, const CPString& strMidFile, CPString& strMid1,
                 CPString& strMid2) {
  char szBuffer[kOldLineBytes];
  EOldLine eLine = ReadOldLine(pFile, szBuffer);
  if (eLine == EOldLine::ReadError)
    return LogWarn("*zxagent CAgentData::ReadOldMid Warn fgets mid1 err[%d] strMidFile[%s]", errno,
                   strMidFile);
  if (eLine == EOldLine::TooLong)
    return LogWarn("*zxagent CAgentData::ReadOldMid Warn mid1 szBuffer[%s] strMidFile[%s]", szBuffer,
                   strMidFile);
  AssignOldLine(szBuffer, eFormat, strMid1, strMid1, strMid2);

  eLine = ReadOldLine(pFile, szBuffer);
  if (eLine == EOldLine::ReadError)
    return LogWarn("*zxagent CAgentData::ReadOldMid Warn fgets mid2 err[%d] strMidFile[%s]", errno,
                   strMidFile);
  if (eLine == EOldLine::TooLong)
    return LogWarn("*zxagent CAgentData::ReadOldMid Warn mid2 szBuffer[%s] strMidFile[%s]", szBuffer,
                   strMidFile);
  AssignOldLine(szBuffer, eFormat, strMid2, strMid1, strMid2);

  CleanOldId(strMid1);
  if (strMid1.IsEmpty())
    return LogWarn("*zxagent CAgentData::ReadOldMid Warn mid1 is empty szBuffer[%s] strMidFile[%s]", szBuffer,
                   strMidFile);
  CleanOldId(strMid2);
  if (strMid2.IsEmpty())
    return LogWarn("*zxagent CAgentData::ReadOldMid Warn mid2 is empty szBuffer[%s] strMidFile[%s]", szBuffer,
                   strMidFile);
  return 1;
}

}  // namespace

int CAgentData::ReadMid(_MidInfoData& info, int& bSave) {
  const CPString strFile = m_strConfInnerPath + kMidFile;
  const CPString strBkFile = m_strConfPath + kMidFile;
  const CPString strSysFile = m_strSystemRoot + kSystemMidFile;
  // Older agents wrote them readable for everybody.
  for (const CPString& strCopy : {strFile, strBkFile, strSysFile})
    chmod(strCopy.c_str(), kPrivateMode);
  // In this order: the system copy restores a lost home, and what it restored feeds the backup.
  if (!ZxIsFileExisted(strFile)) {
    const int bStatus = CopyMidFile(strSysFile, strFile, 1);
    LogDetail("zxagent CAgentData::ReadMid ZxCopyFile bStatus[%d] Flag[%d] srcFile[%s] dstFile[%s]", bStatus,
              errno, strSysFile, strFile);
  }
  if (!ZxIsFileExisted(strBkFile)) {
    const int bStatus = CopyMidFile(strFile, strBkFile, 1);
    LogDetail("zxagent CAgentData::ReadMid ZxCopyFile bk bStatus[%d] Flag[%d] srcFile[%s] dstFile[%s]",
              bStatus, errno, strFile, strBkFile);
  }
  if (!ZxIsFileExisted(strSysFile)) {
    const int bStatus = CopyMidFile(strFile, strSysFile, 1);
    LogDetail("zxagent CAgentData::ReadMid ZxCopyFile sys bStatus[%d] Flag[%d] srcFile[%s] dstFile[%s]",
              bStatus, errno, strFile, strSysFile);
  }

  zxtools::CPJsonParse json;
  if (!json.LoadFile(strFile))
    return LogWarn("*zxagent CAgentData::ReadMid Error LoadFile Error[%d] strFile[%s]", errno, strFile);
  if (!JsonText(json, nullptr, "mid", info.strMid1))
    return LogWarn("*zxagent CAgentData::ReadMid Error GetNode mid strFile[%s]", strFile);
  if (!JsonText(json, nullptr, "mid2", info.strMid2))
    return LogWarn("*zxagent CAgentData::ReadMid Error GetNode mid2 strFile[%s]", strFile);
  ReadMidKey(json, "midfirstsn", "midlastsn", "midsn", info.strMidFirstSn, info.strMidLastSn, bSave);
  ReadMidKey(json, "midfirstdisk", "midlastdisk", "middisk", info.strMidFirstDisk, info.strMidLastDisk,
             bSave);
  ReadMidKey(json, "midfirstmac", "midlastmac", "midmac", info.strMidFirstMac, info.strMidLastMac, bSave);
  ReadMidKey(json, "firstallmac", "lastallmac", "allmac", info.strFirstAllMac, info.strLastAllMac, bSave);
  LogInfo(
      "zxagent CAgentData::ReadMid fromfile bSave[%d] strMid1[%s] strMid2[%s] strMidSn[%s][%s] strMidDisk[%s][%s] strMidMac[%s][%s] strAllMac[%s][%s] strFile[%s]",
      bSave, info.strMid1, info.strMid2, info.strMidFirstSn, info.strMidLastSn, info.strMidFirstDisk,
      info.strMidLastDisk, info.strMidFirstMac, info.strMidLastMac, info.strFirstAllMac, info.strLastAllMac,
      strFile);
  return 1;
}

int CAgentData::ReadMidKey(const zxtools::CPJsonParse& json, const char* szFirstKey, const char* szLastKey,
                           const char* szOldKey, CPString& strFirst, CPString& strLast, int& bSave) {
  for (const char* szKey : {szFirstKey, szLastKey, szOldKey}) {
    if (szKey == nullptr || *szKey == 0)
      return 0;
  }
  ReadMidValue(json, szFirstKey, szOldKey, strFirst, bSave);
  ReadMidValue(json, szLastKey, szOldKey, strLast, bSave);
  return 1;
}

int CAgentData::SaveMid(const _MidInfoData& info) {
  const CPString strFile = m_strConfInnerPath + kMidFile;
  const CPString strBkFile = m_strConfPath + kMidFile;
  const CPString strSysFile = m_strSystemRoot + kSystemMidFile;
  zxtools::CPJsonParse json;
  if (!json.CreateJson())
    return LogWarn("*zxagent CAgentData::SaveMid Error CreateJson strMid1[%s] strMid2[%s]", info.strMid1,
                   info.strMid2);
  if (!AddMidNodes(info, json))
    return 0;
  // Straight over the file, without a temporary one: the copies are the safety net.
  if (!json.SaveFile(strFile, true))
    return LogWarn("*zxagent CAgentData::SaveMid Error SaveFile Error[%d] strFile[%s]", errno, strFile);
  if (!CopyMidFile(strFile, strBkFile, 0))
    LogWarn("*zxagent CAgentData::SaveMid Error ZxCopyFile 1 Error[%d] strFile[%s] strBkFile[%s]", errno,
            strFile, strBkFile);
  if (!CopyMidFile(strFile, strSysFile, 0))
    LogWarn("*zxagent CAgentData::SaveMid Error ZxCopyFile 2 Error[%d] strFile[%s] strBkFile[%s]", errno,
            strFile, strSysFile);
  LogInfo(
      "zxagent CAgentData::SaveMid OK strMid1[%s] strMid2[%s] strMidSn[%s][%s] strMidDisk[%s][%s] strMidMac[%s][%s] strAllMac[%s][%s] strFile[%s] strBkFile[%s][%s]",
      info.strMid1, info.strMid2, info.strMidFirstSn, info.strMidLastSn, info.strMidFirstDisk,
      info.strMidLastDisk, info.strMidFirstMac, info.strMidLastMac, info.strFirstAllMac, info.strLastAllMac,
      strFile, strBkFile, strSysFile);
  return 1;
}

int CAgentData::ReadOldMid(CPString& strMid1, CPString& strMid2) {
  CPString strMidFile = m_strSystemRoot + kOldMidFileA;
  EOldFormat eFormat = EOldFormat::Bare;
  CFilePtr pFile(fopen(strMidFile.c_str(), "re"));
  if (!pFile) {
    LogWarn("*zxagent CAgentData::ReadOldMid Warn fopen cwpp err[%d] strMidFile[%s]", errno, strMidFile);
    strMidFile = m_strSystemRoot + kOldMidFileB;
    eFormat = EOldFormat::Named;
    pFile.reset(fopen(strMidFile.c_str(), "re"));
    if (!pFile)
      return LogWarn("*zxagent CAgentData::ReadOldMid Warn fopen xc err[%d] strMidFile[%s]", errno,
                     strMidFile);
  }
  CPString strOld1;
  CPString strOld2;
  if (!ReadOldLines(pFile.get(), eFormat, strMidFile, strOld1, strOld2))
    return 0;
  pFile.reset();
  strMid1 = strOld1;
  strMid2 = strOld2;
  errno = 0;
  const int iRemove = remove(strMidFile.c_str());
  LogInfo("zxagent CAgentData::ReadOldMid fromfile mid1[%s] mid2[%s] rmRet[%d][%d] strMidFile[%s]", strMid1,
          strMid2, iRemove, errno, strMidFile);
  return 1;
}
