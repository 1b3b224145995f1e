// Which component would get a command: the agent's own routing, read from the home's files.
#pragma once

#include <string>

namespace zxctl {

struct _RouteQuestion {
  std::string strCommand;            // empty: the whole table
  std::string strProduct, strCombo;  // empty: any
};

// kExitFailed when a command is asked for and nobody would get it.
int Routes(const std::string& strHome, const _RouteQuestion& question, bool bJson);

}  // namespace zxctl
