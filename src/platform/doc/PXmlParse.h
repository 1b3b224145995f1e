// XML document wrapper on top of pugixml, for reading. No DTD and no external entities: a document with a
// DOCTYPE is refused. Nodes are borrowed handles that live as long as the document. One thread per object.
// Results: 1 done, 0 failed. Nothing here logs or throws. Limits: kXmlMaxBytes, kXmlMaxDepth,
// about kXmlMaxNodes nodes. A text that holds a NUL byte is refused.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "platform/Api.h"
#include "platform/text/PString.h"

struct zxtools_xml_node;  // opaque

namespace zxtools {

using HXmlNode = const zxtools_xml_node*;
inline constexpr size_t kXmlMaxBytes = 64u << 20;
inline constexpr int kXmlMaxDepth = 128;
inline constexpr size_t kXmlMaxNodes = 2u << 20;

class ZX_API CPXmlParse {
 public:
  CPXmlParse();
  ~CPXmlParse();
  CPXmlParse(const CPXmlParse&) = delete;
  CPXmlParse& operator=(const CPXmlParse&) = delete;

  int LoadBuffer(const char* pszText);
  int LoadBuffer(const char* pData, size_t uLength);
  int LoadFile(const CPString& strFile);  // on failure errno is the file error, or 0 for bad XML

  HXmlNode GetRoot() const;  // the document element; null before a successful load

  // First child element of that name (null parent: the document, whose only child element is its root
  // element); null when there is none.
  HXmlNode GetNode(HXmlNode hParent, const char* pszName) const;
  // All child elements of that name, in document order; the number found.
  int GetNode(HXmlNode hParent, const char* pszName, std::vector<HXmlNode>& list) const;
  // The element's text: its character data and CDATA children joined, as they stand.
  static int GetValue(HXmlNode hNode, CPString& strValue);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_pImpl;
};

}  // namespace zxtools
