#include "platform/bus/BusNames.h"

#include <charconv>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kHexDigits = 32;

bool HexValue(char ch, unsigned& uValue) {
  if (ch >= '0' && ch <= '9')
    uValue = static_cast<unsigned>(ch - '0');
  else if (ch >= 'a' && ch <= 'f')
    uValue = static_cast<unsigned>(ch - 'a') + 10;
  else
    return false;
  return true;
}

}  // namespace

std::string BusNameOf(const GUID& guid) {
  char szHex[kHexDigits + 1];
  std::snprintf(szHex, sizeof(szHex), "%08x%04x%04x%02x%02x%02x%02x%02x%02x%02x%02x", guid.Data1, guid.Data2,
                guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2], guid.Data4[3], guid.Data4[4],
                guid.Data4[5], guid.Data4[6], guid.Data4[7]);
  return std::string(kBusNamePrefix) + szHex;
}

bool GuidOfBusName(const char* pszName, GUID& guid) {
  constexpr size_t uPrefix = sizeof(kBusNamePrefix) - 1;
  if (std::strncmp(pszName, kBusNamePrefix, uPrefix) != 0 || std::strlen(pszName) != uPrefix + kHexDigits)
    return false;
  uint8_t bytes[kHexDigits / 2];
  for (size_t i = 0; i < sizeof(bytes); ++i) {
    unsigned uHigh = 0, uLow = 0;
    if (!HexValue(pszName[uPrefix + 2 * i], uHigh) || !HexValue(pszName[uPrefix + 2 * i + 1], uLow))
      return false;
    bytes[i] = static_cast<uint8_t>(uHigh << 4 | uLow);
  }
  guid.Data1 = static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
               static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
  guid.Data2 = static_cast<uint16_t>(bytes[4] << 8 | bytes[5]);
  guid.Data3 = static_cast<uint16_t>(bytes[6] << 8 | bytes[7]);
  std::memcpy(guid.Data4, bytes + 8, sizeof(guid.Data4));
  return true;
}

std::string BusPathOf(uint32_t uiType) {
  return std::string(kBusTypeRoot) + "/" + std::to_string(uiType);
}

bool TypeOfBusPath(const char* pszPath, uint32_t& uiType) {
  constexpr size_t uRoot = sizeof(kBusTypeRoot) - 1;
  if (std::strncmp(pszPath, kBusTypeRoot, uRoot) != 0 || pszPath[uRoot] != '/')
    return false;
  const char* pszNumber = pszPath + uRoot + 1;
  const char* pszEnd = pszNumber + std::strlen(pszNumber);
  if (*pszNumber == '0' && pszNumber[1] != 0)  // one spelling per type, as the policy's
    return false;
  const auto [pszStop, eError] = std::from_chars(pszNumber, pszEnd, uiType);
  return eError == std::errc() && pszStop == pszEnd;
}
