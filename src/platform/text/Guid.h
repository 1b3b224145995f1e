// 16-byte component identifier, layout fixed by the bus (4 + 2 + 2 + 8 bytes).
#pragma once

#include <cstdint>
#include <cstring>

#include "platform/Api.h"
#include "platform/text/PString.h"

struct ZX_API GUID {
  uint32_t Data1 = 0;
  uint16_t Data2 = 0;
  uint16_t Data3 = 0;
  uint8_t Data4[8] = {};

  GUID() = default;
  // Dashed form, with braces when the text begins with "{". Null gives zero. The id starts as zero and is
  // filled as far as the text can be scanned; there is no validation and no error.
  explicit GUID(const char* psz);

  CPString ToUpper() const;  // 36 characters, upper case, no braces: the form in log lines
  CPString ToLower() const;  // 36 characters, lower case, no braces

  friend bool operator==(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }
  friend bool operator!=(const GUID& a, const GUID& b) { return !(a == b); }
  friend bool operator<(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) < 0; }
};
static_assert(sizeof(GUID) == 16);
