// Reading helpers of the CAgentData files. Nothing here logs.
#pragma once

#include "platform/doc/PJsonParse.h"
#include "platform/text/PString.h"

// Member pszName of hParent (null: the root) as text or integer. False when it is not there or cannot be read
// so; the output is then left as it was.
inline bool JsonText(const zxtools::CPJsonParse& json, zxtools::HJsonNode hParent, const char* pszName,
                     CPString& strValue) {
  const zxtools::HJsonNode hNode = json.GetNode(hParent, pszName);
  CPString strText;
  if (hNode == nullptr || !zxtools::CPJsonParse::GetValue(hNode, strText))
    return false;
  strValue = strText;
  return true;
}

inline bool JsonInt(const zxtools::CPJsonParse& json, zxtools::HJsonNode hParent, const char* pszName,
                    int& iValue) {
  const zxtools::HJsonNode hNode = json.GetNode(hParent, pszName);
  int iNumber = 0;
  if (hNode == nullptr || !zxtools::CPJsonParse::GetIntValue(hNode, iNumber))
    return false;
  iValue = iNumber;
  return true;
}
