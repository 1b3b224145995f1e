#include "ServiceNotify.h"

#include <systemd/sd-daemon.h>

#include <algorithm>

void NotifyReady(size_t uPlugins) {
  sd_notifyf(0, "READY=1\nSTATUS=%zu plug-ins running", uPlugins);
}

void NotifyStopping() {
  sd_notify(0, "STOPPING=1\nSTATUS=stopping");
}

void NotifyAlive() {
  sd_notify(0, "WATCHDOG=1");
}

uint32_t AliveIntervalMs() {
  uint64_t u64Usec = 0;
  if (sd_watchdog_enabled(0, &u64Usec) <= 0)
    return 0;
  return static_cast<uint32_t>(std::clamp<uint64_t>(u64Usec / 2000, 1, INT32_MAX));
}
