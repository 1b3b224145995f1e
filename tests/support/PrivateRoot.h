// Keeps a test process away from the machine's /etc and /var: the agent writes "/etc/.mid", whatever home it
// runs in.
#pragma once

// Gives the calling process a mount namespace of its own, with a small copy of /etc in memory and an empty
// folder over the legacy id's place when it exists. Call first in main, before any thread. False when the
// system does not permit it; a process without privileges cannot write there anyway, so the caller may go on
// unless it is root.
bool EnterPrivateRoot();

// Removes the machine id that an earlier test of this process left in its private /etc. Nothing without one.
void ClearPrivateMid();
