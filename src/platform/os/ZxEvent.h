// Auto-reset event: a set event lets exactly one wait through and is then not signalled again.
// Threads: any thread may set or wait; destroy only when nobody waits any more. Waits are cancellation
// points and use the monotonic clock.
#pragma once

#include <cstdint>

#include "platform/Api.h"

struct ZxEvent;
using HZxEvent = ZxEvent*;

ZX_API HZxEvent ZxCreateEvent();  // not signalled; null when out of resources
ZX_API void ZxSetEvent(HZxEvent hEvent);
ZX_API void ZxWaitEvent(HZxEvent hEvent);
ZX_API bool ZxWaitEventTimeout(HZxEvent hEvent, uint32_t dwMs);  // true: signalled, false: time-out
ZX_API void ZxDestroyEvent(HZxEvent hEvent);                     // null is allowed
