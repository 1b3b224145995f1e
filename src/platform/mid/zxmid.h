// Machine-id library: C interface, fixed. Every function returns 0 on success. Buffers receive NUL-terminated
// text of at most capacity bytes without the NUL (so they hold capacity + 1). Threads: any, also without
// zxmid_init, which only sets the log callback. Blocks on sysfs reads only.
//
// Ids are 32 lower-case hex characters, salted hashes of what the machine is made of (docs/machine-id.md).
// mid and mid2 fail only when the machine offers no source at all; the three single sources are the empty
// text (and 0) when the machine does not have them.
#pragma once

#include <cstdint>

#include "platform/Api.h"

enum : int {
  kMidOk = 0,
  kMidErrArgument = 1,  // null, or a key longer than 4096 bytes
  kMidErrNoSource = 2,  // nothing on this machine tells it from another
  kMidErrBuffer = 3,    // the id is longer than capacity; the buffer holds the empty text
  kMidErrInternal = 4,  // out of memory
};

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
