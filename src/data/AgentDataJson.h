// Reading helper of the CAgentData files. Nothing here logs.
#pragma once

#include "platform/doc/PJsonParse.h"
#include "platform/text/PString.h"

// Text of member pszName of hParent (null: the root); false when it is not there, and then strValue is left
// as it was.
inline bool JsonText(const zxtools::CPJsonParse& json, zxtools::HJsonNode hParent, const char* pszName,
                     CPString& strValue) {
  const zxtools::HJsonNode hNode = json.GetNode(hParent, pszName);
  return hNode != nullptr && zxtools::CPJsonParse::GetValue(hNode, strValue) != 0;
}

inline bool JsonInt(const zxtools::CPJsonParse& json, zxtools::HJsonNode hParent, const char* pszName,
                    int& iValue) {
  const zxtools::HJsonNode hNode = json.GetNode(hParent, pszName);
  return hNode != nullptr && zxtools::CPJsonParse::GetIntValue(hNode, iValue) != 0;
}
