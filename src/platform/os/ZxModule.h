// Where the running code was loaded from.
#pragma once

#include <cstddef>

#include "platform/Api.h"

// Path of the module that holds pAddress (a function or static of the caller's own library), as the loader
// reports it, into pszBuffer; iCapacity counts without the NUL. False with errno set when it is unknown or
// too long.
ZX_API bool ZxGetModuleFilePath(const void* pAddress, char* pszBuffer, size_t uCapacity);
