#include "platform/text/Guid.h"

#include <cstdio>

namespace {

constexpr const char* kScanBraced = "{%08x-%04hx-%04hx-%02hhx%02hhx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx}";
constexpr const char* kScanPlain = "%08x-%04hx-%04hx-%02hhx%02hhx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx";

}  // namespace

GUID::GUID(const char* psz) {
  if (psz == nullptr)
    return;
    // What cannot be scanned stays zero, which is the whole error handling of this text form.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  static_cast<void>(std::sscanf(psz, *psz == '{' ? kScanBraced : kScanPlain, &Data1, &Data2, &Data3,
                                &Data4[0], &Data4[1], &Data4[2], &Data4[3], &Data4[4], &Data4[5], &Data4[6],
                                &Data4[7]));
#pragma GCC diagnostic pop
}

CPString GUID::ToUpper() const {
  return CPString::Make("%08X-%04hX-%04hX-%02hhX%02hhX-%02hhX%02hhX%02hhX%02hhX%02hhX%02hhX", Data1, Data2,
                        Data3, Data4[0], Data4[1], Data4[2], Data4[3], Data4[4], Data4[5], Data4[6],
                        Data4[7]);
}

CPString GUID::ToLower() const {
  return CPString::Make("%08x-%04hx-%04hx-%02hhx%02hhx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx", Data1, Data2,
                        Data3, Data4[0], Data4[1], Data4[2], Data4[3], Data4[4], Data4[5], Data4[6],
                        Data4[7]);
}
