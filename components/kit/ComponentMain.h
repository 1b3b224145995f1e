// A component as a process of its own: the same class that a host loads as a plug-in, on the host's D-Bus
// bus.
//
// The process connects to $ZX_BUS_ADDRESS or to run/bus of its home, joins under the component's GUID, and
// goes on trying while the bus is away: a host may start later or again. SIGTERM and SIGINT end it in order.
// It keeps its files in $STATE_DIRECTORY when the service manager gives one, else in data/<name>/ of the
// home. Options: --home DIR (default: the directory above the program's own), --bus ADDRESS, --version,
// --help. Exit codes: 0 ended as told, 1 the component could not start, 2 command line.
#pragma once

#include "kit/Component.h"

int RunComponent(CComponent& component, int argc, char** argv);

// ZX_COMPONENT(Class) is a plug-in or, compiled with ZX_COMPONENT_PROCESS, a program.
#define ZX_COMPONENT_MAIN(Class)                \
  int main(int argc, char** argv) {             \
    Class component;                            \
    return RunComponent(component, argc, argv); \
  }
#ifdef ZX_COMPONENT_PROCESS
#define ZX_COMPONENT(Class) ZX_COMPONENT_MAIN(Class)
#else
#define ZX_COMPONENT(Class) ZX_COMPONENT_PLUGIN(Class)
#endif
