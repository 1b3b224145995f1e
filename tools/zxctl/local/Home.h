// The agent's home on this machine, and what zxctl reads of it. Nothing here logs; any thread; blocks on
// files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zxctl {

// Where the agent lives: strOption, else $ZX_HOME, else the tree that zxctl itself stands in. Ends in "/".
// False with strError set when that is no home (it has no etc/zxagent/).
bool FindHome(const std::string& strOption, std::string& strHome, std::string& strError);
// The D-Bus address of the home's host, as etc/zxhost.json has it; the default when it says nothing or cannot
// be read.
std::string BusAddressOf(const std::string& strHome);

// At most uMax bytes of a regular file, from its end when bTail. False with errno set; EFBIG: it is larger
// and bTail is not set. Never follows a link in the last component, never waits for a FIFO.
bool ReadFileBounded(const std::string& strFile, size_t uMax, bool bTail, std::string& strData);

// Names in a directory, sorted, "." and ".." left out; at most uMax. False with errno set.
bool ListDir(const std::string& strDir, size_t uMax, std::vector<std::string>& listNames);

}  // namespace zxctl
