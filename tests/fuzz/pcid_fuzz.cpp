// The cloud's table of business numbers.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "data/AgentData.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  const CPString strText(reinterpret_cast<const char*>(pData), uSize);
  CAgentData data;
  if (data.SetPcidData(strText, 0) != 0)
    std::abort();
  // Every pair of names in the text that has a number gets it back as a number with names.
  CPStrList pieces;
  strText.Split("|", pieces, true, false);
  for (const CPString& strPiece : pieces) {
    CPStrList fields;
    if (strPiece.Split(",", fields, false, false) < 3)
      continue;
    int iId = 0;
    CPString strProduct = fields.GetAt(0);
    CPString strCombo = fields.GetAt(1);
    if (data.GetIDByProductCombo(strProduct, strCombo, iId) == 0)
      continue;
    if (iId < 1 || strProduct.IsEmpty() || strCombo.IsEmpty() ||
        data.TransProductCombo(strProduct, strCombo) == 0 || strProduct.CompareNoCase(fields.GetAt(0)) != 0 ||
        strCombo.CompareNoCase(fields.GetAt(1)) != 0 ||
        data.GetProductComboByID(iId, strProduct, strCombo) == 0)
      std::abort();
  }
  return 0;
}
