// Machine-id library: C interface, fixed. Every function returns 0 on success. Buffers receive NUL-terminated
// text of at most capacity bytes without the NUL. Threads: any, after zxmid_init. Blocks on sysfs reads only.
#pragma once

#include <cstdint>

#include "platform/Api.h"

extern "C" {

struct zxmid_settings {
  uint64_t reserved;                                     // 0
  void (*log)(int module, int level, const char* text);  // may be null
};

ZX_API int zxmid_init(const zxmid_settings* settings);
ZX_API int zxmid_param(const char* key, int reserved1, int reserved2);  // salt of the ids that follow
ZX_API int mid(char* buffer, int capacity);
ZX_API int mid2(char* buffer, int capacity);
ZX_API int zxmid_getmid2sn(char* buffer, int capacity);
ZX_API int zxmid_getmid2disk(char* buffer, int capacity);
ZX_API int zxmid_getmid2mac(char* buffer, int capacity);

}  // extern "C"
