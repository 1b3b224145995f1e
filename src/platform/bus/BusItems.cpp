#include "platform/bus/BusItems.h"

#include <cstring>

TBusBytes CopyBytes(const void* pData, uint32_t uiLength) {
  if (uiLength == 0)
    return nullptr;
  TBusBytes bytes(static_cast<unsigned char*>(std::malloc(uiLength)));
  if (bytes == nullptr)
    throw std::bad_alloc();
  std::memcpy(bytes.get(), pData, uiLength);
  return bytes;
}
