// Business numbers: the table that joins the cloud's numeric ids with products and combos.
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "data/AgentCodes.h"
#include "data/AgentData.h"
#include "data/AgentLog.h"
#include "platform/os/ZxFile.h"

namespace {

constexpr char kPcidFile[] = "pcid.dat";
constexpr char kBusinessSeparator[] = "\n\t\t\t";

// Id 1 has a meaning of its own, also without a table.
constexpr int kBuiltinId = 1;
constexpr char kBuiltinProduct[] = "veltExtHost";
constexpr char kBuiltinCombo[] = "PCInfo";

// "product,combo,id"; 0 when a part is missing or empty, or the id is not a positive int.
int ParsePcidPiece(const CPString& strPiece, CPString& strProduct, CPString& strCombo, int& iId) {
  const size_t uFirst = strPiece.Find(",");
  if (uFirst == CPString::npos)
    return 0;
  const size_t uSecond = strPiece.Find(",", uFirst + 1);
  if (uSecond == CPString::npos)
    return 0;
  strProduct = strPiece.Left(uFirst);
  strCombo = strPiece.Mid(uFirst + 1, uSecond - uFirst - 1);
  const long i64Id = std::strtol(strPiece.c_str() + uSecond + 1, nullptr, 10);
  if (strProduct.IsEmpty() || strCombo.IsEmpty() || i64Id < 1 || i64Id > INT_MAX)
    return 0;
  iId = static_cast<int>(i64Id);
  return 1;
}

}  // namespace

uint32_t CAgentData::SetPcidData(const CPString& strPcidData, int bSaveFile) {
  std::map<int, _ProductCombo> idpcMap;
  std::map<CPString, int> pcidMap;
  std::map<CPString, _ProductCombo> strpcMap;
  CPStrList pieces;
  strPcidData.Split("|", pieces, true, false);
  for (const CPString& strPiece : pieces) {
    CPString strProduct;
    CPString strCombo;
    int iId = 0;
    if (!ParsePcidPiece(strPiece, strProduct, strCombo, iId))
      continue;
    const CPString strKey = ProductComboKey(strProduct, strCombo);
    idpcMap[iId] = {strProduct, strCombo};
    pcidMap[strKey] = iId;
    strpcMap[strKey] = {strProduct, strCombo};
    LogInfo("zxagent CAgentData::SetPcidData iId[%d] strProduct[%s] strCombo[%s]", iId, strProduct, strCombo);
  }
  LogInfo(
      "zxagent CAgentData::SetPcidData bSaveFile[%d] strPcidData[%d] idpcMap[%d] pcidMap[%d] strpcMap[%d]",
      bSaveFile, static_cast<int>(strPcidData.GetLength()), static_cast<int>(idpcMap.size()),
      static_cast<int>(pcidMap.size()), static_cast<int>(strpcMap.size()));
  {
    const CCritLock lock(m_csData);
    m_idpcMap.swap(idpcMap);
    m_pcidMap.swap(pcidMap);
    m_strpcMap.swap(strpcMap);
    m_strPcidData = strPcidData;
  }
  LogInfo("zxagent CAgentData::SetPcidData strPcidData[%s]\n", strPcidData);
  if (bSaveFile != 0 && !SavePcidData(strPcidData))
    return LogFail(kErrPcidSave, "*zxagent CAgentData::SetPcidData SavePcidData Error[%d]", errno);
  return 0;
}

int CAgentData::ReadPcidData(CPString& strPcidData) {
  const CPString strFile = m_strConfInnerPath + kPcidFile;
  char* pData = nullptr;
  size_t uLength = 0;
  if (!ZxReadFileData(strFile, pData, uLength))
    return LogWarn("*zxagent CAgentData::ReadPcidData ReadFileData Warn[%d] strFile[%s]", errno, strFile);
  strPcidData = CPString(pData, uLength);
  ZxReleaseFileData(pData);
  return 1;
}

int CAgentData::SavePcidData(const CPString& strPcidData) {
  const CPString strFile = m_strConfInnerPath + kPcidFile;
  const CPString strFileTmp = strFile + ".tmp";
  if (!ZxSaveFileData(strFileTmp, strPcidData))
    return LogWarn("*zxagent CAgentData::SavePcidData Error SaveFileData Error[%d] strFileTmp[%s]", errno,
                   strFileTmp);
  if (!MyMoveFile(strFileTmp, strFile))
    return LogWarn("*zxagent CAgentData::SavePcidData Error MyMoveFile Error[%d] strFileTmp[%s] strFile[%s]",
                   errno, strFileTmp, strFile);
  return 1;
}

// The other two maps stay: a number that arrives late can still be named.
void CAgentData::CleanPcidData() {
  const CCritLock lock(m_csData);
  m_pcidMap.clear();
}

int CAgentData::GetProductComboByID(int iId, CPString& strProduct, CPString& strCombo) {
  const CCritLock lock(m_csData);
  const auto it = m_idpcMap.find(iId);
  if (it != m_idpcMap.end()) {
    strProduct = it->second.strProduct;
    strCombo = it->second.strCombo;
    return 1;
  }
  if (iId != kBuiltinId)
    return 0;
  strProduct = kBuiltinProduct;
  strCombo = kBuiltinCombo;
  return 1;
}

int CAgentData::GetIDByProductCombo(const CPString& strProduct, const CPString& strCombo, int& iId) {
  const CPString strKey = ProductComboKey(strProduct, strCombo);
  const CCritLock lock(m_csData);
  const auto it = m_pcidMap.find(strKey);
  if (it == m_pcidMap.end())
    return 0;
  iId = it->second;
  return 1;
}

int CAgentData::TransProductCombo(CPString& strProduct, CPString& strCombo) {
  const CPString strKey = ProductComboKey(strProduct, strCombo);
  const CCritLock lock(m_csData);
  const auto it = m_strpcMap.find(strKey);
  if (it == m_strpcMap.end())
    return 0;
  strProduct = it->second.strProduct;
  strCombo = it->second.strCombo;
  return 1;
}

int CAgentData::GetProductComboByGuid(const GUID& guid, CPString& strProduct, CPString& strCombo) {
  const CCritLock lock(m_csRoute);
  const auto it = m_guidToProductComboMap.find(guid);
  if (it == m_guidToProductComboMap.end())
    return 0;
  strProduct = it->second.strProduct;
  strCombo = it->second.strCombo;
  return 1;
}

CPString CAgentData::GetAllPcidBusiness(int& bChanged) {
  std::list<_GuidProductCombo> gpcList;
  m_AgentInterface.GetLoadGuidProductCombo(gpcList);
  CPString strBussiness;
  for (const _GuidProductCombo& gpc : gpcList) {
    int iId = 0;
    if (!GetIDByProductCombo(gpc.strProduct, gpc.strCombo, iId))
      continue;
    if (!strBussiness.IsEmpty())
      strBussiness += kBusinessSeparator;
    strBussiness += CPString::Make("<id>%d</id>", iId);
  }
  {
    const CCritLock lock(m_csData);
    if (bChanged != 0 || strBussiness != m_strLastBusiness)
      bChanged = 1;
    m_strLastBusiness = strBussiness;
  }
  if (bChanged == 0)
    LogDetail("zxagent CAgentData::GetAllPcidBusiness strBussiness[%s]", strBussiness);
  else if (!strBussiness.IsEmpty())
    LogInfo("zxagent CAgentData::GetAllPcidBusiness strBussiness[%s]", strBussiness);
  return strBussiness;
}
