// A machine of the test's own: empty /etc and /var that only the calling thread, and the threads and
// processes it starts from then on, can see. For tests of whole libraries and programs, which know no system
// root. Needs a kernel that grants a mount namespace (root, or user namespaces); call it before any thread
// that should share it.
#pragma once

#include <string>

// True, or false with the reason: then GTEST_SKIP() rather than touch the machine.
bool EnterPrivateMachine(std::string& strWhy);
