// Clocks and time texts. Never blocks.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/Api.h"

ZX_API uint64_t ZxGetTickCount();  // monotonic milliseconds
// Local time "YYYY-MM-DD HH:MM:SS" into pszBuffer (uSize bytes with the NUL, cut when too small).
ZX_API void ZxGetCurrentFmtTime(char* pszBuffer, size_t uSize);
