// The machine's IPv4 interfaces, as far as the local address shown to the cloud depends on them.
// Stateless; any thread; nothing here logs.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/text/PString.h"

struct _InterfaceAddr {
  CPString strName;
  CPString strAddr;  // dotted IPv4
};

// A list that fills all entries may have been cut by the kernel, so it is not looked at.
inline constexpr size_t kInterfaceMax = 16;

// The configured interfaces in kernel order, at most kInterfaceMax. False when the kernel does not tell.
bool ListInterfaces(std::vector<_InterfaceAddr>& list);

// Whether an interface other than "lo" and "vir..." carries an address that is neither 0.0.0.0 nor 127.x.
bool HasOutsideInterface(const std::vector<_InterfaceAddr>& list);

// strAddr without its port: cut before the last ":" unless that is the first character. False when there is
// nothing to cut; strAddr is then left as it was.
bool CutPort(CPString& strAddr);
