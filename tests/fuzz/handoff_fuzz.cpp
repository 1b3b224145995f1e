// The hand-off text of a command: whatever is accepted must be what stands in the text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "kit/HandOff.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  const std::string strText(reinterpret_cast<const char*>(pData), uSize);
  CHandOff handOff;
  if (!ParseHandOff(strText, handOff))
    return 0;
  const std::string strAgain = "<version=" + handOff.strVersion + "><guid=" + handOff.strGuid +
                               "><product=" + handOff.strProduct + "><combo=" + handOff.strCombo +
                               "><command=" + handOff.strCommand + "><msg=" + handOff.strMsg + ">";
  if (strText.compare(0, strAgain.size(), strAgain) != 0)
    std::abort();
  (void)CommandId(handOff.strMsg);
  (void)IsGuidText(handOff.strGuid);
  return 0;
}
