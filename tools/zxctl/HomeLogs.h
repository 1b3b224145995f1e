// Where the logs of a home are: "log/", and for components that run as users of their own the folders that
// stand or are linked below it. Those folders are written by those users, so a link in one is never followed.
#pragma once

#include <string>
#include <vector>

namespace zxctl {

// Below the home, each ending in "/": "log/" first, then "log/<name>/" in order. Empty with errno set: no
// log/.
std::vector<std::string> LogFolders(const std::string& strHome);
// Names below the home of all files in them that have ".log" in their names, rotated ones as well.
std::vector<std::string> LogFiles(const std::string& strHome);
// "zxtaskmgr" of "log/zxtaskmgr/zxtaskmgr.1.log".
std::string LogChannel(const std::string& strName);
bool IsOwnLogFolder(const std::string& strName);  // of a file: not in log/ itself

}  // namespace zxctl
