// Any bytes: loading never crashes and what was loaded can be walked.
#include <cstdint>
#include <vector>

#include "platform/doc/PXmlParse.h"

using zxtools::CPXmlParse;
using zxtools::HXmlNode;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  CPXmlParse xml;
  if (xml.LoadBuffer(reinterpret_cast<const char*>(pData), uSize) == 0)
    return 0;
  CPString strValue;
  std::vector<HXmlNode> list;
  for (const char* pszName : {"Config", "a", "b", ""}) {
    for (HXmlNode hNode = xml.GetRoot(); hNode != nullptr; hNode = xml.GetNode(hNode, pszName)) {
      CPXmlParse::GetValue(hNode, strValue);
      xml.GetNode(hNode, pszName, list);
    }
  }
  return 0;
}
