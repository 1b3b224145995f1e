#include "platform/text/Guid.h"

#include <cstdio>

namespace {

constexpr const char* kScanBraced = "{%08x-%04hx-%04hx-%02hhx%02hhx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx}";
constexpr const char* kScanPlain = "%08x-%04hx-%04hx-%02hhx%02hhx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx";

constexpr size_t kTextLength = 36;
constexpr size_t kBytes = 16;
constexpr char kLower[] = "0123456789abcdef";
constexpr char kUpper[] = "0123456789ABCDEF";

constexpr bool IsDashAt(size_t u) {
  return u == 8 || u == 13 || u == 18 || u == 23;
}

int HexValue(char ch) {
  if (ch >= '0' && ch <= '9')
    return ch - '0';
  if (ch >= 'a' && ch <= 'f')
    return ch - 'a' + 10;
  return ch >= 'A' && ch <= 'F' ? ch - 'A' + 10 : -1;
}

// The bytes in the order of their digits. False for anything but the full dashed form; what follows it counts
// for nothing.
bool ReadFullForm(const char* psz, uint8_t (&bytes)[kBytes]) {
  size_t uDigit = 0;
  for (size_t u = 0; u < kTextLength; ++u) {
    if (IsDashAt(u)) {
      if (psz[u] != '-')
        return false;
      continue;
    }
    const int iValue = HexValue(psz[u]);
    if (iValue < 0)  // also the end of the text
      return false;
    uint8_t& byte = bytes[uDigit / 2];
    byte = static_cast<uint8_t>(byte << 4 | iValue);
    ++uDigit;
  }
  return true;
}

CPString TextOf(const GUID& guid, const char* pszDigits) {
  uint8_t bytes[kBytes] = {static_cast<uint8_t>(guid.Data1 >> 24), static_cast<uint8_t>(guid.Data1 >> 16),
                           static_cast<uint8_t>(guid.Data1 >> 8),  static_cast<uint8_t>(guid.Data1),
                           static_cast<uint8_t>(guid.Data2 >> 8),  static_cast<uint8_t>(guid.Data2),
                           static_cast<uint8_t>(guid.Data3 >> 8),  static_cast<uint8_t>(guid.Data3)};
  std::memcpy(bytes + kBytes / 2, guid.Data4, sizeof(guid.Data4));
  char szText[kTextLength];
  size_t uDigit = 0;
  for (size_t u = 0; u < kTextLength; ++u) {
    if (IsDashAt(u)) {
      szText[u] = '-';
      continue;
    }
    const uint8_t byte = bytes[uDigit / 2];
    szText[u] = pszDigits[uDigit % 2 == 0 ? byte >> 4 : byte & 0xf];
    ++uDigit;
  }
  return CPString(szText, kTextLength);
}

}  // namespace

GUID::GUID(const char* psz) {
  if (psz == nullptr)
    return;
  uint8_t bytes[kBytes] = {};
  if (ReadFullForm(*psz == '{' ? psz + 1 : psz, bytes)) {
    Data1 = uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
    Data2 = static_cast<uint16_t>(bytes[4] << 8 | bytes[5]);
    Data3 = static_cast<uint16_t>(bytes[6] << 8 | bytes[7]);
    std::memcpy(Data4, bytes + kBytes / 2, sizeof(Data4));
    return;
  }
  // Any other text fills what can be scanned of it, which is the whole error handling of this text form.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  static_cast<void>(std::sscanf(psz, *psz == '{' ? kScanBraced : kScanPlain, &Data1, &Data2, &Data3,
                                &Data4[0], &Data4[1], &Data4[2], &Data4[3], &Data4[4], &Data4[5], &Data4[6],
                                &Data4[7]));
#pragma GCC diagnostic pop
}

CPString GUID::ToUpper() const {
  return TextOf(*this, kUpper);
}

CPString GUID::ToLower() const {
  return TextOf(*this, kLower);
}
