// A pushed command. The first byte picks the business: unknown, without route, with one, translated.
#include <string>

#include "fuzz/CommandTarget.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  if (uSize == 0)
    return 0;
  const std::string strMsg(reinterpret_cast<const char*>(pData) + 1, uSize - 1);
  CCommandTarget::Mgr().ZxcloudPushmsg(pData[0] % 4, strMsg.c_str());
  return 0;
}
