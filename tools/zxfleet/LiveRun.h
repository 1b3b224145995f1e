// A real fleet for a while: many whole links against the fleet server or a broker that is named; the server
// goes away and returns. Prints what it sees. Blocks until done.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace zxfleet {

struct _LiveSettings {
  uint32_t uLinks = 500;
  uint32_t uScale = 1;  // all times of the outage and of the back-off are divided by it; not the time-outs
  double dAwaySec = 120;
  double dAfterSec = 180;
  uint32_t uSpreadSec = 60;
  uint32_t uQueued = 0;        // uploads given to each link while the server is away
  uint32_t dwStartOverMs = 0;  // 0: as fast as they start
  uint32_t uHoldSec = 0;       // with strLong: how long the fleet stays
  std::string strDir;          // empty: a temporary one
  std::string strLong;         // brokers instead of the fleet server; "host:port,..."
  pid_t iWatch = 0;            // a process whose memory and CPU time are printed
};

// False: the fleet did not come up, or its return was not even.
bool RunLive(const _LiveSettings& settings);

}  // namespace zxfleet
