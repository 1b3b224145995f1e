// The thread group of the agent library. Every thread of the agent starts through it, so that a manager is
// destroyed, and the library unmapped, only when none of them runs its code any more.
#pragma once

#include "platform/os/ZxThread.h"

CZxThreadGroup& AgentThreads();
