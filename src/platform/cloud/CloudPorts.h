// What the link takes from outside, so that tests decide time and chance, and the times it keeps.
#pragma once

#include <cstdint>

namespace zxcloud {

class IClock {
 public:
  virtual ~IClock() = default;
  virtual uint64_t NowMs() = 0;  // monotonic milliseconds; ZxGetTickCount
};

class IWallClock {
 public:
  virtual ~IWallClock() = default;
  virtual int64_t NowSec() = 0;  // of the epoch; may jump
};

class IRandom {
 public:
  virtual ~IRandom() = default;
  virtual uint32_t Below(uint32_t uBound) = 0;  // uniform in [0, uBound); 0 when uBound is 0
};

class CSystemClock : public IClock {
 public:
  uint64_t NowMs() override;
};

class CSystemWallClock : public IWallClock {
 public:
  int64_t NowSec() override;
};

// Seeded from the kernel. One thread per object. Spreads load; not for secrets.
class CSystemRandom : public IRandom {
 public:
  CSystemRandom();
  uint32_t Below(uint32_t uBound) override;

 private:
  uint64_t m_u64State;
};

// All in milliseconds. The defaults are the product's; tests shorten them.
struct _LinkTimes {
  uint32_t dwBackoffBase = 1000;
  uint32_t dwBackoffCap = 300000;
  uint32_t dwDial = 3000;         // name, TCP connection
  uint32_t dwConnack = 2000;      // TLS and the broker's CONNACK, from the TCP connection on
  uint32_t dwReady = 2000;        // the broker's answer to the subscription
  uint32_t dwStable = 30000;      // a link that lived this long starts its back-off anew
  uint32_t dwAckAge = 30000;      // a publish unacknowledged for this long means a dead link
  uint32_t dwUploadGrace = 2000;  // uploads wait this long, up to twice, for the long connection before HTTPS
  uint32_t dwQuietLog = 60000;    // a known failure is logged at most once per this
  uint32_t dwHttpConnect = 5000;
  uint32_t dwHttpTotal = 20000;
  uint32_t dwTconfCheck = 10000;
  uint32_t dwPoll = 30000;
};

}  // namespace zxcloud
