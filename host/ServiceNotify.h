// What the service manager is told (sd_notify), and what it asks for. Everything here does nothing when the
// host was not started by one.
#pragma once

#include <cstddef>
#include <cstdint>

void NotifyReady(size_t uPlugins);
void NotifyStopping();
void NotifyAlive();
// Milliseconds between two signs of life, half of what the manager waits for; 0: it wants none.
uint32_t AliveIntervalMs();
