// JSON document wrapper on top of cJSON. One object owns one document; nodes are borrowed handles that live
// as long as the document and its structure. Threads: one thread at a time per object.
// Results: 1 done, 0 failed. Nothing here logs or throws.
// Limits: kJsonMaxBytes of text, kJsonMaxDepth levels and about kJsonMaxValues values; beyond them loading
// fails. A text that holds a NUL byte is refused. Numbers are doubles and keep their value when a document is
// loaded and written again; that may need the node type cJSON_Raw, so read nodes through GetXxxValue only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/Api.h"
#include "platform/text/PString.h"

struct cJSON;

namespace zxtools {

using HJsonNode = cJSON*;
inline constexpr size_t kJsonMaxBytes = 64u << 20;
inline constexpr int kJsonMaxDepth = 128;
inline constexpr size_t kJsonMaxValues = 2u << 20;

class ZX_API CPJsonParse {
 public:
  CPJsonParse() = default;
  ~CPJsonParse();
  CPJsonParse(const CPJsonParse&) = delete;
  CPJsonParse& operator=(const CPJsonParse&) = delete;

  int LoadBuffer(const char* pszText);                // null fails
  int LoadBuffer(const char* pData, size_t uLength);  // trailing text other than white space fails
  int LoadFile(const CPString& strFile);              // on failure errno is the file error, or 0 for bad JSON
  int SaveFile(const CPString& strFile, bool bPrivate = false) const;  // formatted; mode 0644, or 0600
  int CreateJson();                                                    // an empty object as root

  HJsonNode GetRoot() const { return m_pRoot; }
  // Member lookup is case-sensitive; the first of duplicates counts. Null parent means the root.
  HJsonNode GetNode(const char* pszName) const { return GetNode(nullptr, pszName); }
  HJsonNode GetNode(HJsonNode hParent, const char* pszName) const;
  // Children of an object or array, in document order; 0 when hParent is neither.
  int GetAllNode(HJsonNode hParent, std::vector<HJsonNode>& list) const;

  static int GetName(HJsonNode hNode, CPString& strName);
  // As text: strings as they are, numbers in shortest form, booleans "true"/"false", null "", objects and
  // arrays compact.
  static int GetValue(HJsonNode hNode, CPString& strValue);
  // Numbers (cut towards zero, saturated), booleans as 1/0, texts as base-10 (leading garbage gives 0).
  static int GetIntValue(HJsonNode hNode, int& iValue);
  static int GetDoubleValue(HJsonNode hNode, double& dValue);  // numbers, and texts as strtod reads them

  // Append a member to hParent (null: the root).
  int AddNode(HJsonNode hParent, const char* pszName, const char* pszValue);
  int AddNode(HJsonNode hParent, const char* pszName, const CPString& strValue) {
    return AddNode(hParent, pszName, strValue.c_str());
  }
  int AddNode(HJsonNode hParent, const char* pszName, int iValue);
  int AddNode(HJsonNode hParent, const char* pszName, double dValue);  // whole numbers with all their digits
  int AddNodeBool(HJsonNode hParent, const char* pszName, int bValue);
  HJsonNode AddNodeObject(HJsonNode hParent, const char* pszName);
  HJsonNode AddNodeArray(HJsonNode hParent, const char* pszName);
  // Appends a deep copy of hSource (of any document) under pszName.
  int AddCopyNode(HJsonNode hParent, const char* pszName, HJsonNode hSource);
  // Append to an array: a text, or a new empty object which is returned.
  int InsertItemToArray(HJsonNode hArray, const CPString& strValue);
  HJsonNode InsertObjectToArray(HJsonNode hArray);

  // Replace an existing member; 0 when it is not there.
  int ReplaceNode(HJsonNode hParent, const char* pszName, const char* pszValue);
  int ReplaceNode(HJsonNode hParent, const char* pszName, const CPString& strValue) {
    return ReplaceNode(hParent, pszName, strValue.c_str());
  }
  int ReplaceNode(HJsonNode hParent, const char* pszName, double dValue);
  int ReplaceNodeBool(HJsonNode hParent, const char* pszName, int bValue);

  int GetJsonStr(CPString& strJson, bool bFormatted = false) const;

 private:
  void Reset(cJSON* pRoot);
  cJSON* Parent(HJsonNode hParent) const { return hParent != nullptr ? hParent : m_pRoot; }
  cJSON* m_pRoot = nullptr;
};

}  // namespace zxtools
