// What the service manager is told (the sd_notify protocol: one datagram per message), and what it asks for.
// Everything here does nothing when the host was not started by one. Never blocks: the thread that calls this
// also keeps the stop deadline, and sd_notify itself waits for a manager that does not read.
// Main thread only.
#pragma once

#include <cstddef>
#include <cstdint>

void NotifyReady(size_t uPlugins);
void NotifyStopping();
void NotifyAlive();
// Milliseconds between two signs of life, half of what the manager waits for; 0: it wants none.
uint32_t AliveIntervalMs();
