// The process's figures as tests ask for them.
#pragma once

#include <optional>

#include "platform/os/ZxGauges.h"

// Nothing when no gauge of that name exists.
inline std::optional<int64_t> GaugeValue(const char* pszName) {
  for (const ZxGaugeValue& value : ZxGaugesRead()) {
    if (value.strName == pszName)
      return value.i64Value;
  }
  return std::nullopt;
}
