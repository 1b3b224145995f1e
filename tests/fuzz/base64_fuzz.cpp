// Any bytes: decoding never reads or writes outside, and accepted text agrees with its own encoding.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/doc/Base64.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  if (uSize > INT32_MAX)
    return 0;
  size_t uDecoded = 0;
  char* pDecoded = base64Decode(reinterpret_cast<const char*>(pData), static_cast<int>(uSize), 0, &uDecoded);
  if (pDecoded == nullptr)
    return 0;
  const CPString strText = Base64Encode(pDecoded, uDecoded);
  size_t uAgain = 0;
  char* pAgain = base64Decode(strText.c_str(), static_cast<int>(strText.GetLength()), 0, &uAgain);
  if (pAgain == nullptr || uAgain != uDecoded || std::memcmp(pAgain, pDecoded, uDecoded) != 0)
    std::abort();
  std::free(pAgain);
  std::free(pDecoded);
  return 0;
}
