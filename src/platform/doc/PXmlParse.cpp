#include "platform/doc/PXmlParse.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <pugixml.hpp>
#include <string_view>

#include "platform/os/ZxFile.h"

namespace zxtools {

namespace {

// pugixml skips a DOCTYPE unless it is asked to keep it; it is kept to be found and refused.
constexpr unsigned kParseFlags = pugi::parse_default | pugi::parse_doctype;

HXmlNode ToHandle(const pugi::xml_node& node) {
  return reinterpret_cast<HXmlNode>(node.internal_object());
}

pugi::xml_node FromHandle(HXmlNode hNode) {
  auto* pNode = reinterpret_cast<pugi::xml_node_struct*>(const_cast<zxtools_xml_node*>(hNode));
  return pugi::xml_node(pNode);
}

bool IsElement(const pugi::xml_node& node, const char* pszName) {
  return node.type() == pugi::node_element && std::strcmp(node.name(), pszName) == 0;
}

// Walks without recursion: the depth is what is being checked.
bool IsWithinDepth(const pugi::xml_node& root) {
  int iDepth = 0;
  pugi::xml_node node = root;
  while (true) {
    if (node.first_child()) {
      node = node.first_child();
      if (++iDepth > kXmlMaxDepth)
        return false;
      continue;
    }
    while (node != root && !node.next_sibling()) {
      node = node.parent();
      --iDepth;
    }
    if (node == root)
      return true;
    node = node.next_sibling();
  }
}

bool HasDoctype(const pugi::xml_document& doc) {
  return std::any_of(doc.begin(), doc.end(),
                     [](const pugi::xml_node& node) { return node.type() == pugi::node_doctype; });
}

}  // namespace

struct CPXmlParse::Impl {
  pugi::xml_document doc;
};

CPXmlParse::CPXmlParse() : m_pImpl(std::make_unique<Impl>()) {}

CPXmlParse::~CPXmlParse() = default;

int CPXmlParse::LoadBuffer(const char* pszText) {
  return LoadBuffer(pszText, pszText != nullptr ? std::strlen(pszText) : 0);
}

int CPXmlParse::LoadBuffer(const char* pData, size_t uLength) {
  pugi::xml_document& doc = m_pImpl->doc;
  doc.reset();
  if (pData == nullptr || uLength == 0 || uLength > kXmlMaxBytes)
    return 0;
  // A node costs many times the bytes of its shortest text, so nodes are bounded as well.
  const std::string_view svText(pData, uLength);
  if (svText.find('\0') != std::string_view::npos ||
      static_cast<size_t>(std::count(svText.begin(), svText.end(), '<')) > kXmlMaxNodes)
    return 0;
  if (doc.load_buffer(pData, uLength, kParseFlags) && !HasDoctype(doc) && IsWithinDepth(doc))
    return 1;
  doc.reset();
  return 0;
}

int CPXmlParse::LoadFile(const CPString& strFile) {
  m_pImpl->doc.reset();
  CPString strData;
  if (!ZxReadFileText(strFile, strData))
    return 0;
  const int iResult = LoadBuffer(strData.data(), strData.GetLength());
  errno = 0;
  return iResult;
}

HXmlNode CPXmlParse::GetRoot() const {
  return ToHandle(m_pImpl->doc.document_element());
}

HXmlNode CPXmlParse::GetNode(HXmlNode hParent, const char* pszName) const {
  if (pszName == nullptr)
    return nullptr;
  const pugi::xml_node parent = hParent != nullptr ? FromHandle(hParent) : m_pImpl->doc;
  for (const pugi::xml_node& node : parent.children()) {
    if (IsElement(node, pszName))
      return ToHandle(node);
  }
  return nullptr;
}

int CPXmlParse::GetNode(HXmlNode hParent, const char* pszName, std::vector<HXmlNode>& list) const {
  list.clear();
  if (pszName == nullptr)
    return 0;
  const pugi::xml_node parent = hParent != nullptr ? FromHandle(hParent) : m_pImpl->doc;
  for (const pugi::xml_node& node : parent.children()) {
    if (IsElement(node, pszName))
      list.push_back(ToHandle(node));
  }
  return static_cast<int>(list.size());
}

int CPXmlParse::GetValue(HXmlNode hNode, CPString& strValue) {
  strValue.Empty();
  if (hNode == nullptr)
    return 0;
  for (const pugi::xml_node& node : FromHandle(hNode).children()) {
    if (node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata)
      strValue += node.value();
  }
  return 1;
}

}  // namespace zxtools
