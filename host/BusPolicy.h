// The configuration of the private bus daemon: who may connect, own which name, send which type, and its
// limits. Pure text. Everything that is not allowed here is refused by the daemon before a component sees it.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "ComponentList.h"

struct _BusPolicyInput {
  uid_t uidHost = 0;
  const _ComponentList* pComponents = nullptr;  // null: none
};

// The same input gives the same text. A host that is not root allows its own user (and root) only: then every
// component is that user, and the components' own rules mean nothing.
CPString BuildBusPolicy(const _BusPolicyInput& input);
