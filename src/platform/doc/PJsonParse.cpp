#include "platform/doc/PJsonParse.h"

#include <cjson/cJSON.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/os/ZxFile.h"

namespace zxtools {

namespace {

constexpr double kEndOfUInt64 = 18446744073709551616.0;

struct CDeleteJson {
  void operator()(cJSON* p) const { cJSON_Delete(p); }
};
using CJsonOwner = std::unique_ptr<cJSON, CDeleteJson>;

struct CFreeJsonText {
  void operator()(char* p) const { cJSON_free(p); }
};
using CJsonText = std::unique_ptr<char, CFreeJsonText>;

// Counts levels and values without building anything, so that a hostile text is refused before it costs
// stack or memory. Texts that are no JSON at all may pass; the parser refuses them.
bool IsWithinLimits(std::string_view sv) {
  int iDepth = 0;
  size_t uValues = 1;
  bool bInString = false;
  for (size_t u = 0; u < sv.size(); ++u) {
    const char ch = sv[u];
    if (bInString) {
      if (ch == '\\')
        ++u;
      else if (ch == '"')
        bInString = false;
      continue;
    }
    switch (ch) {
      case '"':
        bInString = true;
        break;
      case '{':
      case '[':
        ++uValues;
        if (++iDepth > kJsonMaxDepth)
          return false;
        break;
      case '}':
      case ']':
        --iDepth;
        break;
      case ',':
        ++uValues;
        break;
      default:
        break;
    }
    if (uValues > kJsonMaxValues)
      return false;
  }
  return true;
}

int SaturateInt(long lValue) {
  if (lValue > INT_MAX)
    return INT_MAX;
  return lValue < INT_MIN ? INT_MIN : static_cast<int>(lValue);
}

int SaturateInt(double dValue) {
  if (dValue >= static_cast<double>(INT_MAX))
    return INT_MAX;
  return dValue <= static_cast<double>(INT_MIN) ? INT_MIN : static_cast<int>(dValue);
}

CPString NumberText(double dValue) {
  char szNumber[400];
  std::to_chars_result result{};
  if (!std::isfinite(dValue))
    return "null";  // as it is written into a document
  if (dValue == 0)
    return "0";  // also for a negative zero
  if (std::trunc(dValue) == dValue && std::fabs(dValue) < kEndOfUInt64)
    result = std::to_chars(szNumber, szNumber + sizeof(szNumber), dValue, std::chars_format::fixed);
  else
    result = std::to_chars(szNumber, szNumber + sizeof(szNumber), dValue);
  return {szNumber, static_cast<size_t>(result.ptr - szNumber)};
}

// cJSON prints 15 digits when they are close enough, and long whole numbers with an exponent. A number that
// would change that way is held as ready text (cJSON_Raw), so that documents keep their numbers.
bool NeedsText(double dValue, CPString& strText) {
  if (!std::isfinite(dValue) || dValue == SaturateInt(dValue))
    return false;
  char szPrinted[32];
  std::snprintf(szPrinted, sizeof(szPrinted), "%1.15g", dValue);
  strText = NumberText(dValue);
  return strText != CPString(szPrinted);
}

cJSON* CreateNumber(double dValue) {
  CPString strText;
  return NeedsText(dValue, strText) ? cJSON_CreateRaw(strText.c_str()) : cJSON_CreateNumber(dValue);
}

// The same for what was parsed; the depth is bounded by then. False when out of memory.
bool KeepNumbers(cJSON* pNode) {
  CPString strText;
  if (cJSON_IsNumber(pNode) != 0 && NeedsText(pNode->valuedouble, strText)) {
    pNode->valuestring = static_cast<char*>(cJSON_malloc(strText.GetLength() + 1));
    if (pNode->valuestring == nullptr)
      return false;
    std::memcpy(pNode->valuestring, strText.c_str(), strText.GetLength() + 1);
    pNode->type = cJSON_Raw;
  }
  for (cJSON* pChild = pNode->child; pChild != nullptr; pChild = pChild->next) {
    if (!KeepNumbers(pChild))
      return false;
  }
  return true;
}

// As strtod, but independent of the locale.
double TextToDouble(const char* psz) {
  while (*psz == ' ' || (*psz >= '\t' && *psz <= '\r'))
    ++psz;
  if (*psz == '+' && psz[1] != '-')
    ++psz;
  double dValue = 0;
  const auto [pEnd, eError] = std::from_chars(psz, psz + std::strlen(psz), dValue);
  if (eError == std::errc::result_out_of_range)
    return std::strtod(psz, nullptr);  // overflow and underflow as strtod has them
  return dValue;
}

bool PrintNode(const cJSON* pNode, bool bFormatted, CPString& strText) {
  const CJsonText pText(bFormatted ? cJSON_Print(pNode) : cJSON_PrintUnformatted(pNode));
  strText = pText.get();
  return pText != nullptr;
}

// Takes pItem in any case; null when it could not be added.
cJSON* AddMember(cJSON* pParent, const char* pszName, cJSON* pItem) {
  CJsonOwner owner(pItem);
  if (pItem == nullptr || pszName == nullptr || cJSON_IsObject(pParent) == 0 ||
      cJSON_AddItemToObject(pParent, pszName, pItem) == 0)
    return nullptr;
  return owner.release();
}

cJSON* AppendItem(cJSON* pArray, cJSON* pItem) {
  CJsonOwner owner(pItem);
  if (pItem == nullptr || cJSON_IsArray(pArray) == 0 || cJSON_AddItemToArray(pArray, pItem) == 0)
    return nullptr;
  return owner.release();
}

int ReplaceMember(cJSON* pParent, const char* pszName, cJSON* pItem) {
  CJsonOwner owner(pItem);
  if (pItem == nullptr || pszName == nullptr || cJSON_IsObject(pParent) == 0 ||
      cJSON_GetObjectItemCaseSensitive(pParent, pszName) == nullptr ||
      cJSON_ReplaceItemInObjectCaseSensitive(pParent, pszName, pItem) == 0)
    return 0;
  static_cast<void>(owner.release());
  return 1;
}

}  // namespace

CPJsonParse::~CPJsonParse() {
  cJSON_Delete(m_pRoot);
}

void CPJsonParse::Reset(cJSON* pRoot) {
  cJSON_Delete(m_pRoot);
  m_pRoot = pRoot;
}

int CPJsonParse::LoadBuffer(const char* pszText) {
  return LoadBuffer(pszText, pszText != nullptr ? std::strlen(pszText) : 0);
}

int CPJsonParse::LoadBuffer(const char* pData, size_t uLength) {
  Reset(nullptr);
  if (pData == nullptr || uLength == 0 || uLength > kJsonMaxBytes)
    return 0;
  const std::string_view svText(pData, uLength);
  if (svText.find('\0') != std::string_view::npos || !IsWithinLimits(svText))
    return 0;
  const char* pEnd = nullptr;
  CJsonOwner pRoot(cJSON_ParseWithLengthOpts(pData, uLength, &pEnd, 0));
  if (pRoot == nullptr || pEnd == nullptr)
    return 0;
  const std::string_view svRest = svText.substr(static_cast<size_t>(pEnd - pData));
  if (svRest.find_first_not_of(" \t\r\n") != std::string_view::npos)
    return 0;
  if (!KeepNumbers(pRoot.get()))
    return 0;
  Reset(pRoot.release());
  return 1;
}

int CPJsonParse::LoadFile(const CPString& strFile) {
  Reset(nullptr);
  CPString strData;
  if (!ZxReadFileText(strFile, strData))
    return 0;
  const int iResult = LoadBuffer(strData.data(), strData.GetLength());
  errno = 0;
  return iResult;
}

int CPJsonParse::SaveFile(const CPString& strFile, bool bPrivate) const {
  CPString strJson;
  return GetJsonStr(strJson, true) != 0 && ZxSaveFileData(strFile, strJson, bPrivate) ? 1 : 0;
}

int CPJsonParse::CreateJson() {
  Reset(cJSON_CreateObject());
  return m_pRoot != nullptr ? 1 : 0;
}

HJsonNode CPJsonParse::GetNode(HJsonNode hParent, const char* pszName) const {
  return cJSON_GetObjectItemCaseSensitive(Parent(hParent), pszName);
}

int CPJsonParse::GetAllNode(HJsonNode hParent, std::vector<HJsonNode>& list) const {
  list.clear();
  const cJSON* pParent = Parent(hParent);
  if (cJSON_IsObject(pParent) == 0 && cJSON_IsArray(pParent) == 0)
    return 0;
  for (cJSON* pChild = pParent->child; pChild != nullptr; pChild = pChild->next)
    list.push_back(pChild);
  return 1;
}

int CPJsonParse::GetName(HJsonNode hNode, CPString& strName) {
  strName = hNode != nullptr ? hNode->string : nullptr;
  return hNode != nullptr && hNode->string != nullptr ? 1 : 0;
}

int CPJsonParse::GetValue(HJsonNode hNode, CPString& strValue) {
  strValue.Empty();
  if (hNode == nullptr || cJSON_IsInvalid(hNode) != 0)
    return 0;
  if (cJSON_IsString(hNode) != 0 || cJSON_IsRaw(hNode) != 0)
    strValue = hNode->valuestring;
  else if (cJSON_IsNumber(hNode) != 0)
    strValue = NumberText(hNode->valuedouble);
  else if (cJSON_IsBool(hNode) != 0)
    strValue = cJSON_IsTrue(hNode) != 0 ? "true" : "false";
  else if (cJSON_IsNull(hNode) == 0)
    return PrintNode(hNode, false, strValue) ? 1 : 0;
  return 1;
}

int CPJsonParse::GetIntValue(HJsonNode hNode, int& iValue) {
  iValue = 0;
  if (cJSON_IsNumber(hNode) != 0)
    iValue = SaturateInt(hNode->valuedouble);
  else if (cJSON_IsBool(hNode) != 0)
    iValue = cJSON_IsTrue(hNode) != 0 ? 1 : 0;
  else if (cJSON_IsRaw(hNode) != 0)
    iValue = SaturateInt(TextToDouble(hNode->valuestring));
  else if (cJSON_IsString(hNode) != 0)
    iValue = SaturateInt(std::strtol(hNode->valuestring, nullptr, 10));
  else
    return 0;
  return 1;
}

int CPJsonParse::GetDoubleValue(HJsonNode hNode, double& dValue) {
  dValue = 0;
  if (cJSON_IsNumber(hNode) != 0)
    dValue = hNode->valuedouble;
  else if (cJSON_IsString(hNode) != 0 || cJSON_IsRaw(hNode) != 0)
    dValue = TextToDouble(hNode->valuestring);
  else
    return 0;
  return 1;
}

int CPJsonParse::AddNode(HJsonNode hParent, const char* pszName, const char* pszValue) {
  cJSON* pItem = pszValue != nullptr ? cJSON_CreateString(pszValue) : nullptr;
  return AddMember(Parent(hParent), pszName, pItem) != nullptr ? 1 : 0;
}

int CPJsonParse::AddNode(HJsonNode hParent, const char* pszName, int iValue) {
  return AddMember(Parent(hParent), pszName, cJSON_CreateNumber(iValue)) != nullptr ? 1 : 0;
}

int CPJsonParse::AddNode(HJsonNode hParent, const char* pszName, double dValue) {
  return AddMember(Parent(hParent), pszName, CreateNumber(dValue)) != nullptr ? 1 : 0;
}

int CPJsonParse::AddNodeBool(HJsonNode hParent, const char* pszName, int bValue) {
  return AddMember(Parent(hParent), pszName, cJSON_CreateBool(bValue)) != nullptr ? 1 : 0;
}

HJsonNode CPJsonParse::AddNodeObject(HJsonNode hParent, const char* pszName) {
  return AddMember(Parent(hParent), pszName, cJSON_CreateObject());
}

HJsonNode CPJsonParse::AddNodeArray(HJsonNode hParent, const char* pszName) {
  return AddMember(Parent(hParent), pszName, cJSON_CreateArray());
}

int CPJsonParse::AddCopyNode(HJsonNode hParent, const char* pszName, HJsonNode hSource) {
  return AddMember(Parent(hParent), pszName, cJSON_Duplicate(hSource, 1)) != nullptr ? 1 : 0;
}

int CPJsonParse::InsertItemToArray(HJsonNode hArray, const CPString& strValue) {
  return AppendItem(hArray, cJSON_CreateString(strValue.c_str())) != nullptr ? 1 : 0;
}

HJsonNode CPJsonParse::InsertObjectToArray(HJsonNode hArray) {
  return AppendItem(hArray, cJSON_CreateObject());
}

int CPJsonParse::ReplaceNode(HJsonNode hParent, const char* pszName, const char* pszValue) {
  return ReplaceMember(Parent(hParent), pszName,
                       pszValue != nullptr ? cJSON_CreateString(pszValue) : nullptr);
}

int CPJsonParse::ReplaceNode(HJsonNode hParent, const char* pszName, double dValue) {
  return ReplaceMember(Parent(hParent), pszName, CreateNumber(dValue));
}

int CPJsonParse::ReplaceNodeBool(HJsonNode hParent, const char* pszName, int bValue) {
  return ReplaceMember(Parent(hParent), pszName, cJSON_CreateBool(bValue));
}

int CPJsonParse::GetJsonStr(CPString& strJson, bool bFormatted) const {
  strJson.Empty();
  return m_pRoot != nullptr && PrintNode(m_pRoot, bFormatted, strJson) ? 1 : 0;
}

}  // namespace zxtools
