// The few questions that the host asks the bus daemon itself, over a short connection of its own. Blocking,
// at most the time given for each call. Nothing here logs. Any thread.
#pragma once

#include <cstdint>

#include "platform/text/PString.h"

// The daemon reads its configuration again; done when this returns true.
bool ReloadBusConfig(const CPString& strAddress, uint32_t uiTimeoutMs, CPString& strError);
