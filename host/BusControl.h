// The few questions that the host asks the bus daemon itself, over a short connection of its own. Blocking,
// at most the time given for each call. Nothing here logs. Any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "platform/text/PString.h"

struct _BusOwner {
  CPString strName;  // com.zxagent.bus1.c.g<32 hex>
  pid_t iPid = 0;
  uid_t uid = 0;
};

// The daemon reads its configuration again; done when this returns true.
bool ReloadBusConfig(const CPString& strAddress, uint32_t uiTimeoutMs, CPString& strError);
// Who is on the bus under a component's name.
bool ListBusOwners(const CPString& strAddress, uint32_t uiTimeoutMs, std::vector<_BusOwner>& owners,
                   CPString& strError);
