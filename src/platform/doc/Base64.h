// Base64 (RFC 4648, standard alphabet).
#pragma once

#include <cstddef>

#include "platform/Api.h"
#include "platform/text/PString.h"

// Decodes iLength characters into a heap buffer with a NUL behind the last byte; release with free().
// White space is skipped, missing padding accepted; null for anything else that is not base64, and for text
// that decodes to nothing. iReserved is not read. When puDecoded is given it receives the decoded length.
ZX_API char* base64Decode(const char* pszText, int iLength, int iReserved, size_t* puDecoded = nullptr);
ZX_API CPString Base64Encode(const void* pData, size_t uLength);
