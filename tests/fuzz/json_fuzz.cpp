// Any bytes: loading never crashes, and what was loaded can be walked, written and loaded again.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "platform/doc/PJsonParse.h"

using zxtools::CPJsonParse;
using zxtools::HJsonNode;

namespace {

void Walk(const CPJsonParse& json, HJsonNode hNode) {
  CPString strText;
  int iValue = 0;
  double dValue = 0;
  CPJsonParse::GetName(hNode, strText);
  CPJsonParse::GetIntValue(hNode, iValue);
  CPJsonParse::GetDoubleValue(hNode, dValue);
  std::vector<HJsonNode> list;
  if (json.GetAllNode(hNode, list) == 0)
    CPJsonParse::GetValue(hNode, strText);
  for (const HJsonNode hChild : list)
    Walk(json, hChild);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  CPJsonParse json;
  if (json.LoadBuffer(reinterpret_cast<const char*>(pData), uSize) == 0)
    return 0;
  Walk(json, json.GetRoot());
  CPString strText;
  CPJsonParse again;
  if (json.GetJsonStr(strText) == 0 || again.LoadBuffer(strText.data(), strText.GetLength()) == 0)
    std::abort();
  return 0;
}
