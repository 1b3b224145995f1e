// The daemon's log channel. Set once by main before any thread starts; null (tests) writes nothing.
#pragma once

#include "platform/log/Log.h"

namespace zxcloudd {

HLog CloudLog();
void SetCloudLog(HLog hLog);

}  // namespace zxcloudd
